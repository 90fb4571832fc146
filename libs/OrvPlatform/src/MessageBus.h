// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <dbus/dbus.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace OrvPlatform {

struct DBusMessageRelease {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using DBusMessagePtr = std::unique_ptr<DBusMessage, DBusMessageRelease>;

/// A private connection to a D-Bus message bus, for one thread that does nothing else.
///
/// libdbus's own waiting calls ignore their time-outs when the bus is frozen; here everything, the greeting included,
/// is sent as a pending call and waited for in one poll loop that a descriptor of the owner's can interrupt.
class MessageBus {
public:
    using Clock = std::chrono::steady_clock;
    using SignalHandler = std::function<void(DBusMessage&)>;

    /// @param wakeUp       an eventfd of the owner's; it ends a Wait when it is raised, and is lowered then
    /// @param isCancelled  asked during waits: true ends them
    MessageBus(int wakeUp, std::function<bool()> isCancelled);
    ~MessageBus();
    MessageBus(const MessageBus&) = delete;
    MessageBus& operator=(const MessageBus&) = delete;

    /// Connects and greets.
    /// @return empty on success, otherwise why not
    std::string Open(const std::string& address, std::chrono::milliseconds limit);
    void Close();
    bool IsOpen() const { return connection != nullptr; }

    /// Who gets the signals; called inside Wait and Call.
    void OnSignal(SignalHandler handler) { signalHandler = std::move(handler); }

    struct Reply {
        DBusMessagePtr message; ///< null when there was an error
        std::string error;      ///< the error's name and text
    };

    /// Sends a method call and waits for its answer. A call cannot be taken back: after `limit`, `onOverdue` is told
    /// once and the wait goes on until the answer comes, the callee or the bus goes away, or the owner cancels.
    Reply Call(DBusMessagePtr message, std::chrono::milliseconds limit, const std::function<void()>& onOverdue);

    /// Waits for traffic, handles it, and returns; at the latest at `until`. Closes itself when the bus is gone.
    void Wait(Clock::time_point until);

private:
    static dbus_bool_t AddWatch(DBusWatch* watch, void* self) noexcept;
    static void RemoveWatch(DBusWatch* watch, void* self) noexcept;
    static void WatchToggled(DBusWatch*, void*) noexcept {}
    static DBusHandlerResult Filter(DBusConnection*, DBusMessage* message, void* self) noexcept;

    bool IsWatched(DBusWatch* watch) const;
    static void HandleReady(DBusWatch* watch, short events);

    int wakeDescriptor;
    std::function<bool()> cancelled;
    SignalHandler signalHandler;
    DBusConnection* connection = nullptr;
    std::vector<DBusWatch*> watches;
};

} // namespace OrvPlatform
