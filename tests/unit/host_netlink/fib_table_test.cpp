// Routing tables as values: longest match, metrics, legs, next-hop objects, changes in doubt.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <vector>

#include "host/fib/fib_asleep.h"
#include "host/fib/fib_table.h"
#include "lab.h"

namespace {

using host::FibEgress;
using host::FibLeg;
using host::FibNexthop;
using host::FibRoute;
using host::FibTables;
using Change = host::FibTables::Change;

constexpr uint32_t TABLE = 254;

FibLeg leg(uint32_t ifIndex, const std::string &gateway = "") {
    FibLeg made;
    made.ifIndex = ifIndex;
    if (!gateway.empty()) {
        made.gatewayVersion = lab::versionOf(gateway);
        made.gateway = lab::address(gateway);
    }
    return made;
}

FibRoute route(const std::string &prefix, uint8_t len, std::vector<FibLeg> legs, uint32_t metric = 0) {
    FibRoute made;
    made.prefix = lab::address(prefix);
    made.prefixLen = len;
    made.metric = metric;
    made.legs = std::move(legs);
    return made;
}

uint32_t egressOf(const FibTables &tables, const std::string &text, uint32_t table = TABLE) {
    const auto egress = tables.lookup(lab::versionOf(text), table, lab::address(text));
    return egress ? egress->ifIndex : 0;
}

TEST(FibTables, TheLongestPrefixWins) {
    FibTables tables;
    tables.routeAppend(4, TABLE, route("0.0.0.0", 0, {leg(1)}));
    tables.routeAppend(4, TABLE, route("10.0.0.0", 8, {leg(2)}));
    tables.routeAppend(4, TABLE, route("10.1.2.0", 23, {leg(3)}));
    tables.routeAppend(4, TABLE, route("10.1.2.3", 32, {leg(4)}));
    EXPECT_EQ(egressOf(tables, "192.0.2.1"), 1u);
    EXPECT_EQ(egressOf(tables, "10.9.9.9"), 2u);
    EXPECT_EQ(egressOf(tables, "10.1.3.255"), 3u);
    EXPECT_EQ(egressOf(tables, "10.1.2.3"), 4u);
    EXPECT_EQ(egressOf(tables, "10.1.4.0"), 2u);
}

TEST(FibTables, EveryPrefixLengthOfBothVersionsIsFound) {
    for (int version : {4, 6}) {
        const std::string text = version == 4 ? "203.0.113.255" : "2001:db8:ffff:ffff:ffff:ffff:ffff:ffff";
        const uint32_t longest = version == 4 ? 32 : 128;
        for (uint32_t len = 0; len <= longest; ++len) {
            FibTables tables;
            FibRoute made = route(text, static_cast<uint8_t>(len), {leg(len + 1)});
            made.prefix = host::fibMask(made.prefix, len);
            tables.routeAppend(version, TABLE, made);
            EXPECT_EQ(egressOf(tables, text), len + 1) << len;
        }
    }
}

TEST(FibTables, TablesAndVersionsAreApart) {
    FibTables tables;
    tables.routeAppend(4, 10, route("10.0.0.0", 8, {leg(1)}));
    EXPECT_EQ(egressOf(tables, "10.0.0.1", 10), 1u);
    EXPECT_EQ(egressOf(tables, "10.0.0.1", 11), 0u);
    EXPECT_EQ(egressOf(tables, "a00::1", 10), 0u);
}

TEST(FibTables, TheLowestMetricWinsWhateverTheOrderOfTelling) {
    for (bool lowFirst : {true, false}) {
        FibTables tables;
        tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(lowFirst ? 1 : 2)}, lowFirst ? 10 : 20), false);
        tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(lowFirst ? 2 : 1)}, lowFirst ? 20 : 10), false);
        EXPECT_EQ(egressOf(tables, "10.0.0.1"), 1u);
    }
}

TEST(FibTables, ARouteThatForbidsIsNoWayThoughAShorterOneExists) {
    for (uint8_t type : {RTN_UNREACHABLE, RTN_BLACKHOLE, RTN_PROHIBIT, RTN_THROW, RTN_LOCAL}) {
        FibTables tables;
        tables.routeAppend(4, TABLE, route("0.0.0.0", 0, {leg(1)}));
        FibRoute forbids = route("10.0.0.0", 8, {});
        forbids.type = type;
        tables.routeAppend(4, TABLE, forbids);
        EXPECT_EQ(egressOf(tables, "10.0.0.1"), 0u);
        EXPECT_EQ(egressOf(tables, "11.0.0.1"), 1u);
    }
}

