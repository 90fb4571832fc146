// SPDX-License-Identifier: Apache-2.0
#include "torture/Scene.h"

#include "torture/Failures.h"

#include "CommonUtils/Logger.h"
#include "OrvPlatform/Settings.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

namespace {

std::atomic<std::chrono::steady_clock::rep> skipped{0};

} // namespace

// In the place of the standard library's: a delay of ten seconds is over when the program wants it to be.
__attribute__((visibility("default"))) std::chrono::steady_clock::time_point
std::chrono::_V2::steady_clock::now() noexcept {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time_point(duration(static_cast<rep>(time.tv_sec) * 1'000'000'000 + time.tv_nsec + skipped));
}

namespace OrvLab {

using OrvStackSdk::AppAction;
using OrvStackSdk::AppStatus;
using OrvStackSdk::OrvEvent;
using namespace std::chrono_literals;

namespace {

constexpr const char* STATUS = "/orv/apps_control/features/alarm/init";
constexpr const char* GUID = "/orv/panel/guid";
constexpr const char* DNS = "/orv/network/wan/inhibit_dns";

template <typename Condition>
bool Within(std::chrono::milliseconds limit, Condition condition) {
    const auto begin = std::chrono::system_clock::now();
    while (!condition()) {
        if (std::chrono::system_clock::now() - begin > limit)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

} // namespace

void Fail(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    _exit(3);
}

void SkipTime(std::chrono::seconds duration) {
    skipped += std::chrono::steady_clock::duration(duration).count();
}

/// Counts what it is told, and never takes memory.
class Scene::Handler final : public OrvStackSdk::IOrvStackClientHandler {
public:
    std::atomic<bool> connected{false};
    std::atomic<int> actions{0};
    std::atomic<int> panels{0};

private:
    void OnInitConfirmation(const OrvStackSdk::Confirmation& answer) override {
        connected = answer == OrvStackSdk::Confirmation::ACK;
    }
    void OnAppActionIndication(const AppAction&) override { ++actions; }
    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override { ++panels; }
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}
};

Scene::Scene() : handler(std::make_shared<Handler>()) {
    std::string place = (std::filesystem::temp_directory_path() / "orv-torture-XXXXXX").string();
    if (mkdtemp(place.data()) == nullptr)
        Fail("cannot make " + place);
    folder = place;
    const std::string settings = folder + "/gateway.ini";
    std::ofstream(settings) << "[broker]\nport = " << broker.Port()
                            << "\n[interfaces]\nethernet = eth9\ncellular = lo\n"
                            << "[connman]\nbus_address = unix:path=" << folder << "/no-bus\n"
                            << "[cloud]\nendpoint = 127.0.0.1:9\n"
                            << "[log]\nlevel = trace\nsink = file\nfile = " << folder << "/log\n";
    setenv("ORV_GATEWAY_CONFIG", settings.c_str(), 1);
}

Scene::~Scene() {
    client.reset();
    const Tortured notThis(false);
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

// A call may be refused for want of memory. A client that cannot be made for want of a broker says so.
void Scene::Try(const char* name, const std::function<void()>& call) {
    try {
        call();
    } catch (const std::bad_alloc&) {
    } catch (const std::exception& exception) {
        const Tortured notThis(false);
        if (std::string(exception.what()) != "OrvRoute cannot connect to MQTT broker.")
            Fail(std::string(name) + " throws \"" + exception.what() + "\"");
    }
}

void Scene::Create() {
    Try("CreateClient", [this] {
        client = OrvStackSdk::CreateClient();
        client->SetHandler(handler);
    });
}

void Scene::Init() {
    if (!client)
        return;
    Try("Init", [this] { client->Init("alarm"); });
    Try("Start", [this] { client->Start(); });
}

void Scene::Work() {
    if (!client)
        return;
    Try("AppStatusRequest", [this] { client->AppStatusRequest(AppStatus::READY); });
    Try("AppActionRequest", [this] { client->AppActionRequest("another", AppAction::ENABLED); });
    Try("PanelCommandRequest", [this] { client->PanelCommandRequest("any", 1); });
    Try("SendConnectionStatus", [this] { client->SendConnectionStatus("online"); });
    Try("RequestShutdown", [this] { client->RequestShutdown(); });
    Try("CloudReconnectNeeded", [this] { client->CloudReconnectNeeded(); });
    for (const OrvEvent event : {OrvEvent::PANEL_CLOUD_ENABLED, OrvEvent::ETHERNET_CONNECTED,
                                 OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CLOUD_CONNECTED})
        Try("EventUpdateRequest", [&] { client->EventUpdateRequest(event); });
    const int before = handler->panels;
    {
        const Tortured notThis(false);
        broker.Send(STATUS, "enabled");
        broker.Send(GUID, "0123456789abcdef0123456789abcdef");
    }
    Within(300ms, [&] { return handler->panels != before; });
}

void Scene::Ticks(int count) {
    for (; count > 0; --count) {
        bool failed = true;
        Try("Tick", [&] {
            client->Tick(10ms);
            failed = false;
        });
        supervisionFailed = supervisionFailed || failed;
        std::this_thread::sleep_for(4ms);
    }
}

/// The cloud is lost on Ethernet, and searched over Cellular, where nobody answers.
void Scene::Supervise() {
    if (!client)
        return;
    for (const OrvEvent event : {OrvEvent::CLOUD_CONNECTED, OrvEvent::CELLULAR_CONNECTED, OrvEvent::CELLULAR_IP_GAINED})
        Try("EventUpdateRequest", [&] { client->EventUpdateRequest(event); });
    Ticks(1);
    Try("EventUpdateRequest", [this] { client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED); });
    Ticks(1);
    SkipTime(11s);
    Ticks(30);
    Try("EventUpdateRequest", [this] { client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED); });
    SkipTime(4s);
    Ticks(2);
}

void Scene::LoseTheBroker() {
    if (!client)
        return;
    {
        const Tortured notThis(false);
        broker.DropAll();
    }
    std::this_thread::sleep_for(20ms);
    Try("AppStatusRequest", [this] { client->AppStatusRequest(AppStatus::READY); });
    SkipTime(1s);
    std::this_thread::sleep_for(400ms);
    Try("EventUpdateRequest", [this] { client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED); });
}

void Scene::Settings() {
    Try("ReloadLogLevels", [] { OrvPlatform::ReloadLogLevels(); });
    Try("Logger", [] {
        CommonUtils::Logger logger("A logger of a name that is rather long", 0);
        logger.Warning("tag") << "a number " << 42 << " and a text " << std::string(300, 'x');
    });
}

void Scene::Leave() {
    if (client)
        Try("DeInit", [this] { client->DeInit(); });
    client.reset();
}

void Scene::Check(const char* what, const std::function<bool()>& condition) {
    if (!Within(20s, condition))
        Fail(std::string("afterwards, in vain: ") + what);
}

void Scene::DemandWords() {
    Check("a status reaches the broker", [this] {
        client->AppStatusRequest(AppStatus::READY);
        return broker.Latest(STATUS) == "ready";
    });
    Check("a message reaches the application", [this] {
        const int before = handler->panels;
        broker.Send(GUID, "0123456789abcdef0123456789abcdef");
        return Within(100ms, [&] { return handler->panels != before; });
    });
    Check("what is kept is told again after a loss", [this] {
        client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
        broker.DropAll();
        broker.Send("/orv/apps_control/features/Ent/status/EntCon", "false");
        SkipTime(5s);
        return Within(3000ms, [&] { return broker.Latest("/orv/apps_control/features/Ent/status/EntCon") == "true"; });
    });
}

void Scene::DemandSupervision() {
    for (const OrvEvent event : {OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CLOUD_CONNECTED})
        client->EventUpdateRequest(event);
    for (int state = 0; state < 5; ++state) {
        SkipTime(30s);
        Ticks(2);
    }
    Check("a lost cloud is searched over Cellular", [this] {
        broker.Send(DNS, "");
        client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED);
        Ticks(1);
        SkipTime(11s);
        Ticks(1);
        return Within(1000ms, [this] { return broker.Latest(DNS) == "inhibit"; });
    });
}

void Scene::DemandAll() {
    // A tick that throws may leave the supervision waiting for a poke that it could not announce, and that nobody ends.
    if (supervisionFailed)
        _exit(0);
    if (!client)
        client = OrvStackSdk::CreateClient();
    client->SetHandler(handler);
    client->Init("alarm");
    Check("Init is confirmed", [this] { return handler->connected.load(); });
    client->Start();
    DemandWords();
    DemandSupervision();
    client->DeInit();
    client.reset();
}

// OpenSSL leaks where its own memory is wanting: that is not ours, and would hide what is.
// Settings that cannot be read are reported, and the defaults are in force for good: so nothing more is demanded of a
// process to which that happens.
const Program programs[PROGRAMS] = {
    {"settings", [](Scene&) {}, [](Scene& scene) { scene.Settings(); }, false},
    {"begin", [](Scene& scene) { scene.Settings(); },
     [](Scene& scene) {
         scene.Create();
         scene.Init();
     }},
    {"work",
     [](Scene& scene) {
         scene.Create();
         scene.Init();
     },
     [](Scene& scene) {
         scene.Work();
         scene.Settings();
         scene.LoseTheBroker();
     }},
    {"supervise",
     [](Scene& scene) {
         scene.Create();
         scene.Init();
     },
     [](Scene& scene) { scene.Supervise(); }, true, true},
    {"leave",
     [](Scene& scene) {
         scene.Create();
         scene.Init();
         scene.Work();
     },
     [](Scene& scene) { scene.Leave(); }},
};

} // namespace OrvLab
