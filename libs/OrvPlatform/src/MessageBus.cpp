// SPDX-License-Identifier: Apache-2.0
#include "MessageBus.h"

#include <algorithm>
#include <poll.h>
#include <sys/eventfd.h>

namespace OrvPlatform {

namespace {

struct PendingRelease {
    void operator()(DBusPendingCall* pending) const { dbus_pending_call_unref(pending); }
};

std::string TextOf(DBusError& error) {
    std::string text = error.message ? error.message : "unknown error";
    dbus_error_free(&error);
    return text;
}

int MillisecondsUntil(MessageBus::Clock::time_point until) {
    if (until == MessageBus::Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - MessageBus::Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, 60'000));
}

} // namespace

MessageBus::MessageBus(int wakeUp, std::function<bool()> isCancelled)
    : wakeDescriptor(wakeUp), cancelled(std::move(isCancelled)) {}

MessageBus::~MessageBus() {
    Close();
}

std::string MessageBus::Open(const std::string& address, std::chrono::milliseconds limit) {
    DBusError error = DBUS_ERROR_INIT;
    connection = dbus_connection_open_private(address.c_str(), &error);
    if (!connection)
        return TextOf(error);
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    if (!dbus_connection_set_watch_functions(connection, AddWatch, RemoveWatch, WatchToggled, this, nullptr) ||
        !dbus_connection_add_filter(connection, Filter, this, nullptr)) {
        Close();
        return "out of memory";
    }

    DBusMessagePtr hello(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello"));
    bool overdue = false;
    const auto outerCancelled = cancelled;
    cancelled = [&] { return overdue || outerCancelled(); };
    const Reply reply = Call(std::move(hello), limit, [&] { overdue = true; });
    cancelled = outerCancelled;
    if (reply.message)
        return {};
    Close();
    return overdue ? "no answer within " + std::to_string(limit.count()) + " ms" : reply.error;
}

void MessageBus::Close() {
    if (!connection)
        return;
    dbus_connection_remove_filter(connection, Filter, this);
    dbus_connection_close(connection);
    dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_unref(connection);
    connection = nullptr;
    watches.clear();
}

MessageBus::Reply MessageBus::Call(DBusMessagePtr message, std::chrono::milliseconds limit,
                                   const std::function<void()>& onOverdue) {
    DBusPendingCall* raw = nullptr;
    if (!connection || !message ||
        !dbus_connection_send_with_reply(connection, message.get(), &raw, DBUS_TIMEOUT_INFINITE) || !raw)
        return {nullptr, "the bus is gone"};
    const std::unique_ptr<DBusPendingCall, PendingRelease> pending(raw);

    Clock::time_point until = Clock::now() + limit;
    while (!dbus_pending_call_get_completed(raw) && connection && !cancelled()) {
        Wait(until);
        if (Clock::now() >= until && !dbus_pending_call_get_completed(raw)) {
            onOverdue();
            until = Clock::time_point::max();
        }
    }
    DBusMessagePtr answer(dbus_pending_call_get_completed(raw) ? dbus_pending_call_steal_reply(raw) : nullptr);
    if (!answer) {
        dbus_pending_call_cancel(raw);
        return {nullptr, "the bus is gone"};
    }
    DBusError error = DBUS_ERROR_INIT;
    if (!dbus_set_error_from_message(&error, answer.get()))
        return {std::move(answer), {}};
    const std::string name = error.name;
    return {nullptr, name + ": " + TextOf(error)};
}

void MessageBus::Wait(Clock::time_point until) {
    std::vector<pollfd> descriptors{{wakeDescriptor, POLLIN, 0}};
    std::vector<DBusWatch*> polled{nullptr};
    for (DBusWatch* watch : watches) {
        if (!dbus_watch_get_enabled(watch))
            continue;
        const unsigned flags = dbus_watch_get_flags(watch);
        const int events = (flags & DBUS_WATCH_READABLE ? POLLIN : 0) | (flags & DBUS_WATCH_WRITABLE ? POLLOUT : 0);
        descriptors.push_back({dbus_watch_get_unix_fd(watch), static_cast<short>(events), 0});
        polled.push_back(watch);
    }
    if (poll(descriptors.data(), descriptors.size(), MillisecondsUntil(until)) > 0) {
        eventfd_t raised = 0;
        if (descriptors[0].revents != 0)
            eventfd_read(wakeDescriptor, &raised);
        for (std::size_t i = 1; i < polled.size(); ++i) {
            if (descriptors[i].revents != 0 && IsWatched(polled[i]))
                HandleReady(polled[i], descriptors[i].revents);
        }
    }
    while (connection && dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    if (connection && !dbus_connection_get_is_connected(connection))
        Close();
}

void MessageBus::HandleReady(DBusWatch* watch, short events) {
    constexpr std::pair<int, int> MEANINGS[] = {{POLLIN, DBUS_WATCH_READABLE},
                                                {POLLOUT, DBUS_WATCH_WRITABLE},
                                                {POLLERR, DBUS_WATCH_ERROR},
                                                {POLLHUP, DBUS_WATCH_HANGUP}};
    int flags = 0;
    for (const auto& [event, flag] : MEANINGS)
        flags |= (events & event) != 0 ? flag : 0;
    dbus_watch_handle(watch, static_cast<unsigned>(flags));
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

DBusHandlerResult MessageBus::Filter(DBusConnection*, DBusMessage* message, void* self) noexcept {
    const auto& handler = static_cast<MessageBus*>(self)->signalHandler;
    if (!handler || dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL)
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    try {
        handler(*message);
        return DBUS_HANDLER_RESULT_HANDLED;
    } catch (...) {
        return DBUS_HANDLER_RESULT_NEED_MEMORY;
    }
}

} // namespace OrvPlatform
