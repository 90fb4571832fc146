// SPDX-License-Identifier: Apache-2.0
#include "broker/MosquittoClient.h"

#include <gtest/gtest.h>
#include <mosquitto.h>

#include <cerrno>

namespace OrvPlatform {

TEST(AnErrorText, NamesTheCauseAndWhereItCanTheRemedy) {
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, ECONNREFUSED), "Connection refused; is the broker running?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, ENOENT),
              "No such file or directory; is the broker running, and does it listen there?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, EACCES),
              "Permission denied; let this program's user or group into the socket's folder and at the socket");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, EAGAIN),
              "Resource temporarily unavailable; the broker takes no connections, does it hang?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_ERRNO, ENETUNREACH), "Network is unreachable");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_CONN_LOST, 0), "the broker closed the connection");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_KEEPALIVE, 0), "the broker does not answer any more");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_PROTOCOL, 0), "the peer does not speak MQTT, is it a broker?");
    EXPECT_EQ(MosquittoErrorText(MOSQ_ERR_NOMEM, 0), "Out of memory.");
}

TEST(ARefusalText, NamesTheCauseAndTheRemedyOfEachCode) {
    EXPECT_EQ(RefusalText(1), "it does not speak MQTT 3.1.1; use a broker that does");
    EXPECT_EQ(RefusalText(2),
              "it does not accept the client id; shorten client_id_suffix or keep to letters and digits");
    EXPECT_EQ(RefusalText(3), "it is not available; look into its own log");
    EXPECT_EQ(RefusalText(4), "wrong user name or password; compare [broker] username and password with the broker's "
                              "password file");
    EXPECT_EQ(RefusalText(5),
              "not authorised; set [broker] username and password, and look into the broker's access list");
    EXPECT_EQ(RefusalText(9), "refusal code 9");
}

} // namespace OrvPlatform
