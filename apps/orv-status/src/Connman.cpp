// SPDX-License-Identifier: Apache-2.0
#include "Connman.h"

#include "Pieces.h"

#include <connman/ConnmanMessages.h>
#include <log/LogEscape.h>

#include <utility>

namespace OrvStatus {

using namespace std::chrono_literals;
using OrvPlatform::Escaped;
using OrvPlatform::MessageBus;
namespace Messages = OrvPlatform::ConnmanMessages;

namespace {

constexpr auto PATIENCE = 1000ms;
constexpr auto RETRY = 1s;
constexpr auto LOOK_AGAIN = 5s; // also without a signal

ConnmanView Away(std::string reason) {
    ConnmanView view;
    view.state = Known::AWAY;
    view.reason = std::move(reason);
    return view;
}

ConnmanView Unknown(std::string reason) {
    ConnmanView view;
    view.reason = std::move(reason);
    return view;
}

} // namespace

Connman::Connman(std::string address) : busAddress(std::move(address)) {
    stop.Open();
    news.Open();
    thread = std::thread([this] { Run(); });
}

Connman::~Connman() {
    stopping = true;
    stop.Wake();
    thread.join();
}

ConnmanView Connman::View() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return view;
}

void Connman::SetView(ConnmanView fresh) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        view = std::move(fresh);
    }
    news.Wake();
}

void Connman::Run() {
    MessageBus bus(stop, [this] { return stopping.load(); });
    while (!stopping) {
        const std::string failure = bus.Open(busAddress, PATIENCE);
        if (failure.empty())
            Follow(bus);
        else if (!stopping)
            SetView(Away(Joined({"the message bus: ", Escaped(failure)})));
        bus.Close();
        if (!stopping)
            bus.Wait(MessageBus::Clock::now() + RETRY);
    }
}

void Connman::Follow(MessageBus& bus) {
    bool changed = true;
    bus.OnSignal([&changed](DBusMessage&) { changed = true; }); // whoever sent it: the answer is asked of ConnMan
    bus.CallBus(Messages::AddMatch(Joined({"type='signal',sender='", Messages::NAME, "'"})), PATIENCE);
    bus.CallBus(
        Messages::AddMatch(Joined(
            {"type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='", Messages::NAME, "'"})),
        PATIENCE);
    while (!stopping && bus.IsOpen()) {
        changed = false;
        ConnmanView fresh = ReadServices(bus);
        if (stopping)
            break;
        SetView(std::move(fresh));
        const auto until = MessageBus::Clock::now() + LOOK_AGAIN;
        bus.HandleArrived();
        while (!stopping && bus.IsOpen() && !changed && MessageBus::Clock::now() < until)
            bus.Wait(until);
    }
    bus.OnSignal(nullptr);
}

ConnmanView Connman::ReadServices(MessageBus& bus) {
    const MessageBus::Reply owner = bus.CallBus(Messages::GetNameOwner(), PATIENCE);
    if (!owner.message)
        return owner.isOwnerless ? Away("nobody has its name on the message bus")
                                 : Unknown(Joined({"the message bus: ", Escaped(owner.error)}));
    const MessageBus::Reply reply = bus.Call(Messages::GetServices(Messages::ReadOwner(*owner.message)), PATIENCE,
                                             [this] { SetView(Unknown("it does not answer")); });
    const auto list = reply.message ? Messages::ReadServices(*reply.message) : std::nullopt;
    if (!list)
        return Unknown(reply.message ? "its answer is of an unknown form" : Escaped(reply.error));
    ConnmanView fresh;
    fresh.state = Known::PRESENT;
    for (const OrvPlatform::ConnmanServiceUpdate& service : *list) {
        ConnmanView::Service seen;
        seen.interface = Escaped(service.interfaceName.value_or(""));
        seen.state = Escaped(service.state.value_or("unknown"));
        for (const std::string& server : service.servers.value_or(std::vector<std::string>()))
            seen.nameServers.push_back(Escaped(server));
        fresh.services.push_back(std::move(seen));
    }
    return fresh;
}

} // namespace OrvStatus
