// SPDX-License-Identifier: Apache-2.0
#include "ConnmanDefault.h"

#include <connman/ConnmanMessages.h>

#include <chrono>
#include <optional>
#include <utility>
#include <vector>

namespace OrvSourceRoutes {

using namespace std::chrono_literals;
using OrvPlatform::ConnmanServiceUpdate;
using OrvPlatform::MessageBus;
namespace Messages = OrvPlatform::ConnmanMessages;

namespace {

constexpr auto PATIENCE = 1000ms;
constexpr auto RETRY = 1s;
constexpr auto LOOK_AGAIN = 60s; // also without a signal: any local program may have filled the bus's queue

} // namespace

ConnmanDefault::ConnmanDefault(std::string address) : busAddress(std::move(address)) {
    wake.Open();
    news.Open();
    thread = std::thread([this] { Run(); });
}

ConnmanDefault::~ConnmanDefault() {
    stopping = true;
    wake.Wake();
    thread.join();
}

std::string ConnmanDefault::Interface() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return interface;
}

void ConnmanDefault::AskAgain() {
    asked = true;
    wake.Wake();
}

void ConnmanDefault::Set(const std::string& fresh) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (interface == fresh)
            return;
        interface = fresh;
    }
    news.Wake();
}

void ConnmanDefault::Run() {
    MessageBus bus(wake, [this] { return stopping.load(); });
    while (!stopping) {
        if (bus.Open(busAddress, PATIENCE).empty())
            Follow(bus);
        Set({});
        bus.Close();
        const auto until = MessageBus::Clock::now() + RETRY;
        while (!stopping && MessageBus::Clock::now() < until)
            bus.Wait(until);
    }
}

void ConnmanDefault::Follow(MessageBus& bus) {
    bool changed = true;
    bus.OnSignal([&changed](DBusMessage&) { changed = true; }); // whoever sent it: the answer is asked of ConnMan
    const std::string name = Messages::NAME;
    for (const std::string& rule :
         {"type='signal',sender='" + name + "'",
          "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name + "'"})
        bus.CallBus(Messages::AddMatch(rule), PATIENCE);
    while (!stopping && bus.IsOpen()) {
        changed = false;
        asked = false;
        const std::optional<std::string> fresh = Ask(bus);
        if (stopping)
            break;
        if (fresh)
            Set(*fresh);
        const auto until = MessageBus::Clock::now() + LOOK_AGAIN;
        bus.HandleArrived();
        while (!stopping && bus.IsOpen() && !changed && !asked && MessageBus::Clock::now() < until)
            bus.Wait(until);
    }
    bus.OnSignal(nullptr);
}

/// @return nothing when it cannot be told: what was true before counts
std::optional<std::string> ConnmanDefault::Ask(MessageBus& bus) {
    const MessageBus::Reply owner = bus.CallBus(Messages::GetNameOwner(), PATIENCE);
    if (!owner.message)
        return owner.isOwnerless ? std::optional<std::string>(std::string()) : std::nullopt;
    const MessageBus::Reply reply =
        bus.Call(Messages::GetServices(Messages::ReadOwner(*owner.message)), PATIENCE, [] {});
    const auto list = reply.message ? Messages::ReadServices(*reply.message) : std::nullopt;
    if (!list)
        return std::nullopt;
    const ConnmanServiceUpdate first = list->empty() ? ConnmanServiceUpdate{} : list->front();
    const std::string state = first.state.value_or("");
    return state == "ready" || state == "online" ? first.interfaceName.value_or("") : std::string();
}

} // namespace OrvSourceRoutes
