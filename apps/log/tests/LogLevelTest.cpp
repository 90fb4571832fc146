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
Entries LetThrough(int level) {
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
    EXPECT_EQ(LetThrough(TRACE), (Entries{trace, debug, info, warning, error}));
    EXPECT_EQ(LetThrough(DEBUG), (Entries{debug, info, warning, error}));
    EXPECT_EQ(LetThrough(INFO), (Entries{info, warning, error}));
    EXPECT_EQ(LetThrough(WARNING), (Entries{warning, error}));
    EXPECT_EQ(LetThrough(ERROR), Entries{error});
    EXPECT_EQ(LetThrough(CRITICAL), Entries{});
}

} // namespace
} // namespace OrvLog
