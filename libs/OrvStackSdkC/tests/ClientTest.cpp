// SPDX-License-Identifier: Apache-2.0
#include "CScene.h"
#include "FakeBroker.h"
#include "OrvStackSdk/OrvStackSdk.h"
#include "OrvStackSdk/Testing.h"

#include <initializer_list>
#include <memory>
#include <new>
#include <system_error>

namespace OrvStackSdk::Testing {
namespace {

template <typename Enum>
constexpr bool Are(std::initializer_list<Enum> values, std::initializer_list<int> numbers) {
    auto number = numbers.begin();
    for (const Enum value : values)
        if (static_cast<int>(value) != *number++)
            return false;
    return number == numbers.end();
}

static_assert(Are({AppAction::ENABLED, AppAction::DISABLED, AppAction::RELOAD, AppAction::UNSUPPORTED},
                  {ORV_APP_ACTION_ENABLED, ORV_APP_ACTION_DISABLED, ORV_APP_ACTION_RELOAD,
                   ORV_APP_ACTION_UNSUPPORTED}));
static_assert(Are({AppStatus::SUPPORTED, AppStatus::AVAILABLE, AppStatus::BOOTING, AppStatus::READY, AppStatus::ERROR,
                   AppStatus::NOERROR, AppStatus::UNSUPPORTED},
                  {ORV_APP_STATUS_SUPPORTED, ORV_APP_STATUS_AVAILABLE, ORV_APP_STATUS_BOOTING, ORV_APP_STATUS_READY,
                   ORV_APP_STATUS_ERROR, ORV_APP_STATUS_NOERROR, ORV_APP_STATUS_UNSUPPORTED}));
static_assert(Are({CellularStatus::IMEI, CellularStatus::ICCID, CellularStatus::TECHNOLOGY, CellularStatus::PROVIDER,
                   CellularStatus::STRENGTH},
                  {ORV_CELLULAR_STATUS_IMEI, ORV_CELLULAR_STATUS_ICCID, ORV_CELLULAR_STATUS_TECHNOLOGY,
                   ORV_CELLULAR_STATUS_PROVIDER, ORV_CELLULAR_STATUS_STRENGTH}));
static_assert(
    Are({OrvEvent::CLOUD_CONNECTED, OrvEvent::CLOUD_DISCONNECTED, OrvEvent::PANEL_CLOUD_ENABLED,
         OrvEvent::PANEL_CLOUD_DISABLED, OrvEvent::ETHERNET_DISCONNECTED, OrvEvent::ETHERNET_CONNECTED,
         OrvEvent::ETHERNET_IP_GAINED, OrvEvent::ETHERNET_IP_LOST, OrvEvent::CELLULAR_DISCONNECTED,
         OrvEvent::CELLULAR_CONNECTED, OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CELLULAR_IP_LOST, OrvEvent::FAILURE},
        {ORV_EVENT_CLOUD_CONNECTED, ORV_EVENT_CLOUD_DISCONNECTED, ORV_EVENT_PANEL_CLOUD_ENABLED,
         ORV_EVENT_PANEL_CLOUD_DISABLED, ORV_EVENT_ETHERNET_DISCONNECTED, ORV_EVENT_ETHERNET_CONNECTED,
         ORV_EVENT_ETHERNET_IP_GAINED, ORV_EVENT_ETHERNET_IP_LOST, ORV_EVENT_CELLULAR_DISCONNECTED,
         ORV_EVENT_CELLULAR_CONNECTED, ORV_EVENT_CELLULAR_IP_GAINED, ORV_EVENT_CELLULAR_IP_LOST, ORV_EVENT_FAILURE}));

/// What a life of an application leaves in the journal, trace records included. `life` is given the gateway.
template <typename Life>
std::string JournalOf(Life life) {
    GatewayOptions options;
    options.logRecords = LogRecords::FROM_TRACE;
    Gateway gateway(options);
    life(gateway);
    return gateway.journal.TimedText();
}

class Nobody : public IOrvStackClientHandler {
    void OnInitConfirmation(const Confirmation&) override {}
    void OnAppActionIndication(const AppAction&) override {}
    void OnAppStatusIndication(const std::string&, const AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {}
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}
};

void LivesInCpp(Gateway& gateway) {
    const auto client = CreateClient();
    const auto handler = std::make_shared<Nobody>();
    client->SetHandler(handler);
    client->Init("alarm");
    client->Start();
    for (int status = 0; status <= 6; ++status)
        client->AppStatusRequest(static_cast<AppStatus>(status));
    for (int action = 0; action <= 3; ++action)
        client->AppActionRequest("door", static_cast<AppAction>(action));
    for (int event = 0; event <= 12; ++event)
        client->EventUpdateRequest(static_cast<OrvEvent>(event));
    for (const OrvEvent event : {OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CLOUD_CONNECTED, OrvEvent::CLOUD_DISCONNECTED})
        client->EventUpdateRequest(event);
    gateway.poke.Fails("eth0", 7);
    gateway.Every(100ms, [&] {
        client->Tick(100ms);
        if (client->CloudReconnectNeeded())
            gateway.journal.Note("reconnects");
    });
    gateway.Advance(20s);
    client->RequestShutdown();
    for (int value = 0; value <= 8; ++value)
        client->PanelCommandRequest("command", value);
    client->SendConnectionStatus("roaming");
    client->Stop();
    client->DeInit();
}

void LivesInC(Gateway& gateway) {
    orv_client* client = nullptr;
    EXPECT_EQ(orv_client_create(nullptr, nullptr, &client), ORV_OK);
    EXPECT_EQ(orv_client_init(client, "alarm"), ORV_OK);
    EXPECT_EQ(orv_client_start(client), ORV_OK);
    for (int status = 0; status <= 6; ++status)
        EXPECT_EQ(orv_client_app_status(client, status), ORV_OK);
    for (int action = 0; action <= 3; ++action)
        EXPECT_EQ(orv_client_app_action(client, "door", action), ORV_OK);
    for (int event = 0; event <= 12; ++event)
        EXPECT_EQ(orv_client_event(client, event), ORV_OK);
    for (const int event : {ORV_EVENT_CELLULAR_IP_GAINED, ORV_EVENT_CLOUD_CONNECTED, ORV_EVENT_CLOUD_DISCONNECTED})
        EXPECT_EQ(orv_client_event(client, event), ORV_OK);
    gateway.poke.Fails("eth0", 7);
    gateway.Every(100ms, [&] {
        EXPECT_EQ(orv_client_tick(client, 100), ORV_OK);
        if (orv_client_cloud_reconnect_needed(client) == 1)
            gateway.journal.Note("reconnects");
    });
    gateway.Advance(20s);
    EXPECT_EQ(orv_client_request_shutdown(client), ORV_OK);
    for (int value = 0; value <= 8; ++value)
        EXPECT_EQ(orv_client_panel_command(client, "command", value), ORV_OK);
    EXPECT_EQ(orv_client_connection_status(client, "roaming"), ORV_OK);
    EXPECT_EQ(orv_client_stop(client), ORV_OK);
    EXPECT_EQ(orv_client_deinit(client), ORV_OK);
    orv_client_destroy(client);
}

TEST(ALifeInC, LeavesTheSameJournalAsOneInCpp) {
    const std::string journal = JournalOf(LivesInCpp);
    EXPECT_NE(journal.find("reconnects"), std::string::npos);
    EXPECT_EQ("", Difference(journal, JournalOf(LivesInC)));
}

class AClientInC : public ::testing::Test {
protected:
    AClientInC() { gateway.broker.Clear(); }
    ~AClientInC() override { orv_client_destroy(client); }

