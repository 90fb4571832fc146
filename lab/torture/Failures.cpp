// SPDX-License-Identifier: Apache-2.0
// The calls themselves: defined in the program, they take precedence over those of every library that it loads.
// AddressSanitizer's own stand behind them, so that it goes on watching.
#include "torture/Failures.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <iterator>
#include <new>

namespace OrvLab {

namespace {

std::atomic<long> counts[CALLS];
std::atomic<int> armed{-1};
std::atomic<long> failsAt{0};
std::atomic<bool> failsLater{false};
std::atomic<long> failed{0};
std::atomic<Place*> placeTold{nullptr};
std::atomic<std::atomic<long>*> failedTold{nullptr};
thread_local bool counted = false;

// Where memory is wanting, OpenSSL leaks and crashes by itself, later: its own memory is never wanting.
struct Code {
    std::uintptr_t begin;
    std::uintptr_t end;
};
Code openssl[2] = {};

int NoteOpenssl(dl_phdr_info* library, std::size_t, void*) {
    const bool isCrypto = std::strstr(library->dlpi_name, "libcrypto.so") != nullptr;
    if (!isCrypto && std::strstr(library->dlpi_name, "libssl.so") == nullptr)
        return 0;
    Code code{library->dlpi_addr, library->dlpi_addr};
    for (int index = 0; index < library->dlpi_phnum; ++index) {
        const auto& part = library->dlpi_phdr[index];
        code.end = std::max<std::uintptr_t>(code.end, library->dlpi_addr + part.p_vaddr + part.p_memsz);
    }
    openssl[isCrypto ? 0 : 1] = code;
    return 0;
}

bool IsOpenssl(const void* caller) {
    const auto address = reinterpret_cast<std::uintptr_t>(caller);
    return std::any_of(std::begin(openssl), std::end(openssl),
                       [&](const Code& code) { return address >= code.begin && address < code.end; });
}

struct Walk {
    Place& place;
    std::size_t depth;
};

_Unwind_Reason_Code NoteFrame(_Unwind_Context* context, void* given) {
    Walk& walk = *static_cast<Walk*>(given);
    if (walk.depth == sizeof(walk.place.addresses) / sizeof(walk.place.addresses[0]))
        return _URC_END_OF_STACK;
    walk.place.addresses[walk.depth++] = _Unwind_GetIP(context);
    return _URC_NO_REASON;
}

void TellPlace() {
    const Tortured notThis(false);
    if (Place* place = placeTold) {
        Walk walk{*place, 0};
        _Unwind_Backtrace(NoteFrame, &walk);
    }
}

/// This one is to fail.
bool Fails(Call call, int error) {
    if (!counted)
        return false;
    const long number = ++counts[static_cast<std::size_t>(call)];
    if (armed != static_cast<int>(call) || number < failsAt || (number > failsAt && !failsLater))
        return false;
    if (failed++ == 0)
        TellPlace();
    if (std::atomic<long>* told = failedTold)
        ++*told;
    errno = error;
    return true;
}

template <typename Function>
Function* Next(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Of events, which can always be read and written.
bool IsOfEvents(int file) {
    struct stat status {};
    return counted && fstat(file, &status) == 0 && (status.st_mode & S_IFMT) == 0;
}

struct Start {
    void* (*routine)(void*);
    void* argument;
};

} // namespace

const char* NameOf(Call call) {
    static const char* const names[] = {"new",   "malloc",  "socket",  "connect", "send",   "receive",
                                        "poll",  "eventfd", "open",    "write",   "unlink", "thread",
                                        "epoll", "timer",   "inotify", "lock",    "names"};
    return names[static_cast<std::size_t>(call)];
}

void Failures::Arm(Call call, long number, bool andAllLater) {
    failsAt = number;
    failsLater = andAllLater;
    armed = static_cast<int>(call);
}

void Failures::Disarm() {
    armed = -1;
}

void Failures::Reset() {
    dl_iterate_phdr(NoteOpenssl, nullptr);
    for (auto& count : counts)
        count = 0;
    failed = 0;
}

long Failures::Count(Call call) {
    return counts[static_cast<std::size_t>(call)];
}

long Failures::Failed() {
    return failed;
}

void Failures::NotePlace(Place* place) {
    placeTold = place;
}

void Failures::NoteFailed(std::atomic<long>* count) {
    failedTold = count;
}

Tortured::Tortured(bool isCounted) : before(counted) {
    counted = isCounted;
}

Tortured::~Tortured() {
    counted = before;
}

} // namespace OrvLab

using OrvLab::Call;
using OrvLab::Fails;
using OrvLab::IsOpenssl;

#define ORV_REPLACES __attribute__((visibility("default")))
// The real one, looked up without a lock: whoever comes first finds the same.
#define ORV_REAL(name) static const auto real = OrvLab::Next(&::name, #name)

// NOLINTBEGIN
extern "C" {

void* __interceptor_malloc(std::size_t size);
void* __interceptor_calloc(std::size_t count, std::size_t size);
void* __interceptor_realloc(void* memory, std::size_t size);
void __interceptor_free(void* memory);
int __interceptor_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                                 void* argument);

#define ORV_NO_MEMORY_FOR_CALLER (!IsOpenssl(__builtin_return_address(0)) && Fails(Call::MALLOC, ENOMEM))

ORV_REPLACES void* malloc(std::size_t size) {
    return ORV_NO_MEMORY_FOR_CALLER ? nullptr : __interceptor_malloc(size);
}

ORV_REPLACES void* calloc(std::size_t count, std::size_t size) {
    return ORV_NO_MEMORY_FOR_CALLER ? nullptr : __interceptor_calloc(count, size);
}

ORV_REPLACES void* realloc(void* memory, std::size_t size) {
    return ORV_NO_MEMORY_FOR_CALLER ? nullptr : __interceptor_realloc(memory, size);
}

ORV_REPLACES char* strdup(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    void* copy = ORV_NO_MEMORY_FOR_CALLER ? nullptr : __interceptor_malloc(size);
    return static_cast<char*>(copy == nullptr ? nullptr : std::memcpy(copy, text, size));
}

ORV_REPLACES int socket(int family, int type, int protocol) {
    ORV_REAL(socket);
    return Fails(Call::SOCKET, EMFILE) ? -1 : real(family, type, protocol);
}

ORV_REPLACES int socketpair(int family, int type, int protocol, int pair[2]) {
    ORV_REAL(socketpair);
    return Fails(Call::SOCKET, EMFILE) ? -1 : real(family, type, protocol, pair);
}

ORV_REPLACES int connect(int socket, const sockaddr* address, socklen_t size) {
    ORV_REAL(connect);
    return Fails(Call::CONNECT, ENETUNREACH) ? -1 : real(socket, address, size);
}

ORV_REPLACES ssize_t send(int socket, const void* bytes, std::size_t size, int flags) {
    ORV_REAL(send);
    return Fails(Call::SEND, ECONNRESET) ? -1 : real(socket, bytes, size, flags);
}

ORV_REPLACES ssize_t sendto(int socket, const void* bytes, std::size_t size, int flags, const sockaddr* address,
                            socklen_t length) {
    ORV_REAL(sendto);
    return Fails(Call::SEND, ECONNRESET) ? -1 : real(socket, bytes, size, flags, address, length);
}

ORV_REPLACES ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    ORV_REAL(sendmsg);
    return Fails(Call::SEND, ECONNRESET) ? -1 : real(socket, message, flags);
}

