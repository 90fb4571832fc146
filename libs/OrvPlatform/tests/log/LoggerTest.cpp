// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/Logger.h"

#include "log/LogChannel.h"
#include "quillogger/LogWrapper.h"
#include "support/CountedNew.h"
#include "support/LoggerFixture.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <iomanip>
#include <locale>

namespace {

using CommonUtils::Logger;
using CommonUtils::LogObject;
using OrvPlatform::Testing::ALogger;
using OrvPlatform::Testing::Ended;
using OrvPlatform::Testing::RunInChild;
using OrvPlatform::Testing::TemporaryFolder;
using OrvTest::Allocations;
using quillogger::LogWrapper;
using Lines = std::vector<std::string>;

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST_F(ALogger, WritesLevelNameTagAndText) {
    EXPECT_EQ(Logged([] {
                  Logger log("OrvRoute", 0);
                  log.Trace("Tick") << "t";
                  log.Debug("Init") << "(a=" << 1 << ")";
                  log.Info() << "i";
                  log.Warning("~Route");
                  log.Error() << "e";
              }),
              (Lines{"trace [OrvRoute] Tick: t", "debug [OrvRoute] Init(a=1)", "info [OrvRoute] i",
                     "warning [OrvRoute] ~Route", "error [OrvRoute] e"}));
}

TEST_F(ALogger, WritesARecordThatIsEmptyButForItsName) {
    EXPECT_EQ(Logged([] { Logger("OrvRoute", 0).Info(); }), Lines{"info [OrvRoute] "});
}

TEST_F(ALogger, WritesNothingBelowItsOwnLevel) {
    EXPECT_EQ(Logged([] {
                  Logger log("OrvRoute", 4);
                  log.Trace() << "t";
                  log.Debug() << "d";
                  log.Info() << "i";
                  log.Warning() << "w";
                  log.Error() << "e";
              }),
              Lines{"error [OrvRoute] e"});
}

TEST_F(ALogger, WritesNothingBelowTheConfiguredLevel) {
    const auto body = [] {
        Logger log("OrvRoute", 0);
        log.Info() << "i";
        log.Warning() << "w";
    };
    EXPECT_EQ(LoggedAt("", body), Lines{"warning [OrvRoute] w"});
    EXPECT_EQ(LoggedAt("info", body), (Lines{"info [OrvRoute] i", "warning [OrvRoute] w"}));
    EXPECT_EQ(LoggedAt("off", body), Lines{});
}

TEST_F(ALogger, MayHaveALevelOfItsOwnInTheEnvironment) {
    EXPECT_EQ(LoggedAt("error,OrvRoute=debug",
                       [] {
                           Logger("OrvRoute", 0).Debug() << "wanted";
                           Logger("Other", 0).Warning() << "not wanted";
                           LogWrapper::Log(1, false, "src/OrvRoute.cpp", 7, "f()", "wanted too");
                       }),
              (Lines{"debug [OrvRoute] wanted", "debug [OrvRoute:7] f(): wanted too"}));
}

TEST_F(ALogger, ReportsALevelThatIsNoneOnceAndGoesOnWithTheRest) {
    const Lines lines = LoggedAt("loud,OrvRoute=debug", [] {
        Logger("OrvRoute", 0).Debug() << "wanted";
        Logger("Other", 0).Error() << "wanted";
    });
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].rfind("error [GatewayConfig] ORV_LOG_LEVEL: \"loud\" is no level, ignored; valid: trace, ", 0),
              0U);
    EXPECT_EQ(lines[1], "debug [OrvRoute] wanted");
}

TEST_F(ALogger, FormatsAsAStreamWithDefaultFlagsDoes) {
    EXPECT_EQ(Logged([] {
                  Logger log("L", 0);
                  log.Info() << true << false << ' ' << 255 << ' ' << 1.5 << ' ' << 1234567.0 << ' ' << -3L << ' '
                             << static_cast<const char*>("text") << std::string("\t");
              }),
              Lines{R"(info [L] 10 255 1.5 1.23457e+06 -3 text\x09)"});
}

TEST_F(ALogger, HandsNoFormatOnToTheNextRecord) {
    EXPECT_EQ(Logged([] {
                  Logger log("L", 0);
                  log.Info() << std::hex << std::showbase << std::setprecision(2) << std::setfill('*') << std::boolalpha
                             << 255 << ' ' << true << std::setw(9);
                  log.Info() << 255 << ' ' << true << ' ' << 1.2345 << std::setw(3) << 7;
              }),
              (Lines{"info [L] 0xff true", "info [L] 255 1 1.2345  7"}));
}

struct Fussy {};
std::ostream& operator<<(std::ostream& stream, Fussy) {
    stream.setstate(std::ios_base::failbit);
    return stream;
}

