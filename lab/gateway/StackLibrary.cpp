// SPDX-License-Identifier: Apache-2.0
#include "gateway/StackLibrary.h"

#include <ConnInterfaceString.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

std::string ConnInterfaceString;

namespace OrvLab {

using OrvStackSdk::AppAction;
using OrvStackSdk::AppStatus;
using OrvStackSdk::Confirmation;
using OrvStackSdk::IOrvStackClientHandler;
using OrvStackSdk::OrvEvent;

namespace {

constexpr Time LONGEST_CONNECT = 3 * SECOND;
constexpr Time DELAY = 10 * SECOND;
constexpr Time ROUND = 20 * SECOND;
constexpr Time SWITCH = 3 * SECOND;
constexpr Time SETTLE = 5 * SECOND;
constexpr Time POKE = 15 * SECOND;

StackLibrary* present = nullptr;

std::string Line(const char* name, const char* value) {
    return std::string("\"") + name + "\",\"" + value + "\"";
}

} // namespace

class StackLibrary::Client final : public OrvStackSdk::IOrvStackClient {
public:
    explicit Client(StackLibrary& its) : library(its) {}
    ~Client() override {
        const Unwatched unwatched;
        library.listener.Released();
        End();
    }

    void SetHandler(std::weak_ptr<IOrvStackClientHandler> receiver) override {
        const Unwatched unwatched;
        library.listener.HandlerSet();
        library.handler = std::move(receiver);
    }

    void Init(const std::string& name) override {
        const Unwatched unwatched;
        library.listener.Inits(name);
        End();
        library.Wait("Init", library.broker == Broker::MUTE
                                 ? LONGEST_CONNECT
                                 : static_cast<Time>(library.random.Below(50)) * MILLISECOND);
        library.connected = library.broker == Broker::THERE;
        library.listener.Confirmed(library.connected);
        if (const auto receiver = library.handler.lock()) {
            library.inCallback = true;
            const Confirmation answer = library.connected ? Confirmation::ACK : Confirmation::NACK;
            Watch([&] { receiver->OnInitConfirmation(answer); });
            library.inCallback = false;
        }
        if (library.connected)
            library.delivery = &library.sim.Start("delivery", [its = &library] { its->DeliveryThread(); });
    }

    void DeInit() override {
        const Unwatched unwatched;
        library.listener.DeInits();
        library.Wait("DeInit", static_cast<Time>(library.random.Below(1000)) * MILLISECOND);
        End();
    }

    void Start() override {
        const Unwatched unwatched;
        library.listener.Starts();
        library.booting = true;
    }

    void Stop() override {
        const Unwatched unwatched;
        library.listener.Stops();
    }

    void Tick(std::chrono::milliseconds /*elapsed*/) override {
        const Unwatched unwatched;
        library.listener.Ticks();
        library.sim.Step("Tick");
        if (library.inCallback)
            library.sim.Fail("ticks inside a callback");
        library.Move();
    }

    void AppStatusRequest(const AppStatus& status) override {
        const Unwatched unwatched;
        library.sim.Trace("  library: status " + OrvStackSdk::AppStatusText(status));
        library.listener.Says(status);
        library.booting = status == AppStatus::BOOTING;
        library.sim.Step("AppStatusRequest");
    }

    void AppActionRequest(const std::string& /*app*/, const AppAction& /*action*/) override {}

    void EventUpdateRequest(const OrvEvent& event) override {
        const Unwatched unwatched;
        library.sim.Trace("  library: event " + OrvStackSdk::OrvEventText(event));
        library.listener.Reports(event);
        library.sim.Step("EventUpdateRequest");
        library.Report(event);
    }

    bool CloudReconnectNeeded() override {
        const Unwatched unwatched;
        const bool now = std::exchange(library.moved, false);
        library.listener.AsksWhetherMoved(now, library.state == State::CELLULAR);
        return now;
    }

