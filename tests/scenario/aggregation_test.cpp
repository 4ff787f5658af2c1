// Aggregations: members that come and go, ports with a binding of their own, interfaces that vanish.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

constexpr uint32_t AGG = 5, PORT = 8, OTHER = 9;

class Aggregation : public Scene {
protected:
    // "wan" on the aggregation: node 5 goes out of interface 99, node 10 takes A or B, and is not written yet.
    void SetUp() override {
        Scene::SetUp();
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        haveNode("wan", 5, 1502);
        ASSERT_EQ(PBR_OK, nodeSet("wan", 5, PBR_NODE_OUT_IF_UNIT, 99));
        peer(A, true);
        peer(B, true);
        ASSERT_EQ(PBR_OK, bind(AGG, "wan"));
        fake::answer("aggAnswer", 1);
        clear();
    }
    void clear() {
        (void)work();
        (void)counted();
    }
    void program() { // node 10 too
        second();
        ASSERT_EQ(statuses("wan", 5), statuses("wan", 10));
        clear();
    }
    static Lines member(const char *pVerb, uint32_t port) { // its two entries
        const std::string start = std::string(pVerb) + " " + std::to_string(port);
        return {start + "/1502 act=4 if=99", start + "/1501 act=0 hops=A,B"};
    }
    static Lines released() { return {"USE 1502 -1", "USE 1501 -1"}; }
    static Lines rewrite() { return {"DEL 5/1501 act=0 hops=A,B", "ADD 5/1501 act=0 hops=A,B"}; }
    static Lines then(Lines first, const Lines &more) {
        first.insert(first.end(), more.begin(), more.end());
        return first;
    }
};

// ---- members ----

TEST_F(Aggregation, AJoiningPortGetsTheEntriesThatAreInTheDeviceAndALeavingOneLosesThem) {
    receive(memberAdded(AGG, PORT));
    EXPECT_EQ((Lines{"ASK 5 added", "ADD 8/1502 act=4 if=99"}), work());
    program();
    receive(memberAdded(AGG, OTHER));
    EXPECT_EQ(then({"ASK 5 added"}, member("ADD", OTHER)), work());
    const char *const pOut = "act=4 pri=0 vrf=0 hops=00000063";
    const char *const pHops = "act=0 pri=0 vrf=0 hops=0a000001,0a000002";
    EXPECT_EQ((Plane{{{AGG, 1501}, pHops}, {{AGG, 1502}, pOut}, {{PORT, 1502}, pOut}, {{OTHER, 1501}, pHops},
                     {{OTHER, 1502}, pOut}}),
              calls());
    receive(memberRemoved(AGG, PORT)); // removed is what the aggregation has now, not what the port got
    EXPECT_EQ(then({"ASK 5 removed"}, member("DEL", PORT)), work());
    receive(memberRemoved(AGG, OTHER));
    EXPECT_EQ(then({"ASK 5 removed"}, member("DEL", OTHER)), work());
    EXPECT_EQ((Plane{{{AGG, 1501}, pHops}, {{AGG, 1502}, pOut}}), calls());
    EXPECT_EQ("add 0/0 del 0/0 rules 0/0", counted()) << "members are not counted";
    EXPECT_EQ("best=A cur=00 last=10 hw=11 add=00 del=11", marks("wan", 10)) << "nor marked";
    EXPECT_EQ("", view(PORT, "wan", 10)) << "the view holds the aggregation alone";
}

TEST_F(Aggregation, WhenMembersNeedNoEntriesThePortsAreOnlyAskedFor) {
    fake::answer("aggAnswer", 0);
    program();
    receive(memberAdded(AGG, PORT));
    receive(memberRemoved(AGG, PORT));
    EXPECT_EQ((Lines{"ASK 5 added", "ASK 5 removed"}), work());
    peer(A, false);
    second();
    EXPECT_EQ(rewrite(), work());
    EXPECT_EQ("B", view(AGG, "wan", 10));
}

TEST_F(Aggregation, AnAnswerThatChangesMeanwhileLeavesTheMembersEntries) {
    program();
    receive(memberAdded(AGG, PORT));
    fake::answer("aggAnswer", 0);
    receive(memberRemoved(AGG, PORT));
    EXPECT_EQ(then(then({"ASK 5 added"}, member("ADD", PORT)), {"ASK 5 removed"}), work());
    EXPECT_EQ(1u, calls().count({PORT, 1501}));
}

