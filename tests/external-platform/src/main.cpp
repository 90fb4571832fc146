// SPDX-License-Identifier: Apache-2.0
// An application on that gateway: it lives through one life cycle, and a tick sees the cloud missing.
#include <OrvStackSdk/OrvStackSdk.h>

#include <chrono>
#include <cstdio>

namespace {

class Application : public OrvStackSdk::IOrvStackClientHandler {
public:
    void OnInitConfirmation(const OrvStackSdk::Confirmation& confirmation) override {
        std::printf("told %s\n", OrvStackSdk::ConfirmationText(confirmation).c_str());
    }
    void OnAppActionIndication(const OrvStackSdk::AppAction& action) override {
        std::printf("told %s\n", OrvStackSdk::AppActionText(action).c_str());
    }
    void OnAppStatusIndication(const std::string&, const OrvStackSdk::AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {}
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}
};

} // namespace

int main() {
    const auto client = OrvStackSdk::CreateClient();
    const auto application = std::make_shared<Application>();
    client->SetHandler(application);
    client->Init("meter");
    client->Start();
    client->AppStatusRequest(OrvStackSdk::AppStatus::READY);
    client->AppActionRequest("meter", OrvStackSdk::AppAction::RELOAD);
    client->EventUpdateRequest(OrvStackSdk::OrvEvent::ETHERNET_CONNECTED);
    client->Tick(std::chrono::milliseconds(100));
    client->DeInit();
    return 0;
}
