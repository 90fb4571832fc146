// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform.h"

#include <curl/curl.h>
#include <string>

namespace OrvStackSdk {

/// The poke proves that the cloud is reachable over one interface: a TLS connection that sends no request. Its owner
/// decides when to poke. The poke makes the attempts, one after the other, and reports how they end.
///
/// Threads: one at a time. Blocking: never; all progress happens inside Step.
/// The destructor does not release a running attempt: call Stop to release its handles.
class OrvRoutePoke {
public:
    /// @param log where failures are reported; outlives the poke
    explicit OrvRoutePoke(CommonUtils::Logger& log) : logger(log) {}
    OrvRoutePoke(const OrvRoutePoke&) = delete; // libcurl knows the address of a member
    OrvRoutePoke& operator=(const OrvRoutePoke&) = delete;

    /// Where the next attempt connects to.
    void SetUrl(const std::string& address) { url = address; }

    /// Sets the interface of the attempts. The next Step begins the first attempt. If an earlier attempt has neither
    /// ended nor been stopped, that one continues instead; the interface must then be the same as before.
    void Start(const std::string& interface);
    /// The interface of the last Start.
    const std::string& Interface() const { return interfaceName; }

    /// Moves the attempt one step; begins one if there is none.
    /// @return true only if the attempt has succeeded in this call. After a failure the next call begins another one
    bool Step();

    /// Gives up the attempt and releases its handles. Harmless if there is none.
    void Stop();

private:
    bool SetUp();
    bool ReadResult();

    CommonUtils::Logger& logger;
    std::string url;
    std::string interfaceName;
    unsigned untrusted = 0; // failures since Start for lack of a trust anchor; after the first the bundle is read
    CURL* easyHandle = nullptr;
    CURLM* multiHandle = nullptr; // null exactly when no attempt is set up
};

} // namespace OrvStackSdk