TEST_F(Aggregation, AFailOverRewritesTheAggregationAndLeavesItsMembersAlone) {
    program();
    receive(joined({memberAdded(AGG, PORT), memberAdded(AGG, OTHER)}));
    EXPECT_EQ(then(then({"ASK 5 added"}, member("ADD", PORT)), then({"ASK 5 added"}, member("ADD", OTHER))), work());
    peer(A, false);
    second();
    EXPECT_EQ(rewrite(), work());
    peer(B, false);
    second();
    EXPECT_EQ(Lines{"DEL 5/1501 act=0 hops=A,B"}, work());
    EXPECT_EQ(0u, calls().count({AGG, 1501}));
    EXPECT_EQ(1u, calls().count({PORT, 1501})) << "published: only the aggregation is rewritten";
    receive(memberRemoved(AGG, PORT)); // of what is not there for the aggregation nothing is removed
    EXPECT_EQ((Lines{"ASK 5 removed", "DEL 8/1502 act=4 if=99"}), work());
    EXPECT_EQ(1u, calls().count({PORT, 1501}));
    EXPECT_EQ("inert", view(AGG, "wan", 10));
}

TEST_F(Aggregation, AMemberOfAnEcmpNodeIsWrittenWithoutMembersBecauseNoneIsMarkedInTheDevice) {
    haveNode("set", 10, 1601, 1);
    ASSERT_EQ(PBR_OK, nodeSet("set", 10, PBR_NODE_IS_ECMP, 1));
    haveHops("set", 10, {A, C});
    peer(C, true);
    ASSERT_EQ(PBR_OK, bind(6, "set"));
    second();
    clear();
    receive(memberAdded(6, PORT));
    receive(memberRemoved(6, PORT));
    EXPECT_EQ((Lines{"ASK 6 added", "ADD 8/1601 act=0 hops=", "ASK 6 removed", "DEL 8/1601 act=0 hops="}), work());
    EXPECT_EQ("AC", view(6, "set", 10));
}

TEST_F(Aggregation, AMemberEntryThatFailsIsNotTriedAgain) {
    program();
    failingUnits_ = {PORT};
    receive(memberAdded(AGG, PORT));
    EXPECT_EQ(then({"ASK 5 added"}, member("ADD", PORT)), work());
    EXPECT_EQ(0u, calls().count({PORT, 1501}));
    EXPECT_EQ("5:1", statuses("wan", 10));
    EXPECT_EQ("", queued());
    failingUnits_.clear();
    second();
    EXPECT_TRUE(work().empty());
    peer(A, false); // a rewrite of the aggregation does not reach it either
    second();
    EXPECT_EQ(rewrite(), work());
    EXPECT_EQ("add 1/0 del 1/0 rules 0/0", counted());
    receive(memberRemoved(AGG, PORT));
    receive(memberAdded(AGG, PORT)); // joining anew is what helps
    EXPECT_EQ(then(then({"ASK 5 removed"}, member("DEL", PORT)), then({"ASK 5 added"}, member("ADD", PORT))), work());
    EXPECT_EQ(1u, calls().count({PORT, 1501}));
}

TEST_F(Aggregation, APortOfAnAggregationWhoseOwnEntryFailedGetsNoneAndLosesOneAllTheSame) {
    failingUnits_ = {AGG};
    second();
    ASSERT_EQ("5:2", statuses("wan", 10));
    clear();
    receive(memberAdded(AGG, PORT));
    EXPECT_EQ((Lines{"ASK 5 added", "ADD 8/1502 act=4 if=99"}), work());
    receive(memberRemoved(AGG, PORT));
    EXPECT_EQ(then({"ASK 5 removed"}, member("DEL", PORT)), work());
}

TEST_F(Aggregation, APortThatJoinedBeforeTheBindingGetsNothing) {
    ASSERT_EQ(PBR_OK, unbind(AGG));
    clear();
    receive(memberAdded(AGG, PORT));
    EXPECT_TRUE(work().empty()) << "no policy, no question";
    ASSERT_EQ(PBR_OK, bind(AGG, "wan"));
    second();
    EXPECT_EQ(0u, calls().count({PORT, 1501}));
    EXPECT_EQ(0u, calls().count({PORT, 1502}));
}

// ---- a port with a binding of its own ----

TEST_F(Aggregation, APortThatJoinsLosesItsOwnBindingAndDoesNotGetItBackWhenItLeaves) {
    ASSERT_EQ(PBR_OK, bind(PORT, "wan"));
    program();
    ASSERT_EQ("5:1 8:1", statuses("wan", 10));
    // Both at once, as the interface layer tells them: the port joined, the aggregation has a member more.
    receive(joined({portJoins(PORT, AGG), memberAdded(AGG, PORT)}));
    EXPECT_EQ(then(then(then(released(), member("DEL", PORT)), {"OFF 8", "ASK 5 added"}), member("ADD", PORT)), work());
    EXPECT_EQ("5:1", statuses("wan", 10));
    EXPECT_EQ("", view(PORT, "wan", 10));
    EXPECT_EQ(1u, calls().count({PORT, 1501}));

    receive(memberRemoved(AGG, PORT));
    EXPECT_EQ(then({"ASK 5 removed"}, member("DEL", PORT)), work());
    EXPECT_EQ(0u, calls().count({PORT, 1501}));
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("", view(PORT, "wan", 10));
}

