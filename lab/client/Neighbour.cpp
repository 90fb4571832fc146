// SPDX-License-Identifier: Apache-2.0
#include "client/Neighbour.h"

#include "OrvStackSdk/OrvStackSdk.h"
#include "client/Edge.h"
#include "client/SimulatedTransfers.h"
#include "client/Words.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace OrvLab {

namespace {

constexpr Time INIT_LIMIT = 3100 * MILLISECOND;
constexpr Time DEINIT_LIMIT = 1050 * MILLISECOND;
constexpr Time RELEASE_LIMIT = 1250 * MILLISECOND;
constexpr Time SETTLED = 2 * SECOND;

} // namespace

const char* const Neighbour::SUFFIX = "-neighbour";

class Neighbour::Handler final : public OrvStackSdk::IOrvStackClientHandler {
public:
    explicit Handler(Neighbour& its) : neighbour(its) {}

    void OnInitConfirmation(const OrvStackSdk::Confirmation& /*confirmation*/) override { neighbour.Called(true); }
    void OnAppActionIndication(const OrvStackSdk::AppAction& /*action*/) override { neighbour.Called(false); }
    void OnAppStatusIndication(const std::string& /*app*/, const OrvStackSdk::AppStatus& /*status*/) override {
        neighbour.Called(false);
    }
    void OnDeviceProbeIndication(const std::string& /*guid*/) override {
        ++neighbour.probes;
        neighbour.Called(false);
    }
    void OnDeviceOnlineStatusIndication(bool /*online*/) override { neighbour.Called(false); }
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus& /*status*/,
                                          const std::string& /*value*/) override {
        neighbour.Called(false);
    }
    void OnFeatureShutdownReadinessIndication(const std::string& /*app*/, bool /*ready*/) override {
        neighbour.Called(false);
    }

private:
    Neighbour& neighbour;
};

template <typename Body>
void Neighbour::Do(const char* name, Time limit, Body body) {
    Client held = client;
    const auto call = witness.Begin(Call::Kind::OTHER, name, limit);
    Watch([&] { body(*held); });
    witness.End(call);
    if (held.use_count() == 1) // somebody has let go meanwhile
        return Release(held);
    Watch([&] { held.reset(); });
}

void Neighbour::Called(bool isConfirmation) {
    const Unwatched unwatched;
    if (sim.Self().locks != 0)
        sim.Fail("a lock is held in a callback of the neighbour");
    ++callbacks;
    sim.Step("callback of the neighbour");
    if (!isVisiting && !isConfirmation && random.OneIn(4))
        Act(true);
    --callbacks;
}

bool Neighbour::Make() {
    const auto call = witness.Begin(Call::Kind::OTHER, "CreateClient of the neighbour", INIT_LIMIT);
    try {
        client = Watch([] { return OrvStackSdk::CreateClient(); });
    } catch (const std::runtime_error&) { // no broker
    }
    witness.End(call);
    if (!client)
        return false;
    Watch([&] { handler.reset(); });
    handler = std::make_shared<Handler>(*this);
    Do("SetHandler of the neighbour", 0, [&](auto& one) { one.SetHandler(handler); });
    return true;
}

void Neighbour::LetGo() {
    Client last;
    last.swap(client);
    Release(last);
}

void Neighbour::Release(Client& last) {
    const auto call = witness.Begin(Call::Kind::OTHER, "the release of the neighbour", RELEASE_LIMIT);
    Watch([&] { last.reset(); });
    witness.End(call);
}

void Neighbour::Act(bool inCallback) {
    using namespace OrvStackSdk;
    if (!client)
        return;
    switch (random.Weighted({2, 1, 1, 6, 6, 2, 2, 1})) {
    case 0:
        if (!inCallback)
            InitAnew();
        return;
    case 1:
        return Do("DeInit of the neighbour", DEINIT_LIMIT, [](auto& one) { one.DeInit(); });
    case 2:
        if (!inInit)
            LetGo();
        return;
    case 3: {
        // Often the cloud's, of which all routes of a process report together.
        const auto event = static_cast<OrvEvent>(random.Below(random.OneIn(2) ? 2 : 13));
        return Do("EventUpdateRequest of the neighbour", 0, [&](auto& one) { one.EventUpdateRequest(event); });
    }
    case 4:
        return Do("Tick of the neighbour", 0, [](auto& one) {
            one.Tick(std::chrono::milliseconds(100));
            one.CloudReconnectNeeded();
        });
    case 5: {
        const auto status = static_cast<AppStatus>(random.Below(7));
        return Do("AppStatusRequest of the neighbour", 0, [&](auto& one) { one.AppStatusRequest(status); });
    }
    case 6:
        return Do("Start of the neighbour", 0, [](auto& one) { one.Start(); });
    default:
        return Do("RequestShutdown of the neighbour", 0, [](auto& one) {
            one.RequestShutdown();
            one.SendConnectionStatus("of the neighbour");
        });
    }
}

/// Not while messages may arrive, whose delivery reads the name.
void Neighbour::InitAnew() {
    inInit = true;
    Do("DeInit of the neighbour", DEINIT_LIMIT, [](auto& one) { one.DeInit(); });
    while (callbacks != 0 || Edge::IsAThreadHeldUp())
        sim.Sleep(10 * MILLISECOND);
    Edge::ComesBehindTheThreads();
    Do("Init of the neighbour", INIT_LIMIT, [](auto& one) { one.Init("neighbour"); });
    inInit = false;
}

void Neighbour::Live(const std::function<bool()>& goesOn) {
    sim.Self().side = this;
    for (int acts = random.Between(5, 40); acts > 0 && goesOn(); --acts) {
        sim.Sleep(static_cast<Time>(random.Below(random.OneIn(4) ? 4000 : 300)) * MILLISECOND);
        if (client)
            Act(false);
        else if (Make())
            Do("Init of the neighbour", INIT_LIMIT, [](auto& one) { one.Init("neighbour"); });
    }
    if (client)
        LetGo();
    sim.Self().side = nullptr;
}

void Neighbour::Visit(const std::function<void()>& publish) {
    const void* const before = std::exchange(sim.Self().side, this);
    isVisiting = true;
    if (!Make())
        sim.Fail("no neighbour though all is well");
    Do("Init of the neighbour", INIT_LIMIT, [](auto& one) { one.Init("neighbour"); });
    sim.Sleep(SETTLED);
    probes = 0;
    publish();
    sim.Sleep(SETTLED);
    if (probes != 1)
        sim.Fail("the neighbour is told " + std::to_string(probes) + " times of one message");
    if (random.OneIn(2))
        Do("DeInit of the neighbour", DEINIT_LIMIT, [](auto& one) { one.DeInit(); });
    LetGo();
    sim.Sleep(SETTLED);
    publish();
    sim.Sleep(SETTLED);
    if (probes != 1)
        sim.Fail("the neighbour is told of a message after its end");
    sim.Self().side = before;
}

} // namespace OrvLab
