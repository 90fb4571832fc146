// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "FakeBroker.h"
#include "FakeGateway.h"
#include "Journal.h"
#include "OrvStackClient.h"
#include "RecordingHandler.h"
#include "RecordingSession.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace OrvStackSdk::Testing {

using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeBroker;
using OrvPlatformFake::Journal;
using OrvPlatformFake::Only;
namespace Entry = OrvPlatformFake::Entry;

inline std::string ClientTrace(const std::string& tag, const std::string& text = "") {
    return Entry::Trace("OrvStackClient", tag, text);
}

/// A client between a recording session and a recording application, on a fresh gateway, named "myapp"; what its making
/// wrote is forgotten.
class ClientScene : public ::testing::Test {
protected:
    ClientScene() {
        OrvPlatformFake::FakeGateway::Reset();
        client = std::make_shared<OrvStackClient>(session);
        client->SetHandler(handler);
        client->Init("myapp");
        Journal::Clear();
    }

    /// What `action` wrote into the journal.
    template <typename Action>
    Entries Written(Action action) {
        Journal::Clear();
        action();
        return Journal::Take();
    }

    std::shared_ptr<RecordingSession> session = std::make_shared<RecordingSession>();
    std::shared_ptr<RecordingHandler> handler = std::make_shared<RecordingHandler>();
    std::shared_ptr<OrvStackClient> client;
};

} // namespace OrvStackSdk::Testing
