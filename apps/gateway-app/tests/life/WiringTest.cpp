// SPDX-License-Identifier: Apache-2.0
// What the application tells its parts and the library, which each do the right thing when they are told.
#include "LifeScene.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

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

/// Another program moves the default route to Cellular, and the library does so on its own account, by an order at
/// about 12.4 s.
class AMoveWhileAForeignDefaultRouteIsPutRight : public TheLifeOfTheApplication {
protected:
    /// @param replaced when the other program does it; 5 s later the application begins to put it right
    /// @param delay ConnMan's, with each order
    std::string OrdersWith(std::chrono::milliseconds replaced, std::chrono::milliseconds delay) {
        At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
        At(2s, [&] {
            gateway.poke.Fails("eth0", 28);
            around.cloudBreaks("timed out");
        });
        At(3s, [&, delay] {
            gateway.journal.Clear();
            gateway.connman.SetDelay(delay);
        });
        At(replaced, [&] { around.DefaultRouteBecomes("wwan0"); });
        RunUntil(1min);
        return gateway.journal.Text({"connman top"});
    }
};

TEST_F(AMoveWhileAForeignDefaultRouteIsPutRight, IsNotTakenBackBehindTheChangedOrder) {
    EXPECT_EQ("", Difference("connman top wwan0\n"  // the library's
                             "connman top wwan0\n"  // the changed order, at about 13 s
                             "connman top wwan0\n", // the library's again, at about 14 s
                             OrdersWith(8s, 1500ms)));
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
}

TEST_F(AMoveWhileAForeignDefaultRouteIsPutRight, IsNotTakenBackBehindTheRestoredOrder) {
    EXPECT_EQ("", Difference("connman top wwan0\n"  // the changed order, at about 11 s
                             "connman top wwan0\n"  // the library's
                             "connman top eth0\n"   // the restored order, at about 13 s: the change does not show yet
                             "connman top wwan0\n", // the library's again, at about 14 s
                             OrdersWith(6s, 2500ms)));
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
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

TEST_F(TheLifeOfTheApplication, AsksTheBrokerAgainAfterPausesThatGrow) {
    gateway.broker.RefuseConnections(true);
    const auto attempts = [&] {
        const std::string all = gateway.journal.Text({"connect OrvRoute refused"});
        return std::count(all.begin(), all.end(), '\n');
    };
    At(10s, [&] {
        EXPECT_GE(attempts(), 4);
        EXPECT_LE(attempts(), 10);
        gateway.journal.Clear();
    });
    RunUntil(70s);
    EXPECT_GE(attempts(), 12 - 1); // one in 5 s at the most
    EXPECT_LE(attempts(), 24 + 1); // one in 2.5 s at the least
}

TEST_F(TheLifeOfTheApplication, SaysThatTheCloudIsAwayWhenItHasTheStatusFileMended) {
    At(1s, [&] {
        gateway.broker.Clear();
        around.AnotherProgramWritesTheCsv();
        EXPECT_EQ(gateway.broker.Published(CLOUD), Payloads{"false"});
    });
    RunUntil(2s);
}

TEST_F(TheLifeOfTheApplication, FailsOverInTimeByItsOwnRhythm) {
    arguments = {"--cloud-host", "cloud.example"};
    At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    At(5min, [&] {
        gateway.poke.Fails("eth0", 28);
        around.cloudBreaks("timed out");
    });
    At(5min + 10s, [&] { EXPECT_EQ(gateway.connman.Top(), "eth0"); });
    At(5min + 10s + 300ms, [&] { EXPECT_EQ(gateway.connman.Top(), "wwan0"); });
    RunUntil(6min);
}

/// A service manager's end of the notification socket, with a name outside the file system.
class TheLifeOfTheApplicationUnderAWatchdog : public TheLifeOfTheApplication {
protected:
    TheLifeOfTheApplicationUnderAWatchdog() : receiver(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        const std::string name = "@orv-life-" + std::to_string(getpid());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, name.data() + 1, name.size() - 1);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(receiver, reinterpret_cast<sockaddr*>(&address), size), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        setenv("WATCHDOG_USEC", "60000000", 1);
    }
    ~TheLifeOfTheApplicationUnderAWatchdog() override {
        close(receiver);
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }
    /// How many of the messages that have come since the last call are signs of life.
    int SignsOfLife() const {
        int signs = 0;
        char text[200];
        for (ssize_t size = 0; (size = recv(receiver, text, sizeof(text), 0)) >= 0;)
            signs += std::string(text, static_cast<std::size_t>(size)) == "WATCHDOG=1" ? 1 : 0;
        return signs;
    }

    const int receiver;
};

TEST_F(TheLifeOfTheApplicationUnderAWatchdog, ShowsTwiceInItsTimeThatItLives) {
    At(29s, [&] { EXPECT_EQ(SignsOfLife(), 0); });
    At(31s, [&] { EXPECT_EQ(SignsOfLife(), 1); });
    At(91s, [&] { EXPECT_EQ(SignsOfLife(), 2); });
    RunUntil(92s);
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

/// What it tells of the connection that it has in the end.
class TheFamilyOfTheCloudConnection : public TheLifeOfTheApplication {
protected:
    ~TheFamilyOfTheCloudConnection() override {
        std::remove(statusFile.c_str());
        std::remove(transcript.c_str());
    }
    void IsToldOfACloudThatSees(const std::string& source) {
        const std::string base = ::testing::TempDir() + "family-of-" + std::to_string(getpid());
        statusFile = base + ".json";
        transcript = base + ".transcript";
        arguments.insert(arguments.end(), {"--transcript", transcript});
        if (!source.empty())
            At(1s, [&, source] { around.cloudAnswers(source); });
        At(1900ms, [&] { status = Content(statusFile); });
        RunUntil(2s);
    }
    static std::string Content(const std::string& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    bool InTheStatusFile(const std::string& family) const {
        return status.find("\"family\":\"" + family + "\"") != std::string::npos;
    }
    bool InTheTranscript(const std::string& family) const {
        return Content(transcript).find("\"family\":\"" + family + "\"") != std::string::npos;
    }

    std::string transcript;
    std::string status;
};

TEST_F(TheFamilyOfTheCloudConnection, IsIpv6FromAnAddressOfThatFamily) {
    IsToldOfACloudThatSees("2001:db8:11::2");
    EXPECT_TRUE(InTheStatusFile("IPv6")) << status;
    EXPECT_TRUE(InTheTranscript("IPv6")) << Content(transcript);
}

TEST_F(TheFamilyOfTheCloudConnection, IsIpv4FromAnAddressOfThatFamily) {
    IsToldOfACloudThatSees("192.0.2.2");
    EXPECT_TRUE(InTheStatusFile("IPv4")) << status;
    EXPECT_TRUE(InTheTranscript("IPv4")) << Content(transcript);
}

TEST_F(TheFamilyOfTheCloudConnection, IsEmptyWithoutAConnection) {
    IsToldOfACloudThatSees("");
    EXPECT_TRUE(InTheStatusFile("")) << status;
}

} // namespace
} // namespace GatewayApp
