// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvPlatform {

/// Held for moments while something is made or counted of which the process has one. It is one lock for the whole
/// process, and a fork waits for it: a child never finds it held by a thread that it does not have, nor what it guards
/// half done. No other lock is taken under it, and nothing that it guards may fork.
class ProcessLock {
public:
    ProcessLock();
    ~ProcessLock();
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;
};

} // namespace OrvPlatform
