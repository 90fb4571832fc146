// SPDX-License-Identifier: Apache-2.0
#include "CloudSettings.h"

#include "CloudDialer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace GatewayApp {
namespace {

TEST(AnEndpoint, IsAHostAndAPortWhateverElseIsWrittenThere) {
    const auto split = [](const std::string& endpoint) {
        const CloudSettings settings = SettingsOfEndpoint(endpoint);
        return settings.host + " " + std::to_string(settings.port);
    };
    EXPECT_EQ(split("cloud.example"), "cloud.example 443");
    EXPECT_EQ(split("cloud.example:8443"), "cloud.example 8443");
    EXPECT_EQ(split("cloud.example/health?all"), "cloud.example 443");
    EXPECT_EQ(split("cloud.example:443/health"), "cloud.example 443");
    EXPECT_EQ(split("192.0.2.1:8443"), "192.0.2.1 8443");
    EXPECT_EQ(split("[2001:db8::1]:8443/health"), "2001:db8::1 8443");
    EXPECT_EQ(split("[2001:db8::1]"), "2001:db8::1 443");
    EXPECT_EQ(split(""), " 443");
    EXPECT_EQ(split("cloud.example:99999"), " 443");
}

class APasswordFile : public testing::Test {
protected:
    APasswordFile() { settings.passwordFile = testing::TempDir() + "gateway-app-password-" + std::to_string(getpid()); }
    ~APasswordFile() override { std::remove(settings.passwordFile.c_str()); }
    void Write(const std::string& text, mode_t mode = 0600) const {
        std::ofstream(settings.passwordFile) << text;
        chmod(settings.passwordFile.c_str(), mode);
    }
    std::string Error() const {
        try {
            ReadPassword(settings);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "no error";
    }

    CloudSettings settings;
};

TEST_F(APasswordFile, GivesItsFirstLine) {
    Write("secret with blanks \nmore\n");
    EXPECT_EQ(ReadPassword(settings), "secret with blanks ");
    Write("secret\r\n");
    EXPECT_EQ(ReadPassword(settings), "secret");
}

TEST_F(APasswordFile, ThatIsNotThereIsNamed) {
    EXPECT_EQ(Error(), "cannot use the password file '" + settings.passwordFile +
                           "': No such file or directory; name a file that the application's user may read "
                           "(cloud-password-file)");
}

TEST_F(APasswordFile, ThatIsEmptyIsNamed) {
    Write("\nsecret\n");
    EXPECT_EQ(Error(), "cannot use the password file '" + settings.passwordFile +
                           "': its first line is empty; write the password there");
}

TEST_F(APasswordFile, ThatCannotBeReadIsNotCalledEmpty) {
    settings.passwordFile = "/proc";
    EXPECT_EQ(Error(),
              "cannot use the password file '/proc': Is a directory; name a file that the application's user may "
              "read (cloud-password-file)");
    settings.passwordFile = testing::TempDir() + "gateway-app-no-password";
}

TEST_F(APasswordFile, ThatEverybodyMayReadIsWarnedAbout) {
    Write("secret", 0640);
    EXPECT_TRUE(CredentialWarnings(settings).empty());
    Write("secret", 0644);
    ASSERT_EQ(CredentialWarnings(settings).size(), 1U);
    EXPECT_EQ(CredentialWarnings(settings)[0],
              settings.passwordFile + " holds a password, and every user of this machine may read it; chmod o-r");
    settings.keyFile = settings.passwordFile;
    ASSERT_EQ(CredentialWarnings(settings).size(), 2U);
    EXPECT_NE(CredentialWarnings(settings)[0].find("holds a key"), std::string::npos);
}

TEST(CloudSettings, WithoutAPasswordFileHaveNoPassword) {
    EXPECT_EQ(ReadPassword({}), "");
    EXPECT_TRUE(CredentialWarnings({}).empty());
}

TEST(CloudSettings, DifferInEveryCredential) {
    const auto differs = [](std::string CloudSettings::*member) {
        CloudSettings other;
        other.*member = "x";
        return other != CloudSettings();
    };
    for (std::string CloudSettings::*member :
         {&CloudSettings::host, &CloudSettings::caFile, &CloudSettings::clientId, &CloudSettings::certificateFile,
          &CloudSettings::keyFile, &CloudSettings::user, &CloudSettings::passwordFile, &CloudSettings::alpn})
        EXPECT_TRUE(differs(member));
}

TEST(AddressesInTurn, ChangeTheFamilyBeginningWithTheFirst) {
    using List = std::vector<std::string>;
    EXPECT_EQ(InTurn(List{}), List{});
    EXPECT_EQ(InTurn(List({"1.1.1.1", "2.2.2.2"})), List({"1.1.1.1", "2.2.2.2"}));
    EXPECT_EQ(InTurn(List({"1::1", "2::2", "1.1.1.1"})), List({"1::1", "1.1.1.1", "2::2"}));
    EXPECT_EQ(InTurn(List({"1.1.1.1", "2.2.2.2", "1::1"})), List({"1.1.1.1", "1::1", "2.2.2.2"}));
}

} // namespace
} // namespace GatewayApp
