// SPDX-License-Identifier: Apache-2.0
// The examples at work: each as a program of its own, against a real broker.
#include "ChildProcess.h"
#include "ChildProgram.h"
#include "MosquittoBroker.h"
#include "PrivateBus.h"
#include "RawClient.h"
#include "WaitUntil.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sys/wait.h>

namespace {

using OrvPlatform::Testing::Content;
using OrvTest::MosquittoBroker;
using OrvTest::MqttMessage;
using OrvTest::RawClient;
using OrvTest::WaitUntil;
using PrivateNetwork::ChildProgram;
using Words = std::vector<std::string>;

class AnExample : public ::testing::Test {
protected:
    void SetUp() override {
        if (MosquittoBroker::Program().empty())
            GTEST_SKIP() << "needs mosquitto (script/bootstrap)";
        broker = std::make_unique<MosquittoBroker>();
        neighbour = std::make_unique<RawClient>(broker->Port());
        const auto settings = folder.Write("gateway.ini", "[broker]\nport = " + std::to_string(broker->Port()) +
                                                              "\n[connman]\nbus_address = unix:path=/nonexistent\n");
        setenv("ORV_GATEWAY_CONFIG", settings.c_str(), 1);
    }
    void TearDown() override {
        if (program) {
            EXPECT_EQ(program->End(SIGTERM), 0) << Content(folder.Path("log"));
        }
    }

    void Start(const std::string& name, const Words& arguments) {
        Words words{ORV_EXAMPLES + ("/" + name)};
        words.insert(words.end(), arguments.begin(), arguments.end());
        program = std::make_unique<ChildProgram>(words, folder.Path("log"));
    }

    /// Retained: it reaches a program that is still on its way up.
    void Publish(const std::string& topic, const std::string& payload) {
        MqttMessage message;
        message.topic = topic;
        message.payload = payload;
        message.qos = 1;
        message.retained = true;
        EXPECT_TRUE(neighbour->Publish(message));
    }

    std::string NextPayload(const std::string& topic) {
        const auto message = neighbour->NextMessageOn(topic);
        return message ? message->payload : "nothing";
    }

    bool EventuallyHolds(const std::string& file, const std::string& content) {
        return WaitUntil([&] { return Content(folder.Path(file)) == content; });
    }

