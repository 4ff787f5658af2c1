// The desired state: what a take of the redirect view changes, and which lists it names.
#include <gtest/gtest.h>

#include "host/device/desired/desired_show.h"
#include "host/device/device.h"
#include "tests/unit/host_memory/fake_view.h"

namespace {

using namespace host;
using fakeview::nextHop;
using Names = std::vector<std::string>;

class Desired : public testing::Test {
protected:
    void SetUp() override { fakeview::reset(); }

    Names take(std::vector<std::pair<std::string, std::vector<PbrRedirect>>> lists, bool visitsAll = false) {
        fakeview::next = {std::move(lists), visitsAll};
        return desiredStateTake(state, false);
    }
    DesiredState state;
};

TEST_F(Desired, TakesEntriesByInterfaceAndNode) {
    EXPECT_EQ(take({{"wan", {nextHop(7, 10, 1), nextHop(7, 20, 2), nextHop(8, 10, 1)}}}), Names{"wan"});
    const auto &entries = state.lists.at("wan");
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries.at({7, 20}).nextHops.at(0), (IpAddress{192, 0, 2, 2}));
    EXPECT_EQ(entries.at({8, 10}).aclNum, 1510u);
    EXPECT_EQ(entries.at({8, 10}).list, "wan");
}

TEST_F(Desired, NamesNoListWhenNothingDiffers) {
    take({{"wan", {nextHop(7, 10, 1)}}});
    EXPECT_EQ(take({{"wan", {nextHop(7, 10, 1)}}}), Names{});
}

TEST_F(Desired, NamesTheListOfAChangedEntry) {
    take({{"a", {nextHop(7, 10, 1)}}, {"b", {nextHop(8, 10, 1)}}});
    EXPECT_EQ(take({{"a", {nextHop(7, 10, 1)}}, {"b", {nextHop(8, 10, 2)}}}), Names{"b"});
    EXPECT_EQ(state.lists.at("b").at({8, 10}).nextHops.at(0)[3], 2);
}

TEST_F(Desired, AnEntryThatIsNotVisitedAnyMoreIsGone) {
    take({{"a", {nextHop(7, 10, 1), nextHop(8, 10, 1)}}});
    EXPECT_EQ(take({{"a", {nextHop(8, 10, 1)}}}), Names{"a"});
    EXPECT_EQ(state.lists.at("a").size(), 1u);
}

TEST_F(Desired, AListWithoutEntriesIsGone) {
    take({{"a", {nextHop(7, 10, 1)}}});
    EXPECT_EQ(take({{"a", {}}}), Names{"a"});
    EXPECT_TRUE(state.lists.empty());
    EXPECT_EQ(take({{"a", {}}}), Names{});
}

TEST_F(Desired, AListThatIsNotMarkedStaysAsItIs) {
    take({{"a", {nextHop(7, 10, 1)}}, {"b", {nextHop(8, 10, 1)}}});
    EXPECT_EQ(take({{"a", {nextHop(7, 10, 3)}}}), Names{"a"});
    EXPECT_EQ(state.lists.size(), 2u);
}

TEST_F(Desired, AListThatAVisitOfAllLeavesOutIsGone) {
    take({{"a", {nextHop(7, 10, 1)}}, {"b", {nextHop(8, 10, 1)}}});
    EXPECT_EQ(take({{"b", {nextHop(8, 10, 1)}}}, true), Names{"a"});
    EXPECT_EQ(state.lists.count("a"), 0u);
    EXPECT_EQ(state.lists.count("b"), 1u);
}

TEST_F(Desired, AsksForAllListsWhenTold) {
    fakeview::next = {{{"b", {nextHop(8, 10, 1)}}}, false};
    EXPECT_EQ(desiredStateTake(state, true), Names{"b"});
    EXPECT_EQ(fakeview::takes, std::vector<bool>{true});
}

