// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>

namespace OrvSignals {

/// Keeps these signals from interrupting this thread and those that it starts from now on: they wait to be taken. To be
/// called before there is a second thread, which could be interrupted otherwise.
void Block(std::initializer_list<int> numbers);

/// Signals that a program takes when it has time for them, from a descriptor that its loop waits for. One thread.
class Signals {
public:
    /// @param numbers blocked in every thread
    /// @throws std::system_error
    explicit Signals(std::initializer_list<int> numbers);
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// Readable while a signal waits.
    int Descriptor() const { return descriptor; }

    /// Takes the next one; never blocks.
    /// @return its number, 0 when none waits
    int Take();

private:
    const int descriptor;
};

} // namespace OrvSignals
