// SPDX-License-Identifier: Apache-2.0
#include "client/ClientProgram.h"
#include "client/Words.h"

namespace OrvLab {

using namespace Texts;

void LabHandler::OnInitConfirmation(const OrvStackSdk::Confirmation& confirmation) {
    program.Called(std::string("OnInitConfirmation ") + CONFIRMATIONS[static_cast<int>(confirmation)], true);
}

void LabHandler::OnAppActionIndication(const OrvStackSdk::AppAction& action) {
    program.Called(std::string("OnAppActionIndication ") + ACTIONS[static_cast<int>(action)], false);
}

void LabHandler::OnAppStatusIndication(const std::string& app, const OrvStackSdk::AppStatus& status) {
    program.Called("OnAppStatusIndication " + app + " " + STATUSES[static_cast<int>(status)], false);
}

void LabHandler::OnDeviceProbeIndication(const std::string& guid) {
    program.Called("OnDeviceProbeIndication " + guid, false);
}

void LabHandler::OnDeviceOnlineStatusIndication(bool online) {
    program.Called(std::string("OnDeviceOnlineStatusIndication ") + (online ? "1" : "0"), false);
}

void LabHandler::OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus& status, const std::string& value) {
    program.Called(std::string("OnDeviceCellularStatusIndication ") + CELLULAR[static_cast<int>(status)] + " " + value,
                   false);
}

void LabHandler::OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) {
    program.Called("OnFeatureShutdownReadinessIndication " + app + (ready ? " 1" : " 0"), false);
}

} // namespace OrvLab
