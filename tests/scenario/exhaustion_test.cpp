// Pools that run out: the published result, an unharmed store, and the same operation once there is room.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

// Two lists, three nodes, twelve next hops and probes, two interfaces, six links.
class Exhaustion : public Scene {
protected:
    void SetUp() override {
        maxLists_ = 2;
        maxNodes_ = 3;
        maxIfs_ = 2;
        Scene::SetUp();
    }
    // A list of `nodes` nodes 10, 20, ... that go out of interface 99.
    void haveOutNodes(const char *pList, uint32_t nodes, uint32_t acl) {
        for (uint32_t i = 1; i <= nodes; i++) {
            haveNode(pList, 10 * i, acl + i);
            ASSERT_EQ(PBR_OK, nodeSet(pList, 10 * i, PBR_NODE_OUT_IF_UNIT, 99));
        }
    }
    static uint32_t taken(const char *pPool) { return fake::slotsTaken(pPool); }
};

// ---- making the pools ----

// Which of the six pools cannot be made.
class NoPools : public Scene, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(NoPools, AFirstListOrInterfaceIsRefusedUntilThePoolsCanBeMade) {
    for (bool isList : {true, false}) {
        const auto create = [&] { return isList ? listSet("wan", PBR_ROW_CREATED) : ifSet(1, PBR_IF_CREATE); };
        fake::answerNth("silMemPoolInit", GetParam(), -1);
        EXPECT_EQ(PBR_ERR_NO_RECORD, create());
        EXPECT_EQ(0u, gPbrInfo.memAllocated);
        EXPECT_EQ(PBR_ERR_NO_ROW, ifList(1, "wan"));
        EXPECT_EQ(PBR_OK, create());
        EXPECT_EQ(PBR_OK, isList ? listSet("wan", PBR_ROW_DESTROY) : ifSet(1, PBR_IF_DESTROY));
        EXPECT_FALSE(fake::poolExists("pbr_if"));
    }
}

INSTANTIATE_TEST_SUITE_P(Pools, NoPools, ::testing::Range(1u, 7u));

// ---- each pool, really full ----

TEST_F(Exhaustion, AListTooManyIsRefusedUntilOneIsDestroyed) {
    ASSERT_EQ(PBR_OK, listSet("a", PBR_ROW_CREATED));
    ASSERT_EQ(PBR_OK, listSet("b", PBR_ROW_CREATED));
    EXPECT_EQ(PBR_ERR_NO_RECORD, listSet("c", PBR_ROW_CREATED));
    EXPECT_EQ(PBR_ERR_NO_ROW, listSet("c", PBR_ROW_ACTIVE));
    EXPECT_EQ(PBR_OK, listSet("a", PBR_ROW_CREATED)) << "one that exists";
    EXPECT_EQ(PBR_OK, ifSet(1, PBR_IF_CREATE)) << "interfaces have a pool of their own";
    ASSERT_EQ(PBR_OK, listSet("a", PBR_ROW_DESTROY));
    EXPECT_EQ(PBR_OK, listSet("c", PBR_ROW_CREATED));
    EXPECT_EQ(2u, gPbrInfo.listCount);
}

TEST_F(Exhaustion, ANodeTooManyIsRefusedInEveryListUntilOneIsDestroyed) {
    haveOutNodes("a", 2, 1500);
    haveOutNodes("b", 1, 1600);
    EXPECT_EQ(PBR_ERR_NO_RECORD, nodeSet("a", 15, PBR_NODE_STATUS, PBR_ROW_CREATED));
    EXPECT_EQ(PBR_ERR_NO_RECORD, nodeSet("b", 5, PBR_NODE_STATUS, PBR_ROW_CREATED));
    EXPECT_EQ(PBR_ERR_NO_ROW, nodeSet("a", 15, PBR_NODE_ACL_NUM, 1999));
    ASSERT_EQ(PBR_OK, nodeSet("b", 10, PBR_NODE_STATUS, PBR_ROW_DESTROY));
    EXPECT_EQ(PBR_OK, nodeSet("a", 15, PBR_NODE_STATUS, PBR_ROW_CREATED));
    EXPECT_EQ(3u, taken("pbr_node"));
    EXPECT_EQ(PBR_OK, nodeSet("a", 15, PBR_NODE_ACL_NUM, 1601)) << "the destroyed node's ACL is free";
}

