// SPDX-License-Identifier: Apache-2.0
// How often the route moves under faults that last: the probation in front of a model of the route supervision
// (docs/route.md) and of the paths, in virtual time. The model has the supervision's states and delays, and paths on
// which a connection succeeds with a probability and lives for a random time.
#include "EthernetProbation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using Time = EthernetProbation::Time;
using Duration = EthernetProbation::Clock::duration;

struct Path {
    double connects = 1;       // an attempt to connect to the cloud's broker, TLS included, succeeds within its time
    double pokes = 1;          // a poke of the endpoint succeeds
    Duration lives = 24h * 10; // how long a connection lives in the mean
    double proves = -1;        // a proof succeeds; below zero: as often as a connection is made and lives
};

struct Fault {
    std::string name;
    Path ethernet;
    Path cellular;
    double leastUp; // of an hour with the cloud connected, in 19 of 20; 0: it cannot be
};

/// Shown by a failing test.
void PrintTo(const Fault& fault, std::ostream* stream) {
    *stream << fault.name;
}

class Gateway {
public:
    Gateway(const Fault& fault, unsigned seed) : random(seed), paths{fault.ethernet, fault.cellular} {
        probation.CellularIs(true, now);
        probation.EthernetIs(true, now);
    }
    void Run(Duration time) {
        for (const Time end = now + time; now < end; now += STEP)
            Step();
    }
    /// The cloud is down on both paths, and back after that time.
    void RunWithTheCloudDown(Duration time) {
        const std::array<Path, 2> before = std::exchange(paths, {Path{0, 1, 1s}, Path{0, 1, 1s}});
        Run(time);
        paths = before;
    }
    int Switches() const { return switches; }
    bool OnProbation() const { return probation.Active(); }
    EthernetProbation::End Ended() const { return probation.Ended(); }
    double Up() const { return static_cast<double>(connectedSteps) / static_cast<double>(steps); }

private:
    enum class State : int { ETHERNET, LOST, CELLULAR };
    static constexpr auto STEP = 100ms;

    bool Chance(double probability) { return std::generate_canonical<double, 32>(random) < probability; }
    Duration Life(const Path& path) {
        std::exponential_distribution<double> life(1.0 / std::chrono::duration<double>(path.lives).count());
        return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(life(random)));
    }
    const Path& Current() const { return paths.at(state == State::CELLULAR ? 1 : 0); }

    void Step() {
        Connection();
        Route();
        Proofs();
        ++steps;
        connectedSteps += connected ? 1 : 0;
    }
    void Connection() {
        if (connected && now >= ends) {
            connected = false;
            nextAttempt = now + 1s;
            probation.CloudIs(false, now);
        }
        if (!connected && now >= nextAttempt) {
            connected = Chance(Current().connects);
            nextAttempt = now + 5s + std::chrono::milliseconds(random() % 5000);
            ends = now + Life(Current());
            if (connected)
                probation.CloudIs(true, now);
            else
                probation.CloudFailed(now);
        }
    }
    void Route() {
        if (state == State::ETHERNET && !connected) {
            state = State::LOST;
            since = now;
        } else if (state == State::LOST && connected) {
            state = State::ETHERNET;
        } else if (state == State::LOST && now - since >= 10s && Chance(paths.at(1).pokes * 0.5)) {
            Move(State::CELLULAR);
            probation.MovedToCellular(now);
        } else if (state == State::CELLULAR && !probation.Active() && Chance(paths.at(0).pokes * 0.5)) {
            Move(State::ETHERNET);
            probation.MovedToEthernet(now);
        }
    }
    void Move(State to) {
        state = to;
        ++switches;
        if (connected)
            probation.CloudIs(false, now);
        connected = false;
        nextAttempt = now;
    }
    void Proofs() {
        if (!probation.Active())
            proofEnds.reset();
        probation.Passed(now);
        if (proofEnds && now >= *proofEnds) {
            proofEnds.reset();
            if (probation.Proved(proofGood, now))
                nextAttempt = now;
        }
        if (const auto proof = probation.Due(now)) {
            const Path& ethernet = paths.at(0);
            const bool connects = Chance(ethernet.proves < 0 ? ethernet.connects : ethernet.proves);
            proofGood = connects && (ethernet.proves >= 0 || Life(ethernet) > proof->hold);
            proofEnds = now + (connects ? Duration(proof->hold) : Duration(5s));
        }
    }

    std::mt19937 random;
    std::array<Path, 2> paths;
    EthernetProbation probation;
    Time now = Time() + 1h;
    State state = State::ETHERNET;
    Time since;
    bool connected = false;
    Time nextAttempt = now;
    Time ends;
    std::optional<Time> proofEnds;
    bool proofGood = false;
    int switches = 0;
    long steps = 0;
    long connectedSteps = 0;
};

