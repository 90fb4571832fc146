// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CloudSettings.h"
#include "TlsObservation.h"

#include <map>
#include <memory>
#include <string>

struct ssl_ctx_st;

namespace GatewayApp {

/// How to speak TLS with a server: whom to trust, which name its certificate must have, who we are, TLS 1.2 at least;
/// and what was seen of each handshake. A connection may be made to an address: the name stays what is verified and
/// asked for (SNI). One thread at a time; the handshakes run on it.
class TlsContext {
public:
    /// Reads the files.
    /// @throws std::runtime_error, which names the file and the remedy
    explicit TlsContext(const CloudSettings& settings);
    /// Makes another library's context so. It must not outlive this object.
    /// @throws std::runtime_error
    TlsContext(const CloudSettings& settings, ssl_ctx_st* foreign);
    ~TlsContext();
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    ssl_ctx_st* Native() const { return context; }
    /// What was seen on the socket since its handshake began.
    const TlsObservation& Seen(int socket) const;
    /// @see TlsObservation::Reason
    std::string Reason(int socket) const;
    /// The same of the handshake that began last.
    std::string LastReason() const { return Reason(lastSocket); }

private:
    friend struct TlsCallbacks;
    void SetUp(const CloudSettings& settings);
    void Trust(const std::string& caFile) const;
    void Identify(const CloudSettings& settings) const;
    void ExpectName();

    const bool owned;
    ssl_ctx_st* const context;
    std::string host;
    bool isAddress = false;
    int lastSocket = -1;
    std::map<int, TlsObservation> seen;
};

} // namespace GatewayApp
