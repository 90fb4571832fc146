// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProcess.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace OrvPlatform::Testing {

/// The log of a process is made once, with what the environment says at that time: each test has a child process.
class ALogger : public testing::Test {
protected:
    /// What `body` logs, with a configuration that wants everything.
    static std::vector<std::string> Logged(const std::function<void()>& body) { return LoggedAt("trace", body); }

    static std::vector<std::string> LoggedAt(const std::string& levels, const std::function<void()>& body) {
        const TemporaryFolder folder;
        const std::string config = folder.Write("gateway.ini", "[log]\nlevel = warning\n");
        const Ended ended = RunInChild({{"ORV_GATEWAY_CONFIG", config}, {"ORV_LOG_LEVEL", levels}}, body);
        EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal << "\n" << ended.standardError;
        std::vector<std::string> lines = ended.Lines();
        if (!lines.empty() && lines[0] == "debug [GatewayConfig] Settings read from " + config)
            lines.erase(lines.begin());
        return lines;
    }
};

} // namespace OrvPlatform::Testing
