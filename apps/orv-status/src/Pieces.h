// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace OrvStatus {

/// A text made of pieces, in one call: each + would be compiled in place, which is what a program of texts is large by.
using Pieces = std::initializer_list<std::string_view>;

void Append(std::string& text, Pieces pieces);
std::string Joined(Pieces pieces);

} // namespace OrvStatus
