// SPDX-License-Identifier: Apache-2.0
#include "client/HandleProgram.h"

#include "client/Edge.h"
#include "client/Words.h"

#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace OrvLab {

namespace {

constexpr Time LONGEST_CALLBACK = 300 * MILLISECOND;
constexpr const char* APPS[] = {"app", "other"};

HandleProgram::User& UserOf(void* user) {
    return *static_cast<HandleProgram::User*>(user);
}

/// A text that a callback is given: so long, and a NUL behind it.
std::string TextOf(void* user, const char* text, std::size_t length) {
    if (text[length] != '\0')
        UserOf(user).program->sim.Fail("a text that a callback is given does not end");
    return {text, length};
}

void Tell(void* user, const std::string& what) {
    UserOf(user).program->Called(UserOf(user), what);
}

orv_callbacks AllCallbacks() {
    orv_callbacks callbacks{};
    callbacks.on_app_action = [](void* user, int action) {
        const Unwatched unwatched;
        Tell(user, "action " + std::to_string(action));
    };
    callbacks.on_device_probe = [](void* user, const char* guid, std::size_t length) {
        const Unwatched unwatched;
        Tell(user, "probe " + TextOf(user, guid, length));
    };
    callbacks.on_device_online_status = [](void* user, int online) {
        const Unwatched unwatched;
        Tell(user, "online " + std::to_string(online));
    };
    callbacks.on_device_cellular_status = [](void* user, int item, const char* value, std::size_t length) {
        const Unwatched unwatched;
        Tell(user, "cellular " + std::to_string(item) + " " + TextOf(user, value, length));
    };
    callbacks.on_feature_shutdown_readiness = [](void* user, const char* app, std::size_t length, int ready) {
        const Unwatched unwatched;
        Tell(user, "readiness " + TextOf(user, app, length) + " " + std::to_string(ready));
    };
    return callbacks;
}

} // namespace

HandleProgram::HandleProgram(Simulation& simulation, std::uint64_t seed)
    : Scene(simulation, seed), budget(random.Between(10, 90)) {}

HandleProgram::~HandleProgram() = default;

void HandleProgram::Run() {
    const int applications = random.Between(1, 2);
    threadsLeft = applications;
    std::vector<Simulation::Thread*> threads;
    for (int number = 0; number < applications; ++number) {
        const std::string name = std::to_string(number + 1);
        threads.push_back(&sim.Start("application " + name, [this, number] { ApplicationThread(number); }));
        for (int helpers = random.Between(0, 2); helpers > 0; --helpers)
            threads.push_back(&sim.Start("helper of " + name, [this, number] { HelperThread(number); }));
    }
    threads.push_back(&sim.Start("gateway", [this] { GatewayThread(); }));
    for (Simulation::Thread* thread : threads)
        sim.Join(*thread);
    Collect();
}

void HandleProgram::ApplicationThread(int number) {
    // The second one has a name of its own at the broker.
    sim.Self().side = number == 0 ? nullptr : &sides[number];
    for (int handles = random.Between(1, 4); handles > 0; --handles) {
        User& user = Create(number);
        if (user.client == nullptr) {
            sim.Sleep(static_cast<Time>(random.Below(2000)) * MILLISECOND);
            continue;
        }
        if (!random.OneIn(8))
            Init(user);
        for (int acts = random.Between(0, 20); acts > 0 && budget > 0 && !user.isEnding; --acts) {
            if (random.OneIn(4))
                sim.Sleep(static_cast<Time>(random.Below(random.OneIn(4) ? 3000 : 20)) * MILLISECOND);
            if (!user.isEnding)
                ActAtRandom(user, false);
        }
        if (!user.isEnding && random.OneIn(3))
            Do(user, false, "orv_client_deinit", DEINIT_LIMIT, functions.deinit);
        if (!user.isEnding && random.OneIn(2))
            AwaitMessages(user);
        if (!user.isEnding)
            Destroy(user, false);
        // Or a callback does.
        sim.Wait("end of the handle", [&] { return user.isOver; });
        present[number] = nullptr;
    }
    sim.Self().side = nullptr;
    --threadsLeft;
}

/// Several arrive, so that the end may meet any of them on its way.
void HandleProgram::AwaitMessages(User& user) {
    const std::size_t before = user.told.size();
    for (int count = random.Between(2, 6); count > 0; --count)
        broker.Publish(random.OneIn(2) ? Texts::GUID : Texts::PANEL_CONNECTION, "text", false);
    sim.Wait(
        "a callback", [&] { return user.told.size() != before || user.isEnding; }, sim.Now() + 300 * MILLISECOND);
}

