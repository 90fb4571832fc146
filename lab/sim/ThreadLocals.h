// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

namespace OrvLab {

/// The thread-local variables of the explored code, of which each fiber has its own.
class ThreadLocals {
public:
    struct Range {
        char* begin;
        std::size_t size;
    };
    /// Where they are in the thread that all fibers run on.
    static const std::vector<Range>& All();

    /// As a new thread has them.
    ThreadLocals();
    /// Those of the fiber that runs become these, and the other way round.
    void Exchange();

private:
    std::vector<char> kept;
};

} // namespace OrvLab
