// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform.h"

#include <curl/curl.h>
#include <string>

namespace OrvStackSdk {

/// The poke: proof that the cloud side is reachable over one interface, by a TLS connection that requests nothing. Its
/// owner decides when to poke; the poke makes the attempts, one after the other, and says how they end.
///
/// Threads: one at a time. Blocking: never; all progress is made inside Step.
/// Not released with its object: whoever wants the handles of an attempt under way back calls Stop.
class OrvRoutePoke {
public:
    /// @param log where failures are reported; outlives the poke
    explicit OrvRoutePoke(CommonUtils::Logger& log) : logger(log) {}
    OrvRoutePoke(const OrvRoutePoke&) = delete; // libcurl knows the address of a member
    OrvRoutePoke& operator=(const OrvRoutePoke&) = delete;

    /// Where the next attempt connects to.
    void SetUrl(const std::string& address) { url = address; }

    /// Chooses the interface of the attempts from now on. The first Step makes the first of them, unless one that has
    /// neither ended nor been stopped is still there: then that one goes on. To be started over the same interface
    /// then.
    void Start(const std::string& interface);
    /// The interface of the last Start.
    const std::string& Interface() const { return interfaceName; }

    /// Drives the attempt one step, after setting it up if there is none.
    /// @return true only when it has ended with success in this call; a failed one is followed by another
    bool Step();

    /// Gives the attempt up and releases what it holds. Harmless when there is none.
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
