// SPDX-License-Identifier: Apache-2.0
#include "Loop.h"
#include "CommandError.h"
#include "FakeClient.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <set>
#include <stdexcept>

#include <unistd.h>

using namespace OrvShell;
using namespace std::chrono_literals;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

class ScenarioFile {
public:
    explicit ScenarioFile(const std::string& content)
        : path(testing::TempDir() + "orv-" + std::to_string(getpid()) + ".orv") {
        std::ofstream(path) << content;
    }
    ~ScenarioFile() { std::remove(path.c_str()); }
    ScenarioFile(const ScenarioFile&) = delete;
    ScenarioFile& operator=(const ScenarioFile&) = delete;

    const std::string path;
};

// Without the stamp "HH:MM:SS.mmmZ " of each line that has one.
std::string WithoutTimes(const std::string& transcript) {
    std::string result;
    std::istringstream lines(transcript);
    for (std::string line; std::getline(lines, line);)
        result += (line.size() > 14 && line[8] == '.' ? line.substr(14) : line) + "\n";
    return result;
}

class AScenario : public testing::Test {
protected:
    int Run(const std::string& content) {
        const ScenarioFile file(content);
        place = file.path;
        const std::unique_ptr<Input> input = OpenScenario(file.path);
        return Run(*input);
    }

    int Run(Input& input) {
        CaptureStdout();
        CaptureStderr();
        const auto maker = [this]() -> std::shared_ptr<OrvStackSdk::IOrvStackClient> {
            if (!world.brokerReachable && !created)
                throw std::runtime_error("nobody answers");
            created = true;
            return std::make_shared<FakeClient>(world);
        };
        const int status = Loop(maker, input, tick).Run();
        stamped = GetCapturedStdout();
        transcript = WithoutTimes(stamped);
        errors = GetCapturedStderr();
        return status;
    }

    FakeWorld world;
    bool created = false;
    std::chrono::milliseconds tick{1};
    std::string place, stamped, transcript, errors;
};

} // namespace

TEST_F(AScenario, MakesEveryCallOfTheClient) {
    EXPECT_EQ(Run("init alarm\nstart\nstatus supported\naction heating RELOAD\nevent FAILURE\npanel 'a b' 3\n"
                  "conn-status up\nshutdown\nreconnect?\nhandler off\nstop\ndeinit\nquit\n"),
              0);
    const std::vector<std::string> expected{"SetHandler",
                                            "Init alarm",
                                            "Start",
                                            "AppStatusRequest supported",
                                            "AppActionRequest heating RELOAD",
                                            "EventUpdateRequest FAILURE",
                                            "PanelCommandRequest a b 3",
                                            "SendConnectionStatus up",
                                            "RequestShutdown",
                                            "SetHandler none",
                                            "Stop",
                                            "DeInit",
                                            "~"};
    EXPECT_EQ(world.calls, expected);
}

TEST_F(AScenario, PassesEveryEventOn) {
    for (const std::string& name : ValidWords(Kind::EVENT)) {
        world.calls.clear();
        EXPECT_EQ(Run("event " + name), 0);
        EXPECT_EQ(world.calls[1], "EventUpdateRequest " + name);
    }
}

TEST_F(AScenario, ShowsCommandsAndCallbacksInOrder) {
    EXPECT_EQ(Run("init alarm # hello\naction alarm RELOAD\nwait 1ms\nnote done\n"), 0);
    EXPECT_EQ(transcript, "> init alarm # hello\n< OnInitConfirmation ACK\n> action alarm RELOAD\n"
                          "< OnAppActionIndication RELOAD\n> wait 1ms\ndone\n");
}

TEST_F(AScenario, IsWarnedOfANameThatIsNoGoodInATopic) {
    const auto warning = [this](const std::string& name) {
        EXPECT_EQ(Run("init " + name + "\n"), 0);
        EXPECT_EQ(world.calls.at(1), "Init " + SplitLine(name).at(0)) << "the library decides";
        world.calls.clear();
        const std::size_t begin = transcript.find("warning: ");
        return begin == std::string::npos ? "none" : transcript.substr(begin, transcript.find('\n', begin) - begin);
    };
    const std::string refused = " is no good name for an application: no topic may hold #, + or a NUL, so the "
                                "connection, which has its last will in such a topic, is refused";
    EXPECT_EQ(warning("'#'"), "warning: \"#\"" + refused);
    EXPECT_EQ(warning("a+b"), "warning: a+b" + refused);
    EXPECT_EQ(warning("\"a\\0\""), "warning: \"a\\x00\"" + refused);
    EXPECT_EQ(warning("''"),
              "warning: \"\" is no good name for an application: it has no letter, so its topics have an "
              "empty level (.../features//init), shared by all that do the same");
    EXPECT_EQ(warning("a/b"),
              "warning: a/b is no good name for an application: with its / it takes two levels of a topic; "
              "who expects one (.../features/+/init) does not see it");
    EXPECT_EQ(warning("alarm"), "none");
    EXPECT_EQ(warning("\xc3\xbcr"), "none");
}

