// SPDX-License-Identifier: Apache-2.0
#include "Snapshot.h"
#include "Json.h"
#include "Table.h"

#include <gtest/gtest.h>

namespace OrvStatus {
namespace {

using AppState = ApplicationView::State;

/// Every part is there; gateway-app has the cloud over Ethernet.
class AHealthyGateway : public testing::Test {
protected:
    AHealthyGateway() {
        snapshot.at = {"2026-01-02T03:04:05.000Z", 1000};
        snapshot.broker.state = Known::PRESENT;
        snapshot.broker.complete = true;
        snapshot.broker.address = "127.0.0.1:1883";
        Receive(GREEN, "On");
        Receive(YELLOW, "Off");
        Receive(CLOUD_TOPIC, "true");
        snapshot.network.state = Known::PRESENT;
        snapshot.network.interfaces = {{"eth0", "ethernet", true, true, {"10.1.0.2/24"}, 11, 12},
                                       {"wwan0", "cellular", true, true, {"10.2.0.2/24"}, 21, 22}};
        snapshot.network.defaults = {{"eth0", "10.1.0.1", 0}};
        snapshot.connman.state = Known::PRESENT;
        snapshot.connman.services = {{"eth0", "online", {"10.1.0.1"}}, {"wwan0", "ready", {}}};
        ApplicationView& application = snapshot.application;
        application.state = AppState::RUNNING;
        application.name = "alarm";
        application.cloudState = "connected";
        application.cloudPath = "ethernet";
        application.cloudFamily = "IPv4";
        application.cloudReason = "connected over eth0";
        application.cloudSince = {"2026-01-02T03:00:00.000Z", 755};
        application.counters = {{"fail_overs", 2}, {"returns", 1}};
    }
    void Receive(const char* topic, const std::string& payload) {
        snapshot.broker.topics[topic] = {payload, payload.size(), true};
    }
    Verdict Judged() const { return Judge(snapshot); }
    void WithoutApplication(AppState state) {
        snapshot.application = {};
        snapshot.application.state = state;
        snapshot.application.reason = "so it is";
    }

