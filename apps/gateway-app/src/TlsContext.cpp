// SPDX-License-Identifier: Apache-2.0
#include "TlsContext.h"

#include "SystemAuthorities.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace GatewayApp {

namespace {

constexpr const char* NOBODY = "";

void FreeNothing(void*, void*, CRYPTO_EX_DATA*, int, long, void*) {}

int OwnerIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeNothing);
    return index;
}

TlsContext* OwnerOf(const SSL* ssl) {
    return static_cast<TlsContext*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), OwnerIndex()));
}

std::time_t ToTime(const ASN1_TIME* time) {
    std::tm parts{};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

std::string CommonName(X509_NAME* name) {
    const int at = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (at < 0)
        return NOBODY;
    unsigned char* text = nullptr;
    const int size = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at)));
    std::string result = size < 0 ? NOBODY : std::string(text, text + size);
    OPENSSL_free(text);
    return result;
}

/// What a stranger's certificate says goes into the log: nothing but what a name is made of, and not much of it.
std::string Tame(const std::string& text) {
    constexpr std::size_t most = 64;
    std::string result;
    for (const char letter : text.substr(0, most))
        result += letter >= ' ' && letter <= '~' ? letter : '?';
    return text.size() > most ? result + "..." : result;
}

std::string Names(X509* certificate) {
    constexpr int most = 4;
    auto* const all =
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
    std::string result;
    int shown = 0;
    for (int i = 0; i < sk_GENERAL_NAME_num(all) && shown < most; ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(all, i);
        if (name->type != GEN_DNS)
            continue;
        const auto* const text = ASN1_STRING_get0_data(name->d.dNSName);
        result += (result.empty() ? "" : ", ") + Tame(std::string(text, text + ASN1_STRING_length(name->d.dNSName)));
        ++shown;
    }
    GENERAL_NAMES_free(all);
    return result.empty() ? Tame(CommonName(X509_get_subject_name(certificate))) : result;
}

[[noreturn]] void Refuse(const std::string& what, const std::string& file, const std::string& remedy) {
    const unsigned long error = ERR_peek_error();
    const char* const reason = ERR_reason_error_string(error);
    ERR_clear_error();
    std::string why = reason == nullptr ? "unknown error" : reason;
    if (access(file.c_str(), R_OK) != 0)
        why = std::generic_category().message(errno);
    throw std::runtime_error("cannot use the " + what + " '" + file + "': " + why + "; " + remedy);
}

/// Nobody is there to type a passphrase.
int NoPassphrase(char*, int, int, void*) noexcept {
    return -1;
}

} // namespace

struct TlsCallbacks {
    static void Info(const SSL* ssl, int where, int value) noexcept {
        TlsContext* const owner = OwnerOf(ssl);
        TlsObservation& seen = owner->seen[SSL_get_fd(ssl)];
        if ((where & SSL_CB_HANDSHAKE_START) != 0 && SSL_get_state(ssl) == TLS_ST_BEFORE) {
            seen = {};
            owner->lastSocket = SSL_get_fd(ssl);
            // The connection is made to an address; who makes it took that for the name.
            SSL_ctrl(const_cast<SSL*>(ssl), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                     owner->isAddress ? nullptr : owner->host.data());
        }
        if ((where & SSL_CB_HANDSHAKE_DONE) != 0)
            seen.done = true;
        if ((where & SSL_CB_ALERT) != 0 && (value >> 8) == SSL3_AL_FATAL)
            ((where & SSL_CB_READ) != 0 ? seen.alertReceived : seen.alertSent) = value & 0xff;
    }

    static int Verify(int good, X509_STORE_CTX* store) noexcept {
        const auto* const ssl =
            static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
        TlsObservation& seen = OwnerOf(ssl)->seen[SSL_get_fd(ssl)];
        if (good == 1 || seen.verifyError != X509_V_OK)
            return good;
        seen.verifyError = X509_STORE_CTX_get_error(store);
        if (X509* const found = X509_STORE_CTX_get_current_cert(store)) {
            seen.notBefore = ToTime(X509_get0_notBefore(found));
            seen.notAfter = ToTime(X509_get0_notAfter(found));
        }
        if (X509* const leaf = X509_STORE_CTX_get0_cert(store)) {
            seen.names = Names(leaf);
            seen.issuer = Tame(CommonName(X509_get_issuer_name(leaf)));
        }
        return good;
    }

