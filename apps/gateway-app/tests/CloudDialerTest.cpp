// SPDX-License-Identifier: Apache-2.0
#include "CloudDialer.h"

#include "ProcessFigures.h"
#include "WaitUntil.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using OrvTest::ProcessFigures;

TEST(ACloudDialer, LeavesNothingOpenWhenItGoesBeforeTheAnswer) {
    CloudSettings settings;
    settings.host = "127.0.0.1";
    const auto before = ProcessFigures::Now().descriptors;
    {
        EventLoop loop;
        CloudDialer dialer(loop);
        dialer.Dial(settings, [](const Dialled&) { ADD_FAILURE() << "called back behind the end"; });
    }
    ASSERT_TRUE(OrvTest::WaitUntil([] { return CloudDialer::Helpers() == 0; }));
    EXPECT_TRUE(OrvTest::WaitUntil([&] { return ProcessFigures::Now().descriptors <= before; }));
}

} // namespace
} // namespace GatewayApp