/// ORV_MODEL_HOURS: how many hours of each fault, each with a seed of its own.
unsigned Hours() {
    const char* const text = std::getenv("ORV_MODEL_HOURS");
    return text != nullptr ? static_cast<unsigned>(std::stoul(text)) : 50;
}

class TheRouteUnder : public testing::TestWithParam<Fault> {};

TEST_P(TheRouteUnder, MovesAtMostSixTimesInThreeMinutes) {
    for (unsigned seed = 0; seed < Hours(); ++seed) {
        Gateway gateway(GetParam(), seed);
        gateway.Run(3min);
        EXPECT_LE(gateway.Switches(), 6) << "seed " << seed;
    }
}

TEST_P(TheRouteUnder, MovesAtMostTenTimesInAnHour) {
    std::vector<int> switches;
    std::vector<double> up;
    for (unsigned seed = 0; seed < Hours(); ++seed) {
        Gateway gateway(GetParam(), seed);
        gateway.Run(1h);
        switches.push_back(gateway.Switches());
        up.push_back(gateway.Up());
    }
    std::sort(switches.begin(), switches.end());
    std::sort(up.begin(), up.end());
    const std::size_t twentieth = switches.size() / 20;
    RecordProperty("median", switches.at(switches.size() / 2));
    RecordProperty("percentile_95", switches.at(switches.size() - 1 - twentieth));
    RecordProperty("most", switches.back());
    RecordProperty("up_per_cent_percentile_5", static_cast<int>(100 * up.at(twentieth)));
    EXPECT_LE(switches.back(), 10);
    EXPECT_GE(up.at(twentieth), GetParam().leastUp);
}

const Path GOOD{};

TEST(ACloudThatComesBack, IsUsedOverThePathThatHasTheRoute) {
    for (unsigned seed = 0; seed < Hours(); ++seed) {
        Gateway gateway({"", GOOD, GOOD, 0}, seed);
        while (!gateway.OnProbation())
            gateway.RunWithTheCloudDown(100ms);
        gateway.RunWithTheCloudDown(20s + seed % 100 * 100ms);
        gateway.Run(20s);
        EXPECT_EQ(gateway.Ended(), EthernetProbation::End::NONE) << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(
    AFault, TheRouteUnder,
    testing::Values(
        Fault{"nothing", GOOD, GOOD, 0.99},
        Fault{"connections on Ethernet that live for 3 s", {0.3, 0.4, 3s}, GOOD, 0.9},
        Fault{"connections on Ethernet that live for 10 s", {0.5, 0.6, 10s}, GOOD, 0.9},
        Fault{"connections on Ethernet that live for 25 s", {0.7, 0.7, 25s}, GOOD, 0.9},
        Fault{"connections on Ethernet that live for a minute", {0.7, 0.7, 1min}, GOOD, 0.9},
        Fault{"connections on Ethernet that live for two minutes", {0.7, 0.7, 2min}, GOOD, 0.9},
        Fault{"connections on Ethernet that live for five minutes", {0.7, 0.7, 5min}, GOOD, 0.9},
        Fault{"connections on Ethernet that live for a quarter of an hour", {0.7, 0.7, 15min}, GOOD, 0.9},
        Fault{"an Ethernet that is away for a minute, each two minutes", {0.1, 0.7, 2min}, GOOD, 0.85},
        Fault{"an Ethernet that is away for a minute, each ten minutes", {0.1, 0.7, 10min}, GOOD, 0.9},
        Fault{"an Ethernet that passes every proof and loses what the application does", {0, 1, 1s, 1}, GOOD, 0.9},
        Fault{"the broker down on both paths", {0, 1, 1s}, {0, 1, 1s}, 0},
        Fault{"the broker down on Ethernet", {0, 1, 1s}, GOOD, 0.9}, Fault{"Ethernet dead", {0, 0, 1s}, GOOD, 0.98},
        Fault{"a captive portal on Cellular and Ethernet dead", {0, 0, 1s}, {0, 0, 1s}, 0}));

} // namespace
} // namespace GatewayApp
