// SPDX-License-Identifier: Apache-2.0
#include "EthernetProbation.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using End = EthernetProbation::End;
using Time = EthernetProbation::Time;

class AnEthernet : public testing::Test {
protected:
    AnEthernet() {
        probation.CellularIs(true, now);
        probation.EthernetIs(true, now);
        probation.CloudIs(true, now);
    }
    /// The cloud is lost, the route moves to Cellular, and the cloud is connected there.
    bool FailOver() {
        probation.CloudIs(false, now);
        now += 12s;
        const bool begun = probation.MovedToCellular(now);
        probation.CloudIs(true, now);
        return begun;
    }
    void Return() { probation.MovedToEthernet(now); }
    void BeOnProbation() {
        ASSERT_FALSE(FailOver());
        Return();
        now += 30s;
        ASSERT_TRUE(FailOver());
    }
    /// Time passes as the probation wishes; every proof takes `taking` and ends so. Until `end` or the probation's end.
    /// What is tried over Cellular after a proof fails.
    void ProveUntil(Time end, bool good, std::chrono::seconds taking = 10s) {
        while (probation.Active() && now < end) {
            const auto look = probation.NextDue();
            if (!look || *look > end)
                break;
            ASSERT_GE(*look, now - 1h);
            now = std::max(now, *look);
            probation.Passed(now);
            if (probation.Due(now)) {
                ++proofs;
                now += taking;
                if (probation.Proved(good, now))
                    probation.CloudFailed(now);
            }
        }
        if (probation.Active())
            now = end;
    }
    /// The cloud is lost on Cellular, and when it has been away for long enough, a proof over Ethernet succeeds.
    /// @return what Proved returned
    bool ProveWhileCellularFails() {
        probation.CloudIs(false, now);
        now += 5s;
        EXPECT_TRUE(probation.Due(now));
        return probation.Proved(true, now);
    }
    /// How long a probation lasts in which every proof is good.
    std::chrono::seconds LastingWithGoodProofs() {
        const Time begin = now;
        ProveUntil(now + 1h, true);
        EXPECT_EQ(probation.Ended(), End::PROVED);
        return std::chrono::duration_cast<std::chrono::seconds>(now - begin);
    }

    EthernetProbation probation;
    Time now = Time() + 1h;
    int proofs = 0;
};

TEST_F(AnEthernet, ReturnsFreelyTheFirstTime) {
    EXPECT_FALSE(FailOver());
    EXPECT_FALSE(probation.Active());
    EXPECT_FALSE(probation.Due(now + 1h));
    EXPECT_FALSE(probation.NextDue());
}

TEST_F(AnEthernet, IsOnProbationFromTheSecondMoveWithinTenMinutesOn) {
    FailOver();
    Return();
    now += 10min - 12s - 1s;
    EXPECT_TRUE(FailOver());
    EXPECT_TRUE(probation.Active());
}

TEST_F(AnEthernet, IsForgivenAfterTenMinutes) {
    FailOver();
    Return();
    now += 10min - 12s;
    EXPECT_FALSE(FailOver());
}

TEST_F(AnEthernet, ProvesItselfByFiveConnectionsInARowInAMinute) {
    BeOnProbation();
    EXPECT_EQ(LastingWithGoodProofs(), 70s);
    EXPECT_EQ(proofs, 5);
}

TEST_F(AnEthernet, HasItsProofsHeldForTenSeconds) {
    BeOnProbation();
    EXPECT_FALSE(probation.Due(now + 12s - 1ms));
    const auto proof = probation.Due(now + 12s);
    ASSERT_TRUE(proof);
    EXPECT_EQ(proof->hold, 10s);
}

TEST_F(AnEthernet, BeginsTheRowAnewAfterAProofThatFailed) {
    BeOnProbation();
    ProveUntil(now + 50s, true);
    ASSERT_TRUE(probation.Active());
    ProveUntil(now + 12s, false);
    ASSERT_TRUE(probation.Active());
    const Time begin = now;
    ProveUntil(now + 1h, true);
    EXPECT_GE(now - begin, 58s);
}

TEST_F(AnEthernet, StaysOnProbationAsLongAsItsProofsFail) {
    BeOnProbation();
    ProveUntil(now + 24h, false);
    EXPECT_TRUE(probation.Active());
}

TEST_F(AnEthernet, HasToProveItselfForLongerEachTime) {
    BeOnProbation();
    for (const std::chrono::seconds length : {1min, 2min, 4min, 8min, 15min, 15min}) {
        EXPECT_EQ(probation.Length(), length);
        EXPECT_NEAR(static_cast<double>(LastingWithGoodProofs().count()), static_cast<double>(length.count()), 60);
        Return();
        now += 25min;
        ASSERT_TRUE(FailOver());
    }
}

