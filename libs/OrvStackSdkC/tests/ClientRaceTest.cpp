// SPDX-License-Identifier: Apache-2.0
#include "CScene.h"
#include "FakeBroker.h"
#include "FakeGateway.h"
#include "Journal.h"

#include <memory>
#include <thread>

namespace OrvStackSdk::Testing {
namespace {

TEST(AnIndicationOnItsWay, ReachesNoUserWhoseClientHasEndedMeanwhile) {
    OrvPlatformFake::FakeGateway::Reset();
    auto application = std::make_unique<Application>();
    const orv_callbacks callbacks = AllCallbacks();
    orv_client* client = MakeClient(&callbacks, application.get());
    int ends = 0;
    // The last record before the application is called.
    OrvPlatformFake::Journal::Observe([&](const std::string& entry) {
        if (entry.find("Calling OnDeviceProbeIndication(4711)") == std::string::npos || ends++ != 0)
            return;
        std::thread([&] {
            orv_client_destroy(client);
            application = std::make_unique<Application>(); // the old one is gone
        }).join();
    });
    OrvPlatformFake::FakeBroker::Get().Inject("/orv/panel/guid", "4711");
    OrvPlatformFake::FakeBroker::Get().Deliver();
    OrvPlatformFake::Journal::Observe(nullptr);
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(application->Heard(), Lines{});
}

} // namespace
} // namespace OrvStackSdk::Testing
