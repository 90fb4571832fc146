// SPDX-License-Identifier: Apache-2.0
// Several applications with one file of settings: the platform as it is shipped, each application in a process of its
// own.
#include "CommonUtils/Networking/ConnmanCommands.h"
#include "MosquittoBroker.h"
#include "PrivateBus.h"
#include "QuilMqtt/QueueOwner.h"
#include "RawClient.h"
#include "WaitUntil.h"
#include "support/ChildProcess.h"
#include "support/Pattern.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

namespace OrvTest {
namespace {

using CommonUtils::Networking::ConnmanCommands;
using OrvPlatform::Testing::Content;
using OrvPlatform::Testing::Ended;
using OrvPlatform::Testing::RunInChild;
using QUILMQTT::QueueOwner;

constexpr const char* PROGRAM = "orv-several-applications-tests";
constexpr const char* LED = "/orv/led/connected_services_green";

class AnApplication : public QueueOwner {
public:
    AnApplication() : QueueOwner("ORV_Stack") {}
    ~AnApplication() override { StopDelivery(); }
};

class AGatewayWithOneFile : public testing::Test {
protected:
    /// An application in a process of its own, started by that file.
    Ended Run(const std::string& more, const std::function<void()>& application,
              std::map<std::string, std::string> environment = {}) const {
        const std::string path = broker.Folder() + "/gateway.ini";
        std::ofstream(path) << "[broker]\nport = " << broker.Port() << "\n[connman]\nbus_address = " << bus.Address()
                            << "\n[log]\nlevel = info,ConnmanCommands=debug\n" + more;
        environment["ORV_GATEWAY_CONFIG"] = path;
        const Ended ended = RunInChild(environment, application);
        EXPECT_EQ(ended.exitStatus, 0) << ended.standardError;
        return ended;
    }

    /// Orders wwan0 to the top and its name servers away, and speaks for the gateway. Lasts until that has been done,
    /// where it may be done.
    void ActAsTheGateway(bool mayBeDone) const {
        auto& commands = ConnmanCommands::GetInstance();
        AnApplication client;
        const bool ready = client.Connect() && WaitUntil([&] { return commands.GetTopPriorityInterface() == "eth0"; });
        const bool accepted =
            commands.SetTopPriorityInterface("wwan0") && commands.SetDnsConfiguration("wwan0", "0.0.0.0", "");
        const bool published = client.PublishRetainedMessage(LED, "On", true) == QueueOwner::HANDED_OVER;
        std::string calls;
        const auto asked = [&](const char* call) { return (calls += connman.Calls()).find(call) != std::string::npos; };
        if (mayBeDone)
            WaitUntil([&] { return asked("MoveBefore wwan0") && asked("SetProperty wwan0"); });
        // An order is on its way by the time that the second of two later changes is seen.
        bool truthful = true;
        for (const std::string top : {"lan1", "lan2"}) {
            connman.Do("services " + top + ":ready eth0:ready wwan0:ready");
            truthful = WaitUntil([&] { return commands.GetTopPriorityInterface() == top; }) && truthful;
        }
        calls += connman.Calls();
        std::fprintf(stderr, "ready %d accepted %d published %d truthful %d calls %s\n", ready, accepted, published,
                     truthful, calls.c_str());
        client.Disconnect();
    }

    std::string Led() const {
        const auto state = RetainedState(broker.Port(), LED);
        return state.empty() ? "(nothing)" : state.begin()->second;
    }

    static std::size_t Count(const std::string& text, const std::string& part) {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at)
            ++count;
        return count;
    }

