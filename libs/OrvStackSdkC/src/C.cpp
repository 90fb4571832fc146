// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/C.h"

#include "OrvStackSdk/OrvStackSdk.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

// The platform lives in another shared library; a header of its maker need not say that its symbols are visible.
#pragma GCC visibility push(default)
#include "quillogger/LogWrapper.h"
#pragma GCC visibility pop

using namespace OrvStackSdk;

namespace {

constexpr int ERROR_LEVEL = 4;

/// Hands the client's indications on to the application's functions.
class Receiver : public IOrvStackClientHandler {
public:
    Receiver(const orv_callbacks* theCallbacks, void* theUser)
        : callbacks(theCallbacks != nullptr ? *theCallbacks : orv_callbacks{}), user(theUser) {}

    /// No callback begins after it; waits for one that runs on another thread.
    void Close() noexcept {
        const std::lock_guard<std::recursive_mutex> lock(mutex);
        closed = true;
    }

    std::atomic<bool> accepted{false}; ///< what Init was answered last

    void OnInitConfirmation(const Confirmation& confirmation) override { accepted = confirmation == Confirmation::ACK; }

    void OnAppActionIndication(const AppAction& action) override {
        Notify(callbacks.on_app_action, static_cast<int>(action));
    }

    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}

    void OnDeviceProbeIndication(const std::string& guid) override {
        Notify(callbacks.on_device_probe, guid.c_str(), guid.size());
    }

    void OnDeviceOnlineStatusIndication(bool online) override {
        Notify(callbacks.on_device_online_status, static_cast<int>(online));
    }

    void OnDeviceCellularStatusIndication(const CellularStatus& item, const std::string& value) override {
        Notify(callbacks.on_device_cellular_status, static_cast<int>(item), value.c_str(), value.size());
    }

    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override {
        Notify(callbacks.on_feature_shutdown_readiness, app.c_str(), app.size(), static_cast<int>(ready));
    }

private:
    template <typename... Arguments>
    void Notify(void (*callback)(void*, Arguments...), Arguments... arguments) {
        const std::lock_guard<std::recursive_mutex> lock(mutex);
        if (callback == nullptr || closed)
            return;
        try {
            callback(user, arguments...);
        } catch (...) {
            quillogger::LogWrapper::Log(ERROR_LEVEL, false, "OrvStackClient", __LINE__, "Notify",
                                        "A callback of the application has thrown an exception");
        }
    }

    const orv_callbacks callbacks;
    void* const user;
    std::recursive_mutex mutex; // held during a callback, which may call anything
    bool closed = false;        // under `mutex`
};

} // namespace

struct orv_client {
    std::shared_ptr<Receiver> receiver;
    std::shared_ptr<IOrvStackClient> client;
};

namespace {

template <typename Action>
int ResultOf(Action action) noexcept {
    try {
        return action();
    } catch (const std::bad_alloc&) {
        return ORV_NO_MEMORY;
    } catch (const std::out_of_range&) {
        return ORV_INVALID_ARGUMENT;
    } catch (const std::system_error&) {
        return ORV_FAILED; // although it is a runtime_error: there is no thread or no descriptor left
    } catch (const std::runtime_error&) {
        return ORV_NO_BROKER;
    } catch (...) {
        return ORV_FAILED;
    }
}

using Request = void(IOrvStackClient& client, const std::string& text, int number);

int Pass(const orv_client* handle, Request* request, const char* text = "", int number = 0) noexcept {
    if (handle == nullptr || text == nullptr)
        return ORV_INVALID_ARGUMENT;
    return ResultOf([=] {
        request(*handle->client, text, number);
        return int{ORV_OK};
    });
}

} // namespace

int orv_client_create(const orv_callbacks* callbacks, void* user, orv_client** client) {
    if (client == nullptr)
        return ORV_INVALID_ARGUMENT;
    *client = nullptr;
    return ResultOf([=] {
        auto made = std::make_unique<orv_client>();
        made->receiver = std::make_shared<Receiver>(callbacks, user);
        made->client = CreateClient();
        made->client->SetHandler(made->receiver);
        *client = made.release();
        return int{ORV_OK};
    });
}

void orv_client_destroy(orv_client* client) {
    if (client == nullptr)
        return;
    client->receiver->Close();
    delete client;
}

int orv_client_init(orv_client* client, const char* app_name) {
    const auto request = [](IOrvStackClient& stack, const std::string& name, int) { stack.Init(name); };
    const int result = Pass(client, request, app_name);
    return result == ORV_OK && !client->receiver->accepted ? ORV_NO_BROKER : result;
}

int orv_client_deinit(orv_client* client) {
    const auto request = [](IOrvStackClient& stack, const std::string&, int) { stack.DeInit(); };
    return Pass(client, request);
}

int orv_client_start(orv_client* client) {
    const auto request = [](IOrvStackClient& stack, const std::string&, int) { stack.Start(); };
    return Pass(client, request);
}

int orv_client_stop(orv_client* client) {
    const auto request = [](IOrvStackClient& stack, const std::string&, int) { stack.Stop(); };
    return Pass(client, request);
}

int orv_client_tick(orv_client* client, int elapsed_ms) {
    const auto request = [](IOrvStackClient& stack, const std::string&, int number) {
        stack.Tick(std::chrono::milliseconds(number));
    };
    return Pass(client, request, "", elapsed_ms);
}

int orv_client_app_status(orv_client* client, int status) {
    const auto request = [](IOrvStackClient& stack, const std::string&, int number) {
        stack.AppStatusRequest(static_cast<AppStatus>(number));
    };
    return Pass(client, request, "", status);
}

int orv_client_app_action(orv_client* client, const char* app, int action) {
    const auto request = [](IOrvStackClient& stack, const std::string& text, int number) {
        stack.AppActionRequest(text, static_cast<AppAction>(number));
    };
    return Pass(client, request, app, action);
}

int orv_client_event(orv_client* client, int event) {
    const auto request = [](IOrvStackClient& stack, const std::string&, int number) {
        stack.EventUpdateRequest(static_cast<OrvEvent>(number));
    };
    return Pass(client, request, "", event);
}

int orv_client_cloud_reconnect_needed(orv_client* client) {
    if (client == nullptr)
        return ORV_INVALID_ARGUMENT;
    return ResultOf([=] { return static_cast<int>(client->client->CloudReconnectNeeded()); });
}

int orv_client_request_shutdown(orv_client* client) {
    const auto request = [](IOrvStackClient& stack, const std::string&, int) { stack.RequestShutdown(); };
    return Pass(client, request);
}

int orv_client_panel_command(orv_client* client, const char* command, int value) {
    const auto request = [](IOrvStackClient& stack, const std::string& text, int number) {
        stack.PanelCommandRequest(text, number);
    };
    return Pass(client, request, command, value);
}

int orv_client_connection_status(orv_client* client, const char* status) {
    const auto request = [](IOrvStackClient& stack, const std::string& text, int) { stack.SendConnectionStatus(text); };
    return Pass(client, request, status);
}
