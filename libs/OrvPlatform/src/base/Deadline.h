// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace OrvPlatform {

/// What is left until `deadline`, rounded up so that nobody looks too early; zero once it has passed.
std::chrono::milliseconds TimeUntil(std::chrono::steady_clock::time_point deadline,
                                    std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

/// The same as poll() wants it: at most a minute at a time, and -1 for time_point::max(), which never comes.
int PollTimeout(std::chrono::steady_clock::time_point deadline,
                std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());

} // namespace OrvPlatform
