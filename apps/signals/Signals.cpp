// SPDX-License-Identifier: Apache-2.0
#include "signals/Signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace OrvSignals {

namespace {

sigset_t SetOf(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    return set;
}

int Open(std::initializer_list<int> numbers) {
    const sigset_t set = SetOf(numbers);
    const int descriptor = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), "open a descriptor for signals");
    return descriptor;
}

} // namespace

void Block(std::initializer_list<int> numbers) {
    const sigset_t set = SetOf(numbers);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Signals::Signals(std::initializer_list<int> numbers) : descriptor(Open(numbers)) {}

Signals::~Signals() {
    close(descriptor);
}

int Signals::Take() {
    signalfd_siginfo signal{};
    return read(descriptor, &signal, sizeof(signal)) == sizeof(signal) ? static_cast<int>(signal.ssi_signo) : 0;
}

} // namespace OrvSignals
