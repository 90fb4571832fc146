// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <OrvStackSdk/OrvStackSdk.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

/// A meter that sends its readings to the cloud.
class Meter : public OrvStackSdk::IOrvStackClientHandler, public std::enable_shared_from_this<Meter> {
public:
    using Action = OrvStackSdk::AppAction;
    using Event = OrvStackSdk::OrvEvent;
    using Status = OrvStackSdk::AppStatus;

    void Begin() {
        client = OrvStackSdk::CreateClient();
        client->SetHandler(shared_from_this());
        client->Init("meter");
        client->Start();
    }
    /// One round of the loop. @return how long to wait for the next
    std::chrono::milliseconds Step() {
        client->Tick(INTERVAL);
        if (client->CloudReconnectNeeded())
            connect();
        if (reloadWanted.exchange(false))
            client->AppStatusRequest(Status::BOOTING);
        else if (settingsRead.exchange(false))
            client->AppStatusRequest(Status::READY);
        return INTERVAL;
    }
    void Report(Event event) { client->EventUpdateRequest(event); }
    void SettingsRead() { settingsRead = true; }
    void ShutDown() { client->RequestShutdown(); }
    bool IsReady(const std::string& app) {
        const std::lock_guard<std::mutex> lock(mutex);
        return ready.count(app) != 0;
    }
    int Strength() const { return strength; }

    std::function<void()> connect = [] {}; ///< to the cloud, anew

private:
    void OnInitConfirmation(const OrvStackSdk::Confirmation&) override {}
    void OnAppActionIndication(const Action& action) override { reloadWanted = action == Action::RELOAD; }
    void OnAppStatusIndication(const std::string&, const Status&) override {}
    void OnDeviceProbeIndication(const std::string&) override {}
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus& item, const std::string& value) override {
        if (item == OrvStackSdk::CellularStatus::STRENGTH)
            strength = std::atoi(value.c_str());
    }
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool isReady) override {
        const std::lock_guard<std::mutex> lock(mutex);
        isReady ? (void)ready.insert(app) : (void)ready.erase(app);
    }

    const std::chrono::milliseconds INTERVAL{200};
    std::shared_ptr<OrvStackSdk::IOrvStackClient> client;
    std::atomic<bool> reloadWanted{false}, settingsRead{false};
    std::atomic<int> strength{0};
    std::mutex mutex; // guards `ready`, which callbacks write
    std::set<std::string> ready;
};
