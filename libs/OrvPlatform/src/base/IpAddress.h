// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace OrvPlatform {

/// Whether `text` is an IPv4 or IPv6 address and nothing besides.
bool IsIpAddress(const std::string& text);

/// Whether it is 0.0.0.0 or ::, in whatever spelling.
bool IsUnspecifiedAddress(const std::string& text);

} // namespace OrvPlatform
