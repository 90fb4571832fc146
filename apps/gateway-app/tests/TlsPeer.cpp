// SPDX-License-Identifier: Apache-2.0
#include "TlsPeer.h"

#include <netdb.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace GatewayApp {

namespace {

void AddExtension(X509* certificate, int kind, const std::string& value) {
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str());
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

int Listen(const std::string& address, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        throw std::runtime_error(address + " is no address");
    const int result = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    setsockopt(result, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    const bool good = bind(result, found->ai_addr, found->ai_addrlen) == 0 && listen(result, 8) == 0;
    freeaddrinfo(found);
    if (!good)
        throw std::runtime_error("cannot listen on " + address);
    return result;
}

bool Readable(int descriptor) {
    pollfd one{descriptor, POLLIN, 0};
    return poll(&one, 1, 20) > 0;
}

} // namespace

TestCertificate::TestCertificate(const std::string& folder, const Plan& plan, const TestCertificate* issuer)
    : certificateFile(folder + "/" + plan.name + ".pem"),
      keyFile(folder + "/" + plan.name + ".key"),
      key(EVP_EC_gen("P-256"), &EVP_PKEY_free),
      certificate(X509_new(), &X509_free) {
    static long serial = 0;
    X509* const made = certificate.get();
    X509_set_version(made, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(made), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(made), plan.validFrom);
    X509_gmtime_adj(X509_getm_notAfter(made), plan.validTo);
    X509_set_pubkey(made, key.get());
    const auto* const name = reinterpret_cast<const unsigned char*>(plan.name.c_str());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_ASC, name, -1, -1, 0);
    X509_set_issuer_name(made, X509_get_subject_name(issuer == nullptr ? made : issuer->certificate.get()));
    if (issuer == nullptr)
        AddExtension(made, NID_basic_constraints, "critical,CA:TRUE");
    if (!plan.dnsName.empty())
        AddExtension(made, NID_subject_alt_name, "DNS:" + plan.dnsName);
    X509_sign(made, issuer == nullptr ? key.get() : issuer->key.get(), EVP_sha256());
    const auto write = [](const std::string& file, const auto& put) {
        std::FILE* const out = std::fopen(file.c_str(), "we");
        if (out == nullptr)
            throw std::runtime_error("cannot write " + file);
        put(out);
        std::fclose(out);
    };
    write(certificateFile, [this](std::FILE* out) { PEM_write_X509(out, certificate.get()); });
    write(keyFile,
          [this](std::FILE* out) { PEM_write_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
}

TlsPeer::TlsPeer(const std::string& address, std::uint16_t port, const TestCertificate& certificate, Plan serverPlan)
    : plan(std::move(serverPlan)), context(SSL_CTX_new(TLS_server_method())), listener(Listen(address, port)) {
    SSL_CTX_use_certificate_file(context, certificate.certificateFile.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(context, certificate.keyFile.c_str(), SSL_FILETYPE_PEM);
    if (plan.newest < TLS1_2_VERSION)
        SSL_CTX_set_security_level(context, 0);
    SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context, plan.newest);
    SSL_CTX_set_alpn_select_cb(context, &TlsPeer::ChooseProtocol, nullptr);
    if (!plan.clientAuthority.empty()) {
        SSL_CTX_load_verify_file(context, plan.clientAuthority.c_str());
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    thread = std::thread([this] { Run(); });
}

TlsPeer::~TlsPeer() {
    ending = true;
    thread.join();
    close(listener);
    SSL_CTX_free(context);
}

int TlsPeer::ChooseProtocol(SSL*, const unsigned char** out, unsigned char* outSize, const unsigned char* in, unsigned,
                            void*) noexcept {
    *out = in + 1;
    *outSize = *in;
    return SSL_TLSEXT_ERR_OK;
}

void TlsPeer::Run() {
    while (!ending) {
        if (!Readable(listener))
            continue;
        const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ++accepted;
        Serve(connection);
        close(connection);
    }
}

void TlsPeer::Serve(int connection) {
    const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context), &SSL_free);
    SSL_set_fd(ssl.get(), connection);
    if (plan.plain) {
        static const char refusal[] = "400 what?\r\n";
        char data[4096];
        while (!ending && recv(connection, data, sizeof(data), 0) > 0)
            send(connection, refusal, sizeof(refusal) - 1, MSG_NOSIGNAL);
        return;
    }
    while (plan.mute && !ending)
        Readable(listener);
    if (plan.mute)
        return;
    if (SSL_accept(ssl.get()) != 1) {
        // A connection that is closed with something unread is reset, and on loopback before our alert is read.
        char rest[4096];
        shutdown(connection, SHUT_WR);
        while (recv(connection, rest, sizeof(rest), 0) > 0) {
        }
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const char* const name = SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name);
        serverName = name == nullptr ? "" : name;
        const unsigned char* chosen = nullptr;
        unsigned size = 0;
        SSL_get0_alpn_selected(ssl.get(), &chosen, &size);
        protocol.assign(chosen, chosen + size);
    }
    char data[256];
    const char accept[] = {0x20, 0x02, 0x00, 0x00};
    while (!ending) {
        if (SSL_pending(ssl.get()) == 0 && !Readable(connection))
            continue;
        const int size = SSL_read(ssl.get(), data, sizeof(data));
        if (size <= 0)
            return;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            received.append(data, data + size);
        }
        if (SSL_write(ssl.get(), accept, sizeof(accept)) <= 0)
            return;
    }
}

std::string TlsPeer::ServerName() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return serverName;
}

std::string TlsPeer::Received() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return received;
}

std::string TlsPeer::Protocol() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return protocol;
}

} // namespace GatewayApp
