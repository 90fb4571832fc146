// SPDX-License-Identifier: Apache-2.0
#include "AppOptions.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;

std::string ErrorOf(const std::vector<std::string>& arguments) {
    try {
        ReadOptions(arguments);
    } catch (const OptionsError& error) {
        return error.text;
    }
    return "no error";
}

TEST(OptionsWithoutArguments, AreTheDefaults) {
    const AppOptions options = ReadOptions({});
    EXPECT_EQ(options.name, "gateway-app");
    EXPECT_EQ(options.cloud.host, "");
    EXPECT_EQ(options.cloud.port, 8883);
    EXPECT_EQ(options.cloud.clientId, "gateway-app");
    EXPECT_EQ(options.keepAliveEthernet, 1s);
    EXPECT_EQ(options.keepAliveCellular, 30s);
    EXPECT_EQ(options.tick, 0ms);
    EXPECT_EQ(options.lock, "/run/gateway-app/lock");
    EXPECT_EQ(options.statusFile, "/run/gateway-app/status.json");
}

void ExpectDefaults(const AppOptions& options) {
    const AppOptions defaults = ReadOptions({});
    EXPECT_EQ(options.name, defaults.name);
    EXPECT_EQ(options.cloud, defaults.cloud);
    EXPECT_EQ(options.keepAliveEthernet, defaults.keepAliveEthernet);
    EXPECT_EQ(options.keepAliveCellular, defaults.keepAliveCellular);
    EXPECT_EQ(options.tick, defaults.tick);
    EXPECT_EQ(options.lock, defaults.lock);
    EXPECT_EQ(options.statusFile, defaults.statusFile);
}

TEST(TheShippedFile, HasTheDefaults) {
    const AppOptions shipped = ReadOptions({"--config", ORV_SHIPPED_OPTIONS});
    ExpectDefaults(shipped);
}

TEST(TheShippedFile, ShowsEachDefaultAsALineToTakeTheMarkAwayFrom) {
    std::ifstream file(ORV_SHIPPED_OPTIONS);
    const std::string uncommented = testing::TempDir() + "gateway-app-uncommented-" + std::to_string(getpid()) + ".ini";
    std::ofstream out(uncommented);
    int options = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("# ", 0) != 0 || line.find('=') == std::string::npos || line.find(' ', 2) != std::string::npos)
            continue;
        ++options;
        out << line.substr(2) << '\n';
    }
    out.close();
    EXPECT_EQ(options, 15);
    const AppOptions shown = ReadOptions({"--config", uncommented});
    ExpectDefaults(shown);
    std::remove(uncommented.c_str());
}

TEST(OptionsOnTheCommandLine, AreTaken) {
    const AppOptions options =
        ReadOptions({"--name", "heating", "--cloud-host", "cloud.example", "--cloud-port", "443", "--cloud-ca",
                     "/ca.pem", "--tick-ms", "100", "--transcript", "/t.json", "--lock", ""});
    EXPECT_EQ(options.name, "heating");
    EXPECT_EQ(options.cloud.host, "cloud.example");
    EXPECT_EQ(options.cloud.port, 443);
    EXPECT_EQ(options.cloud.caFile, "/ca.pem");
    EXPECT_EQ(options.cloud.clientId, "heating");
    EXPECT_EQ(options.tick, 100ms);
    EXPECT_EQ(options.transcript, "/t.json");
    EXPECT_EQ(options.lock, "");
}

TEST(OptionsOnTheCommandLine, TakeTheDevicesCredentials) {
    const AppOptions options = ReadOptions({"--cloud-cert", "/c.pem", "--cloud-key", "/k.pem", "--cloud-user",
                                            "gateway", "--cloud-password-file", "/p", "--cloud-alpn", "mqtt",
                                            "--cloud-keepalive-ethernet-s", "2", "--cloud-keepalive-cellular-s", "60"});
    EXPECT_EQ(options.cloud.certificateFile, "/c.pem");
    EXPECT_EQ(options.cloud.keyFile, "/k.pem");
    EXPECT_EQ(options.cloud.user, "gateway");
    EXPECT_EQ(options.cloud.passwordFile, "/p");
    EXPECT_EQ(options.cloud.alpn, "mqtt");
    EXPECT_EQ(options.keepAliveEthernet, 2s);
    EXPECT_EQ(options.keepAliveCellular, 60s);
}

