// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvPlatformFake {

/// The configuration behind the fake loggers.
class FakeLogger {
public:
    /// Records below this level are off from now on, whatever their logger's own level; 0 lets all through. They format
    /// nothing. LogWrapper's records are not affected.
    static void SetLowestLevel(int level);

    /// There is no memory for the next record that is not off: std::bad_alloc leaves the call that begins it.
    static void FailNextRecord();
};

} // namespace OrvPlatformFake