TEST_F(Aggregation, ThatPortsUnbindTakesTheBestOfTheSharedListAndTheNextEventWritesItAgain) {
    ASSERT_EQ(PBR_OK, bind(PORT, "wan"));
    program();
    receive(portJoins(PORT, AGG));
    EXPECT_EQ("best=- cur=00 last=00 hw=11 add=00 del=11", marks("wan", 10));
    EXPECT_EQ("5:1", statuses("wan", 10));
    peer(A, true);
    clear();
    second();
    EXPECT_EQ(rewrite(), work());
    EXPECT_EQ("best=A cur=00 last=10 hw=11 add=00 del=11", marks("wan", 10));
}

TEST_F(Aggregation, ThePortsOwnListIsReleasedWhenItWasItsLastBinding) {
    haveNode("own", 10, 1701, 1);
    haveHops("own", 10, {A, C});
    peer(C, true);
    ASSERT_EQ(PBR_OK, bind(PORT, "own"));
    program();
    receive(portJoins(PORT, AGG));
    // A is the aggregation's too and stays registered.
    EXPECT_EQ((Lines{"USE 1701 -1", "UNWATCH C", "DEL 8/1701 act=0 hops=A,C", "OFF 8"}), work());
    EXPECT_TRUE(isPeerRegistered(A));
    EXPECT_FALSE(isPeerRegistered(C));
    EXPECT_EQ(PBR_OK, hopSet("own", 10, 2, PBR_ROW_DESTROY)) << "not in use any more";
}

// ---- interfaces that vanish ----

TEST_F(Aggregation, AVanishingAggregationLosesItsBindingAndItsMembersKeepTheirEntries) {
    program();
    receive(memberAdded(AGG, PORT));
    clear();
    receive(interfaceGone(AGG));
    EXPECT_EQ(then(released(), {"DEL 5/1502 act=4 if=99", "UNWATCH A", "UNWATCH B", "DEL 5/1501 act=0 hops=A,B",
                                "OFF 5"}),
              work());
    EXPECT_TRUE(mirror().lists().empty());
    receive(memberRemoved(AGG, PORT)); // too late: there is no policy to ask with
    EXPECT_TRUE(work().empty());
    EXPECT_EQ((Plane{{{PORT, 1501}, "act=0 pri=0 vrf=0 hops=0a000001,0a000002"},
                     {{PORT, 1502}, "act=4 pri=0 vrf=0 hops=00000063"}}),
              calls())
        << "published";
    haveNothingLeft({"wan"});
}

TEST_F(Aggregation, MembersThatLeaveFirstLeaveNothingBehind) {
    program();
    receive(memberAdded(AGG, PORT));
    receive(joined({memberRemoved(AGG, PORT), interfaceGone(AGG)}));
    EXPECT_TRUE(calls().empty());
    haveNothingLeft({"wan"});
}

TEST_F(Aggregation, AnInterfaceThatVanishesWhileItsListIsQueuedTakesTheListOutForTheOthersToo) {
    ASSERT_EQ(PBR_OK, bind(PORT, "wan"));
    program();
    fake::deliver(joined({down(A), interfaceGone(PORT)}));
    peerIs(A, false);
    settle();
    EXPECT_EQ("", queued());
    EXPECT_EQ(then(then(released(), member("DEL", PORT)), {"OFF 8"}), work());
    second();
    EXPECT_TRUE(work().empty()) << "published: the aggregation waits for the next event";
    EXPECT_EQ("B", view(AGG, "wan", 10));
    peer(B, true);
    second();
    EXPECT_EQ(rewrite(), work());
}

TEST_F(Aggregation, AnInterfaceWithoutPolicyVanishesWithoutACall) {
    ASSERT_EQ(PBR_OK, ifSet(7, PBR_IF_CREATE));
    receive(interfaceGone(7)); // an entry, and no list: it stays
    receive(interfaceGone(77));
    EXPECT_TRUE(work().empty());
    EXPECT_EQ(PBR_OK, bind(7, "wan"));
    receive(interfaceGone(7));
    EXPECT_EQ(PBR_ERR_NO_ROW, ifList(7, "wan")) << "with a list it goes";
}

TEST_F(Aggregation, AResetPortLosesItsBindingAndAResetWithoutOneDropsTheReportsBehindIt) {
    ASSERT_EQ(PBR_OK, bind(PORT, "wan"));
    program();
    receive(joined({portReset(PORT), down(A)}));
    EXPECT_EQ(then(then(released(), member("DEL", PORT)), {"OFF 8"}), work());
    EXPECT_EQ("B", view(AGG, "wan", 10));
    receive(up(A));

    receive(joined({portReset(PORT), down(A)})); // nothing to reset any more: published
    EXPECT_EQ("A", view(AGG, "wan", 10));
    receive(down(A)); // the next report heals it
    EXPECT_EQ("B", view(AGG, "wan", 10));
    peerIs(A, false);
}

} // namespace
