// SPDX-License-Identifier: Apache-2.0
#include "connman/MessageBus.h"

#include "base/Deadline.h"

#include <algorithm>
#include <cstdlib>

namespace OrvPlatform {

namespace {

using LibdbusLock = std::lock_guard<std::mutex>;

constexpr const char* GONE = "the bus is gone";

/// Released whatever happens: the copy of its text may find no memory.
struct BusError : DBusError {
    BusError() : DBusError DBUS_ERROR_INIT {}
    ~BusError() { dbus_error_free(this); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    std::string Text() const { return message ? message : "unknown error"; }
};

/// The callee's own answer, or the bus's word that the callee cannot be reached.
bool IsAnswer(DBusMessage& message, DBusMessage& call, dbus_uint32_t serial) {
    const int type = dbus_message_get_type(&message);
    if ((type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR) ||
        dbus_message_get_reply_serial(&message) != serial)
        return false;
    return dbus_message_has_sender(&message, dbus_message_get_destination(&call)) ||
           (type == DBUS_MESSAGE_TYPE_ERROR && dbus_message_has_sender(&message, DBUS_SERVICE_DBUS));
}

MessageBus::Reply ReplyOf(DBusMessagePtr answer) {
    BusError error;
    if (!dbus_set_error_from_message(&error, answer.get()))
        return {std::move(answer), {}};
    const std::string name = error.name;
    const bool isOwnerless =
        dbus_message_has_sender(answer.get(), DBUS_SERVICE_DBUS) &&
        (name == DBUS_ERROR_SERVICE_UNKNOWN || name == DBUS_ERROR_NAME_HAS_NO_OWNER || name == DBUS_ERROR_NO_REPLY);
    return {nullptr, name + ": " + error.Text(), isOwnerless};
}

unsigned Conditions(short events) {
    constexpr std::pair<int, unsigned> meanings[] = {{POLLIN, DBUS_WATCH_READABLE},
                                                     {POLLOUT, DBUS_WATCH_WRITABLE},
                                                     {POLLERR, DBUS_WATCH_ERROR},
                                                     {POLLHUP, DBUS_WATCH_HANGUP}};
    unsigned flags = 0;
    for (const auto& [event, flag] : meanings)
        flags |= (events & event) != 0 ? flag : 0;
    return flags;
}

} // namespace

std::mutex& LibdbusMutex() {
    static std::mutex mutex;
    return mutex;
}

bool TryLockLibdbusFor(std::chrono::milliseconds limit) noexcept {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!LibdbusMutex().try_lock()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        poll(nullptr, 0, 1);
    }
    return true;
}

void DBusMessageRelease::operator()(DBusMessage* message) const {
    const LibdbusLock lock(LibdbusMutex());
    dbus_message_unref(message);
}

MessageBus::MessageBus(const Waker& wakeUp, std::function<bool()> isCancelled)
    : waker(wakeUp), cancelled(std::move(isCancelled)) {}

MessageBus::~MessageBus() {
    Close();
}

std::string MessageBus::Address(const std::string& configured) {
    if (!configured.empty())
        return configured;
    const char* named = ::secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return named && *named ? named : "unix:path=/run/dbus/system_bus_socket";
}

std::string MessageBus::Open(const std::string& address, std::chrono::milliseconds limit) {
    BusError error;
    bool isReady = false;
    {
        const LibdbusLock lock(LibdbusMutex());
        connection = dbus_connection_open_private(address.c_str(), &error);
        if (connection) {
            dbus_connection_set_exit_on_disconnect(connection, FALSE);
            isReady = dbus_connection_set_watch_functions(connection, AddWatch, RemoveWatch, WatchToggled, this,
                                                          nullptr) != FALSE;
        }
    }
    if (!connection)
        return error.Text();
    DBusMessagePtr hello;
    if (isReady) {
        const LibdbusLock lock(LibdbusMutex());
        hello.reset(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello"));
    }
    const Reply reply = CallBus(std::move(hello), limit);
    if (reply.message)
        return {};
    Close();
    return reply.error;
}

void MessageBus::Close() {
    if (!connection)
        return;
    const LibdbusLock lock(LibdbusMutex());
    dbus_connection_close(connection);
    dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_unref(connection);
    connection = nullptr;
    watches.clear();
}

MessageBus::Reply MessageBus::CallBus(DBusMessagePtr message, std::chrono::milliseconds limit) {
    return Exchange(message, limit, [] { return false; });
}

MessageBus::Reply MessageBus::Call(DBusMessagePtr message, std::chrono::milliseconds limit,
                                   const std::function<void()>& onOverdue) {
    return Exchange(message, limit, [&] {
        onOverdue();
        return true;
    });
}

MessageBus::Reply MessageBus::Exchange(const DBusMessagePtr& message, std::chrono::milliseconds limit,
                                       const std::function<bool()>& goesOnWhenOverdue) {
    const dbus_uint32_t serial = connection && message ? Send(*message) : 0;
    if (serial == 0)
        return {nullptr, connection ? "out of memory" : GONE};
    Clock::time_point until = Clock::now() + limit;
    while (!cancelled()) {
        DBusMessagePtr arrived = Next();
        if (arrived && IsAnswer(*arrived, *message, serial))
            return ReplyOf(std::move(arrived));
        if (arrived) {
            Deliver(*arrived);
        } else if (!connection) {
            break;
        } else if (Clock::now() < until) {
            Poll(until);
        } else {
            if (!goesOnWhenOverdue())
                return {nullptr, "no answer within " + std::to_string(limit.count()) + " ms"};
            until = Clock::time_point::max();
        }
    }
    return {nullptr, GONE};
}

dbus_uint32_t MessageBus::Send(DBusMessage& message) {
    const LibdbusLock lock(LibdbusMutex());
    dbus_uint32_t serial = 0;
    return dbus_connection_send(connection, &message, &serial) ? serial : 0;
}

DBusMessagePtr MessageBus::Next() {
    if (!connection)
        return nullptr;
    DBusMessage* message = nullptr;
    bool isConnected = true;
    {
        const LibdbusLock lock(LibdbusMutex());
        message = dbus_connection_pop_message(connection);
        isConnected = message || dbus_connection_get_is_connected(connection);
    }
    if (!isConnected)
        Close();
    return DBusMessagePtr(message);
}

void MessageBus::Deliver(DBusMessage& message) const {
    // libdbus tells the end of the connection by a signal of its own, which nobody has sent.
    if (signalHandler && dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_SIGNAL &&
        dbus_message_get_sender(&message))
        signalHandler(message);
}

bool MessageBus::HandleArrived() {
    bool any = false;
    while (const DBusMessagePtr message = Next()) {
        Deliver(*message);
        any = true;
    }
    return any;
}

void MessageBus::Wait(Clock::time_point until) {
    if (HandleArrived())
        return;
    Poll(until);
    HandleArrived();
}

void MessageBus::Poll(Clock::time_point until) {
    descriptors.assign({{waker.Descriptor(), POLLIN, 0}});
    polled.assign({nullptr});
    for (DBusWatch* watch : watches) {
        if (!dbus_watch_get_enabled(watch))
            continue;
        const unsigned flags = dbus_watch_get_flags(watch);
        const int events = (flags & DBUS_WATCH_READABLE ? POLLIN : 0) | (flags & DBUS_WATCH_WRITABLE ? POLLOUT : 0);
        descriptors.push_back({dbus_watch_get_unix_fd(watch), static_cast<short>(events), 0});
        polled.push_back(watch);
    }
    if (poll(descriptors.data(), descriptors.size(), PollTimeout(until)) <= 0)
        return;
    if (descriptors[0].revents != 0)
        waker.Clear();
    const LibdbusLock lock(LibdbusMutex());
    for (std::size_t i = 1; i < polled.size(); ++i) {
        if (descriptors[i].revents != 0 && IsWatched(polled[i]))
            dbus_watch_handle(polled[i], Conditions(descriptors[i].revents));
    }
}

bool MessageBus::IsWatched(DBusWatch* watch) const {
    return std::find(watches.begin(), watches.end(), watch) != watches.end();
}

dbus_bool_t MessageBus::AddWatch(DBusWatch* watch, void* self) noexcept {
    try {
        static_cast<MessageBus*>(self)->watches.push_back(watch);
        return TRUE;
    } catch (...) {
        return FALSE;
    }
}

void MessageBus::RemoveWatch(DBusWatch* watch, void* self) noexcept {
    auto& watches = static_cast<MessageBus*>(self)->watches;
    watches.erase(std::remove(watches.begin(), watches.end(), watch), watches.end());
}

} // namespace OrvPlatform
