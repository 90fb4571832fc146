// SPDX-License-Identifier: Apache-2.0
// The program itself in a network namespace of its own.
#include "AGatewayWithACloud.h"

namespace GatewayApp {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new PrivateNetwork::InPrivateNetwork);

TEST_F(AGatewayWithACloud, ReportsTheStateOfEverythingAtTheStart) {
    StartConnectedApp();
    for (const char* event : {"PANEL_CLOUD_ENABLED", "ETHERNET_CONNECTED", "ETHERNET_IP_GAINED", "CELLULAR_CONNECTED",
                              "CELLULAR_IP_LOST", "CLOUD_CONNECTED"})
        EXPECT_EQ(Count("\"event\":\"" + std::string(event) + "\",\"reported\":true"), 1) << event;
    EXPECT_TRUE(
        Has("\"what\":\"cloud_connected\",\"source\":\"10.11.0.2\",\"interface\":\"eth0\",\"family\":\"IPv4\""));
}

TEST_F(AGatewayWithACloud, ReportsWhatHappensToTheInterfaces) {
    StartConnectedApp();
    ASSERT_TRUE(Ip("addr add 10.12.0.2/24 dev wwan0"));
    EXPECT_TRUE(EventuallyHas("CELLULAR_IP_GAINED"));
    ASSERT_TRUE(Ip("link set wwan0-far down"));
    EXPECT_TRUE(EventuallyHas("CELLULAR_DISCONNECTED"));
    ASSERT_TRUE(Ip("link set wwan0-far up"));
    EXPECT_TRUE(EventuallyHas("CELLULAR_CONNECTED", 2));
    ASSERT_TRUE(Ip("addr del 10.12.0.2/24 dev wwan0"));
    EXPECT_TRUE(EventuallyHas("CELLULAR_IP_LOST", 2));
}

TEST_F(AGatewayWithACloud, NoticesASilentPathAndComesBack) {
    StartConnectedApp();
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(SilencePath());
    // The protocol's own ping would need more than 10 s.
    ASSERT_TRUE(Eventually([&] { return Has("\"what\":\"cloud_lost\""); }, std::chrono::seconds(8)));
    const auto taken = std::chrono::steady_clock::now() - begin;
    RecordProperty("detection_ms",
                   static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count()));
    ASSERT_TRUE(HealPath());
    EXPECT_TRUE(Eventually([&] { return Count("\"event\":\"CLOUD_CONNECTED\"") == 2; }, std::chrono::seconds(20)));
}

/// What the kernel's timer says of the idle connection to the cloud.
class AnIdleConnection : public AGatewayWithACloud {
protected:
    bool IsProbedAfter(const std::string& time) {
        const std::string show = "ss -Htno dport = :8883 | grep -qE 'timer:\\(keepalive," + time + ",'";
        return Eventually([&] { return std::system(show.c_str()) == 0; }, std::chrono::seconds(5));
    }
};

TEST_F(AnIdleConnection, OverEthernetIsAskedForASignOfLifeWithinASecond) {
    StartConnectedApp();
    EXPECT_TRUE(IsProbedAfter("[0-9]{2,3}ms"));
}

TEST_F(AnIdleConnection, OverCellularIsAskedForASignOfLifeEveryHalfMinute) {
    std::ofstream(config, std::ios::app) << "[interfaces]\nethernet = wwan0\ncellular = eth0\n";
    StartConnectedApp();
    EXPECT_TRUE(IsProbedAfter("2[0-9]sec"));
}

TEST_F(AGatewayWithACloud, DropsAConnectionWhoseAddressIsGone) {
    StartConnectedApp();
    ASSERT_TRUE(Ip("addr flush dev eth0"));
    EXPECT_TRUE(EventuallyHas("\"reason\":\"its address 10.11.0.2 is gone\""));
    ASSERT_TRUE(Ip("addr add 10.11.0.3/24 dev eth0") && Ip("route add default via 10.11.0.1"));
    EXPECT_TRUE(EventuallyHas("\"source\":\"10.11.0.3\""));
}

TEST_F(AGatewayWithACloud, DoesNotTrustAStranger) {
    ASSERT_TRUE(TrustsAStranger());
    StartApp();
    EXPECT_TRUE(EventuallyHas("\"what\":\"cloud_failed\"", 2));
    EXPECT_FALSE(Has("CLOUD_CONNECTED"));
}

TEST_F(AGatewayWithACloud, TellsWhenTheCloudRefusesItAndGoesOnTrying) {
    port = "8884";
    StartApp();
    EXPECT_TRUE(Eventually([&] { return Count("\"reason\":\"the connection was refused\"") >= 2; }));
}

