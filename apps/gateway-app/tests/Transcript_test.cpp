// SPDX-License-Identifier: Apache-2.0
#include "Transcript.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <system_error>

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

TEST(ATranscript, IsRefusedWhereItCannotBeWritten) {
    EXPECT_THROW(Transcript("/does/not/exist/transcript"), std::system_error);
}

} // namespace
} // namespace GatewayApp
