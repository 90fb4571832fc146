// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/C.h"
#include "client/Scene.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace OrvLab {

/// Applications in C: one or two threads, each with one handle after the other, others that report events and tick,
/// and callbacks that call everything which they may, the handle's end too. What is demanded is what the handle adds to
/// the client: when callbacks end, what is answered, and that nothing of a handle is left.
class HandleProgram final : public Scene {
public:
    HandleProgram(Simulation& simulation, std::uint64_t seed);
    ~HandleProgram();
    HandleProgram(const HandleProgram&) = delete;
    HandleProgram& operator=(const HandleProgram&) = delete;

    void Run();

    /// What is explored. A test puts something else into the place of one.
    struct Functions {
        decltype(&orv_client_create) create = orv_client_create;
        decltype(&orv_client_destroy) destroy = orv_client_destroy;
        decltype(&orv_client_init) init = orv_client_init;
        decltype(&orv_client_deinit) deinit = orv_client_deinit;
        decltype(&orv_client_start) start = orv_client_start;
        decltype(&orv_client_stop) stop = orv_client_stop;
        decltype(&orv_client_tick) tick = orv_client_tick;
        decltype(&orv_client_app_status) appStatus = orv_client_app_status;
        decltype(&orv_client_app_action) appAction = orv_client_app_action;
        decltype(&orv_client_event) event = orv_client_event;
        decltype(&orv_client_cloud_reconnect_needed) cloudReconnectNeeded = orv_client_cloud_reconnect_needed;
        decltype(&orv_client_request_shutdown) requestShutdown = orv_client_request_shutdown;
        decltype(&orv_client_panel_command) panelCommand = orv_client_panel_command;
        decltype(&orv_client_connection_status) connectionStatus = orv_client_connection_status;
    };
    Functions functions;

    /// One handle, and what its callbacks are given.
    struct User {
        HandleProgram* program = nullptr;
        orv_client* client = nullptr; ///< null before its creation, and once its end has begun in a callback
        std::string app;
        bool isEnding = false;
        bool isOver = false; ///< the function that ends it has returned
        int inside = 0;      ///< calls that are under way outside its callbacks
        int callbacks = 0;   ///< that are under way
        std::vector<std::string> told;
    };
    void Called(User& user, const std::string& what);
    /// As the header wants it: nobody else is inside, but for a callback, and nobody comes.
    void Destroy(User& user, bool inCallback);

private:
    void ApplicationThread(int number);
    void AwaitMessages(User& user);
    void HelperThread(int number);
    void GatewayThread();
    void SendAtRandom();
    User& Create(int number);
    bool Init(User& user);
    void ActAtRandom(User& user, bool inCallback);
    void RequestAtRandom(User& user, bool inCallback);
    void Supervise(User& user, bool inCallback);
    void CallWithNothing();
    int AnyNumber(unsigned limit);
    void Refuses(const char* name, const std::function<int()>& call);
    int Answer(const char* name, Time limit, bool mayAct, const std::function<int()>& call);
    int Ask(User& user, bool inCallback, const char* name, Time limit, const std::function<int(orv_client*)>& call,
            bool mayAct = true);
    void Do(User& user, bool inCallback, const char* name, Time limit, const std::function<int(orv_client*)>& call);
    void DoWith(User& user, bool inCallback, const char* name, bool isValid,
                const std::function<int(orv_client*)>& call);
    void Collect();
    /// While all is well: exactly that is told, once.
    void CheckTold(User& user, const std::string& topic, const std::string& payload, const std::string& what);

    std::vector<std::unique_ptr<User>> all;
    User* present[2] = {nullptr, nullptr};
    int sides[2] = {0, 0}; // where the threads of the second one stand
    int threadsLeft = 0;
    bool isCollecting = false;
    int budget;
};

} // namespace OrvLab