    OrvPlatform::Testing::TemporaryFolder folder;
    std::unique_ptr<MosquittoBroker> broker;
    std::unique_ptr<RawClient> neighbour;
    std::unique_ptr<ChildProgram> program;
};

TEST_F(AnExample, DrivesTheLeds) {
    for (const char* led : {"green", "yellow"}) {
        std::filesystem::create_directory(folder.Path(led));
        folder.Write(std::string(led) + "/trigger", "");
        folder.Write(std::string(led) + "/brightness", "");
    }
    Publish("/orv/led/connected_services_green", "On");
    Publish("/orv/led/connected_services_yellow", "Blink");
    Start("led-driver", {folder.Path("")});
    EXPECT_TRUE(EventuallyHolds("green/brightness", "1"));
    EXPECT_TRUE(EventuallyHolds("yellow/trigger", "timer"));
    Publish("/orv/led/connected_services_green", "Off");
    EXPECT_TRUE(EventuallyHolds("green/brightness", "0"));
    EXPECT_EQ(Content(folder.Path("yellow/brightness")), "");
    std::filesystem::remove_all(folder.Path("green"));
    std::filesystem::remove_all(folder.Path("yellow"));
}

TEST_F(AnExample, GuardsTheNameServers) {
    folder.Write("normal", "server=192.0.2.1\n");
    Publish("/orv/network/wan/inhibit_dns", "permit");
    Start("name-server-guard",
          {folder.Path("normal"), folder.Path("active"), "echo reload >> " + folder.Path("reloads")});
    EXPECT_TRUE(EventuallyHolds("active", "server=192.0.2.1\n"));
    EXPECT_TRUE(EventuallyHolds("reloads", "reload\n"));
    Publish("/orv/network/wan/inhibit_dns", "inhibit");
    EXPECT_TRUE(EventuallyHolds("reloads", "reload\nreload\n")) << Content(folder.Path("log"));
    EXPECT_EQ(Content(folder.Path("active")), "");
    EXPECT_TRUE(std::filesystem::exists(folder.Path("active")));
    Publish("/orv/network/wan/inhibit_dns", "permit");
    EXPECT_TRUE(EventuallyHolds("active", "server=192.0.2.1\n"));
}

TEST_F(AnExample, ReadsItsSettingsAnewOnReload) {
    const std::string init = "/orv/apps_control/features/thermostat/init";
    ASSERT_TRUE(neighbour->Subscribe(init));
    folder.Write("settings", "wanted = 21\n");
    Start("settings", {folder.Path("settings")});
    EXPECT_EQ(NextPayload(init), "booting"); // Start
    EXPECT_EQ(NextPayload(init), "booting");
    EXPECT_EQ(NextPayload(init), "ready");
    folder.Write("settings", "wanted 22\n");
    ASSERT_TRUE(neighbour->Publish({init, "reload", 1}));
    EXPECT_EQ(NextPayload(init), "reload");
    EXPECT_EQ(NextPayload(init), "booting");
    EXPECT_EQ(NextPayload(init), "error");
    folder.Write("settings", "wanted = 22\n");
    ASSERT_TRUE(neighbour->Publish({init, "reload", 1}));
    EXPECT_EQ(NextPayload(init), "reload");
    EXPECT_EQ(NextPayload(init), "booting");
    EXPECT_EQ(NextPayload(init), "ready");
}

TEST_F(AnExample, PublishesWhatTheModemManagerKnows) {
    const OrvTest::PrivateBus bus;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.Address().c_str(), 1);
    ASSERT_TRUE(neighbour->Subscribe("/orv/modem/#"));
    Start("modem-data", {"1"}); // it is there before the modem manager is
    const ChildProgram modem(
        {"/usr/bin/python3", "-B", ORV_MODEM, "wwan0", "192.0.2.2", "255.255.255.0", "192.0.2.1", "192.0.2.1"},
        folder.Path("log"));
    EXPECT_EQ(NextPayload("/orv/modem/imei"), "350000000000001");
    EXPECT_EQ(NextPayload("/orv/modem/sim/provider"), "Box Mobile");
    EXPECT_EQ(NextPayload("/orv/modem/sim/strength"), "60");
}

/// The first steps in another language, with the name of the application in them.
struct FirstSteps {
    std::string name;
    Words program;
};

std::ostream& operator<<(std::ostream& stream, const FirstSteps& steps) {
    return stream << steps.name;
}

class TheFirstSteps : public AnExample, public ::testing::WithParamInterface<FirstSteps> {
protected:
    void Begin() {
#ifdef ORV_LIBRARIES
        setenv("LD_LIBRARY_PATH", ORV_LIBRARIES, 1);
#endif
        Words words{"sh", "-c", "log=$0; exec \"$@\" >\"$log\"", folder.Path("said")};
        words.insert(words.end(), GetParam().program.begin(), GetParam().program.end());
        program = std::make_unique<ChildProgram>(words, folder.Path("log"));
    }

    const std::string feature = "/orv/apps_control/features/" + GetParam().name;
    const std::string init = feature + "/init";
};

