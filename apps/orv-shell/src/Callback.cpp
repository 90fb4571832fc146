// SPDX-License-Identifier: Apache-2.0
#include "Callback.h"

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

using namespace OrvStackSdk;

namespace OrvShell {

namespace {

std::string BooleanText(bool value) {
    return value ? "true" : "false";
}

int MakeWakeUp() {
    const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    return descriptor;
}

} // namespace

std::string CallbackText(const Callback& callback) {
    std::string text = callback.name;
    for (const std::string& argument : callback.arguments)
        text += ' ' + Quote(argument);
    return text;
}

const std::vector<CallbackForm>& CallbackForms() {
    static const std::vector<CallbackForm> forms{
        {"OnInitConfirmation", {Kind::CONFIRMATION}},
        {"OnAppActionIndication", {Kind::ACTION}},
        {"OnAppStatusIndication", {Kind::TEXT, Kind::STATUS}},
        {"OnDeviceProbeIndication", {Kind::TEXT}},
        {"OnDeviceOnlineStatusIndication", {Kind::BOOLEAN}},
        {"OnDeviceCellularStatusIndication", {Kind::CELLULAR, Kind::TEXT}},
        {"OnFeatureShutdownReadinessIndication", {Kind::TEXT, Kind::BOOLEAN}},
    };
    return forms;
}

CallbackQueue::CallbackQueue() : wakeUp(MakeWakeUp()) {}

CallbackQueue::~CallbackQueue() {
    close(wakeUp);
}

std::vector<Callback> CallbackQueue::Take() {
    std::uint64_t count = 0;
    while (read(wakeUp, &count, sizeof count) < 0 && errno == EINTR) {
    }
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(waiting, {});
}

std::optional<Confirmation> CallbackQueue::TakeConfirmation() {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(confirmation, std::nullopt);
}

void CallbackQueue::OnInitConfirmation(const Confirmation& value) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        confirmation = value;
    }
    Add("OnInitConfirmation", {ConfirmationText(value)});
}

void CallbackQueue::OnAppActionIndication(const AppAction& action) {
    Add("OnAppActionIndication", {AppActionText(action)});
}

void CallbackQueue::OnAppStatusIndication(const std::string& app, const AppStatus& status) {
    Add("OnAppStatusIndication", {app, AppStatusText(status)});
}

void CallbackQueue::OnDeviceProbeIndication(const std::string& guid) {
    Add("OnDeviceProbeIndication", {guid});
}

void CallbackQueue::OnDeviceOnlineStatusIndication(bool online) {
    Add("OnDeviceOnlineStatusIndication", {BooleanText(online)});
}

void CallbackQueue::OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) {
    Add("OnDeviceCellularStatusIndication", {CellularStatusText(status), value});
}

void CallbackQueue::OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) {
    Add("OnFeatureShutdownReadinessIndication", {app, BooleanText(ready)});
}

void CallbackQueue::Add(const char* name, Words arguments) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        waiting.push_back({name, std::move(arguments), std::chrono::system_clock::now()});
    }
    const std::uint64_t one = 1;
    // Only a counter that is full already refuses, and then the loop is awake anyway.
    [[maybe_unused]] const ssize_t written = write(wakeUp, &one, sizeof one);
}

} // namespace OrvShell
