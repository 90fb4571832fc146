// SPDX-License-Identifier: Apache-2.0
#include "broker/ProcessLock.h"

#include <pthread.h>

#include <mutex>

namespace OrvPlatform {

namespace {

std::mutex processMutex; // needs no initialisation, nor destruction

void Take() {
    processMutex.lock();
}

void Release() {
    processMutex.unlock();
}

// At load time, so that no thread can hold it already.
[[maybe_unused]] const int FORK_HANDLERS = pthread_atfork(Take, Release, Release);

} // namespace

ProcessLock::ProcessLock() {
    Take();
}

ProcessLock::~ProcessLock() {
    Release();
}

} // namespace OrvPlatform