    Snapshot snapshot;
};

TEST_F(AHealthyGateway, IsWhatGatewayAppSays) {
    EXPECT_EQ(Judged().exitStatus, 0);
    EXPECT_EQ(Judged().since, "2026-01-02T03:00:00.000Z");
    EXPECT_EQ(Judged().basis, "alarm says so");
    snapshot.application.cloudPath = "cellular";
    EXPECT_EQ(Judged().exitStatus, 10);
    snapshot.application.cloudPath = "other";
    EXPECT_EQ(Judged().exitStatus, 30);
    snapshot.application.cloudState = "disconnected";
    EXPECT_EQ(Judged().exitStatus, 20);
    snapshot.application.cloudState = "disabled";
    EXPECT_EQ(Judged().exitStatus, 20);
}

TEST_F(AHealthyGateway, IsInferredWhereThereIsNoStatusFile) {
    WithoutApplication(AppState::ABSENT);
    EXPECT_EQ(Judged().exitStatus, 0);
    EXPECT_EQ(Judged().since, "");
    EXPECT_EQ(Judged().basis,
              "inferred from /orv/apps_control/features/Ent/status/EntCon and the kernel's default route");
    snapshot.network.defaults = {{"wwan0", "", 0}};
    EXPECT_EQ(Judged().exitStatus, 10);
    snapshot.network.defaults = {{"tun0", "", 0}};
    EXPECT_EQ(Judged().exitStatus, 30);
    snapshot.network.state = Known::UNKNOWN;
    EXPECT_EQ(Judged().path, "unknown");
    Receive(CLOUD_TOPIC, "false");
    EXPECT_EQ(Judged().exitStatus, 20);
    Receive(CLOUD_TOPIC, "perhaps");
    EXPECT_EQ(Judged().exitStatus, 30);
    snapshot.broker = {};
    EXPECT_EQ(Judged().exitStatus, 30);
    EXPECT_EQ(Judged().basis, "there is no status file of gateway-app, and the broker is unknown");
}

TEST_F(AHealthyGateway, IsUnknownWhenWhoSaidSoMayBeGone) {
    for (const AppState state : {AppState::ENDED, AppState::GONE, AppState::STUCK}) {
        WithoutApplication(state);
        EXPECT_EQ(Judged().exitStatus, 30) << Text(state);
        EXPECT_EQ(Judged().basis, std::string("gateway-app ") + (state == AppState::ENDED ? "has " : "is ") +
                                      Text(state) + ": so it is");
    }
}

TEST_F(AHealthyGateway, HasItsLedsFromTheirTopicsAlone) {
    EXPECT_STREQ(LedState(snapshot.broker, GREEN), "on");
    EXPECT_STREQ(LedState(snapshot.broker, YELLOW), "off");
    Receive(YELLOW, "Blink");
    EXPECT_STREQ(LedState(snapshot.broker, YELLOW), "blink");
    Receive(YELLOW, "blinking");
    EXPECT_STREQ(LedState(snapshot.broker, YELLOW), "unknown");
    snapshot.broker.topics.clear();
    EXPECT_STREQ(LedState(snapshot.broker, GREEN), "unknown");
}

TEST_F(AHealthyGateway, IsShownAsATable) {
    EXPECT_EQ(
        Table(snapshot, {false, false}),
        "cloud        connected over Ethernet in IPv4 since 2026-01-02T03:00:00.000Z (4 min): connected over eth0\n"
        "             alarm says so\n"
        "LEDs         [*] green on   [ ] yellow off\n"
        "network      default route over eth0 by 10.1.0.1\n"
        "  eth0       Ethernet, up, 10.1.0.2/24\n"
        "  wwan0      Cellular, up, 10.2.0.2/24\n"
        "ConnMan      eth0 online, then wwan0 ready\n"
        "broker       127.0.0.1:1883, 3 topics\n"
        "gateway-app  running since , 2 fail-overs, 1 returns, unknown losses of the cloud\n");
    EXPECT_NE(Table(snapshot, {true, true}).find("\x1b[32m\u25cf\x1b[0m green on"), std::string::npos);
}

TEST_F(AHealthyGateway, NamesTheFamilyOfItsConnection) {
    const std::string before = Fingerprint(snapshot);
    snapshot.application.cloudFamily = "IPv6";
    EXPECT_EQ(Table(snapshot, {}).find("cloud        connected over Ethernet in IPv6 since "), 0U);
    EXPECT_NE(Json(snapshot).find(R"("path":"ethernet","family":"IPv6",)"), std::string::npos) << Json(snapshot);
    EXPECT_NE(Fingerprint(snapshot), before) << "it is news";
}

TEST_F(AHealthyGateway, KnowsNoFamilyWhereItsConnectionIsOnlyInferred) {
    WithoutApplication(AppState::ABSENT);
    EXPECT_EQ(Table(snapshot, {}).find("cloud        connected over Ethernet\n"), 0U) << Table(snapshot, {});
    EXPECT_NE(Json(snapshot).find(R"("path":"ethernet","family":null,)"), std::string::npos) << Json(snapshot);
}

TEST_F(AHealthyGateway, ShowsTheDefaultRoutesOfBothFamilies) {
    const auto network = [this] {
        const std::string table = Table(snapshot, {});
        const std::size_t begin = table.find("\nnetwork ") + 14;
        return table.substr(begin, table.find('\n', begin) - begin);
    };
    snapshot.network.defaults = {{"eth0", "10.1.0.1", 0, false},
                                 {"wwan0", "10.2.0.1", 9, false},
                                 {"eth0", "fe80::1", 100, true},
                                 {"wwan0", "fe80::2", 1024, true}};
    EXPECT_EQ(network(), "default route over eth0 by 10.1.0.1, then wwan0 by 10.2.0.1, "
                         "in IPv6 eth0 by fe80::1, then wwan0 by fe80::2");
    EXPECT_NE(Json(snapshot).find(R"({"interface":"eth0","family":"IPv6","gateway":"fe80::1","metric":100})"),
              std::string::npos)
        << Json(snapshot);
    snapshot.network.defaults = {{"wwan0", "", 100, true}, {"eth0", "10.1.0.1", 0, false}};
    EXPECT_EQ(network(), "default route over wwan0, in IPv4 eth0 by 10.1.0.1");
    EXPECT_EQ(snapshot.network.Path(), "cellular");
}

TEST_F(AHealthyGateway, ShowsThatAServiceHasNoInterface) {
    snapshot.connman.services.push_back({"", "idle", {}});
    EXPECT_NE(
        Table(snapshot, {false, false}).find("ConnMan      eth0 online, then wwan0 ready, then (no interface) idle\n"),
        std::string::npos);
    EXPECT_NE(Json(snapshot).find(R"({"interface":null,"state":"idle")"), std::string::npos) << Json(snapshot);
}

class AGatewayThatCouldNotFailOver : public AHealthyGateway {
protected:
    NetworkView::Interface& Cellular() { return snapshot.network.interfaces[1]; }
};

TEST_F(AGatewayThatCouldNotFailOver, SaysWhatIsMissingAndTheRemedy) {
    EXPECT_EQ(NoFailOver(snapshot), "");
    snapshot.connman.services[1].state = "idle";
    EXPECT_EQ(NoFailOver(snapshot), "ConnMan has no connected service on wwan0 (connmanctl services)");
    Cellular().addresses.clear();
    EXPECT_EQ(NoFailOver(snapshot), "wwan0 has no address. Connect its service (connmanctl services)");
    Cellular().running = false;
    EXPECT_EQ(NoFailOver(snapshot), "wwan0 has no link. Is the modem registered with a network?");
    Cellular().exists = false;
    EXPECT_EQ(NoFailOver(snapshot), "there is no interface wwan0. Is the modem there (ip link)?");
    snapshot.hasEndpoint = false;
    EXPECT_EQ(NoFailOver(snapshot),
              "gateway.ini names no endpoint to prove a path with. Set endpoint = HOST in [cloud]");
    EXPECT_NE(Table(snapshot, {}).find("\nfail-over    not possible: gateway.ini names no endpoint"),
              std::string::npos);
}

TEST_F(AGatewayThatCouldNotFailOver, SaysWhatItsApplicationHasFoundOutByTrying) {
    const std::string before = Fingerprint(snapshot);
    snapshot.application.noFailOver = "over wwan0 the endpoint proves nothing";
    EXPECT_EQ(NoFailOver(snapshot), "over wwan0 the endpoint proves nothing");
    EXPECT_NE(Fingerprint(snapshot), before) << "it is news";
    snapshot.application.state = AppState::STUCK;
    EXPECT_EQ(NoFailOver(snapshot), "") << "what it said may not hold any more";
}

TEST_F(AGatewayThatCouldNotFailOver, HasNothingToSayOnceItHas) {
    Cellular().addresses.clear();
    snapshot.network.defaults = {{"wwan0", "", 0}};
    EXPECT_EQ(NoFailOver(snapshot), "");
}

TEST_F(AGatewayThatCouldNotFailOver, DoesNotGuessWithoutConnMan) {
    snapshot.connman = {};
    EXPECT_EQ(NoFailOver(snapshot), "");
}

TEST_F(AHealthyGateway, IsShownOnALine) {
    EXPECT_EQ(Line(snapshot),
              "cloud connected over Ethernet in IPv4 (connected over eth0); green on, yellow off; default route eth0; "
              "broker present, ConnMan present, gateway-app running");
}

TEST_F(AHealthyGateway, IsCounted) {
    const std::string metrics = Metrics(snapshot);
    for (const char* line :
         {"# TYPE orv_status gauge\norv_status 0\n", "orv_part_up{part=\"broker\"} 1\n",
          "orv_part_up{part=\"gateway-app\"} 1\n", "# TYPE orv_fail_overs_total counter\norv_fail_overs_total 2\n",
          "orv_interface_received_bytes_total{role=\"cellular\"} 21\n"})
        EXPECT_NE(metrics.find(line), std::string::npos) << line << metrics;
    EXPECT_EQ(metrics.find("longest_tick"), std::string::npos) << "it is not known";
}

TEST_F(AHealthyGateway, IsNotCountedForAnApplicationThatIsGone) {
    snapshot.application.state = AppState::GONE;
    const std::string metrics = Metrics(snapshot);
    EXPECT_EQ(metrics.find("fail_overs"), std::string::npos);
    EXPECT_NE(metrics.find("orv_status 30\n"), std::string::npos);
    EXPECT_NE(metrics.find("orv_part_up{part=\"gateway-app\"} 0\n"), std::string::npos);
}

TEST_F(AHealthyGateway, HasNoNewsInCountsAndTimes) {
    const std::string before = Fingerprint(snapshot);
    snapshot.at = {"2026-01-02T03:05:05.000Z", 1060};
    snapshot.network.interfaces[0].receivedBytes = 5000;
    snapshot.application.counters[0].value = 5;
    EXPECT_EQ(Fingerprint(snapshot), before);
    Receive(GREEN, "Off");
    EXPECT_NE(Fingerprint(snapshot), before);
}

TEST_F(AHealthyGateway, SaysOfEachTopicWhetherItIsRetained) {
    const std::string before = Fingerprint(snapshot);
    const auto says = [this](const char* value) {
        return Json(snapshot).find(std::string("Green\",\"bytes\":5,\"retained\":") + value + "}") != std::string::npos;
    };
    Receive("/orv/other", "Green");
    EXPECT_TRUE(says("true"));
    EXPECT_NE(Fingerprint(snapshot), before);
    snapshot.broker.topics["/orv/other"].retained = false;
    EXPECT_TRUE(says("false"));
    snapshot.broker.topics["/orv/other"].retained.reset();
    EXPECT_TRUE(says("null"));
}

TEST_F(AHealthyGateway, IsJsonWithoutAnythingThatSteersATerminal) {
    snapshot.application.text = "{\"name\":\"a\\u001b[2Jb\xff\",\"list\":[\"\\u0007\"]}";
    const std::string json = Json(snapshot);
    EXPECT_NE(json.find("\"status\":{\"name\":\"a\\\\x1b[2Jb\\\\xff\",\"list\":[\"\\\\x07\"]}"), std::string::npos)
        << json;
    for (const char character : json)
        EXPECT_TRUE(character >= ' ' && character <= '~');
}

} // namespace
} // namespace OrvStatus
