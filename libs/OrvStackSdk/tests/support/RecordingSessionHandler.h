// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "IOrvSessionHandler.h"
#include "Journal.h"

#include <functional>
#include <string>

namespace OrvStackSdk::Testing {

/// A client's session side that writes every indication into the journal, as a line "indication Name(arguments)".
class RecordingSessionHandler : public IOrvSessionHandler {
public:
    /// Called after each indication was written down.
    std::function<void()> then;

    void OnInitConfirmation(const Confirmation& confirmation) override {
        Note("OnInitConfirmation(" + ConfirmationText(confirmation) + ")");
    }
    void OnFeatureAvailableIndication(const std::string& app, bool available) override {
        Note("OnFeatureAvailableIndication(" + app + ", " + Word(available) + ")");
    }
    void OnFeatureSupportedIndication(const std::string& app, bool supported) override {
        Note("OnFeatureSupportedIndication(" + app + ", " + Word(supported) + ")");
    }
    void OnFeatureInitIndication(const std::string& app, const AppStatus& status) override {
        Note("OnFeatureInitIndication(" + app + ", status " + AppStatusText(status) + ")");
    }
    void OnFeatureInitIndication(const std::string& app, const AppAction& action) override {
        Note("OnFeatureInitIndication(" + app + ", action " + AppActionText(action) + ")");
    }
    void OnDeviceProbeIndication(const std::string& guid) override { Note("OnDeviceProbeIndication(" + guid + ")"); }
    void OnDeviceConnectionStatusIndication(bool online) override {
        Note("OnDeviceConnectionStatusIndication(" + Word(online) + ")");
    }
    void OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) override {
        Note("OnDeviceCellularStatusIndication(" + CellularStatusText(status) + ", " + value + ")");
    }
    void OnAppsControlEventIndication(const std::string&, const std::string&) override {
        Note("OnAppsControlEventIndication()");
    }
    void OnFeaturePrepareForShutdownIndication(const std::string&, const std::string&) override {
        Note("OnFeaturePrepareForShutdownIndication()");
    }
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override {
        Note("OnFeatureShutdownReadinessIndication(" + app + ", " + Word(ready) + ")");
    }

private:
    static std::string Word(bool value) { return value ? "true" : "false"; }

    void Note(const std::string& indication) {
        OrvPlatformFake::Journal::Add("indication " + indication);
        if (then)
            then();
    }
};

} // namespace OrvStackSdk::Testing
