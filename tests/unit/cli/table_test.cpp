// Tests of cli/table.cpp against golden tables.
#include "cli/table.h"

#include <gtest/gtest.h>

using namespace cli;
using nlohmann::json;

namespace {

TEST(Table, ColumnsAreAlignedAndNumbersStandRight) {
    const json rows = json::array({{{"list", "wan"}, {"node", 5}, {"hops", {"192.0.2.1", "192.0.2.5"}}},
                                   {{"list", "a"}, {"node", 100}, {"hops", json::array()}}});
    EXPECT_EQ(tableText({{"LIST", "list"}, {"NODE", "node", true}, {"NEXT HOPS", "hops"}}, rows),
              "LIST  NODE  NEXT HOPS\n"
              "wan      5  192.0.2.1, 192.0.2.5\n"
              "a      100  -\n");
}

TEST(Table, RepeatedLeadingCellsAreLeftOut) {
    const json rows = json::array({{{"list", "a"}, {"node", 1}, {"hop", 1}}, {{"list", "a"}, {"node", 1}, {"hop", 2}},
                                   {{"list", "a"}, {"node", 2}, {"hop", 2}}, {{"list", "b"}, {"node", 2}, {"hop", 2}}});
    EXPECT_EQ(tableText({{"LIST", "list"}, {"NODE", "node", true}, {"HOP", "hop", true}}, rows, 2),
              "LIST  NODE  HOP\n"
              "a        1    1\n"
              "              2\n"
              "         2    2\n"
              "b        2    2\n");
}

TEST(Table, ValuesOfEveryKindHaveAText) {
    EXPECT_EQ(cellText(true), "yes");
    EXPECT_EQ(cellText(false), "no");
    EXPECT_EQ(cellText(json()), "-");
    EXPECT_EQ(cellText(""), "-");
    EXPECT_EQ(cellText(4294967295u), "4294967295");
    EXPECT_EQ(cellText(json::array({"a", 1})), "a, 1");
}

TEST(Table, ControlCharactersDoNotReachTheTerminal) { EXPECT_EQ(cellText("a\x1b[2Jb\n"), "a?[2Jb?"); }

TEST(Table, WidthCountsCharactersNotBytes) {
    const json rows = json::array({{{"a", "ä"}, {"b", "x"}}, {{"a", "ab"}, {"b", "y"}}});
    EXPECT_EQ(tableText({{"A", "a"}, {"B", "b"}}, rows), "A   B\nä   x\nab  y\n");
}

TEST(Table, AMissingMemberIsADash) {
    EXPECT_EQ(tableText({{"A", "a"}, {"B", "b"}}, json::array({{{"a", 1}}})), "A  B\n1  -\n");
}

} // namespace
