// SPDX-License-Identifier: Apache-2.0
// Two clients in one process, whose lives and orders are repeated.
#include "torture/Programs.h"

#include "CommonUtils/Networking/ConnmanCommands.h"
#include "OrvPlatform/Settings.h"
#include "OrvStackSdk/OrvStackSdk.h"

#include <array>
#include <atomic>

namespace OrvLab {

namespace {

using namespace std::chrono_literals;
using CommonUtils::Networking::ConnmanCommands;
using OrvStackSdk::AppAction;
using OrvStackSdk::AppStatus;

constexpr const char* GUID = "/orv/panel/guid";
constexpr std::array<const char*, 2> NAMES{"alarm", "another"};

class Counting final : public OrvStackSdk::IOrvStackClientHandler {
public:
    std::atomic<bool> accepted{false};
    std::atomic<int> panels{0};

private:
    void OnInitConfirmation(const OrvStackSdk::Confirmation& answer) override {
        accepted = answer == OrvStackSdk::Confirmation::ACK;
    }
    void OnAppActionIndication(const AppAction&) override {}
    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override { ++panels; }
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}
};

class LivingAgain final : public Program {
public:
    explicit LivingAgain(Gateway& theGateway) : gateway(theGateway) {}

private:
    struct One {
        std::shared_ptr<Counting> handler = std::make_shared<Counting>();
        std::shared_ptr<OrvStackSdk::IOrvStackClient> client;
    };

    static ConnmanCommands& Connman() { return ConnmanCommands::GetInstance(); }

    void Before() override {
        HaveSettings();
        Live(true);
    }

    static void Begin(One& one, const char* name) {
        if (!one.client)
            return;
        Try("Init", [&] { one.client->Init(name); });
        Try("Start", [&] { one.client->Start(); });
        Try("AppStatusRequest", [&] { one.client->AppStatusRequest(AppStatus::READY); });
        for (const auto event : {OrvStackSdk::OrvEvent::CLOUD_CONNECTED, OrvStackSdk::OrvEvent::CLOUD_DISCONNECTED})
            Try("EventUpdateRequest", [&] { one.client->EventUpdateRequest(event); });
    }

    /// @param isSound nothing fails: both of them hear and are heard, each time
    void Live(bool isSound) {
        std::array<One, 2> both;
        for (One& one : both)
            Try("CreateClient", [&] {
                one.client = OrvStackSdk::CreateClient();
                one.client->SetHandler(one.handler);
            });
        for (int count = 0; count < 2; ++count) {
            for (std::size_t index = 0; index < both.size(); ++index)
                Begin(both[index], NAMES[index]);
            const std::array<int, 2> before{both[0].handler->panels, both[1].handler->panels};
            // What comes before the broker knows of both subscriptions is lost.
            const bool isHeard = Within(isSound ? 10s : 500ms, [&] {
                gateway.broker.Send(GUID, "0123456789abcdef0123456789abcdef");
                return Within(
                    20ms, [&] { return both[0].handler->panels != before[0] && both[1].handler->panels != before[1]; });
            });
            if (isSound && !isHeard)
                Fail("afterwards, in vain: both clients hear the panel", IN_VAIN);
            for (One& one : both)
                if (one.client)
                    Try("DeInit", [&] { one.client->DeInit(); });
        }
        both[1].client.reset();
        Order("lo");
        gateway.bus->DropAll();
        SkipTime(1s);
        Order("eth9");
        if (isSound && !Within(10s, [this] { return gateway.bus->Top() == "eth9"; }))
            Fail("afterwards, in vain: the latest order comes true", IN_VAIN);
        for (const char* level : {"debug", "trace"}) {
            gateway.SetLogLevel(level);
            Try("ReloadLogLevels", [] { OrvPlatform::ReloadLogLevels(); });
        }
    }

    void Order(const char* interfaceName) {
        Try("SetTopPriorityInterface", [=] { Connman().SetTopPriorityInterface(interfaceName); });
        Within(500ms, [&] { return gateway.bus->Top() == interfaceName; });
    }

    void Tortured() override { Live(false); }

    void DemandAll() override {
        SkipTime(10s);
        DemandNoGrowth([this] { Live(true); });
    }

    Gateway& gateway;
};

} // namespace

std::unique_ptr<Program> LiveAgain(Gateway& gateway) {
    return std::make_unique<LivingAgain>(gateway);
}

} // namespace OrvLab
