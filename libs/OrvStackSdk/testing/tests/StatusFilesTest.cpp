// SPDX-License-Identifier: Apache-2.0
#include "KitScene.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace OrvStackSdk::Testing {
namespace {

std::string ContentOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

class AFolderOfATest : public ::testing::Test {
protected:
    AFolderOfATest() {
        EXPECT_NE(mkdtemp(&folder[0]), nullptr);
        options.statusFolder = folder;
    }
    ~AFolderOfATest() override {
        unlink((folder + "/new_enterprise_statuses.csv").c_str());
        unlink((folder + "/new_enterprise_errors.csv").c_str());
        EXPECT_EQ(rmdir(folder.c_str()), 0) << "something else is in the folder";
    }

    std::string folder = ::testing::TempDir() + "orv-test-kit-XXXXXX";
    GatewayOptions options;
};

TEST_F(AFolderOfATest, GetsTheStatusFiles) {
    const Gateway gateway(options);
    const auto client = CreateClient();
    client->EventUpdateRequest(OrvEvent::FAILURE);
    EXPECT_EQ(gateway.ErrorFile(), "1767225600,Fatal Error Detected");
    EXPECT_EQ(ContentOf(folder + "/new_enterprise_errors.csv"), gateway.ErrorFile());
    EXPECT_EQ(ContentOf(folder + "/new_enterprise_statuses.csv"), gateway.StatusFile());
    EXPECT_EQ(gateway.StatusFile(), "\"Enterprise Feature\",\"Disabled\"\n\"Cloud Connection\",\"Down\"\n"
                                    "\"Ethernet\",\"Down\"\n\"Cellular\",\"Down\"");
}

TEST_F(AFolderOfATest, GetsNothingUnlessItIsNamed) {
    const Gateway gateway;
    const auto client = CreateClient();
    client->EventUpdateRequest(OrvEvent::FAILURE);
    EXPECT_NE(gateway.ErrorFile(), "");
    EXPECT_EQ(ContentOf(folder + "/new_enterprise_errors.csv"), "");
}

} // namespace
} // namespace OrvStackSdk::Testing
