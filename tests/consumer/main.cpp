// SPDX-License-Identifier: Apache-2.0
#include <OrvStackSdk/OrvStackSdk.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

using namespace OrvStackSdk;

namespace {

std::atomic<bool> ended{false}; // a signal is handled on any thread

class Meter : public IOrvStackClientHandler {
public:
    void OnInitConfirmation(const Confirmation& confirmation) override {
        connected = confirmation == Confirmation::ACK;
    }
    // All that follows comes on the delivery thread: note it and act on it in the loop.
    void OnAppActionIndication(const AppAction& action) override {
        if (action == AppAction::RELOAD)
            reloadWanted = true;
    }
    void OnDeviceOnlineStatusIndication(bool online) override { std::cout << "panel " << online << std::endl; }
    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {}
    void OnDeviceCellularStatusIndication(const CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}

    std::atomic<bool> connected{false};
    std::atomic<bool> reloadWanted{false};
};

void Run() {
    const std::shared_ptr<IOrvStackClient> client = CreateClient();
    const auto meter = std::make_shared<Meter>();
    client->SetHandler(meter);

    client->Init("meter");
    if (!meter->connected)
        throw std::runtime_error("the broker did not accept the connection");
    client->Start();
    client->AppStatusRequest(AppStatus::READY);

    const std::chrono::milliseconds interval(200);
    while (!ended) {
        client->Tick(interval);
        if (client->CloudReconnectNeeded())
            std::cout << "the route has changed: connect to the cloud anew" << std::endl;
        if (meter->reloadWanted.exchange(false)) {
            client->AppStatusRequest(AppStatus::BOOTING);
            std::cout << "reloading" << std::endl;
            client->AppStatusRequest(AppStatus::READY);
        }
        std::this_thread::sleep_for(interval);
    }
    client->DeInit();
}

} // namespace

int main() {
    std::signal(SIGTERM, [](int) { ended = true; });
    std::signal(SIGINT, [](int) { ended = true; });
    try {
        Run();
    } catch (const std::exception& problem) {
        std::cerr << "meter: " << problem.what() << std::endl;
        return 1;
    }
    return 0;
}
