// SPDX-License-Identifier: Apache-2.0
#include "FailOverHindrance.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using Missing = FailOverHindrance::Missing;

class AFailOverThatDoesNotHappen : public testing::Test {
protected:
    std::string After(std::chrono::seconds time, Missing missing, bool wanted = true) {
        now += time;
        return hindrance.Observe(wanted, missing, now).value_or("");
    }

    FailOverHindrance hindrance{"wwan0"};
    FailOverHindrance::Time now{1h};
};

TEST_F(AFailOverThatDoesNotHappen, IsExplainedOnceWhenItsTimeHasCome) {
    EXPECT_EQ(After(0s, Missing::ADDRESS), "");
    EXPECT_EQ(After(12s, Missing::ADDRESS), "");
    EXPECT_EQ(After(1s, Missing::ADDRESS), "no fail-over to Cellular: wwan0 has no address. Connect its service once "
                                           "(connmanctl services, connmanctl connect SERVICE)");
    EXPECT_EQ(After(1h, Missing::ADDRESS), "");
}

TEST_F(AFailOverThatDoesNotHappen, IsExplainedAnewByAnotherReasonAndInAnotherOutage) {
    After(0s, Missing::INTERFACE);
    EXPECT_EQ(
        After(13s, Missing::INTERFACE),
        "no fail-over to Cellular: there is no interface wwan0. Is the modem there (ip link), and is that its name "
        "in [interfaces] of gateway.ini?");
    EXPECT_EQ(After(1s, Missing::LINK), "no fail-over to Cellular: wwan0 has no link. Is the modem registered with a "
                                        "network (connmanctl technologies)?");
    EXPECT_EQ(After(1s, Missing::LINK, false), "");
    EXPECT_EQ(After(1s, Missing::LINK), "");
    EXPECT_NE(After(13s, Missing::LINK), "");
}

TEST_F(AFailOverThatDoesNotHappen, NamesAConnectionManagerThatCannotMoveTheRoute) {
    After(0s, Missing::SERVICE);
    EXPECT_EQ(After(13s, Missing::SERVICE),
              "no fail-over to Cellular: ConnMan has no connected service, or is not there. "
              "Look at systemctl status connman and connmanctl services");
}

TEST_F(AFailOverThatDoesNotHappen, HasNoReasonHereWhenCellularCanBeTried) {
    EXPECT_EQ(After(0s, Missing::NOTHING), "");
    EXPECT_EQ(After(1h, Missing::NOTHING), "");
    EXPECT_EQ(After(0s, Missing::ADDRESS), "") << "it has only now begun";
    EXPECT_EQ(After(12s, Missing::ADDRESS), "");
}

} // namespace
} // namespace GatewayApp
