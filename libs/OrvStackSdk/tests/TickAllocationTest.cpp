// SPDX-License-Identifier: Apache-2.0
#include "CountedNew.h"
#include "FakeGateway.h"
#include "OrvStackSdk/OrvStackSdk.h"

#include <chrono>
#include <gtest/gtest.h>
#include <malloc.h>

#ifndef ORV_ALLOCATIONS_NOT_COUNTED

namespace {

using OrvPlatformFake::FakeGateway;
using OrvStackSdk::OrvEvent;
using OrvTest::Allocations;

struct Cost {
    std::size_t allocations;
    std::ptrdiff_t heapGrowth;
};

bool operator==(const Cost& left, const Cost& right) {
    return left.allocations == right.allocations && left.heapGrowth == right.heapGrowth;
}

void PrintTo(const Cost& cost, std::ostream* stream) {
    *stream << cost.allocations << " allocations, heap grown by " << cost.heapGrowth;
}

class ASteadyClient : public testing::Test {
protected:
    ASteadyClient() {
        FakeGateway::Reset();
        client = OrvStackSdk::CreateClient();
        client->Init("meter");
        client->Start();
    }

    /// The state is entered with the first of the ticks, which may say so in the log; the others are counted.
    Cost CostOfTicks() {
        client->Tick(std::chrono::milliseconds(100));
        const std::size_t allocationsBefore = Allocations();
        const auto heapBefore = static_cast<std::ptrdiff_t>(mallinfo2().uordblks);
        for (int tick = 0; tick < 1000; ++tick) {
            client->Tick(std::chrono::milliseconds(100));
            reconnects += client->CloudReconnectNeeded() ? 1 : 0;
        }
        return {Allocations() - allocationsBefore, static_cast<std::ptrdiff_t>(mallinfo2().uordblks) - heapBefore};
    }

    std::shared_ptr<OrvStackSdk::IOrvStackClient> client;
    int reconnects = 0;
};

TEST_F(ASteadyClient, TicksWithoutTheHeapWhileTheCloudIsConnected) {
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    EXPECT_EQ(CostOfTicks(), (Cost{0, 0}));
}

TEST_F(ASteadyClient, TicksWithoutTheHeapWhileItWaitsForTheCloud) {
    client->EventUpdateRequest(OrvEvent::CELLULAR_IP_GAINED);
    EXPECT_EQ(CostOfTicks(), (Cost{0, 0}));
}

// Without it "no allocation" would prove nothing.
TEST_F(ASteadyClient, IsSeenToUseTheHeapWhenItDoes) {
    const std::size_t before = Allocations();
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    EXPECT_GT(Allocations(), before);
}

} // namespace

#endif
