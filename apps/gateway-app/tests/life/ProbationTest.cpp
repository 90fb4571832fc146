// SPDX-License-Identifier: Apache-2.0
// An Ethernet that has failed twice: what the application makes of it, what it tells the library, and when the route
// returns.
#include "LifeScene.h"

#include <algorithm>
#include <cstddef>

namespace GatewayApp {
namespace {

constexpr auto BEGINS = 40400ms; // the probation, with the second move to Cellular

/// At 45 s the cloud is connected over Cellular again, and Ethernet would reach it, too.
class AnEthernetThatFailedAgain : public TheLogOfTheApplication {
protected:
    AnEthernetThatFailedAgain() {
        around.proof = PathProver::Result{};
        around.proof->good = true;
        FailsOver(2s);
        At(16s, [&] { gateway.poke.Reaches("eth0"); });
        At(17s, [&] {
            around.DefaultRouteBecomes("eth0");
            around.cloudAnswers("192.0.2.2");
        });
        FailsOver(30s);
        At(45s, [&] {
            gateway.poke.Reaches("eth0");
            gateway.journal.Clear();
        });
    }

    void FailsOver(std::chrono::milliseconds time) {
        At(time, [&] {
            gateway.poke.Fails("eth0", 28);
            around.cloudBreaks("timed out");
        });
        At(time + 12s, [&] {
            around.DefaultRouteBecomes("wwan0");
            around.cloudAnswers("198.51.100.2");
        });
    }

    void CellularLosesTheCloud(std::chrono::milliseconds time, const std::string& reason) {
        At(time, [&, reason] {
            around.attemptsFail = reason;
            around.cloudBreaks(reason);
        });
    }

    void RouteIs(const std::string& interface, std::chrono::milliseconds time) {
        At(time, [&, interface, time] { EXPECT_EQ(gateway.connman.Top(), interface) << time.count() << " ms"; });
    }

    /// How often the library has been told since 45 s.
    std::ptrdiff_t Told(const std::string& event) const {
        const Payloads lines = Lines("event " + event);
        return std::count_if(lines.begin(), lines.end(),
                             [](const std::string& line) { return line.find("not reported") == std::string::npos; });
    }

