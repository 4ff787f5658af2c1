// ACLs that change under bound nodes: rules that come and go, lists of rules that vanish and are made again.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

class AclChurn : public Scene {
protected:
    // "lan" on interface 1 (out of 99, ACL 1401), "wan" on 2 and 3 (A or B, ACL 1501), "web" on 4 (C, ACL 1601).
    void SetUp() override {
        Scene::SetUp();
        haveNode("lan", 10, 1401);
        ASSERT_EQ(PBR_OK, nodeSet("lan", 10, PBR_NODE_OUT_IF_UNIT, 99));
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        haveNode("web", 10, 1601, 1);
        haveHops("web", 10, {C});
        for (const char *pAddress : {A, B, C}) {
            peer(pAddress, true);
        }
        ASSERT_EQ(PBR_OK, bind(1, "lan"));
        ASSERT_EQ(PBR_OK, bind(2, "wan"));
        ASSERT_EQ(PBR_OK, bind(3, "wan"));
        ASSERT_EQ(PBR_OK, bind(4, "web"));
        second();
        (void)work();
        (void)counted();
    }
};

// ---- rules, one a read ----

TEST_F(AclChurn, EachRuleReachesTheInterfacesOfItsListOnly) {
    receive(ruleAdded(1401, 1));
    receive(ruleAdded(1501, 2));
    receive(ruleAdded(1601, 3));
    EXPECT_EQ((Lines{"RADD 1 1401/1 99", "RADD 3 1501/2 A", "RADD 2 1501/2 A", "RADD 4 1601/3 C"}), work());
    EXPECT_EQ("add 4/0 del 0/0 rules 3/0", counted());
    receive(ruleRemoved(1401, 1));
    receive(ruleRemoved(1501, 2));
    receive(ruleRemoved(1601, 3));
    // A removal names the hop that is marked in the device: with two interfaces none is.
    EXPECT_EQ((Lines{"RDEL 1 1401/1 99", "RDEL 3 1501/2", "RDEL 2 1501/2", "RDEL 4 1601/3 C"}), work());
    EXPECT_EQ("add 0/0 del 4/0 rules 0/3", counted());
    EXPECT_EQ("2:1 3:1", statuses("wan", 10)) << "rules do not change the entries' state";
}

TEST_F(AclChurn, RulesFollowTheChoiceOfTheMoment) {
    receive(ruleAdded(1501, 1));
    peer(A, false);
    receive(ruleAdded(1501, 2)); // the choice is written at the next run
    second();
    receive(ruleAdded(1501, 3));
    EXPECT_EQ((Lines{"RADD 3 1501/1 A", "RADD 2 1501/1 A", "RADD 3 1501/2 A", "RADD 2 1501/2 A",
                     "DEL 3/1501 act=0 hops=A,B", "ADD 3/1501 act=0 hops=A,B", "DEL 2/1501 act=0 hops=A,B",
                     "ADD 2/1501 act=0 hops=A,B", "RADD 3 1501/3 B", "RADD 2 1501/3 B"}),
              work());
    EXPECT_EQ("B", view(2, "wan", 10));
}

TEST_F(AclChurn, AMarkThatARuleLeftDoesNotMakeTheUpdateWrite) {
    receive(ruleAdded(1501, 1));
    EXPECT_EQ("best=A cur=10 last=00 hw=11 add=00 del=22", marks("wan", 10));
    peer(A, true);
    (void)work();
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("best=A cur=10 last=00 hw=11 add=00 del=22", marks("wan", 10));
}

TEST_F(AclChurn, ANodeThatLostItsHopsGetsNoRuleUntilItHasAnEntryAgain) {
    peer(A, false);
    peer(B, false);
    second();
    (void)work();
    receive(ruleAdded(1501, 1));
    receive(ruleRemoved(1501, 1));
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("add 0/0 del 2/0 rules 1/1", counted());
    peer(B, true);
    second();
    (void)work();
    receive(ruleAdded(1501, 2));
    EXPECT_EQ((Lines{"RADD 3 1501/2 B", "RADD 2 1501/2 B"}), work());
}

