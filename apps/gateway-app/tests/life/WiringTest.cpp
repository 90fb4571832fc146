// SPDX-License-Identifier: Apache-2.0
// What the application tells its parts and the library, which each do the right thing when they are told.
#include "LifeScene.h"

namespace GatewayApp {
namespace {

TEST_F(TheLifeOfTheApplication, TellsTheLibraryOfACloudThatWasThereBeforeTheBroker) {
    gateway.broker.RefuseConnections(true);
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] { gateway.broker.RefuseConnections(false); });
    RunUntil(20s);
    EXPECT_EQ(gateway.broker.Published(CLOUD), (Payloads{"false", "true"}));
}

TEST_F(TheLifeOfTheApplication, CallsTheFeatureEnabledWithACloud) {
    At(1s, [&] {
        EXPECT_NE(gateway.StatusFile().find(R"("Enterprise Feature","Enabled")"), std::string::npos)
            << gateway.StatusFile();
    });
    RunUntil(2s);
}

TEST_F(TheLifeOfTheApplication, CallsTheFeatureDisabledWithoutACloud) {
    arguments = {"--tick-ms", "200"};
    At(1s, [&] {
        EXPECT_NE(gateway.StatusFile().find(R"("Enterprise Feature","Disabled")"), std::string::npos)
            << gateway.StatusFile();
    });
    RunUntil(2s);
}

TEST_F(TheLifeOfTheApplicationWithAnOptionsFile, CallsTheFeatureDisabledWhenAReloadTakesItsCloudAway) {
    At(900ms, [&] {
        EXPECT_NE(gateway.StatusFile().find(R"("Enterprise Feature","Enabled")"), std::string::npos)
            << gateway.StatusFile();
    });
    IsReloadedWith("# no cloud\n");
    At(2s, [&] {
        EXPECT_NE(gateway.StatusFile().find(R"("Enterprise Feature","Disabled")"), std::string::npos)
            << gateway.StatusFile();
    });
    RunUntil(3s);
}

TEST_F(TheLifeOfTheApplication, LeavesACloudConnectionAloneWhenTheDefaultRouteMovesUnderIt) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] {
        gateway.journal.Clear();
        around.DefaultRouteBecomes("wwan0");
    });
    At(2100ms, [&] { EXPECT_EQ("", gateway.journal.Text({"cloud connection"})); });
    RunUntil(3s);
}

TEST_F(TheLifeOfTheApplication, AsksForSignsOfLifeSeldomOnCellular) {
    arguments.insert(arguments.end(), {"--cloud-keepalive-ethernet-s", "3", "--cloud-keepalive-cellular-s", "40"});
    At(1s, [&] {
        EXPECT_EQ(around.keepAlive().Period(), 3s);
        around.DefaultRouteBecomes("wwan0");
        EXPECT_EQ(around.keepAlive().Period(), 40s);
    });
    RunUntil(2s);
}

TEST_F(TheLifeOfTheApplication, EndsOnAnInterrupt) {
    At(1s, [] { raise(SIGINT); });
    RunUntil(5s);
    EXPECT_EQ(gateway.Elapsed(), 1s);
}

class TheTicksOfTheApplication : public TheLogOfTheApplication {
protected:
    TheTicksOfTheApplication() {
        Write(100);
        arguments = {"--config", path};
    }
    ~TheTicksOfTheApplication() override { std::remove(path.c_str()); }

    void Write(int milliseconds) const {
        std::ofstream(path, std::ios::trunc) << "cloud-host=cloud.example\ntick-ms=" << milliseconds << "\n";
    }
    int Count() const {
        const Payloads ends = Lines("ended; ");
        return ends.size() == 1 ? std::stoi(ends[0].substr(ends[0].find("ended; ") + 7)) : -1;
    }

    const std::string path = ::testing::TempDir() + "ticks-of-" + std::to_string(getpid()) + ".ini";
};

TEST_F(TheTicksOfTheApplication, ComeAsOftenAsAReloadSays) {
    At(2s, [&] {
        Write(1000);
        raise(SIGHUP);
    });
    RunUntil(22s);
    EXPECT_GE(Count(), 20 + 20 - 2);
    EXPECT_LE(Count(), 20 + 20 + 2);
}

TEST_F(TheLifeOfTheApplication, CountsNoReconnectionOfItsOwnAsALoss) {
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(2s, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(14s, [&] {
        around.DefaultRouteBecomes("wwan0");
        around.cloudAnswers("198.51.100.2");
        gateway.poke.Reaches("eth0");
    });
    At(20s, [&] { EXPECT_EQ(gateway.connman.Top(), "eth0"); });
    statusFile = ::testing::TempDir() + "losses-of-" + std::to_string(getpid()) + ".json";
    RunUntil(21s);
    std::stringstream text;
    text << std::ifstream(statusFile).rdbuf();
    std::remove(statusFile.c_str());
    EXPECT_NE(text.str().find(R"("cloud_losses":1,)"), std::string::npos) << text.str();
}

} // namespace
} // namespace GatewayApp
