// SPDX-License-Identifier: Apache-2.0
// The poke for real: libcurl and a TLS peer on a loopback interface of the test's own, which plays both WAN interfaces.
// Runs under support/with-test-endpoint. Each test prints how long the ticks took.
#include "PokeScene.h"

namespace OrvStackSdk {
namespace {

using namespace Testing;

TEST_F(ThePokeOnRealSockets, SucceedsOnceTheTlsConnectionStandsOnEitherInterface) {
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_CELL});
    route->Tick();
    route->UpdateRoute(true, true, true);
    route->Tick();
    Journal::Clear();
    EXPECT_EQ(LogWithin(15s), Entries{ROUTE_TO_ETHERNET});
}

TEST_F(ThePokeOnRealSockets, FailsWhenNobodyTrustsTheAuthority) {
    const TlsServer server("wrong");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(60)});
    Abort();
}

TEST_F(ThePokeOnRealSockets, FailsAtOnceWhereNobodyListensAndTriesAgain) {
    PokeOverCellular(ENDPOINT);
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(7)});
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(7)});
    const TlsServer server("good");
    ASSERT_TRUE(server.IsReadyWithin(10s));
    Entries log;
    const auto deadline = RealClock::now() + 15s;
    do
        log = LogWithin(15s);
    while (log == Entries{PokeError(7)} && RealClock::now() < deadline);
    EXPECT_EQ(log, Entries{ROUTE_TO_CELL});
}

TEST_F(ThePokeOnRealSockets, FailsAtOnceWithAnEndpointThatIsNone) {
    PokeOverCellular("cloud.example:port");
    EXPECT_EQ(LogWithin(15s), Entries{PokeError(3)});
    Abort();
}

TEST_F(ThePokeOnRealSockets, FailsAfterFifteenSecondsOfSilence) {
    const BoundSocket silent(SOCK_STREAM, "127.0.0.1", PORT);
    ASSERT_TRUE(silent.Listen());
    PokeOverCellular(ENDPOINT);
    const auto start = RealClock::now();
    EXPECT_EQ(LogWithin(60s), Entries{PokeError(28)});
    EXPECT_GE(RealClock::now() - start, 14900ms);
    Abort();
}

TEST_F(ThePokeOnRealSockets, DoesNotWaitForAPendingNameLookUpWhenItIsAborted) {
    const NameServer muteNameServer;
    PokeOverCellular("cloud.example");
    const auto deadline = RealClock::now() + 10s;
    while (muteNameServer.Asked().empty() && RealClock::now() < deadline) {
        Tick();
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_EQ(muteNameServer.Asked(), Names{"cloud.example"});
    Abort();
    // The look-up itself goes on for ten seconds.
    EXPECT_LT(LongestTick(), 5s);
}

} // namespace
} // namespace OrvStackSdk
