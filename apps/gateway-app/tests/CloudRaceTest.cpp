// SPDX-License-Identifier: Apache-2.0
// To the cloud's broker by whichever of its addresses answers, and what is said when none does.
#include "CloudRace.h"

#include "CloudConnection.h"
#include "PrivateNetwork.h"
#include "ProcessFigures.h"
#include "TlsPeer.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <utility>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

constexpr std::uint16_t PORT = 18883;
const char* const HOLE = "192.0.2.2"; // a neighbour that does not exist
const char* const HOLE_SIX = "2001:db8::2";

class ARace : public testing::Test {
protected:
    void SetUp() override {
        if (!PrivateNetwork::Entered()) {
            const char* const needs = "needs network namespaces";
            if (PrivateNetwork::Required())
                FAIL() << needs;
            GTEST_SKIP() << needs;
        }
        ASSERT_TRUE(PrivateNetwork::AddInterface("hole") && PrivateNetwork::Ip("addr add 192.0.2.1/24 dev hole"));
        const std::string neighbour = " lladdr 02:00:00:00:0f:ff dev hole nud permanent";
        for (const char* address : {HOLE, "192.0.2.3", "192.0.2.4"})
            ASSERT_TRUE(PrivateNetwork::Ip(std::string("neigh add ") + address + neighbour));
        sixIsThere = PrivateNetwork::Ip("addr add 2001:db8::1/64 dev hole nodad 2>/dev/null") &&
                     PrivateNetwork::Ip(std::string("neigh add ") + HOLE_SIX + neighbour);
        settings.host = "cloud.example";
        settings.port = PORT;
        settings.clientId = "racer";
        settings.caFile = authority.certificateFile;
    }
    void TearDown() override {
        PrivateNetwork::Ip("link del hole 2>/dev/null");
        std::filesystem::remove_all(folder);
    }

    struct End {
        bool won = false;
        std::string failure;
        std::string address; // the winner's
        std::chrono::milliseconds time{};
    };
    End Race(const std::vector<std::string>& addresses);

    const std::string folder = [] {
        std::string path = testing::TempDir() + "cloud-race-XXXXXX";
        return std::string(mkdtemp(path.data()));
    }();
    const TestCertificate authority{folder, {"authority"}};
    const TestCertificate good{folder, {"good", "cloud.example"}, &authority};
    CloudSettings settings;
    bool sixIsThere = false;
};

std::string PeerOf(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof(address);
    char text[NI_MAXHOST] = {};
    auto* generic = static_cast<sockaddr*>(static_cast<void*>(&address));
    getpeername(socket, generic, &size);
    getnameinfo(generic, size, text, sizeof(text), nullptr, 0, NI_NUMERICHOST);
    return text;
}

ARace::End ARace::Race(const std::vector<std::string>& addresses) {
    EventLoop loop;
    Dialled dialled;
    dialled.tls = std::make_unique<TlsContext>(settings);
    dialled.addresses = addresses;
    End end;
    const auto begin = std::chrono::steady_clock::now();
    const auto finish = [&] {
        end.time = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
        loop.Quit();
    };
    CloudRace race(loop, {[&](CloudRace::Winner winner) {
                              end.won = true;
                              end.address = PeerOf(winner.socket);
                              finish();
                          },
                          [&](const std::string& reason) {
                              end.failure = reason;
                              finish();
                          }});
    Timer limit(loop, [&] {
        end.failure = "too late: " + race.Summary();
        finish();
    });
    limit.Once(20s);
    race.Begin(settings, dialled, 10);
    loop.Run();
    return end;
}

TEST_F(ARace, LeavesOutWhatTheKernelWouldReachOverTheWrongInterface) {
    using List = std::vector<std::string>;
    const auto overHole = [](const std::string& source) { return source == "192.0.2.1"; };
    EXPECT_EQ(WithoutDetours({HOLE, "127.0.0.1"}, overHole), List{"127.0.0.1"});
    EXPECT_EQ(WithoutDetours({HOLE, "192.0.2.3"}, overHole), List({HOLE, "192.0.2.3"})) << "there is nothing else";
    EXPECT_EQ(WithoutDetours({HOLE, "203.0.113.1"}, overHole), List({HOLE, "203.0.113.1"})) << "no route leads there";
    EXPECT_EQ(WithoutDetours({"203.0.113.1", HOLE, "127.0.0.1"}, overHole), List({"203.0.113.1", "127.0.0.1"}));
    if (sixIsThere) {
        const auto overSix = [](const std::string& source) { return source == "2001:db8::1"; };
        EXPECT_EQ(WithoutDetours({HOLE_SIX, "127.0.0.1"}, overSix), List{"127.0.0.1"});
    }
}

