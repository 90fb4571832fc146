// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Journal.h"
#include "OrvStackSdk/IOrvStackClientHandler.h"

#include <functional>
#include <string>

namespace OrvStackSdk::Testing {

/// An application that writes every callback into the journal, as a line "callback Name(arguments)".
class RecordingHandler : public IOrvStackClientHandler {
public:
    /// Called after each callback was written down, with its line; may call the client back or release it.
    std::function<void(const std::string& line)> then;

    void OnInitConfirmation(const Confirmation& confirmation) override {
        Note("OnInitConfirmation(" + ConfirmationText(confirmation) + ")");
    }
    void OnAppActionIndication(const AppAction& action) override {
        Note("OnAppActionIndication(" + AppActionText(action) + ")");
    }
    void OnAppStatusIndication(const std::string& app, const AppStatus& status) override {
        Note("OnAppStatusIndication(" + app + ", " + AppStatusText(status) + ")");
    }
    void OnDeviceProbeIndication(const std::string& guid) override { Note("OnDeviceProbeIndication(" + guid + ")"); }
    void OnDeviceOnlineStatusIndication(bool online) override {
        Note(std::string("OnDeviceOnlineStatusIndication(") + (online ? "true" : "false") + ")");
    }
    void OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) override {
        Note("OnDeviceCellularStatusIndication(" + CellularStatusText(status) + ", " + value + ")");
    }
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override {
        Note("OnFeatureShutdownReadinessIndication(" + app + ", " + (ready ? "true" : "false") + ")");
    }

private:
    void Note(const std::string& call) {
        const std::string line = "callback " + call;
        OrvPlatformFake::Journal::Add(line);
        if (then)
            then(line);
    }
};

} // namespace OrvStackSdk::Testing
