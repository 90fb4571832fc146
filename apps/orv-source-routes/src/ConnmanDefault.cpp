// SPDX-License-Identifier: Apache-2.0
#include "ConnmanDefault.h"

#include <connman/ConnmanMessages.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

namespace OrvSourceRoutes {

using namespace std::chrono_literals;
using OrvPlatform::ConnmanServiceUpdate;
using OrvPlatform::MessageBus;
namespace Messages = OrvPlatform::ConnmanMessages;

namespace {

constexpr std::chrono::seconds FIRST_PAUSE = 1s;
constexpr std::chrono::seconds LONGEST_PAUSE = 10s; // without a bus
// Also without a signal: any local program may have filled the bus's queue.
constexpr std::chrono::seconds LOOK_AGAIN = 60s;

} // namespace

ConnmanDefault::ConnmanDefault(std::string address, std::chrono::milliseconds wait)
    : busAddress(std::move(address)), patience(wait) {
    wake.Open();
    news.Open();
    thread = std::thread([this] { Run(); });
}

ConnmanDefault::~ConnmanDefault() {
    stopping = true;
    wake.Wake();
    thread.join();
}

ConnmanView ConnmanDefault::View() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return view;
}

void ConnmanDefault::AskAgain() {
    asked = true;
    wake.Wake();
}

void ConnmanDefault::Set(const ConnmanView& fresh) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (view == fresh)
            return;
        view = fresh;
    }
    news.Wake();
}

void ConnmanDefault::Run() {
    MessageBus bus(wake, [this] { return stopping.load(); });
    std::chrono::seconds pause = FIRST_PAUSE;
    while (!stopping) {
        if (bus.Open(busAddress, patience).empty() && Listen(bus)) {
            pause = FIRST_PAUSE;
            Follow(bus);
        }
        Set({});
        bus.Close();
        const auto until = MessageBus::Clock::now() + pause;
        while (!stopping && MessageBus::Clock::now() < until)
            bus.Wait(until);
        pause = std::min(2 * pause, LONGEST_PAUSE);
    }
}

/// @return false when the bus does not do it: changes would go unheard
bool ConnmanDefault::Listen(MessageBus& bus) {
    const std::string signals = "type='signal',sender='" + std::string(Messages::NAME) + "',interface='";
    const std::string rules[] = {
        "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + std::string(Messages::NAME) +
            "'",
        signals + Messages::MANAGER + "',member='ServicesChanged'",
        signals + Messages::SERVICE + "',member='PropertyChanged',arg0='State'",
        signals + Messages::SERVICE + "',member='PropertyChanged',arg0='Nameservers'",
    };
    return std::all_of(std::begin(rules), std::end(rules), [&](const std::string& rule) {
        return bus.CallBus(Messages::AddMatch(rule), patience).message != nullptr;
    });
}

void ConnmanDefault::Follow(MessageBus& bus) {
    bool changed = true;
    bus.OnSignal([&changed](DBusMessage&) { changed = true; }); // whoever sent it: the answer is asked of ConnMan
    std::chrono::seconds pause = FIRST_PAUSE;
    while (!stopping && bus.IsOpen()) {
        changed = false;
        asked = false;
        const std::optional<ConnmanView> fresh = Ask(bus);
        if (stopping)
            break;
        if (fresh)
            Set(*fresh);
        // The signal that led to a question without an answer does not come again.
        const auto until = MessageBus::Clock::now() + (fresh ? LOOK_AGAIN : pause);
        pause = fresh ? FIRST_PAUSE : std::min(2 * pause, LOOK_AGAIN);
        bus.HandleArrived();
        while (!stopping && bus.IsOpen() && !changed && !asked && MessageBus::Clock::now() < until)
            bus.Wait(until);
    }
    bus.OnSignal(nullptr);
}

/// @return nothing when it cannot be told: what was true before counts
std::optional<ConnmanView> ConnmanDefault::Ask(MessageBus& bus) {
    const MessageBus::Reply owner = bus.CallBus(Messages::GetNameOwner(), patience);
    if (!owner.message)
        return owner.isOwnerless ? std::optional<ConnmanView>(ConnmanView{}) : std::nullopt;
    const std::string name = Messages::ReadOwner(*owner.message);
    if (name.empty())
        return std::nullopt;
    const MessageBus::Reply reply = bus.Call(Messages::GetServices(name), patience, [] {});
    const auto list = reply.message ? Messages::ReadServices(*reply.message) : std::nullopt;
    if (!list)
        return std::nullopt;
    ConnmanView told;
    for (const ConnmanServiceUpdate& service : *list) {
        const std::string state = service.state.value_or("");
        if ((state != "ready" && state != "online") || !service.interfaceName)
            continue;
        if (&service == &list->front())
            told.defaultInterface = *service.interfaceName;
        if (service.servers)
            told.nameServers[*service.interfaceName] = *service.servers;
    }
    return told;
}

} // namespace OrvSourceRoutes