TEST_F(Exhaustion, ANextHopTooManyIsRefusedUntilOthersAreCleared) {
    haveNode("a", 10, 1501, 1);
    for (uint8_t hop = 1; hop <= 12; hop++) {
        ASSERT_EQ(PBR_OK, hopSet("a", 10, hop, PBR_ROW_CREATED));
    }
    haveNode("a", 20, 1502, 1);
    EXPECT_EQ(PBR_ERR_NO_RECORD, hopSet("a", 20, 1, PBR_ROW_CREATED));
    EXPECT_EQ(PBR_ERR_NO_RECORD, hopSet("a", 10, 13, PBR_ROW_CREATED));
    EXPECT_EQ(PBR_ERR_NO_ROW, hopAddress("a", 20, 1, A));
    ASSERT_EQ(PBR_OK, hopSet("a", 10, 7, PBR_ROW_DESTROY));
    EXPECT_EQ(PBR_OK, hopSet("a", 20, 1, PBR_ROW_CREATED));
    EXPECT_EQ(PBR_ERR_NO_RECORD, hopSet("a", 20, 2, PBR_ROW_CREATED));
    ASSERT_EQ(PBR_OK, nodeSet("a", 10, PBR_NODE_CLEAR, 1));
    EXPECT_EQ(1u, taken("pbr_nexthop"));
    EXPECT_EQ(PBR_OK, hopSet("a", 20, 2, PBR_ROW_CREATED));
}

TEST_F(Exhaustion, AnInterfaceTooManyIsRefusedUntilOneVanishes) {
    haveOutNodes("a", 1, 1500);
    ASSERT_EQ(PBR_OK, bind(1, "a"));
    ASSERT_EQ(PBR_OK, bind(2, "a"));
    EXPECT_EQ(PBR_ERR_NO_RECORD, ifSet(3, PBR_IF_CREATE));
    EXPECT_EQ(PBR_ERR_NO_ROW, ifList(3, "a"));
    EXPECT_EQ(2u, calls().size());
    receive(interfaceGone(1));
    EXPECT_EQ(PBR_OK, bind(3, "a"));
    EXPECT_EQ("out 99", view(3, "a", 10));
    EXPECT_EQ((Plane{{{2, 1501}, "act=4 pri=0 vrf=0 hops=00000063"}, {{3, 1501}, "act=4 pri=0 vrf=0 hops=00000063"}}),
              calls());
}

TEST_F(Exhaustion, EveryLinkInUseIsNoReasonToRefuseARebinding) {
    haveOutNodes("a", 3, 1500);
    ASSERT_EQ(PBR_OK, bind(1, "a"));
    ASSERT_EQ(PBR_OK, bind(2, "a"));
    ASSERT_EQ(6u, taken("pbr_ifnode"));
    ASSERT_EQ(6u, fake::poolSlots("pbr_ifnode"));
    ASSERT_EQ(PBR_OK, listSet("b", PBR_ROW_CREATED)); // without nodes: nothing to link
    EXPECT_EQ(PBR_OK, ifList(1, "b")) << "the old binding goes first";
    EXPECT_EQ(3u, taken("pbr_ifnode"));
    EXPECT_EQ(PBR_OK, ifList(1, "a"));
    EXPECT_EQ(6u, calls().size());
}

