// SPDX-License-Identifier: Apache-2.0
// An application in C++, from its beginning to its end.
#include "torture/OpenDescriptors.h"
#include "torture/Programs.h"

#include "OrvStackSdk/OrvStackSdk.h"

#include <atomic>
#include <thread>

namespace OrvLab {

namespace {

using OrvStackSdk::AppAction;
using OrvStackSdk::AppStatus;
using OrvStackSdk::OrvEvent;
using namespace std::chrono_literals;

constexpr const char* STATUS = "/orv/apps_control/features/alarm/init";
constexpr const char* GUID = "/orv/panel/guid";
constexpr const char* DNS = "/orv/network/wan/inhibit_dns";
constexpr const char* CLOUD = "/orv/apps_control/features/Ent/status/EntCon";

/// Counts what it is told, and never takes memory.
class Handler final : public OrvStackSdk::IOrvStackClientHandler {
public:
    std::atomic<bool> connected{false};
    std::atomic<int> panels{0};

private:
    std::atomic<bool> isConfirming{false};

    void OnInitConfirmation(const OrvStackSdk::Confirmation& answer) override {
        isConfirming = !connected;        // Init again: what the first one has subscribed to may arrive meanwhile
        std::this_thread::sleep_for(2ms); // an application may take its time
        isConfirming = false;
        connected = answer == OrvStackSdk::Confirmation::ACK;
    }
    void OnAppActionIndication(const AppAction&) override {}
    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {
        ++panels;
        if (isConfirming)
            Fail("an indication overtakes the confirmation");
    }
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}
};

class Application : public Program {
public:
    explicit Application(Gateway& theGateway) : gateway(theGateway), broker(theGateway.broker) {}
    void DemandAll() override;

protected:
    void Create();
    void Init();
    void LearnOfTheWan();
    void Work();
    void LoseTheBroker();
    void LoseTheCloud();
    void DemandInit();
    void Event(OrvEvent event);
    void Ticks(int count);
    bool TickUntil(const std::function<bool()>& condition);
    virtual void DemandSupervision();

    Gateway& gateway;
    SmallBroker& broker;
    const std::shared_ptr<Handler> handler = std::make_shared<Handler>();
    std::shared_ptr<OrvStackSdk::IOrvStackClient> client;

private:
    void DemandWords();

    bool supervisionFailed = false;
};

void Application::Create() {
    Try("CreateClient", [this] {
        client = OrvStackSdk::CreateClient();
        client->SetHandler(handler);
    });
}

void Application::Init() {
    if (!client)
        return;
    Try("Init", [this] { client->Init("alarm"); });
    Try("Start", [this] { client->Start(); });
}

void Application::Event(OrvEvent event) {
    Try("EventUpdateRequest", [&] { client->EventUpdateRequest(event); });
}

void Application::LearnOfTheWan() {
    for (const OrvEvent event : {OrvEvent::PANEL_CLOUD_ENABLED, OrvEvent::ETHERNET_CONNECTED,
                                 OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CLOUD_CONNECTED})
        Event(event);
}

void Application::Work() {
    if (!client)
        return;
    Try("AppStatusRequest", [this] { client->AppStatusRequest(AppStatus::READY); });
    Try("AppActionRequest", [this] { client->AppActionRequest("another", AppAction::ENABLED); });
    Try("PanelCommandRequest", [this] { client->PanelCommandRequest("any", 1); });
    Try("SendConnectionStatus", [this] { client->SendConnectionStatus("online"); });
    Try("RequestShutdown", [this] { client->RequestShutdown(); });
    Try("CloudReconnectNeeded", [this] { client->CloudReconnectNeeded(); });
    LearnOfTheWan();
    const int before = handler->panels;
    broker.Send(STATUS, "enabled");
    broker.Send(GUID, "0123456789abcdef0123456789abcdef");
    Within(1500ms, [&] { return handler->panels != before; });
}

void Application::Ticks(int count) {
    for (; count > 0; --count) {
        bool failed = true;
        Try("Tick", [&] {
            client->Tick(10ms);
            failed = false;
        });
        supervisionFailed = supervisionFailed || failed;
        std::this_thread::sleep_for(4ms);
    }
}

bool Application::TickUntil(const std::function<bool()>& condition) {
    for (int count = 0; count < 100; ++count) {
        if (condition())
            return true;
        Ticks(1);
    }
    return false;
}

void Application::LoseTheCloud() {
    for (const OrvEvent event : {OrvEvent::CLOUD_CONNECTED, OrvEvent::CELLULAR_CONNECTED, OrvEvent::CELLULAR_IP_GAINED})
        Event(event);
    Ticks(1);
    Event(OrvEvent::CLOUD_DISCONNECTED);
    Ticks(1);
    SkipTime(11s);
}

void Application::LoseTheBroker() {
    if (!client)
        return;
    broker.DropAll();
    std::this_thread::sleep_for(20ms);
    Try("AppStatusRequest", [this] { client->AppStatusRequest(AppStatus::READY); });
    SkipTime(1s);
    std::this_thread::sleep_for(100ms);
    Event(OrvEvent::CLOUD_CONNECTED);
}

void Application::DemandInit() {
    Demand("a client is made", [this] {
        if (!client)
            Create();
        return client != nullptr;
    });
    client->SetHandler(handler);
    broker.Retain(GUID, "0123456789abcdef0123456789abcdef");
    Demand("Init is confirmed", [this] {
        client->Init("alarm");
        return handler->connected.load();
    });
    client->Start();
}

void Application::DemandWords() {
    Demand("a status reaches the broker", [this] {
        client->AppStatusRequest(AppStatus::READY);
        return broker.Latest(STATUS) == "ready";
    });
    Demand("a message reaches the application", [this] {
        const int before = handler->panels;
        broker.Send(GUID, "0123456789abcdef0123456789abcdef");
        return Within(100ms, [&] { return handler->panels != before; });
    });
    Demand("what is kept is told again after a loss", [this] {
        client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
        broker.DropAll();
        broker.Send(CLOUD, "false");
        SkipTime(5s);
        return Within(3000ms, [&] { return broker.Latest(CLOUD) == "true"; });
    });
    Demand("no program that is started inherits the connection to the broker",
           [this] { return !OpenDescriptors::IsConnectionInherited(broker.Port()); });
}

void Application::DemandSupervision() {
    for (const OrvEvent event : {OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CLOUD_CONNECTED})
        client->EventUpdateRequest(event);
    for (int state = 0; state < 5; ++state) {
        SkipTime(30s);
        Ticks(2);
    }
    Demand("a lost cloud is searched over Cellular", [this] {
        broker.Send(DNS, "");
        client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED);
        Ticks(1);
        SkipTime(11s);
        Ticks(1);
        return Within(1000ms, [this] { return broker.Latest(DNS) == "inhibit"; });
    });
}

