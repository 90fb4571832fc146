// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace OrvPlatform {

/// `text` without the characters of `blanks` at its ends.
std::string_view Trimmed(std::string_view text, std::string_view blanks);

/// What an errno value means.
std::string ErrorText(int error);

} // namespace OrvPlatform