TEST_F(ARace, IsWonByTheOnlyAddress) {
    const TlsPeer cloud("127.0.0.1", PORT, good);
    const End end = Race({"127.0.0.1"});
    EXPECT_TRUE(end.won) << end.failure;
    EXPECT_TRUE(PrivateNetwork::Eventually([&] { return cloud.ServerName() == "cloud.example"; }));
}

TEST_F(ARace, IsWonByTheSecondAddressWhenTheFirstIsDead) {
    const TlsPeer cloud("127.0.0.1", PORT, good);
    const End end = Race({HOLE, "127.0.0.1"});
    EXPECT_EQ(end.address, "127.0.0.1") << end.failure;
    EXPECT_GE(end.time, 250ms);
    RecordProperty("time_ms", static_cast<int>(end.time.count()));
}

TEST_F(ARace, IsWonByTheSecondAddressWhenTheFirstRefuses) {
    const TlsPeer cloud("127.0.0.1", PORT, good);
    const End end = Race({"127.0.0.2", "127.0.0.1"});
    EXPECT_EQ(end.address, "127.0.0.1") << end.failure;
    RecordProperty("time_ms", static_cast<int>(end.time.count()));
}

TEST_F(ARace, IsWonByTheFourthAddressWhenTheOthersAreDead) {
    const TlsPeer cloud("127.0.0.1", PORT, good);
    const End end = Race({HOLE, "192.0.2.3", "192.0.2.4", "127.0.0.1"});
    EXPECT_EQ(end.address, "127.0.0.1") << end.failure;
    EXPECT_GE(end.time, 750ms);
}

TEST_F(ARace, IsWonByAnIpv4AddressWhenThereIsNothingBehindIpv6) {
    if (!sixIsThere)
        GTEST_SKIP() << "this machine has no IPv6";
    const TlsPeer cloud("127.0.0.1", PORT, good);
    EXPECT_EQ(Race({HOLE_SIX, "127.0.0.1"}).address, "127.0.0.1");
    ASSERT_TRUE(PrivateNetwork::Ip("addr del 2001:db8::1/64 dev hole"));
    EXPECT_EQ(Race({HOLE_SIX, "127.0.0.1"}).address, "127.0.0.1"); // no route
}

TEST_F(ARace, IsWonByAnIpv6Address) {
    if (!sixIsThere)
        GTEST_SKIP() << "this machine has no IPv6";
    const TlsPeer cloud("::1", PORT, good);
    EXPECT_EQ(Race({"::1"}).address, "::1");
}

TEST_F(ARace, IsWonByTheAddressThatCompletesTheHandshakeWhenTheFirstOnlyAccepts) {
    TlsPeer::Plan silence;
    silence.mute = true;
    const TlsPeer mute("127.0.0.2", PORT, good, silence);
    const TlsPeer cloud("127.0.0.1", PORT, good);
    const End end = Race({"127.0.0.2", "127.0.0.1"});
    EXPECT_EQ(end.address, "127.0.0.1") << end.failure;
    EXPECT_GE(end.time, 1500ms);
}

TEST_F(ARace, IsWonByTheLastAddressWhenTheFirstOnlyAcceptsAndTheSecondIsDead) {
    TlsPeer::Plan silence;
    silence.mute = true;
    const TlsPeer mute("127.0.0.2", PORT, good, silence);
    const TlsPeer cloud("127.0.0.1", PORT, good);
    const End end = Race({"127.0.0.2", HOLE, "127.0.0.1"});
    EXPECT_EQ(end.address, "127.0.0.1") << end.failure;
    EXPECT_GE(end.time, 1500ms);
}

TEST_F(ARace, BeginsAThirdHandshakeOnlyWhenTheSecondHasHadItsTimeToo) {
    TlsPeer::Plan silence;
    silence.mute = true;
    const TlsPeer first("127.0.0.2", PORT, good, silence);
    const TlsPeer second("127.0.0.3", PORT, good, silence);
    const TlsPeer cloud("127.0.0.1", PORT, good);
    const End end = Race({"127.0.0.2", "127.0.0.3", "127.0.0.1"});
    EXPECT_EQ(end.address, "127.0.0.1") << end.failure;
    EXPECT_GE(end.time, 3000ms);
}

TEST_F(ARace, AsksOneAddressAtATimeWhileItAnswers) {
    const TlsPeer first("127.0.0.1", PORT, good);
    const TlsPeer second("127.0.0.2", PORT, good);
    EXPECT_EQ(Race({"127.0.0.1", "127.0.0.2"}).address, "127.0.0.1");
    EXPECT_EQ(second.Accepted(), 0);
}

