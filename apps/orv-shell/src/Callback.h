// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Vocabulary.h"

#include <OrvStackSdk/IOrvStackClientHandler.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace OrvShell {

/// One callback of the library, in the words that the commands use.
struct Callback {
    std::string name;
    Words arguments;
    std::chrono::system_clock::time_point time;
};

/// The name and the quoted arguments, as the command `expect` takes them.
std::string CallbackText(const Callback& callback);

struct CallbackForm {
    std::string name;
    std::vector<Kind> arguments;
};

/// Every callback that the library can make.
const std::vector<CallbackForm>& CallbackForms();

/// Takes the callbacks on whatever thread they come, for the loop to fetch. Its descriptor is readable while there are
/// any.
class CallbackQueue : public OrvStackSdk::IOrvStackClientHandler {
public:
    CallbackQueue();
    ~CallbackQueue() override;
    CallbackQueue(const CallbackQueue&) = delete;
    CallbackQueue& operator=(const CallbackQueue&) = delete;

    int Descriptor() const { return wakeUp; }
    std::vector<Callback> Take();

    /// The last answer to Init since the last call of this, if there was one.
    std::optional<OrvStackSdk::Confirmation> TakeConfirmation();

    void OnInitConfirmation(const OrvStackSdk::Confirmation& value) override;
    void OnAppActionIndication(const OrvStackSdk::AppAction& action) override;
    void OnAppStatusIndication(const std::string& app, const OrvStackSdk::AppStatus& status) override;
    void OnDeviceProbeIndication(const std::string& guid) override;
    void OnDeviceOnlineStatusIndication(bool online) override;
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus& status, const std::string& value) override;
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override;

private:
    void Add(const char* name, Words arguments);

    const int wakeUp;
    std::mutex mutex;
    std::vector<Callback> waiting;
    std::optional<OrvStackSdk::Confirmation> confirmation;
};

} // namespace OrvShell
