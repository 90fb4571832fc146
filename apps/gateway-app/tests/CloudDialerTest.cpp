// SPDX-License-Identifier: Apache-2.0
#include "CloudDialer.h"

#include "ProcessFigures.h"
#include "WaitUntil.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

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

TEST(ACloudDialer, CountsAHelperUntilItHoldsNothingAnyMore) {
    // How many helpers there were when the last one to hold the callback let go of it; that may be we.
    const auto left = std::make_shared<std::atomic<int>>(-1);
    const auto self = std::this_thread::get_id();
    const auto look = [left, self](void*) { *left = std::this_thread::get_id() == self ? 1 : CloudDialer::Helpers(); };
    CloudSettings settings;
    settings.host = "127.0.0.1";
    {
        EventLoop loop;
        CloudDialer dialer(loop);
        dialer.Dial(settings, [end = std::shared_ptr<void>(left.get(), look)](const Dialled&) {});
    }
    ASSERT_TRUE(OrvTest::WaitUntil([&] { return *left != -1; }));
    EXPECT_EQ(*left, 1);
    ASSERT_TRUE(OrvTest::WaitUntil([] { return CloudDialer::Helpers() == 0; }));
}

} // namespace
} // namespace GatewayApp
