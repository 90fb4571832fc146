// SPDX-License-Identifier: Apache-2.0
// Between any two calls with which a status file is opened and written somebody puts something into its place, or takes
// it away. SimulatedFiles watches whose file is written.
#include "StatusFile.h"
#include "client/SimulatedFiles.h"
#include "sim/Simulation.h"

#include <gtest/gtest.h>

namespace OrvLab {

constexpr int SEEDS = 10'000;

TEST(AStatusFile, NeverLeadsToSomebodyElsesFileThoughLinksInItsPlaceComeAndGo) {
    int written = 0;
    for (int seed = 0; seed < SEEDS; ++seed) {
        Simulation simulation(static_cast<std::uint64_t>(seed), false);
        SimulatedFiles files(static_cast<std::uint64_t>(seed));
        files.isRestless = true;
        simulation.Run([&] {
            for (int event = 0; event < 20; ++event) {
                OrvStackSdk::StatusFile(SimulatedFiles::STATUS).Write("text", 4);
                written += files.Content(SimulatedFiles::STATUS) == "text" ? 1 : 0;
            }
        });
    }
    EXPECT_GT(written, SEEDS);
}

} // namespace OrvLab
