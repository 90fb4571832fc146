// SPDX-License-Identifier: Apache-2.0
#include "RouteMoves.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using Path = RouteMoves::Path;

class ARouteOverEthernet : public testing::Test {
protected:
    void Pass(std::chrono::milliseconds time) { now += time; }
    void Kernel(Path path) { moves.DefaultRouteIs(path, now); }
    void Library(Path path) { moves.OrderedByLibrary(path, now); }
    std::optional<RouteMoves::Move> Take() { return moves.Take(now); }

    RouteMoves::Time now;
    RouteMoves moves{Path::ETHERNET, now};
};

TEST_F(ARouteOverEthernet, HasNotMovedAtFirst) {
    Pass(1h);
    EXPECT_FALSE(Take());
}

TEST_F(ARouteOverEthernet, HasMovedWhenKernelAndLibrarySaySo) {
    Kernel(Path::CELLULAR);
    EXPECT_FALSE(Take());
    Pass(200ms);
    Library(Path::CELLULAR);
    const auto move = Take();
    ASSERT_TRUE(move);
    EXPECT_EQ(move->from, Path::ETHERNET);
    EXPECT_EQ(move->to, Path::CELLULAR);
    EXPECT_TRUE(move->ordered && move->followed);
    EXPECT_EQ(move->ended - move->begun, 200ms);
    EXPECT_FALSE(Take());
}

TEST_F(ARouteOverEthernet, HasMovedAlsoWhenTheLibraryIsFirst) {
    Library(Path::CELLULAR);
    EXPECT_FALSE(Take());
    Pass(300ms);
    Kernel(Path::NONE);
    EXPECT_FALSE(Take());
    Kernel(Path::CELLULAR);
    const auto move = Take();
    ASSERT_TRUE(move);
    EXPECT_TRUE(move->ordered && move->followed);
    Pass(1h);
    EXPECT_FALSE(Take());
}

TEST_F(ARouteOverEthernet, IsMovedWithoutTheLibraryAfterThreeSeconds) {
    EXPECT_FALSE(moves.Due());
    Kernel(Path::CELLULAR);
    EXPECT_EQ(moves.Due(), now + 3s);
    Pass(2999ms);
    EXPECT_FALSE(Take());
    Pass(1ms);
    const auto move = Take();
    ASSERT_TRUE(move);
    EXPECT_FALSE(move->ordered);
    EXPECT_TRUE(move->followed);
    EXPECT_FALSE(moves.Due());
}

TEST_F(ARouteOverEthernet, HasMovedOnceWhenTheLibrarySaysSoLate) {
    Kernel(Path::CELLULAR);
    Pass(3s);
    ASSERT_TRUE(Take());
    Library(Path::CELLULAR);
    Pass(3s);
    EXPECT_FALSE(Take());
}

TEST_F(ARouteOverEthernet, WasOrderedAwayThoughTheKernelDoesNotFollow) {
    Library(Path::CELLULAR);
    Pass(3s);
    const auto move = Take();
    ASSERT_TRUE(move);
    EXPECT_TRUE(move->ordered);
    EXPECT_FALSE(move->followed);
    Pass(1h);
    EXPECT_FALSE(Take());
    Kernel(Path::CELLULAR);
    Pass(1h);
    EXPECT_FALSE(Take()) << "it was told of already";
}

TEST_F(ARouteOverEthernet, HasNotMovedWhenTheLibraryOrdersItBackBeforeTheKernelHasFollowed) {
    Library(Path::CELLULAR);
    Pass(1s);
    Library(Path::ETHERNET);
    Pass(1h);
    EXPECT_FALSE(Take());
    Kernel(Path::CELLULAR);
    Pass(3s);
    const auto move = Take();
    ASSERT_TRUE(move);
    EXPECT_FALSE(move->ordered);
}

TEST_F(ARouteOverEthernet, IsMovedByTheKernelAloneWhenTheLibraryOrdersItBackInVain) {
    Kernel(Path::CELLULAR);
    Pass(100ms);
    Library(Path::ETHERNET);
    EXPECT_FALSE(Take());
    Pass(2900ms);
    const auto move = Take();
    ASSERT_TRUE(move);
    EXPECT_EQ(move->to, Path::CELLULAR);
    EXPECT_FALSE(move->ordered);
}

TEST_F(ARouteOverEthernet, HasNotMovedWhenItIsBackAtOnce) {
    Kernel(Path::CELLULAR);
    Pass(1s);
    Kernel(Path::ETHERNET);
    Pass(1h);
    EXPECT_FALSE(Take());
}

TEST_F(ARouteOverEthernet, HasNotMovedWhenItIsLostForAWhile) {
    Kernel(Path::NONE);
    Pass(1h);
    EXPECT_FALSE(Take());
    Kernel(Path::OTHER);
    Pass(1h);
    EXPECT_FALSE(Take());
    Kernel(Path::ETHERNET);
    Pass(1h);
    EXPECT_FALSE(Take());
}

TEST_F(ARouteOverEthernet, HasMovedWhenItIsFoundElsewhereAfterAWhile) {
    Kernel(Path::NONE);
    Pass(1h);
    Kernel(Path::CELLULAR);
    Pass(3s);
    EXPECT_TRUE(Take());
}

TEST_F(ARouteOverEthernet, CountsTheTimeOnEachPath) {
    Pass(10s);
    Kernel(Path::CELLULAR);
    Pass(5s);
    Kernel(Path::NONE);
    Pass(1s);
    Kernel(Path::ETHERNET);
    Pass(2s);
    EXPECT_EQ(moves.On(Path::ETHERNET, now), 12s);
    EXPECT_EQ(moves.On(Path::CELLULAR, now), 5s);
    EXPECT_EQ(moves.On(Path::NONE, now), 1s);
}

TEST(AGatewayWithoutARoute, HasNotMovedWhenItGetsOne) {
    RouteMoves::Time now;
    RouteMoves moves(Path::NONE, now);
    moves.DefaultRouteIs(Path::CELLULAR, now);
    EXPECT_FALSE(moves.Take(now + 1h));
    moves.DefaultRouteIs(Path::ETHERNET, now + 1h);
    EXPECT_TRUE(moves.Take(now + 2h));
}

TEST(AGatewayWithoutARoute, HasNotMovedWhenTheLibraryOrdersOneThatTheKernelGetsLateOrNever) {
    for (const Path path : {Path::NONE, Path::OTHER}) {
        RouteMoves::Time now;
        RouteMoves moves(path, now);
        moves.OrderedByLibrary(Path::CELLULAR, now);
        EXPECT_FALSE(moves.Take(now + 1h));
        moves.DefaultRouteIs(Path::CELLULAR, now + 1h);
        EXPECT_FALSE(moves.Take(now + 2h));
        moves.OrderedByLibrary(Path::ETHERNET, now + 2h);
        const auto move = moves.Take(now + 3h);
        ASSERT_TRUE(move);
        EXPECT_EQ(move->from, Path::CELLULAR);
        EXPECT_EQ(move->to, Path::ETHERNET);
    }
}

} // namespace
} // namespace GatewayApp