TEST_F(ALogger, HandsNoFailureOnToTheNextRecord) {
    EXPECT_EQ(Logged([] {
                  Logger log("L", 0);
                  log.Info() << "a" << Fussy() << "b";
                  log.Info() << "c";
              }),
              (Lines{"info [L] a", "info [L] c"}));
}

struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
    char do_thousands_sep() const override { return '\''; }
};

TEST_F(ALogger, DoesNotCareForTheProgramsLocale) {
    EXPECT_EQ(Logged([] {
                  std::locale::global(std::locale(std::locale::classic(), new Grouping));
                  Logger("L", 0).Info() << 1234567;
              }),
              Lines{"info [L] 1234567"});
}

TEST_F(ALogger, EscapesItsNameItsTagAndItsText) {
    EXPECT_EQ(Logged([] { Logger("a\nb", 0).Info("c\nd") << "e\nf"; }), Lines{R"(info [a\x0ab] c\x0ad: e\x0af)"});
}

TEST_F(ALogger, CutsAnEndlessRecord) {
    const Lines lines = Logged([] {
        Logger log("L", 0);
        log.Info("Tag") << std::string(1000000, 'x') << std::string(48573, 'y');
        log.Info() << "next";
    });
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(EndsWith(lines[0], "xxx [cut, 1048576 bytes in all]")) << lines[0];
    EXPECT_LT(lines[0].size(), OrvPlatform::MAX_RECORD_BYTES + 64);
    EXPECT_EQ(lines[1], "info [L] next");
}

TEST_F(ALogger, KeepsRecordsApartThatAreOpenAtOnce) {
    EXPECT_EQ(Logged([] {
                  Logger log("L", 0);
                  LogObject first = log.Info();
                  first << "first";
                  {
                      LogObject second = log.Info();
                      second << "second";
                      LogObject third = log.Info();
                      third << "third";
                      first << " goes on";
                  }
                  log.Info() << "fourth";
              }),
              (Lines{"info [L] third", "info [L] second", "info [L] fourth", "info [L] first goes on"}));
}

TEST_F(ALogger, EmitsAMovedRecordOnce) {
    EXPECT_EQ(Logged([] {
                  Logger log("L", 0);
                  LogObject first = log.Info();
                  first << "first";
                  LogObject second = std::move(first);
                  LogObject third = log.Info();
                  third << "replaced";
                  third = std::move(second);
                  third << " and last";
              }),
              (Lines{"info [L] replaced", "info [L] first and last"}));
}

TEST_F(ALogger, CanBeMoved) {
    EXPECT_EQ(Logged([] {
                  Logger one("One", 0);
                  Logger two("Two", 0);
                  two = std::move(one);
                  Logger three(std::move(two));
                  three.Info() << "text";
              }),
              Lines{"info [One] text"});
}

TEST_F(ALogger, NeedNotOutliveItsRecords) {
    EXPECT_EQ(Logged([] {
                  LogObject record = Logger("off", 5).Error();
                  record << "off";
                  record = Logger("gone before the record is", 0).Info();
                  record << "text";
              }),
              Lines{"info [gone before the record is] text"});
}

struct Counted {
    int& formatted;
};
std::ostream& operator<<(std::ostream& stream, const Counted& counted) {
    ++counted.formatted;
    return stream;
}

TEST_F(ALogger, NeitherFormatsNorAllocatesForARecordThatIsOff) {
    EXPECT_EQ(LoggedAt("info",
                       [] {
                           Logger log("L", 0);
                           int formatted = 0;
                           const std::string longText(1000, 'x');
                           const std::size_t before = Allocations();
                           for (int i = 0; i < 100; ++i) {
                               log.Trace("Tag") << "(i=" << i << ", text=" << longText << ")" << Counted{formatted};
                               log.Debug() << Counted{formatted};
                               LogWrapper::Log(0, true, "L.cpp", 1, "f()", "%1000d", i);
                           }
                           const std::size_t after = Allocations();
                           log.Info() << "allocations " << after - before << ", formatted " << formatted;
                           log.Info() << Counted{formatted};
                           log.Info() << "formatted " << formatted;
                       }),
              (Lines{"info [L] allocations 0, formatted 0", "info [L] ", "info [L] formatted 1"}));
}

TEST_F(ALogger, SoonAllocatesNothingForARecordThatIsOnEither) {
    EXPECT_EQ(Logged([] {
                  Logger log("L", 0);
                  log.Info() << std::string(100, 'x');
                  const std::size_t before = Allocations();
                  log.Info("Tag") << "text " << 1;
                  const std::size_t after = Allocations();
                  log.Info() << after - before;
              }).back(),
              "info [L] 0");
}

