// SPDX-License-Identifier: Apache-2.0
// The application's whole life on the library's test kit, in virtual time: the real application and the real client,
// with the cloud and the kernel in the test's hands.
#include "LifeScene.h"

namespace GatewayApp {
namespace {

TEST_F(TheLifeOfTheApplication, BeginsWithoutABrokerAndGoesOnWhenItIsThere) {
    gateway.broker.RefuseConnections(true);
    At(20s, [&] {
        EXPECT_EQ(gateway.broker.Published(FEATURE + "/init"), Payloads{});
        gateway.broker.RefuseConnections(false);
    });
    At(30s, [&] { EXPECT_EQ(gateway.broker.Published(FEATURE + "/init"), (Payloads{"booting", "ready"})); });
    RunUntil(31s);
}

TEST_F(TheLifeOfTheApplication, GoesOnOnlyWhenTheBrokerHasConfirmedItsName) {
    gateway.broker.RefuseInit(true);
    At(20s, [&] {
        EXPECT_EQ(gateway.broker.Published(CLOUD), Payloads{}) << "no event was reported";
        EXPECT_EQ(gateway.journal.Text({"publish ORV_Stack"}), "") << "nothing was announced";
        gateway.broker.RefuseInit(false);
    });
    At(30s, [&] { EXPECT_EQ(gateway.broker.Published(FEATURE + "/init"), (Payloads{"booting", "ready"})); });
    RunUntil(31s);
}

TEST_F(TheLifeOfTheApplication, MovesToCellularAndBackWithItsCloudConnection) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] {
        EXPECT_EQ(gateway.broker.Retained(GREEN), "On");
        gateway.journal.Clear();
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(14s, [&] {
        EXPECT_EQ(gateway.connman.Top(), "wwan0");
        around.DefaultRouteBecomes("wwan0");
        around.cloudAnswers("198.51.100.2");
    });
    At(15s, [&] {
        EXPECT_EQ(gateway.broker.Retained(GREEN), "On");
        EXPECT_EQ(gateway.broker.Retained("/orv/network/wan/inhibit_dns"), "inhibit");
        EXPECT_EQ("", Difference("poke wwan0 reached the cloud\n"
                                 "cloud connection: the WAN route has changed\n"
                                 "cloud connection: the default route has changed\n",
                                 gateway.journal.Text({"poke wwan0", "cloud connection"})));
        gateway.journal.Clear();
        gateway.poke.Reaches("eth0");
    });
    At(16s, [&] {
        EXPECT_EQ(gateway.connman.Top(), "eth0");
        EXPECT_EQ(gateway.broker.Retained("/orv/network/wan/inhibit_dns"), "permit");
        around.cloudAnswers("198.51.100.2"); // sooner than the kernel has followed, thus over Cellular again
        around.DefaultRouteBecomes("eth0");
    });
    RunUntil(21s);
    EXPECT_EQ("", Difference("poke eth0 reached the cloud\n"
                             "cloud connection: the WAN route has changed\n"
                             "cloud connection: the default route has followed\n"
                             "cloud connection closed\n",
                             gateway.journal.Text({"poke eth0 reached", "cloud connection"})));
}

TEST_F(TheLifeOfTheApplication, KeepsACloudConnectionThatHasBegunOnTheNewPath) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(12s + 300ms, [&] {
        EXPECT_EQ(gateway.connman.Top(), "wwan0");
        gateway.journal.Clear();
        around.DefaultRouteBecomes("wwan0"); // before the library says that the route has moved
    });
    At(20s, [&] {
        EXPECT_EQ("cloud connection: the default route has changed\n", gateway.journal.Text({"cloud connection"}));
    });
    RunUntil(21s);
}

TEST_F(TheLifeOfTheApplication, WaitsForADefaultRouteBeforeItConnectsAnew) {
    At(1s, [&] {
        gateway.journal.Clear();
        around.DefaultRouteBecomes("");
        EXPECT_EQ("", gateway.journal.Text({"cloud connection"}));
        around.DefaultRouteBecomes("wwan0");
        EXPECT_EQ("cloud connection: the default route has changed\n", gateway.journal.Text({"cloud connection"}));
    });
    RunUntil(2s);
}

