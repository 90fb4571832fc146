// SPDX-License-Identifier: Apache-2.0
// No call waits for the connection manager or for the bus. The limits here are so long that who waits for one is seen.
#include "connman/ConnmanClient.h"

#include "LogWatch.h"
#include "ScriptedBus.h"

#include <gtest/gtest.h>

namespace OrvTest {
namespace {

using namespace std::chrono_literals;

class AnUnansweredGateway : public testing::Test, protected LogWatch {
protected:
    void ExpectNoCallToWait() {
        EXPECT_LT(TimeOf([&] {
                      for (int i = 0; i < 1000; ++i) {
                          link.SetTopPriorityInterface(i % 2 == 0 ? "wwan0" : "eth0");
                          link.SetDnsConfiguration("wwan0", {"198.51.100.1"});
                          link.TopPriorityInterface();
                      }
                  }),
                  PATIENCE);
    }

    ScriptedBus bus;
    OrvPlatform::ConnmanClient link{bus.Address(), {2 * PATIENCE, 2 * PATIENCE, 20ms, 200ms, 2 * PATIENCE}};
};

TEST_F(AnUnansweredGateway, NeverWaitsForABusThatDoesNotAccept) {
    ExpectNoCallToWait();
}

TEST_F(AnUnansweredGateway, NeverWaitsForABusThatDoesNotGreet) {
    link.TopPriorityInterface();
    bus.Accept();
    bus.Expect("Hello");
    ExpectNoCallToWait();
}

TEST_F(AnUnansweredGateway, NeverWaitsForABusThatOwesTheConnectionManagersName) {
    link.TopPriorityInterface();
    bus.SetUpMatches();
    ExpectNoCallToWait();
}

TEST_F(AnUnansweredGateway, NeverWaitsForTheListOfServices) {
    link.TopPriorityInterface();
    bus.Send(bus.Return(bus.SetUpMatches(), bus.DRIVER, bus.MANAGER));
    bus.Expect("GetServices");
    ExpectNoCallToWait();
}

TEST_F(AnUnansweredGateway, NeverWaitsForAConnectionManagerThatOwesAnAnswer) {
    link.SetTopPriorityInterface("wwan0");
    bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    bus.Expect("MoveBefore");
    ExpectNoCallToWait();
}

TEST_F(AnUnansweredGateway, StopsWhileTheConnectionManagerOwesAnAnswer) {
    link.SetTopPriorityInterface("wwan0");
    bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    bus.Expect("MoveBefore");
    EXPECT_LT(TimeOf([&] { link.Stop(); }), PATIENCE);
}

} // namespace
} // namespace OrvTest
