// SPDX-License-Identifier: Apache-2.0
// What the log of a process begins with: a report of its settings.
#include "log/ProcessLog.h"

#include "CommonUtils/Logger.h"
#include "support/ChildProcess.h"

#include <cstdio>
#include <gtest/gtest.h>

namespace {

using CommonUtils::Logger;
using OrvPlatform::Testing::Ended;
using OrvPlatform::Testing::RunInChild;
using OrvPlatform::Testing::TemporaryFolder;
using Lines = std::vector<std::string>;

class TheReportOfTheSettings : public testing::Test {
protected:
    /// What a process says on standard error, where its log goes too.
    Lines At(const std::string& level, const std::string& more = {}) const {
        folder.Write("gateway.ini", "[log]\nlevel = " + level + "\n" + more);
        return RunInChild({{"ORV_GATEWAY_CONFIG", path}}, [] { OrvPlatform::ProcessLog(); }).Lines();
    }

    const TemporaryFolder folder;
    const std::string path = folder.Path("gateway.ini");
};

TEST_F(TheReportOfTheSettings, IsPartOfALogThatShowsErrors) {
    const std::string problem = path +
                                ":3: [log] has no such key, ignored; did you mean \"file\"? Valid: sink, level, file, "
                                "file_max_bytes, file_count";
    EXPECT_EQ(At("error", "files = x\n"), Lines{"error [GatewayConfig] " + problem});
    EXPECT_EQ(At("critical", "files = x\n"), Lines{problem});
}

TEST_F(TheReportOfTheSettings, NamesTheirFileInALogThatShowsDebugRecords) {
    EXPECT_EQ(At("debug"), Lines{"debug [GatewayConfig] Settings read from " + path});
    EXPECT_EQ(At("info"), Lines{});
}

TEST_F(TheReportOfTheSettings, GoesByTheLevelOfItsOwnLogger) {
    EXPECT_EQ(At("off,GatewayConfig=debug"), Lines{"debug [GatewayConfig] Settings read from " + path});
    EXPECT_EQ(At("trace,GatewayConfig=info"), Lines{});
}

TEST(AStreamStyleRecord, IsNotWaitedForUntilTheStorageHasIt) {
    const TemporaryFolder folder;
    const std::string config = folder.Write("gateway.ini", "[log]\nsink = file\nfile = " + folder.Path("log") + "\n");
    const Ended ended = RunInChild({{"ORV_GATEWAY_CONFIG", config}}, [] {
        OrvPlatform::Testing::filesBroughtToStorage = 0;
        Logger("L", 0).Error() << "text";
        std::fprintf(stderr, "%d\n", OrvPlatform::Testing::filesBroughtToStorage.load());
    });
    EXPECT_EQ(ended.Lines(), Lines{"0"});
    EXPECT_NE(OrvPlatform::Testing::Content(folder.Path("log")).find("error [L] text"), std::string::npos);
}

} // namespace
