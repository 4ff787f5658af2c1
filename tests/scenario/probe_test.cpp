// Probes: their states decide over next hops of several nodes and lists; names given early and late.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

constexpr uint8_t PASSING = 1, FAILING = 2, NO_RESULT = 3;

class Probe : public Scene {
protected:
    // Every peer is up. "wan" node 10: A with the probe ops/isp, B without.
    void SetUp() override {
        Scene::SetUp();
        for (const char *pAddress : {A, B, C}) {
            peer(pAddress, true);
        }
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        named("wan", 10, 1, "isp");
        (void)work();
    }
    // Names the probe ops/<test> of a next hop and activates it.
    void named(const char *pList, uint32_t node, uint8_t hop, const char *pTest) {
        ASSERT_EQ(PBR_OK, hopText(pList, node, hop, PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"));
        ASSERT_EQ(PBR_OK, hopText(pList, node, hop, PBR_NEXT_HOP_NQA_TEST_NAME, pTest));
        ASSERT_EQ(PBR_OK, hopSet(pList, node, hop, PBR_ROW_ACTIVE));
    }
    void told(uint8_t status, const char *pTest = "isp") { receive(probe("ops", pTest, status)); }
    void bound(uint32_t unit, const char *pList) {
        ASSERT_EQ(PBR_OK, bind(unit, pList));
        second();
        (void)work();
    }
    const Lines rewrite_ = {"DEL 1/1501 act=0 hops=A,B", "ADD 1/1501 act=0 hops=A,B"};
};

// ---- one next hop ----

TEST_F(Probe, AStateThatIsAskedForAndToldBeforeTheBindingCounts) {
    named("wan", 10, 2, "lte");
    EXPECT_EQ(Lines{"STATE? ops/lte"}, work());
    told(PASSING);
    EXPECT_EQ("", queued()) << "nobody is bound";
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 1", "ADD 1/1501 act=0 hops=A,B"}), work());
    EXPECT_EQ("best=A", marks("wan", 10).substr(0, 6));
}

TEST_F(Probe, TheHopIsUsedWhileItsProbePassesAndLeftWhenItDoesNot) {
    bound(1, "wan");
    EXPECT_EQ("B", view(1, "wan", 10)) << "nothing is known of a new probe";
    told(PASSING);
    EXPECT_EQ("A", view(1, "wan", 10));
    EXPECT_EQ("wan", queued());
    second();
    EXPECT_EQ(rewrite_, work());
    told(PASSING); // the same again
    EXPECT_EQ("", queued());
    told(FAILING);
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    EXPECT_EQ(rewrite_, work());
    told(PASSING);
    second();
    told(NO_RESULT); // kept as failing
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    EXPECT_EQ((Lines{rewrite_[0], rewrite_[1], rewrite_[0], rewrite_[1]}), work());
    told(NO_RESULT); // a change by what was told, none by what is kept: queued, and nothing to write
    EXPECT_EQ("wan", queued());
    second();
    EXPECT_TRUE(work().empty());
}

TEST_F(Probe, AProbeThatFlapsBetweenRunsEndsWhereItEnds) {
    told(PASSING);
    bound(1, "wan");
    for (uint32_t i = 0; i < 50; i++) {
        told(FAILING);
        told(PASSING);
    }
    second();
    EXPECT_TRUE(work().empty());
    told(FAILING);
    peer(B, false);
    EXPECT_EQ("inert", view(1, "wan", 10));
    second();
    EXPECT_EQ(Lines{"DEL 1/1501 act=0 hops=A,B"}, work());
    told(PASSING);
    second();
    EXPECT_EQ(Lines{"ADD 1/1501 act=0 hops=A,B"}, work());
    EXPECT_EQ("A", view(1, "wan", 10));
}

TEST_F(Probe, AReachableHopNeedsItsProbeAndAPassingProbeNeedsTheHop) {
    told(PASSING);
    bound(1, "wan");
    peer(A, false);
    EXPECT_EQ("B", view(1, "wan", 10));
    told(FAILING);
    peer(A, true);
    EXPECT_EQ("B", view(1, "wan", 10));
    told(PASSING);
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    EXPECT_TRUE(work().empty()) << "A before, A after";
}

// ---- several ----

TEST_F(Probe, OneProbeOfHopsInSeveralNodesAndListsMovesThemAll) {
    haveNode("wan", 20, 1502, 1);
    haveHops("wan", 20, {C, A});
    named("wan", 20, 1, "isp");
    haveNode("zone", 10, 1601, 1);
    haveHops("zone", 10, {A});
    named("zone", 10, 1, "isp");
    haveNode("idle", 10, 1701, 1);
    haveHops("idle", 10, {A});
    named("idle", 10, 1, "isp");
    EXPECT_TRUE(work().empty()) << "one record, which was asked for already";
    EXPECT_EQ(1u, fake::slotsTaken("pbr_nqa"));
    bound(1, "wan");
    bound(2, "zone");
    told(PASSING);
    EXPECT_EQ("zone,wan", queued());
    EXPECT_EQ("A", view(1, "wan", 10));
    EXPECT_EQ("C", view(1, "wan", 20));
    EXPECT_EQ("A", view(2, "zone", 10));
    second();
    EXPECT_EQ((Lines{"ADD 2/1601 act=7 hops=A", rewrite_[0], rewrite_[1], "DEL 1/1502 act=0 hops=C,A",
                     "ADD 1/1502 act=0 hops=C,A"}),
              work());
    told(FAILING);
    second();
    EXPECT_EQ((Lines{"DEL 2/1601 act=7 hops=A", rewrite_[0], rewrite_[1], "DEL 1/1502 act=0 hops=C,A",
                     "ADD 1/1502 act=0 hops=C,A"}),
              work());
    EXPECT_EQ("B", view(1, "wan", 10));
    EXPECT_EQ("A", view(1, "wan", 20));
    EXPECT_EQ("inert", view(2, "zone", 10));
}

TEST_F(Probe, BoundListsBehindTheFirstUserAreQueuedTooAndCostNothing) {
    haveNode("aaa", 10, 1401, 1);
    haveHops("aaa", 10, {B});
    haveNode("zzz", 10, 1601, 1);
    haveHops("zzz", 10, {C});
    bound(1, "wan");
    bound(2, "zzz");
    bound(3, "aaa");
    told(PASSING);
    EXPECT_EQ("zzz,wan", queued()) << "those behind it, not those before it";
    second();
    EXPECT_EQ(rewrite_, work());
    EXPECT_EQ("", queued());
}

TEST_F(Probe, EachHopFollowsItsOwnProbe) {
    named("wan", 10, 2, "lte");
    bound(1, "wan");
    EXPECT_EQ("inert", view(1, "wan", 10));
    told(PASSING, "lte");
    EXPECT_EQ("B", view(1, "wan", 10));
    told(PASSING, "isp");
    EXPECT_EQ("A", view(1, "wan", 10));
    told(FAILING, "lte");
    EXPECT_EQ("A", view(1, "wan", 10));
    told(FAILING, "isp");
    EXPECT_EQ("inert", view(1, "wan", 10));
    receive(joined({probe("ops", "isp", PASSING), probe("ops", "lte", PASSING), probe("ops", "isp", FAILING)}));
    EXPECT_EQ("B", view(1, "wan", 10)) << "in order, in one read";
    second();
    EXPECT_EQ(Lines{"ADD 1/1501 act=0 hops=A,B"}, work());
}

TEST_F(Probe, AnEcmpNodeDoesNotAskItsProbesAndIsQueuedByThem) {
    haveNode("set", 10, 1601, 1);
    ASSERT_EQ(PBR_OK, nodeSet("set", 10, PBR_NODE_IS_ECMP, 1));
    haveHops("set", 10, {A, B});
    named("set", 10, 1, "isp");
    bound(2, "set");
    EXPECT_EQ("AB", view(2, "set", 10));
    told(PASSING);
    told(FAILING);
    EXPECT_EQ("AB", view(2, "set", 10));
    second();
    EXPECT_EQ((Lines{"DEL 2/1601 act=0 hops=", "ADD 2/1601 act=8 hops=A,B"}), work());
}

// ---- names given late, changed, and given up ----

TEST_F(Probe, NamesSetAfterTheActivationHaveNoRecordUntilItIsActivatedAgain) {
    haveNode("late", 10, 1601, 1);
    haveHops("late", 10, {A}); // active, and has no probe yet
    ASSERT_EQ(PBR_OK, hopText("late", 10, 1, PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"));
    ASSERT_EQ(PBR_OK, hopText("late", 10, 1, PBR_NEXT_HOP_NQA_TEST_NAME, "new"));
    EXPECT_TRUE(work().empty()) << "nobody asked for its state";
    bound(1, "late");
    told(PASSING, "new");
    EXPECT_EQ("inert", view(1, "late", 10)) << "without a record the hop is never used: published";
    EXPECT_EQ("", queued());
    EXPECT_EQ(PBR_ERR_IN_USE, hopSet("late", 10, 1, PBR_ROW_ACTIVE)) << "while the list is bound";
    ASSERT_EQ(PBR_OK, unbind(1));
    (void)work();
    ASSERT_EQ(PBR_OK, hopSet("late", 10, 1, PBR_ROW_ACTIVE));
    EXPECT_EQ(Lines{"STATE? ops/new"}, work());
    bound(1, "late");
    told(PASSING, "new");
    EXPECT_EQ("A", view(1, "late", 10));
    second();
    EXPECT_EQ(Lines{"ADD 1/1601 act=7 hops=A"}, work());
}

TEST_F(Probe, ActivatingAgainAsksNothingAndKeepsWhatIsKnown) {
    told(PASSING);
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_INACTIVE));
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_ACTIVE));
    EXPECT_TRUE(work().empty());
    bound(1, "wan");
    EXPECT_EQ("A", view(1, "wan", 10));
}

