// SPDX-License-Identifier: Apache-2.0
// Small programs that once met a fault of the log or of its settings, each under many schedules.
#include "log/LogOutputs.h"
#include "log/SystemCalls.h"
#include "sim/Simulation.h"

#include "OrvPlatform/Settings.h"
#include "log/LogLevelsInForce.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

using OrvPlatform::LogLevel;

class SettingsOfALog : public testing::Test {
protected:
    SettingsOfALog() {
        char name[] = "/tmp/orv-lab-settings-XXXXXX";
        folder = mkdtemp(name);
        setenv("ORV_GATEWAY_CONFIG", (folder / "gateway.ini").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    }
    ~SettingsOfALog() override { std::filesystem::remove_all(folder); }

    void Put(const std::string& settings) const {
        const std::string fresh = folder / "fresh";
        std::ofstream(fresh) << "[log]\nsink = file\nfile = /dev/null\n" << settings << "\n";
        std::rename(fresh.c_str(), (folder / "gateway.ini").c_str());
    }

    std::filesystem::path folder;
};

} // namespace

TEST_F(SettingsOfALog, AreReadOrRefusedThoughTheyAreMendedMeanwhile) {
    int read = 0;
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        Simulation simulation(seed, false);
        simulation.SetEndListener(EndThreadsValues);
        simulation.Run([&] {
            Put("level = error");
            ASSERT_TRUE(OrvPlatform::ReloadLogLevels());
            Put("level = nonsense");
            Simulation::Thread& other = simulation.Start("editor", [&] { Put("level = debug"); });
            const bool done = OrvPlatform::ReloadLogLevels();
            read += done ? 1 : 0;
            EXPECT_EQ(OrvPlatform::LogLevelsInForce().Of("Source"), done ? LogLevel::DEBUG : LogLevel::ERROR)
                << "seed " << seed;
            simulation.Join(other);
            EndThreadsValues();
        });
    }
    EXPECT_GT(read, 0);
    EXPECT_LT(read, 300);
}

} // namespace OrvLab
