// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace OrvLab {

/// Calls of the system that can be made to fail, each with its siblings. What C++ takes with new and what C libraries
/// take count apart.
enum class Call {
    NEW,
    MALLOC,
    SOCKET,
    CONNECT,
    SEND,
    RECEIVE,
    POLL,
    EVENTFD,
    OPEN,
    WRITE,
    UNLINK,
    THREAD,
    EPOLL,
    TIMER,
    INOTIFY,
    LOCK,
    NAMES
};
constexpr std::size_t CALLS = 17;
const char* NameOf(Call call);

struct Place {
    std::uintptr_t addresses[24];
};

/// How often a call is made, and which one fails. Counted are the calls of the threads that belong to what is tortured:
/// the one that says so, and those that it starts.
class Failures {
public:
    /// From now on the `number`th of these calls fails, counted from 1; with `andAllLater` those that follow, too.
    static void Arm(Call call, long number, bool andAllLater);
    /// Nothing fails any more.
    static void Disarm();
    /// Counts begin at 0.
    static void Reset();
    static long Count(Call call);
    static long Failed();
    /// Where the first failure happens is put there, as addresses of code from the inside outwards; null for none.
    static void NotePlace(Place* place);
    /// How often something has failed is put there, too.
    static void NoteFailed(std::atomic<long>* count);
};

/// The thread that has one is counted, and the threads that it starts meanwhile are for good.
class Tortured {
public:
    explicit Tortured(bool isCounted = true);
    ~Tortured();
    Tortured(const Tortured&) = delete;
    Tortured& operator=(const Tortured&) = delete;

private:
    const bool before;
};

/// How many transfers of libcurl have been begun and not been released.
long TransfersLeft();

} // namespace OrvLab
