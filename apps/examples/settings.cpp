// SPDX-License-Identifier: Apache-2.0
// settings FILE: a feature "thermostat" with settings of its own. It reads FILE at the start and on RELOAD, is READY
// with good settings and in ERROR with bad ones, and obeys ENABLED and DISABLED. FILE holds a line "wanted = DEGREES".
#include <OrvStackSdk/OrvStackSdk.h>

#include <atomic>
#include <csignal>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include <poll.h>

using namespace OrvStackSdk;

namespace {

std::atomic<bool> ended{false}; // a signal is handled on any thread

class Thermostat : public IOrvStackClientHandler {
public:
    explicit Thermostat(std::string settingsFile) : file(std::move(settingsFile)) {}

    bool Connected() const { return connected; }

    /// One round of the application's loop, on its own thread.
    void Step(IOrvStackClient& client) {
        client.Tick(std::chrono::milliseconds(200));
        if (reloadWanted.exchange(false))
            Load(client);
        const std::string state = !enabled ? "is off"
                                  : known  ? "keeps " + std::to_string(wanted) + " degrees"
                                           : "waits";
        if (std::exchange(shown, state) != state)
            std::cout << state << std::endl;
    }

private:
    /// BOOTING while it reads, so that a further RELOAD meanwhile is refused by the library. The old settings stay in
    /// force until the new ones are known to be good.
    void Load(IOrvStackClient& client) {
        client.AppStatusRequest(AppStatus::BOOTING);
        std::ifstream settings(file);
        std::string name;
        std::string sign;
        int degrees = 0;
        const bool good = settings >> name >> sign >> degrees && name == "wanted" && sign == "=";
        if (good) {
            known = true;
            wanted = degrees;
        }
        client.AppStatusRequest(good ? AppStatus::READY : AppStatus::ERROR);
    }

    void OnInitConfirmation(const Confirmation& answer) override { connected = answer == Confirmation::ACK; }
    // On the broker connection's thread: note it, and act on it in the loop.
    void OnAppActionIndication(const AppAction& action) override {
        if (action == AppAction::RELOAD)
            reloadWanted = true;
        else if (action == AppAction::ENABLED || action == AppAction::DISABLED)
            enabled = action == AppAction::ENABLED;
    }
    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {}
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}

    const std::string file;
    std::atomic<bool> connected{false};
    std::atomic<bool> reloadWanted{true}; // the first time, too
    std::atomic<bool> enabled{true};
    // The loop's own
    bool known = false;
    int wanted = 0;
    std::string shown;
};

} // namespace

int main(int count, char** words) try {
    if (count != 2 || words[1][0] == '-') {
        std::cerr << "usage: settings FILE" << std::endl;
        return 2;
    }
    std::signal(SIGTERM, [](int) { ended = true; });
    std::signal(SIGINT, [](int) { ended = true; });
    const auto thermostat = std::make_shared<Thermostat>(words[1]);
    const auto client = CreateClient(); // throws without a broker; whoever starts us tries again
    client->SetHandler(thermostat);
    client->Init("thermostat");
    if (!thermostat->Connected())
        return 1;
    client->Start();
    while (!ended) {
        thermostat->Step(*client);
        poll(nullptr, 0, 200);
    }
    client->DeInit();
    return 0;
} catch (const std::exception& problem) {
    std::cerr << "settings: " << problem.what() << std::endl;
    return 1;
}