TEST_F(Desired, KeepsAbsentEntries) {
    PbrRedirect absent = nextHop(7, 10, 1);
    absent.kind = PBR_REDIRECT_ABSENT;
    absent.nextHopCount = 0;
    EXPECT_EQ(take({{"a", {absent}}}), Names{"a"});
    EXPECT_EQ(state.lists.at("a").at({7, 10}).kind, PBR_REDIRECT_ABSENT);
}

TEST_F(Desired, EveryFieldCountsAsADifference) {
    const PbrRedirect base = nextHop(7, 10, 1);
    const auto differs = [&](auto change) {
        take({{"a", {base}}});
        PbrRedirect other = base;
        change(other);
        return take({{"a", {other}}}) == Names{"a"};
    };
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.aclNum++; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.kind = PBR_REDIRECT_INERT; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.ipVer = 2; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.isEcmp = 1; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.newIpPri = 5; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.vrfid = 10; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.outIfUnit = 3; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.configuredCount = 2; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.choice = 5; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.hasStandby = 1; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.nextHopCount = 2; }));
    EXPECT_TRUE(differs([](PbrRedirect &r) { r.nextHops[0][3] = 9; }));
    EXPECT_FALSE(differs([](PbrRedirect &) {}));
}

TEST_F(Desired, TakesTheOrderOfNextHopsAndTheirWholeAddress) {
    PbrRedirect redirect = nextHop(7, 10, 1);
    redirect.ipVer = 2;
    redirect.nextHopCount = PBR_REDIRECT_MAX_NEXT_HOPS;
    for (uint32_t i = 0; i < PBR_REDIRECT_MAX_NEXT_HOPS; i++) {
        redirect.nextHops[i][15] = static_cast<uint8_t>(255 - i);
    }
    redirect.pListName = reinterpret_cast<const uint8_t *>("wan-and-more");
    redirect.listNameLen = 3;
    const RedirectEntry entry = redirectEntryFrom(redirect);
    EXPECT_EQ(entry.list, "wan");
    ASSERT_EQ(entry.nextHops.size(), 255u);
    EXPECT_EQ(entry.nextHops[0][15], 255);
    EXPECT_EQ(entry.nextHops[254][15], 1);
}

TEST_F(Desired, AnIpv4NextHopHasNothingBehindItsFourBytes) {
    PbrRedirect redirect = nextHop(7, 10, 1);
    redirect.pListName = reinterpret_cast<const uint8_t *>("a");
    redirect.listNameLen = 1;
    redirect.nextHops[0][4] = 77;
    EXPECT_EQ(redirectEntryFrom(redirect).nextHops[0], (IpAddress{192, 0, 2, 1}));
}

TEST_F(Desired, ShowsEntriesForPeople) {
    PbrRedirect outIf = nextHop(7, 20, 1);
    outIf.kind = PBR_REDIRECT_OUT_IF;
    outIf.nextHopCount = 0;
    outIf.outIfUnit = 999999;
    take({{"wan", {nextHop(999998, 10, 1), outIf}}});
    const auto shown = desiredStateShow(state, [](const RedirectEntry &entry) {
        return EntryStatus{entry.nodeIndex == 10, entry.nodeIndex == 10 ? "" : "refused"};
    });
    ASSERT_EQ(shown.size(), 2u);
    EXPECT_EQ(shown[1], nlohmann::json::parse(R"({"list": "wan", "node": 10, "interface": "if999998",
        "ifUnit": 999998, "acl": 1510, "action": "next-hops", "ipVersion": 4, "ecmp": false,
        "nextHops": ["192.0.2.1"], "outInterface": "", "vrf": 0, "priority": 0, "installed": true, "error": ""})"));
    EXPECT_EQ(shown[0].value("action", ""), "out-interface");
    EXPECT_EQ(shown[0].value("outInterface", ""), "if999999");
    EXPECT_EQ(shown[0].value("error", ""), "refused");
}

} // namespace
