// SPDX-License-Identifier: Apache-2.0
#include "Simulation.h"

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include <unistd.h>

using namespace OrvShell;
using namespace std::chrono_literals;

namespace {

class ASimulatedScenario : public testing::Test {
protected:
    ~ASimulatedScenario() override { std::remove(path.c_str()); }

    int Run(const std::string& content) {
        std::ofstream(path) << content;
        const std::unique_ptr<Input> input = OpenScenario(path);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = Simulation(*input, 100ms).Run();
        output = testing::internal::GetCapturedStdout();
        errors = testing::internal::GetCapturedStderr();
        return status;
    }

    /// The lines that have one of the words in them.
    std::string Lines(const std::vector<std::string>& words) const {
        std::string found;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            for (const std::string& word : words) {
                if (line.find(word) != std::string::npos) {
                    found += line + "\n";
                    break;
                }
            }
        }
        return found;
    }

    const std::string path = testing::TempDir() + "orv-simulated-" + std::to_string(getpid()) + ".orv";
    std::string output, errors;
};

const char* const CONNECTED = "init alarm\n"
                              "event ETHERNET_CONNECTED\nevent ETHERNET_IP_GAINED\n"
                              "event CELLULAR_CONNECTED\nevent CELLULAR_IP_GAINED\n"
                              "event CLOUD_CONNECTED\n"
                              "advance 1s\n";

} // namespace

TEST_F(ASimulatedScenario, MovesTheRouteAndBackInVirtualTime) {
    EXPECT_EQ(Run(std::string(CONNECTED) + "ethernet dead\n"
                                           "event CLOUD_DISCONNECTED\n"
                                           "expect reconnect within 15s\n"
                                           "event CLOUD_CONNECTED\n"
                                           "ethernet back\n"
                                           "expect reconnect within 60s\n"),
              0)
        << errors;
    EXPECT_EQ(Lines({"poke", "inhibit_dns", "reconnecting"}),
              "00:00:11.100Z * publish retained /orv/network/wan/inhibit_dns inhibit\n"
              "00:00:11.200Z * poke wwan0 reached the cloud\n"
              "00:00:11.200Z * log debug OrvRoute <Tick> \"poke success, route to Cell\"\n"
              "00:00:11.300Z * log debug OrvRoute <Tick> \"route is Cell, reconnecting\"\n"
              "00:00:11.500Z * publish retained /orv/network/wan/inhibit_dns permit\n"
              "00:00:11.500Z * poke eth0 reached the cloud\n"
              "00:00:11.500Z * log debug OrvRoute <Tick> \"poke success, route to ETH\"\n"
              "00:00:11.600Z * log debug OrvRoute <Tick> \"route is eth, reconnecting\"\n");
}

TEST_F(ASimulatedScenario, KnowsPathsThatRefuseAndAConnectionManagerThatMovesNothing) {
    EXPECT_EQ(Run(std::string(CONNECTED) + "cellular refused\n"
                                           "event CLOUD_DISCONNECTED\n"
                                           "advance 12s\n"
                                           "connman frozen\n"
                                           "cellular back\n"
                                           "advance 1s\n"),
              0);
    EXPECT_NE(Lines({"poke error 7"}), "");
    EXPECT_NE(Lines({"poke success, route to Cell"}), "");
    EXPECT_EQ(Lines({"route is Cell"}), "");
}

TEST_F(ASimulatedScenario, LosesItsBrokerAndTellsTheNextOneEverything) {
    EXPECT_EQ(Run(std::string(CONNECTED) + "start\n"
                                           "broker lost\n"
                                           "event CLOUD_DISCONNECTED\n"
                                           "note meanwhile\n"
                                           "broker back\n"
                                           "advance 1s\n"),
              0);
    const std::string after = output.substr(output.find("meanwhile"));
    EXPECT_NE(after.find("* publish retained /orv/led/connected_services_green Off\n"), std::string::npos) << after;
    EXPECT_NE(after.find("* publish /orv/apps_control/features/alarm/available true\n"), std::string::npos) << after;
}

TEST_F(ASimulatedScenario, HearsWhatANeighbourPublishesAndHasKept) {
    EXPECT_EQ(Run("publish /orv/modem/imei 35 retained\n"
                  "publish /orv/modem/sim/iccid 89\n"
                  "init alarm\n"
                  "expect OnDeviceCellularStatusIndication IMEI 35 within 0s\n"),
              0)
        << errors;
    EXPECT_EQ(Lines({" < "}), "00:00:00.000Z < OnInitConfirmation ACK\n"
                              "00:00:00.000Z < OnDeviceCellularStatusIndication IMEI 35\n");
}

TEST_F(ASimulatedScenario, EndsAtACommandThatFails) {
    EXPECT_EQ(Run("init alarm\n"
                  "expect OnAppActionIndication within 1h\n"
                  "note never\n"),
              1);
    EXPECT_EQ(errors, path + ":2: OnAppActionIndication has not come within 1h\n");
    EXPECT_EQ(Lines({"never"}), "");
    EXPECT_NE(Lines({"01:00:00.000Z * disconnect ORV_Stack"}), "");
}

TEST_F(ASimulatedScenario, StopsRightAfterWhatItExpects) {
    EXPECT_EQ(Run(std::string(CONNECTED) + "event CLOUD_DISCONNECTED\n"
                                           "expect published /orv/network/wan/inhibit_dns inhibit within 15s\n"
                                           "note the attempt has begun\n"
                                           "expect route wwan0\n"
                                           "note the order is given\n"
                                           "expect state \"route is Cell, reconnecting\"\n"
                                           "note the move is seen\n"),
              0)
        << errors;
    const std::vector<std::string> order{"inhibit_dns inhibit\n",           "\nthe attempt has begun\n",
                                         "poke success, route to Cell",     "\nthe order is given\n",
                                         "route is Cell, reconnecting\"\n", "\nthe move is seen\n"};
    std::size_t place = 0;
    for (const std::string& text : order) {
        place = output.find(text, place);
        ASSERT_NE(place, std::string::npos) << text << "\n" << output;
    }
}

TEST_F(ASimulatedScenario, CountsOnceWhatCameBeforeItWasExpected) {
    const std::string once =
        "init alarm\nevent ETHERNET_CONNECTED\nexpect published /orv/led/connected_services_yellow On\n";
    EXPECT_EQ(Run(once), 0) << errors;
    EXPECT_EQ(Run(once + "expect published /orv/led/connected_services_yellow within 1s\n"), 1);
    EXPECT_EQ(errors, path + ":4: published /orv/led/connected_services_yellow has not come within 1s\n");
}

TEST_F(ASimulatedScenario, KnowsTheErrorsOfTheRouteSupervisionAsItsStates) {
    EXPECT_EQ(Run(std::string(CONNECTED) + "cellular refused\n"
                                           "event CLOUD_DISCONNECTED\n"
                                           "expect state \"poke error 7\" within 15s\n"),
              0)
        << errors;
}