ORV_REPLACES ssize_t recv(int socket, void* bytes, std::size_t size, int flags) {
    ORV_REAL(recv);
    return Fails(Call::RECEIVE, ECONNRESET) ? -1 : real(socket, bytes, size, flags);
}

ORV_REPLACES ssize_t recvmsg(int socket, msghdr* message, int flags) {
    ORV_REAL(recvmsg);
    return Fails(Call::RECEIVE, ECONNRESET) ? -1 : real(socket, message, flags);
}

ORV_REPLACES ssize_t read(int file, void* bytes, std::size_t size) {
    ORV_REAL(read);
    return !OrvLab::IsOfEvents(file) && Fails(Call::RECEIVE, EIO) ? -1 : real(file, bytes, size);
}

// In short pieces: time that is skipped is over for whoever waits, too.
ORV_REPLACES int poll(pollfd* waits, nfds_t count, int milliseconds) {
    ORV_REAL(poll);
    constexpr int PIECE = 10;
    if (Fails(Call::POLL, ENOMEM))
        return -1;
    if (!OrvLab::counted || (milliseconds >= 0 && milliseconds <= PIECE))
        return real(waits, count, milliseconds);
    using Clock = std::chrono::steady_clock;
    const auto limit = Clock::now() + std::chrono::milliseconds(milliseconds);
    int ready = 0;
    while (ready == 0 && (milliseconds < 0 || Clock::now() < limit))
        ready = real(waits, count, PIECE);
    return ready;
}

