// SPDX-License-Identifier: Apache-2.0
// The cloud: what becomes of the TLS connections that the route supervision makes over each interface.
#include "OrvStackSdk/Testing/Poke.h"

#include "Kit.h"
#include "SimulatedCurl.h"
#include "VirtualTime.h"

#include <cstdarg>
#include <list>
#include <map>
#include <mutex>

namespace OrvStackSdk::Testing {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds GIVEN_UP_AFTER{15000};

struct Outcome {
    CURLcode code = CURLE_OK;
    milliseconds after{0};
};

struct Transfer {
    std::string interfaceName;
    Outcome outcome;
    milliseconds begun{0};
    bool told = false;
    CURLMsg message{};
};

struct Cloud {
    std::mutex mutex;
    std::map<std::string, Outcome> outcomes;
    std::map<std::string, int> attempts;
    std::list<Transfer> transfers; // the supervision leaves the last one behind, as it leaves libcurl's handles
    std::list<Transfer*> bound;    // a multi handle each: the transfer that it drives
};

Cloud& TheCloud() {
    static Cloud cloud;
    return cloud;
}

void SetOutcome(const std::string& interfaceName, Outcome outcome) {
    if (outcome.after >= GIVEN_UP_AFTER)
        outcome = {CURLE_OPERATION_TIMEDOUT, GIVEN_UP_AFTER};
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    TheCloud().outcomes[interfaceName] = outcome;
}

Transfer& DrivenBy(CURLM* multi) {
    return **static_cast<Transfer**>(multi);
}

} // namespace

void ForgetTheCloud() {
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    TheCloud().outcomes.clear();
    TheCloud().attempts.clear();
    TheCloud().transfers.clear();
    TheCloud().bound.clear();
}

void Poke::Reaches(const std::string& interfaceName, milliseconds after) {
    SetOutcome(interfaceName, {CURLE_OK, after});
}

void Poke::Fails(const std::string& interfaceName, int code, milliseconds after) {
    SetOutcome(interfaceName, {static_cast<CURLcode>(code), after});
}

void Poke::Hangs(const std::string& interfaceName) {
    SetOutcome(interfaceName, {CURLE_OPERATION_TIMEDOUT, GIVEN_UP_AFTER});
}

int Poke::Attempts(const std::string& interfaceName) const {
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    const auto found = TheCloud().attempts.find(interfaceName);
    return found == TheCloud().attempts.end() ? 0 : found->second;
}

namespace SimulatedCurl {

CURLM* MultiInit() {
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    return &TheCloud().bound.emplace_back(nullptr);
}

CURL* EasyInit() {
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    return &TheCloud().transfers.emplace_back();
}

CURLcode SetOption(CURL* easy, CURLoption option, ...) {
    if (option != CURLOPT_INTERFACE)
        return CURLE_OK;
    va_list arguments;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs" // libcurl's signature: the last named parameter is an enumeration
    va_start(arguments, option);
#pragma GCC diagnostic pop
    const std::string device = va_arg(arguments, const char*); // NOLINT(clang-analyzer-valist.Uninitialized): see above
    va_end(arguments);
    static_cast<Transfer*>(easy)->interfaceName = device.substr(device.find('!') + 1);
    return CURLE_OK;
}

CURLMcode AddHandle(CURLM* multi, CURL* easy) {
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    auto& transfer = *static_cast<Transfer*>(easy);
    *static_cast<Transfer**>(multi) = &transfer;
    transfer.begun = VirtualTime::Now();
    transfer.outcome = TheCloud().outcomes[transfer.interfaceName];
    ++TheCloud().attempts[transfer.interfaceName];
    return CURLM_OK;
}

CURLMcode Perform(CURLM* multi, int* running) {
    const auto& transfer = DrivenBy(multi);
    *running = VirtualTime::Now() - transfer.begun < transfer.outcome.after ? 1 : 0;
    return CURLM_OK;
}

CURLMsg* InfoRead(CURLM* multi, int* left) {
    auto& transfer = DrivenBy(multi);
    *left = 0;
    if (transfer.told)
        return nullptr;
    transfer.told = true;
    transfer.message.msg = CURLMSG_DONE;
    transfer.message.easy_handle = &transfer;
    transfer.message.data.result = transfer.outcome.code;
    AddToJournal("poke " + transfer.interfaceName +
                 (transfer.outcome.code == CURLE_OK ? " reached the cloud"
                                                    : " failed with " + std::to_string(transfer.outcome.code)));
    return &transfer.message;
}

CURLMcode RemoveHandle(CURLM* multi, CURL*) {
    if (!multi)
        return CURLM_BAD_HANDLE;
    *static_cast<Transfer**>(multi) = nullptr;
    return CURLM_OK;
}

void EasyCleanup(CURL* easy) {
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    TheCloud().transfers.remove_if([easy](const Transfer& transfer) { return &transfer == easy; });
}

CURLMcode MultiCleanup(CURLM* multi) {
    const std::lock_guard<std::mutex> lock(TheCloud().mutex);
    TheCloud().bound.remove_if([multi](Transfer* const& place) { return &place == multi; });
    return CURLM_OK;
}

} // namespace SimulatedCurl

} // namespace OrvStackSdk::Testing

curl_version_info_data* OrvStackSdkTestingVersionInfo(CURLversion) {
    return nullptr; // no trust anchors to look for
}