TEST_F(ARace, TellsWhatEveryAddressSaidWhenAllFail) {
    const TestCertificate wrong(folder, {"wrong", "portal.example"}, &authority);
    const TlsPeer portal("127.0.0.2", PORT, wrong);
    const End end = Race({"127.0.0.1", "127.0.0.2"});
    EXPECT_FALSE(end.won);
    EXPECT_EQ(end.failure,
              "127.0.0.1: the connection was refused; 127.0.0.2: the certificate for portal.example is not "
              "for cloud.example: another server answers in its place, as a captive portal does, or the name "
              "is wrong");
}

TEST_F(ARace, IsWonByAnAddressWithTheRightCertificate) {
    const TestCertificate wrong(folder, {"wrong", "portal.example"}, &authority);
    const TlsPeer portal("127.0.0.2", PORT, wrong);
    const TlsPeer cloud("127.0.0.1", PORT, good);
    EXPECT_EQ(Race({"127.0.0.2", "127.0.0.1"}).address, "127.0.0.1");
}

TEST_F(ARace, LeavesNoDescriptorBehind) {
    const TlsPeer cloud("127.0.0.1", PORT, good);
    Race({HOLE, "127.0.0.2", "127.0.0.1"});
    const auto before = OrvTest::ProcessFigures::Now().descriptors;
    for (int i = 0; i < 5; ++i)
        Race({HOLE, "127.0.0.2", "127.0.0.1"});
    EXPECT_TRUE(PrivateNetwork::Eventually([&] { return OrvTest::ProcessFigures::Now().descriptors <= before; }));
}

/// One address, and a server that is not as it should be.
class ATlsFailure : public ARace {
protected:
    std::string With(const TestCertificate& certificate, TlsPeer::Plan plan = {}) {
        const TlsPeer cloud("127.0.0.1", PORT, certificate, std::move(plan));
        const End end = Race({"127.0.0.1"});
        EXPECT_FALSE(end.won);
        RecordProperty("said", end.failure);
        return end.failure;
    }
    static bool Contains(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }
};

TEST_F(ATlsFailure, IsToldWhenTheCertificateIsForAnotherHost) {
    const TestCertificate wrong(folder, {"wrong", "other.example"}, &authority);
    EXPECT_PRED2(Contains, With(wrong), "the certificate for other.example is not for cloud.example");
}

TEST_F(ATlsFailure, IsToldWhenTheCertificateIsForTheAddressOnly) {
    const TestCertificate wrong(folder, {"127.0.0.1"}, &authority);
    EXPECT_PRED2(Contains, With(wrong), "the certificate for 127.0.0.1 is not for cloud.example");
}

TEST_F(ATlsFailure, IsToldWhenTheAuthorityIsUnknown) {
    const TestCertificate stranger(folder, {"stranger"});
    const TestCertificate wrong(folder, {"wrong", "cloud.example"}, &stranger);
    EXPECT_PRED2(Contains, With(wrong),
                 "the certificate for cloud.example was issued by stranger, which is not trusted");
}

TEST_F(ATlsFailure, IsToldWhenTheCertificateIsNotYetValid) {
    const TestCertificate early(folder, {"early", "cloud.example", 86400, 2 * 86400}, &authority);
    const std::string said = With(early);
    EXPECT_PRED2(Contains, said, "the certificate for cloud.example is not valid before ");
    EXPECT_PRED2(Contains, said, "is the clock right?");
}

TEST_F(ATlsFailure, IsToldWhenTheCertificateHasExpired) {
    const TestCertificate late(folder, {"late", "cloud.example", -2 * 86400, -86400}, &authority);
    EXPECT_PRED2(Contains, With(late), "the certificate for cloud.example has expired on ");
}

TEST_F(ATlsFailure, IsToldWhenTheServerIsTooOld) {
    TlsPeer::Plan old;
    old.newest = TLS1_1_VERSION;
    EXPECT_PRED2(Contains, With(good, old), "the server speaks none of the TLS versions from 1.2 on");
}

TEST_F(ATlsFailure, IsToldWhenTheServerSpeaksNoTls) {
    TlsPeer::Plan plain;
    plain.plain = true;
    EXPECT_PRED2(Contains, With(good, plain), "is it a TLS server that answers there?");
}

