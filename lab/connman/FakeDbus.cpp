// SPDX-License-Identifier: Apache-2.0
// In the place of libdbus's connections and watches. A message that has arrived is told in the order in which it came,
// any number of them in one read. What the socket does not take waits for its watch.
#include "connman/FakeDbus.h"

#include "connman/BusMessages.h"
#include "sim/Descriptors.h"

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <utility>

using OrvLab::BusConnection;
using OrvLab::Descriptors;
using OrvLab::FakeDbus;
using OrvLab::Message;
using OrvLab::Simulation;

struct DBusWatch {
    DBusConnection* connection;
    unsigned flags;
};

struct DBusConnection {
    int socket = -1;
    std::shared_ptr<BusConnection> wire;
    DBusWatch reading{this, DBUS_WATCH_READABLE};
    DBusWatch writing{this, DBUS_WATCH_WRITABLE};
    DBusRemoveWatchFunction remove = nullptr;
    void* user = nullptr;
    std::deque<Message> incoming;
    std::deque<Message> outgoing;
    dbus_uint32_t serial = 0;
    bool isConnected = true;
    bool isTold = false; // that it is not connected any more
};

namespace OrvLab {

SimulatedBus* FakeDbus::bus = nullptr;
int FakeDbus::connections = 0;

namespace {

/// Another thread may go on here, and must not get in.
void Enter(const char* function) {
    Simulation& simulation = *Simulation::Current();
    if (simulation.Self().locks != 1)
        simulation.Fail(std::string(function) + " without libdbus' lock, or with another one");
    simulation.Step(function);
}

void Disconnect(DBusConnection& connection) {
    if (!connection.isConnected)
        return;
    connection.isConnected = false;
    connection.wire->clientGone = true;
    if (connection.remove != nullptr)
        for (DBusWatch* watch : {&connection.reading, &connection.writing})
            Watch([&] { connection.remove(watch, connection.user); });
    close(std::exchange(connection.socket, -1));
}

void Flush(DBusConnection& connection) {
    Simulation& simulation = *Simulation::Current();
    while (!connection.outgoing.empty() && connection.wire->TakesMore() && !connection.wire->closed) {
        if (connection.wire->toBus.empty())
            connection.wire->readsAt = simulation.Now() + static_cast<Time>(simulation.AnyNumber() % MILLISECOND);
        connection.wire->toBus.push_back(std::move(connection.outgoing.front()));
        connection.outgoing.pop_front();
    }
}

/// What changes something is decided by all that is known, a question may be asked at any time.
bool IsOrder(DBusMessage& message) {
    return dbus_message_has_member(&message, "MoveBefore") || dbus_message_has_member(&message, "SetProperty");
}

/// At least one, at most all of those that have arrived.
void ReadSome(DBusConnection& connection) {
    auto& arrived = connection.wire->toClient;
    std::size_t count = arrived.empty() ? 0 : 1 + Simulation::Current()->AnyNumber() % arrived.size();
    for (; count > 0; --count) {
        connection.incoming.push_back(std::move(arrived.front()));
        arrived.pop_front();
    }
}

} // namespace

} // namespace OrvLab

extern "C" {

void dbus_connection_set_change_sigpipe(dbus_bool_t /*change*/) {}
void dbus_connection_set_exit_on_disconnect(DBusConnection* /*connection*/, dbus_bool_t /*exits*/) {}

DBusConnection* dbus_connection_open_private(const char* /*address*/, DBusError* error) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Enter("open the bus");
    if (const OrvLab::Time taking = FakeDbus::bus->ConnectingTakes())
        Simulation::Current()->Sleep(taking);
    std::shared_ptr<BusConnection> wire = FakeDbus::bus->Accept();
    if (!wire) {
        dbus_set_error_const(error, DBUS_ERROR_NO_SERVER, "nobody listens");
        return nullptr;
    }
    auto connection = std::make_unique<DBusConnection>();
    connection->wire = wire;
    connection->socket = Descriptors::Of().Open(wire);
    ++FakeDbus::connections;
    return connection.release();
}

dbus_bool_t dbus_connection_set_watch_functions(DBusConnection* connection, DBusAddWatchFunction add,
                                                DBusRemoveWatchFunction remove, DBusWatchToggledFunction /*toggled*/,
                                                void* user, DBusFreeFunction /*free*/) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Enter("set watch functions");
    connection->remove = remove;
    connection->user = user;
    if (add == nullptr || !connection->isConnected)
        return TRUE;
    return OrvLab::Watch([&] { return add(&connection->reading, user) && add(&connection->writing, user); }) ? TRUE
                                                                                                             : FALSE;
}

void dbus_connection_close(DBusConnection* connection) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Enter("close the bus");
    OrvLab::Disconnect(*connection);
}

void dbus_connection_unref(DBusConnection* connection) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Enter("release the bus");
    if (connection->isConnected)
        Simulation::Current()->Fail("releases a connection that is open");
    --FakeDbus::connections;
    delete connection;
}

dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Enter("send");
    if (OrvLab::IsOrder(*message) && !connection->incoming.empty())
        Simulation::Current()->Fail("gives an order before it has heard what it has read");
    *serial = ++connection->serial;
    Message copy(dbus_message_copy(message));
    dbus_message_set_serial(copy.get(), *serial);
    Simulation::Current()->Trace("    client: " + OrvLab::BusMessages::Text(*copy));
    connection->outgoing.push_back(std::move(copy));
    if (connection->isConnected)
        OrvLab::Flush(*connection);
    return TRUE;
}

DBusMessage* dbus_connection_pop_message(DBusConnection* connection) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Enter("take a message");
    if (connection->incoming.empty() && !connection->isConnected && !std::exchange(connection->isTold, true))
        return dbus_message_new_signal(DBUS_PATH_LOCAL, DBUS_INTERFACE_LOCAL, "Disconnected");
    if (connection->incoming.empty())
        return nullptr;
    DBusMessage* message = connection->incoming.front().release();
    connection->incoming.pop_front();
    return message;
}

dbus_bool_t dbus_connection_get_is_connected(DBusConnection* connection) {
    const OrvLab::Unwatched unwatched;
    return connection->isConnected ? TRUE : FALSE;
}

dbus_bool_t dbus_watch_get_enabled(DBusWatch* watch) {
    const OrvLab::Unwatched unwatched;
    if (!watch->connection->incoming.empty())
        Simulation::Current()->Fail("waits for the bus before it has heard what it has read");
    const bool reads = (watch->flags & DBUS_WATCH_READABLE) != 0;
    return reads || !watch->connection->outgoing.empty() ? TRUE : FALSE;
}

unsigned dbus_watch_get_flags(DBusWatch* watch) {
    const OrvLab::Unwatched unwatched;
    return watch->flags;
}

int dbus_watch_get_unix_fd(DBusWatch* watch) {
    const OrvLab::Unwatched unwatched;
    return watch->connection->socket;
}

dbus_bool_t dbus_watch_handle(DBusWatch* watch, unsigned flags) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Enter("handle the socket");
    DBusConnection& connection = *watch->connection;
    if ((flags & DBUS_WATCH_READABLE) != 0)
        OrvLab::ReadSome(connection);
    if ((flags & DBUS_WATCH_WRITABLE) != 0)
        OrvLab::Flush(connection);
    if (connection.wire->closed && connection.wire->toClient.empty())
        OrvLab::Disconnect(connection);
    return TRUE;
}
}