TEST_F(Probe, ARenamedProbeLeavesItsRecordBehindAndTheHopFollowsTheNewNameOnceActivated) {
    told(PASSING);
    ASSERT_EQ(PBR_OK, hopText("wan", 10, 1, PBR_NEXT_HOP_NQA_TEST_NAME, "new"));
    bound(1, "wan");
    EXPECT_EQ("B", view(1, "wan", 10)) << "the old record does not count, the new one is missing";
    ASSERT_EQ(PBR_OK, unbind(1));
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_ACTIVE));
    EXPECT_EQ(2u, fake::slotsTaken("pbr_nqa")) << "published";
    bound(1, "wan");
    told(FAILING, "isp"); // nobody's any more
    EXPECT_EQ("", queued());
    told(PASSING, "new");
    EXPECT_EQ("A", view(1, "wan", 10));
    ASSERT_EQ(PBR_OK, unbind(1));
    haveNothingLeft({"wan"}); // the record that was left behind too
}

TEST_F(Probe, AHopWithOnlyOneOfTheNamesHasNoProbe) {
    ASSERT_EQ(PBR_OK, hopText("wan", 10, 1, PBR_NEXT_HOP_NQA_TEST_NAME, ""));
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_ACTIVE));
    bound(1, "wan");
    EXPECT_EQ("A", view(1, "wan", 10));
}

