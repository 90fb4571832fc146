// SPDX-License-Identifier: Apache-2.0
// The file of settings, the environment, and what a process makes of both.
#include "config/GatewayConfig.h"

#include "GatewayMainBaseUnits/IpInterfacesMapping.h"
#include "OrvResources/StaticConfigStore.h"
#include "base/ProgramName.h"
#include "support/ChildProcess.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace OrvPlatform;
using namespace OrvPlatform::Testing;
using Lines = std::vector<std::string>;

namespace {

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

class AConfigurationFile : public testing::Test {
protected:
    TemporaryFolder folder;
};

TEST_F(AConfigurationFile, IsRead) {
    const LoadedConfig loaded = ReadGatewayConfig(folder.Write("x.ini", "[broker]\nport = 7\n"), false);
    EXPECT_EQ(loaded.problems, Lines{});
    EXPECT_EQ(loaded.notes, Lines{"Settings read from " + folder.Path("x.ini")});
    EXPECT_EQ(loaded.config.broker.port, 7);
}

TEST_F(AConfigurationFile, ThatIsMissingIsAProblemOnlyWhenItWasAskedFor) {
    const LoadedConfig byDefault = ReadGatewayConfig(folder.Path("x.ini"), true);
    EXPECT_EQ(byDefault.problems, Lines{});
    EXPECT_EQ(byDefault.notes, Lines{folder.Path("x.ini") + " does not exist; the defaults are in force"});
    const LoadedConfig named = ReadGatewayConfig(folder.Path("x.ini"), false);
    EXPECT_EQ(named.problems, Lines{folder.Path("x.ini") +
                                    ": cannot be read (No such file or directory); the defaults are in force. Name a "
                                    "readable file in ORV_GATEWAY_CONFIG, or unset it to use /etc/orv/gateway.ini"});
}

TEST_F(AConfigurationFile, ThatIsNoneIsAProblem) {
    for (const bool mayBeMissing : {true, false}) {
        const LoadedConfig loaded = ReadGatewayConfig(folder.Path(""), mayBeMissing);
        ASSERT_EQ(loaded.problems.size(), 1U);
        EXPECT_TRUE(BeginsWith(loaded.problems[0], folder.Path("") + ": cannot be read (Is a directory);"));
    }
    const std::string huge = folder.Write("huge.ini", std::string(1025 * 1024, '\n'));
    EXPECT_TRUE(BeginsWith(ReadGatewayConfig(huge, false).problems.at(0), huge + ": cannot be read (File too large);"));
}

TEST_F(AConfigurationFile, ThatOthersMayReadIsWarnedOfWhenItHoldsAPassword) {
    const std::string path = folder.Write("x.ini", "[broker]\npassword = s3cret\n");
    const auto warnings = [&](mode_t mode) {
        ::chmod(path.c_str(), mode);
        const LoadedConfig loaded = ReadGatewayConfig(path, false);
        EXPECT_EQ(loaded.problems, Lines{});
        return loaded.warnings;
    };
    const Lines told{path + " holds a password, and every user of this machine may read it; chmod 640 with the "
                            "applications' group, or chmod 600"};
    EXPECT_EQ(warnings(0644), told);
    EXPECT_EQ(warnings(0604), told);
    EXPECT_EQ(warnings(0640), Lines{});
    EXPECT_EQ(warnings(0600), Lines{});
    folder.Write("x.ini", "[broker]\nusername = me\n");
    EXPECT_EQ(warnings(0644), Lines{});
}

TEST_F(AConfigurationFile, ThatOthersMayChangeIsWarnedOf) {
    const std::string path = folder.Write("x.ini", "");
    for (const mode_t mode : {0602, 0666}) {
        ::chmod(path.c_str(), mode);
        EXPECT_EQ(ReadGatewayConfig(path, false).warnings,
                  Lines{path + " may be changed by every user of this machine; chmod o-w"});
    }
    ::chmod(path.c_str(), 0664);
    EXPECT_EQ(ReadGatewayConfig(path, false).warnings, Lines{});
}

TEST_F(AConfigurationFile, ThatIsAPipeDoesNotHoldTheStartUp) {
    ASSERT_EQ(::mkfifo(folder.Path("x.ini").c_str(), 0600), 0);
    EXPECT_EQ(ReadGatewayConfig(folder.Path("x.ini"), false).config.broker.port, 1883);
}

TEST_F(AConfigurationFile, IsClosedAfterwards) {
    const std::string path = folder.Write("x.ini", "");
    const auto nextDescriptor = [] {
        const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(descriptor);
        return descriptor;
    };
    const int before = nextDescriptor();
    ReadGatewayConfig(path, false);
    EXPECT_EQ(nextDescriptor(), before);
}

class TheSettingsOfAProcess : public AConfigurationFile {
protected:
    static Ended Asked(const std::string& path, const std::function<void()>& body) {
        return RunInChild({{"ORV_GATEWAY_CONFIG", path}}, body);
    }
};

TEST_F(TheSettingsOfAProcess, ComeFromTheFileThatTheEnvironmentNames) {
    const Ended ended =
        Asked(folder.Write("x.ini", "[interfaces]\nethernet = a\ncellular = b\n[cloud]\nendpoint = c\n"), [] {
            const auto& interfaces = GatewayMainBaseUnits::IpInterfacesMapping::GetInstance();
            const auto store = OrvResources::CreateStaticConfigStore();
            std::fprintf(stderr, "%s %s %s|%s|%s\n", interfaces.GetInterfaceName("Ethernet").c_str(),
                         interfaces.GetInterfaceName("Cellular").c_str(), store->GetValue(0).c_str(),
                         interfaces.GetInterfaceName("ethernet").c_str(), store->GetValue(1).c_str());
        });
    EXPECT_EQ(ended.Lines(), Lines{"a b c||"});
}

TEST_F(TheSettingsOfAProcess, ComeFromTheGatewaysFileWhenTheEnvironmentNamesNone) {
    const auto printNotes = [] {
        const auto loaded = LoadGatewayConfig();
        for (const std::string& text : loaded.notes)
            std::fprintf(stderr, "%s\n", text.c_str());
        for (const std::string& text : loaded.problems)
            std::fprintf(stderr, "%s\n", text.c_str());
    };
    const Ended empty = Asked("", printNotes);
    const Ended unset = Asked("", [&] {
        ::unsetenv("ORV_GATEWAY_CONFIG");
        printNotes();
    });
    // Whether this machine has such a file or not.
    EXPECT_NE(empty.standardError.find("/etc/orv/gateway.ini"), std::string::npos) << empty.standardError;
    EXPECT_EQ(unset.standardError, empty.standardError);
}

TEST_F(TheSettingsOfAProcess, AreTheDefaultsWhereTheFileIsSilent) {
    const Ended ended = Asked(folder.Write("x.ini", ""), [] {
        const auto& interfaces = GatewayMainBaseUnits::IpInterfacesMapping::GetInstance();
        std::fprintf(stderr, "%s %s %s|\n", interfaces.GetInterfaceName("Ethernet").c_str(),
                     interfaces.GetInterfaceName("Cellular").c_str(),
                     OrvResources::CreateStaticConfigStore()->GetValue(0).c_str());
    });
    EXPECT_EQ(ended.Lines(), Lines{"eth0 wwan0 |"});
}

class TheEnvironment : public AConfigurationFile {
protected:
    /// What a process with these variables says of its suffix and controller, and of what is wrong with them.
    Lines Made(const std::string& variable, const std::string& value) const {
        const std::string path =
            folder.Write("x.ini", "[broker]\nclient_id_suffix = -file\n[gateway]\ncontroller = file\n");
        return RunInChild({{"ORV_GATEWAY_CONFIG", path}, {variable, value}},
                          [] {
                              const auto& config = Config();
                              std::fprintf(stderr, "%s %s\n", config.broker.clientIdSuffix.c_str(),
                                           config.gateway.controller.c_str());
                          })
            .Lines();
    }

