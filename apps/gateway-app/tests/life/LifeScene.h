// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Application.h"
#include "Surroundings.h"

#include <csignal>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace GatewayApp {

using namespace std::chrono_literals;
using OrvStackSdk::Testing::Difference;
using OrvStackSdk::Testing::Gateway;
using OrvStackSdk::Testing::GatewayOptions;
using Payloads = std::vector<std::string>;

inline const std::string FEATURE = "/orv/apps_control/features/gateway-app";
inline const std::string CLOUD = "/orv/apps_control/features/Ent/status/EntCon";
inline const std::string YELLOW = "/orv/led/connected_services_yellow";
inline const std::string GREEN = "/orv/led/connected_services_green";

class TheLifeOfTheApplication : public ::testing::Test {
protected:
    explicit TheLifeOfTheApplication(const GatewayOptions& options = {}) : gateway(options) {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
            sigaddset(&signals, signal);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    void At(std::chrono::milliseconds time, std::function<void()> action) { gateway.After(time, std::move(action)); }

    /// Runs it until that time, when it gets SIGTERM; everything that At was told happens meanwhile.
    void RunUntil(std::chrono::milliseconds end) {
        At(end, [] { raise(SIGTERM); });
        arguments.insert(arguments.end(), {"--lock", "", "--status-file", statusFile});
        Application application(ReadOptions(arguments), arguments);
        application.Run();
    }

    /// What the status file holds at that time, until Run comes back.
    void InTheStatusFileAt(std::chrono::milliseconds time, const std::string& wanted) {
        statusFile = ::testing::TempDir() + "status-of-" + std::to_string(getpid()) + ".json";
        At(time, [&, wanted] {
            std::stringstream text;
            text << std::ifstream(statusFile).rdbuf();
            EXPECT_NE(text.str().find(wanted), std::string::npos) << "no " << wanted << " in " << text.str();
        });
    }

    ~TheLifeOfTheApplication() override {
        if (!statusFile.empty())
            std::remove(statusFile.c_str());
    }

    Gateway gateway;
    std::string statusFile; // none
    Surroundings around{gateway};
    std::vector<std::string> arguments{"--cloud-host", "cloud.example", "--tick-ms", "200"};
};

class TheLifeOfTheApplicationWithAnOptionsFile : public TheLifeOfTheApplication {
protected:
    TheLifeOfTheApplicationWithAnOptionsFile() {
        Write("cloud-host=cloud.example\n");
        arguments = {"--config", path, "--tick-ms", "200"};
    }
    ~TheLifeOfTheApplicationWithAnOptionsFile() override { std::remove(path.c_str()); }

    void Write(const std::string& text) const { std::ofstream(path, std::ios::trunc) << text; }

    void IsReloadedWith(const std::string& text) {
        At(1s, [&, text] {
            around.cloudAnswers("192.0.2.2");
            Write(text);
            gateway.journal.Clear();
            gateway.broker.Clear();
            raise(SIGHUP);
        });
    }

    const std::string path = ::testing::TempDir() + "life-of-" + std::to_string(getpid()) + ".ini";
};

class TheLogOfTheApplication : public TheLifeOfTheApplication {
protected:
    TheLogOfTheApplication() : TheLifeOfTheApplication(WithRecords()) {
        At(1s, [&] { around.cloudAnswers("192.0.2.2"); });
    }
    static GatewayOptions WithRecords() {
        GatewayOptions options;
        options.logRecords = OrvStackSdk::Testing::LogRecords::FROM_INFO;
        return options;
    }
    /// Every line of it that holds the text.
    Payloads Lines(const std::string& text) const {
        Payloads found;
        std::istringstream all(gateway.journal.Text({"log"}));
        for (std::string line; std::getline(all, line);) {
            if (line.find(text) != std::string::npos)
                found.push_back(line);
        }
        return found;
    }
    std::size_t Moves() const { return Lines("the WAN route has moved").size(); }
};

} // namespace GatewayApp