    Gateway gateway;
    Application application;
    orv_callbacks callbacks = AllCallbacks();
    orv_client* client = MakeClient(&callbacks, &application);
};

TEST_F(AClientInC, HandsOnWhatArrives) {
    gateway.broker.Publish(FEATURES + "alarm/init", "reload");
    gateway.broker.Publish("/orv/panel/connection_status", "UP");
    gateway.broker.Publish("/orv/panel/connection_status", "DOWN");
    gateway.broker.Publish("/orv/modem/imei", "1");
    gateway.broker.Publish("/orv/modem/sim/strength", "-71");
    gateway.broker.Publish(FEATURES + "shutdown_readiness/door", "ready");
    gateway.broker.Publish(FEATURES + "shutdown_readiness/door", "busy");
    EXPECT_EQ(application.Heard(),
              (Lines{"action 2", "online 1", "online 0", "item 0 1", "item 4 -71", "door 1", "door 0"}));
}

TEST_F(AClientInC, HandsOnTheWholeTextWithANulInsideAndOneBehind) {
    gateway.broker.Publish("/orv/panel/guid", std::string("47\00011", 5));
    EXPECT_EQ(application.Heard(), (Lines{std::string("panel 47\00011\0", 12)}));
}

TEST_F(AClientInC, CopiesTheCallbacks) {
    callbacks = orv_callbacks{};
    gateway.broker.Publish("/orv/panel/connection_status", "UP");
    EXPECT_EQ(application.Heard(), (Lines{"online 1"}));
}

TEST_F(AClientInC, CopiesItsTexts) {
    auto name = std::make_unique<std::string>("a name that is too long to be kept without memory of its own");
    const std::string topic = FEATURES + *name + "/init";
    EXPECT_EQ(orv_client_init(client, name->c_str()), ORV_OK);
    *name = "another";
    name.reset();
    EXPECT_EQ(orv_client_app_status(client, ORV_APP_STATUS_READY), ORV_OK);
    EXPECT_EQ(gateway.broker.Published(topic), (Lines{"ready"}));
}

TEST_F(AClientInC, DropsWhatNoCallbackIsThereFor) {
    Application deaf;
    const orv_callbacks none{};
    for (const orv_callbacks* given : {&none, static_cast<const orv_callbacks*>(nullptr)}) {
        orv_client* other = MakeClient(given, &deaf);
        for (const char* topic : {"/orv/panel/guid", "/orv/panel/connection_status", "/orv/modem/imei",
                                  "/orv/apps_control/features/shutdown_readiness/door"})
            gateway.broker.Publish(topic, "UP");
        gateway.broker.Publish(FEATURES + "alarm/init", "enabled");
        orv_client_destroy(other);
    }
    EXPECT_EQ(deaf.Heard(), Lines{});
    EXPECT_EQ(application.Heard().size(), 10U); // which has come all the same
}

TEST_F(AClientInC, RefusesWhatIsNoEnumerator) {
    for (const int number : {-1, 99}) {
        EXPECT_EQ(orv_client_app_status(client, number), ORV_INVALID_ARGUMENT);
        EXPECT_EQ(orv_client_app_action(client, "door", number), ORV_INVALID_ARGUMENT);
        EXPECT_EQ(orv_client_event(client, number), ORV_INVALID_ARGUMENT);
    }
    EXPECT_EQ(orv_client_app_status(client, 7), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_app_action(client, "door", 4), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_event(client, 13), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(gateway.broker.Published(FEATURES + "alarm/init"), Lines{});
    EXPECT_EQ(gateway.broker.Published(FEATURES + "door/init"), Lines{});
}

TEST_F(AClientInC, RefusesANullText) {
    EXPECT_EQ(orv_client_init(client, nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_app_action(client, nullptr, ORV_APP_ACTION_RELOAD), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_panel_command(client, nullptr, 1), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_connection_status(client, nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_TRUE(gateway.broker.Published().empty());
}

TEST(NoClientInC, IsRefusedByEveryFunctionButDestroy) {
    EXPECT_EQ(orv_client_create(nullptr, nullptr, nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_init(nullptr, "alarm"), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_deinit(nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_start(nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_stop(nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_tick(nullptr, 100), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_app_status(nullptr, 0), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_app_action(nullptr, "door", 0), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_event(nullptr, 0), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_cloud_reconnect_needed(nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_request_shutdown(nullptr), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_panel_command(nullptr, "", 1), ORV_INVALID_ARGUMENT);
    EXPECT_EQ(orv_client_connection_status(nullptr, ""), ORV_INVALID_ARGUMENT);
    orv_client_destroy(nullptr);
}

TEST(ABrokerThatRefuses, IsToldByCreateAndByInit) {
    Gateway gateway;
    gateway.broker.RefuseConnections(true);
    orv_client* client = reinterpret_cast<orv_client*>(&gateway);
    EXPECT_EQ(orv_client_create(nullptr, nullptr, &client), ORV_NO_BROKER);
    EXPECT_EQ(client, nullptr);
    gateway.broker.RefuseConnections(false);
    ASSERT_EQ(orv_client_create(nullptr, nullptr, &client), ORV_OK);
    gateway.broker.RefuseConnections(true);
    EXPECT_EQ(orv_client_init(client, "alarm"), ORV_NO_BROKER);
    gateway.broker.RefuseConnections(false);
    EXPECT_EQ(orv_client_init(client, "alarm"), ORV_OK);
    gateway.broker.RefuseConnections(true);
    EXPECT_EQ(orv_client_init(client, "alarm"), ORV_NO_BROKER); // not the answer before
    orv_client_destroy(client);
}

TEST_F(AClientInC, AnswersAnyOtherExceptionWithACode) {
    OrvPlatformFake::FakeBroker& broker = OrvPlatformFake::FakeBroker::Get();
    broker.SetPublishHook([](const std::string&) { throw 4711; });
    EXPECT_EQ(orv_client_connection_status(client, "roaming"), ORV_FAILED);
    broker.SetPublishHook(
        [](const std::string&) { throw std::system_error(std::make_error_code(std::errc::io_error)); });
    EXPECT_EQ(orv_client_connection_status(client, "roaming"), ORV_FAILED);
    broker.SetPublishHook(nullptr);
}

void ThrowBadAlloc() {
    throw std::bad_alloc();
}
void ThrowANumber() {
    throw 4711;
}

TEST_F(AClientInC, EndsAnExceptionOfACallbackAndSaysSo) {
    const Lines topics{FEATURES + "alarm/init", "/orv/panel/guid", "/orv/panel/connection_status", "/orv/modem/imei",
                       FEATURES + "shutdown_readiness/door"};
    for (void (*thrower)() : {ThrowBadAlloc, ThrowANumber}) {
        const std::size_t before = application.Heard().size();
        gateway.journal.Clear();
        application.then = thrower;
        for (const auto& topic : topics)
            EXPECT_NO_THROW(gateway.broker.Publish(topic, "enabled"));
        EXPECT_EQ(application.Heard().size() - before, topics.size());
        std::size_t records = 0;
        for (const auto& entry : gateway.journal.Entries())
            records += entry.what.find("A callback of the application has thrown an exception") != std::string::npos;
        EXPECT_EQ(records, topics.size());
    }
    application.then = nullptr;
    gateway.broker.Publish("/orv/panel/connection_status", "UP");
    EXPECT_EQ(application.Heard().back(), "online 1");
}

} // namespace
} // namespace OrvStackSdk::Testing
