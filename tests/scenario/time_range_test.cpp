// Time ranges: nodes that are open at times, and those that are not gated; what the service starts, stops
// and drops.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

constexpr uint32_t RANGE = 7;

class TimeRange : public Scene {
protected:
    void SetUp() override {
        Scene::SetUp();
        haveGated("wan", 10, 1501);
        peer(A, true);
        peer(B, true);
        clear();
    }
    // A node that takes A or B while the range is active.
    void haveGated(const char *pList, uint32_t index, uint32_t acl) {
        haveNode(pList, index, acl, 1);
        haveHops(pList, index, {A, B});
        ASSERT_EQ(PBR_OK, nodeSet(pList, index, PBR_NODE_TIME_RANGE_ID, RANGE));
    }
    void clear() {
        (void)work();
        (void)counted();
    }
    void bound() {
        ASSERT_EQ(PBR_OK, bind(1, "wan"));
        second();
        clear();
    }
};

// ---- one node ----

TEST_F(TimeRange, ABindingOutsideTheRangeWatchesTheHopsAndWritesNothing) {
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 1"}), work());
    for (uint32_t i = 0; i < 3; i++) {
        second();
        EXPECT_TRUE(work().empty());
    }
    EXPECT_EQ("best=- cur=00 last=00 hw=00 add=11 del=00", marks("wan", 10));
    EXPECT_EQ("absent", view(1, "wan", 10));
}

TEST_F(TimeRange, StartAndStopWriteAndRemoveAtTheNextRun) {
    bound();
    for (uint32_t day = 0; day < 18; day++) { // the four-bit counts come round
        range(RANGE, true);
        EXPECT_TRUE(work().empty());
        EXPECT_EQ("wan", queued());
        second();
        EXPECT_EQ(Lines{"ADD 1/1501 act=0 hops=A,B"}, work()) << day;
        EXPECT_EQ("best=A cur=00 last=10 hw=11 add=00 del=11", marks("wan", 10)) << day;
        range(RANGE, false);
        EXPECT_EQ("absent", view(1, "wan", 10));
        second();
        EXPECT_EQ(Lines{"DEL 1/1501 act=0 hops=A,B"}, work()) << day;
        EXPECT_EQ("best=- cur=00 last=00 hw=01 add=11 del=00", marks("wan", 10)) << day;
    }
    EXPECT_EQ("add 18/0 del 18/0 rules 0/0", counted());
}

TEST_F(TimeRange, AStartThatIsStoppedBeforeTheRunAndAStopThatIsStartedCostNothing) {
    bound();
    range(RANGE, true);
    range(RANGE, false);
    second();
    EXPECT_TRUE(work().empty());
    range(RANGE, true);
    second();
    clear();
    range(RANGE, false);
    range(RANGE, true);
    range(RANGE, true);
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("A", view(1, "wan", 10));
}

TEST_F(TimeRange, PeersThatChangeWhileTheRangeIsClosedAreKnownWhenItOpens) {
    bound();
    peer(A, false);
    second();
    EXPECT_TRUE(work().empty());
    range(RANGE, true);
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    EXPECT_EQ(Lines{"ADD 1/1501 act=0 hops=A,B"}, work());
    EXPECT_EQ("best=B cur=00 last=01 hw=01 add=00 del=11", marks("wan", 10));
}

TEST_F(TimeRange, ASecondBindingOutsideTheRangeIsWrittenByTheCallsAndNotByTheView) {
    bound();
    ASSERT_EQ(PBR_OK, bind(2, "wan"));
    EXPECT_EQ((Lines{"USE 1501 +1", "ADD 2/1501 act=0 hops=A,B", "ON 2"}), work()) << "published";
    EXPECT_EQ("absent", view(2, "wan", 10));
    range(RANGE, true);
    second();
    EXPECT_EQ((Lines{"DEL 2/1501 act=0 hops=A,B", "ADD 2/1501 act=0 hops=A,B", "ADD 1/1501 act=0 hops=A,B"}), work());
    range(RANGE, false);
    second();
    EXPECT_EQ((Lines{"DEL 2/1501 act=0 hops=A,B", "DEL 1/1501 act=0 hops=A,B"}), work());
    EXPECT_TRUE(calls().empty());
}

// ---- the end of a binding ----

TEST_F(TimeRange, ARangeThatTheServiceDropsClosesTheNodeUntilTheOperatorReleasesIt) {
    bound();
    range(RANGE, true);
    second();
    clear();
    rangeGone(RANGE);
    EXPECT_EQ("absent", view(1, "wan", 10));
    second();
    EXPECT_EQ(Lines{"DEL 1/1501 act=0 hops=A,B"}, work());
    EXPECT_EQ(PBR_ERR_IN_USE, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_ID, PBR_TIME_RANGE_NONE)) << "bound: published";
    ASSERT_EQ(PBR_OK, unbind(1));
    clear();
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_ID, PBR_TIME_RANGE_NONE));
    EXPECT_EQ(Lines{"RANGE- 7 pbrwan-10"}, work());
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 1", "ADD 1/1501 act=0 hops=A,B"}), work());
}

TEST_F(TimeRange, TheCommandsStartAndStopTheNodeAlsoWhileItsListIsBound) {
    bound();
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_START, 0));
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_STOP, 0));
    second();
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_START, 0));
    second();
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_UNBIND, 0));
    second();
    EXPECT_EQ((Lines{"ADD 1/1501 act=0 hops=A,B", "DEL 1/1501 act=0 hops=A,B", "ADD 1/1501 act=0 hops=A,B",
                     "DEL 1/1501 act=0 hops=A,B"}),
              work());
    EXPECT_EQ("absent", view(1, "wan", 10)) << "the id stays, so the node stays gated";
}

