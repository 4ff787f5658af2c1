// Lists that are changed between their bindings, and settings that look as if they had an effect.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

class Reconfiguration : public Scene {
protected:
    void SetUp() override {
        Scene::SetUp();
        for (const char *pAddress : {A, B, C}) {
            peer(pAddress, true);
        }
        haveNode("wan", 10, 1501, 1);
        (void)work();
    }
    void bound(uint32_t unit) {
        ASSERT_EQ(PBR_OK, bind(unit, "wan"));
        second();
    }
};

TEST_F(Reconfiguration, RowsThatAreInactiveForwardAllTheSame) {
    haveHops("wan", 10, {A});
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_INACTIVE));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_STATUS, PBR_ROW_INACTIVE));
    ASSERT_EQ(PBR_OK, listSet("wan", PBR_ROW_INACTIVE));
    bound(1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "ON 1", "ADD 1/1501 act=7 hops=A"}), work()) << "published";
    EXPECT_EQ("A", view(1, "wan", 10));
}

TEST_F(Reconfiguration, ANextHopWithoutAddressIsNeverUsedAndCountsAsOneOfTwo) {
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_CREATED));
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 2, PBR_ROW_CREATED));
    ASSERT_EQ(PBR_OK, hopAddress("wan", 10, 2, A));
    bound(1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH 0", "WATCH A", "ON 1", "ADD 1/1501 act=0 hops=0,A"}), work());
    EXPECT_EQ("A", view(1, "wan", 10));
}

TEST_F(Reconfiguration, ANodeThatIsKeptFromTheDeviceCountsAsProgrammedAndIsAbsentFromTheView) {
    haveHops("wan", 10, {A, B});
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_FORWARD_FLAG, 2));
    bound(1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 1"}), work());
    EXPECT_EQ("1:1", statuses("wan", 10)) << "published";
    EXPECT_EQ("absent", view(1, "wan", 10));
    peer(A, false);
    second();
    peer(B, false);
    second();
    receive(ruleAdded(1501, 1));
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("1:1", statuses("wan", 10)) << "the removal counts as programmed too";
    EXPECT_EQ("add 0/0 del 0/0 rules 1/0", counted());
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ((Lines{"USE 1501 -1", "UNWATCH A", "UNWATCH B", "OFF 1"}), work());
}

TEST_F(Reconfiguration, AFormerEcmpNodeKeepsTheMarksOfItsMembersForOneEntry) {
    haveHops("wan", 10, {A, B});
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_IS_ECMP, 1));
    bound(1);
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ("best=- cur=11 last=00 hw=00 add=00 del=00", marks("wan", 10));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_IS_ECMP, 0));
    (void)work();
    bound(1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 1", "ADD 1/1501 act=0 hops=A,B"}), work());
    EXPECT_EQ("best=A cur=00 last=11 hw=11 add=00 del=11", marks("wan", 10)) << "both are taken for the one written";
    EXPECT_EQ("A", view(1, "wan", 10));
    receive(ruleAdded(1501, 1));
    receive(ruleRemoved(1501, 1));
    EXPECT_EQ((Lines{"RADD 1 1501/1 A", "RDEL 1 1501/1 B"}), work()) << "so a rule's removal names the last: published";
    peer(A, false);
    second();
    EXPECT_EQ("best=B cur=00 last=01 hw=01 add=00 del=11", marks("wan", 10));
}

TEST_F(Reconfiguration, ASingleNodeThatBecomesEcmpSpreadsFromItsNextBindingOn) {
    haveHops("wan", 10, {A, B, C});
    bound(1);
    ASSERT_EQ(PBR_ERR_IN_USE, nodeSet("wan", 10, PBR_NODE_IS_ECMP, 1));
    ASSERT_EQ(PBR_OK, unbind(1));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_IS_ECMP, 1));
    (void)work();
    bound(1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "WATCH C", "ON 1", "ADD 1/1501 act=8 hops=A,B,C"}), work());
    EXPECT_EQ("ABC", view(1, "wan", 10));
}