// Reports events, ticks and asks, as every thread may.
void HandleProgram::HelperThread(int number) {
    sim.Self().side = number == 0 ? nullptr : &sides[number];
    const Time period = static_cast<Time>(random.Between(1, 1500)) * MILLISECOND;
    while (threadsLeft > 0 && budget > 0) {
        User* user = present[number];
        if (user != nullptr && user->client != nullptr && !user->isEnding)
            Supervise(*user, false);
        sim.Sleep(period);
    }
    sim.Self().side = nullptr;
}

void HandleProgram::GatewayThread() {
    while (threadsLeft > 0) {
        sim.Sleep(static_cast<Time>(random.Below(random.OneIn(3) ? 1000 : 50)) * MILLISECOND);
        if (random.OneIn(6))
            TroubleAtRandom();
        else
            SendAtRandom();
    }
}

void HandleProgram::SendAtRandom() {
    const std::string own = std::string(Texts::FEATURES) + APPS[random.Below(2)] + "/init";
    const std::string topics[] = {own, Texts::GUID, Texts::PANEL_CONNECTION, Texts::CELLULAR_TOPICS[random.Below(5)],
                                  Texts::READINESS + std::string("alarm")};
    const char* const words[] = {"reload", "enabled", "UP", "ready", "", "text"};
    for (unsigned count = random.OneIn(3) ? random.Below(8) + 1 : 1; count > 0; --count)
        broker.Publish(topics[random.Below(5)], words[random.Below(6)], false);
}

HandleProgram::User& HandleProgram::Create(int number) {
    all.push_back(std::make_unique<User>());
    User& user = *all.back();
    user.program = this;
    user.app = APPS[number];
    present[number] = &user;
    const orv_callbacks callbacks = AllCallbacks();
    const bool hasCallbacks = isCollecting || !random.OneIn(12);
    orv_client* made = nullptr;
    const int result = Answer("orv_client_create", INIT_LIMIT, true,
                              [&] { return functions.create(hasCallbacks ? &callbacks : nullptr, &user, &made); });
    Races::Release(&user);
    user.client = made;
    if (result != ORV_OK && result != ORV_NO_BROKER)
        sim.Fail("orv_client_create answers " + std::to_string(result));
    if ((result == ORV_OK) != (made != nullptr))
        sim.Fail("orv_client_create answers " + std::to_string(result) +
                 (made == nullptr ? " and makes nothing" : " and makes a handle"));
    user.isOver = made == nullptr;
    return user;
}

/// @param mayAct false: it is given what is not allowed, and may not even write a record
int HandleProgram::Answer(const char* name, Time limit, bool mayAct, const std::function<int()>& call) {
    const auto seen = witness.Begin(Call::Kind::OTHER, name, limit);
    const int result = Watch(call);
    witness.End(seen);
    if (!mayAct && !seen->effects.empty())
        sim.Fail(std::string(name) + " is given what is not allowed and does: " + seen->effects.front().what);
    return result;
}

/// @param inCallback of this handle, of which its end may be waiting
int HandleProgram::Ask(User& user, bool inCallback, const char* name, Time limit,
                       const std::function<int(orv_client*)>& call, bool mayAct) {
    orv_client* const client = user.client;
    Races::Acquire(&user);
    user.inside += inCallback ? 0 : 1;
    const int result = Answer(name, limit, mayAct, [&] { return call(client); });
    user.inside -= inCallback ? 0 : 1;
    Races::Release(&user);
    return result;
}

void HandleProgram::Do(User& user, bool inCallback, const char* name, Time limit,
                       const std::function<int(orv_client*)>& call) {
    const int result = Ask(user, inCallback, name, limit, call);
    if (result != ORV_OK)
        sim.Fail(std::string(name) + " answers " + std::to_string(result));
}

void HandleProgram::DoWith(User& user, bool inCallback, const char* name, bool isValid,
                           const std::function<int(orv_client*)>& call) {
    const int result = Ask(user, inCallback, name, 0, call, isValid);
    if (result != (isValid ? ORV_OK : ORV_INVALID_ARGUMENT))
        sim.Fail(std::string(name) + " answers " + std::to_string(result) + " to a value that is " +
                 (isValid ? "valid" : "none"));
}