    MosquittoBroker broker;
    PrivateBus bus;
    FakeConnmanProcess connman{bus, "eth0:ready wwan0:ready"};
    const std::string wentWell = "ready 1 accepted 1 published 1 truthful 1 calls ";
};

TEST_F(AGatewayWithOneFile, LeavesOrdersAndItsOwnTopicsToTheControllerThatItNames) {
    const Ended ended = Run("[gateway]\ncontroller = gateway-app\n", [&] { ActAsTheGateway(false); });
    EXPECT_EQ(Led(), "(nothing)");
    const std::string& said = ended.standardError;
    EXPECT_NE(said.find(wentWell + "\n"), std::string::npos) << said;
    EXPECT_EQ(Count(said, "info [GatewayConfig] [gateway] controller is gateway-app: what this program, " +
                              std::string(PROGRAM) + ", orders"),
              1U)
        << said;
    EXPECT_EQ(Count(said, "debug [ConnmanCommands] the order of the interfaces is left to the gateway's controller"),
              1U);
    EXPECT_EQ(Count(said, "debug [ConnmanCommands] the choice of name servers is left to the gateway's controller"),
              1U);
}

TEST_F(AGatewayWithOneFile, LeavesNameServersAloneThatTheControllerHasTakenAway) {
    connman.Do("mute-servers eth0");
    const Ended ended = Run("[gateway]\ncontroller = gateway-app\n", [&] { ActAsTheGateway(false); });
    EXPECT_NE(ended.standardError.find(wentWell + "\n"), std::string::npos) << ended.standardError;
}

TEST_F(AGatewayWithOneFile, LetsTheControllerActAndEverybodyWhereThereIsNone) {
    struct Case {
        std::string lines;
        std::map<std::string, std::string> environment;
    };
    const Case cases[] = {{"[gateway]\ncontroller = " + std::string(PROGRAM) + "\n", {}},
                          {"", {}},
                          {"[gateway]\ncontroller = gateway-app\n", {{"ORV_GATEWAY_CONTROLLER", ""}}},
                          {"[gateway]\ncontroller = gateway-app\n", {{"ORV_GATEWAY_CONTROLLER", PROGRAM}}}};
    for (const Case& one : cases) {
        connman.Do("services eth0:ready wwan0:ready");
        const Ended ended = Run(
            one.lines, [&] { ActAsTheGateway(true); }, one.environment);
        const std::string& said = ended.standardError;
        EXPECT_NE(said.find(wentWell), std::string::npos) << said;
        EXPECT_NE(said.find("MoveBefore wwan0"), std::string::npos) << one.lines << said;
        EXPECT_NE(said.find("SetProperty wwan0"), std::string::npos) << one.lines << said;
        EXPECT_EQ(Led(), "On") << one.lines;
        RawClient(broker.Port()).Publish({LED, "", 1, true, false, 0});
    }
}

TEST_F(AGatewayWithOneFile, KeepsAnyNumberOfClientsApartAndNamesTheirProgramInTheBrokersLog) {
    const auto stay = [&] {
        // Another process of the same program, which connects while the clients of this one are connected.
        int go[2] = {-1, -1};
        EXPECT_EQ(pipe(go), 0);
        const pid_t other = fork();
        if (other == 0) {
            char word = 0;
            AnApplication more[2];
            const bool both = read(go[0], &word, 1) == 1 && more[0].Connect() && more[1].Connect();
            _exit(both ? 0 : 1);
        }
        AnApplication clients[3];
        bool connected = true;
        for (AnApplication& client : clients)
            connected = client.Connect() && connected;
        connected = write(go[1], "!", 1) == 1 && connected;
        int status = -1;
        waitpid(other, &status, 0);
        for (AnApplication& client : clients)
            connected = client.Disconnect() && connected;
        std::fprintf(stderr, "all %d %d\n", connected, status);
    };
    const Ended ended = Run("", stay);
    EXPECT_NE(ended.standardError.find("all 1 0\n"), std::string::npos) << ended.standardError;
    EXPECT_EQ(Count(ended.standardError, "lost the connection"), 0U) << ended.standardError;

    const std::string log = Content(broker.Folder() + "/log");
    const OrvTest::Pattern id("as ORV_Stack-" + std::string(PROGRAM) + "-([0-9]+-[0-9]+) ");
    const auto found = id.FindAll(log);
    const std::set<std::string> numbers(found.begin(), found.end());
    EXPECT_EQ(numbers.size(), 5U) << log;
    EXPECT_EQ(Count(log, "already connected"), 0U) << log;
}

TEST_F(AGatewayWithOneFile, KnowsTheClientsByTheirPlainIdsWhereTheSuffixIsEmpty) {
    const Ended ended = Run("[broker]\nclient_id_suffix =\n", [] {
        AnApplication client;
        std::fprintf(stderr, "connected %d\n", client.Connect());
    });
    EXPECT_NE(ended.standardError.find("connected 1\n"), std::string::npos) << ended.standardError;
    EXPECT_NE(Content(broker.Folder() + "/log").find(" as ORV_Stack "), std::string::npos);
}

} // namespace
} // namespace OrvTest