TEST_F(TheLifeOfTheApplication, ReadsItsOptionsAnewOnReload) {
    At(1s, [&] {
        gateway.broker.Clear();
        gateway.broker.Publish(FEATURE + "/init", "reload");
    });
    RunUntil(2s);
    EXPECT_EQ(gateway.broker.Published(FEATURE + "/init"), (Payloads{"booting", "ready"}));
}

TEST_F(TheLifeOfTheApplication, ReadsItsOptionsAnewOnHangUp) {
    At(1s, [&] {
        gateway.broker.Clear();
        raise(SIGHUP);
    });
    RunUntil(2s);
    EXPECT_EQ(gateway.broker.Published(FEATURE + "/init"), (Payloads{"booting", "ready"}));
}

TEST_F(TheLifeOfTheApplicationWithAnOptionsFile, ConnectsToAnotherCloudThatAReloadNames) {
    IsReloadedWith("cloud-host=other.example\n");
    At(2s, [&] {
        EXPECT_EQ("cloud connection: other cloud settings\n", gateway.journal.Text({"cloud connection"}));
        EXPECT_EQ(gateway.broker.Retained(GREEN), "Off");
    });
    RunUntil(3s);
}

TEST_F(TheLifeOfTheApplicationWithAnOptionsFile, StaysWithItsCloudAndIsReadyAgainWhenAReloadCannotBeRead) {
    IsReloadedWith("no-such-option=1\n");
    At(2s, [&] {
        EXPECT_EQ("", gateway.journal.Text({"cloud connection"}));
        EXPECT_EQ(gateway.broker.Published(FEATURE + "/init"), (Payloads{"booting", "ready"}));
        EXPECT_EQ(gateway.broker.Retained(GREEN), "On");
    });
    RunUntil(3s);
}

TEST_F(TheLifeOfTheApplication, KeepsAFailureThatWasThereBeforeTheBroker) {
    gateway.broker.RefuseConnections(true);
    At(1s, [] { raise(SIGUSR1); });
    At(2s, [&] {
        gateway.broker.RefuseConnections(false);
        around.cloudAnswers("192.0.2.2");
    });
    RunUntil(20s);
    EXPECT_EQ(gateway.broker.Retained(YELLOW), "Blink");
    EXPECT_EQ(gateway.broker.Retained(GREEN), "Blink");
}

TEST_F(TheLifeOfTheApplication, ReportsTheCloudsStateAnewWhenAnotherProgramWroteTheStatusFile) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] {
        gateway.broker.Clear();
        around.AnotherProgramWritesTheCsv();
        EXPECT_EQ(gateway.broker.Published(CLOUD), Payloads{"true"}) << "with every event the library writes the file";
    });
    RunUntil(3s);
}

TEST_F(TheLifeOfTheApplication, HasADefaultRouteSetAnewThatAnotherProgramReplaced) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] {
        gateway.journal.Clear();
        around.DefaultRouteBecomes("wwan0");
    });
    RunUntil(30s);
    EXPECT_EQ("", Difference("connman top wwan0\n"
                             "connman top eth0\n",
                             gateway.journal.Text({"connman top"})));
}

TEST_F(TheLifeOfTheApplication, ReportsAFailureAndKeepsBlinking) {
    At(1s, [] { raise(SIGUSR1); });
    At(2s, [&] { around.cloudAnswers("192.0.2.2"); });
    RunUntil(3s);
    EXPECT_EQ(gateway.broker.Retained(YELLOW), "Blink");
    EXPECT_EQ(gateway.broker.Retained(GREEN), "Blink");
    EXPECT_NE(gateway.ErrorFile(), "");
}