TEST_F(ALogger, WritesToTheConfiguredFile) {
    const TemporaryFolder folder;
    const std::string config = folder.Write("gateway.ini", "[log]\nsink = file\nfile = " + folder.Path("log") +
                                                               "\nlevel = trace\nfile_counts = 1\n");
    const Ended ended = RunInChild({{"ORV_GATEWAY_CONFIG", config}}, [] { Logger("L", 0).Trace() << "text"; });
    const std::string problem = config + ":5: [log] has no such key, ignored; did you mean \"file_count\"? "
                                         "Valid: sink, level, file, file_max_bytes, file_count";
    EXPECT_EQ(ended.Lines(), Lines{problem});
    Lines lines;
    for (const std::string& line : OrvPlatform::Testing::SplitLines(OrvPlatform::Testing::Content(folder.Path("log"))))
        lines.push_back(OrvPlatform::Testing::WithoutTime(line));
    EXPECT_EQ(lines, (Lines{"error [GatewayConfig] " + problem, "debug [GatewayConfig] Settings read from " + config,
                            "trace [L] text"}));
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
void LogFormat(const char* format) {
    LogWrapper::Log(2, false, "A.cpp", 1, "f()", format);
}
#pragma GCC diagnostic pop

#ifndef ORV_ALLOCATIONS_NOT_COUNTED
// A test of the counting itself: without it "no allocation" would prove nothing.
TEST(TheCountOfAllocations, Counts) {
    const std::size_t before = Allocations();
    ::operator delete(::operator new(1)); // a new-expression may be optimised away together with its delete
    EXPECT_EQ(Allocations(), before + 1);
}
#endif

class APrintfStyleRecord : public ALogger {};

TEST_F(APrintfStyleRecord, NamesItsSourceLineAndFunction) {
    EXPECT_EQ(Logged([] {
                  LogWrapper::Log(5, false, "libs/x/src/OrvRoute", 37, "X::OrvRoute()", "cannot %s %d", "connect", 3);
                  LogWrapper::Log(0, false, "/abs/Plain.cpp", 1, "f()", "text");
                  LogWrapper::Log(2, false, nullptr, 1, nullptr, "text");
              }),
              (Lines{"critical [OrvRoute:37] X::OrvRoute(): cannot connect 3", "trace [Plain:1] f(): text",
                     "info [LogWrapper] text"}));
}

TEST_F(APrintfStyleRecord, TakesALevelOutOfRangeForTheNearest) {
    EXPECT_EQ(Logged([] {
                  LogWrapper::Log(-1, false, "A.cpp", 1, "f()", "low");
                  LogWrapper::Log(99, false, "A.cpp", 1, "f()", "high");
              }),
              (Lines{"trace [A:1] f(): low", "critical [A:1] f(): high"}));
}

TEST_F(APrintfStyleRecord, MayBeOfAnyLength) {
    const Lines lines = Logged([] {
        for (const int length : {511, 512, 513, 8000, 1000000})
            LogWrapper::Log(2, false, "A.cpp", 1, "f()", "%*d", length, 1);
    });
    ASSERT_EQ(lines.size(), 5U);
    const std::string head = "info [A:1] f(): ";
    for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t lengths[] = {511, 512, 513, 8000};
        EXPECT_EQ(lines[i], head + std::string(lengths[i] - 1, ' ') + "1");
    }
    EXPECT_TRUE(EndsWith(lines[4], "   [cut, 1000003 bytes in all]")) << lines[4];
}

TEST_F(APrintfStyleRecord, ThatCannotBeFormattedShowsItsFormat) {
    EXPECT_EQ(Logged([] { LogWrapper::Log(2, false, "A.cpp", 1, "f()", "wide %lc", static_cast<wint_t>(0x7fffffff)); }),
              Lines{"info [A:1] f(): wide %lc"});
}

TEST_F(APrintfStyleRecord, WithoutAFormatIsNoCrash) {
    EXPECT_EQ(Logged([] { LogFormat(nullptr); }), Lines{"info [A:1] f(): no text"});
}

TEST_F(APrintfStyleRecord, WaitsForTheStorageOnlyWhenFlagged) {
    const TemporaryFolder folder;
    const std::string config = folder.Write("gateway.ini", "[log]\nsink = file\nfile = " + folder.Path("log") + "\n");
    const Ended ended = RunInChild({{"ORV_GATEWAY_CONFIG", config}}, [] {
        OrvPlatform::Testing::filesBroughtToStorage = 0;
        LogWrapper::Log(2, false, "A.cpp", 1, "f()", "not flushed");
        std::fprintf(stderr, "%d\n", OrvPlatform::Testing::filesBroughtToStorage.load());
        LogWrapper::Log(2, true, "A.cpp", 1, "f()", "flushed");
        std::fprintf(stderr, "%d\n", OrvPlatform::Testing::filesBroughtToStorage.load());
    });
    EXPECT_EQ(ended.Lines(), (Lines{"0", "1"}));
}

} // namespace
