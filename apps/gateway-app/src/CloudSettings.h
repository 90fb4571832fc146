// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace GatewayApp {

/// Where the cloud's broker is, how to trust it, and who we are there. Files are read for every connection anew.
struct CloudSettings {
    std::string host;
    std::uint16_t port = 8883;
    /// File of the trusted CAs; empty: the system's.
    std::string caFile;
    std::string clientId;
    /// PEM files of the client certificate, with its chain, and of its key; both or none.
    std::string certificateFile;
    std::string keyFile;
    std::string user;
    /// File with the password as its first line; empty: none.
    std::string passwordFile;
    /// The protocol that is asked for by ALPN; empty: none.
    std::string alpn;

    bool operator==(const CloudSettings& other) const { return Tied() == other.Tied(); }
    bool operator!=(const CloudSettings& other) const { return !(*this == other); }

private:
    std::tuple<const std::string&, std::uint16_t, const std::string&, const std::string&, const std::string&,
               const std::string&, const std::string&, const std::string&, const std::string&>
    Tied() const {
        return {host, port, caFile, clientId, certificateFile, keyFile, user, passwordFile, alpn};
    }
};

/// Whom to ask whether a path leads to the cloud.
/// @param endpoint as gateway.ini names it: host[:port][/path], an IPv6 address in brackets; the path is left out
/// @return with port 443 if none is named; the host is empty where there is none
CloudSettings SettingsOfEndpoint(const std::string& endpoint);

/// What is wrong with the files of the credentials though they can be used: secrets that everybody may read.
std::vector<std::string> CredentialWarnings(const CloudSettings& settings);

/// The first line of the password file.
/// @throws std::runtime_error, with what to do, and never with what is in the file
std::string ReadPassword(const CloudSettings& settings);

} // namespace GatewayApp
