// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ctime>
#include <string>

namespace GatewayApp {

/// What was seen of a TLS handshake, for people. No input and output of its own.
struct TlsObservation {
    bool done = false;               ///< the handshake is complete
    bool certificateAsked = false;   ///< the peer has asked for a client certificate
    bool certificateOffered = false; ///< and there is one
    int alertReceived = -1;          ///< the peer's last fatal alert by its number; -1: none
    int alertSent = -1;

    int verifyError = 0; ///< X509_V_ERR_...; 0: none. What follows is about the certificate that it was found in
    std::time_t notBefore = 0;
    std::time_t notAfter = 0;
    std::string names;  ///< whom the peer's own certificate was made for, separated by ", "
    std::string issuer; ///< who made it

    /// Why the handshake failed, and what to look at; empty when nothing was seen that explains it.
    /// @param host  whom the certificate had to be for
    /// @param now   what the wall clock says
    /// @param built when this program was made; 0: not known
    std::string Reason(const std::string& host, std::time_t now, std::time_t built) const;

private:
    std::string CertificateReason(const std::string& host, std::time_t now, std::time_t built) const;
    std::string AlertReason() const;
};

/// When the file of the running program was last changed; 0 when that is not known.
std::time_t ProgramTime();

} // namespace GatewayApp
