// SPDX-License-Identifier: Apache-2.0
#include <OrvStackSdk/OrvStackSdk.h>

#include <iostream>

#include <poll.h>

class Printer : public OrvStackSdk::IOrvStackClientHandler {
    void OnInitConfirmation(const OrvStackSdk::Confirmation& answer) override { std::cout << answer << std::endl; }
    void OnAppActionIndication(const OrvStackSdk::AppAction& action) override { std::cout << action << std::endl; }
    void OnAppStatusIndication(const std::string&, const OrvStackSdk::AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string& guid) override { std::cout << "panel " << guid << std::endl; }
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}
};

int main() try {
    const auto printer = std::make_shared<Printer>();
    const auto client = OrvStackSdk::CreateClient();
    client->SetHandler(printer);
    client->Init("alarm");
    client->Start();
    client->AppStatusRequest(OrvStackSdk::AppStatus::READY);
    for (int ticks = 0; ticks < 100; ++ticks) {
        client->Tick(std::chrono::milliseconds(100));
        poll(nullptr, 0, 100); // a real application waits here for its own events
    }
    client->DeInit();
} catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
    return 1;
}