TEST_F(AnEthernet, HasItsLaterProofsHeldUntilTheyLeaveLittleOut) {
    BeOnProbation();
    for (const std::chrono::seconds length : {1min, 2min, 4min, 8min, 15min}) {
        const auto next = probation.NextDue();
        ASSERT_TRUE(next);
        const auto proof = probation.Due(*next);
        ASSERT_TRUE(proof);
        EXPECT_GE(proof->hold * 1.2, *next - now);
        EXPECT_FALSE(probation.Proved(false, *next + 1s));
        EXPECT_NEAR(static_cast<double>(LastingWithGoodProofs().count()), static_cast<double>(length.count()), 120);
        Return();
        now += 25min;
        ASSERT_TRUE(FailOver());
    }
}

TEST_F(AnEthernet, StaysAwayAfterTheFifthMoveUntilTheFirstIsAnHourOld) {
    const Time first = now + 12s;
    FailOver();
    for (int move = 2; move <= 5; ++move) {
        Return();
        now += 30s;
        ASSERT_TRUE(FailOver());
        if (move < 5)
            LastingWithGoodProofs();
    }
    EXPECT_GE(now + probation.Length(), first + 1h);
    ProveUntil(now + 2h, true);
    EXPECT_EQ(probation.Ended(), End::PROVED);
    EXPECT_GE(now, first + 1h);
    EXPECT_LT(now, first + 1h + 2min);
}

TEST_F(AnEthernet, IsOnProbationFromTheThirdMoveWithinAnHourOn) {
    FailOver();
    Return();
    now += 15min;
    EXPECT_FALSE(FailOver());
    Return();
    now += 15min;
    EXPECT_TRUE(FailOver());
    EXPECT_EQ(probation.Length(), 1min);
}

TEST_F(AnEthernet, IsRememberedForAnHourAfterAProbation) {
    BeOnProbation();
    LastingWithGoodProofs();
    Return();
    now += 59min;
    EXPECT_TRUE(FailOver());
    EXPECT_EQ(probation.Length(), 2min);
}

TEST_F(AnEthernet, BeginsWithAMinuteAgainAfterAQuietHour) {
    BeOnProbation();
    LastingWithGoodProofs();
    Return();
    now += 1h;
    EXPECT_FALSE(FailOver());
    Return();
    now += 1min;
    EXPECT_TRUE(FailOver());
    EXPECT_EQ(probation.Length(), 1min);
}

TEST_F(AnEthernet, IsNeededAtOnceWhenCellularIsLost) {
    BeOnProbation();
    probation.CellularIs(false, now);
    EXPECT_FALSE(probation.Active());
    EXPECT_EQ(probation.Ended(), End::CELLULAR_LOST);
}

TEST_F(AnEthernet, IsNotPutOnProbationWithoutACellularToStandIn) {
    FailOver();
    Return();
    probation.CellularIs(false, now);
    EXPECT_FALSE(FailOver());
}

TEST_F(AnEthernet, IsTakenWithOneProofWhenCellularHasNotReachedTheCloudForFiveSeconds) {
    BeOnProbation();
    probation.CloudIs(false, now);
    const Time begin = now;
    EXPECT_FALSE(probation.Due(now + 5s - 1ms));
    ProveUntil(now + 1min, true, 1s);
    EXPECT_EQ(probation.Ended(), End::CLOUD_LOST);
    EXPECT_EQ(now - begin, 6s);
}

TEST_F(AnEthernet, IsNotTakenBeforeCellularHasBeenTriedOnceMoreAndFailed) {
    BeOnProbation();
    probation.CloudFailed(now); // before the proof: the cloud's broker may have come back since
    EXPECT_TRUE(ProveWhileCellularFails());
    EXPECT_TRUE(probation.Active());
    probation.CloudFailed(now + 5s);
    EXPECT_EQ(probation.Ended(), End::CLOUD_LOST);
}

TEST_F(AnEthernet, StaysOnProbationWhenTheCloudIsBackOnCellularToo) {
    BeOnProbation();
    EXPECT_TRUE(ProveWhileCellularFails());
    probation.CloudIs(true, now);
    probation.CloudIs(false, now);
    probation.CloudFailed(now);
    EXPECT_TRUE(probation.Active());
    probation.CloudIs(true, now);
    ProveUntil(now + 1h, true);
    EXPECT_EQ(probation.Ended(), End::PROVED);
    EXPECT_EQ(proofs, 5); // beside the one that was not held
}

TEST_F(AnEthernet, StaysOnProbationWhenTheBrokerRefusesWhatIsTriedOverCellular) {
    BeOnProbation();
    EXPECT_TRUE(ProveWhileCellularFails());
    probation.CloudRefused();
    probation.CloudFailed(now);
    EXPECT_TRUE(probation.Active());
}

TEST_F(AnEthernet, StaysOnProbationWhenAProofFailsBeforeWhatIsTriedOverCellular) {
    BeOnProbation();
    EXPECT_TRUE(ProveWhileCellularFails());
    now += 5s;
    ASSERT_TRUE(probation.Due(now));
    EXPECT_FALSE(probation.Proved(false, now));
    probation.CloudFailed(now);
    EXPECT_TRUE(probation.Active());
}

