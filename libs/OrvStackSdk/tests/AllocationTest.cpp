// SPDX-License-Identifier: Apache-2.0
// What is called all the time must not touch the heap. On the bare fakes, because it is about the objects that are
// shipped, with their real clocks; the test kit has other ones.
#include "CountedNew.h"
#include "FakeBroker.h"
#include "FakeGateway.h"
#include "FakeLogger.h"
#include "OrvSessionMqtt.h"
#include "OrvStackClient.h"
#include "OrvStackSdk/OrvStackSdk.h"

#include <chrono>
#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>
#include <string>

#ifndef ORV_ALLOCATIONS_NOT_COUNTED

namespace {

using OrvPlatformFake::FakeGateway;
using OrvStackSdk::OrvEvent;
using OrvStackSdk::OrvSessionMqtt;
using OrvStackSdk::OrvStackClient;
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

/// Notes at each callback how often memory was asked for until then.
class CountingApplication : public OrvStackSdk::IOrvStackClientHandler {
public:
    std::size_t allocations = 0;
    int calls = 0;

    void OnInitConfirmation(const OrvStackSdk::Confirmation&) override { Note(); }
    void OnAppActionIndication(const OrvStackSdk::AppAction&) override { Note(); }
    void OnAppStatusIndication(const std::string&, const OrvStackSdk::AppStatus&) override { Note(); }
    void OnDeviceProbeIndication(const std::string&) override { Note(); }
    void OnDeviceOnlineStatusIndication(bool) override { Note(); }
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override { Note(); }
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override { Note(); }

private:
    void Note() {
        allocations = Allocations();
        ++calls;
    }
};

class AMessageWithTracesOff : public testing::Test {
protected:
    AMessageWithTracesOff() {
        FakeGateway::Reset();
        session = std::make_shared<OrvSessionMqtt>();
        client = std::make_shared<OrvStackClient>(session);
        session->SetHandler(client);
        client->SetHandler(application);
        client->Init("a feature with a name too long to fit into a string without the heap");
        client->AppStatusRequest(OrvStackSdk::AppStatus::READY);
        OrvPlatformFake::FakeLogger::SetLowestLevel(2);
        application->calls = 0;
    }

    std::size_t AllocationsUntilTheCallback(const std::string& topic, const std::string& message) {
        const std::size_t before = Allocations();
        session->OnPublish(topic, message);
        return application->allocations - before;
    }

    const std::shared_ptr<CountingApplication> application = std::make_shared<CountingApplication>();
    std::shared_ptr<OrvSessionMqtt> session;
    std::shared_ptr<OrvStackClient> client;
};

TEST_F(AMessageWithTracesOff, ReachesTheApplicationWithoutTheHeap) {
    const std::string message(200, 'x');
    int calls = 0;
    for (const char* topic :
         {"/orv/panel/guid", "/orv/panel/connection_status", "/orv/modem/imei", "/orv/modem/sim/strength"}) {
        EXPECT_EQ(AllocationsUntilTheCallback(topic, message), 0U) << topic;
        EXPECT_EQ(application->calls, ++calls) << topic;
    }
}

TEST_F(AMessageWithTracesOff, ForAnotherFeatureIsDroppedWithoutTheHeap) {
    const std::string topic = "/orv/apps_control/features/a feature with a name too long to fit into a string/init";
    const std::string message(200, 'x');
    const std::size_t before = Allocations();
    session->OnPublish(topic, message);
    EXPECT_EQ(Allocations(), before);
    EXPECT_EQ(application->calls, 0);
}

// Without it "no allocation" would prove nothing.
TEST_F(ASteadyClient, IsSeenToUseTheHeapWhenItDoes) {
    const std::size_t before = Allocations();
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    EXPECT_GT(Allocations(), before);
}

} // namespace

#endif