TEST_F(AGatewayWithACloud, WaitsForItsOwnBroker) {
    gatewayBroker->Kill();
    StartApp();
    ASSERT_TRUE(EventuallyHas("\"what\":\"broker_unreachable\""));
    ASSERT_TRUE(EventuallyHas("\"event\":\"CLOUD_CONNECTED\",\"reported\":false"));
    gatewayBroker->Start();
    EXPECT_TRUE(EventuallyHas("\"what\":\"ready\""));
    EXPECT_TRUE(EventuallyHas("\"event\":\"CLOUD_CONNECTED\",\"reported\":true"));
}

TEST_F(AGatewayWithACloud, ReportsAFailureOfTheTimeWithoutItsOwnBroker) {
    gatewayBroker->Kill();
    StartApp();
    ASSERT_TRUE(EventuallyHas("\"what\":\"broker_unreachable\""));
    kill(app->Pid(), SIGUSR1);
    ASSERT_TRUE(EventuallyHas("\"event\":\"FAILURE\",\"reported\":false"));
    gatewayBroker->Start();
    EXPECT_TRUE(EventuallyHas("\"event\":\"FAILURE\",\"reported\":true"));
    EXPECT_EQ(app->End(SIGTERM), 0);
}

TEST_F(AGatewayWithACloud, HasItsBrokerToldWhatItHasMissed) {
    StartConnectedApp();
    const auto led = [this] {
        const std::string subscribe = "mosquitto_sub -h 127.0.0.1 -p " + std::to_string(gatewayBroker->Port()) +
                                      " -t /orv/led/connected_services_green -C 1 -W 1 >" + folder.Path("led");
        return std::system(subscribe.c_str()) == 0 ? Content(folder.Path("led")) : std::string();
    };
    ASSERT_TRUE(Eventually([&] { return led() == "On\n"; }));
    const int losses = Count("\"event\":\"CLOUD_DISCONNECTED\"");
    gatewayBroker->Kill();
    ASSERT_TRUE(Ip("addr flush dev eth0"));
    ASSERT_TRUE(EventuallyHas("\"event\":\"CLOUD_DISCONNECTED\"", losses + 1));
    gatewayBroker->Start();
    EXPECT_TRUE(Eventually([&] { return led() == "Off\n"; }));
}

TEST_F(AGatewayWithACloud, ReloadsWhenItIsOrderedTo) {
    StartConnectedApp();
    const std::string publish = "mosquitto_pub -h 127.0.0.1 -p " + std::to_string(gatewayBroker->Port()) +
                                " -t /orv/apps_control/features/gateway-app/init -m reload";
    ASSERT_EQ(std::system(publish.c_str()), 0);
    EXPECT_TRUE(EventuallyHas("\"action\":\"RELOAD\""));
    EXPECT_TRUE(EventuallyHas("\"what\":\"reload\""));
}

TEST_F(AGatewayWithACloud, ReadsTheLevelsOfTheLogAnewOnSighup) {
    StartConnectedApp();
    const auto logged = [this](const char* text) { return Content(folder.Path("app.log")).find(text); };
    ASSERT_EQ(logged(" trace "), std::string::npos);
    std::ofstream(config, std::ios::app) << "[log]\nlevel = info,OrvStackClient=trace\n";
    kill(app->Pid(), SIGHUP);
    EXPECT_TRUE(Eventually([&] { return logged("trace [OrvStackClient] AppStatusRequest(") != std::string::npos; }));
    EXPECT_TRUE(EventuallyHas("\"what\":\"reload\""));
    std::ofstream(config, std::ios::app) << "level = loud\n";
    kill(app->Pid(), SIGHUP);
    EXPECT_TRUE(Eventually([&] {
        return logged("The levels of the log stay as they were, info,OrvStackClient=trace") != std::string::npos;
    }));
}

TEST_F(AGatewayWithACloud, ReportsAFailureOnRequest) {
    StartConnectedApp();
    kill(app->Pid(), SIGUSR1);
    EXPECT_TRUE(EventuallyHas("\"event\":\"FAILURE\""));
}

TEST_F(AGatewayWithACloud, PutsTheStatusFileRightWithinASecond) {
    StartConnectedApp();
    const std::string file = "/var/tmp/new_enterprise_statuses.csv";
    const auto right = [&file] { return Content(file).find("\"Cloud Connection\",\"Up\"") != std::string::npos; };
    ASSERT_TRUE(Eventually(right));
    // What another client of the library writes when it is made.
    std::ofstream(file) << "\"Enterprise Feature\",\"Disabled\"\n\"Cloud Connection\",\"Down\"\n\"Ethernet\",\"Down\"\n"
                           "\"Cellular\",\"Down\"";
    EXPECT_TRUE(Eventually(right, std::chrono::seconds(1)));
    ASSERT_TRUE(std::filesystem::remove(file));
    EXPECT_TRUE(Eventually(right, std::chrono::seconds(1)));
}