TEST(FibTables, TheFirstUsableLegCountsRatherOneWithCarrier) {
    FibLeg dead = leg(1);
    dead.dead = true;
    FibLeg dark = leg(2);
    dark.linkDown = true;
    FibTables tables;
    tables.routeAppend(4, TABLE, route("10.0.0.0", 24, {dead, dark, leg(3), leg(4)}));
    tables.routeAppend(4, TABLE, route("10.0.1.0", 24, {dead, dark}));
    tables.routeAppend(4, TABLE, route("10.0.2.0", 24, {dead}));
    tables.routeAppend(4, TABLE, route("10.0.0.0", 16, {leg(9)}));
    EXPECT_EQ(egressOf(tables, "10.0.0.1"), 3u);
    EXPECT_EQ(egressOf(tables, "10.0.1.1"), 2u);
    EXPECT_EQ(egressOf(tables, "10.0.2.1"), 9u);
}

TEST(FibTables, AGatewayWithoutInterfaceIsResolvedOnceAndNotTwice) {
    FibTables tables;
    tables.routeAppend(4, TABLE, route("10.0.0.0", 24, {leg(5)}));
    tables.routeAppend(4, TABLE, route("10.1.0.0", 24, {leg(0, "10.0.0.1")}));
    tables.routeAppend(4, TABLE, route("10.2.0.0", 24, {leg(0, "10.1.0.1")}));
    const auto once = tables.lookup(4, TABLE, lab::address("10.1.0.7"));
    ASSERT_TRUE(once);
    EXPECT_EQ(*once, (FibEgress{5, true, lab::address("10.0.0.1"), 4}));
    EXPECT_FALSE(tables.lookup(4, TABLE, lab::address("10.2.0.7")));
}

TEST(FibTables, ANexthopObjectGivesTheLegsAndAGroupItsMembers) {
    FibTables tables;
    FibRoute byObject = route("10.0.0.0", 24, {leg(99)});
    byObject.nexthopId = 7;
    tables.routeAppend(4, TABLE, byObject);
    EXPECT_EQ(egressOf(tables, "10.0.0.1"), 99u) << "an object that is not known yet";
    tables.nexthopSet(7, FibNexthop{leg(1), false, {}});
    EXPECT_EQ(egressOf(tables, "10.0.0.1"), 1u);
    tables.nexthopSet(8, FibNexthop{leg(2), false, {}});
    tables.nexthopSet(7, FibNexthop{{}, false, {9, 8}});
    EXPECT_EQ(egressOf(tables, "10.0.0.1"), 2u);
    tables.nexthopSet(7, FibNexthop{{}, true, {}});
    EXPECT_EQ(egressOf(tables, "10.0.0.1"), 0u);
}

TEST(FibTables, AReplacedRouteTakesThePlaceOfTheOneWithItsMetric) {
    FibTables tables;
    EXPECT_EQ(tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(1)}, 10), false), Change::Done);
    EXPECT_EQ(tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(2)}, 20), false), Change::Done);
    EXPECT_EQ(tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(3)}, 10), true), Change::Done);
    EXPECT_EQ(tables.routeCount(), 2u);
    EXPECT_EQ(egressOf(tables, "10.0.0.1"), 3u);
}

TEST(FibTables, TheSameRouteAgainIsNoChange) {
    FibTables tables;
    (void)tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(1)}), false);
    EXPECT_EQ(tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(1)}), false), Change::None);
    EXPECT_EQ(tables.routeCount(), 1u);
}

TEST(FibTables, ASecondRouteOfOneMetricIsDoubtful) {
    FibTables tables;
    (void)tables.routeAdd(6, TABLE, route("2001:db8::", 32, {leg(1)}), false);
    EXPECT_EQ(tables.routeAdd(6, TABLE, route("2001:db8::", 32, {leg(2)}), false), Change::Doubt);
}

TEST(FibTables, ADeletedRouteIsGoneAndAStrangerIsDoubtful) {
    FibTables tables;
    (void)tables.routeAdd(4, TABLE, route("10.0.0.0", 8, {leg(1)}, 10), false);
    EXPECT_EQ(tables.routeDel(4, TABLE, route("10.0.0.0", 8, {leg(2)}, 10)), Change::Doubt);
    EXPECT_EQ(tables.routeDel(4, TABLE, route("10.0.0.0", 8, {leg(1)}, 11)), Change::None);
    EXPECT_EQ(tables.routeDel(4, TABLE, route("10.0.0.0", 9, {leg(1)}, 10)), Change::None);
    EXPECT_EQ(tables.routeDel(4, TABLE, route("10.0.0.0", 8, {leg(1)}, 10)), Change::Done);
    EXPECT_EQ(egressOf(tables, "10.0.0.1"), 0u);
}

