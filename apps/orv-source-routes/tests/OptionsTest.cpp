// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include <gtest/gtest.h>

namespace OrvSourceRoutes {
namespace {

TEST(AnInterfaceOption, NamesTheInterfaceAndItsTable) {
    const auto entry = ParseInterfaceTable("wwan0=1012");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->interface, "wwan0");
    EXPECT_EQ(entry->table, 1012U);
}

TEST(AnInterfaceOption, IsRefusedWithoutNameOrNumber) {
    for (const char* text :
         {"", "eth0", "=1011", "eth0=", "eth0=x", "eth0=12x", "eth0=-1", "eth0= 11", "eth0=4294967297"})
        EXPECT_FALSE(ParseInterfaceTable(text)) << text;
}

TEST(AnInterfaceOption, DoesNotTakeTheKernelsOwnTablesNorOnesBehindTheMainTable) {
    for (const char* text : {"eth0=0", "eth0=253", "eth0=254", "eth0=255", "eth0=32766"})
        EXPECT_FALSE(ParseInterfaceTable(text)) << text;
    for (const char* text : {"eth0=1", "eth0=252", "eth0=256", "eth0=32765"})
        EXPECT_TRUE(ParseInterfaceTable(text)) << text;
}

TEST(InterfaceOptions, NeedDifferentInterfacesAndDifferentTables) {
    EXPECT_EQ(ProblemWith({{"eth0", 1011}, {"wwan0", 1012}}), "");
    EXPECT_EQ(ProblemWith({{"eth0", 1011}, {"eth0", 1012}}), "eth0 is named twice; name each interface once");
    EXPECT_EQ(ProblemWith({{"eth0", 1011}, {"wwan0", 1011}}), "wwan0 and eth0 have the same table; give each its own");
}

} // namespace
} // namespace OrvSourceRoutes