ORV_REPLACES int eventfd(unsigned first, int flags) {
    ORV_REAL(eventfd);
    return Fails(Call::EVENTFD, EMFILE) ? -1 : real(first, flags);
}

ORV_REPLACES int eventfd_write(int file, eventfd_t value) {
    ORV_REAL(eventfd_write);
    return real(file, value);
}

// With file offsets of 64 bits the names in this source stand for open64 and fopen64; these are the others.
ORV_REPLACES int PlainOpen(const char* path, int flags, ...) __asm__("open");
ORV_REPLACES FILE* PlainFopen(const char* path, const char* mode) __asm__("fopen");

ORV_REPLACES int open(const char* path, int flags, ...) {
    ORV_REAL(open);
    va_list more;
    va_start(more, flags);
    const int mode = va_arg(more, int);
    va_end(more);
    return Fails(Call::OPEN, EMFILE) ? -1 : real(path, flags, mode);
}

ORV_REPLACES FILE* fopen(const char* path, const char* mode) {
    ORV_REAL(fopen);
    return Fails(Call::OPEN, EMFILE) ? nullptr : real(path, mode);
}

int PlainOpen(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const int mode = va_arg(more, int);
    va_end(more);
    return open(path, flags, mode);
}

FILE* PlainFopen(const char* path, const char* mode) {
    return fopen(path, mode);
}

ORV_REPLACES DIR* opendir(const char* path) {
    ORV_REAL(opendir);
    return Fails(Call::OPEN, EMFILE) ? nullptr : real(path);
}

ORV_REPLACES ssize_t write(int file, const void* bytes, std::size_t size) {
    ORV_REAL(write);
    return !OrvLab::IsOfEvents(file) && Fails(Call::WRITE, ENOSPC) ? -1 : real(file, bytes, size);
}

ORV_REPLACES ssize_t writev(int file, const iovec* pieces, int count) {
    ORV_REAL(writev);
    return Fails(Call::WRITE, ENOSPC) ? -1 : real(file, pieces, count);
}

ORV_REPLACES int fdatasync(int file) {
    ORV_REAL(fdatasync);
    return Fails(Call::WRITE, EIO) ? -1 : real(file);
}

ORV_REPLACES int rename(const char* from, const char* to) {
    ORV_REAL(rename);
    return Fails(Call::WRITE, EROFS) ? -1 : real(from, to);
}

ORV_REPLACES ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t place) {
    ORV_REAL(pwrite);
    return Fails(Call::WRITE, EIO) ? -1 : real(file, bytes, size, place);
}

