// SPDX-License-Identifier: Apache-2.0
// What is said of a text of settings that is wrong, and what is not said.
#include "config/GatewayConfig.h"

#include <gtest/gtest.h>

using namespace OrvPlatform;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

namespace {

ParsedConfig Parse(const std::string& text) {
    return ParseGatewayConfig(text, "x.ini");
}

Lines ProblemsOf(const std::string& text) {
    return Parse(text).problems;
}

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

TEST(ASecret, IsNeverShown) {
    const ParsedConfig parsed = Parse("[broker]\npassword = s3cret\npassword = s3cret" + std::string(128, 'x'));
    ASSERT_EQ(parsed.problems.size(), 2U);
    EXPECT_EQ(parsed.problems[1], "x.ini:3: [broker] password = (not shown) is not valid, the value before stays in "
                                  "force. Valid: up to 128 bytes without control characters, or nothing");
    const std::string shown = ShowGatewayConfig(parsed.config);
    EXPECT_EQ(shown.find("s3cret"), std::string::npos);
    EXPECT_NE(shown.find("password = (not shown)\n"), std::string::npos);
}

// However the line with it, or the line before it, is spoilt.
TEST(APassword, ThatWentAstrayIsInNoReport) {
    const std::string secret = "s3cret";
    const std::string nul(1, '\0');
    const std::string longEnd(200, 'x');
    for (const std::string& line : {
             "password " + secret,
             "password -> " + secret + "=",
             "password " + secret + "==",
             secret + "==",
             secret,
             secret + " = 1",
             "pass" + secret + " = 1",
             "password = " + secret + longEnd,
             "password = " + secret + nul,
             "password = " + secret + "\x01",
             "pasword = " + secret,
             "PASSWORD = " + secret,
             "host = " + secret,
             "host = me:" + secret + "@10.0.0.1",
             "port = 1883 password = " + secret,
             "username = " + secret + "\x01",
             "client_id_suffix = " + secret + "!",
             "keep_alive = " + secret,
             "max_outstanding_bytes = " + secret,
             "endpoint = me:" + secret + "@cloud",
             "ethernet = eth0 password = " + secret,
             "sink = stderr password " + secret,
             "[" + secret,
             "[" + secret + "]",
             "[password = " + secret,
         }) {
        for (const std::string before : {"", "[broker]\n", "[cloud]\n", "[interfaces]\n", "[log]\n", "[nowhere]\n"}) {
            const ParsedConfig parsed = Parse(before + line + "\n");
            EXPECT_FALSE(parsed.problems.empty()) << before << line;
            for (const std::string& problem : parsed.problems)
                EXPECT_EQ(problem.find(secret), std::string::npos) << problem;
        }
    }
}

TEST(AFileOfNonsense, IsReportedInFewLines) {
    std::string text = "[broker]\n";
    for (int line = 0; line < 60; ++line)
        text += "nonsense\n";
    const Lines problems = ProblemsOf(text + "[log]\nsink = file\n");
    ASSERT_EQ(problems.size(), 52U);
    EXPECT_EQ(problems[49], "x.ini:51: the line is neither a section, a comment nor key = value, ignored");
    EXPECT_EQ(problems[50], "x.ini: 10 more faults are not listed");
    EXPECT_TRUE(BeginsWith(problems[51], "x.ini: [log] sink = file needs a file")) << problems[51];
}

struct Fault {
    const char* name;
    std::string text;
    Lines problems;
};

class AFault : public testing::TestWithParam<Fault> {};

TEST_P(AFault, IsReportedWithItsLine) {
    EXPECT_EQ(ProblemsOf(GetParam().text), GetParam().problems);
}

constexpr const char* brokerKeys =
    " Valid: host, port, socket, username, password, client_id_suffix, keep_alive, max_outstanding_bytes";

INSTANTIATE_TEST_SUITE_P(
    Of, AFault,
    testing::Values(
        Fault{"MisspeltKey",
              "[broker]\nprot = 1\n",
              {std::string("x.ini:2: [broker] has no such key, ignored; did you mean \"port\"?") + brokerKeys}},
        Fault{"UpperCaseKey",
              "[broker]\nPORT = 1\n",
              {std::string("x.ini:2: [broker] has no such key, ignored; did you mean \"port\"?") + brokerKeys}},
        Fault{"StrangeKey",
              "[broker]\ncolour = 1\n",
              {std::string("x.ini:2: [broker] has no such key, ignored.") + brokerKeys}},
        Fault{"StrangeKeyOfTheConnectionManager",
              "[connman]\nscripted = true\n",
              {"x.ini:2: [connman] has no such key, ignored. Valid: bus_address"}},
        Fault{"KeyOfAnotherSection",
              "[broker]\nendpoint = x\n",
              {std::string("x.ini:2: [broker] has no such key, ignored; endpoint belongs in [cloud].") + brokerKeys}},
        Fault{"MisspeltSection",
              "[brokr]\nport = 1\nnonsense = 1\n[broker]\nport = 2\n",
              {"x.ini:1: there is no such section, what it holds is ignored; did you mean \"broker\"? Valid: broker, "
               "interfaces, cloud, connman, gateway, log"}},
        Fault{
            "StrangeSection",
            "[colours]\nport = 1\n",
            {"x.ini:1: there is no such section, what it holds is ignored. Valid: broker, interfaces, cloud, connman, "
             "gateway, log"}},
        Fault{"OpenSection",
              "[broker\nport = 1\n",
              {"x.ini:1: a section without its closing bracket; what follows is ignored up to the next section"}},
        Fault{"NoSection",
              "port = 1\n[broker]\n",
              {"x.ini:1: a setting before the first section, ignored. Valid sections: broker, interfaces, cloud, "
               "connman, gateway, log"}},
        Fault{"NoValue",
              "[broker]\nport\nport = 1\n",
              {"x.ini:2: the line is neither a section, a comment nor key = value, ignored"}},
        Fault{"LastLineWithoutValue",
              "[broker]\nport",
              {"x.ini:2: the line is neither a section, a comment nor key = value, ignored"}},
        Fault{"GivenTwice",
              "[broker]\nport = 1\n\nport = 2\n",
              {"x.ini:4: [broker] port was set in line 2 already; the later value counts"}},
        Fault{"NulByte",
              std::string("[broker]\nport = 1\0\n", 19),
              {"x.ini:2: the line holds NUL bytes and is ignored; the file must be plain text"}},
        Fault{"FileWithoutPath",
              "[log]\nsink = file\n",
              {"x.ini: [log] sink = file needs a file; stderr stays in force. Set file = /path/of/the/log in [log]"}},
        Fault{
            "OneInterface",
            "[interfaces]\ncellular = eth0\n",
            {"x.ini: [interfaces] ethernet and cellular are both eth0; without two there is nothing to fail over to"}},
        Fault{
            "TerminalEscape",
            "[log]\nsink = \x1b[2J\n",
            {"x.ini:2: [log] sink = \"\\x1b[2J\" is not valid, stderr stays in force. Valid: stderr, syslog or file"}}),
    [](const auto& instance) { return instance.param.name; });

TEST(AFaultyConfiguration, KeepsWhatIsRightInIt) {
    const ParsedConfig parsed = Parse("[broker]\nport = 1\nport = 2\nhost = ?\nkeep_alive = 9\n");
    EXPECT_EQ(parsed.problems.size(), 2U);
    EXPECT_EQ(parsed.config.broker.port, 2);
    EXPECT_EQ(parsed.config.broker.keepAlive, 9s);
}

TEST(ALongLine, IsReportedNotSplit) {
    for (const std::size_t length : {std::size_t{1025}, std::size_t{1024 * 1024}}) {
        const std::string line = "host = " + std::string(length - 7, '1');
        const ParsedConfig parsed = Parse("[broker]\n" + line + "\nport = 7\n");
        ASSERT_EQ(parsed.problems.size(), 1U);
        EXPECT_EQ(parsed.problems[0],
                  "x.ini:2: the line has " + std::to_string(length) + " bytes and is ignored; at most 1024 are valid");
        EXPECT_EQ(parsed.config.broker.port, 7);
    }
}

TEST(ALongLine, IsReadUpToTheMostBytes) {
    const std::string endpoint = "a/" + std::string(1024 - 11, 'b');
    EXPECT_EQ(Parse("[cloud]\nendpoint=" + endpoint + "\n").config.cloud.endpoint, endpoint);
    EXPECT_EQ(ProblemsOf("#" + std::string(1024 * 1024, 'x') + "\n"), Lines{});
}

} // namespace