TEST_F(TheLifeOfTheApplication, LosesItsCloudConnectionWithTheAddressUnderIt) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] { around.AddressesBecome("", "198.51.100.2"); });
    At(3s, [&] { EXPECT_EQ(gateway.broker.Retained(GREEN), "Off"); });
    RunUntil(4s);
    EXPECT_NE(gateway.journal.Text().find("cloud connection: its address 192.0.2.2 is gone"), std::string::npos);
}

TEST_F(TheLifeOfTheApplicationWithAnOptionsFile, StaysTheSameAtItsCloudWhenAReloadNamesItOtherwise) {
    IsReloadedWith("cloud-host=cloud.example\nname=other\n");
    At(2s, [&] {
        EXPECT_EQ("", gateway.journal.Text({"cloud connection"}));
        EXPECT_EQ(gateway.broker.Published(FEATURE + "/init"), (Payloads{"booting", "ready"}));
    });
    RunUntil(3s);
}

TEST_F(TheLogOfTheApplication, HasOneLineForAFailOverAndOneForTheReturn) {
    At(2s, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(14s, [&] {
        around.DefaultRouteBecomes("wwan0");
        around.cloudAnswers("198.51.100.2");
    });
    At(40s, [&] {
        EXPECT_EQ(Moves(), 1U);
        gateway.poke.Reaches("eth0");
    });
    At(41s, [&] {
        around.DefaultRouteBecomes("eth0");
        around.cloudAnswers("192.0.2.2");
    });
    RunUntil(100s);
    EXPECT_EQ(Moves(), 2U);
    EXPECT_EQ(
        Lines("from Ethernet (eth0) to Cellular (wwan0): the cloud was lost on Ethernet (timed out) and a poke over "
              "Cellular succeeded; the switch took ")
            .size(),
        1U);
    EXPECT_EQ(
        Lines("from Cellular (wwan0) to Ethernet (eth0): a poke over Ethernet succeeded; the switch took ").size(), 1U);
}

/// Ethernet is taken away and comes back.
struct Interruption {
    const char* name;
    void (*takeAway)(Surroundings&);
    void (*bringBack)(Surroundings&);
    const char* reason;
};

class TheLogOfTheApplicationWithoutEthernet : public TheLogOfTheApplication,
                                              public ::testing::WithParamInterface<Interruption> {};

TEST_P(TheLogOfTheApplicationWithoutEthernet, HasOneLineForAMoveOfConnMansAndOneForTheReturn) {
    At(2s, [&] {
        GetParam().takeAway(around);
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
        around.DefaultRouteBecomes("wwan0");
    });
    At(4s, [&] { around.cloudAnswers("198.51.100.2"); });
    At(60s, [&] {
        EXPECT_EQ(Moves(), 1U);
        GetParam().bringBack(around);
        gateway.poke.Reaches("eth0");
    });
    At(62s, [&] {
        EXPECT_EQ(gateway.connman.Top(), "eth0");
        around.DefaultRouteBecomes("eth0");
        around.cloudAnswers("192.0.2.2");
    });
    RunUntil(10min);
    EXPECT_EQ(Moves(), 2U);
    EXPECT_EQ(
        Lines(std::string("log info GatewayApp \"the WAN route has moved from Ethernet (eth0) to Cellular (wwan0): ") +
              GetParam().reason + ", and ConnMan took the other interface; the switch took ")
            .size(),
        1U);
    EXPECT_EQ(
        Lines("log info GatewayApp \"the WAN route has moved from Cellular (wwan0) to Ethernet (eth0): a poke over "
              "Ethernet succeeded")
            .size(),
        1U);
}

INSTANTIATE_TEST_SUITE_P(
    , TheLogOfTheApplicationWithoutEthernet,
    ::testing::Values(Interruption{"NoLink",
                                   [](Surroundings& around) {
                                       around.EthernetLinkBecomes(Surroundings::Link::DOWN);
                                       around.AddressesBecome("", "198.51.100.2");
                                   },
                                   [](Surroundings& around) {
                                       around.EthernetLinkBecomes(Surroundings::Link::UP);
                                       around.AddressesBecome("192.0.2.2", "198.51.100.2");
                                   },
                                   "Ethernet has no link"},
                      Interruption{"NoInterface",
                                   [](Surroundings& around) { around.EthernetLinkBecomes(Surroundings::Link::GONE); },
                                   [](Surroundings& around) { around.EthernetLinkBecomes(Surroundings::Link::UP); },
                                   "Ethernet has no link"},
                      Interruption{"NoAddress",
                                   [](Surroundings& around) { around.AddressesBecome("", "198.51.100.2"); },
                                   [](Surroundings& around) { around.AddressesBecome("192.0.2.2", "198.51.100.2"); },
                                   "Ethernet has no address"}),
    [](const auto& interruption) { return interruption.param.name; });

TEST_F(TheLogOfTheApplication, HasOneLineForAMoveOfAnotherProgramsAndOneForTheReturn) {
    At(2s, [&] { around.DefaultRouteBecomes("wwan0"); });
    At(30s, [&] {
        EXPECT_EQ(Moves(), 1U);
        around.DefaultRouteBecomes("eth0");
    });
    RunUntil(10min);
    EXPECT_EQ(Moves(), 2U);
    for (const char* ends : {"Ethernet (eth0) to Cellular (wwan0)", "Cellular (wwan0) to Ethernet (eth0)"})
        EXPECT_EQ(Lines(std::string("log info GatewayApp \"the WAN route has moved from ") + ends +
                        ": not by this application: ConnMan's order has changed, or another program has set the route; "
                        "the switch took 3.")
                      .size(),
                  1U);
}

TEST_F(TheLogOfTheApplication, HasItsLineForAMoveThoughTheBrokerHasNotBeenThereYet) {
    gateway.broker.RefuseConnections(true);
    At(2s, [&] { around.DefaultRouteBecomes("wwan0"); });
    At(6s, [&] { EXPECT_EQ(Lines("another program has set the route; the switch took 3.0 s").size(), 1U); });
    RunUntil(10s);
    EXPECT_EQ(Moves(), 1U);
}

TEST_F(TheLogOfTheApplication, HasOneLineForAMoveThatTheKernelDoesNotFollow) {
    At(2s, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    RunUntil(10min);
    EXPECT_EQ(Moves(), 1U);
    EXPECT_EQ(Lines("succeeded, but the kernel's default route still leads elsewhere; the switch took ").size(), 1U);
}

TEST_F(TheLogOfTheApplication, SaysOnceInAnOutageWhyCellularDoesNotTakeOver) {
    At(2s, [&] { around.AddressesBecome("192.0.2.2", ""); });
    At(20s, [&] { EXPECT_EQ(Lines("no fail-over"), Payloads{}) << "the cloud is there"; });
    At(21s, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(33s, [&] { EXPECT_EQ(Lines("no fail-over"), Payloads{}) << "it was not yet due"; });
    At(36s, [&] { EXPECT_EQ(Lines("no fail-over").size(), 1U); });
    RunUntil(30min);
    const Payloads said = Lines("no fail-over");
    ASSERT_EQ(said.size(), 1U);
    EXPECT_NE(said[0].find("warning"), std::string::npos);
    EXPECT_NE(said[0].find("no fail-over to Cellular: wwan0 has no address. Connect its service once "
                           "(connmanctl services, connmanctl connect SERVICE)"),
              std::string::npos);
}

class AFailOverThatFails : public TheLogOfTheApplication {
protected:
    /// Neither interface reaches the cloud, and the application's own look has this result.
    Payloads LogOf(PathProver::Result result) {
        around.proof = std::move(result);
        At(2s, [&] {
            gateway.poke.Fails("eth0", 28);
            gateway.poke.Fails("wwan0", 6);
            around.cloudBreaks("timed out");
        });
        RunUntil(1h);
        return Lines("does not prove the path to the cloud: ");
    }
};

TEST_F(AFailOverThatFails, IsExplainedOnceByANameThatIsNotFound) {
    const Payloads said = LogOf({false, "its name is not found", false, false, PathProver::Cause::NAME});
    ASSERT_EQ(said.size(), 1U);
    EXPECT_NE(said[0].find("log warning GatewayApp"), std::string::npos) << said[0];
    EXPECT_NE(said[0].find("over wwan0 the endpoint "), std::string::npos) << said[0];
    EXPECT_NE(
        said[0].find("its name is not found. Do the name servers of its service answer (connmanctl services SERVICE)?"),
        std::string::npos)
        << said[0];
}

TEST_F(AFailOverThatFails, IsExplainedOnceByAMissingRouteForBoundConnections) {
    const Payloads said =
        LogOf({false, "Couldn't connect to server: No route to host", false, false, PathProver::Cause::ROUTE});
    ASSERT_EQ(said.size(), 1U);
    EXPECT_NE(said[0].find("log warning GatewayApp"), std::string::npos) << said[0];
    EXPECT_NE(said[0].find("No route to host. Is there a route for connections bound to it: does orv-source-routes run "
                           "(ip rule)?"),
              std::string::npos)
        << said[0];
}

TEST_F(AFailOverThatFails, IsNoMatterOnceTheRouteIsOnCellularWhereEthernetIsExplained) {
    around.proof = PathProver::Result{false, "its name is not found", false, false, PathProver::Cause::NAME};
    At(2s, [&] {
        gateway.poke.Fails("eth0", 6);
        around.cloudBreaks("timed out");
    });
    At(13s, [&] {
        EXPECT_EQ(gateway.connman.Top(), "wwan0");
        around.DefaultRouteBecomes("wwan0");
        around.cloudAnswers("198.51.100.2");
    });
    RunUntil(5min);
    const Payloads said = Lines("does not prove the path to the cloud: ");
    ASSERT_EQ(said.size(), 1U);
    EXPECT_NE(said[0].find("over eth0 the endpoint "), std::string::npos) << said[0];
}

TEST_F(AFailOverThatFails, StandsInTheStatusFile) {
    statusFile = ::testing::TempDir() + "failed-of-" + std::to_string(getpid()) + ".json";
    LogOf({false, "no answer", false});
    std::stringstream text;
    text << std::ifstream(statusFile).rdbuf();
    std::remove(statusFile.c_str());
    EXPECT_NE(text.str().find(R"("no_fail_over":"over wwan0 the endpoint )"), std::string::npos) << text.str();
}

TEST_F(TheLogOfTheApplication, SaysOnceWhichOptionsWaitForTheNextStart) {
    const std::string path = ::testing::TempDir() + "waiting-of-" + std::to_string(getpid()) + ".ini";
    std::ofstream(path) << "tick-ms=200\n";
    arguments = {"--config", path};
    At(1s, [&] { std::ofstream(path, std::ios::trunc) << "tick-ms=200\nname=other\ntranscript=/dev/null\n"; });
    for (const auto time : {1100ms, 1200ms})
        At(time, [] { raise(SIGHUP); });
    RunUntil(2s);
    std::remove(path.c_str());
    EXPECT_EQ(Lines("changed options that are taken at the next start only: name, transcript").size(), 1U)
        << gateway.journal.Text({"log"});
    EXPECT_EQ(Lines("changed options").size(), 1U);
}

TEST_F(TheLogOfTheApplication, HasNoWarningOfItsOwnAfterAHealthyStart) {
    RunUntil(10min);
    for (const std::string& line : Lines("GatewayApp"))
        EXPECT_TRUE(line.find(" info ") != std::string::npos) << line;
    EXPECT_GT(Lines("GatewayApp").size(), 5U);
}

TEST_F(TheLifeOfTheApplication, FailsOverAsQuicklyAfterAReturnThatConnmanDidNotCarryOut) {
    arguments = {"--cloud-host", "cloud.example"};
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(14s, [&] {
        around.DefaultRouteBecomes("wwan0");
        around.cloudAnswers("198.51.100.2");
        gateway.connman.RefuseToMove(true);
        gateway.poke.Reaches("eth0");
    });
    At(30s, [&] {
        EXPECT_EQ(gateway.connman.Top(), "wwan0");
        gateway.connman.RefuseToMove(false);
    });
    At(5min, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(5min + 1s, [&] { EXPECT_EQ(gateway.connman.Top(), "eth0"); });
    At(5min + 11s, [&] { EXPECT_EQ(gateway.connman.Top(), "wwan0"); });
    RunUntil(5min + 12s);
}

TEST_F(TheLifeOfTheApplication, SaysAtOnceOverWhatTheLibraryTakesTheCloudToBe) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    InTheStatusFileAt(1500ms, R"("expected":"Ethernet")");
    RunUntil(2s);
}

TEST_F(TheLifeOfTheApplication, SaysOverWhatTheCloudIsReachedWhenTheAddressWasAwayMeanwhile) {
    At(1s, [&] { around.AddressesBecome("", "198.51.100.2"); });
    At(1100ms, [&] { around.cloudAnswers("192.0.2.2"); });
    InTheStatusFileAt(1500ms, R"("reason":"connected over another interface")");
    At(1600ms, [&] { around.AddressesBecome("192.0.2.2", "198.51.100.2"); });
    InTheStatusFileAt(2100ms, R"("interface":"eth0","family":"IPv4")");
    InTheStatusFileAt(2100ms, R"("reason":"connected over eth0")");
    RunUntil(3s);
}

TEST_F(TheLifeOfTheApplication, NoticesWhenAnAddressGoesAgainThatWasAwayWhileTheCloudAnswered) {
    At(1s, [&] { around.AddressesBecome("", "198.51.100.2"); });
    At(1100ms, [&] { around.cloudAnswers("192.0.2.2"); });
    At(1200ms, [&] { around.AddressesBecome("192.0.2.2", "198.51.100.2"); });
    At(1300ms, [&] {
        gateway.journal.Clear();
        around.AddressesBecome("", "198.51.100.2");
        EXPECT_EQ("cloud connection: its address 192.0.2.2 is gone\n", gateway.journal.Text({"cloud connection"}));
    });
    At(2s, [&] { EXPECT_EQ(gateway.broker.Retained(GREEN), "Off"); });
    RunUntil(3s);
}

TEST_F(TheLifeOfTheApplicationWithAnOptionsFile, SaysAtOnceThatAReloadHasTakenTheCloudAway) {
    At(1s, [&] {
        Write("");
        raise(SIGHUP);
    });
    InTheStatusFileAt(1500ms, R"("state":"disabled")");
    RunUntil(2s);
}

TEST_F(TheLifeOfTheApplication, TellsWhatThePlatformHasCounted) {
    statusFile = ::testing::TempDir() + "status-of-" + std::to_string(getpid()) + ".json";
    RunUntil(1s);
    std::stringstream text;
    text << std::ifstream(statusFile).rdbuf();
    std::remove(statusFile.c_str());
    EXPECT_NE(text.str().find(R"("broker_losses":5,"refused_publications":6,"lost_log_records":7)"), std::string::npos)
        << text.str();
}

TEST_F(TheLifeOfTheApplication, EndsWithGoodByesToCloudAndBroker) {
    At(1s, [&] { gateway.journal.Clear(); });
    RunUntil(2s);
    EXPECT_EQ("", Difference("cloud connection closed\n"
                             "disconnect ORV_Stack\n"
                             "disconnect OrvRoute\n",
                             gateway.journal.Text({"cloud connection", "disconnect", "will"})));
    EXPECT_EQ(gateway.broker.Retained(FEATURE + "/available"), "") << "no last will was spoken";
    EXPECT_EQ(gateway.Elapsed(), 2s);
}

} // namespace
} // namespace GatewayApp