TEST_F(Probe, TheRecordGoesWithItsLastHopAndANewOneStartsUnknown) {
    haveNode("other", 10, 1601, 1);
    haveHops("other", 10, {C});
    named("other", 10, 1, "isp");
    told(PASSING);
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_DESTROY));
    EXPECT_EQ(1u, fake::slotsTaken("pbr_nqa")) << "another hop names it";
    ASSERT_EQ(PBR_OK, listSet("other", PBR_ROW_DESTROY));
    EXPECT_EQ(0u, fake::slotsTaken("pbr_nqa"));
    named("wan", 10, 2, "isp");
    EXPECT_EQ(Lines{"STATE? ops/isp"}, work());
    bound(1, "wan");
    EXPECT_EQ("inert", view(1, "wan", 10)) << "what was known of it is gone";
    told(PASSING);
    EXPECT_EQ("B", view(1, "wan", 10));
}

TEST_F(Probe, ARequestThatCannotBeSentLeavesTheProbeUnknownUntilAChangeIsTold) {
    fake::answer("qrvNetlinkSGrpSend", -1);
    named("wan", 10, 2, "lte");
    EXPECT_EQ(Lines{"STATE? ops/lte"}, work());
    fake::answer("qrvNetlinkSGrpSend", 92);
    bound(1, "wan");
    second();
    EXPECT_TRUE(work().empty()) << "not asked again";
    told(PASSING, "lte");
    EXPECT_EQ("B", view(1, "wan", 10));
}

} // namespace