TEST_F(AGatewayWithACloud, IsToldWhenItIsTheSecondAndNotStartedAgain) {
    StartConnectedApp();
    ChildProgram second(AppWords(), folder.Path("second.log"));
    EXPECT_EQ(second.End(0), 75);
    EXPECT_NE(Content(ORV_GATEWAY_APP_UNIT).find("\nRestartPreventExitStatus=75\n"), std::string::npos);
    EXPECT_NE(Content(folder.Path("second.log")).find("another gateway-app runs on this gateway already, process"),
              std::string::npos);
}

TEST_F(AGatewayWithACloud, SaysThatWithoutAnEndpointNoRouteMoves) {
    StartApp();
    EXPECT_TRUE(Eventually([this] {
        return Content(folder.Path("app.log")).find("the WAN route will never move: gateway.ini names no endpoint") !=
               std::string::npos;
    }));
}

/// What the application tells about itself.
class AStatusOfItsOwn : public AGatewayWithACloud {
protected:
    bool StatusHas(const std::string& text) const { return Content(statusFile).find(text) != std::string::npos; }
    bool StatusEventuallyHas(const std::string& text) const {
        return Eventually([&] { return StatusHas(text); });
    }
    /// How many of the log's lines hold the text.
    int Lines(const std::string& text) const {
        int count = 0;
        for (const std::string& line : OrvPlatform::Testing::SplitLines(Content(folder.Path("app.log"))))
            count += line.find(text) != std::string::npos ? 1 : 0;
        return count;
    }
};

TEST_F(AStatusOfItsOwn, HasTheCloudItsPathAndSinceWhen) {
    StartConnectedApp();
    EXPECT_TRUE(StatusEventuallyHas("\"cloud\":{\"state\":\"connected\",\"path\":\"ethernet\",\"interface\":\"eth0\","
                                    "\"family\":\"IPv4\",\"source\":\"10.11.0.2\""));
    EXPECT_TRUE(StatusEventuallyHas("\"reason\":\"connected over eth0\""));
    EXPECT_TRUE(StatusHas("\"running\":true") && StatusHas("\"session_ready\":true"));
    EXPECT_TRUE(StatusHas("\"route\":{\"path\":\"ethernet\""));
    EXPECT_TRUE(StatusHas("\"cloud_losses\":0,"));
}

TEST_F(AStatusOfItsOwn, HasTheLossOfTheCloudAndItsReason) {
    StartConnectedApp();
    ASSERT_TRUE(Ip("addr flush dev eth0"));
    EXPECT_TRUE(StatusEventuallyHas("\"state\":\"disconnected\",\"path\":\"none\""));
    EXPECT_TRUE(StatusEventuallyHas("\"reason\":\"its address 10.11.0.2 is gone\""));
    EXPECT_TRUE(StatusEventuallyHas("\"cloud_losses\":1,"));
}

TEST_F(AStatusOfItsOwn, SaysThatItHasEnded) {
    StartConnectedApp();
    ASSERT_TRUE(StatusEventuallyHas("\"cloud\":{\"state\":\"connected\""));
    EXPECT_EQ(app->End(SIGTERM), 0);
    EXPECT_TRUE(StatusHas("\"running\":false"));
    EXPECT_TRUE(StatusHas("\"cloud_losses\":0,")) << "its own good-bye is no loss";
}

TEST_F(AStatusOfItsOwn, HasAMoveThatOthersMade) {
    ASSERT_TRUE(Ip("addr add 10.12.0.2/24 dev wwan0"));
    StartConnectedApp();
    ASSERT_TRUE(Ip("route replace default via 10.12.0.1"));
    EXPECT_TRUE(StatusEventuallyHas("\"from\":\"ethernet\",\"to\":\"cellular\",\"reason\":\"not by this application"));
    EXPECT_TRUE(StatusEventuallyHas("\"route\":{\"path\":\"cellular\",\"interface\":\"wwan0\""));
    EXPECT_TRUE(StatusHas("\"fail_overs\":1,\"returns\":0"));
    EXPECT_EQ(Lines("the WAN route has moved from Ethernet (eth0) to Cellular (wwan0): "), 1);
}

TEST_F(AStatusOfItsOwn, IsMissedOnceWhereItCannotBeWritten) {
    ASSERT_TRUE(std::filesystem::create_directory(statusFile));
    StartConnectedApp();
    ASSERT_TRUE(Ip("link set wwan0-far down"));
    ASSERT_TRUE(EventuallyHas("CELLULAR_DISCONNECTED"));
    EXPECT_EQ(Lines("orv-status will not see this application: cannot replace"), 1);
}

TEST_F(AGatewayWithACloud, EndsInOrder) {
    StartConnectedApp();
    const int losses = Count("\"event\":\"CLOUD_DISCONNECTED\",\"reported\":true");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(app->End(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(Count("\"event\":\"CLOUD_DISCONNECTED\",\"reported\":true"), losses + 1);
    EXPECT_TRUE(Has("\"what\":\"end\",\"tick\":{\"count\":"));
}

} // namespace
} // namespace GatewayApp