TEST(FibTables, ATableReadAnewReplacesOnlyItself) {
    FibTables tables, fresh;
    tables.routeAppend(4, 10, route("10.0.0.0", 8, {leg(1)}));
    tables.routeAppend(4, 11, route("10.0.0.0", 8, {leg(2)}));
    fresh.routeAppend(4, 10, route("10.0.0.0", 8, {leg(3)}));
    tables.tableTake(4, 10, fresh);
    EXPECT_EQ(egressOf(tables, "10.0.0.1", 10), 3u);
    EXPECT_EQ(egressOf(tables, "10.0.0.1", 11), 2u);
    tables.tableTake(4, 10, fresh);
    EXPECT_EQ(egressOf(tables, "10.0.0.1", 10), 0u) << "nothing was read of it";
}

TEST(FibTables, ALookUpMayAskForPrefixesOfSomeLength) {
    FibTables tables;
    tables.routeAppend(4, TABLE, route("0.0.0.0", 0, {leg(1)}));
    tables.routeAppend(4, TABLE, route("10.1.0.0", 24, {leg(2)}));
    for (uint32_t shortest : {0u, 24u, 25u}) {
        const auto egress = tables.lookup(4, TABLE, lab::address("10.1.0.5"), shortest);
        EXPECT_EQ(egress ? egress->ifIndex : 0u, shortest == 25 ? 0u : 2u) << shortest;
    }
    EXPECT_FALSE(tables.lookup(4, TABLE, lab::address("8.8.8.8"), 1));
}

TEST(FibTables, TheNetworksOfALinkAreItsRoutesWithoutGateway) {
    FibTables tables;
    tables.routeAppend(4, TABLE, route("0.0.0.0", 0, {leg(7, "10.1.0.2")}));
    tables.routeAppend(4, TABLE, route("10.1.0.0", 24, {leg(7)}));
    tables.routeAppend(4, TABLE, route("10.2.0.0", 24, {leg(8), leg(7)}));
    tables.routeAppend(4, TABLE, route("10.3.0.0", 24, {leg(8)}));
    tables.routeAppend(6, 10, route("2001:db8::", 64, {leg(7)}));
    const std::vector<host::FibNetwork> expected = {{4, TABLE, lab::address("10.1.0.0"), 24, 7},
                                                    {4, TABLE, lab::address("10.2.0.0"), 24, 7},
                                                    {6, 10, lab::address("2001:db8::"), 64, 7}};
    EXPECT_TRUE(std::ranges::is_permutation(tables.networksOf(7), expected));
    EXPECT_TRUE(tables.networksOf(9).empty());
}

TEST(FibAsleep, TheLongestNetworkOfTheTableTells) {
    host::FibAsleep asleep;
    asleep.add({4, TABLE, lab::address("10.0.0.0"), 8, 1});
    asleep.add({4, TABLE, lab::address("10.1.0.0"), 24, 2});
    asleep.add({6, TABLE, lab::address("2001:db8::"), 32, 2});
    EXPECT_EQ(asleep.longest(4, TABLE, lab::address("10.1.0.9")), 24u);
    EXPECT_EQ(asleep.longest(4, TABLE, lab::address("10.9.0.9")), 8u);
    EXPECT_EQ(asleep.longest(4, TABLE, lab::address("11.0.0.1")), 0u);
    EXPECT_EQ(asleep.longest(4, 10, lab::address("10.1.0.9")), 0u);
    EXPECT_EQ(asleep.longest(6, TABLE, lab::address("2001:db8:1::")), 32u);
    asleep.networkDel(1, 4, lab::address("10.1.0.0"), 24); // not this link's
    EXPECT_EQ(asleep.longest(4, TABLE, lab::address("10.1.0.9")), 24u);
    asleep.networkDel(2, 4, lab::address("10.1.0.0"), 24);
    EXPECT_EQ(asleep.longest(4, TABLE, lab::address("10.1.0.9")), 8u);
    asleep.linkDel(2);
    EXPECT_EQ(asleep.longest(6, TABLE, lab::address("2001:db8:1::")), 0u);
}

TEST(FibAsleep, ShortPrefixesAreWaysAndNoNetworks) {
    host::FibAsleep asleep;
    asleep.add({4, TABLE, lab::address("0.0.0.0"), 7, 1});
    asleep.add({6, TABLE, lab::address("2000::"), 31, 1});
    EXPECT_EQ(asleep.longest(4, TABLE, lab::address("1.1.1.1")), 0u);
    EXPECT_EQ(asleep.longest(6, TABLE, lab::address("2000::1")), 0u);
}

} // namespace