TEST(HalfACredential, IsRefused) {
    EXPECT_NE(ErrorOf({"--cloud-cert", "/c.pem"}).find("--cloud-key"), std::string::npos);
    EXPECT_NE(ErrorOf({"--cloud-key", "/k.pem"}).find("--cloud-cert"), std::string::npos);
    EXPECT_NE(ErrorOf({"--cloud-password-file", "/p"}).find("--cloud-user"), std::string::npos);
}

TEST(WrongOptions, AreRefusedByName) {
    EXPECT_NE(ErrorOf({"--tick-ms", "5"}).find("--tick-ms"), std::string::npos);
    EXPECT_NE(ErrorOf({"--cloud-port", "0"}).find("--cloud-port"), std::string::npos);
    EXPECT_NE(ErrorOf({"--cloud-keepalive-cellular-s", "0"}).find("--cloud-keepalive-cellular-s"), std::string::npos);
    EXPECT_NE(ErrorOf({"--name", "a/b"}).find("one level of a topic"), std::string::npos);
    EXPECT_NE(ErrorOf({"--config", "/does/not/exist.ini"}).find("/does/not/exist.ini"), std::string::npos);
    EXPECT_NE(ErrorOf({"--no-such-option"}).find("no-such-option"), std::string::npos);
}

TEST(WrongOptions, AreToldWithWhatTheyMustBe) {
    EXPECT_EQ(ErrorOf({"--cloud-port", "65536"}),
              "gateway-app: --cloud-port: must be a number from 1 to 65535, not \"65536\"");
    EXPECT_EQ(ErrorOf({"--cloud-port=80x"}),
              "gateway-app: --cloud-port: must be a number from 1 to 65535, not \"80x\"");
    EXPECT_EQ(ErrorOf({"--tick-ms", "9"}), "gateway-app: --tick-ms: must be 0 or a number from 10 to 1000, not \"9\"");
    EXPECT_EQ(ErrorOf({"--tick-ms", "1001"}),
              "gateway-app: --tick-ms: must be 0 or a number from 10 to 1000, not \"1001\"");
    EXPECT_EQ(ErrorOf({"--cloud-alpn", std::string(256, 'a')}).rfind("gateway-app: --cloud-alpn: must be shorter", 0),
              0U);
}

TEST(ACommandLine, ThatCannotBeUnderstoodIsRefusedWithTheWord) {
    const std::string help = "; gateway-app --help shows what can be said";
    EXPECT_EQ(ErrorOf({"--name", "heating", "--nmae=x"}), "gateway-app: no such option: --nmae=x" + help);
    EXPECT_EQ(ErrorOf({"-x"}), "gateway-app: no such option: -x" + help);
    EXPECT_EQ(ErrorOf({"--cloud-host"}), "gateway-app: --cloud-host: a value is missing" + help);
    EXPECT_EQ(ErrorOf({"heating"}), "gateway-app: no such option: heating" + help);
}

TEST(Help, IsNoFault) {
    try {
        ReadOptions({"--help"});
        FAIL() << "help was not shown";
    } catch (const OptionsError& error) {
        EXPECT_EQ(error.exitStatus, 0);
        EXPECT_NE(error.text.find("--cloud-host"), std::string::npos);
    }
}

class OptionsInAFile : public testing::Test {
protected:
    OptionsInAFile() { close(mkstemp(path.data())); }
    ~OptionsInAFile() override { std::remove(path.c_str()); }
    void Write(const std::string& text) { std::ofstream(path) << text; }

    std::string path = testing::TempDir() + "gateway-app-options-XXXXXX";
};

TEST_F(OptionsInAFile, AreTakenAndReadAnew) {
    Write("cloud-host=first.example\ntick-ms=500\n");
    EXPECT_EQ(ReadOptions({"--config", path}).cloud.host, "first.example");
    EXPECT_EQ(ReadOptions({"--config", path}).tick, 500ms);
    Write("cloud-host=second.example\n");
    EXPECT_EQ(ReadOptions({"--config", path}).cloud.host, "second.example");
}

TEST_F(OptionsInAFile, KeepWhatBelongsToTheStartOnAReload) {
    const AppOptions running = ReadOptions({"--config", path});
    Write("name=other\nlock=/other\nstatus-file=/other.json\ntranscript=/t.json\ntick-ms=500\n");
    const ReloadedOptions reloaded = ReloadOptions(running, {"--config", path});
    EXPECT_EQ(reloaded.waiting, "name, lock, status-file, transcript");
    EXPECT_EQ(reloaded.options.name, running.name);
    EXPECT_EQ(reloaded.options.cloud, running.cloud);
    EXPECT_EQ(reloaded.options.lock, running.lock);
    EXPECT_EQ(reloaded.options.statusFile, running.statusFile);
    EXPECT_EQ(reloaded.options.transcript, running.transcript);
    EXPECT_EQ(reloaded.options.tick, 500ms);
}