TEST_F(AScenario, BlamesANameThatNoTopicMayHold) {
    created = true;
    world.brokerReachable = false;
    EXPECT_EQ(Run("init '#'\n"), 1);
    EXPECT_EQ(errors, place + ":1: NACK: the name is refused\n");
}

TEST_F(AScenario, StampsItsLinesInUtcAsTheLogDoes) {
    setenv("TZ", "XXX-11:11", 1);
    tzset();
    const std::time_t before = std::time(nullptr);
    Run("stop\n");
    const std::time_t after = std::time(nullptr);
    unsetenv("TZ");
    tzset();
    const std::string stamp = stamped.substr(0, 13);
    std::set<std::string> possible;
    for (std::time_t now = before; now <= after; ++now)
        possible.insert(std::to_string(100 + now / 3600 % 24).substr(1) + ":" +
                        std::to_string(100 + now / 60 % 60).substr(1) + ":" + std::to_string(100 + now % 60).substr(1));
    EXPECT_EQ(possible.count(stamp.substr(0, 8)), 1U) << stamp;
    EXPECT_EQ(stamp.back(), 'Z');
}

TEST_F(AScenario, ShowsItsLinesWithoutWhatSteersATerminal) {
    Run("conn-status '\x1b[2J\xc2\x9b'\n");
    EXPECT_EQ(transcript, "> conn-status '\\x1b[2J\\xc2\\x9b'\n");
}

TEST_F(AScenario, SaysGoodByeWhenItEndsConnected) {
    Run("init alarm\nstart\n");
    EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "Init alarm", "Start", "Stop", "DeInit", "~"}));
}

TEST_F(AScenario, SaysNoSecondGoodBye) {
    Run("init alarm\ndeinit\n");
    EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "Init alarm", "DeInit", "~"}));
}

TEST_F(AScenario, SaysNoGoodByeAfterARelease) {
    EXPECT_EQ(Run("init alarm\nrelease\ncreate\n"), 0);
    EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "Init alarm", "~", "SetHandler", "~"}));
}

TEST_F(AScenario, NeedsAClientForItsCalls) {
    EXPECT_EQ(Run("release\nstart\n"), 1);
    EXPECT_EQ(errors, place + ":2: there is no client; create makes one\n");
    EXPECT_EQ(Run("create\n"), 1);
    EXPECT_EQ(errors, place + ":1: there is a client already; release lets it go\n");
}

TEST_F(AScenario, EndsAtACommandThatFailsAndNamesTheLine) {
    EXPECT_EQ(Run("\n# two lines before\nexpect OnAppActionIndication RELOAD within 10ms\nstart\n"), 1);
    EXPECT_EQ(errors, place + ":3: OnAppActionIndication RELOAD has not come within 10ms\n");
    EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "~"}));
}

TEST_F(AScenario, IsFulfilledByACallbackThatCameBefore) {
    EXPECT_EQ(
        Run("init alarm\naction alarm RELOAD\naction alarm ENABLED\nwait 1ms\nexpect OnAppActionIndication ENABLED\n"
            "expect OnAppActionIndication\n"),
        0);
}

TEST_F(AScenario, NeedsOneCallbackForEachExpectation) {
    EXPECT_EQ(
        Run("init alarm\naction alarm RELOAD\nexpect OnAppActionIndication\nexpect OnAppActionIndication within 5ms\n"),
        1);
    EXPECT_EQ(errors, place + ":4: OnAppActionIndication has not come within 5ms\n");
}

TEST_F(AScenario, IsNotFulfilledByOtherArguments) {
    EXPECT_EQ(Run("init alarm\naction alarm RELOAD\nexpect OnAppActionIndication ENABLED within 5ms\n"), 1);
}

TEST_F(AScenario, TicksByItselfWhileItWaits) {
    world.reconnectAfterTicks = 5;
    EXPECT_EQ(Run("expect reconnect within 10s\nreconnect?\n"), 0);
    EXPECT_GE(world.ticks, 5);
    EXPECT_EQ(transcript, "> expect reconnect within 10s\n> reconnect?\nfalse\n");
}

