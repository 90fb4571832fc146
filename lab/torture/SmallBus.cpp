// SPDX-License-Identifier: Apache-2.0
#include "torture/SmallBus.h"

#include "connman/BusMessages.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <new>
#include <stdexcept>

namespace OrvLab {

namespace {

constexpr const char* MANAGER = ":1.7";

OrvTest::Descriptor ListenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    OrvTest::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(socket.Get(), 8) != 0)
        throw std::runtime_error("cannot listen at " + path);
    return socket;
}

} // namespace

SmallBus::SmallBus(const std::string& path) : SmallServer(ListenAt(path)) {
    Begin();
}

SmallBus::~SmallBus() {
    End();
}

std::string SmallBus::Top() const {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    return services.front().interfaceName;
}

std::vector<std::string> SmallBus::Servers(const std::string& interfaceName) const {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    for (const LabService& service : services)
        if (service.interfaceName == interfaceName)
            return service.written;
    return {};
}

void SmallBus::Read(BusSession& session) {
    char bytes[4096];
    const ssize_t count = recv(session.socket.Get(), bytes, sizeof(bytes), 0);
    session.ended = session.ended || count <= 0;
    if (session.ended)
        return;
    session.received.append(bytes, static_cast<std::size_t>(count));
    while (session.authenticated ? Take(session) : Greet(session)) {
    }
}

/// One line of the greeting, if it is there.
bool SmallBus::Greet(BusSession& session) {
    const std::size_t end = session.received.find("\r\n");
    if (end == std::string::npos)
        return false;
    const std::string line = session.received.substr(0, end);
    session.received.erase(0, end + 2);
    session.authenticated = line == "BEGIN";
    if (!session.authenticated)
        OrvTest::WriteWhole(session.socket.Get(), line.find("AUTH EXTERNAL") != std::string::npos
                                                      ? "OK 0123456789abcdef0123456789abcdef\r\n"
                                                      : "ERROR\r\n");
    return true;
}

/// One message, if it is there.
bool SmallBus::Take(BusSession& session) {
    const auto have = static_cast<int>(session.received.size());
    const int size = have < DBUS_MINIMUM_HEADER_SIZE
                         ? DBUS_MINIMUM_HEADER_SIZE
                         : dbus_message_demarshal_bytes_needed(session.received.data(), have);
    if (have < size || size <= 0)
        return false;
    const Message call(dbus_message_demarshal(session.received.data(), size, nullptr));
    session.received.erase(0, static_cast<std::size_t>(size));
    if (call)
        Handle(session, *call);
    return true;
}

void SmallBus::Handle(BusSession& session, DBusMessage& call) {
    std::vector<Message> news;
    if (dbus_message_has_destination(&call, MANAGER)) {
        const Message answer = Carry(call, news);
        Send(session, *answer, MANAGER);
    } else {
        const bool asksForOwner = dbus_message_has_member(&call, "GetNameOwner");
        Send(session, *BusMessages::Return(call, asksForOwner ? MANAGER : ":1.1"), DBUS_SERVICE_DBUS);
    }
    for (const Message& signal : news)
        for (BusSession& each : sessions)
            Send(each, *signal, MANAGER);
}

/// What the connection manager does, and says to everybody.
Message SmallBus::Carry(DBusMessage& call, std::vector<Message>& news) {
    if (dbus_message_has_member(&call, "GetServices"))
        return BusMessages::Services(call, services);
    const auto found = std::find_if(services.begin(), services.end(), [&](const LabService& one) {
        return dbus_message_has_path(&call, one.Path().c_str());
    });
    if (found == services.end())
        return BusMessages::Error(call, DBUS_ERROR_UNKNOWN_OBJECT);
    if (dbus_message_has_member(&call, "MoveBefore")) {
        std::rotate(services.begin(), found, found + 1);
        news.push_back(BusMessages::Reordered(services));
    } else {
        found->written = BusMessages::WrittenServers(call);
        news.push_back(BusMessages::ServersChanged(*found, false));
        news.push_back(BusMessages::ServersChanged(*found, true));
    }
    return BusMessages::Return(dbus_message_get_serial(&call));
}

void SmallBus::Send(BusSession& session, DBusMessage& message, const char* sender) {
    char* bytes = nullptr;
    int size = 0;
    // A copy: what has a serial is locked, and goes to nobody else.
    const Message copy(dbus_message_copy(&message));
    dbus_message_set_sender(copy.get(), sender);
    dbus_message_set_serial(copy.get(), ++lastSerial);
    if (!dbus_message_marshal(copy.get(), &bytes, &size))
        throw std::bad_alloc();
    OrvTest::WriteWhole(session.socket.Get(), std::string(bytes, static_cast<std::size_t>(size)));
    dbus_free(bytes);
}

} // namespace OrvLab
