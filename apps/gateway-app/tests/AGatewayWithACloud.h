// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProcess.h"
#include "ChildProgram.h"
#include "MosquittoBroker.h"
#include "PrivateBus.h"
#include "PrivateNetwork.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>

namespace GatewayApp {

using OrvPlatform::Testing::Content;
using OrvTest::MosquittoBroker;
using PrivateNetwork::ChildProgram;
using PrivateNetwork::Eventually;
using PrivateNetwork::Ip;

/// Two WAN interfaces, the gateway's broker on loopback, and behind the Ethernet interface, in a second namespace, the
/// cloud's broker.
class AGatewayWithACloud : public testing::Test {
protected:
    void SetUp() override {
        if (!PrivateNetwork::Entered() || MosquittoBroker::Program().empty()) {
            const char* const needs = "needs network namespaces and mosquitto (script/bootstrap)";
            if (PrivateNetwork::Required())
                FAIL() << needs;
            GTEST_SKIP() << needs;
        }
        gatewayBroker = std::make_unique<MosquittoBroker>();
        bus = std::make_unique<OrvTest::PrivateBus>();
        connman = std::make_unique<OrvTest::FakeConnmanProcess>(*bus, "eth0:ready wwan0:ready");
        ASSERT_TRUE(PrivateNetwork::AddInterface("eth0") && PrivateNetwork::AddInterface("wwan0"));
        ASSERT_NO_FATAL_FAILURE(StartCloud());
        ASSERT_TRUE(Ip("addr add 10.11.0.2/24 dev eth0") && Ip("route add default via 10.11.0.1"));
        config = folder.Write("gateway.ini", "[broker]\nport = " + std::to_string(gatewayBroker->Port()) +
                                                 "\n[connman]\nbus_address = " + bus->Address() + "\n");
        setenv("ORV_GATEWAY_CONFIG", config.c_str(), 1);
    }
    void TearDown() override {
        app.reset();
        cloud.reset();
        Ip("link del eth0 2>/dev/null");
        Ip("link del wwan0 2>/dev/null");
        if (HasFailure())
            std::fprintf(stderr, "%s\n%s", Content(folder.Path("app.log")).c_str(), Content(transcript).c_str());
    }

    /// A broker with TLS at 10.11.0.1 in a namespace of its own, which has the far end of eth0.
    void StartCloud() {
        const std::string key = folder.Path("cloud.key");
        const std::string make = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "
                                 "/CN=cloud -addext subjectAltName=IP:10.11.0.1 -keyout " +
                                 key + " -out " + certificate + " 2>/dev/null && chmod a+r " + key;
        ASSERT_EQ(std::system(make.c_str()), 0);
        const std::string file =
            folder.Write("cloud.conf", "listener 8883 10.11.0.1\nallow_anonymous true\nuser root\ncertfile " +
                                           certificate + "\nkeyfile " + key + "\n");
        const std::string script = "ip link set lo up; until ip link set cloud0 up 2>/dev/null; do sleep 0.01; done; "
                                   "ip addr add 10.11.0.1/24 dev cloud0; exec " +
                                   MosquittoBroker::Program() + " -c " + file;
        cloud =
            std::make_unique<ChildProgram>(std::vector<std::string>{"unshare", "-n", "sh", "-c", script}, "/dev/null");
        const auto space = [](const std::string& process) {
            std::error_code ignored;
            return std::filesystem::read_symlink("/proc/" + process + "/ns/net", ignored);
        };
        const std::string pid = std::to_string(cloud->Pid());
        ASSERT_TRUE(Eventually([&] { return !space(pid).empty() && space(pid) != space("self"); }));
        ASSERT_TRUE(Ip("link set eth0-far netns " + pid + " name cloud0"));
    }

    std::vector<std::string> AppWords() const {
        return {ORV_GATEWAY_APP,
                "--cloud-host",
                "10.11.0.1",
                "--cloud-port",
                port,
                "--cloud-ca",
                trusted,
                "--transcript",
                transcript,
                "--tick-ms",
                "50",
                "--lock",
                folder.Path("lock"),
                "--status-file",
                statusFile};
    }
    void StartApp() { app = std::make_unique<ChildProgram>(AppWords(), folder.Path("app.log")); }
    void StartConnectedApp() {
        StartApp();
        ASSERT_TRUE(Eventually([&] { return Has("\"event\":\"CLOUD_CONNECTED\"") && Has("\"what\":\"ready\""); }));
    }

    /// How often the transcript says so.
    int Count(const std::string& text) const {
        int count = 0;
        const std::string all = Content(transcript);
        for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1))
            ++count;
        return count;
    }
    bool Has(const std::string& text) const { return Count(text) > 0; }
    bool EventuallyHas(const std::string& text, int times = 1) const {
        return Eventually([&] { return Count(text) >= times; });
    }

    /// From now on another authority is trusted than the cloud's.
    bool TrustsAStranger() {
        trusted = folder.Path("other.pem");
        const std::string make = "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=other -keyout /dev/null -out ";
        return std::system((make + trusted + " 2>/dev/null").c_str()) == 0;
    }

    /// Frames to the cloud go to a neighbour that does not exist; the link stays up.
    static bool SilencePath() { return Ip("neigh replace 10.11.0.1 lladdr 02:00:00:00:0f:ff dev eth0 nud permanent"); }
    static bool HealPath() { return Ip("neigh del 10.11.0.1 dev eth0"); }

    const OrvPlatform::Testing::TemporaryFolder folder;
    const std::string certificate = folder.Path("cloud.pem");
    std::string trusted = certificate;
    std::string port = "8883";
    const std::string transcript = folder.Path("transcript");
    const std::string statusFile = folder.Path("status.json");
    std::string config;
    std::unique_ptr<MosquittoBroker> gatewayBroker;
    std::unique_ptr<OrvTest::PrivateBus> bus;
    std::unique_ptr<OrvTest::FakeConnmanProcess> connman;
    std::unique_ptr<ChildProgram> cloud;
    std::unique_ptr<ChildProgram> app;
};

} // namespace GatewayApp