TEST_F(Exhaustion, AProbeRecordTooManyIsNotReportedAndItsHopIsUsableOnceActivatedAnew) {
    haveNode("a", 10, 1501, 1);
    haveHops("a", 10, {A});
    peer(A, true);
    ASSERT_EQ(PBR_OK, hopText("a", 10, 1, PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"));
    for (uint32_t i = 1; i <= 12; i++) { // each name leaves its record behind
        ASSERT_EQ(PBR_OK, hopText("a", 10, 1, PBR_NEXT_HOP_NQA_TEST_NAME, "old" + std::to_string(i)));
        ASSERT_EQ(PBR_OK, hopSet("a", 10, 1, PBR_ROW_ACTIVE));
    }
    ASSERT_EQ(12u, taken("pbr_nqa"));
    (void)work();
    ASSERT_EQ(PBR_OK, hopText("a", 10, 1, PBR_NEXT_HOP_NQA_TEST_NAME, "isp"));
    EXPECT_EQ(PBR_OK, hopSet("a", 10, 1, PBR_ROW_ACTIVE));
    EXPECT_TRUE(work().empty()) << "no record, no question for its state";
    ASSERT_EQ(PBR_OK, bind(1, "a"));
    receive(probe("ops", "isp", 1));
    second();
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "ON 1"}), work());
    EXPECT_EQ("inert", view(1, "a", 10));

    // A hop that bears an old name takes that record with it.
    ASSERT_EQ(PBR_OK, unbind(1));
    ASSERT_EQ(PBR_OK, hopSet("a", 10, 2, PBR_ROW_CREATED));
    ASSERT_EQ(PBR_OK, hopText("a", 10, 2, PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"));
    ASSERT_EQ(PBR_OK, hopText("a", 10, 2, PBR_NEXT_HOP_NQA_TEST_NAME, "old5"));
    ASSERT_EQ(PBR_OK, hopSet("a", 10, 2, PBR_ROW_DESTROY));
    EXPECT_EQ(11u, taken("pbr_nqa"));
    (void)work();
    EXPECT_EQ(PBR_OK, hopSet("a", 10, 1, PBR_ROW_ACTIVE));
    EXPECT_EQ(Lines{"STATE? ops/isp"}, work());
    ASSERT_EQ(PBR_OK, bind(1, "a"));
    receive(probe("ops", "isp", 1));
    second();
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "ON 1", "ADD 1/1501 act=7 hops=A"}), work());
    EXPECT_EQ("A", view(1, "a", 10));
}

// ---- a binding that runs out of links half-way ----

// The node whose link is the one too many, of three.
class HalfBinding : public Exhaustion, public ::testing::WithParamInterface<uint32_t> {
protected:
    void SetUp() override {
        Exhaustion::SetUp();
        haveNode("a", 10, 1501, 1);
        haveHops("a", 10, {A, B});
        haveNode("a", 20, 1502);
        ASSERT_EQ(PBR_OK, nodeSet("a", 20, PBR_NODE_OUT_IF_UNIT, 99));
        haveNode("a", 30, 1503);
        ASSERT_EQ(PBR_OK, nodeSet("a", 30, PBR_NODE_IP_PRI, 3));
        peer(A, true);
        peer(B, true);
        ASSERT_EQ(PBR_OK, ifSet(1, PBR_IF_CREATE));
        ASSERT_EQ(PBR_OK, ifSet(2, PBR_IF_CREATE));
        (void)work();
    }
    void bindWithout(uint32_t unit, uint32_t node) {
        allowed_ = STORE_ALLOW_COUNTS; // the use count is raised for ever
        fake::answerNth("silMemPoolAlloc", node, 0);
        EXPECT_EQ(PBR_ERR_BIND, ifList(unit, "a"));
    }
    static Lines firstOf(const Lines &all, size_t count) {
        return Lines(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count));
    }
};

TEST_P(HalfBinding, KeepsWhatWasDoneUpToTheMissingLinkAndNoMore) {
    const uint32_t failing = GetParam();
    bindWithout(1, failing);
    const Lines all = {"USE 1501 +1", "WATCH A", "WATCH B", "USE 1502 +1", "ADD 1/1502 act=4 if=99", "USE 1503 +1"};
    const size_t until[] = {0, 1, 4, 6}; // the ACL is told before the link is made; the protocol stays off
    EXPECT_EQ(firstOf(all, until[failing]), work());
    EXPECT_EQ(failing - 1, taken("pbr_ifnode"));
    EXPECT_EQ(PBR_ERR_IN_USE, nodeSet("a", 10, PBR_NODE_IP_PRI, 1)) << "the list counts as used: published";
    second();
    EXPECT_TRUE(work().empty()) << "the interface is not in the list's chain";

    ASSERT_EQ(PBR_OK, unbind(1)); // without a list's name there is nothing to unbind: published
    EXPECT_TRUE(work().empty());
    EXPECT_EQ(0u, taken("pbr_ifnode"));
    EXPECT_TRUE(mirror().lists().empty());
    EXPECT_EQ(failing == 3 ? 1u : 0u, calls().size()) << "an entry that was written stays";
}

