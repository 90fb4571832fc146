// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/OrvStackSdk.h"
#include "OrvStackSdk/Testing.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace OrvStackSdk::Testing {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

const std::string FEATURES = "/orv/apps_control/features/";

/// An application that notes what it is told.
class Listener : public IOrvStackClientHandler {
public:
    void OnInitConfirmation(const Confirmation& answer) override { Record("init " + ConfirmationText(answer)); }
    void OnAppActionIndication(const AppAction& action) override { Record(AppActionText(action)); }
    void OnAppStatusIndication(const std::string& app, const AppStatus& status) override {
        Record(app + " is " + AppStatusText(status));
    }
    void OnDeviceProbeIndication(const std::string& guid) override { Record("panel " + guid); }
    void OnDeviceOnlineStatusIndication(bool online) override { Record(online ? "panel up" : "panel down"); }
    void OnDeviceCellularStatusIndication(const CellularStatus& item, const std::string& value) override {
        Record(CellularStatusText(item) + " " + value);
    }
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override {
        Record(app + (ready ? " ready" : " not ready"));
    }

    Lines heard;
    std::function<void()> then;

private:
    void Record(const std::string& line) {
        heard.push_back(line);
        if (then)
            then();
    }
};

/// An application "alarm" on a gateway, announced and READY, which the kit ticks every 100 ms.
class AnApplicationOnTheKit : public ::testing::Test {
protected:
    void Begin() {
        client = CreateClient();
        client->SetHandler(listener);
        client->Init("alarm");
        client->Start();
        client->AppStatusRequest(AppStatus::READY);
        gateway.Every(100ms, [this] {
            client->Tick(100ms);
            if (client->CloudReconnectNeeded())
                gateway.journal.Note("application reconnects");
        });
        gateway.Settle();
        listener->heard.clear();
        gateway.journal.Clear();
        gateway.broker.Clear();
    }

    void Report(const std::vector<OrvEvent>& events) {
        for (const OrvEvent event : events)
            client->EventUpdateRequest(event);
    }

    void BeginWithBothPaths() {
        Begin();
        Report({OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_CONNECTED,
                OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CLOUD_CONNECTED});
        gateway.Advance(1s);
        gateway.journal.Clear();
        gateway.broker.Clear();
    }

    Gateway gateway;
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    std::shared_ptr<IOrvStackClient> client;
};

} // namespace OrvStackSdk::Testing
