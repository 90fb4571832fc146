// SPDX-License-Identifier: Apache-2.0
// What strangers do on the bus, and what happens on it one by one.
#include "connman/BusMessages.h"
#include "connman/SimulatedBus.h"

#include <algorithm>
#include <utility>

namespace OrvLab {

namespace {

constexpr const char* STRANGER = ":1.66";

bool IsKnown(const LabService& service) {
    return service.variant.empty() && (service.interfaceName == "eth0" || service.interfaceName == "wwan0");
}

} // namespace

Message SimulatedBus::Forged() {
    const LabService pretended{random.OneIn(2) ? "eth0" : "wwan0", "idle", {"192.0.2.66"}};
    switch (random.Below(8)) {
    case 0:
        return BusMessages::StateChanged(pretended);
    case 1:
        return BusMessages::Reordered({pretended});
    case 2:
        return BusMessages::OwnerChanged(owner, STRANGER);
    case 3:
        return BusMessages::OwnerChanged(owner, "");
    case 4:
        return BusMessages::ServersChanged(pretended, false);
    case 5:
        return BusMessages::Error(lastSerial + random.Below(2), DBUS_ERROR_SERVICE_UNKNOWN);
    case 6: {
        Message call(dbus_message_new_method_call(":1.1", "/", DBUS_INTERFACE_PEER, "Ping"));
        dbus_message_set_serial(call.get(), 1);
        return call;
    }
    default:
        return BusMessages::Return(lastSerial + random.Below(2));
    }
}

void SimulatedBus::Forge() {
    forged = true;
    for (const auto& connection : connections)
        Send(*connection, Forged(), STRANGER);
}

void SimulatedBus::Forestall(BusConnection& connection, DBusMessage& call) {
    const dbus_uint32_t serial = dbus_message_get_serial(&call);
    switch (random.Below(3)) {
    case 0:
        return Send(connection, BusMessages::Error(serial, DBUS_ERROR_NO_REPLY), STRANGER);
    case 1:
        return Send(connection, BusMessages::Services(call, {{"eth0", "idle", {}}}), STRANGER);
    default:
        return Send(connection, BusMessages::Return(serial), STRANGER);
    }
}

void SimulatedBus::TakeServersAway(const std::string& interfaceName) {
    for (LabService& service : services)
        if (service.interfaceName == interfaceName)
            service.written = {"none"};
    Note();
}

void SimulatedBus::StartManagerUnnoticed() {
    running = true;
    TakeName();
}

void SimulatedBus::SetState(const std::string& interfaceName, const char* state) {
    for (LabService& service : services) {
        if (service.interfaceName != interfaceName || service.state == state)
            continue;
        service.state = state;
        Note();
        SendAll("PropertyChanged", BusMessages::StateChanged(service), owner);
    }
}

void SimulatedBus::SetImmutable(const std::string& interfaceName, bool immutable) {
    for (LabService& service : services) {
        if (service.interfaceName != interfaceName)
            continue;
        service.immutable = immutable;
        SendAll("PropertyChanged", BusMessages::ImmutableChanged(service), owner);
    }
}

void SimulatedBus::Remove(const std::string& interfaceName) {
    std::vector<std::string> removed;
    const auto isMeant = [&](const LabService& service) { return service.interfaceName == interfaceName; };
    for (const LabService& service : services)
        if (isMeant(service))
            removed.push_back(service.Path());
    services.erase(std::remove_if(services.begin(), services.end(), isMeant), services.end());
    Note();
    SendAll("ServicesChanged", Reordered({}, removed), owner);
}

void SimulatedBus::Add(const LabService& service, bool inFront) {
    services.insert(inFront ? services.begin() : services.end(), service);
    Note();
    SendAll("ServicesChanged", Reordered({service.Path()}, {}), owner);
}

void SimulatedBus::PutLastOf(std::size_t count, const std::string& interfaceName) {
    std::vector<std::string> fresh;
    while (services.size() < count) {
        services.push_back({"other" + std::to_string(services.size()), "idle", {}});
        fresh.push_back(services.back().Path());
    }
    const auto found = std::find_if(services.begin(), services.end(),
                                    [&](const LabService& service) { return service.interfaceName == interfaceName; });
    std::rotate(found, found + 1, services.end());
    Note();
    SendAll("ServicesChanged", Reordered(fresh, {}), owner);
}

void SimulatedBus::RemoveOthers() {
    std::vector<std::string> removed;
    for (const LabService& service : services)
        if (!IsKnown(service))
            removed.push_back(service.Path());
    services.erase(
        std::remove_if(services.begin(), services.end(), [](const LabService& service) { return !IsKnown(service); }),
        services.end());
    Note();
    SendAll("ServicesChanged", Reordered({}, removed), owner);
}

void SimulatedBus::SayNonsense() {
    for (Message& message : BusMessages::Nonsense(services.front())) {
        const std::string member = dbus_message_get_member(message.get());
        SendAll(member == "Other" ? "ServicesChanged" : member.c_str(), std::move(message), owner);
    }
    const std::string nobody;
    SendAll("NameOwnerChanged", BusMessages::OwnerChanged(owner, nobody, "net.connman.vpn"), DBUS_SERVICE_DBUS);
    SendAll("NameOwnerChanged", BusMessages::OwnerChanged(nobody, ":1.5", "org.example"), DBUS_SERVICE_DBUS);
}

} // namespace OrvLab