    std::size_t Ends(const std::string& reason) const {
        return Lines("Ethernet's probation is over: " + reason).size();
    }
};

TEST_F(AnEthernetThatFailedAgain, HasTheRouteBackWhenItHasProvedItself) {
    RouteIs("wwan0", BEGINS + 59s);
    RouteIs("eth0", BEGINS + 62s);
    RunUntil(BEGINS + 63s);
    EXPECT_EQ(Ends("it has proved itself"), 1U);
}

TEST_F(AnEthernetThatFailedAgain, IsOnProbationNoMoreWhenItHasProvedItselfThoughItsPokesFail) {
    At(46s, [&] { gateway.poke.Fails("eth0", 28); });
    InTheStatusFileAt(BEGINS + 2s, R"("ethernet_on_probation":true)");
    InTheStatusFileAt(BEGINS + 63s, R"("ethernet_on_probation":false)");
    RunUntil(BEGINS + 64s);
    EXPECT_EQ(Ends("it has proved itself"), 1U);
}

TEST_F(AnEthernetThatFailedAgain, IsNotTakenWhileItsProofsFail) {
    around.proof->good = false;
    around.proof->connected = true;
    RouteIs("wwan0", 20min);
    RunUntil(20min);
    EXPECT_EQ(Ends(""), 0U);
}

TEST_F(AnEthernetThatFailedAgain, HasTheRouteBackWhenCellularLosesTheCloudToo) {
    CellularLosesTheCloud(46s, "timed out");
    RouteIs("wwan0", 55s);
    RouteIs("eth0", 58s);
    RunUntil(59s);
    EXPECT_EQ(Ends("it reaches the cloud and Cellular does not"), 1U);
}

TEST_F(AnEthernetThatFailedAgain, IsNotTakenWhenTheCloudIsBackOnCellular) {
    CellularLosesTheCloud(46s, "timed out");
    At(50s, [&] { around.cloudAnswers("198.51.100.2"); });
    RouteIs("wwan0", BEGINS + 59s);
    RunUntil(BEGINS + 59s);
    EXPECT_EQ(Ends(""), 0U);
}

TEST_F(AnEthernetThatFailedAgain, IsNotTakenForACloudThatRefusesOverCellular) {
    CellularLosesTheCloud(46s, "the broker refused: not authorised");
    RouteIs("wwan0", 80s);
    RunUntil(80s);
    EXPECT_EQ(Ends(""), 0U);
}

TEST_F(AnEthernetThatFailedAgain, HasTheRouteBackAtOnceWhenCellularHasNoAddress) {
    At(46s, [&] { around.AddressesBecome("192.0.2.2", ""); });
    RouteIs("eth0", 47s);
    RunUntil(48s);
    EXPECT_EQ(Ends("Cellular is lost"), 1U);
}

TEST_F(AnEthernetThatFailedAgain, IsNotLostTwiceWhenBothAddressesGoTogether) {
    At(46s, [&] { around.AddressesBecome("", ""); });
    RunUntil(47s);
    EXPECT_EQ(Ends("Cellular is lost"), 1U);
    EXPECT_EQ(Told("ETHERNET_IP_LOST"), 0);
    EXPECT_EQ(Told("ETHERNET_IP_GAINED"), 0);
}

TEST_F(AnEthernetThatFailedAgain, IsGainedOnceWhenItsAddressComesAsCellularsGoes) {
    At(46s, [&] { around.AddressesBecome("", "198.51.100.2"); });
    At(47s, [&] { around.AddressesBecome("192.0.2.2", ""); });
    RunUntil(48s);
    EXPECT_EQ(Ends("Cellular is lost"), 1U);
    EXPECT_EQ(Told("ETHERNET_IP_LOST"), 0);
    EXPECT_EQ(Told("ETHERNET_IP_GAINED"), 1);
}

TEST_F(AnEthernetThatFailedAgain, IsNotPokedThoughItsAddressComesAnew) {
    int before = 0;
    At(46s, [&] {
        before = gateway.poke.Attempts("eth0");
        around.AddressesBecome("", "198.51.100.2");
        around.AddressesBecome("192.0.2.2", "198.51.100.2");
    });
    RunUntil(50s);
    EXPECT_EQ(gateway.poke.Attempts("eth0"), before);
    EXPECT_EQ(Lines("event ETHERNET_IP_GAINED, not reported: Ethernet is on probation").size(), 1U);
}

TEST_F(AnEthernetThatFailedAgain, LetsTheLossOfCellularBeSeenSoon) {
    arguments.insert(arguments.end(), {"--cloud-keepalive-ethernet-s", "3", "--cloud-keepalive-cellular-s", "40"});
    At(20s, [&] { EXPECT_EQ(around.keepAlive().Period(), 3s); });
    At(46s,
       [&] { EXPECT_EQ(around.keepAlive().Period(), 3s) << "on probation the route returns as soon as it is lost"; });
    RunUntil(47s);
}

TEST_F(AnEthernetThatFailedAgain, IsProvedAtTheCloudThatAReloadNames) {
    const std::string path = ::testing::TempDir() + "probation-of-" + std::to_string(getpid()) + ".ini";
    std::ofstream(path) << "cloud-host=cloud.example\n";
    arguments = {"--config", path, "--tick-ms", "200"};
    At(46s, [&] {
        std::ofstream(path, std::ios::trunc) << "cloud-host=other.example\n";
        gateway.journal.Clear();
        raise(SIGHUP);
    });
    RunUntil(70s);
    std::remove(path.c_str());
    EXPECT_NE("", gateway.journal.Text({"proof over eth0 to other.example"}));
    EXPECT_EQ("", gateway.journal.Text({"proof over eth0 to cloud.example"}));
}

} // namespace
} // namespace GatewayApp
