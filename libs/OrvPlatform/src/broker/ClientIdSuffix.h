// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace OrvPlatform {

/// What is appended to one client's id: the configured suffix with "%a" replaced by the program's name (at most 32
/// bytes of it, with '_' for what is no letter, digit, '-', '_' or '.'), "%p" by the process id and "%n" by the number
/// of this client among those of the process that were made with the same id, from 1. Callable from any thread.
std::string ClientIdSuffix(const std::string& configured, const std::string& clientId, const std::string& program);

} // namespace OrvPlatform