    void RequestShutdown() override {}
    void PanelCommandRequest(const std::string& /*command*/, int /*value*/) override {}
    void SendConnectionStatus(const std::string& /*status*/) override {}

private:
    void End() {
        library.connected = false;
        if (library.delivery != nullptr)
            library.sim.Join(*std::exchange(library.delivery, nullptr));
    }

    StackLibrary& library;
};

StackLibrary::StackLibrary(World& its, ConnectionManager& itsManager, FakeFiles& itsFiles, StackListener& itsListener,
                           std::uint64_t seed)
    : sim(its.sim), manager(itsManager), files(itsFiles), listener(itsListener), random(seed) {
    present = this;
    ConnInterfaceString.clear();
}

StackLibrary::~StackLibrary() {
    present = nullptr;
}

std::shared_ptr<OrvStackSdk::IOrvStackClient> StackLibrary::Create() {
    const Unwatched unwatched;
    StackLibrary& library = *present;
    library.sim.Step("CreateClient");
    library.Wait("CreateClient", library.broker == Broker::MUTE
                                     ? LONGEST_CONNECT
                                     : static_cast<Time>(library.random.Below(50)) * MILLISECOND);
    const bool there = library.broker == Broker::THERE;
    library.listener.Created(there);
    if (!there)
        throw std::runtime_error("OrvRoute cannot connect to MQTT broker.");
    library.WriteCsv();
    library.manager.Order("eth0");
    return std::make_shared<Client>(library);
}

void StackLibrary::Wait(const char* what, Time duration) {
    if (sim.Self().locks != 0)
        sim.Fail(std::string(what) + " waits, and a lock is held");
    sim.Wait(
        what, [] { return false; }, sim.Now() + duration);
}

std::string StackLibrary::Csv() const {
    return Line("Enterprise Feature", enabled ? "Enabled" : "Disabled") + '\n' +
           Line("Cloud Connection", cloud ? "Up" : "Down") + '\n' + Line("Ethernet", ethernetLink ? "Up" : "Down") +
           '\n' + Line("Cellular", cellularLink ? "Up" : "Down");
}

void StackLibrary::WriteCsv() {
    files.Put(FakeFiles::CSV, Csv());
}

void StackLibrary::Report(OrvEvent event) {
    if (disk != 0 && random.OneIn(4))
        Wait("wait for the disk",
             static_cast<Time>(random.Below(static_cast<unsigned>(disk / MILLISECOND))) * MILLISECOND);
    switch (event) {
    case OrvEvent::CLOUD_CONNECTED:
    case OrvEvent::CLOUD_DISCONNECTED:
        cloud = event == OrvEvent::CLOUD_CONNECTED;
        break;
    case OrvEvent::PANEL_CLOUD_ENABLED:
    case OrvEvent::PANEL_CLOUD_DISABLED:
        enabled = event == OrvEvent::PANEL_CLOUD_ENABLED;
        break;
    case OrvEvent::ETHERNET_CONNECTED:
    case OrvEvent::ETHERNET_DISCONNECTED:
        ethernetLink = event == OrvEvent::ETHERNET_CONNECTED;
        break;
    case OrvEvent::CELLULAR_CONNECTED:
    case OrvEvent::CELLULAR_DISCONNECTED:
        cellularLink = event == OrvEvent::CELLULAR_CONNECTED;
        break;
    case OrvEvent::ETHERNET_IP_GAINED:
    case OrvEvent::ETHERNET_IP_LOST:
        ethernet = event == OrvEvent::ETHERNET_IP_GAINED;
        break;
    case OrvEvent::CELLULAR_IP_GAINED:
    case OrvEvent::CELLULAR_IP_LOST:
        cellular = event == OrvEvent::CELLULAR_IP_GAINED;
        break;
    case OrvEvent::FAILURE:
        break;
    }
    cloudLostSinceSwitch = cloudLostSinceSwitch || !cloud;
    WriteCsv();
    Order();
}

void StackLibrary::Order() const {
    const bool overCellular = state == State::TO_CELLULAR || state == State::CELLULAR;
    manager.Order(overCellular ? "wwan0" : "eth0");
}

void StackLibrary::Enter(State next) {
    sim.Trace("    library: state " + std::to_string(static_cast<int>(next)));
    state = next;
}

void StackLibrary::BeginPoke() {
    poking = true;
    pokeSteps = 0;
    pokeEnds = sim.Now() + POKE;
}

int StackLibrary::DrivePoke(const std::string& interface) {
    if (!poking)
        return 0;
    if (++pokeSteps < 4)
        return 0;
    if (reaches(interface) && (pokesAreQuick || !random.OneIn(8))) {
        poking = false;
        sim.Trace("    library: the poke over " + interface + " succeeds");
        return 1;
    }
    if (sim.Now() < pokeEnds && (pokesAreQuick || !random.OneIn(10)))
        return 0;
    BeginPoke();
    return -1;
}

/// One step; see the table in docs/route.md.
void StackLibrary::Move() {
    state == State::ETHERNET || state == State::DELAY || state == State::POKING_CELLULAR || state == State::TO_CELLULAR
        ? MoveOnEthernet()
        : MoveOnCellular();
}

void StackLibrary::MoveOnEthernet() {
    const Time now = sim.Now();
    const Time passed = now - stamp;
    if (state == State::ETHERNET) {
        if (!cloud) {
            stamp = now;
            told = false;
            return Enter(State::DELAY);
        }
        if (!std::exchange(told, true))
            ConnInterfaceString = "Ethernet";
    } else if (state == State::DELAY) {
        if (cloud)
            return Enter(!ethernet && cellular ? State::CELLULAR : State::ETHERNET);
        if (passed < DELAY || !cellular)
            return;
        stamp = now;
        BeginPoke();
        Enter(State::POKING_CELLULAR);
    } else if (state == State::POKING_CELLULAR) {
        if (DrivePoke("wwan0") > 0) {
            stamp = now;
            manager.Order("wwan0");
            return Enter(State::TO_CELLULAR);
        }
        if (cloud || !cellular || passed >= ROUND) {
            poking = false;
            Enter(State::ETHERNET);
        }
    } else if (manager.Top() == "wwan0") {
        moved = true;
        ConnInterfaceString = "Cellular";
        Enter(State::CELLULAR);
    } else if (passed >= SWITCH) {
        Enter(State::ETHERNET);
        manager.Order("eth0");
    }
}

void StackLibrary::MoveOnCellular() {
    const Time now = sim.Now();
    const Time passed = now - stamp;
    if (state == State::CELLULAR) {
        if (ethernet && !poking) {
            stamp = now;
            return BeginPoke();
        }
        if (poking && !ethernet && passed >= 2 * SECOND) {
            poking = false;
            return;
        }
        if (DrivePoke("eth0") > 0) {
            stamp = now;
            manager.Order("eth0");
            Enter(State::TO_ETHERNET);
        }
    } else if (state == State::TO_ETHERNET) {
        if (manager.Top() == "eth0") {
            moved = true;
            cloudLostSinceSwitch = false;
            stamp = now;
            Enter(State::SETTLE);
        } else if (passed >= SWITCH) {
            manager.Order("eth0");
            Enter(State::ETHERNET);
        }
    } else if (cloudLostSinceSwitch || passed >= SETTLE) {
        told = false;
        Enter(State::ETHERNET);
    }
}

void StackLibrary::Deliver(std::function<void(IOrvStackClientHandler&)> message) {
    messages.push_back(std::move(message));
}

void StackLibrary::DeliveryThread() {
    while (true) {
        sim.Wait("wait for messages", [this] { return !connected || !messages.empty(); });
        if (!connected)
            return;
        const auto message = std::move(messages.front());
        messages.pop_front();
        Watch([&] {
            if (const auto receiver = handler.lock())
                message(*receiver);
        });
        sim.Step("a message has been delivered");
    }
}

} // namespace OrvLab

std::shared_ptr<OrvStackSdk::IOrvStackClient> OrvStackSdk::CreateClient() {
    return OrvLab::StackLibrary::Create();
}