TEST_F(AclChurn, AfterTheOtherInterfaceIsUnboundARuleIsMissedUntilTheNextEvent) {
    ASSERT_EQ(PBR_OK, unbind(3));
    (void)work();
    receive(ruleAdded(1501, 1));
    EXPECT_TRUE(work().empty()) << "the unbinding took the choice with it: published";
    EXPECT_EQ("A", view(2, "wan", 10));
    peer(A, true);
    second();
    receive(ruleAdded(1501, 2));
    EXPECT_EQ((Lines{"DEL 2/1501 act=0 hops=A,B", "ADD 2/1501 act=0 hops=A,B", "RADD 2 1501/2 A"}), work());
}

TEST_F(AclChurn, ARuleThatTheDeviceRefusesIsCountedAndNotTriedAgain) {
    fake::answer("qrvIfSetApi", 5);
    receive(ruleAdded(1501, 1));
    receive(ruleRemoved(1501, 1));
    EXPECT_EQ((Lines{"RADD 3 1501/1 A", "RADD 2 1501/1 A", "RDEL 3 1501/1", "RDEL 2 1501/1"}), work());
    EXPECT_EQ("add 0/2 del 0/2 rules 1/1", counted());
    EXPECT_EQ("2:1 3:1", statuses("wan", 10));
    fake::answer("qrvIfSetApi", 0);
    second();
    EXPECT_TRUE(work().empty());
    receive(ruleAdded(1501, 1)); // told again, it is written
    EXPECT_EQ((Lines{"RADD 3 1501/1 A", "RADD 2 1501/1 A"}), work());
}

TEST_F(AclChurn, TwoHundredRulesComeAndGoUnderATrafficOfFailOvers) {
    for (uint32_t rule = 1; rule <= 200; rule++) {
        receive(ruleAdded(1501, rule));
        if (rule % 10 == 0) {
            peer(A, rule % 20 != 0);
            second();
        }
        (void)work();
    }
    EXPECT_EQ("add 438/0 del 38/0 rules 200/0", counted());
    for (uint32_t rule = 1; rule <= 200; rule++) {
        receive(ruleRemoved(1501, rule));
    }
    EXPECT_EQ("add 0/0 del 400/0 rules 0/200", counted());
    EXPECT_EQ("B", view(2, "wan", 10));
    EXPECT_EQ("best=B", marks("wan", 10).substr(0, 6));
    EXPECT_EQ("2:1 3:1", statuses("wan", 10));
}

// ---- several in one read ----

TEST_F(AclChurn, TheSecondRuleOfAReadIsWrittenForTheFirstOnesNodeAndItsOwnListNeverGetsIt) {
    ASSERT_EQ(PBR_OK, unbind(1)); // "wan" is the first bound list
    (void)work();
    (void)counted();
    receive(joined({ruleAdded(1501, 1), ruleAdded(1601, 2)}));
    EXPECT_EQ((Lines{"RADD 3 1501/1 A", "RADD 2 1501/1 A", "RADD 3 1601/2 A", "RADD 2 1601/2 A"}), work());
    receive(joined({ruleRemoved(1501, 1), ruleRemoved(1601, 2)}));
    EXPECT_EQ((Lines{"RDEL 3 1501/1", "RDEL 2 1501/1", "RDEL 3 1601/2", "RDEL 2 1601/2"}), work());
    EXPECT_EQ("add 4/0 del 4/0 rules 2/2", counted());
    // In a read of its own it is right.
    receive(ruleAdded(1601, 2));
    EXPECT_EQ(Lines{"RADD 4 1601/2 C"}, work());
}

TEST_F(AclChurn, BehindAnotherBoundListTheSecondRuleOfAReadIsLost) {
    // "lan" is asked first: it holds no node of either ACL, but for the second rule it has a remembered one,
    // which has no link there; and the walk ends at it, because something was written before.
    receive(joined({ruleAdded(1501, 1), ruleAdded(1601, 2)}));
    EXPECT_EQ((Lines{"RADD 3 1501/1 A", "RADD 2 1501/1 A"}), work());
    receive(joined({ruleAdded(1501, 3), ruleAdded(1501, 4)}));
    EXPECT_EQ((Lines{"RADD 3 1501/3 A", "RADD 2 1501/3 A"}), work()) << "also one of the same ACL";
    EXPECT_EQ("add 4/0 del 0/0 rules 4/0", counted());
}