TEST_F(Reconfiguration, AnotherVrfWatchesOtherPeers) {
    haveHops("wan", 10, {A});
    bound(1);
    ASSERT_EQ(PBR_OK, unbind(1));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_VRF_ID, 7));
    (void)work();
    bound(1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A vrf=7", "ON 1"}), work()) << "it is not up there";
    EXPECT_EQ("inert", view(1, "wan", 10)) << "what was known of it in the other VRF ends with the report";
    peer(A, true, 7);
    peer(A, false);
    second();
    EXPECT_EQ(Lines{"ADD 1/1501 act=7 vrf=7 hops=A"}, work());
}

TEST_F(Reconfiguration, NodesThatWereInsertedAreBoundInTheirPlace) {
    haveHops("wan", 10, {A});
    bound(1);
    ASSERT_EQ(PBR_OK, unbind(1));
    haveNode("wan", 20, 1503);
    ASSERT_EQ(PBR_OK, nodeSet("wan", 20, PBR_NODE_IP_PRI, 3));
    haveNode("wan", 5, 1502);
    ASSERT_EQ(PBR_OK, nodeSet("wan", 5, PBR_NODE_OUT_IF_UNIT, 99));
    (void)work();
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ((Lines{"USE 1502 +1", "ADD 1/1502 act=4 if=99", "USE 1501 +1", "WATCH A", "USE 1503 +1",
                     "ADD 1/1503 act=0 pri=3 hops=", "ON 1"}),
              work());
    ASSERT_EQ(PBR_OK, unbind(1));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_STATUS, PBR_ROW_DESTROY));
    (void)work();
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ((Lines{"USE 1502 +1", "ADD 1/1502 act=4 if=99", "USE 1503 +1", "ADD 1/1503 act=0 pri=3 hops=", "ON 1"}),
              work());
}

TEST_F(Reconfiguration, AListThatIsDestroyedAndMadeAgainKnowsNothingOfItsFormerLife) {
    haveHops("wan", 10, {A, B});
    bound(1);
    peer(A, false);
    ASSERT_EQ(PBR_OK, unbind(1));
    haveNothingLeft({"wan"});
    EXPECT_TRUE(calls().empty());
    (void)work();
    haveNode("wan", 10, 1501, 1);
    haveHops("wan", 10, {B, A});
    EXPECT_EQ("best=- cur=00 last=00 hw=00 add=00 del=00", marks("wan", 10));
    bound(1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH B", "WATCH A", "ON 1", "ADD 1/1501 act=0 hops=B,A"}), work());
    EXPECT_EQ("B", view(1, "wan", 10));
}

TEST_F(Reconfiguration, APeerThatTwoListsShareIsWatchedUntilTheLastOfThemIsUnbound) {
    haveHops("wan", 10, {A, B});
    haveNode("web", 10, 1601, 1);
    haveHops("web", 10, {B, C});
    bound(1);
    ASSERT_EQ(PBR_OK, bind(2, "web"));
    (void)work();
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ((Lines{"USE 1501 -1", "UNWATCH A", "DEL 1/1501 act=0 hops=A,B", "OFF 1"}), work());
    peer(B, false);
    EXPECT_EQ("C", view(2, "web", 10));
    second();
    EXPECT_EQ(Lines{"ADD 2/1601 act=0 hops=B,C"}, work());
    ASSERT_EQ(PBR_OK, bind(1, "wan")); // takes over what "web" knows of B, until the service reports
    EXPECT_EQ("A", view(1, "wan", 10));
    (void)work();
    ASSERT_EQ(PBR_OK, unbind(2));
    EXPECT_EQ((Lines{"USE 1601 -1", "UNWATCH C", "DEL 2/1601 act=0 hops=B,C", "OFF 2"}), work());
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ((Lines{"USE 1501 -1", "UNWATCH A", "UNWATCH B", "OFF 1"}), work()) << "never written";
}

} // namespace
