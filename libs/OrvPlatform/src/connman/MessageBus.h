// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/SharedWithTools.h"
#include "base/Waker.h"

#include <dbus/dbus.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <vector>

namespace OrvPlatform {

/// Held around every function of libdbus that takes one of libdbus's own locks: making, releasing, sending and
/// receiving messages, opening and closing. Who holds it too during fork() leaves the child a libdbus whose locks are
/// free. It is held across no wait except connecting's, and nothing else is locked under it.
std::mutex& LibdbusMutex();

/// Locks it if that takes no longer than `limit`; @return whether it is locked. It looks each millisecond:
/// ThreadSanitizer does not know the C library's own lock with a limit on the monotonic clock.
bool TryLockLibdbusFor(std::chrono::milliseconds limit) noexcept;

struct DBusMessageRelease {
    ORV_SHARED_WITH_TOOLS void operator()(DBusMessage* message) const;
};
using DBusMessagePtr = std::unique_ptr<DBusMessage, DBusMessageRelease>;

/// A private connection to a D-Bus message bus, for one thread that does nothing else.
///
/// libdbus's own waiting calls ignore their time-outs when the bus is frozen, and its dispatcher handles signals before
/// an answer that came first. Here messages are taken from the connection one by one and handled in the order in which
/// they arrived; all waiting is done in one poll loop that the owner can interrupt.
///
/// Any local user can send any message to any connection. The bus vouches for the sender's name only: an answer counts
/// if it comes from whom was asked, and signals carry their sender for the handler to check. Calls are not answered.
class ORV_SHARED_WITH_TOOLS MessageBus {
public:
    using Clock = std::chrono::steady_clock;
    using SignalHandler = std::function<void(DBusMessage&)>;

    /// @param wakeUp       the owner's; ends a Wait, and is cleared then
    /// @param isCancelled  asked during waits: true ends them
    MessageBus(const Waker& wakeUp, std::function<bool()> isCancelled);
    ~MessageBus();
    MessageBus(const MessageBus&) = delete;
    MessageBus& operator=(const MessageBus&) = delete;

    /// Where the connection manager is found: the configured bus, else the one that the environment names, else the
    /// system's.
    static std::string Address(const std::string& configured);

    /// Connects and greets.
    /// @return empty on success, otherwise why not
    std::string Open(const std::string& address, std::chrono::milliseconds limit);
    void Close();
    bool IsOpen() const { return connection != nullptr; }

    /// Who gets the signals; called inside HandleArrived, Wait, CallBus and Call.
    void OnSignal(SignalHandler handler) { signalHandler = std::move(handler); }

    struct Reply {
        DBusMessagePtr message;   ///< null when there was an error
        std::string error;        ///< the error's name and text
        bool isOwnerless = false; ///< the bus says that nobody has the name that was called, or not any more
    };

    /// Sends a method call to the bus itself and waits for the answer until `limit`. Without one the connection is of
    /// no use any more.
    Reply CallBus(DBusMessagePtr message, std::chrono::milliseconds limit);

    /// Sends a method call and waits for its answer. A call cannot be taken back: after `limit`, `onOverdue` is told
    /// once and the wait goes on until the answer comes, the callee or the bus goes away, or the owner cancels. What
    /// arrived behind the answer is not handled yet.
    Reply Call(DBusMessagePtr message, std::chrono::milliseconds limit, const std::function<void()>& onOverdue);

    /// Handles what has been received and not handled yet. Closes itself when the bus is gone.
    /// @return whether there was anything
    bool HandleArrived();

    /// Waits for traffic, handles it, and returns; at the latest at `until`. Closes itself when the bus is gone.
    void Wait(Clock::time_point until);

private:
    static dbus_bool_t AddWatch(DBusWatch* watch, void* self) noexcept;
    static void RemoveWatch(DBusWatch* watch, void* self) noexcept;
    static void WatchToggled(DBusWatch*, void*) noexcept {}

    DBusMessagePtr Next();
    void Deliver(DBusMessage& message) const;
    dbus_uint32_t Send(DBusMessage& message);
    Reply Exchange(const DBusMessagePtr& message, std::chrono::milliseconds limit,
                   const std::function<bool()>& goesOnWhenOverdue);
    void Poll(Clock::time_point until);
    bool IsWatched(DBusWatch* watch) const;

    const Waker& waker;
    std::function<bool()> cancelled;
    SignalHandler signalHandler;
    DBusConnection* connection = nullptr;
    std::vector<DBusWatch*> watches;
    std::vector<DBusWatch*> polled; ///< for Poll, kept for their room
    std::vector<pollfd> descriptors;
};

} // namespace OrvPlatform
