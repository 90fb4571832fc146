// SPDX-License-Identifier: Apache-2.0
// Another thread may go on at each call that reads or writes a file. The files are real ones.
#include "log/SystemCalls.h"

#include "log/LogFaults.h"
#include "sim/Simulation.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>

namespace OrvLab {

std::string LogFaults::files;
std::size_t LogFaults::room = LogFaults::ROOM;
int LogFaults::openError = 0;
int LogFaults::renameError = 0;
std::string LogFaults::syslog;
std::map<int, int> LogFaults::syncs;

namespace {

bool IsOfLog(const char* path) {
    return !LogFaults::files.empty() && std::strncmp(path, LogFaults::files.c_str(), LogFaults::files.size()) == 0;
}

std::map<pthread_key_t, void (*)(void*)>& Destructors() {
    static std::map<pthread_key_t, void (*)(void*)> destructors;
    return destructors;
}

std::map<std::pair<int, pthread_key_t>, const void*>& Values() {
    static std::map<std::pair<int, pthread_key_t>, const void*> values;
    return values;
}

// A sanitizer makes keys of its own while it begins, and can stand no other code then; objects make theirs after this.
bool keysAreNoted = false;

__attribute__((constructor(101))) void NoteKeys() {
    keysAreNoted = true;
}

void Step(const char* doing) {
    if (Simulation* simulation = Simulation::Current())
        simulation->Step(doing);
}

} // namespace

void EndThreadsValues() {
    const int self = Simulation::Current()->Self().number;
    for (const auto& [key, destroy] : Destructors()) {
        const auto value = Values().find({self, key});
        if (value == Values().end() || value->second == nullptr)
            continue;
        void* object = const_cast<void*>(value->second);
        Values().erase(value);
        Watch([destroy = destroy, object] { destroy(object); });
    }
}

} // namespace OrvLab

using OrvLab::LogFaults;
using OrvLab::Simulation;
using OrvLab::Unwatched;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_open64(const char* path, int flags, mode_t mode);
ssize_t __real_read(int file, void* buffer, std::size_t size);
ssize_t __real_write(int file, const void* buffer, std::size_t size);
int __real_rename(const char* from, const char* to);
int __real_connect(int socket, const sockaddr* address, socklen_t size);
int __real_pthread_key_create(pthread_key_t* key, void (*destroy)(void*));
int __real_pthread_setspecific(pthread_key_t key, const void* value);

int __wrap_open64(const char* path, int flags, ...) {
    const Unwatched unwatched;
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    OrvLab::Step("open");
    if (LogFaults::openError != 0 && OrvLab::IsOfLog(path)) {
        errno = LogFaults::openError;
        return -1;
    }
    return __real_open64(path, flags, mode);
}

ssize_t __wrap_read(int file, void* buffer, std::size_t size) {
    const Unwatched unwatched;
    OrvLab::Step("read");
    return __real_read(file, buffer, size);
}

// At times only a part of it, as at a signal; but a pipe takes so little whole or not at all. Files are on a disk that
// may be full.
ssize_t __wrap_write(int file, const void* buffer, std::size_t size) {
    const Unwatched unwatched;
    OrvLab::Step("write");
    Simulation* simulation = Simulation::Current();
    struct stat target {};
    const bool isFile = simulation != nullptr && fstat(file, &target) == 0 && S_ISREG(target.st_mode);
    if (!isFile)
        return __real_write(file, buffer, size);
    const bool inPart = size > 1 && simulation->HasSpuriousWakeUps() && simulation->OneInSchedule(10);
    std::size_t taken = inPart ? size / 2 : size;
    if (LogFaults::room != LogFaults::ROOM) {
        taken = std::min(taken, LogFaults::room);
        LogFaults::room -= taken;
    }
    if (taken == 0) {
        errno = ENOSPC;
        return -1;
    }
    return __real_write(file, buffer, taken);
}

int __wrap_fdatasync(int /*file*/) {
    const Unwatched unwatched;
    OrvLab::Step("fdatasync");
    if (Simulation* simulation = Simulation::Current())
        ++LogFaults::syncs[simulation->Self().number];
    return 0;
}

int __wrap_connect(int socket, const sockaddr* address, socklen_t size) {
    const Unwatched unwatched;
    OrvLab::Step("connect");
    sockaddr_un own{};
    std::memcpy(&own, address, std::min<std::size_t>(size, sizeof(own)));
    if (own.sun_family == AF_UNIX && std::strcmp(own.sun_path, "/dev/log") == 0 && !LogFaults::syslog.empty()) {
        own.sun_path[LogFaults::syslog.copy(own.sun_path, sizeof(own.sun_path) - 1)] = '\0';
        return __real_connect(socket, reinterpret_cast<const sockaddr*>(&own), sizeof(own));
    }
    return __real_connect(socket, address, size);
}

int __wrap_rename(const char* from, const char* to) {
    const Unwatched unwatched;
    OrvLab::Step("rename");
    if (LogFaults::renameError != 0 && OrvLab::IsOfLog(from)) {
        errno = LogFaults::renameError;
        return -1;
    }
    return __real_rename(from, to);
}

// What is kept for a thread is kept for a fiber, and destroyed at its end.
int __wrap_pthread_key_create(pthread_key_t* key, void (*destroy)(void*)) {
    const Unwatched unwatched;
    const int error = __real_pthread_key_create(key, destroy);
    if (error == 0 && destroy != nullptr && OrvLab::keysAreNoted)
        OrvLab::Destructors().emplace(*key, destroy);
    return error;
}

int __wrap_pthread_setspecific(pthread_key_t key, const void* value) {
    const Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr)
        return __real_pthread_setspecific(key, value);
    OrvLab::Values()[{simulation->Self().number, key}] = value;
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier)
}