/// Not while messages may arrive, whose delivery reads the name.
bool HandleProgram::Init(User& user) {
    if (random.OneIn(6))
        DoWith(user, false, "orv_client_init", false,
               [this](orv_client* client) { return functions.init(client, nullptr); });
    if (!user.isEnding)
        Do(user, false, "orv_client_deinit", DEINIT_LIMIT, functions.deinit);
    while (!user.isEnding && (user.callbacks != 0 || Edge::IsAThreadHeldUp()))
        sim.Sleep(10 * MILLISECOND);
    if (user.isEnding)
        return false;
    Edge::ComesBehindTheThreads();
    const bool isValid = !random.OneIn(10) || isCollecting;
    const char* name = isValid ? user.app.c_str() : "a+b";
    const int result = Ask(user, false, "orv_client_init", INIT_LIMIT,
                           [this, name](orv_client* client) { return functions.init(client, name); });
    if (result != ORV_NO_BROKER && (result != ORV_OK || !isValid))
        sim.Fail("orv_client_init answers " + std::to_string(result));
    return result == ORV_OK;
}

// In a callback, what is allowed in one.
void HandleProgram::ActAtRandom(User& user, bool inCallback) {
    --budget;
    switch (random.Weighted({2, 1, 2, 10, 8, 2})) {
    case 0:
        if (!inCallback)
            Init(user);
        break;
    case 1:
        Do(user, inCallback, "orv_client_deinit", DEINIT_LIMIT, functions.deinit);
        break;
    case 2:
        if (user.inside == 0 && !user.isEnding && (inCallback || random.OneIn(3)))
            Destroy(user, inCallback);
        break;
    case 3:
        RequestAtRandom(user, inCallback);
        break;
    case 4:
        Supervise(user, inCallback);
        break;
    default:
        CallWithNothing();
        break;
    }
}

/// Below the limit; at times one that is no enumerator.
int HandleProgram::AnyNumber(unsigned limit) {
    constexpr int WRONG[] = {-1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), 256};
    if (random.OneIn(12))
        return random.OneIn(3) ? static_cast<int>(limit) : WRONG[random.Below(4)];
    return static_cast<int>(random.Below(limit));
}

void HandleProgram::RequestAtRandom(User& user, bool inCallback) {
    const char* const text = random.OneIn(12) ? nullptr : "text";
    const int status = AnyNumber(7);
    const int action = AnyNumber(4);
    switch (random.Below(7)) {
    case 0:
        return DoWith(user, inCallback, "orv_client_app_status", status >= 0 && status < 7,
                      [&](orv_client* client) { return functions.appStatus(client, status); });
    case 1:
        return DoWith(user, inCallback, "orv_client_app_action", text != nullptr && action >= 0 && action < 4,
                      [&](orv_client* client) { return functions.appAction(client, text, action); });
    case 2:
        return DoWith(user, inCallback, "orv_client_panel_command", text != nullptr,
                      [&](orv_client* client) { return functions.panelCommand(client, text, action); });
    case 3:
        return DoWith(user, inCallback, "orv_client_connection_status", text != nullptr,
                      [&](orv_client* client) { return functions.connectionStatus(client, text); });
    case 4:
        return Do(user, inCallback, "orv_client_request_shutdown", 0, functions.requestShutdown);
    case 5:
        return Do(user, inCallback, "orv_client_start", 0, functions.start);
    default:
        return Do(user, inCallback, "orv_client_stop", 0, functions.stop);
    }
}

void HandleProgram::Supervise(User& user, bool inCallback) {
    if (random.OneIn(2)) {
        const int event = AnyNumber(13);
        DoWith(user, inCallback, "orv_client_event", event >= 0 && event < 13,
               [this, event](orv_client* client) { return functions.event(client, event); });
    }
    if (user.isEnding && !inCallback)
        return;
    Do(user, inCallback, "orv_client_tick", 0, [this](orv_client* client) { return functions.tick(client, 100); });
    if (user.isEnding && !inCallback)
        return;
    const int moved = Ask(user, inCallback, "orv_client_cloud_reconnect_needed", 0, functions.cloudReconnectNeeded);
    if (moved != 0 && moved != 1)
        sim.Fail("orv_client_cloud_reconnect_needed answers " + std::to_string(moved));
}

/// Each function, without a handle or a place for one.
void HandleProgram::CallWithNothing() {
    orv_client* const none = nullptr;
    Refuses("orv_client_create", [&] { return functions.create(nullptr, nullptr, nullptr); });
    Refuses("orv_client_init", [&] { return functions.init(none, "app"); });
    Refuses("orv_client_deinit", [&] { return functions.deinit(none); });
    Refuses("orv_client_start", [&] { return functions.start(none); });
    Refuses("orv_client_stop", [&] { return functions.stop(none); });
    Refuses("orv_client_tick", [&] { return functions.tick(none, 1); });
    Refuses("orv_client_app_status", [&] { return functions.appStatus(none, ORV_APP_STATUS_READY); });
    Refuses("orv_client_app_action", [&] { return functions.appAction(none, "app", ORV_APP_ACTION_RELOAD); });
    Refuses("orv_client_event", [&] { return functions.event(none, ORV_EVENT_CLOUD_CONNECTED); });
    Refuses("orv_client_cloud_reconnect_needed", [&] { return functions.cloudReconnectNeeded(none); });
    Refuses("orv_client_request_shutdown", [&] { return functions.requestShutdown(none); });
    Refuses("orv_client_panel_command", [&] { return functions.panelCommand(none, "text", 1); });
    Refuses("orv_client_connection_status", [&] { return functions.connectionStatus(none, "text"); });
    Answer("orv_client_destroy", 0, false, [&] {
        functions.destroy(none);
        return 0;
    });
}

