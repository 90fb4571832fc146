// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace OrvStatus {
namespace {

Options Read(std::vector<std::string> words) {
    words.insert(words.begin(), "orv-status");
    std::vector<char*> raw;
    for (std::string& word : words)
        raw.push_back(word.data());
    raw.push_back(nullptr);
    return ReadOptions(static_cast<int>(words.size()), raw.data());
}

Ending EndingOf(const std::vector<std::string>& words) {
    try {
        Read(words);
    } catch (const Ending& ending) {
        return ending;
    }
    return {"it went on", -1};
}

TEST(TheOptions, AreForOneTableByDefault) {
    const Options options = Read({});
    EXPECT_EQ(options.form, Form::TABLE);
    EXPECT_EQ(options.pace, Pace::ONCE);
    EXPECT_EQ(options.statusFile, "/run/gateway-app/status.json");
}

TEST(TheOptions, AreUnderstoodLongAndShort) {
    const Options options =
        Read({"-jf", "--color", "never", "--status-file=/a", "--user", "u", "--password-file", "/p"});
    EXPECT_EQ(options.form, Form::JSON);
    EXPECT_EQ(options.pace, Pace::FOLLOW);
    EXPECT_EQ(options.colour, Options::Colour::NEVER);
    EXPECT_EQ(options.statusFile, "/a");
    EXPECT_EQ(options.user, "u");
    EXPECT_EQ(options.passwordFile, "/p");
    EXPECT_EQ(Read({"--watch"}).pace, Pace::WATCH);
    EXPECT_EQ(Read({"--metrics"}).form, Form::METRICS);
    EXPECT_EQ(Read({"--quiet"}).form, Form::QUIET);
}

TEST(TheOptions, AreRefusedWithTheRemedy) {
    for (const auto& words : std::vector<std::vector<std::string>>{{"--nonsense"},
                                                                   {"word"},
                                                                   {"--color", "blue"},
                                                                   {"--color"},
                                                                   {"-fm"},
                                                                   {"-wq"},
                                                                   {"-wj"},
                                                                   {"--password-file", "/p"}}) {
        const Ending ending = EndingOf(words);
        EXPECT_EQ(ending.exitStatus, 2) << words.front();
        EXPECT_NE(ending.text.find("orv-status --help"), std::string::npos);
    }
}

class APasswordFile : public testing::Test {
protected:
    ~APasswordFile() override { std::remove(path.c_str()); }
    std::string Refusal() const {
        try {
            return ReadPassword(path);
        } catch (const Ending& ending) {
            EXPECT_EQ(ending.exitStatus, 2);
            return ending.text;
        }
    }
    const std::string path = testing::TempDir() + "orv-status-password-" + std::to_string(getpid());
};

TEST_F(APasswordFile, HoldsThePasswordAsItsFirstLine) {
    std::ofstream(path) << "s3cret\nmore\n";
    EXPECT_EQ(ReadPassword(path), "s3cret");
    std::ofstream(path) << '\0' << "s3cret\n";
    EXPECT_EQ(ReadPassword(path), std::string("\0s3cret", 7));
}

TEST_F(APasswordFile, IsRefusedWithTheReasonWhenItCannotBeRead) {
    const std::string refused = "orv-status: cannot read a password from ";
    EXPECT_EQ(Refusal(), refused + path + ": No such file or directory\n");
    std::ofstream(path).close();
    EXPECT_EQ(Refusal(), refused + path + ": it is empty\n");
}

TEST(TheOptions, AreAllInTheHelpTheManualAndTheCompletion) {
    const auto all = [](const char* path) {
        std::ifstream file(path);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const Ending help = EndingOf({"--help"});
    EXPECT_EQ(help.exitStatus, 0);
    std::string manual = all(ORV_STATUS_MANUAL);
    for (std::size_t at = 0; (at = manual.find("\\-", at)) != std::string::npos;)
        manual.erase(at, 1);
    for (const std::string option : {"json", "metrics", "quiet", "follow", "watch", "color", "status-file", "user",
                                     "password-file", "help", "version"}) {
        EXPECT_NE(help.text.find("--" + option), std::string::npos) << option;
        EXPECT_NE(manual.find("--" + option), std::string::npos) << option;
        EXPECT_NE(all(ORV_STATUS_COMPLETION).find("--" + option), std::string::npos) << option;
    }
}

} // namespace
} // namespace OrvStatus
