// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "FakeBroker.h"
#include "FakeConnman.h"
#include "FakeGateway.h"
#include "Journal.h"
#include "OrvStatusHandler.h"
#include "RecordingSession.h"
#include "StatusFiles.h"

#include <gtest/gtest.h>
#include <memory>

namespace OrvStackSdk::Testing {

/// A status handler between a recording session and a real route supervisor, on virtual clocks, without status files
/// from before. The handler itself is built by Start, so that a test can prepare the ground.
class StatusHandlerFixture : public ::testing::Test {
protected:
    StatusHandlerFixture() {
        OrvPlatformFake::FakeGateway::Reset();
        RemoveStatusFiles();
        route = std::make_shared<OrvRoute>(steadyTime.Now());
    }

    ~StatusHandlerFixture() override { RemoveStatusFiles(); }

    void Start() { handler = std::make_unique<OrvStatusHandler>(session, route, wallTime.Now()); }

    void Send(OrvEvent event) { handler->SetEvent(event); }

    void Send(std::initializer_list<OrvEvent> events) {
        for (const auto event : events)
            Send(event);
    }

    /// What the event makes the handler do, in order.
    OrvPlatformFake::Entries After(OrvEvent event) {
        OrvPlatformFake::Journal::Clear();
        Send(event);
        return OrvPlatformFake::Journal::Take();
    }

    OrvPlatformFake::Entries AfterTick() {
        OrvPlatformFake::Journal::Clear();
        route->Tick();
        return OrvPlatformFake::Journal::Take();
    }

    OrvPlatformFake::VirtualClock<OrvRoute::Clock> steadyTime;
    OrvPlatformFake::VirtualClock<OrvStatusHandler::Clock> wallTime;
    std::shared_ptr<RecordingSession> session = std::make_shared<RecordingSession>();
    std::shared_ptr<OrvRoute> route;
    std::unique_ptr<OrvStatusHandler> handler;
};

} // namespace OrvStackSdk::Testing