void Application::DemandAll() {
    DemandInit();
    DemandWords();
    // A tick that throws may leave the supervision waiting for a poke that it could not announce, and that nobody ends.
    if (!supervisionFailed)
        DemandSupervision();
    client->DeInit();
    client.reset();
}

class Beginning final : public Application {
public:
    using Application::Application;

private:
    void Before() override {
        HaveSettings();
        gateway.HaveForeignStatusFile();
    }
    void Tortured() override {
        Create();
        if (client)
            LearnOfTheWan();
        Init();
    }
};

class Connected : public Application {
public:
    using Application::Application;

private:
    void Before() override { DemandInit(); }
};

class Working final : public Connected {
public:
    using Connected::Connected;

private:
    void Tortured() override {
        gateway.HaveForeignStatusFile();
        Work();
        LoseTheBroker();
    }
};

/// The cloud is lost on Ethernet, and searched over Cellular, where nobody answers.
class Looking final : public Connected {
public:
    using Connected::Connected;

private:
    void Tortured() override {
        LoseTheCloud();
        Ticks(30);
        Event(OrvEvent::CLOUD_CONNECTED);
        SkipTime(4s);
        Ticks(2);
    }
};

/// The cloud is lost on Ethernet and answers over Cellular, and the connection manager obeys.
class FailingOver final : public Connected {
public:
    using Connected::Connected;

private:
    void Tortured() override {
        LoseTheCloud();
        TickUntil([this] { return gateway.bus->Top() == "lo"; });
        Ticks(3);
        Try("CloudReconnectNeeded", [this] { client->CloudReconnectNeeded(); });
        Event(OrvEvent::CLOUD_CONNECTED);
        Ticks(3);
        // Over Ethernet nobody can be reached.
        Event(OrvEvent::ETHERNET_IP_GAINED);
        Ticks(3);
    }

    /// Once more from the beginning: from Cellular nothing leads back.
    void DemandSupervision() override {
        client.reset();
        DemandInit();
        Demand("the way leads over Cellular", [this] {
            LoseTheCloud();
            return TickUntil([this] { return gateway.bus->Top() == "lo" && client->CloudReconnectNeeded(); });
        });
    }
};

class Leaving final : public Application {
public:
    using Application::Application;

private:
    void Before() override {
        DemandInit();
        Work();
    }
    void Tortured() override {
        if (client)
            Try("DeInit", [this] { client->DeInit(); });
        client.reset();
    }
};

} // namespace

std::unique_ptr<Program> BeginAndInit(Gateway& gateway) {
    return std::make_unique<Beginning>(gateway);
}

std::unique_ptr<Program> WorkAndLoseTheBroker(Gateway& gateway) {
    return std::make_unique<Working>(gateway);
}

std::unique_ptr<Program> LookForTheCloud(Gateway& gateway) {
    return std::make_unique<Looking>(gateway);
}

std::unique_ptr<Program> FailOver(Gateway& gateway) {
    return std::make_unique<FailingOver>(gateway);
}

std::unique_ptr<Program> Leave(Gateway& gateway) {
    return std::make_unique<Leaving>(gateway);
}

} // namespace OrvLab
