// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <thread>

namespace OrvTest {

/// Long enough for a loaded machine under a sanitizer; a test that passes never waits that long.
constexpr std::chrono::seconds PATIENCE{20};

/// Waits until `condition` holds, at most `limit`.
/// @return whether it held
template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = PATIENCE) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/// How long `action` takes.
template <typename Action>
std::chrono::milliseconds TimeOf(Action action) {
    const auto begin = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

} // namespace OrvTest
