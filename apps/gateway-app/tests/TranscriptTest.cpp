// SPDX-License-Identifier: Apache-2.0
#include "Transcript.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

namespace GatewayApp {
namespace {

TEST(AJsonText, IsQuotedAndHarmless) {
    EXPECT_EQ(JsonText("plain"), R"("plain")");
    EXPECT_EQ(JsonText(R"(a"b\c)"), R"("a\"b\\c")");
    EXPECT_EQ(JsonText("line\nend\xff"), R"("line?end?")");
}

TEST(ATranscript, HasALineForEachHappening) {
    std::string path = testing::TempDir() + "transcript-XXXXXX";
    close(mkstemp(path.data()));
    Transcript transcript(path);
    transcript.Write("event", {{"event", JsonText("CLOUD_CONNECTED")}, {"cloud", "true"}});
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    std::remove(path.c_str());
    const std::string line = text.str();
    EXPECT_EQ(line.rfind("{\"time\":\"20", 0), 0U) << line;
    EXPECT_NE(line.find("Z\",\"monotonic\":"), std::string::npos) << line;
    const std::string end = ",\"what\":\"event\",\"event\":\"CLOUD_CONNECTED\",\"cloud\":true}\n";
    ASSERT_GT(line.size(), end.size());
    EXPECT_EQ(line.substr(line.size() - end.size()), end);
}

/// While it lives, no file can grow beyond so many bytes: a full disk.
class AFullDisk {
public:
    explicit AFullDisk(rlim_t size) : handler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limit{size, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~AFullDisk() {
        setrlimit(RLIMIT_FSIZE, &before);
        std::signal(SIGXFSZ, handler);
    }

private:
    void (*handler)(int);
    rlimit before{};
};

TEST(ATranscript, GoesOnWhenTheDiskHasRoomAgain) {
    std::string path = testing::TempDir() + "transcript-XXXXXX";
    close(mkstemp(path.data()));
    Transcript transcript(path);
    transcript.Write("before", {});
    {
        const AFullDisk disk(100); // a line has more than 50 characters
        transcript.Write("torn", {});
        transcript.Write("lost", {});
    }
    transcript.Write("after", {});
    transcript.Write("later", {});
    std::ifstream file(path);
    std::vector<std::string> whole;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '}')
            whole.push_back(line.substr(line.find(",\"what\"")));
    }
    std::remove(path.c_str());
    const std::vector<std::string> expected = {R"(,"what":"before"})", R"(,"what":"after","lost_before":2})",
                                               R"(,"what":"later"})"};
    EXPECT_EQ(whole, expected);
}

TEST(ATranscript, IsRefusedWhereItCannotBeWritten) {
    EXPECT_THROW(Transcript("/does/not/exist/transcript"), std::system_error);
}

} // namespace
} // namespace GatewayApp