TEST_F(TimeRange, ReportsOfTheServiceAfterTheListIsGoneAreHarmless) {
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_START, 0)); // queues the list, unbound as it is
    EXPECT_EQ("wan", queued());
    ASSERT_EQ(PBR_OK, listSet("wan", PBR_ROW_DESTROY));
    EXPECT_EQ("", queued());
    clear();
    EXPECT_EQ(1u, fake::timerangeBindings().size()) << "destroying does not release it: published";
    range(RANGE, true);
    range(RANGE, false);
    rangeGone(RANGE);
    second();
    EXPECT_TRUE(work().empty());

    haveNode("wan", 10, 1501, 1); // a node of the same name hears the old binding, without an id of its own
    range(RANGE, true);
    EXPECT_EQ("wan", queued());
    second();
    EXPECT_TRUE(work().empty());
}

// ---- nodes of other kinds ----

TEST_F(TimeRange, TheCallsOfEcmpOutInterfaceAndHoplessNodesAreNotGatedAndTheViewIs) {
    haveNode("all", 10, 1601);
    ASSERT_EQ(PBR_OK, nodeSet("all", 10, PBR_NODE_OUT_IF_UNIT, 99));
    haveNode("all", 20, 1602);
    ASSERT_EQ(PBR_OK, nodeSet("all", 20, PBR_NODE_IP_PRI, 3));
    haveNode("all", 30, 1603, 1);
    ASSERT_EQ(PBR_OK, nodeSet("all", 30, PBR_NODE_IS_ECMP, 1));
    haveHops("all", 30, {A, B});
    for (uint32_t index : {10u, 20u, 30u}) {
        ASSERT_EQ(PBR_OK, nodeSet("all", index, PBR_NODE_TIME_RANGE_ID, RANGE));
    }
    clear();
    ASSERT_EQ(PBR_OK, bind(1, "all"));
    second();
    EXPECT_EQ((Lines{"USE 1601 +1", "ADD 1/1601 act=4 if=99", "USE 1602 +1", "ADD 1/1602 act=0 pri=3 hops=",
                     "USE 1603 +1", "WATCH A", "WATCH B", "ON 1", "ADD 1/1603 act=8 hops=A,B"}),
              work());
    for (uint32_t index : {10u, 20u, 30u}) {
        EXPECT_EQ("absent", view(1, "all", index));
    }
    range(RANGE, true);
    EXPECT_EQ("out 99", view(1, "all", 10));
    EXPECT_EQ("priority 3", view(1, "all", 20));
    EXPECT_EQ("AB", view(1, "all", 30));
    second();
    EXPECT_EQ((Lines{"DEL 1/1603 act=0 hops=", "ADD 1/1603 act=8 hops=A,B"}), work()) << "a queueing, no more";
    range(RANGE, false);
    second();
    EXPECT_EQ((Lines{"DEL 1/1603 act=0 hops=", "ADD 1/1603 act=8 hops=A,B"}), work());
    EXPECT_EQ(3u, calls().size());
    EXPECT_EQ("absent", view(1, "all", 30));
}

// ---- several on one range ----

TEST_F(TimeRange, SeveralNodesAndListsOfOneRangeOpenTogetherAndOthersStayClosed) {
    haveGated("wan", 20, 1502);
    haveGated("lan", 10, 1601);
    haveNode("lan", 20, 1602, 1);
    haveHops("lan", 20, {B});
    ASSERT_EQ(PBR_OK, nodeSet("lan", 20, PBR_NODE_TIME_RANGE_ID, RANGE + 1));
    haveNode("lan", 30, 1603, 1);
    haveHops("lan", 30, {A});
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    ASSERT_EQ(PBR_OK, bind(2, "lan"));
    second();
    EXPECT_EQ((Plane{{{2, 1603}, "act=7 pri=0 vrf=0 hops=0a000001"}}), calls());
    clear();

    range(RANGE, true);
    EXPECT_EQ("lan,wan", queued()) << "the one that was told last stands first";
    second();
    // Once a node of "lan" changed, those behind it are rewritten; nothing was saved yet for the closed one.
    EXPECT_EQ((Lines{"ADD 2/1601 act=0 hops=A,B", "DEL 2/1603 act=7 hops=A", "ADD 2/1603 act=7 hops=A",
                     "ADD 1/1501 act=0 hops=A,B", "ADD 1/1502 act=0 hops=A,B"}),
              work());
    EXPECT_EQ("absent", view(2, "lan", 20));

    range(RANGE + 1, true);
    EXPECT_EQ("lan", queued());
    second();
    EXPECT_EQ((Lines{"ADD 2/1602 act=7 hops=B", "DEL 2/1603 act=7 hops=A", "ADD 2/1603 act=7 hops=A"}), work());
    range(RANGE, false);
    second();
    EXPECT_EQ("B", view(2, "lan", 20));
    EXPECT_EQ("A", view(2, "lan", 30));
    EXPECT_EQ("absent", view(1, "wan", 20));
    EXPECT_EQ((Lines{"DEL 2/1601 act=0 hops=A,B", "DEL 2/1602 act=7 hops=B", "ADD 2/1602 act=7 hops=B",
                     "DEL 2/1603 act=7 hops=A", "ADD 2/1603 act=7 hops=A", "DEL 1/1501 act=0 hops=A,B",
                     "DEL 1/1502 act=0 hops=A,B"}),
              work());
}

} // namespace