/// The connection as the application has it, to a server on loopback.
class AConnection : public ARace, public testing::WithParamInterface<int> {
protected:
    /// "connected", or why not.
    std::string Try() {
        EventLoop loop;
        std::string result;
        const auto end = [&](const std::string& what) {
            result = what;
            loop.Quit();
        };
        CloudConnection connection(
            loop, settings,
            {[&](const std::string&) { end("connected"); }, [&](const std::string& reason) { end("lost: " + reason); },
             [&](const std::string& reason, std::chrono::milliseconds) { end(reason); }, [] { return KeepAlive(); }},
            [] { return 0.5; });
        Timer limit(loop, [&] { end("too late"); });
        limit.Once(20s);
        connection.Reopen("start");
        loop.Run();
        return result;
    }
    void SetUp() override {
        ARace::SetUp();
        settings.host = "localhost";
    }
    /// Demands a client certificate, with the version of TLS that is the test's parameter.
    TlsPeer::Plan Demanding() const {
        TlsPeer::Plan plan;
        plan.newest = GetParam();
        plan.clientAuthority = authority.certificateFile;
        return plan;
    }
    void Identify(const TestCertificate& certificate, const TestCertificate& key) {
        settings.certificateFile = certificate.certificateFile;
        settings.keyFile = key.keyFile;
    }

    const TestCertificate local{folder, {"local", "localhost"}, &authority};
    const TestCertificate device{folder, {"device"}, &authority};
};
INSTANTIATE_TEST_SUITE_P(Tls, AConnection, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& version) { return version.param == TLS1_2_VERSION ? "1_2" : "1_3"; });

TEST_P(AConnection, IsMadeWithAClientCertificate) {
    Identify(device, device);
    const TlsPeer cloud("127.0.0.1", PORT, local, Demanding());
    EXPECT_EQ(Try(), "connected");
}

TEST_P(AConnection, TellsThatAClientCertificateIsWanted) {
    const TlsPeer cloud("127.0.0.1", PORT, local, Demanding());
    EXPECT_NE(Try().find("the server wants a client certificate"), std::string::npos);
}

TEST_P(AConnection, TellsThatTheClientCertificateIsRefused) {
    const TestCertificate stranger(folder, {"stranger"});
    Identify(stranger, stranger);
    const TlsPeer cloud("127.0.0.1", PORT, local, Demanding());
    const std::string said = Try();
    EXPECT_NE(said.find("the server refuses the client certificate"), std::string::npos) << said;
}

TEST_P(AConnection, AsksForTheProtocolByItsName) {
    settings.alpn = "mqtt-x";
    TlsPeer::Plan plan;
    plan.newest = GetParam();
    const TlsPeer cloud("127.0.0.1", PORT, local, plan);
    EXPECT_EQ(Try(), "connected");
    EXPECT_EQ(cloud.Protocol(), "mqtt-x");
}

TEST_P(AConnection, GivesUserAndPassword) {
    settings.user = "gateway";
    settings.passwordFile = folder + "/password";
    std::ofstream(settings.passwordFile) << "a secret\n";
    TlsPeer::Plan plan;
    plan.newest = GetParam();
    const TlsPeer cloud("127.0.0.1", PORT, local, plan);
    EXPECT_EQ(Try(), "connected");
    const std::string expected =
        std::string("\0\5racer", 7) + std::string("\0\7gateway", 9) + std::string("\0\10a secret", 10);
    EXPECT_NE(cloud.Received().find(expected), std::string::npos);
}

/// Files of credentials that are no good.
class ACredential : public AConnection {
protected:
    std::string Unreadable() const { return folder + "/none.pem"; }
};
INSTANTIATE_TEST_SUITE_P(Tls, ACredential, testing::Values(TLS1_3_VERSION));

TEST_P(ACredential, ThatIsMissingIsNamedWithTheRemedy) {
    Identify(device, device);
    settings.keyFile = Unreadable();
    EXPECT_EQ(Try(),
              "cannot use the key '" + Unreadable() +
                  "': No such file or directory; name a PEM file without a passphrase that the application's user "
                  "may read (cloud-key)");
    settings.certificateFile = Unreadable();
    EXPECT_EQ(Try(),
              "cannot use the client certificate '" + Unreadable() +
                  "': No such file or directory; name a PEM file that the application's user may read (cloud-cert)");
    settings.caFile = Unreadable();
    EXPECT_EQ(Try(), "cannot use the CA file '" + Unreadable() +
                         "': No such file or directory; name a PEM file of the authorities to trust (cloud-ca)");
}

TEST_P(ACredential, ThatDoesNotFitTheOtherIsNamed) {
    Identify(device, local);
    const std::string said = Try();
    EXPECT_NE(said.find("cannot use the key '" + local.keyFile + "'"), std::string::npos) << said;
    EXPECT_NE(said.find("it is not the key of the client certificate '" + device.certificateFile + "'"),
              std::string::npos)
        << said;
}

TEST_P(ACredential, ThatIsNoPemFileIsNamed) {
    Identify(device, device);
    settings.certificateFile = "/dev/null";
    EXPECT_NE(Try().find("cannot use the client certificate '/dev/null': "), std::string::npos);
}

} // namespace
} // namespace GatewayApp
