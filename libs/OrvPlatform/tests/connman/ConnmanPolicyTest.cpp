// SPDX-License-Identifier: Apache-2.0
// Who may order the connection manager about, under the system bus's policy.
#include "ConnmanFixture.h"

#include <unistd.h>

namespace OrvTest {
namespace {

const std::string DEBIANS = ORV_FAKE_CONNMAN "/debian-connman.conf";
const std::string SHIPPED = ORV_SHIPPED_CONFIG "/connman-policy.conf";

class TheSystemBusPolicy : public testing::Test, protected LogWatch {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "two users are needed: to be run as root";
    }

    /// What becomes of another user's attempt to reorder the services.
    std::string ResultForAnybody() {
        const PrivateBus bus(policies);
        const FakeConnmanProcess connman(bus, "eth0:ready wwan0:ready");
        return HostilePeer(bus).Try("reorder");
    }

    std::vector<std::string> policies{DEBIANS};
};

TEST_F(TheSystemBusPolicy, LetsEveryUserReorderTheServicesOnDebian) {
    EXPECT_EQ(ResultForAnybody(), "ok");
}

TEST_F(TheSystemBusPolicy, KeepsOtherUsersAwayWithTheShippedFile) {
    policies.push_back(SHIPPED);
    EXPECT_EQ(ResultForAnybody(), "org.freedesktop.DBus.Error.AccessDenied");
}

TEST_F(TheSystemBusPolicy, LetsTheGatewaysApplicationWorkWithTheShippedFile) {
    policies.push_back(SHIPPED);
    const PrivateBus bus(policies);
    const FakeConnmanProcess connman(bus, "eth0:ready wwan0:ready");
    OrvPlatform::ConnmanClient link(bus.Address(), FAST);
    link.SetTopPriorityInterface("wwan0");
    EXPECT_TRUE(WaitUntil([&] { return link.TopPriorityInterface() == "wwan0"; }));
    connman.Do("services eth0:ready");
    EXPECT_TRUE(WaitUntil([&] { return link.TopPriorityInterface() == "eth0"; }));
}

} // namespace
} // namespace OrvTest
