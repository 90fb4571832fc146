// SPDX-License-Identifier: Apache-2.0
#include "TlsObservation.h"

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <array>

namespace GatewayApp {

namespace {

std::string Text(std::time_t time) {
    std::tm parts{};
    std::array<char, 32> text{};
    gmtime_r(&time, &parts);
    return std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0 ? "?" : text.data();
}

bool AuthorityUnknown(int error) {
    return error == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT || error == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
           error == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE || error == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT ||
           error == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN || error == X509_V_ERR_CERT_UNTRUSTED;
}

/// The clock itself stands before each line of the log. In coarse steps, so that the reason stays the same for a while.
std::string Distance(std::time_t from, std::time_t to) {
    const auto seconds = static_cast<long long>(to) - static_cast<long long>(from);
    constexpr long long minute = 60;
    constexpr long long hour = 60 * minute;
    constexpr long long day = 24 * hour;
    if (seconds >= 2 * day)
        return std::to_string(seconds / day) + " days";
    return seconds >= 2 * hour ? std::to_string(seconds / hour) + " hours" : std::to_string(seconds / minute) + " min";
}

std::string ClockHint(std::time_t now, std::time_t built) {
    if (built != 0 && now < built)
        return "; that is before this program was made (" + Text(built) +
               "): the clock is wrong. Set it, or name a time server";
    return ": is the clock right? Set it, or name a time server";
}

} // namespace

std::string TlsObservation::Reason(const std::string& host, std::time_t now, std::time_t built) const {
    return verifyError != X509_V_OK ? CertificateReason(host, now, built) : AlertReason();
}

std::string TlsObservation::CertificateReason(const std::string& host, std::time_t now, std::time_t built) const {
    const std::string whose = "the certificate for " + (names.empty() ? "nobody" : names);
    if (verifyError == X509_V_ERR_HOSTNAME_MISMATCH || verifyError == X509_V_ERR_IP_ADDRESS_MISMATCH)
        return whose + " is not for " + host +
               ": another server answers in its place, as a captive portal does, or the "
               "name is wrong";
    if (verifyError == X509_V_ERR_CERT_NOT_YET_VALID)
        return whose + " is not valid before " + Text(notBefore) + ", " + Distance(now, notBefore) +
               " after what the clock says" + ClockHint(now, built);
    if (verifyError == X509_V_ERR_CERT_HAS_EXPIRED)
        return whose + " has expired on " + Text(notAfter) + ", " + Distance(notAfter, now) +
               " before what the clock says";
    if (AuthorityUnknown(verifyError))
        return whose + " was issued by " + (issuer.empty() ? "an authority" : issuer) +
               ", which is not trusted: a captive portal, an inspecting proxy, or an authority that is missing here";
    return whose + " is not accepted: " + X509_verify_cert_error_string(verifyError);
}

std::string TlsObservation::AlertReason() const {
    if (alertSent == SSL_AD_PROTOCOL_VERSION)
        return "the server speaks no TLS 1.2 or newer";
    if (alertReceived < 0)
        return {};
    const std::string word = SSL_alert_desc_string_long(alertReceived);
    if (alertReceived == SSL_AD_PROTOCOL_VERSION)
        return "the server speaks none of the TLS versions from 1.2 on (" + word + ")";
    if (alertReceived == SSL_AD_UNRECOGNIZED_NAME)
        return "the server does not know the name that was asked for (" + word + ")";
    if (alertReceived == SSL_AD_NO_APPLICATION_PROTOCOL)
        return "the server does not speak the protocol of cloud-alpn (" + word + ")";
    if (certificateAsked && !certificateOffered)
        return "the server wants a client certificate (" + word + "): set cloud-cert and cloud-key";
    if (certificateAsked && alertReceived != SSL_AD_INTERNAL_ERROR)
        return "the server refuses the client certificate (" + word +
               "): is it the right one, in its time, and of an authority that the server knows?";
    return "the server ended the TLS handshake (" + word + ")";
}

std::time_t ProgramTime() {
    struct stat status {};
    return stat("/proc/self/exe", &status) == 0 ? status.st_mtime : 0;
}

} // namespace GatewayApp
