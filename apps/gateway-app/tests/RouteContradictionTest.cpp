// SPDX-License-Identifier: Apache-2.0
#include "RouteContradiction.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using Step = RouteContradiction::Step;

class ADefaultRoute : public testing::Test {
protected:
    /// Observed four times a second; the first step that is not NONE, or NONE.
    Step Within(std::chrono::milliseconds time, const std::string& kernel, const std::string& top) {
        for (const auto end = now + time; now < end; now += 250ms) {
            const Step step = route.Observe(kernel, top, now);
            if (step != Step::NONE)
                return step;
        }
        return Step::NONE;
    }
    void BeReplaced() { ASSERT_EQ(Within(6s, "wwan0", "eth0"), Step::CHANGE_ORDER); }

    RouteContradiction route;
    RouteContradiction::Time now = RouteContradiction::Time() + 1h;
};

TEST_F(ADefaultRoute, IsLeftAloneWhereItAgrees) {
    EXPECT_EQ(Within(1h, "eth0", "eth0"), Step::NONE);
}

TEST_F(ADefaultRoute, MayFollowTheOrderLate) {
    EXPECT_EQ(Within(5s, "eth0", "wwan0"), Step::NONE);
    EXPECT_EQ(Within(1h, "wwan0", "wwan0"), Step::NONE);
}

TEST_F(ADefaultRoute, IsPutRightWhenItContradictsForFiveSeconds) {
    const auto begin = now;
    EXPECT_EQ(Within(1h, "wwan0", "eth0"), Step::CHANGE_ORDER);
    EXPECT_EQ(now - begin, 5s);
    EXPECT_EQ(route.WanTop(), "eth0");
}

TEST_F(ADefaultRoute, HasTheOrderBackAsSoonAsTheChangeShows) {
    BeReplaced();
    EXPECT_EQ(Within(500ms, "wwan0", "eth0"), Step::NONE);
    EXPECT_EQ(Within(250ms, "wwan0", "wwan0"), Step::RESTORE_ORDER);
    EXPECT_EQ(Within(500ms, "wwan0", "wwan0"), Step::NONE);
    EXPECT_EQ(Within(1h, "eth0", "eth0"), Step::NONE);
}

TEST_F(ADefaultRoute, KeepsAnOrderThatTheLibraryHasGivenMeanwhile) {
    BeReplaced();
    EXPECT_TRUE(route.LibraryHasMoved(now)) << "the change may come after it";
    EXPECT_EQ(Within(1h, "wwan0", "wwan0"), Step::NONE);
}

TEST_F(ADefaultRoute, KeepsAnOrderOfTheLibrarysForTheInterfaceThatWasOnTop) {
    BeReplaced();
    ASSERT_EQ(Within(500ms, "wwan0", route.WanTop()), Step::NONE);
    EXPECT_TRUE(route.LibraryHasMoved(now)) << "the change may come after it";
    EXPECT_EQ(Within(1h, "eth0", "eth0"), Step::NONE);
}

TEST_F(ADefaultRoute, KeepsAnOrderThatTheLibraryHasGivenBeforeTheChangeWasTakenBack) {
    BeReplaced();
    ASSERT_EQ(Within(3s, "wwan0", "wwan0"), Step::RESTORE_ORDER);
    EXPECT_TRUE(route.LibraryHasMoved(now)) << "the restored order may come after it";
    EXPECT_EQ(Within(1h, "wwan0", "wwan0"), Step::NONE);
}

TEST_F(ADefaultRoute, LeavesAnOrderOfTheLibrarysAloneWithoutOneOfItsOwn) {
    EXPECT_FALSE(route.LibraryHasMoved(now));
    ASSERT_EQ(Within(4s, "wwan0", "eth0"), Step::NONE);
    EXPECT_FALSE(route.LibraryHasMoved(now)) << "nothing was ordered yet";
    BeReplaced();
    ASSERT_EQ(Within(3s, "wwan0", "wwan0"), Step::RESTORE_ORDER);
    ASSERT_EQ(Within(1min, "eth0", "eth0"), Step::NONE);
    EXPECT_FALSE(route.LibraryHasMoved(now)) << "it was put right";
    BeReplaced();
    ASSERT_EQ(Within(3s, "wwan0", "eth0"), Step::RESTORE_ORDER);
    ASSERT_EQ(Within(1min, "wwan0", "eth0"), Step::GIVE_UP);
    EXPECT_FALSE(route.LibraryHasMoved(now)) << "it was given up";
}

TEST_F(ADefaultRoute, HasTheOrderBackAlsoWhenTheChangeDoesNotShow) {
    BeReplaced();
    EXPECT_EQ(Within(3s, "wwan0", "eth0"), Step::RESTORE_ORDER);
}

TEST_F(ADefaultRoute, IsGivenUpOnceWhenItCannotBePutRight) {
    BeReplaced();
    ASSERT_EQ(Within(3s, "wwan0", "eth0"), Step::RESTORE_ORDER);
    EXPECT_EQ(Within(1min, "wwan0", "eth0"), Step::GIVE_UP);
    EXPECT_EQ(Within(1h, "wwan0", "eth0"), Step::NONE);
}

TEST_F(ADefaultRoute, IsPutRightAgainTheNextTime) {
    BeReplaced();
    ASSERT_EQ(Within(3s, "wwan0", "wwan0"), Step::RESTORE_ORDER);
    ASSERT_EQ(Within(1min, "eth0", "eth0"), Step::NONE);
    BeReplaced();
}

TEST_F(ADefaultRoute, IsNotJudgedWithoutTheConnectionManager) {
    EXPECT_EQ(Within(1h, "wwan0", ""), Step::NONE);
}

TEST_F(ADefaultRoute, IsTheConnectionManagersToMakeWhenThereIsNone) {
    EXPECT_EQ(Within(1h, "", "eth0"), Step::NONE);
}

TEST_F(ADefaultRoute, MayMoveToAndFro) {
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(Within(4s, "wwan0", "eth0"), Step::NONE);
        EXPECT_EQ(Within(4s, "eth0", "wwan0"), Step::NONE);
    }
}

} // namespace
} // namespace GatewayApp
