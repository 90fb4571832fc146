// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "CommandError.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace OrvShell;
using namespace std::chrono_literals;

namespace {

std::string ErrorOf(const std::string& line) {
    try {
        Parse(line);
    } catch (const CommandError& error) {
        return error.what();
    }
    return "no error";
}

Words ArgumentsOf(const std::string& line) {
    return Parse(line).value().arguments;
}

} // namespace

TEST(ACommandLine, IsNothingWhenItIsEmptyOrAComment) {
    EXPECT_FALSE(Parse(""));
    EXPECT_FALSE(Parse("   # a remark"));
}

TEST(ACommandLine, TakesWordsInAnyCase) {
    EXPECT_EQ(ArgumentsOf("STATUS Ready"), Words{"ready"});
    EXPECT_EQ(ArgumentsOf("status unsupported"), Words{"UNSUPPORTED"});
    EXPECT_EQ(ArgumentsOf("action alarm reload"), (Words{"alarm", "RELOAD"}));
    EXPECT_EQ(ArgumentsOf("event ethernet_ip_gained"), Words{"ETHERNET_IP_GAINED"});
}

TEST(ACommandLine, KeepsTextAsItIs) {
    EXPECT_EQ(ArgumentsOf("init Alarm"), Words{"Alarm"});
    EXPECT_EQ(ArgumentsOf("panel \"Zone 3, \\\"hall\\\"\" 3"), (Words{"Zone 3, \"hall\"", "3"}));
}

TEST(ANote, NeedsNoQuotes) {
    EXPECT_EQ(ArgumentsOf("note hello  world # not this"), Words{"hello world"});
    EXPECT_EQ(ArgumentsOf("note 'hello  world' again"), Words{"hello  world again"});
    EXPECT_EQ(ErrorOf("note"), "TEXT ... is missing; usage: note TEXT ...");
}

TEST(AnUnknownCommand, IsAnsweredWithTheListOfCommands) {
    EXPECT_EQ(
        ErrorOf("stauts ready"),
        "no such command: stauts; valid are: action, advance, broker, cellular, conn-status, connman, create, deinit, "
        "ethernet, event, expect, handler, help, init, note, panel, publish, quit, reconnect?, release, shutdown, "
        "start, status, stop, tick, wait");
}

TEST(AnUnknownValue, IsAnsweredWithAllValuesOfItsEnumeration) {
    EXPECT_EQ(ErrorOf("status redy"),
              "no such application status: redy; valid are: supported, available, booting, ready, "
              "error, noerror, UNSUPPORTED");
    EXPECT_EQ(ErrorOf("action alarm go"), "no such action: go; valid are: ENABLED, DISABLED, RELOAD, UNSUPPORTED");
    EXPECT_EQ(ErrorOf("event CLOUD"),
              "no such event: CLOUD; valid are: CLOUD_CONNECTED, CLOUD_DISCONNECTED, PANEL_CLOUD_ENABLED, "
              "PANEL_CLOUD_DISABLED, ETHERNET_DISCONNECTED, ETHERNET_CONNECTED, ETHERNET_IP_GAINED, ETHERNET_IP_LOST, "
              "CELLULAR_DISCONNECTED, CELLULAR_CONNECTED, CELLULAR_IP_GAINED, CELLULAR_IP_LOST, FAILURE");
    EXPECT_EQ(ErrorOf("handler maybe"), "no such word: maybe; valid are: on, off");
}

TEST(ANumber, IsCheckedBeforeTheCommandRuns) {
    EXPECT_EQ(ErrorOf("panel text three"), "not a whole number: three");
    EXPECT_EQ(ErrorOf("panel text 99999999999"), "not a whole number: 99999999999");
    EXPECT_EQ(ErrorOf("tick 0"), "not a whole number from 1 on: 0");
    EXPECT_EQ(ArgumentsOf("panel text -1"), (Words{"text", "-1"}));
}

TEST(AnArgument, MustNotBeMissingOrTooMuch) {
    EXPECT_EQ(ErrorOf("panel text"), "NUMBER is missing; usage: panel TEXT NUMBER");
    EXPECT_EQ(ErrorOf("panel two words 3"),
              "too many arguments (text with blanks needs quotes); usage: panel TEXT NUMBER");
    EXPECT_EQ(ErrorOf("stop it"), "too many arguments (text with blanks needs quotes); usage: stop");
    EXPECT_EQ(ErrorOf("tick 1 2"), "too many arguments (text with blanks needs quotes); usage: tick [COUNT]");
}

TEST(AnExpectation, NamesACallbackItsArgumentsAndALimit) {
    const Expectation expectation =
        Parse("expect OnDeviceCellularStatusIndication strength \"-71 dBm\" within 1.5s").value().expectation.value();
    EXPECT_EQ(expectation.name, "OnDeviceCellularStatusIndication");
    EXPECT_EQ(expectation.arguments, (Words{"STRENGTH", "-71 dBm"}));
    EXPECT_EQ(expectation.limit, 1500ms);
}

TEST(AnExpectation, MayLeaveOutArgumentsAndLimit) {
    const Expectation expectation = Parse("expect OnAppActionIndication").value().expectation.value();
    EXPECT_EQ(expectation.arguments, Words{});
    EXPECT_EQ(expectation.limit, 5s);
    EXPECT_EQ(Parse("expect reconnect within 1s").value().expectation.value().name, "reconnect");
}

TEST(AnExpectation, IsRefusedWhenNoCallbackCanFulfilIt) {
    EXPECT_EQ(
        ErrorOf("expect OnReload"),
        "no such callback: OnReload; valid are: OnInitConfirmation, OnAppActionIndication, OnAppStatusIndication, "
        "OnDeviceProbeIndication, OnDeviceOnlineStatusIndication, OnDeviceCellularStatusIndication, "
        "OnFeatureShutdownReadinessIndication, reconnect, published, route, state");
    EXPECT_EQ(ErrorOf("expect OnAppActionIndication RELOAD twice"), "too many arguments: OnAppActionIndication has 1");
    EXPECT_EQ(ErrorOf("expect OnDeviceOnlineStatusIndication up"), "no such word: up; valid are: true, false");
    EXPECT_EQ(ErrorOf("expect"), "CALLBACK is missing; usage: expect CALLBACK [ARGUMENT ...] [within DURATION]");
}

TEST(Help, NamesEveryCommand) {
    const std::string help = "\n" + HelpText();
    for (const std::string& name : CommandNames())
        EXPECT_NE(help.find("\n  " + name), std::string::npos) << name;
}

TEST(Help, OnACommandListsItsValidWords) {
    EXPECT_EQ(HelpText("status"), "  status STATUS\nreports the application's own status\n"
                                  "STATUS: supported, available, booting, ready, error, noerror, UNSUPPORTED\n");
}

TEST(TheCommands, AreInAlphabeticalOrder) {
    const Words names = CommandNames();
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
}

TEST(Completion, OffersWhatMayStandNext) {
    EXPECT_EQ(NextWords({}), CommandNames());
    EXPECT_EQ(NextWords({"action", "alarm"}), (Words{"ENABLED", "DISABLED", "RELOAD", "UNSUPPORTED"}));
    EXPECT_EQ(NextWords({"action"}), Words{});
    EXPECT_EQ(NextWords({"stop"}), Words{});
    EXPECT_EQ(NextWords({"nonsense"}), Words{});
    EXPECT_EQ(NextWords({"expect", "OnDeviceOnlineStatusIndication"}), (Words{"true", "false", "within"}));
    EXPECT_EQ(NextWords({"expect"}).size(), 11u);
}
