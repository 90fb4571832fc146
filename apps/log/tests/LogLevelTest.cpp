// SPDX-License-Identifier: Apache-2.0
#include "log/LogLevel.h"

#include "FakeGateway.h"
#include "Journal.h"

#include <CommonUtils/Logger.h>
#include <gtest/gtest.h>

namespace OrvLog {
namespace {

using OrvPlatformFake::Entries;
namespace Entry = OrvPlatformFake::Entry;

/// What a logger of the level lets through of one record a call.
Entries Logged(int level) {
    OrvPlatformFake::FakeGateway::Reset();
    CommonUtils::Logger logger("L", level);
    logger.Trace("tag");
    logger.Debug("tag") << "text";
    logger.Info() << "text";
    logger.Warning() << "text";
    logger.Error() << "text";
    return OrvPlatformFake::Journal::Take();
}

TEST(ALogLevel, IsTheLeastSevereThatALoggerEmits) {
    const std::string trace = Entry::Trace("L", "tag");
    const std::string debug = Entry::Debug("L", "tag", "text");
    const std::string info = Entry::Info("L", "text");
    const std::string warning = Entry::Warning("L", "text");
    const std::string error = Entry::Error("L", "text");
    EXPECT_EQ(Logged(TRACE), (Entries{trace, debug, info, warning, error}));
    EXPECT_EQ(Logged(DEBUG), (Entries{debug, info, warning, error}));
    EXPECT_EQ(Logged(INFO), (Entries{info, warning, error}));
    EXPECT_EQ(Logged(WARNING), (Entries{warning, error}));
    EXPECT_EQ(Logged(ERROR), Entries{error});
    EXPECT_EQ(Logged(CRITICAL), Entries{});
}

} // namespace
} // namespace OrvLog
