// SPDX-License-Identifier: Apache-2.0
// How often the route moves under faults that last: the probation in front of a model of the route supervision
// (docs/route.md) and of the paths, in virtual time. The model has the supervision's states and delays, and paths on
// which a connection succeeds with a probability and lives for a random time.
#include "EthernetProbation.h"

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <random>
#include <string>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using Time = EthernetProbation::Time;
using Duration = EthernetProbation::Clock::duration;

struct Path {
    double connects = 1;       // an attempt to connect to the cloud's broker, TLS included, succeeds within its time
    double pokes = 1;          // a poke of the endpoint succeeds
    Duration lives = 24h * 10; // how long a connection lives in the mean
};

struct Fault {
    std::string name;
    Path ethernet;
    Path cellular;
    double leastUp; // of an hour with the cloud connected; 0: it cannot be
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
        for (const Time end = now + time; now < end; now += kStep)
            Step();
    }
    int Switches() const { return switches; }
    double Up() const { return static_cast<double>(connectedSteps) / static_cast<double>(steps); }

private:
    enum class State : int { ETHERNET, LOST, CELLULAR };
    static constexpr auto kStep = 100ms;

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
            nextAttempt = now + 5s;
            ends = now + Life(Current());
            if (connected)
                probation.CloudIs(true, now);
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
            probation.Proved(proofGood, now);
        }
        if (const auto proof = probation.Due(now)) {
            const Path& ethernet = paths.at(0);
            const bool connects = Chance(ethernet.connects);
            proofGood = connects && Life(ethernet) > proof->hold;
            proofEnds = now + (connects ? Duration(proof->hold) : Duration(5s));
        }
    }

    std::mt19937 random;
    const std::array<Path, 2> paths;
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

class TheRouteUnder : public testing::TestWithParam<Fault> {
protected:
    static constexpr unsigned kSeeds = 100;
};

TEST_P(TheRouteUnder, MovesAtMostSixTimesInThreeMinutes) {
    for (unsigned seed = 0; seed < kSeeds; ++seed) {
        Gateway gateway(GetParam(), seed);
        gateway.Run(3min);
        EXPECT_LE(gateway.Switches(), 6) << "seed " << seed;
    }
}

TEST_P(TheRouteUnder, MovesAtMostTenTimesInAnHour) {
    int all = 0;
    for (unsigned seed = 0; seed < kSeeds; ++seed) {
        Gateway gateway(GetParam(), seed);
        gateway.Run(1h);
        EXPECT_LE(gateway.Switches(), 10) << "seed " << seed;
        EXPECT_GE(gateway.Up(), GetParam().leastUp) << "seed " << seed;
        all += gateway.Switches();
    }
    RecordProperty("switches_an_hour", std::to_string(static_cast<double>(all) / kSeeds));
}

const Path kGood{};

INSTANTIATE_TEST_SUITE_P(
    AFault, TheRouteUnder,
    testing::Values(Fault{"nothing", kGood, kGood, 0.99},
                    // On the box a connection lived for some 8 s with 20 % loss and for 3 s with 40 %.
                    Fault{"a fifth of the packets lost on Ethernet", {0.7, 0.7, 8s}, kGood, 0.9},
                    Fault{"two fifths of the packets lost on Ethernet", {0.3, 0.4, 3s}, kGood, 0.9},
                    Fault{"the broker down on both paths", {0, 1, 1s}, {0, 1, 1s}, 0},
                    Fault{"the broker down on Ethernet", {0, 1, 1s}, kGood, 0.9},
                    Fault{"Ethernet dead", {0, 0, 1s}, kGood, 0.98},
                    Fault{"a captive portal on Cellular and Ethernet dead", {0, 0, 1s}, {0, 0, 1s}, 0}));

} // namespace
} // namespace GatewayApp
