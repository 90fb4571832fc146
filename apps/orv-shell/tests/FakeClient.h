// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <OrvStackSdk/IOrvStackClient.h>
#include <OrvStackSdk/IOrvStackClientHandler.h>

#include <functional>
#include <string>
#include <vector>

/// What happens to fake clients, seen from outside. Outlives them.
struct FakeWorld {
    std::vector<std::string> calls;
    int ticks = 0;
    bool brokerReachable = true;
    std::function<void()> onTick = [] {};
    int reconnectAfterTicks = -1; // CloudReconnectNeeded is true once, when so many ticks have been
};

/// Notes the calls, answers Init as the broker would, and echoes the application's own actions.
class FakeClient : public OrvStackSdk::IOrvStackClient {
public:
    explicit FakeClient(FakeWorld& outside) : world(outside) {}
    ~FakeClient() override { world.calls.emplace_back("~"); }

    void SetHandler(std::weak_ptr<OrvStackSdk::IOrvStackClientHandler> receiver) override {
        handler = std::move(receiver);
        Note(handler.expired() ? "SetHandler none" : "SetHandler");
    }
    void Init(const std::string& appName) override {
        using OrvStackSdk::Confirmation;
        Note("Init " + appName);
        app = appName;
        if (const auto receiver = handler.lock())
            receiver->OnInitConfirmation(world.brokerReachable ? Confirmation::ACK : Confirmation::NACK);
    }
    void DeInit() override { Note("DeInit"); }
    void Start() override { Note("Start"); }
    void Stop() override { Note("Stop"); }
    void Tick(std::chrono::milliseconds) override {
        ++world.ticks;
        world.onTick();
    }
    void AppStatusRequest(const OrvStackSdk::AppStatus& status) override {
        Note("AppStatusRequest " + AppStatusText(status));
    }
    void AppActionRequest(const std::string& name, const OrvStackSdk::AppAction& action) override {
        Note("AppActionRequest " + name + " " + AppActionText(action));
        const auto receiver = handler.lock();
        if (receiver && name == app)
            receiver->OnAppActionIndication(action);
    }
    void EventUpdateRequest(const OrvStackSdk::OrvEvent& event) override {
        Note("EventUpdateRequest " + OrvEventText(event));
    }
    bool CloudReconnectNeeded() override {
        const bool needed = world.reconnectAfterTicks >= 0 && world.ticks >= world.reconnectAfterTicks;
        if (needed)
            world.reconnectAfterTicks = -1;
        return needed;
    }
    void RequestShutdown() override { Note("RequestShutdown"); }
    void PanelCommandRequest(const std::string& command, int value) override {
        Note("PanelCommandRequest " + command + " " + std::to_string(value));
    }
    void SendConnectionStatus(const std::string& status) override { Note("SendConnectionStatus " + status); }

private:
    void Note(const std::string& call) { world.calls.push_back(call); }

    FakeWorld& world;
    std::string app;
    std::weak_ptr<OrvStackSdk::IOrvStackClientHandler> handler;
};