ORV_REPLACES int ftruncate(int file, off_t size) noexcept {
    ORV_REAL(ftruncate);
    return Fails(Call::WRITE, EIO) ? -1 : real(file, size);
}

ORV_REPLACES int mkdir(const char* path, mode_t mode) noexcept {
    ORV_REAL(mkdir);
    return Fails(Call::WRITE, ENOSPC) ? -1 : real(path, mode);
}

ORV_REPLACES int flock(int file, int operation) noexcept {
    ORV_REAL(flock);
    return Fails(Call::LOCK, ENOLCK) ? -1 : real(file, operation);
}

ORV_REPLACES int epoll_create1(int flags) noexcept {
    ORV_REAL(epoll_create1);
    return Fails(Call::EPOLL, EMFILE) ? -1 : real(flags);
}

ORV_REPLACES int epoll_ctl(int epoll, int operation, int file, epoll_event* event) noexcept {
    ORV_REAL(epoll_ctl);
    return operation == EPOLL_CTL_ADD && Fails(Call::EPOLL, ENOSPC) ? -1 : real(epoll, operation, file, event);
}

ORV_REPLACES int timerfd_create(int clock, int flags) noexcept {
    ORV_REAL(timerfd_create);
    return Fails(Call::TIMER, EMFILE) ? -1 : real(clock, flags);
}

ORV_REPLACES int inotify_init1(int flags) noexcept {
    ORV_REAL(inotify_init1);
    return Fails(Call::INOTIFY, EMFILE) ? -1 : real(flags);
}

ORV_REPLACES int inotify_add_watch(int inotify, const char* path, std::uint32_t events) noexcept {
    ORV_REAL(inotify_add_watch);
    return Fails(Call::INOTIFY, ENOSPC) ? -1 : real(inotify, path, events);
}

ORV_REPLACES int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    ORV_REAL(getaddrinfo);
    return Fails(Call::NAMES, ENOMEM) ? EAI_MEMORY : real(host, service, hints, found);
}

ORV_REPLACES int unlink(const char* path) {
    ORV_REAL(unlink);
    return Fails(Call::UNLINK, EPERM) ? -1 : real(path);
}

ORV_REPLACES int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                                void* argument) {
    if (!OrvLab::counted)
        return __interceptor_pthread_create(thread, attributes, routine, argument);
    if (Fails(Call::THREAD, EAGAIN))
        return EAGAIN;
    auto* start = static_cast<OrvLab::Start*>(__interceptor_malloc(sizeof(OrvLab::Start)));
    *start = {routine, argument};
    const auto run = [](void* given) -> void* {
        const OrvLab::Start begin = *static_cast<OrvLab::Start*>(given);
        __interceptor_free(given);
        OrvLab::counted = true;
        return begin.routine(begin.argument);
    };
    const int error = __interceptor_pthread_create(thread, attributes, run, start);
    if (error != 0)
        __interceptor_free(start);
    return error;
}
}

namespace {
void* Take(std::size_t size) {
    return Fails(Call::NEW, ENOMEM) ? nullptr : __interceptor_malloc(size == 0 ? 1 : size);
}
} // namespace

ORV_REPLACES void* operator new(std::size_t size) {
    if (void* memory = Take(size))
        return memory;
    throw std::bad_alloc();
}
ORV_REPLACES void* operator new[](std::size_t size) {
    return operator new(size);
}
ORV_REPLACES void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Take(size);
}
ORV_REPLACES void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Take(size);
}
ORV_REPLACES void operator delete(void* memory) noexcept {
    __interceptor_free(memory);
}
ORV_REPLACES void operator delete[](void* memory) noexcept {
    __interceptor_free(memory);
}
ORV_REPLACES void operator delete(void* memory, std::size_t) noexcept {
    __interceptor_free(memory);
}
ORV_REPLACES void operator delete[](void* memory, std::size_t) noexcept {
    __interceptor_free(memory);
}
// NOLINTEND