TEST_F(AScenario, AsksForTheReconnectOnce) {
    world.reconnectAfterTicks = 0;
    EXPECT_EQ(Run("reconnect?\nreconnect?\n"), 0);
    EXPECT_EQ(transcript, "> reconnect?\ntrue\n> reconnect?\nfalse\n");
}

TEST_F(AScenario, TicksOnlyWhenToldWhereTheIntervalIsZero) {
    tick = 0ms;
    EXPECT_EQ(Run("wait 20ms\ntick\ntick 3\n"), 0);
    EXPECT_EQ(world.ticks, 4);
}

TEST_F(AScenario, FailsWhenTheBrokerDoesNotConfirm) {
    created = true;
    world.brokerReachable = false;
    EXPECT_EQ(Run("init alarm\nstart\n"), 1);
    EXPECT_EQ(errors,
              place + ":1: NACK: the broker was not reached; is it running, and is its address right in the section "
                      "[broker] of /etc/orv/gateway.ini (ORV_GATEWAY_CONFIG names another file)?\n");
    EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "Init alarm", "~"}));
}

TEST_F(AScenario, DoesNotBeginWithoutABroker) {
    world.brokerReachable = false;
    setenv("ORV_GATEWAY_CONFIG", "/some/gateway.ini", 1);
    EXPECT_EQ(Run("init alarm\n"), 1);
    unsetenv("ORV_GATEWAY_CONFIG");
    EXPECT_EQ(errors, "orv-shell: no client: the broker cannot be reached (nobody answers); is it running, and is its "
                      "address right in the section [broker] of /some/gateway.ini?\n");
    EXPECT_EQ(transcript, "");
}

TEST_F(AScenario, IsInterruptedBySignalsAndSaysGoodBye) {
    BlockEndingSignals();
    for (const int signal : {SIGINT, SIGTERM}) {
        world.calls.clear();
        raise(signal);
        EXPECT_EQ(Run("init alarm\nwait 1h\n"), 1);
        EXPECT_EQ(errors.substr(errors.rfind(' ') + 1), "interrupted\n");
        EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "Init alarm", "Stop", "DeInit", "~"}));
    }
}

TEST_F(AScenario, IsRefusedAsAWholeWithEveryFaultNamed) {
    const ScenarioFile file("start\nstatus redy\nstop\n\"\n");
    std::string message;
    try {
        OpenScenario(file.path);
    } catch (const CommandError& error) {
        message = error.what();
    }
    EXPECT_EQ(message, file.path +
                           ":2: no such application status: redy; valid are: supported, available, booting, ready, "
                           "error, noerror, UNSUPPORTED\n" +
                           file.path + ":4: unfinished text: the closing \" is missing");
}

TEST_F(AScenario, IsRefusedWhenItCannotBeRead) {
    for (const auto& [path, reason] :
         {std::pair<std::string, std::string>{"/nowhere/x.orv", "No such file or directory"},
          {"/tmp", "it is a folder"}}) {
        try {
            OpenScenario(path);
            ADD_FAILURE() << path;
        } catch (const CommandError& error) {
            EXPECT_EQ(error.what(), "cannot read " + path + ": " + reason);
        }
    }
}

TEST_F(AScenario, MayComeThroughAPipeWithoutALastLineEnd) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string text = "init alarm\nstatus redy\nstart";
    ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(ends[1]);
    const std::unique_ptr<Input> input = OpenStream(ends[0]);
    EXPECT_EQ(Run(*input), 1);
    close(ends[0]);
    EXPECT_EQ(errors.substr(0, 45), "stdin:2: no such application status: redy; va");
    EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "Init alarm", "Stop", "DeInit", "~"}));
}

TEST_F(AScenario, IsCarriedOutAtOnceWhenItsLinesCameTogetherAndMoreMayCome) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string text = "init alarm\nexpect OnInitConfirmation ACK within 1h\nstart\nquit\n";
    ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    const std::unique_ptr<Input> input = OpenStream(ends[0]);
    tick = 0ms; // nothing else wakes the loop
    EXPECT_EQ(Run(*input), 0);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(world.calls, (std::vector<std::string>{"SetHandler", "Init alarm", "Start", "Stop", "DeInit", "~"}));
}

TEST_F(AScenario, CannotChangeTheSurroundingsOfARealGateway) {
    for (const char* const line : {"broker lost", "cellular dead", "connman frozen", "ethernet back", "publish /a b",
                                   "expect route wwan0", "expect published /a b", "expect state ready"}) {
        EXPECT_EQ(Run(line), 1);
        EXPECT_EQ(errors, place + ":1: this gateway's surroundings are real and not in the shell's hands; orv-shell "
                                  "--simulate has a gateway where they are\n");
    }
}
