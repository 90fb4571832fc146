// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "FakeBrokerServer.h"
#include "Journal.h"
#include "MosquittoBroker.h"
#include "ProcessFigures.h"
#include "RawClient.h"
#include "TestClient.h"
#include "WaitUntil.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace OrvTest {

using namespace std::chrono_literals;

/// What a bounded call may take beyond its bound on a loaded machine under a sanitizer.
constexpr auto SLACK = 2s;

/// A fixture with fresh settings for a broker that is expected on `port`.
class BrokerTest : public testing::Test {
protected:
    explicit BrokerTest(std::uint16_t port) {
        TestConfig() = {};
        BrokerSettings().clientIdSuffix.clear();
        BrokerSettings().port = port;
        OrvPlatformFake::Journal::Clear();
    }

    /// What has been logged so far.
    const std::vector<std::string>& Log() {
        const auto news = OrvPlatformFake::Journal::Take();
        log.insert(log.end(), news.begin(), news.end());
        return log;
    }

    std::size_t Logged(const std::string& text) {
        const auto& lines = Log();
        return static_cast<std::size_t>(std::count_if(
            lines.begin(), lines.end(), [&](const std::string& line) { return line.find(text) != std::string::npos; }));
    }

private:
    std::vector<std::string> log;
};

struct BrokerHolder {
    MosquittoBroker broker;
};

/// A fixture with a real broker that lets everybody in.
class RealBrokerTest : private BrokerHolder, public BrokerTest {
protected:
    RealBrokerTest() : BrokerTest(broker.Port()) {}

    using BrokerHolder::broker;

    /// Messages that the client publishes to itself from now on have all arrived.
    static bool IsUpToDate(TestClient& client) {
        const std::string mark = "mark" + std::to_string(++marks);
        client.Subscribe("mark", 0);
        client.PublishMessage("mark", mark, true);
        return WaitUntil([&] { return client.HasReceived("mark", mark); });
    }

    /// The payloads of the next messages, `count` of them or fewer when none comes any more.
    static std::vector<std::string> NextPayloads(RawClient& witness, std::size_t count) {
        std::vector<std::string> payloads;
        while (payloads.size() < count) {
            const auto message = witness.NextMessage();
            if (!message)
                break;
            payloads.push_back(message->payload);
        }
        return payloads;
    }

    std::string Retained(const std::string& topic) {
        const auto state = RetainedState(broker.Port(), topic);
        const auto found = state.find(topic);
        return found == state.end() ? "(nothing)" : found->second;
    }

private:
    static inline int marks = 0;
};

} // namespace OrvTest