TEST_P(HalfBinding, TheSameInterfaceBoundAgainHasSomeLinksTwiceAndAnUnbindTakesThemAll) {
    const uint32_t failing = GetParam();
    bindWithout(1, failing);
    (void)work();
    EXPECT_EQ(PBR_OK, ifList(1, "a"));
    EXPECT_EQ(failing - 1 + 3, taken("pbr_ifnode"));
    second();
    EXPECT_EQ(failing == 1 ? "inert" : "A", view(1, "a", 10)) << "not a first binding: watched by the half one or not";
    EXPECT_EQ("out 99", view(1, "a", 20));
    EXPECT_EQ("priority 3", view(1, "a", 30));
    (void)work();
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ(0u, taken("pbr_ifnode"));
    EXPECT_TRUE(calls().empty());
    EXPECT_TRUE(mirror().lists().empty());
    EXPECT_EQ(PBR_ERR_IN_USE, listSet("a", PBR_ROW_DESTROY)) << "one use is over";
}

TEST_P(HalfBinding, AnotherInterfaceIsBoundWholeThoughItIsNotTheFirstAnyMore) {
    bindWithout(1, GetParam());
    ASSERT_EQ(PBR_OK, unbind(1));
    second();
    (void)work();
    EXPECT_EQ(PBR_OK, ifList(2, "a"));
    EXPECT_EQ(3u, taken("pbr_ifnode"));
    EXPECT_EQ("out 99", view(2, "a", 20));
    EXPECT_EQ("priority 3", view(2, "a", 30));
    // The use count is 2, so the hops are taken for watched: they are when the first link was made.
    const bool isWatched = GetParam() != 1;
    EXPECT_EQ(isWatched, isPeerRegistered(A));
    EXPECT_EQ(isWatched ? "A" : "inert", view(2, "a", 10));
    const Lines others = {"USE 1502 +1", "ADD 2/1502 act=4 if=99", "USE 1503 +1", "ADD 2/1503 act=0 pri=3 hops=",
                          "ON 2"};
    Lines expected = {"USE 1501 +1"};
    if (isWatched) {
        expected.push_back("ADD 2/1501 act=0 hops=A,B");
    }
    expected.insert(expected.end(), others.begin(), others.end());
    EXPECT_EQ(expected, work());
    second();
    EXPECT_TRUE(work().empty());
}

TEST_P(HalfBinding, ABindingBesideAWholeOneLeavesThatOneForwarding) {
    ASSERT_EQ(PBR_OK, ifList(2, "a"));
    second();
    const Plane before = calls();
    ASSERT_EQ("A", view(2, "a", 10));
    bindWithout(1, GetParam());
    EXPECT_EQ("A", view(2, "a", 10));
    EXPECT_EQ("out 99", view(2, "a", 20));
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ("priority 3", view(2, "a", 30));
    for (const auto &[key, entry] : before) {
        EXPECT_EQ(entry, calls().at(key)) << key.first << "/" << key.second;
    }
    peer(A, false);
    EXPECT_EQ("B", view(2, "a", 10));
    second();
    EXPECT_EQ("best=B", marks("a", 10).substr(0, 6));
    EXPECT_EQ("2:1", statuses("a", 10));
}

INSTANTIATE_TEST_SUITE_P(Nodes, HalfBinding, ::testing::Range(1u, 4u));

TEST_F(Exhaustion, ARebindingThatRunsOutOfLinksLeavesTheInterfaceWithoutAList) {
    haveOutNodes("a", 1, 1500);
    haveOutNodes("b", 2, 1600);
    ASSERT_EQ(PBR_OK, bind(1, "a"));
    (void)work();
    allowed_ = STORE_ALLOW_COUNTS;
    fake::answerNth("silMemPoolAlloc", 2, 0);
    EXPECT_EQ(PBR_ERR_BIND, ifList(1, "b"));
    EXPECT_EQ((Lines{"USE 1501 -1", "DEL 1/1501 act=4 if=99", "OFF 1", "USE 1601 +1", "ADD 1/1601 act=4 if=99",
                     "USE 1602 +1"}),
              work());
    EXPECT_EQ(PBR_OK, ifList(1, "a")) << "the old one can be bound again";
    EXPECT_EQ("out 99", view(1, "a", 10));
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ(0u, taken("pbr_ifnode"));
    EXPECT_EQ(PBR_OK, listSet("a", PBR_ROW_DESTROY));
}

} // namespace
