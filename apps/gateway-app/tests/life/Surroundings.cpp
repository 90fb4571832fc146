// SPDX-License-Identifier: Apache-2.0
#include "Surroundings.h"

#include "Clock.h"
#include "CloudConnection.h"
#include "CsvWatch.h"
#include "EventLoop.h"
#include "NetworkWatcher.h"
#include "PathProver.h"
#include "log/LogLevel.h"

#include <OrvPlatform/Counters.h>
#include <OrvPlatform/Settings.h>

#include <algorithm>
#include <arpa/inet.h>
#include <map>
#include <poll.h>
#include <unistd.h>
#include <utility>

// The platform's settings: nothing of them is read anew here.
bool OrvPlatform::ReloadLogLevels() noexcept {
    return true;
}

OrvPlatform::Counters OrvPlatform::ReadCounters() noexcept {
    return {5, 6, 7};
}

namespace GatewayApp {

using std::chrono::milliseconds;

namespace {

Surroundings* present = nullptr;

struct Running {
    std::function<void()> callback;
    OrvStackSdk::Testing::Gateway::Timer timer = 0;
};

std::map<const Timer*, Running> timers;

constexpr unsigned ETHERNET = 2;
constexpr unsigned CELLULAR = 3;
constexpr auto FOR_EVER = std::chrono::hours(24 * 365);

OrvNetlink::Address On(unsigned link, const std::string& text) {
    OrvNetlink::Address address;
    address.link = link;
    address.address = *OrvNetlink::IpAddress::Parse(text);
    address.prefixLength = 24;
    address.global = true;
    return address;
}

} // namespace

Surroundings::Surroundings(OrvStackSdk::Testing::Gateway& aGateway) : gateway(aGateway) {
    present = this;
    for (const auto& [index, name] : {std::pair{ETHERNET, "eth0"}, {CELLULAR, "wwan0"}}) {
        OrvNetlink::Link link;
        link.index = index;
        link.name = name;
        link.running = true;
        links.push_back(link);
    }
    AddressesBecome("192.0.2.2", "198.51.100.2");
}

Surroundings::~Surroundings() {
    present = nullptr;
}

Surroundings& Surroundings::Present() {
    return *present;
}

void Surroundings::AddressesBecome(const std::string& ethernet, const std::string& cellular) {
    addresses.clear();
    if (!ethernet.empty())
        addresses.push_back(On(ETHERNET, ethernet));
    if (!cellular.empty())
        addresses.push_back(On(CELLULAR, cellular));
    if (addressesChange)
        addressesChange();
}

void Surroundings::EthernetLinkBecomes(Link state) {
    links.front().name = state == Link::GONE ? "gone" : "eth0";
    links.front().running = state == Link::UP;
    if (addressesChange)
        addressesChange();
}

void Surroundings::DefaultRouteBecomes(const std::string& interface) {
    defaultRoute = interface;
    if (defaultRouteChanges)
        defaultRouteChanges(interface);
}

// The kit's time begins with zero, where the application takes a time for none.
std::chrono::steady_clock::time_point Now() {
    return std::chrono::steady_clock::time_point(std::chrono::hours(1) + Surroundings::Present().gateway.Elapsed());
}

Descriptor::~Descriptor() {
    if (number >= 0)
        close(number);
}

EventLoop::EventLoop() = default;
EventLoop::~EventLoop() = default;

void EventLoop::Watch(int descriptor, std::uint32_t, Callback callback) {
    watched[descriptor] = {++lastTicket, std::make_shared<Callback>(std::move(callback))};
}

void EventLoop::Change(int, std::uint32_t) {}

void EventLoop::Forget(int descriptor) {
    watched.erase(descriptor);
}

void EventLoop::Run() {
    const auto serve = [this] {
        // Copies: a callback may forget its own.
        const auto now = watched;
        for (const auto& [descriptor, served] : now) {
            pollfd state{descriptor, POLLIN, 0};
            if (watched.count(descriptor) != 0 && poll(&state, 1, 0) == 1)
                (*served.callback)(static_cast<std::uint32_t>(state.revents));
        }
        return quitting;
    };
    Surroundings::Present().gateway.AdvanceUntil(serve, FOR_EVER);
}

Timer::Timer(EventLoop& eventLoop, std::function<void()> callback) : loop(eventLoop) {
    timers[this].callback = std::move(callback);
}

Timer::~Timer() {
    Stop();
    timers.erase(this);
}

void Timer::Once(milliseconds delay) {
    Stop();
    timers[this].timer = Surroundings::Present().gateway.After(delay, [this] { timers[this].callback(); });
}

void Timer::Every(milliseconds period) {
    Stop();
    timers[this].timer = Surroundings::Present().gateway.After(period, [this, period] {
        Every(period);
        timers[this].callback();
    });
}

void Timer::Stop() {
    if (present)
        present->gateway.Cancel(std::exchange(timers[this].timer, 0));
}

CloudConnection::CloudConnection(EventLoop& eventLoop, CloudSettings cloudSettings, Handler cloudHandler,
                                 BackOff::Random random)
    : loop(eventLoop),
      handler(std::move(cloudHandler)),
      settings(std::move(cloudSettings)),
      dialer(eventLoop),
      race(eventLoop, {[](const CloudRace::Winner&) {}, [](const std::string&) {}}),
      backOff(milliseconds(500), milliseconds(500), std::move(random)),
      deadline(eventLoop, [this] { OnDeadline(); }),
      lifeTimer(eventLoop, [] {}) {
    auto& around = Surroundings::Present();
    around.cloudAnswers = [this](const std::string& address) {
        deadline.Stop();
        state = State::CONNECTED;
        source = address;
        handler.onConnected(address);
    };
    around.cloudBreaks = [this](const std::string& reason) {
        Dial();
        handler.onLost(reason);
    };
    around.keepAlive = handler.keepAlive;
}

CloudConnection::~CloudConnection() = default;

void CloudConnection::Reopen(const std::string& reason) {
    Surroundings::Present().gateway.journal.Note("cloud connection: " + reason);
    const bool was = Connected();
    Dial();
    if (was)
        handler.onLost(reason);
}

void CloudConnection::Reopen(const CloudSettings& cloudSettings, const std::string& reason) {
    settings = cloudSettings;
    Reopen(reason);
}

void CloudConnection::Dial() {
    state = State::DIALLING;
    begun = Now();
    source.clear();
    deadline.Once(std::chrono::seconds(5));
}

void CloudConnection::OnDeadline() {
    const std::string reason = Surroundings::Present().attemptsFail;
    Dial();
    if (!reason.empty())
        handler.onFailed(reason, milliseconds(0));
}

bool CloudConnection::BegunSince(std::chrono::steady_clock::time_point moment) const {
    return state != State::CLOSED && begun >= moment;
}

void CloudConnection::Close() {
    Surroundings::Present().gateway.journal.Note("cloud connection closed");
    state = State::CLOSED;
}

NetworkWatcher::NetworkWatcher(EventLoop& eventLoop, WanInterfaces wanInterfaces, Handler newsHandler)
    : loop(eventLoop), wan(std::move(wanInterfaces)), handler(std::move(newsHandler)) {
    auto& around = Surroundings::Present();
    wan.Replace(around.links, around.addresses);
    defaultInterface = around.defaultRoute;
    around.addressesChange = [this] {
        const auto& now = Surroundings::Present();
        handler.onEvents(wan.Replace(now.links, now.addresses));
    };
    around.defaultRouteChanges = [this](const std::string& interface) {
        defaultInterface = interface;
        handler.onDefaultRoute(interface);
    };
}

NetworkWatcher::~NetworkWatcher() = default;

std::optional<OrvNetlink::Link> NetworkWatcher::Find(const std::string&) {
    return std::nullopt;
}

void ExpectedCsv::Reported(OrvStackSdk::OrvEvent) {}

CsvWatch::CsvWatch(EventLoop& eventLoop, std::string path, std::function<void()> putRight)
    : logger("GatewayApp", OrvLog::INFO),
      loop(eventLoop),
      file(std::move(path)),
      repair(std::move(putRight)),
      timer(eventLoop, [] {}),
      writeAgain(eventLoop, [] {}) {}

void CsvWatch::Reported(OrvStackSdk::OrvEvent) {}

CsvWatch::~CsvWatch() {
    Surroundings::Present().repairCsv = nullptr;
}

void CsvWatch::SetActive(bool) {
    Surroundings::Present().repairCsv = repair;
}

struct PathProver::Attempt {};

PathProver::PathProver(EventLoop& eventLoop) : loop(eventLoop) {}
PathProver::~PathProver() = default;
void PathProver::Begin(const CloudSettings& settings, const std::string& interface, std::chrono::seconds,
                       Callback callback) {
    auto& around = Surroundings::Present();
    around.gateway.journal.Note("proof over " + interface + " to " + settings.host);
    if (around.proof)
        around.gateway.After(milliseconds(500), [callback, result = *around.proof] { callback(result); });
}
void PathProver::Stop() {}

} // namespace GatewayApp
