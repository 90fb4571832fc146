// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "FakeBroker.h"
#include "FakeGateway.h"
#include "Journal.h"
#include "OrvSessionMqtt.h"
#include "RecordingSessionHandler.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>

namespace OrvStackSdk::Testing {

using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeBroker;
using OrvPlatformFake::Journal;
using OrvPlatformFake::Only;
namespace Entry = OrvPlatformFake::Entry;

/// @name The session's journal lines
/// @{
inline std::string SessionTrace(const std::string& tag, const std::string& text = "") {
    return Entry::Trace("OrvSessionMqtt", tag, text);
}
inline std::string SessionWarning(const std::string& text) {
    return Entry::Warning("OrvSessionMqtt", text);
}
inline std::string SessionPublish(const std::string& topic, const std::string& payload) {
    return Entry::Publish("ORV_Stack", topic, payload, false);
}
inline std::string SessionPublishRetained(const std::string& topic, const std::string& payload) {
    return Entry::PublishRetained("ORV_Stack", topic, payload, false);
}
/// @}

/// The nine subscriptions and the reset of the enterprise connection, as they follow a successful connection.
inline Entries SubscriptionsAndReset() {
    Entries entries;
    for (const char* filter :
         {"/orv/apps_control/features/#", "/orv/panel/guid", "/orv/panel/connection_status", "/orv/modem/imei",
          "/orv/modem/sim/iccid", "/orv/modem/sim/technology", "/orv/modem/sim/provider", "/orv/modem/sim/strength",
          "/orv/apps_control/features/shutdown_readiness/+"})
        entries.push_back(Entry::Subscribe("ORV_Stack", filter, 1));
    entries.push_back(SessionPublishRetained("/orv/apps_control/features/Ent/status/EntCon", "false"));
    return entries;
}

inline Entries operator+(Entries left, const Entries& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// A session with a recording handler, on a fresh gateway; what its making wrote is forgotten.
class SessionScene : public ::testing::Test {
protected:
    SessionScene() {
        OrvPlatformFake::FakeGateway::Reset();
        session = std::make_shared<OrvSessionMqtt>();
        session->SetHandler(handler);
        Journal::Clear();
    }

    void Init(const std::string& feature) {
        session->InitRequest(feature);
        Journal::Clear();
    }

    /// What `action` wrote into the journal.
    template <typename Action>
    Entries Written(Action action) {
        Journal::Clear();
        action();
        return Journal::Take();
    }

    std::shared_ptr<RecordingSessionHandler> handler = std::make_shared<RecordingSessionHandler>();
    std::shared_ptr<OrvSessionMqtt> session;
};

} // namespace OrvStackSdk::Testing