TEST_F(AclChurn, ARuleOfANodeWithOutInterfaceLetsTheWalkGoOnSoThatTheNextListsGetItToo) {
    receive(ruleAdded(1401, 1)); // no list behind it matches, but its node is remembered
    EXPECT_EQ(Lines{"RADD 1 1401/1 99"}, work()) << "the remembered node has no link on the other lists' interfaces";
    receive(joined({ruleAdded(1401, 1), ruleAdded(1601, 2)}));
    EXPECT_EQ((Lines{"RADD 1 1401/1 99", "RADD 1 1601/2 99", "RADD 4 1601/2 C"}), work());
    receive(joined({ruleAdded(1401, 1), ruleAdded(1999, 2)}));
    EXPECT_EQ((Lines{"RADD 1 1401/1 99", "RADD 1 1999/2 99"}), work()) << "an ACL that no node uses: published";
}

TEST_F(AclChurn, OtherMessagesOfTheReadDoNotMakeItForget) {
    ASSERT_EQ(PBR_OK, unbind(1));
    (void)work();
    receive(joined({ruleAdded(1501, 1), up(A), probe("ops", "none", 1), ruleRemoved(1601, 2)}));
    EXPECT_EQ((Lines{"RADD 3 1501/1 A", "RADD 2 1501/1 A", "RDEL 3 1601/2", "RDEL 2 1601/2"}), work());
    receive(ruleRemoved(1601, 2));
    EXPECT_EQ(Lines{"RDEL 4 1601/2 C"}, work());
}

// ---- whole ACLs ----

TEST_F(AclChurn, ABoundNodeKeepsARemovedAclAndTakesTheOneThatIsMadeAgain) {
    fake::acl(1501, false);
    receive(aclRemoved(1501));
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("A", view(2, "wan", 10));
    peer(A, false); // its entries are kept up to date all the while
    second();
    EXPECT_EQ((Lines{"DEL 3/1501 act=0 hops=A,B", "ADD 3/1501 act=0 hops=A,B", "DEL 2/1501 act=0 hops=A,B",
                     "ADD 2/1501 act=0 hops=A,B"}),
              work());
    fake::acl(1501, true);
    receive(ruleAdded(1501, 1));
    EXPECT_EQ((Lines{"RADD 3 1501/1 B", "RADD 2 1501/1 B"}), work());
}

TEST_F(AclChurn, AnUnboundNodeLosesARemovedAclAndMustBeGivenItAgainBeforeItCanBeBound) {
    ASSERT_EQ(PBR_OK, unbind(4));
    (void)work();
    fake::acl(1601, false);
    receive(aclRemoved(1601));
    EXPECT_EQ(PBR_ERR_BIND, bind(4, "web")) << "a node that matches nothing";
    EXPECT_EQ(PBR_ERR_ACL_MISSING, nodeSet("web", 10, PBR_NODE_ACL_NUM, 1601));
    fake::acl(1601, true);
    receive(ruleAdded(1601, 1));
    EXPECT_TRUE(work().empty());
    ASSERT_EQ(PBR_OK, nodeSet("web", 10, PBR_NODE_ACL_NUM, 1601));
    ASSERT_EQ(PBR_OK, bind(4, "web"));
    second();
    EXPECT_EQ((Lines{"USE 1601 +1", "WATCH C", "ON 4", "ADD 4/1601 act=7 hops=C"}), work());
}

TEST_F(AclChurn, AnAclThatOneBoundAndOneUnboundListNameIsTakenFromTheUnboundOne) {
    ASSERT_EQ(PBR_OK, unbind(4));
    ASSERT_EQ(PBR_ERR_ACL_USED, nodeSet("web", 10, PBR_NODE_ACL_NUM, 1501)) << "an ACL belongs to one node";
    receive(joined({aclRemoved(1501), aclRemoved(1601)}));
    EXPECT_EQ(PBR_ERR_BIND, bind(4, "web"));
    EXPECT_EQ("2:1 3:1", statuses("wan", 10));
    (void)work();
    ASSERT_EQ(PBR_OK, unbind(2));
    ASSERT_EQ(PBR_OK, unbind(3));
    EXPECT_EQ((Lines{"USE 1501 -1", "DEL 2/1501 act=0 hops=A,B", "OFF 2", "USE 1501 -1", "UNWATCH A", "UNWATCH B",
                     "DEL 3/1501 act=0 hops=A,B", "OFF 3"}),
              work())
        << "the ACL's number was kept, so its users are given back";
    receive(aclRemoved(1501));
    EXPECT_EQ(PBR_OK, nodeSet("web", 10, PBR_NODE_ACL_NUM, 1501)) << "free again";
}

} // namespace
