// A next hop that comes and goes: between two update runs, over many of them, and with others beside it.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

class Flap : public Scene {
protected:
    // List "wan": node 10 takes the first of A and B. A and B are up, interface 1 has its entry.
    void SetUp() override {
        Scene::SetUp();
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        peer(A, true);
        peer(B, true);
        ASSERT_EQ(PBR_OK, bind(1, "wan"));
        second();
        ASSERT_EQ("best=A cur=00 last=10 hw=11 add=00 del=11", marks("wan", 10));
        (void)work();
        (void)counted();
    }
    void flaps(const char *pAddress, uint32_t count) { // down and up again
        for (uint32_t i = 0; i < count; i++) {
            peer(pAddress, false);
            peer(pAddress, true);
        }
    }
    const Lines rewrite_ = {"DEL 1/1501 act=0 hops=A,B", "ADD 1/1501 act=0 hops=A,B"};
};

TEST_F(Flap, APeerThatIsBackBeforeTheRunCostsNoCall) {
    flaps(A, 50);
    EXPECT_EQ("wan", queued());
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("", queued());
    EXPECT_EQ("best=A cur=10 last=10 hw=11 add=00 del=11", marks("wan", 10));
}

TEST_F(Flap, ManyFlapsThatEndDownAreOneRewrite) {
    flaps(A, 50);
    peer(A, false);
    second();
    EXPECT_EQ(rewrite_, work());
    EXPECT_EQ("best=B cur=00 last=01 hw=01 add=00 del=11", marks("wan", 10));
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("add 1/0 del 1/0 rules 0/0", counted());
}

TEST_F(Flap, EveryRunAcrossAChangeIsOneRewriteAndTheCountsComeRoundAtSixteen) {
    for (uint32_t run = 1; run <= 40; run++) {
        const bool isAUp = run % 2 == 0;
        peer(A, isAUp);
        EXPECT_EQ(isAUp ? "A" : "B", view(1, "wan", 10));
        second();
        EXPECT_EQ(rewrite_, work()) << run;
        EXPECT_EQ(isAUp ? "best=A cur=00 last=10 hw=11 add=00 del=11" : "best=B cur=00 last=01 hw=01 add=00 del=11",
                  marks("wan", 10))
            << run;
        second();
        EXPECT_TRUE(work().empty()) << run;
    }
    EXPECT_EQ("add 40/0 del 40/0 rules 0/0", counted());
}

TEST_F(Flap, ANodeThatLosesAndFindsItsOnlyHopIsRemovedAndAdded) {
    peer(B, false);
    second();
    EXPECT_TRUE(work().empty()) << "a backup's loss";
    for (uint32_t run = 0; run < 20; run++) {
        peer(A, false);
        EXPECT_EQ("inert", view(1, "wan", 10));
        second();
        EXPECT_EQ(Lines{"DEL 1/1501 act=0 hops=A,B"}, work()) << run;
        EXPECT_EQ("1:0", statuses("wan", 10));
        EXPECT_TRUE(calls().empty());
        peer(A, true);
        second();
        EXPECT_EQ(Lines{"ADD 1/1501 act=0 hops=A,B"}, work()) << run;
        EXPECT_EQ("1:1", statuses("wan", 10));
    }
    // Each removal raised the count of adds to come, and the add behind it took it back.
    EXPECT_EQ("best=A cur=00 last=10 hw=11 add=00 del=11", marks("wan", 10));
    EXPECT_EQ("add 20/0 del 20/0 rules 0/0", counted());
}

TEST_F(Flap, AFlapInOneReadIsTakenInOrder) {
    receive(joined({down(A), up(A), down(A), up(A)}));
    second();
    EXPECT_TRUE(work().empty());
    receive(joined({up(A), down(A), up(B), down(B), up(B)}));
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    EXPECT_EQ(rewrite_, work());
    peerIs(A, false);
}

TEST_F(Flap, BothHopsFlappingBetweenRunsEndWhereTheyEnd) {
    for (uint32_t run = 0; run < 16; run++) { // all orders of ends, each from each
        const bool isAUp = (run & 1) != 0, isBUp = (run & 2) != 0;
        flaps(B, 2);
        flaps(A, 3);
        peer(A, isAUp);
        peer(B, isBUp);
        const std::string best = isAUp ? "A" : isBUp ? "B" : "-";
        EXPECT_EQ(best == "-" ? "inert" : best, view(1, "wan", 10));
        second();
        second();
        EXPECT_EQ("best=" + best, marks("wan", 10).substr(0, 6)) << run;
        EXPECT_EQ(best == "-" ? "1:0" : "1:1", statuses("wan", 10)) << run;
        EXPECT_EQ(best == "-" ? 0u : 1u, calls().size()) << run;
        EXPECT_EQ("", queued());
    }
}