void HandleProgram::Refuses(const char* name, const std::function<int()>& call) {
    const int result = Answer(name, 0, false, call);
    if (result != ORV_INVALID_ARGUMENT)
        sim.Fail(std::string(name) + " answers " + std::to_string(result) + " to a NULL");
}

void HandleProgram::Destroy(User& user, bool inCallback) {
    user.isEnding = true;
    while (user.inside != 0)
        sim.Sleep(MILLISECOND);
    Races::Acquire(&user);
    orv_client* const client = user.client;
    if (inCallback)
        user.client = nullptr;
    // A callback that runs on another thread is waited for.
    const Time limit = RELEASE_LIMIT + (inCallback ? 0 : LONGEST_CALLBACK + DEINIT_LIMIT);
    Answer("orv_client_destroy", limit, true, [&] {
        functions.destroy(client);
        return 0;
    });
    if (user.callbacks != (inCallback ? 1 : 0))
        sim.Fail("a callback runs on though orv_client_destroy has returned");
    user.isOver = true;
}

void HandleProgram::Called(User& user, const std::string& what) {
    if (user.isOver)
        sim.Fail("a callback begins though orv_client_destroy has returned: " + what);
    if (user.callbacks++ != 0)
        sim.Fail("a callback begins while another one runs: " + what);
    // The handle's own lock, which its end takes again. No other one is held in a callback, nor while it waits.
    Simulation::Thread& self = sim.Self();
    const int own = self.recursiveLocks > 0 ? 1 : 0;
    self.locks -= own;
    witness.BeginCallback(what);
    Races::Acquire(&user);
    user.told.push_back(what);
    sim.Step("callback");
    const bool hasTime = !isCollecting && budget > 0;
    if (hasTime && random.OneIn(3))
        sim.Sleep(static_cast<Time>(random.Below(2)) * static_cast<Time>(random.Below(LONGEST_CALLBACK)));
    if (hasTime && user.client != nullptr && random.OneIn(2))
        ActAtRandom(user, true);
    sim.Step("return from the callback");
    witness.EndCallback();
    self.locks += own;
    --user.callbacks;
    if (hasTime && random.OneIn(20))
        throw std::runtime_error("of a callback");
}

/// Everybody is well. Each callback comes for its message, and none behind the end.
void HandleProgram::Collect() {
    isCollecting = true;
    Heal();
    CheckNothingIsLeft();
    const int number = random.Between(0, 1);
    const void* const before = std::exchange(sim.Self().side, number == 0 ? nullptr : &sides[number]);
    User& user = Create(number);
    if (user.client == nullptr || !Init(user))
        sim.Fail("no handle though all is well");
    sim.Sleep(SECOND);
    user.told.clear();
    CheckTold(user, Texts::FEATURES + user.app + "/init", "disabled", "action 1");
    CheckTold(user, Texts::GUID, "4711", "probe 4711");
    CheckTold(user, Texts::PANEL_CONNECTION, "UP", "online 1");
    CheckTold(user, Texts::CELLULAR_TOPICS[3], std::string("a\0b", 3), std::string("cellular 3 a\0b", 14));
    CheckTold(user, Texts::READINESS + std::string("alarm"), "ready", "readiness alarm 1");
    if (random.OneIn(2))
        Do(user, false, "orv_client_deinit", DEINIT_LIMIT, functions.deinit);
    Destroy(user, false);
    broker.Publish(Texts::GUID, "behind the end", false);
    sim.Sleep(2 * SECOND);
    sim.Self().side = before;
    CheckNothingIsLeft();
}

void HandleProgram::CheckTold(User& user, const std::string& topic, const std::string& payload,
                              const std::string& what) {
    broker.Publish(topic, payload, false);
    sim.Sleep(SECOND);
    if (user.told != std::vector<std::string>{what})
        sim.Fail("a message on " + topic + " leads to " + std::to_string(user.told.size()) + " callbacks" +
                 (user.told.empty() ? "" : ", one of them " + user.told.front()) + ", not to " + what);
    user.told.clear();
}

} // namespace OrvLab
