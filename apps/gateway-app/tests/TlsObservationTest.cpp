// SPDX-License-Identifier: Apache-2.0
#include "TlsObservation.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

namespace GatewayApp {
namespace {

constexpr std::time_t DAY = 86400;
constexpr std::time_t NOW = 1700000000; // 2023-11-14T22:13:20Z

class AFailedHandshake : public testing::Test {
protected:
    AFailedHandshake() {
        seen.names = "a.example, b.example";
        seen.issuer = "Some CA";
        seen.notBefore = NOW + DAY;
        seen.notAfter = NOW - DAY;
    }
    std::string Reason(std::time_t built = 0) const { return seen.Reason("cloud.example", NOW, built); }
    std::string ReasonOf(int error) {
        seen.verifyError = error;
        return Reason();
    }

    TlsObservation seen;
};

TEST_F(AFailedHandshake, WithoutAnythingSeenHasNoReason) {
    EXPECT_EQ(Reason(), "");
}

TEST_F(AFailedHandshake, NamesBothNamesWhenTheHostIsWrong) {
    EXPECT_EQ(
        ReasonOf(X509_V_ERR_HOSTNAME_MISMATCH),
        "the certificate for a.example, b.example is not for cloud.example: another server answers in its place, as "
        "a captive portal does, or the name is wrong");
}

TEST_F(AFailedHandshake, NamesTheAuthorityThatIsNotTrusted) {
    for (const int error : {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,
                            X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE})
        EXPECT_EQ(ReasonOf(error),
                  "the certificate for a.example, b.example was issued by Some CA, which is not trusted: a "
                  "captive portal, an inspecting proxy, or an authority that is missing here");
}

TEST_F(AFailedHandshake, AsksAboutTheClockWhenTheCertificateIsNotYetValid) {
    EXPECT_EQ(
        ReasonOf(X509_V_ERR_CERT_NOT_YET_VALID),
        "the certificate for a.example, b.example is not valid before 2023-11-15T22:13:20Z, 24 hours after what the "
        "clock says: is the clock right? Set it, or name a time server");
    seen.notBefore = NOW + 400 * DAY;
    EXPECT_NE(Reason().find(", 400 days after what the clock says"), std::string::npos);
    seen.notBefore = NOW + 90;
    EXPECT_NE(Reason().find(", 1 min after what the clock says"), std::string::npos);
}

TEST_F(AFailedHandshake, HasTheSameReasonSomeSecondsLater) {
    seen.notBefore = NOW + 400 * DAY + 3600;
    for (const int error : {X509_V_ERR_CERT_NOT_YET_VALID, X509_V_ERR_CERT_HAS_EXPIRED}) {
        seen.verifyError = error;
        EXPECT_EQ(seen.Reason("cloud.example", NOW, 0), seen.Reason("cloud.example", NOW + 30, 0));
    }
}

TEST_F(AFailedHandshake, KnowsThatTheClockIsWrongWhenItIsBeforeTheProgram) {
    seen.verifyError = X509_V_ERR_CERT_NOT_YET_VALID;
    EXPECT_NE(Reason(NOW + 1).find("; that is before this program was made (2023-11-14T22:13:21Z): the clock is wrong"),
              std::string::npos);
    EXPECT_EQ(Reason(NOW).find("the clock is wrong"), std::string::npos);
}

TEST_F(AFailedHandshake, TellsWhenTheCertificateHasExpired) {
    EXPECT_EQ(
        ReasonOf(X509_V_ERR_CERT_HAS_EXPIRED),
        "the certificate for a.example, b.example has expired on 2023-11-13T22:13:20Z, 24 hours before what the clock "
        "says");
}

TEST_F(AFailedHandshake, GivesTheWordOfTheLibraryForWhatIsLeft) {
    EXPECT_EQ(ReasonOf(X509_V_ERR_CERT_REVOKED),
              "the certificate for a.example, b.example is not accepted: certificate revoked");
}

TEST_F(AFailedHandshake, TellsWhenTheServerIsTooOld) {
    seen.alertSent = SSL_AD_PROTOCOL_VERSION;
    EXPECT_EQ(Reason(), "the server speaks no TLS 1.2 or newer");
    seen.alertSent = -1;
    seen.alertReceived = SSL_AD_PROTOCOL_VERSION;
    EXPECT_EQ(Reason(), "the server speaks none of the TLS versions from 1.2 on (protocol version)");
}

TEST_F(AFailedHandshake, TellsWhenAClientCertificateIsMissingAndWhenItIsRefused) {
    seen.alertReceived = SSL_AD_HANDSHAKE_FAILURE;
    EXPECT_EQ(Reason(), "the server ended the TLS handshake (handshake failure)");
    seen.certificateAsked = true;
    EXPECT_EQ(Reason(), "the server wants a client certificate (handshake failure): set cloud-cert and cloud-key");
    seen.certificateOffered = true;
    seen.alertReceived = SSL_AD_UNKNOWN_CA;
    EXPECT_EQ(Reason(),
              "the server refuses the client certificate (unknown CA): is it the right one, in its time, and of "
              "an authority that the server knows?");
}

} // namespace
} // namespace GatewayApp
