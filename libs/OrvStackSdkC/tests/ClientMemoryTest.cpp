// SPDX-License-Identifier: Apache-2.0
// Memory that runs out, at each place where a call asks for some.
#include "CScene.h"
#include "CountedNew.h"
#include "FakeBroker.h"
#include "FakeGateway.h"

#include <memory>

#ifndef ORV_ALLOCATIONS_NOT_COUNTED

namespace OrvStackSdk::Testing {
namespace {

using Call = int(orv_client*);

/// One of the calls, with texts too long to be kept without memory of their own.
struct NamedCall {
    const char* name;
    Call* call;
};

std::ostream& operator<<(std::ostream& stream, const NamedCall& named) {
    return stream << named.name;
}

#define LONG_TEXT "a text that is too long to be kept without memory of its own"

const NamedCall CALLS[] = {
    {"init", [](orv_client* client) { return orv_client_init(client, LONG_TEXT); }},
    {"start", [](orv_client* client) { return orv_client_start(client); }},
    {"app_status", [](orv_client* client) { return orv_client_app_status(client, ORV_APP_STATUS_READY); }},
    {"app_action", [](orv_client* client) { return orv_client_app_action(client, LONG_TEXT, ORV_APP_ACTION_RELOAD); }},
    {"event", [](orv_client* client) { return orv_client_event(client, ORV_EVENT_CLOUD_CONNECTED); }},
    {"request_shutdown", [](orv_client* client) { return orv_client_request_shutdown(client); }},
    {"panel_command", [](orv_client* client) { return orv_client_panel_command(client, LONG_TEXT, 1); }},
    {"connection_status", [](orv_client* client) { return orv_client_connection_status(client, LONG_TEXT); }},
};

class ACallWithoutMemory : public ::testing::TestWithParam<NamedCall> {};

TEST_P(ACallWithoutMemory, AnswersSoAtEachPlaceAndWorksAfterwards) {
    int refused = 0;
    for (int number = 1;; ++number) {
        OrvPlatformFake::FakeGateway::Reset();
        orv_client* client = nullptr;
        ASSERT_EQ(orv_client_create(nullptr, nullptr, &client), ORV_OK);
        OrvTest::FailAllocation(number);
        const int result = GetParam().call(client);
        const bool hasFailed = OrvTest::HasFailedAllocation();
        OrvTest::FailAllocation(0);
        EXPECT_TRUE(result == ORV_OK || (hasFailed && result == ORV_NO_MEMORY)) << result << " at " << number;
        refused += result == ORV_NO_MEMORY;
        EXPECT_EQ(GetParam().call(client), ORV_OK) << "after " << number;
        orv_client_destroy(client);
        if (!hasFailed)
            break;
    }
    EXPECT_GT(refused, 0);
}

INSTANTIATE_TEST_SUITE_P(Calls, ACallWithoutMemory, ::testing::ValuesIn(CALLS));

TEST(AClientWithoutMemory, IsNotMade) {
    for (int number = 1;; ++number) {
        OrvPlatformFake::FakeGateway::Reset();
        const orv_callbacks callbacks = AllCallbacks();
        Application application;
        orv_client* client = reinterpret_cast<orv_client*>(&application);
        OrvTest::FailAllocation(number);
        const int result = orv_client_create(&callbacks, &application, &client);
        const bool hasFailed = OrvTest::HasFailedAllocation();
        OrvTest::FailAllocation(0);
        EXPECT_EQ(client == nullptr, result == ORV_NO_MEMORY) << number;
        EXPECT_TRUE(result == ORV_OK || (hasFailed && result == ORV_NO_MEMORY)) << result << " at " << number;
        orv_client_destroy(client);
        if (!hasFailed) {
            EXPECT_GT(number, 5);
            break;
        }
    }
}

void PublishPanelStatus(const std::string& panel) {
    OrvPlatformFake::FakeBroker::Get().Inject("/orv/panel/connection_status", panel);
    OrvPlatformFake::FakeBroker::Get().Deliver();
}

TEST(ACallbackWithoutMemory, EndsThereAndTheNextOneComes) {
    OrvPlatformFake::FakeGateway::Reset();
    Application application;
    const orv_callbacks callbacks = AllCallbacks();
    orv_client* client = MakeClient(&callbacks, &application);
    application.then = [] {
        OrvTest::FailAllocation(1);
        static_cast<void>(std::make_unique<Application>());
    };
    EXPECT_NO_THROW(PublishPanelStatus("UP"));
    application.then = nullptr;
    PublishPanelStatus("DOWN");
    EXPECT_EQ(application.Heard(), (Lines{"online 1", "online 0"}));
    orv_client_destroy(client);
}

} // namespace
} // namespace OrvStackSdk::Testing

#endif
