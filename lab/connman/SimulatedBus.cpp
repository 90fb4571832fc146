// SPDX-License-Identifier: Apache-2.0
#include "connman/SimulatedBus.h"

#include "connman/BusMessages.h"

#include <poll.h>

#include <algorithm>
#include <utility>

namespace OrvLab {

namespace {

std::vector<LabService> Boot() {
    return {{"eth0", "online", {}}, {"wwan0", "ready", {}}};
}

} // namespace

short BusConnection::Ready() const {
    short ready = 0;
    if (!toClient.empty() || closed)
        ready |= POLLIN;
    if (closed)
        ready |= POLLHUP;
    if (closed || TakesMore())
        ready |= POLLOUT;
    return ready;
}

long BusConnection::Receive(void* /*buffer*/, std::size_t /*size*/) {
    Simulation::Current()->Fail("reads from the bus's socket behind libdbus");
}

SimulatedBus::SimulatedBus(Simulation& simulation, std::uint64_t seed, BusListener& whoListens)
    : sim(simulation), random(seed), listener(whoListens), services(Boot()) {
    if (!random.OneIn(4))
        StartManager();
    running = !random.OneIn(8);
    Note();
}

Time SimulatedBus::NextEvent() const {
    Time next = NEVER;
    if (!IsRunning())
        return next;
    for (const auto& connection : connections) {
        if (!connection->toBus.empty())
            next = std::min(next, connection->readsAt);
        if (!connection->underWay.empty())
            next = std::min(next, connection->underWay.front().due);
    }
    for (const Asked& one : asked)
        next = std::min(next, IsHeldBack(one) ? NEVER : one.due);
    return next;
}

void SimulatedBus::Advance(Time now) {
    if (!IsRunning())
        return;
    for (const auto& connection : connections) {
        while (!connection->toBus.empty() && connection->readsAt <= now && !connection->closed) {
            const Message call = std::move(connection->toBus.front());
            connection->toBus.pop_front();
            Read(*connection, *call);
        }
        while (!connection->underWay.empty() && connection->underWay.front().due <= now) {
            connection->toClient.push_back(std::move(connection->underWay.front().message));
            connection->underWay.pop_front();
        }
    }
    const auto isDue = [&](const Asked& one) { return one.due <= now && !IsHeldBack(one); };
    for (auto due = std::find_if(asked.begin(), asked.end(), isDue); due != asked.end();
         due = std::find_if(asked.begin(), asked.end(), isDue)) {
        const Asked one = std::move(*due);
        asked.erase(due);
        Answer(one);
    }
}

/// One that has lost the name answers all the same.
bool SimulatedBus::IsHeldBack(const Asked& one) const {
    return manners == Manners::MUTE && one.owner == owner;
}

std::shared_ptr<BusConnection> SimulatedBus::Accept() {
    ++attempts;
    if (!running)
        return nullptr;
    connections.push_back(std::make_shared<BusConnection>());
    connections.back()->number = static_cast<int>(connections.size());
    if (!healed && random.OneIn(4))
        connections.back()->window = 1 + random.Below(3);
    return connections.back();
}

Time SimulatedBus::ConnectingTakes() {
    return !healed && random.OneIn(20) ? static_cast<Time>(random.Between(1, 4000)) * MILLISECOND : 0;
}

void SimulatedBus::Stop() {
    running = false;
    owner.clear();
    asked.clear();
    for (const auto& connection : connections) {
        connection->closed = true;
        connection->underWay.clear();
        connection->toBus.clear();
    }
}

void SimulatedBus::EndManager() {
    if (owner.empty())
        return;
    const std::string before = std::exchange(owner, std::string());
    const bool newsFirst = random.OneIn(2);
    if (newsFirst)
        OwnerChanged(before);
    LeaveUnanswered();
    if (!newsFirst)
        OwnerChanged(before);
}

/// The bus says so to those who wait for somebody who has gone.
void SimulatedBus::LeaveUnanswered() {
    for (const Asked& one : asked)
        Send(*Find(one.connection), BusMessages::Error(*one.call, DBUS_ERROR_NO_REPLY), DBUS_SERVICE_DBUS);
    asked.clear();
}

void SimulatedBus::StartManager() {
    if (random.OneIn(3))
        EndManager();
    const std::string before = owner;
    TakeName();
    OwnerChanged(before);
    if (random.OneIn(2))
        LeaveUnanswered();
}

/// A process that is the connection manager from now on.
void SimulatedBus::TakeName() {
    owner = ":1." + std::to_string(++names + 100);
    owners.insert(owner);
    std::vector<LabService> fresh = Boot();
    // What was configured is kept on disk, the order is not.
    for (LabService& service : fresh)
        if (const LabService* known = Of(service.interfaceName))
            service.written = known->written;
    services = std::move(fresh);
    Note();
}

void SimulatedBus::ChangeServices() {
    if (owner.empty())
        return;
    const unsigned what = random.Below(4);
    std::vector<std::string> fresh;
    std::vector<std::string> removed;
    if (what == 0 && services.size() > 1) {
        removed.push_back(services.back().Path());
        services.pop_back();
    } else if (what == 1 && services.size() < 2) {
        services.push_back({services.empty() || services[0].interfaceName == "wwan0" ? "eth0" : "wwan0", "ready", {}});
        fresh.push_back(services.back().Path());
    } else if (what == 2 && services.size() > 1) {
        std::swap(services[0], services[1]);
    } else if (!services.empty()) {
        LabService& service = services[random.Below(static_cast<unsigned>(services.size()))];
        service.state = service.Connected() ? "idle" : "ready";
        Note();
        SendAll("PropertyChanged", BusMessages::StateChanged(service), owner);
        return;
    }
    Note();
    SendAll("ServicesChanged", Reordered(fresh, removed), owner);
}

void SimulatedBus::Heal() {
    healed = true;
    running = true;
    frozen = false;
    forestalled = false;
    manners = Manners::OBEYS;
    for (const auto& connection : connections)
        connection->window = 1000;
    if (owner.empty())
        StartManager();
    const auto isWell = [](const LabService& service) { return service.Connected(); };
    // What was refused rests until there is news. Otherwise what was told before must suffice.
    if (!refused && services.size() == 2 && std::all_of(services.begin(), services.end(), isWell))
        return;
    for (const char* const interfaceName : {"eth0", "wwan0"})
        if (Of(interfaceName) == nullptr)
            services.push_back({interfaceName, "ready", {}});
    for (LabService& service : services)
        service.state = "ready";
    Note();
    SendAll("ServicesChanged", BusMessages::Reordered(services), owner);
}

const LabService* SimulatedBus::Of(const std::string& interfaceName) const {
    const auto found = std::find_if(services.begin(), services.end(),
                                    [&](const LabService& one) { return one.interfaceName == interfaceName; });
    return found == services.end() ? nullptr : &*found;
}

bool SimulatedBus::WasTop(const std::string& interfaceName, Time since) const {
    for (std::size_t index = tops.size(); index-- > 0;) {
        if (tops[index].interfaceName == interfaceName)
            return true;
        if (tops[index].since <= since)
            break;
    }
    return false;
}

bool SimulatedBus::WasWritten(const std::string& interfaceName, const std::vector<std::string>& servers,
                              Time since) const {
    for (std::size_t index = writings.size(); index-- > 0;) {
        if (writings[index].interfaceName != interfaceName)
            continue;
        if (writings[index].written == servers)
            return true;
        if (writings[index].since <= since)
            break;
    }
    return false;
}

void SimulatedBus::Note() {
    if (tops.empty() || tops.back().interfaceName != Top())
        tops.push_back({sim.Now(), Top(), {}});
    for (const LabService& service : services)
        writings.push_back({sim.Now(), service.interfaceName, service.written});
}

void SimulatedBus::Read(BusConnection& connection, DBusMessage& call) {
    if (dbus_message_get_type(&call) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        sim.Fail("sends what is no call: " + BusMessages::Text(call));
    const std::string destination = dbus_message_get_destination(&call);
    lastSerial = dbus_message_get_serial(&call);
    if (destination != DBUS_SERVICE_DBUS && owners.count(destination) == 0)
        sim.Fail("speaks to a stranger: " + BusMessages::Text(call));
    if (destination == DBUS_SERVICE_DBUS)
        return HandleBusCall(connection, call);
    if (owner.empty() || destination != owner)
        return Send(connection, BusMessages::Error(call, DBUS_ERROR_SERVICE_UNKNOWN), DBUS_SERVICE_DBUS);
    ++calls;
    orders += dbus_message_has_member(&call, "GetServices") ? 0 : 1;
    const auto isWaitedFor = [&](const Asked& one) { return one.connection == connection.number; };
    if (std::any_of(asked.begin(), asked.end(), isWaitedFor))
        sim.Fail("does not wait for the answer to the call before: " + BusMessages::Text(call));
    if (forestalled)
        Forestall(connection, call);
    Time taking = static_cast<Time>(random.Between(0, 5)) * MILLISECOND;
    if (manners == Manners::LATE)
        taking = static_cast<Time>(random.Between(1, 12'000)) * MILLISECOND;
    asked.push_back({sim.Now() + taking, connection.number, owner, Message(dbus_message_ref(&call))});
}

void SimulatedBus::HandleBusCall(BusConnection& connection, DBusMessage& call) {
    const std::string member = dbus_message_get_member(&call);
    ++questions;
    if (member == "GetNameOwner") {
        Message answer =
            owner.empty() ? BusMessages::Error(call, DBUS_ERROR_NAME_HAS_NO_OWNER) : BusMessages::Return(call, owner);
        return Send(connection, std::move(answer), DBUS_SERVICE_DBUS);
    }
    if (member == "AddMatch")
        for (const char* const rule : {"NameOwnerChanged", "ServicesChanged", "PropertyChanged"})
            if (BusMessages::FirstText(call).find(rule) != std::string::npos)
                connection.rules.insert(rule);
    Send(connection, BusMessages::Return(call, ":1.1"), DBUS_SERVICE_DBUS);
}

void SimulatedBus::Answer(const Asked& one) {
    std::vector<Message> news;
    if (one.owner != owner) {
        const bool asksForServices = dbus_message_has_member(one.call.get(), "GetServices");
        Send(*Find(one.connection),
             asksForServices ? BusMessages::Services(*one.call, {{"eth0", "idle", {}}})
                             : BusMessages::Error(*one.call, "net.connman.Error.NotSupported"),
             one.owner);
        return;
    }
    const bool isQuestion = dbus_message_has_member(one.call.get(), "GetServices") != FALSE;
    const bool refuses =
        (manners == Manners::REFUSES && random.OneIn(2)) || (manners == Manners::REFUSES_ORDERS && !isQuestion);
    refused = refused || refuses;
    Message answer = refuses ? BusMessages::Error(*one.call, "net.connman.Error.InvalidService")
                             : HandleManagerCall(*one.call, news);
    const bool newsFirst = random.OneIn(2);
    if (!newsFirst)
        Send(*Find(one.connection), std::move(answer), one.owner);
    for (Message& signal : news) {
        const std::string member = dbus_message_get_member(signal.get());
        SendAll(member.c_str(), std::move(signal), one.owner);
    }
    if (newsFirst)
        Send(*Find(one.connection), std::move(answer), one.owner);
}

/// What the connection manager does, and says to everybody.
Message SimulatedBus::HandleManagerCall(DBusMessage& call, std::vector<Message>& news) {
    const std::string member = dbus_message_get_member(&call);
    if (member == "GetServices")
        return BusMessages::Services(call, services);
    const std::string path = dbus_message_get_path(&call);
    const auto isMeant = [](const std::string& text) {
        return [text](const LabService& service) { return service.Path() == text; };
    };
    auto found = std::find_if(services.begin(), services.end(), isMeant(path));
    if (found == services.end())
        return BusMessages::Error(call, DBUS_ERROR_UNKNOWN_OBJECT);
    if (member == "MoveBefore") {
        auto before = std::find_if(services.begin(), services.end(), isMeant(BusMessages::FirstText(call)));
        if (before == services.end() || before == found || !found->Connected())
            return BusMessages::Error(call, "net.connman.Error.InvalidService");
        listener.Moved(found->interfaceName);
        std::rotate(std::min(before, found), found, std::max(before, found) + 1);
        news.push_back(Reordered({}, {}));
    } else if (found->immutable) {
        return BusMessages::Error(call, "net.connman.Error.InvalidProperty");
    } else {
        found->written = BusMessages::WrittenServers(call);
        listener.Configured(found->interfaceName, found->written);
        news.push_back(BusMessages::ServersChanged(*found, false));
        news.push_back(BusMessages::ServersChanged(*found, true));
    }
    Note();
    return BusMessages::Return(dbus_message_get_serial(&call));
}

void SimulatedBus::Send(BusConnection& connection, Message message, const std::string& sender, Time later) {
    if (connection.closed || connection.clientGone)
        return;
    dbus_message_set_sender(message.get(), sender.c_str());
    Time due = sim.Now() + later + static_cast<Time>(random.Below(3)) * MILLISECOND;
    if (!connection.underWay.empty())
        due = std::max(due, connection.underWay.back().due);
    sim.Trace("    bus: " + BusMessages::Text(*message));
    connection.underWay.push_back({due, std::move(message)});
}

void SimulatedBus::SendAll(const char* rule, Message signal, const std::string& sender) {
    for (const auto& connection : connections)
        if (connection->rules.count(rule) != 0)
            Send(*connection, Message(dbus_message_copy(signal.get())), sender);
}

void SimulatedBus::OwnerChanged(const std::string& before) {
    SendAll("NameOwnerChanged", BusMessages::OwnerChanged(before, owner), DBUS_SERVICE_DBUS);
}

/// At times with more than has to be said.
Message SimulatedBus::Reordered(const std::vector<std::string>& fresh, const std::vector<std::string>& removed) {
    return random.OneIn(4) ? BusMessages::Reordered(services) : BusMessages::Reordered(services, fresh, removed);
}

BusConnection* SimulatedBus::Find(int number) {
    return connections[static_cast<std::size_t>(number) - 1].get();
}

} // namespace OrvLab