TEST_P(TheFirstSteps, AnnounceTheApplicationHearAndObeyAndSayGoodBye) {
    ASSERT_TRUE(neighbour->Subscribe(feature + "/#"));
    Publish("/orv/panel/guid", "4711");
    Begin();
    EXPECT_EQ(NextPayload(feature + "/available"), "true") << Content(folder.Path("log"));
    EXPECT_EQ(NextPayload(init), "booting");
    EXPECT_EQ(NextPayload(init), "ready");
    EXPECT_TRUE(EventuallyHolds("said", "panel 4711\n"));
    Publish("/orv/modem/sim/strength", "-71");
    EXPECT_TRUE(EventuallyHolds("said", "panel 4711\nsignal -71\n"));
    ASSERT_TRUE(neighbour->Publish({init, "reload", 1}));
    EXPECT_EQ(NextPayload(init), "reload");
    EXPECT_EQ(NextPayload(init), "booting");
    EXPECT_EQ(NextPayload(init), "ready");
    EXPECT_TRUE(EventuallyHolds("said", "panel 4711\nsignal -71\nreads its settings again\n"));
    EXPECT_EQ(program->End(SIGTERM), 0) << Content(folder.Path("log"));
    program.reset();
    ASSERT_TRUE(neighbour->Publish({feature + "/last", "", 1}));
    const auto next = neighbour->NextMessage();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->topic, feature + "/last"); // and no last will before it
}

TEST_P(TheFirstSteps, SayThatThereIsNoBrokerAndEnd) {
    broker->Stop();
    Begin();
    siginfo_t ended{};
    EXPECT_TRUE(WaitUntil([&] {
        return waitid(P_PID, static_cast<id_t>(program->Pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid != 0;
    }));
    EXPECT_EQ(program->End(SIGKILL), 1);
    program.reset();
    EXPECT_NE(Content(folder.Path("log")).find("no broker\n"), std::string::npos) << Content(folder.Path("log"));
}

INSTANTIATE_TEST_SUITE_P(InC, TheFirstSteps,
                         ::testing::Values(FirstSteps{"doorbell", {ORV_EXAMPLES "/first-steps-c"}}));
#ifdef ORV_FIRST_STEPS_PY
INSTANTIATE_TEST_SUITE_P(InPython, TheFirstSteps,
                         ::testing::Values(FirstSteps{"window", {"/usr/bin/python3", "-B", ORV_FIRST_STEPS_PY}}));
#endif

struct Call {
    std::string program;
    Words arguments;
};

std::ostream& operator<<(std::ostream& stream, const Call& call) {
    stream << call.program;
    for (const std::string& argument : call.arguments)
        stream << " [" << argument << "]";
    return stream;
}

class AnExampleCalledWrongly : public ::testing::TestWithParam<Call> {
protected:
    /// @return the exit status; -1 when it has not ended by itself
    int Run() {
        Words words{ORV_EXAMPLES + ("/" + GetParam().program)};
        words.insert(words.end(), GetParam().arguments.begin(), GetParam().arguments.end());
        ChildProgram program(words, folder.Path("log"));
        WaitUntil([&] {
            siginfo_t ended{};
            return waitid(P_PID, static_cast<id_t>(program.Pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   ended.si_pid != 0;
        });
        return program.End(SIGKILL);
    }

    OrvPlatform::Testing::TemporaryFolder folder;
};

TEST_P(AnExampleCalledWrongly, SaysHowItIsCalledAndEnds) {
    EXPECT_EQ(Run(), 2);
    EXPECT_EQ(Content(folder.Path("log")).find("usage: " + GetParam().program + " "), 0U)
        << Content(folder.Path("log"));
}

INSTANTIATE_TEST_SUITE_P(Calls, AnExampleCalledWrongly,
                         ::testing::Values(Call{"led-driver", {}}, Call{"led-driver", {"a", "b"}},
                                           Call{"led-driver", {"--help"}}, Call{"name-server-guard", {"a"}},
                                           Call{"name-server-guard", {"a", "b", "c", "d"}}, Call{"settings", {}},
                                           Call{"settings", {"a", "b"}}, Call{"settings", {"--help"}},
                                           Call{"modem-data", {"1", "2"}}, Call{"modem-data", {"abc"}},
                                           Call{"modem-data", {""}}, Call{"modem-data", {"0"}},
                                           Call{"modem-data", {"-1"}}, Call{"modem-data", {"10s"}}));

} // namespace