TEST_F(AnEthernet, HasOneAttemptMadeOverCellularHoweverManyProofsSucceedMeanwhile) {
    BeOnProbation();
    EXPECT_TRUE(ProveWhileCellularFails());
    EXPECT_FALSE(probation.Due(now + 5s - 1ms));
    ASSERT_EQ(probation.NextDue(), now + 5s);
    ASSERT_TRUE(probation.Due(now + 5s));
    EXPECT_FALSE(probation.Proved(true, now + 5s));
    probation.CloudFailed(now + 5s);
    EXPECT_EQ(probation.Ended(), End::CLOUD_LOST);
}

TEST_F(AnEthernet, IsNotTakenWithoutAnyProofWhenCellularDoesNotReachTheCloud) {
    BeOnProbation();
    probation.CloudIs(false, now);
    ProveUntil(now + 14min, false, 5s);
    EXPECT_TRUE(probation.Active());
    EXPECT_GT(proofs, 80); // one every ten seconds
    EXPECT_LT(proofs, 100);
}

TEST_F(AnEthernet, IsTriedAfterAQuarterOfAnHourWithoutTheCloud) {
    BeOnProbation();
    probation.CloudIs(false, now);
    const Time begin = now;
    ProveUntil(now + 1h, false, 5s);
    EXPECT_EQ(probation.Ended(), End::CLOUD_LOST_FOR_LONG);
    EXPECT_GE(now - begin, 15min);
    EXPECT_LE(now - begin, 15min + 5s);
}

TEST_F(AnEthernet, IsTriedAfterAQuarterOfAnHourAlsoWithoutAnAddressToProve) {
    BeOnProbation();
    probation.EthernetIs(false, now);
    probation.CloudIs(false, now);
    const Time begin = now;
    ProveUntil(now + 1h, false);
    EXPECT_EQ(now - begin, 15min);
}

TEST_F(AnEthernet, IsNoRemedyWhenTheBrokerRefusesOverCellular) {
    BeOnProbation();
    probation.CloudIs(false, now);
    probation.CloudRefused();
    ProveUntil(now + 50s, true);
    EXPECT_TRUE(probation.Active());
}

TEST_F(AnEthernet, GivesCellularMoreTimeEachTime) {
    BeOnProbation();
    for (const std::chrono::seconds patience : {5s, 10s, 20s, 40s, 60s, 60s}) {
        probation.CloudIs(false, now);
        const Time begin = now;
        ProveUntil(now + 5min, true, 0s);
        EXPECT_EQ(probation.Ended(), End::CLOUD_LOST);
        EXPECT_EQ(now - begin, patience);
        Return();
        now += 1min;
        ASSERT_TRUE(FailOver());
    }
}

TEST_F(AnEthernet, IsNotProvedWithoutAnAddress) {
    BeOnProbation();
    probation.EthernetIs(false, now);
    EXPECT_FALSE(probation.Due(now + 1h));
    EXPECT_FALSE(probation.NextDue());
    probation.EthernetIs(true, now);
    EXPECT_TRUE(probation.NextDue());
}

TEST_F(AnEthernet, BeginsTheRowAnewAfterItsAddressWasLost) {
    BeOnProbation();
    ProveUntil(now + 50s, true);
    probation.EthernetIs(false, now);
    probation.EthernetIs(true, now);
    const Time begin = now;
    ProveUntil(now + 1h, true);
    EXPECT_EQ(now - begin, 70s);
}

TEST_F(AnEthernet, IsAskedForOneProofAtATime) {
    BeOnProbation();
    ASSERT_TRUE(probation.Due(now + 12s));
    EXPECT_FALSE(probation.Due(now + 1h));
    EXPECT_FALSE(probation.NextDue());
}

TEST_F(AnEthernet, GivesUpAHeldProofForAQuickOneWhenCellularDoesNotReachTheCloud) {
    BeOnProbation();
    ASSERT_TRUE(probation.Due(now + 12s));
    now += 13s;
    probation.CloudIs(false, now);
    ASSERT_EQ(probation.NextDue(), now + 5s);
    EXPECT_FALSE(probation.Due(now + 5s - 1ms));
    const auto quick = probation.Due(now + 5s);
    ASSERT_TRUE(quick);
    EXPECT_EQ(quick->hold, 0s);
    EXPECT_FALSE(probation.Due(now + 6s));
    EXPECT_TRUE(probation.Proved(true, now + 6s));
    probation.CloudFailed(now + 6s);
    EXPECT_EQ(probation.Ended(), End::CLOUD_LOST);
}

TEST_F(AnEthernet, DoesNotTakeAProofThatComesTooLate) {
    BeOnProbation();
    ASSERT_TRUE(probation.Due(now + 12s));
    probation.CellularIs(false, now + 13s);
    EXPECT_FALSE(probation.Proved(true, now + 14s));
    EXPECT_EQ(probation.Ended(), End::CELLULAR_LOST);
}

} // namespace
} // namespace GatewayApp
