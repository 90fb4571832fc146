// SPDX-License-Identifier: Apache-2.0
// Want of memory for a record of the poke costs that record, and never the supervision.
#include "FakeLogger.h"
#include "RouteFixture.h"

#include <algorithm>
#include <new>

namespace OrvStackSdk {
namespace {

using namespace Testing;
using OrvPlatformFake::FakeLogger;

class ARouteThatRunsOutOfMemory : public RouteFixture {
protected:
    void TickWithoutMemory() {
        FakeLogger::FailNextRecord();
        EXPECT_THROW(route->Tick(), std::bad_alloc);
    }

    bool SaysWithinTicks(int ticks, const std::string& line) {
        for (; ticks > 0; --ticks) {
            const Entries said = AfterTick();
            if (std::find(said.begin(), said.end(), line) != said.end())
                return true;
        }
        return false;
    }
};

TEST_F(ARouteThatRunsOutOfMemory, LooksAgainForEthernetAfterAFailureThatItCouldNotWrite) {
    StartEthernetPoke();
    FakeCurl::FailWith(CURLE_COULDNT_CONNECT);
    TickWithoutMemory();
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
    FakeCurl::Succeed();
    EXPECT_TRUE(SaysWithinTicks(2, RouteDebug("poke success, route to ETH")));
}

TEST_F(ARouteThatRunsOutOfMemory, KeepsNoAttemptWhoseTransferCouldNotBeDriven) {
    StartEthernetPoke();
    FakeCurl::SetPerformResult(CURLM_OUT_OF_MEMORY);
    TickWithoutMemory();
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
}

} // namespace
} // namespace OrvStackSdk
