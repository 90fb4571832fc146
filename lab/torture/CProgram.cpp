// SPDX-License-Identifier: Apache-2.0
// The whole life of an application in C. No exception comes through its calls.
#include "torture/Programs.h"

#include "OrvStackSdk/C.h"

#include <atomic>

namespace OrvLab {

namespace {

using namespace std::chrono_literals;

constexpr const char* STATUS = "/orv/apps_control/features/alarm/init";
constexpr const char* GUID = "/orv/panel/guid";

class LivingInC final : public Program {
public:
    explicit LivingInC(Gateway& theGateway) : gateway(theGateway) {}
    ~LivingInC() override { orv_client_destroy(client); }

private:
    /// What the call answers: done, or for want of memory or of a broker not.
    static int Ask(const char* name, const std::function<int()>& call) {
        try {
            const int result = call();
            if (result != ORV_OK && result != ORV_NO_MEMORY && result != ORV_NO_BROKER)
                Fail(std::string(name) + " answers " + std::to_string(result));
            return result;
        } catch (...) {
            Fail(std::string("an exception comes through ") + name);
        }
    }

    void Make() {
        orv_callbacks callbacks{};
        callbacks.on_device_probe = [](void* user, const char*, std::size_t) {
            ++static_cast<LivingInC*>(user)->panels;
        };
        Ask("orv_client_create", [&] { return orv_client_create(&callbacks, this, &client); });
    }

    void Before() override { HaveSettings(); }

    void Tortured() override {
        Make();
        if (client == nullptr)
            return;
        Ask("orv_client_init", [this] { return orv_client_init(client, "alarm"); });
        Ask("orv_client_start", [this] { return orv_client_start(client); });
        Ask("orv_client_app_status", [this] { return orv_client_app_status(client, ORV_APP_STATUS_READY); });
        Ask("orv_client_app_action",
            [this] { return orv_client_app_action(client, "another", ORV_APP_ACTION_RELOAD); });
        Ask("orv_client_panel_command", [this] { return orv_client_panel_command(client, "any", 1); });
        Ask("orv_client_connection_status", [this] { return orv_client_connection_status(client, "online"); });
        Ask("orv_client_request_shutdown", [this] { return orv_client_request_shutdown(client); });
        for (const int event : {ORV_EVENT_CLOUD_CONNECTED, ORV_EVENT_ETHERNET_IP_GAINED, ORV_EVENT_CLOUD_DISCONNECTED})
            Ask("orv_client_event", [=] { return orv_client_event(client, event); });
        Ask("orv_client_tick", [this] { return orv_client_tick(client, 100); });
        Ask("orv_client_cloud_reconnect_needed", [this] { return orv_client_cloud_reconnect_needed(client); });
        const int before = panels;
        gateway.broker.Send(GUID, "0123456789abcdef0123456789abcdef");
        Within(1500ms, [&] { return panels != before; });
        Ask("orv_client_stop", [this] { return orv_client_stop(client); });
        Ask("orv_client_deinit", [this] { return orv_client_deinit(client); });
    }

    void DemandAll() override {
        Demand("a client in C is made", [this] {
            if (client == nullptr)
                Make();
            return client != nullptr;
        });
        const auto works = [](int result) {
            if (result != ORV_OK)
                Fail("afterwards a call in C answers " + std::to_string(result));
        };
        Demand("Init in C is confirmed", [this] { return orv_client_init(client, "alarm") == ORV_OK; });
        works(orv_client_start(client));
        Demand("a status from C reaches the broker", [&] {
            works(orv_client_app_status(client, ORV_APP_STATUS_READY));
            return gateway.broker.Latest(STATUS) == "ready";
        });
        Demand("a message reaches the application in C", [this] {
            const int before = panels;
            gateway.broker.Send(GUID, "0123456789abcdef0123456789abcdef");
            return Within(100ms, [&] { return panels != before; });
        });
        works(orv_client_deinit(client));
    }

    Gateway& gateway;
    orv_client* client = nullptr;
    std::atomic<int> panels{0};
};

} // namespace

std::unique_ptr<Program> LiveInC(Gateway& gateway) {
    return std::make_unique<LivingInC>(gateway);
}

} // namespace OrvLab
