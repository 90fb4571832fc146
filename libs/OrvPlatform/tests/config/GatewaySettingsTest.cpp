// SPDX-License-Identifier: Apache-2.0
// The edges of what each setting takes, and of what is suggested for a misspelt one.
#include "config/GatewaySettings.h"

#include <gtest/gtest.h>

using namespace OrvPlatform;

namespace {

/// Whether a section's key takes the value, from whatever source.
bool Takes(const std::string& section, const std::string& key, const std::string& value) {
    for (const Setting& setting : Settings()) {
        if (setting.section == section && setting.key == key) {
            GatewayConfig config;
            const bool taken = setting.read(value, config);
            EXPECT_EQ(ShowGatewayConfig(config) == ShowGatewayConfig(GatewayConfig()), !taken) << value;
            return taken;
        }
    }
    ADD_FAILURE() << "no such key: " << key;
    return false;
}

struct Longest {
    const char* section;
    const char* key;
    std::size_t bytes;
};

TEST(AGoodValue, MayHaveExactlyTheMostBytes) {
    for (const Longest& longest : {Longest{"broker", "username", 128}, Longest{"broker", "client_id_suffix", 32},
                                   Longest{"interfaces", "ethernet", 15}, Longest{"interfaces", "cellular", 15},
                                   Longest{"cloud", "endpoint", 253}}) {
        EXPECT_TRUE(Takes(longest.section, longest.key, std::string(longest.bytes, 'x'))) << longest.key;
        EXPECT_FALSE(Takes(longest.section, longest.key, std::string(longest.bytes + 1, 'x'))) << longest.key;
    }
    // A password is not shown, so that the configuration has to be asked.
    const ParsedConfig parsed = ParseGatewayConfig("[broker]\npassword = " + std::string(128, 'x') + "\n", "x.ini");
    EXPECT_EQ(parsed.config.broker.password, std::string(128, 'x'));
}

TEST(AGoodValue, MayBeAsShortAsCanBe) {
    EXPECT_TRUE(Takes("log", "file", "/x"));
    EXPECT_TRUE(Takes("interfaces", "ethernet", "x"));
    EXPECT_TRUE(Takes("cloud", "endpoint", "x"));
}

TEST(AGoodText, MayHoldBlanksAndAnyVisibleCharacter) {
    EXPECT_TRUE(Takes("broker", "username", "a b"));
    EXPECT_TRUE(Takes("broker", "username", "!~\xc3\xa4"));
    EXPECT_FALSE(Takes("broker", "username", std::string("a\0b", 3)));
    EXPECT_FALSE(Takes("broker", "username", "a\x1f"));
}

TEST(AGoodSuffix, MayNumberTheProcessTheClientOrBoth) {
    for (const char* suffix : {"", "%a", "%p", "%n", "%p%n", "-%n.%p_%ax"})
        EXPECT_TRUE(Takes("broker", "client_id_suffix", suffix)) << suffix;
    for (const char* suffix : {"%x", "%", "%%", "x%", "%px%", "%P", "%a%"})
        EXPECT_FALSE(Takes("broker", "client_id_suffix", suffix)) << suffix;
}

TEST(AControllersName, IsThatOfAFile) {
    for (const char* name : {"gateway-app", "a b", "x.sh", "\xc3\xa4"})
        EXPECT_TRUE(Takes("gateway", "controller", name)) << name;
    EXPECT_TRUE(Takes("gateway", "controller", std::string(255, 'x')));
    for (const std::string& name : {std::string("/x"), std::string("a\x1b"), std::string(256, 'x')})
        EXPECT_FALSE(Takes("gateway", "controller", name)) << name;
}

TEST(AListOfTopics, HoldsFiltersAsForASubscription) {
    for (const char* list : {"", "a", "#", "+", "/", "/a/+/b", "a/#", "+/+/#", "a,b", " a , b ", "a b"})
        EXPECT_TRUE(Takes("gateway", "topics", list)) << list;
    for (const char* list : {"a+", "+a", "a#", "#/a", "a/#/b", "a, ", "a\x01", "a/b+/c"})
        EXPECT_FALSE(Takes("gateway", "topics", list)) << list;
}

TEST(ASuggestion, IsTheNearestWord) {
    EXPECT_EQ(Nearest("port", {"post", "port", "port2"}), "port");
    EXPECT_EQ(Nearest("prot", {"protocol", "port", "pro"}), "pro");
    EXPECT_EQ(Nearest("hots", {"host", "hot"}), "hot");
    EXPECT_EQ(Nearest("HOST", {"post", "host"}), "host");
}

TEST(ASuggestion, IsAtMostTwoCharactersAway) {
    // One and two of them missing, too many and other ones, in front, in the middle and at the end; then three.
    for (const char* word :
         {"keep_alive", "eep_alive", "ep_alive", "kepalive", "keep_ali", "xkeep_alive", "xxkeep_alive", "keepxx_alive",
          "keep_alivexx", "xxep_alive", "keexxalive", "keep_alixx", "xkeep_aliv", "keep_alvie"})
        EXPECT_EQ(Nearest(word, {"keep_alive"}), "keep_alive") << word;
    for (const char* word : {"", "p_alive", "kealive", "keep_al", "xxxkeep_alive", "keepxxx_alive", "keep_alivexxx",
                             "xxxp_alive", "keexxxlive", "keep_alxxx", "xxkeep_aliv"})
        EXPECT_EQ(Nearest(word, {"keep_alive"}), "") << word;
}

TEST(ASuggestion, SharesHalfOfAShortWordAtLeast) {
    EXPECT_EQ(Nearest("lag", {"log"}), "log");
    EXPECT_EQ(Nearest("lax", {"log"}), "");
    EXPECT_EQ(Nearest("poxx", {"port"}), "port");
    EXPECT_EQ(Nearest("x", {}), "");
}

} // namespace
