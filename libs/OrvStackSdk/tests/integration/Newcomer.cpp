// SPDX-License-Identifier: Apache-2.0
// An application as a newcomer writes it: C++14, one header, one library. It runs until it is told to reload.
#include "OrvStackSdk/OrvStackSdk.h"

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>

class Application : public OrvStackSdk::IOrvStackClientHandler {
public:
    void OnInitConfirmation(const OrvStackSdk::Confirmation& confirmation) override {
        std::cout << "init: " << confirmation << std::endl;
    }
    void OnAppActionIndication(const OrvStackSdk::AppAction& action) override {
        std::cout << "action: " << action << std::endl;
        const std::lock_guard<std::mutex> lock(mutex);
        done = action == OrvStackSdk::AppAction::RELOAD;
        changed.notify_one();
    }
    void OnAppStatusIndication(const std::string&, const OrvStackSdk::AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {}
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}

    bool DoneWithin(std::chrono::milliseconds time) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, time, [this] { return done; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
};

int main(int argc, char** argv) try {
    const auto application = std::make_shared<Application>();
    const auto client = OrvStackSdk::CreateClient();
    client->SetHandler(application);
    client->Init(argc > 1 ? argv[1] : "newcomer");
    client->Start();
    client->AppStatusRequest(OrvStackSdk::AppStatus::READY);
    const std::chrono::milliseconds interval(50);
    for (int ticks = 0; ticks < 600; ++ticks) {
        client->Tick(interval);
        if (application->DoneWithin(interval)) {
            client->AppStatusRequest(OrvStackSdk::AppStatus::NOERROR);
            client->DeInit();
            return 0;
        }
    }
    return 1;
} catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
    return 2;
}