    const std::string notice =
        "info [GatewayConfig] [gateway] controller is file: what this program, "
        "orv-platform-config-tests, orders from the connection manager or publishes for the whole "
        "gateway is dropped";
};

TEST_F(TheEnvironment, HasTheLastWordOnSuffixAndController) {
    EXPECT_EQ(Made("ORV_CLIENT_ID_SUFFIX", "-mine"), (Lines{notice, "-mine file"}));
    EXPECT_EQ(Made("ORV_GATEWAY_CONTROLLER", "orv-platform-config-tests"), Lines{"-file orv-platform-config-tests"});
}

TEST_F(TheEnvironment, MayTakeSuffixAndControllerAway) {
    EXPECT_EQ(Made("ORV_CLIENT_ID_SUFFIX", ""), (Lines{notice, " file"}));
    EXPECT_EQ(Made("ORV_GATEWAY_CONTROLLER", ""), Lines{"-file "});
}

TEST_F(TheEnvironment, IsReportedWhereItIsWrongAndTheFileCounts) {
    EXPECT_EQ(Made("ORV_CLIENT_ID_SUFFIX", "a b"),
              (Lines{"error [GatewayConfig] ORV_CLIENT_ID_SUFFIX: \"a b\" is not valid, ignored. Valid: up to 32 "
                     "letters, digits, '-', '_', '.', %a, %p and %n, or nothing",
                     notice, "-file file"}));
}

TEST(TheNameOfTheProgram, IsThatOfItsFileWhateverItIsCalled) {
    const Ended ended = RunInChild({}, [] {
        char otherName[] = "other";
        program_invocation_short_name = otherName;
        ::prctl(PR_SET_NAME, otherName);
        std::fprintf(stderr, "%s\n", ProgramName().c_str());
    });
    EXPECT_EQ(ended.Lines(), Lines{"orv-platform-config-tests"});
}

TEST(TheNameOfTheProgram, OutlivesTheReplacementOfItsFile) {
    EXPECT_EQ(ProgramNameOf("/usr/bin/gateway-app (deleted)"), "gateway-app");
    EXPECT_EQ(ProgramNameOf("/usr/bin/ (deleted)"), " (deleted)");
    EXPECT_EQ(ProgramNameOf("gateway-app"), "gateway-app");
}

TEST_F(TheSettingsOfAProcess, AreWarnedOfInTheLog) {
    const std::string path = folder.Write("x.ini", "[broker]\npassword = s3cret\n");
    ::chmod(path.c_str(), 0644);
    EXPECT_EQ(Asked(path, [] { Config(); }).Lines(),
              Lines{"warning [GatewayConfig] " + path +
                    " holds a password, and every user of this machine may read it; chmod 640 with the applications' "
                    "group, or chmod 600"});
    const std::string quiet = folder.Write("y.ini", "[broker]\npassword = s3cret\n[log]\nlevel = error\n");
    ::chmod(quiet.c_str(), 0644);
    EXPECT_EQ(Asked(quiet, [] { Config(); }).Lines(), Lines{});
}

TEST_F(TheSettingsOfAProcess, AreReportedOnceWhenTheyAreWrongAlsoWithoutALogger) {
    const std::string path = folder.Write("x.ini", "[broker]\nport = 0\n");
    const Ended ended = Asked(path, [] {
        Config();
        std::fprintf(stderr, "%d\n", Config().broker.port);
    });
    EXPECT_EQ(ended.Lines(),
              (Lines{"error [GatewayConfig] " + path +
                         ":2: [broker] port = (not shown) is not valid, 1883 stays in force. Valid: 1 to 65535",
                     "1883"}));
}

TEST_F(TheSettingsOfAProcess, AreReportedOnStandardErrorAlsoWhenTheLogIsOff) {
    const std::string path = folder.Write("x.ini", "[log]\nlevel = off\nsinks = file\n");
    const Ended ended = Asked(path, [] { Config(); });
    EXPECT_EQ(ended.Lines(), Lines{path + ":3: [log] has no such key, ignored; did you mean \"sink\"? Valid: sink, "
                                          "level, file, file_max_bytes, file_count"});
}

} // namespace