TEST_F(Flap, TheSameAddressInAnotherVrfDoesNotConcernTheNode) {
    haveNode("far", 10, 1601, 1, 7);
    haveHops("far", 10, {A});
    peer(A, true, 7);
    ASSERT_EQ(PBR_OK, bind(2, "far"));
    second();
    EXPECT_EQ((Lines{"USE 1601 +1", "WATCH A vrf=7", "ON 2", "ADD 2/1601 act=7 vrf=7 hops=A"}), work());
    peer(A, false, 7);
    EXPECT_EQ("far", queued());
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    EXPECT_EQ(Lines{"DEL 2/1601 act=7 vrf=7 hops=A"}, work());
    flaps(A, 3);
    EXPECT_EQ("inert", view(2, "far", 10));
    second();
    EXPECT_TRUE(work().empty());
}

TEST_F(Flap, AChangeThatIsOvertakenByADownWritesTheOtherHopOnce) {
    peerChanges(A);
    peer(A, false);
    second();
    EXPECT_EQ(rewrite_, work());
    second();
    EXPECT_TRUE(work().empty()) << "the mark went with the rewrite";
    peer(A, true);
    second();
    EXPECT_EQ(rewrite_, work());
}

TEST_F(Flap, AChangeOfAHopThatThenDiesWithoutSuccessorRemovesTheEntryAndKeepsTheMark) {
    peer(B, false);
    peerChanges(A);
    peer(A, false);
    second();
    EXPECT_EQ(Lines{"DEL 1/1501 act=0 hops=A,B"}, work());
    peer(A, true);
    second();
    EXPECT_EQ(Lines{"ADD 1/1501 act=0 hops=A,B"}, work());
    peer(A, true); // queued once more: no change, and no mark is left
    second();
    EXPECT_TRUE(work().empty());
}

TEST_F(Flap, AFlapWhileTheUpdateYieldsIsWrittenOnceTheInputIsRead) {
    fake::deliver(down(A));
    fake::deliver(up(A));
    fake::deliver(down(A));
    for (uint32_t i = 0; i < 2; i++) {
        fake::advanceMs(1000);
        pass();
        EXPECT_TRUE(work().empty()) << "bytes wait";
    }
    fake::advanceMs(1000);
    pass();
    EXPECT_EQ(rewrite_, work());
    peerIs(A, false);
    EXPECT_EQ("best=B cur=00 last=01 hw=01 add=00 del=11", marks("wan", 10));
}

TEST_F(Flap, AListThatIsBoundAndUnboundBetweenFlapsEndsRight) {
    for (uint32_t round = 0; round < 10; round++) {
        peer(A, round % 2 == 0);
        ASSERT_EQ(PBR_OK, bind(2, "wan"));
        flaps(B, 1);
        ASSERT_EQ(PBR_OK, unbind(2));
        peer(A, round % 2 != 0);
        second();
        EXPECT_EQ(round % 2 != 0 ? "A" : "B", view(1, "wan", 10)) << round;
        EXPECT_EQ(std::string("best=") + (round % 2 != 0 ? "A" : "B"), marks("wan", 10).substr(0, 6)) << round;
        EXPECT_EQ("1:1", statuses("wan", 10));
    }
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_TRUE(calls().empty());
    haveNothingLeft({"wan"});
}

TEST_F(Flap, AnEcmpSetIsRewrittenByEveryQueueingEvenWhenItIsTheSameAgain) {
    haveNode("set", 10, 1502, 1);
    ASSERT_EQ(PBR_OK, nodeSet("set", 10, PBR_NODE_IS_ECMP, 1));
    haveHops("set", 10, {A, B, C});
    ASSERT_EQ(PBR_OK, bind(2, "set"));
    second();
    (void)work();
    for (uint32_t round = 0; round < 5; round++) {
        flaps(B, 3);
        EXPECT_EQ("AB", view(2, "set", 10));
        second();
        // The marks of the members never meet; what the removal names is what is marked in the device: none.
        EXPECT_EQ((Lines{"DEL 2/1502 act=0 hops=", "ADD 2/1502 act=8 hops=A,B"}), work()) << round;
        EXPECT_EQ("best=- cur=110 last=000 hw=000 add=000 del=111", marks("set", 10));
        second();
        EXPECT_TRUE(work().empty()) << "not queued, not touched";
    }
}

} // namespace
