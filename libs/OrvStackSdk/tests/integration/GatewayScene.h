// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "MosquittoBroker.h"
#include "OrvStackSdk/OrvStackSdk.h"
#include "RawClient.h"
#include "WaitUntil.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace OrvTest {

/// An application that writes down what it is told. Callable from any thread.
class WatchedApplication : public OrvStackSdk::IOrvStackClientHandler {
public:
    /// Called with each line that is written down, on the thread of the callback. Set it before messages arrive.
    std::function<void(const std::string& line)> then;

    void OnInitConfirmation(const OrvStackSdk::Confirmation& confirmation) override {
        Note("init " + ConfirmationText(confirmation));
    }
    void OnAppActionIndication(const OrvStackSdk::AppAction& action) override {
        Note("action " + AppActionText(action));
    }
    void OnAppStatusIndication(const std::string& app, const OrvStackSdk::AppStatus& status) override {
        Note("status " + app + " " + AppStatusText(status));
    }
    void OnDeviceProbeIndication(const std::string& guid) override { Note("guid " + guid); }
    void OnDeviceOnlineStatusIndication(bool online) override { Note(online ? "online" : "offline"); }
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus& status,
                                          const std::string& value) override {
        Note(CellularStatusText(status) + " " + value);
    }
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override {
        Note((ready ? "ready " : "not ready ") + app);
    }

    std::size_t Count(const std::string& line) const {
        const std::lock_guard<std::mutex> lock(mutex);
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
    }
    bool HasReceived(const std::string& line) const {
        return WaitUntil([&] { return Count(line) != 0; });
    }

private:
    void Note(const std::string& line) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(line);
        }
        if (then)
            then(line);
    }

    mutable std::mutex mutex;
    std::vector<std::string> lines;
};

/// The library and the platform as they run on a gateway, against a real broker and a real message bus of our own; only
/// the connection manager on it is a fake. Settings are read once in a process, so that all tests of the program share
/// them.
class GatewayScene : public ::testing::Test {
protected:
    static void SetUpTestSuite();

    GatewayScene();

    /// Takes leave of the broker: the will of a client that is only released may be spoken as late as in the next test.
    void TearDown() override;

    /// A client of the name, initialised, started and ready, whose announcements the witness has seen and dropped.
    void Begin(const std::string& name);

    /// The next message that the witness sees on the topic; "(nothing)" when none comes.
    std::string Seen(const std::string& topic);
    std::string Retained(const std::string& topic);
    /// Somebody else publishes.
    void Publish(const std::string& topic, const std::string& payload, bool retained = false);

    static MosquittoBroker& Broker();
    /// The path of settings for another process: the same but for the log file.
    static std::string SettingsOfAnother();

    RawClient witness;
    RawClient somebody;
    std::shared_ptr<WatchedApplication> application = std::make_shared<WatchedApplication>();
    std::shared_ptr<OrvStackSdk::IOrvStackClient> client;
};

} // namespace OrvTest
