// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace GatewayApp {

/// A certificate with its key, made by another one or by itself, and both as PEM files.
class TestCertificate {
public:
    struct Plan {
        std::string name;
        std::string dnsName = {}; ///< subjectAltName; empty: none
        long validFrom = -3600;   ///< seconds from now
        long validTo = 86400;
    };
    /// @param issuer nullptr: an authority, signed by itself
    TestCertificate(const std::string& folder, const Plan& plan, const TestCertificate* issuer = nullptr);

    const std::string certificateFile;
    const std::string keyFile;

private:
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key;
    std::unique_ptr<X509, decltype(&X509_free)> certificate;
};

/// A TLS server on a thread of its own that takes one connection after the other, completes the handshake, answers
/// whatever comes with "accepted" in MQTT, and waits for the end.
class TlsPeer {
public:
    struct Plan {
        int newest = TLS1_3_VERSION;
        std::string clientAuthority = {}; ///< file; a client certificate is demanded
        bool mute = false;                ///< accepts, and says nothing
        bool plain = false;               ///< speaks no TLS
    };
    TlsPeer(const std::string& address, std::uint16_t port, const TestCertificate& certificate, Plan serverPlan);
    TlsPeer(const std::string& address, std::uint16_t port, const TestCertificate& certificate)
        : TlsPeer(address, port, certificate, Plan()) {}
    ~TlsPeer();

    /// What the last complete handshake has asked for: server name, and protocol by ALPN.
    std::string ServerName() const;
    std::string Protocol() const;
    /// All that came after the handshake.
    std::string Received() const;
    int Accepted() const { return accepted; }

private:
    void Run();
    void Serve(int connection);
    static int ChooseProtocol(SSL*, const unsigned char** out, unsigned char* outSize, const unsigned char* in,
                              unsigned inSize, void*) noexcept;

    const Plan plan;
    SSL_CTX* const context;
    int listener = -1;
    std::atomic<bool> ending{false};
    std::atomic<int> accepted{0};
    mutable std::mutex mutex;
    std::string serverName;
    std::string protocol;
    std::string received;
    std::thread thread;
};

} // namespace GatewayApp
