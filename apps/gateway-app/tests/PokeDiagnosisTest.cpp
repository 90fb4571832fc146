// SPDX-License-Identifier: Apache-2.0
#include "PokeDiagnosis.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using Path = PokeDiagnosis::Path;

/// Both interfaces have an address, and the cloud is connected over Ethernet.
class APoke : public testing::Test {
protected:
    APoke() {
        diagnosis.HasAddress(Path::ETHERNET, true, now);
        diagnosis.HasAddress(Path::CELLULAR, true, now);
        diagnosis.CloudIs(true, now);
    }
    std::optional<Path> DueAfter(PokeDiagnosis::Clock::duration time) {
        now += time;
        return diagnosis.Due(now);
    }

    PokeDiagnosis::Time now{1h};
    PokeDiagnosis diagnosis;
};

TEST_F(APoke, IsNotLookedAtWhileTheCloudIsConnected) {
    EXPECT_EQ(diagnosis.NextDue(), std::nullopt);
    EXPECT_EQ(DueAfter(24h), std::nullopt);
}

TEST_F(APoke, OverCellularIsLookedAtWhenItShouldHaveSucceeded) {
    diagnosis.CloudIs(false, now);
    EXPECT_EQ(diagnosis.NextDue(), now + 13s);
    EXPECT_EQ(DueAfter(12999ms), std::nullopt);
    EXPECT_EQ(DueAfter(1ms), Path::CELLULAR);
    EXPECT_TRUE(diagnosis.Pokes(Path::CELLULAR));
}

TEST_F(APoke, OverCellularIsNotLookedAtWhenTheCloudComesBack) {
    diagnosis.CloudIs(false, now);
    now += 9s;
    diagnosis.CloudIs(true, now);
    EXPECT_EQ(DueAfter(1h), std::nullopt);
}

TEST_F(APoke, OverCellularHasBegunTenSecondsAfterTheLossAlsoWhenItIsOver) {
    EXPECT_EQ(diagnosis.CellularBegan(), std::nullopt);
    diagnosis.CloudIs(false, now);
    const auto lost = now;
    now += 12s;
    diagnosis.CloudIs(true, now);
    EXPECT_EQ(diagnosis.CellularBegan(), lost + 10s);
}

TEST_F(APoke, OverCellularBeginsWithItsAddress) {
    diagnosis.HasAddress(Path::CELLULAR, false, now);
    diagnosis.CloudIs(false, now);
    EXPECT_EQ(DueAfter(1h), std::nullopt);
    diagnosis.HasAddress(Path::CELLULAR, true, now);
    EXPECT_EQ(DueAfter(2999ms), std::nullopt);
    EXPECT_EQ(DueAfter(1ms), Path::CELLULAR);
}

TEST_F(APoke, OverEthernetIsLookedAtOnCellularWhileEthernetHasAnAddress) {
    diagnosis.CloudIs(false, now);
    now += 11s;
    diagnosis.RouteHasMoved(true, now);
    EXPECT_EQ(DueAfter(2999ms), std::nullopt);
    EXPECT_EQ(DueAfter(1ms), Path::ETHERNET);
    diagnosis.HasAddress(Path::ETHERNET, false, now); // lost, or on probation
    EXPECT_EQ(DueAfter(24h), std::nullopt);
    EXPECT_FALSE(diagnosis.Pokes(Path::ETHERNET));
}

TEST_F(APoke, ThatKeepsFailingIsLookedAtMoreAndMoreSeldom) {
    diagnosis.RouteHasMoved(true, now);
    EXPECT_EQ(DueAfter(3s), Path::ETHERNET);
    for (const auto pause : {1min, 2min, 4min, 8min, 15min, 15min}) {
        EXPECT_EQ(DueAfter(pause - 1ms), std::nullopt) << pause.count();
        EXPECT_EQ(DueAfter(1ms), Path::ETHERNET) << pause.count();
    }
}

TEST_F(APoke, OfANewOutageIsLookedAtSoon) {
    diagnosis.RouteHasMoved(true, now);
    for (int i = 0; i < 5; ++i)
        DueAfter(15min);
    diagnosis.RouteHasMoved(false, now);
    diagnosis.CloudIs(true, now);
    diagnosis.CloudIs(false, now);
    EXPECT_EQ(DueAfter(13s), Path::CELLULAR);
    EXPECT_EQ(DueAfter(1min), Path::CELLULAR);
}

} // namespace
} // namespace GatewayApp