TEST_F(OptionsInAFile, NameNothingThatWaitsWhenAReloadChangesNothingOfIt) {
    const AppOptions running = ReadOptions({"--config", path});
    Write("cloud-client-id=mine\n");
    const ReloadedOptions reloaded = ReloadOptions(running, {"--config", path});
    EXPECT_EQ(reloaded.waiting, "");
    EXPECT_EQ(reloaded.options.cloud.clientId, "mine");
}

TEST_F(OptionsInAFile, YieldToTheCommandLine) {
    Write("cloud-host=file.example\n");
    EXPECT_EQ(ReadOptions({"--config", path, "--cloud-host", "line.example"}).cloud.host, "line.example");
}

TEST_F(OptionsInAFile, AreRefusedWhenUnknown) {
    Write("cluod-host=file.example\n");
    EXPECT_NE(ErrorOf({"--config", path}).find("cluod-host"), std::string::npos);
}

TEST_F(OptionsInAFile, AreRefusedWithTheFilesName) {
    const std::string place = "gateway-app: " + path + ":1: ";
    for (const char* line : {"cloud-port=0\n", "no-such-option=1\n", "cloud-cert=/c.pem\n"}) {
        Write(line);
        EXPECT_EQ(ErrorOf({"--config", path}).rfind(place, 0), 0U) << ErrorOf({"--config", path});
        EXPECT_EQ(ErrorOf({"--config=" + path}).rfind(place, 0), 0U) << line;
    }
}

TEST_F(OptionsInAFile, MayStandBetweenBlanksAndCommentsAndInQuotes) {
    Write("# a comment\n; another\n\n  cloud-host = cloud.example \r\ncloud-user=\"a b\"\ncloud-alpn='mqtt'\n"
          "cloud-ca=/a=b.pem\nlock=");
    const AppOptions options = ReadOptions({"--config", path});
    EXPECT_EQ(options.cloud.host, "cloud.example");
    EXPECT_EQ(options.cloud.user, "a b");
    EXPECT_EQ(options.cloud.alpn, "mqtt");
    EXPECT_EQ(options.cloud.caFile, "/a=b.pem");
    EXPECT_EQ(options.lock, "");
}

TEST_F(OptionsInAFile, AreRefusedWithTheLine) {
    Write("# a comment\ncloud-port=0\n");
    EXPECT_EQ(ErrorOf({"--config", path}),
              "gateway-app: " + path + ":2: cloud-port: must be a number from 1 to 65535, not \"0\"");
    Write("cloud-host\n");
    EXPECT_EQ(ErrorOf({"--config", path}), "gateway-app: " + path + ":1: a line is NAME=VALUE, or begins with #");
    Write("config=/another.ini\n");
    EXPECT_EQ(ErrorOf({"--config", path}), "gateway-app: " + path +
                                               ":1: no such option: config; gateway-app --help "
                                               "shows those that there are");
}

TEST_F(OptionsInAFile, AreRefusedWhenOneStandsThereTwice) {
    Write("tick-ms=10\n\ntick-ms=20\n");
    EXPECT_EQ(ErrorOf({"--config", path}),
              "gateway-app: " + path + ":3: tick-ms: it has a value already, in " + path + ":1");
}

TEST_F(OptionsInAFile, AreACredentialsOtherHalf) {
    Write("cloud-cert=/c.pem\n");
    EXPECT_EQ(ReadOptions({"--config", path, "--cloud-key", "/k.pem"}).cloud.certificateFile, "/c.pem");
    EXPECT_EQ(ErrorOf({"--config", path}), "gateway-app: " + path + ":1: cloud-cert needs cloud-key");
}

TEST_F(OptionsInAFile, AreNotLookedForInAFolder) {
    EXPECT_EQ(
        ErrorOf({"--config", testing::TempDir()}).rfind("gateway-app: " + testing::TempDir() + ": cannot be read (", 0),
        0U);
}

TEST_F(OptionsInAFile, AreNotBlamedForTheCommandLine) {
    Write("cloud-port=443\n");
    EXPECT_EQ(ErrorOf({"--config", path, "--tick-ms", "5"}).rfind("gateway-app: --tick-ms: ", 0), 0U);
}

} // namespace
} // namespace GatewayApp
