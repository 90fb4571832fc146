// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "IOrvSession.h"
#include "Journal.h"

#include <functional>
#include <string>

namespace OrvStackSdk::Testing {

/// A session that writes every request into the journal, as a line "request Name(arguments)".
class RecordingSession : public IOrvSession {
public:
    /// What LedUpdateRequest returns: true for an update that did not go out.
    bool ledUpdateFails = false;

    /// Called after each request was written down, with its line; may throw.
    std::function<void(const std::string& line)> then;

    void InitRequest(const std::string& appName) override { Note("InitRequest(" + appName + ")"); }
    void DeInitRequest() override { Note("DeInitRequest()"); }
    void SetHandler(std::weak_ptr<IOrvSessionHandler>) override { Note("SetHandler()"); }
    void FeatureAvailableRequest(const std::string& app, bool available) override {
        Note("FeatureAvailableRequest(" + app + ", " + Word(available) + ")");
    }
    void FeatureSupportedRequest(const std::string& app, bool supported) override {
        Note("FeatureSupportedRequest(" + app + ", " + Word(supported) + ")");
    }
    void FeatureInitRequest(const std::string& app, const AppStatus& status) override {
        Note("FeatureInitRequest(" + app + ", status " + std::to_string(static_cast<int>(status)) + ")");
    }
    void FeatureInitRequest(const std::string& app, const AppAction& action) override {
        Note("FeatureInitRequest(" + app + ", action " + std::to_string(static_cast<int>(action)) + ")");
    }
    void AppsControlEventRequest(const std::string&, const std::string&) override { Note("AppsControlEventRequest()"); }
    void FeaturePrepareForShutdownRequest() override { Note("FeaturePrepareForShutdownRequest()"); }
    void FeatureShutdownReadinessRequest(const std::string&, const std::string&) override {
        Note("FeatureShutdownReadinessRequest()");
    }
    bool LedUpdateRequest(const ConnectedServicesLedType& led, const ConnectedServicesLedState& state) override {
        Note("LedUpdateRequest(" + ConnectedServicesLedTypeText(led) + ", " + ConnectedServicesLedStateText(state) +
             ")");
        return ledUpdateFails;
    }
    void StatusEntConRequest(bool connected) override { Note("StatusEntConRequest(" + Word(connected) + ")"); }
    void StatusExtNetRequest(bool reachable) override { Note("StatusExtNetRequest(" + Word(reachable) + ")"); }
    void PanelCommandRequest(const std::string& command, int value) override {
        Note("PanelCommandRequest(" + command + ", " + std::to_string(value) + ")");
    }
    void SendConnectionStatus(const std::string& status) override { Note("SendConnectionStatus(" + status + ")"); }

private:
    static std::string Word(bool value) { return value ? "true" : "false"; }

    void Note(const std::string& request) {
        const std::string line = "request " + request;
        OrvPlatformFake::Journal::Add(line);
        if (then)
            then(line);
    }
};

} // namespace OrvStackSdk::Testing
