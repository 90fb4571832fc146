// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/C.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace OrvStackSdk::Testing {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

const std::string FEATURES = "/orv/apps_control/features/";

/// What a client's callbacks are given as `user`: notes what they are told and does what the test wants.
class Application {
public:
    std::function<void()> then; ///< set before messages come

    void Hear(const std::string& line) {
        {
            const std::lock_guard<std::mutex> lock(mutex); // against the delivery thread
            heard.push_back(line);
        }
        if (then)
            then();
    }

    Lines Heard() {
        const std::lock_guard<std::mutex> lock(mutex);
        return heard;
    }

    static Application& Of(void* user) { return *static_cast<Application*>(user); }

private:
    std::mutex mutex;
    Lines heard;
};

inline orv_callbacks AllCallbacks() {
    orv_callbacks callbacks{};
    callbacks.on_app_action = [](void* user, int action) {
        Application::Of(user).Hear("action " + std::to_string(action));
    };
    callbacks.on_device_probe = [](void* user, const char* guid, std::size_t length) {
        Application::Of(user).Hear("panel " + std::string(guid, length + 1)); // with the NUL behind it
    };
    callbacks.on_device_online_status = [](void* user, int online) {
        Application::Of(user).Hear("online " + std::to_string(online));
    };
    callbacks.on_device_cellular_status = [](void* user, int item, const char* value, std::size_t length) {
        Application::Of(user).Hear("item " + std::to_string(item) + " " + std::string(value, length));
    };
    callbacks.on_feature_shutdown_readiness = [](void* user, const char* app, std::size_t length, int ready) {
        Application::Of(user).Hear(std::string(app, length) + " " + std::to_string(ready));
    };
    return callbacks;
}

/// A client "alarm", connected.
inline orv_client* MakeClient(const orv_callbacks* callbacks, Application* application) {
    orv_client* client = nullptr;
    EXPECT_EQ(orv_client_create(callbacks, application, &client), ORV_OK);
    EXPECT_EQ(orv_client_init(client, "alarm"), ORV_OK);
    return client;
}

} // namespace OrvStackSdk::Testing
