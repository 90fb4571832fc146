// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace OrvTest {

/// What this process holds at the moment.
struct ProcessFigures {
    std::size_t threads;
    std::size_t descriptors;
    std::size_t residentBytes;

    static ProcessFigures Now();
};

} // namespace OrvTest