    static int Certificate(SSL* ssl, void* self) noexcept {
        TlsObservation& seen = static_cast<TlsContext*>(self)->seen[SSL_get_fd(ssl)];
        seen.certificateAsked = true;
        seen.certificateOffered = SSL_get_certificate(ssl) != nullptr;
        return 1;
    }
};

TlsContext::TlsContext(const CloudSettings& settings)
    : owned(true), context(SSL_CTX_new(TLS_client_method())), host(settings.host) {
    if (context == nullptr)
        throw std::runtime_error("cannot make a TLS context: out of memory");
    try {
        Trust(settings.caFile);
        SetUp(settings);
    } catch (...) {
        SSL_CTX_free(context);
        throw;
    }
}

TlsContext::TlsContext(const CloudSettings& settings, ssl_ctx_st* foreign)
    : owned(false), context(foreign), host(settings.host) {
    SetUp(settings);
}

TlsContext::~TlsContext() {
    if (owned)
        SSL_CTX_free(context);
}

void TlsContext::SetUp(const CloudSettings& settings) {
    SSL_CTX_set_ex_data(context, OwnerIndex(), this);
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &TlsCallbacks::Verify);
    SSL_CTX_set_info_callback(context, &TlsCallbacks::Info);
    SSL_CTX_set_cert_cb(context, &TlsCallbacks::Certificate, this);
    ExpectName();
    Identify(settings);
    if (!settings.alpn.empty()) {
        std::vector<unsigned char> wire(settings.alpn.begin(), settings.alpn.end());
        wire.insert(wire.begin(), static_cast<unsigned char>(settings.alpn.size()));
        SSL_CTX_set_alpn_protos(context, wire.data(), static_cast<unsigned>(wire.size()));
    }
}

void TlsContext::Trust(const std::string& caFile) const {
    if (caFile.empty())
        TrustSystemAuthorities(context);
    else if (SSL_CTX_load_verify_file(context, caFile.c_str()) != 1)
        Refuse("CA file", caFile, "name a PEM file of the authorities to trust (cloud-ca)");
}

void TlsContext::ExpectName() {
    X509_VERIFY_PARAM* const expected = SSL_CTX_get0_param(context);
    isAddress = X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) == 1;
    X509_VERIFY_PARAM_set_hostflags(expected, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    // An empty name would mean that every name is good.
    if (!isAddress && (host.empty() || X509_VERIFY_PARAM_set1_host(expected, host.c_str(), host.size()) != 1))
        throw std::runtime_error("'" + host + "' is no name of a host");
    ERR_clear_error();
}

void TlsContext::Identify(const CloudSettings& settings) const {
    if (settings.certificateFile.empty())
        return;
    SSL_CTX_set_default_passwd_cb(context, &NoPassphrase);
    if (SSL_CTX_use_certificate_chain_file(context, settings.certificateFile.c_str()) != 1)
        Refuse("client certificate", settings.certificateFile,
               "name a PEM file that the application's user may read (cloud-cert)");
    const bool read = SSL_CTX_use_PrivateKey_file(context, settings.keyFile.c_str(), SSL_FILETYPE_PEM) == 1;
    if (!read && ERR_GET_REASON(ERR_peek_last_error()) == X509_R_KEY_VALUES_MISMATCH)
        Refuse("key", settings.keyFile,
               "it is not the key of the client certificate '" + settings.certificateFile +
                   "' (cloud-key, cloud-cert)");
    if (!read)
        Refuse("key", settings.keyFile,
               "name a PEM file without a passphrase that the application's user may read (cloud-key)");
}

const TlsObservation& TlsContext::Seen(int socket) const {
    static const TlsObservation nothing;
    const auto found = seen.find(socket);
    return found == seen.end() ? nothing : found->second;
}

std::string TlsContext::Reason(int socket) const {
    return Seen(socket).Reason(host, std::time(nullptr), ProgramTime());
}

} // namespace GatewayApp
