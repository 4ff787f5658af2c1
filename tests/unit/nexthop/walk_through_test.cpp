// Walk-throughs: what the store says at each device call, and what the redirect view answers there.
#include "tests/unit/nexthop/walk_through.h"

namespace {

using namespace walk;

TEST_F(WalkThrough, FirstBindingThenTheFirstNextHopComesUp) {
    bound({1});
    EXPECT_TRUE(takeSteps().empty());
    EXPECT_EQ("01 01", refCnts());
    EXPECT_EQ("inert", view(1, 1501));

    up(A);
    EXPECT_EQ(1, hop(pNode_, 1)->nexthopArpState);
    EXPECT_EQ(1, pNode_->nhopArpUp);
    EXPECT_EQ("a", readyLists());
    EXPECT_EQ("A", view(1, 1501)); // before the calls know

    (void)fake::takeTrace();
    update();
    EXPECT_EQ(Lines{"ADD if1 n10 best=A cur=10 last=00 hw=00 view=A"}, takeSteps());
    EXPECT_EQ(fake::takeCalls(), (Lines{"qrv_ioctl(3, 0x4004667f)",
                                        "aclIfSetApi(1, 20, if=1 acl=1501 dir=0 act=0 pri=0 vrf=0 "
                                        "hops=0a000001,0a000002)"}));
    EXPECT_EQ("best=A cur=00 last=10 hw=10", marks(pNode_));
    EXPECT_EQ("10 10", refCnts());
}

TEST_F(WalkThrough, AnEarlierNodeRewrittenInTheSameRunLeavesItsBestOnALaterNewEntry) {
    PbrNodeEntry *pEarlier = node(5, 1500, {X, Y});
    bound({1});
    up(X);
    update();
    (void)takeSteps();
    up(Y);
    down(X);
    up(A);

    update();

    EXPECT_EQ((Lines{"DEL if1 n5 best=Y cur=01 last=10 hw=10 view=Y", "ADD if1 n5 best=Y cur=01 last=00 hw=00 view=Y",
                     "ADD if1 n10 best=Y cur=10 last=00 hw=00 view=A"}),
              takeSteps());
    EXPECT_EQ("Y", steps::hopName(pNode_->pPbrNhopBest)); // another node's next hop: it stays
    EXPECT_EQ("Y", steps::hopName(pEarlier->pPbrNhopBest));
    EXPECT_EQ("", readyLists());

    pbrReadyTableAdd(pList_); // the next queueing rewrites
    update();
    EXPECT_EQ((Lines{"DEL if1 n10 best=A cur=10 last=10 hw=10 view=A", "ADD if1 n10 best=A cur=10 last=00 hw=00 view=A"}),
              takeSteps());
}

TEST_F(WalkThrough, ThreeNewLinksSeeTheMarksMoveAtTheFirstAndTheSecondAdd) {
    node(5, 1500, {X, Y});
    bound({1, 2, 3});
    up(X);
    update();
    (void)takeSteps();
    up(Y);
    down(X);
    up(A);
    update();
    Lines ofNode10;
    for (const std::string &step : takeSteps()) {
        if (step.find(" n10 ") != std::string::npos) {
            ofNode10.push_back(step);
        }
    }
    EXPECT_EQ((Lines{"ADD if3 n10 best=Y cur=10 last=00 hw=00 view=A", "ADD if2 n10 best=Y cur=00 last=10 hw=10 view=A",
                     "ADD if1 n10 best=Y cur=00 last=00 hw=10 view=A"}),
              ofNode10);
}

TEST_F(WalkThrough, ARepeatedUpReportMakesNoCall) {
    bound({1});
    up(A);
    update();
    (void)takeSteps();
    up(A);
    update();
    EXPECT_TRUE(takeSteps().empty());
    EXPECT_EQ("best=A cur=10 last=10 hw=10", marks(pNode_));
}

TEST_F(WalkThrough, ASecondBindingIsWrittenAtOnceAndTakesTheMarksAway) {
    bound({1});
    up(A);
    update();
    (void)takeSteps();
    bound({2});
    EXPECT_EQ(Lines{"ADD if2 n10 best=A cur=00 last=10 hw=10 view=A"}, takeSteps());
    EXPECT_EQ("best=A cur=00 last=00 hw=10", marks(pNode_));
}

TEST_F(WalkThrough, ASecondBindingBeforeTheFirstRunHasNoBestYet) {
    bound({1});
    up(A);
    bound({2});
    EXPECT_EQ(Lines{"ADD if2 n10 best=- cur=00 last=00 hw=00 view=A"}, takeSteps());
    update();
    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "ADD if1 n10"}), takeShortSteps());
}

TEST_F(WalkThrough, ASecondBindingWithNothingReachableWaitsForTheNextChange) {
    bound({1, 2});
    EXPECT_TRUE(takeSteps().empty());
    up(A);
    update();
    EXPECT_EQ((Lines{"ADD if2 n10 best=A cur=10 last=00 hw=00 view=A", "ADD if1 n10 best=A cur=00 last=10 hw=10 view=A"}),
              takeSteps());
}

TEST_F(WalkThrough, ASecondBindingAfterADownReportStillNamesTheDeadNextHop) {
    bound({1});
    up(A);
    up(B);
    update();
    (void)takeSteps();
    down(A);
    bound({2});
    EXPECT_EQ(Lines{"ADD if2 n10 best=A cur=00 last=10 hw=11 view=B"}, takeSteps());
    update();
    EXPECT_EQ((Lines{"DEL if2 n10 best=B cur=01 last=10 hw=11 view=B", "ADD if2 n10 best=B cur=01 last=00 hw=01 view=B",
                     "DEL if1 n10 best=B cur=00 last=01 hw=01 view=B", "ADD if1 n10 best=B cur=00 last=00 hw=00 view=B"}),
              takeSteps());
}

TEST_F(WalkThrough, ASecondBindingBeforeAReturnedNextHopIsChosenNamesTheOldChoice) {
    bound({1});
    up(A);
    up(B);
    update();
    down(A);
    update();
    (void)takeSteps();
    up(A);
    bound({2});
    EXPECT_EQ(Lines{"ADD if2 n10 best=B cur=00 last=01 hw=01 view=A"}, takeSteps()); // the view is ahead
    update();
    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_EQ("A", steps::hopName(pNode_->pPbrNhopBest));
}

TEST_F(WalkThrough, FailOverAndBackOnTwoInterfaces) {
    bound({1, 2});
    up(A);
    up(B);
    update();
    (void)takeSteps();

    down(A);
    update();
    EXPECT_EQ((Lines{"DEL if2 n10 best=B cur=01 last=00 hw=11 view=B", "ADD if2 n10 best=B cur=01 last=00 hw=11 view=B",
                     "DEL if1 n10 best=B cur=00 last=01 hw=11 view=B", "ADD if1 n10 best=B cur=00 last=00 hw=10 view=B"}),
              takeSteps());

    up(A);
    update();
    const Lines back = takeSteps();
    ASSERT_EQ(4u, back.size());
    EXPECT_EQ("ADD if2 n10 best=A cur=10 last=00 hw=11 view=A", back[1]);
    EXPECT_EQ("ADD if1 n10 best=A cur=00 last=00 hw=01 view=A", back[3]);
    EXPECT_EQ("", readyLists());
}

TEST_F(WalkThrough, AllNextHopsDownRemovesBothEntries) {
    bound({1, 2});
    up(A);
    update();
    (void)takeSteps();
    down(A);
    update();
    const Lines steps = takeSteps();
    ASSERT_EQ(2u, steps.size());
    EXPECT_EQ("DEL if2 n10 best=-", steps[0].substr(0, 18));
    EXPECT_EQ("DEL if1 n10 best=-", steps[1].substr(0, 18));
    EXPECT_EQ("inert", view(1, 1501));
    EXPECT_EQ("inert", view(2, 1501));
}

class EcmpWalkThrough : public WalkThrough {
protected:
    void SetUp() override {
        WalkThrough::SetUp();
        makeNextHop(pNode_, 3, C);
        pbrNodeIsEcmpSet(pNode_, 1);
    }
    std::string record() {
        std::string out;
        for (const std::string &line : fake::takeCalls()) {
            if (line.find("aclIfSetApi(") == 0) {
                const size_t action = line.find("act=");
                out += out.empty() ? "" : "; ";
                out += line.substr(15, 2) + " " +
                       line.substr(action, line.find(' ', action) - action) + " " +
                       line.substr(line.find("hops="), line.size() - line.find("hops=") - 1);
            }
        }
        return out;
    }
};

TEST_F(EcmpWalkThrough, MembersComeAndGoUntilTheLastOneIsMissed) {
    bound({1});
    (void)fake::takeTrace();
    up(A);
    update();
    EXPECT_EQ("20 act=0 hops=0a000001", record());
    EXPECT_EQ(Lines{"ADD if1 n10 best=- cur=100 last=000 hw=000 view=A"}, takeSteps());
    EXPECT_EQ("best=- cur=100 last=000 hw=000", marks(pNode_));

    up(B);
    update();
    EXPECT_EQ("21 act=0 hops=; 20 act=8 hops=0a000001,0a000002", record());
    EXPECT_EQ("AB", view(1, 1501));

    down(A);
    update();
    EXPECT_EQ("21 act=0 hops=; 20 act=0 hops=0a000002", record());
    EXPECT_EQ("B", view(1, 1501));

    down(B); // the last member: all marks alike, so no call is made and the entry keeps the dead member
    update();
    EXPECT_EQ("", record());
    EXPECT_EQ(1u, hwStatus(1, pNode_));
    EXPECT_EQ("", readyLists());
    EXPECT_EQ("inert", view(1, 1501));
}

TEST_F(EcmpWalkThrough, ASecondBindingWithNothingReachableIsWrittenEmpty) {
    bound({1});
    (void)fake::takeTrace();
    bound({2});
    EXPECT_EQ("20 act=0 hops=", record());
    EXPECT_EQ("inert", view(2, 1501));
}

TEST_F(EcmpWalkThrough, AnyQueueingRewritesBecauseTheMarksNeverMeet) {
    bound({1});
    up(A);
    up(B);
    update();
    for (int i = 0; i < 3; i++) {
        (void)fake::takeTrace();
        pbrReadyTableAdd(pList_);
        update();
        EXPECT_EQ("21 act=0 hops=; 20 act=8 hops=0a000001,0a000002", record());
    }
}

TEST_F(EcmpWalkThrough, ACopiedReachableStateIsNotWrittenUntilAReportComes) {
    makeList("known");
    PbrNodeEntry *pKnown = makeNode("known", 1, {.acl = 1700, .ipVer = 1});
    makeNextHop(pKnown, 1, A)->nexthopArpState = 1;
    bound({1});
    EXPECT_EQ("a", readyLists());
    update();
    EXPECT_TRUE(takeSteps().empty());
    EXPECT_EQ("", readyLists());
    EXPECT_EQ("A", view(1, 1501)); // the view has it at once
    up(A);                         // the service reports the present state after each registration
    update();
    EXPECT_EQ(Lines{"ADD if1 n10"}, takeShortSteps());
}

class RangeWalkThrough : public WalkThrough {
protected:
    void SetUp() override {
        WalkThrough::SetUp();
        pNode_->timeRangeId = 7;
    }
};

TEST_F(RangeWalkThrough, NothingIsWrittenOutsideTheRangeAndStartAndStopWriteAndRemove) {
    bound({1});
    up(A);
    update();
    EXPECT_TRUE(takeSteps().empty());
    EXPECT_EQ("absent", view(1, 1501));
    start();
    EXPECT_EQ("A", view(1, 1501));
    update();
    EXPECT_EQ(Lines{"ADD if1 n10 best=A cur=10 last=00 hw=00 view=A"}, takeSteps());
    stop();
    EXPECT_EQ("absent", view(1, 1501));
    update();
    EXPECT_EQ(Lines{"DEL if1 n10 best=- cur=00 last=10 hw=10 view=absent"}, takeSteps());
}

TEST_F(RangeWalkThrough, ASecondBindingWhileStoppedIsWrittenAllTheSame) {
    bound({1});
    up(A);
    update();
    bound({2});
    EXPECT_EQ(Lines{"ADD if2 n10 best=- cur=00 last=00 hw=00 view=absent"}, takeSteps());
    start();
    update();
    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "ADD if1 n10"}), takeShortSteps());
}

TEST_F(RangeWalkThrough, ASecondBindingRightAfterAStopNamesTheOldChoice) {
    bound({1});
    up(A);
    start();
    update();
    (void)takeSteps();
    stop();
    bound({2});
    EXPECT_EQ(Lines{"ADD if2 n10 best=A cur=00 last=10 hw=10 view=absent"}, takeSteps());
}

TEST_F(RangeWalkThrough, TheCallsOfOtherKindsOfNodesAreNeverGatedAndTheViewLeavesThemOut) {
    PbrNodeEntry *pOut = node(20, 1502, {});
    pOut->outIfUnit = 99;
    PbrNodeEntry *pPriority = node(30, 1503, {});
    pbrNodeIpPriSet(pPriority, 3);
    PbrNodeEntry *pEcmp = node(40, 1504, {X, Y});
    pbrNodeIsEcmpSet(pEcmp, 1);
    for (PbrNodeEntry *pNode : {pOut, pPriority, pEcmp}) {
        pNode->timeRangeId = 8;
    }
    bound({1});
    EXPECT_EQ((Lines{"ADD if1 n20", "ADD if1 n30"}), takeShortSteps());
    up(X);
    update();
    EXPECT_EQ("ADD if1 n40", takeShortSteps().back());
    for (uint32_t acl : {1502u, 1503u, 1504u}) {
        EXPECT_EQ("absent", view(1, acl));
    }
    for (PbrNodeEntry *pNode : {pOut, pPriority, pEcmp}) {
        (void)pbrStartTimerange(pNode);
    }
    EXPECT_EQ("out 99", view(1, 1502));
    EXPECT_EQ("priority 3", view(1, 1503));
    EXPECT_EQ("X", view(1, 1504));
}

TEST_F(WalkThrough, AProbeThatFailsGivesTheSecondNextHopAndSwitchesBackAtOnce) {
    PbrNextHopEntry *pA = hop(pNode_, 1);
    memcpy(pA->nqaAdminName, "ops", 3);
    memcpy(pA->nqaTestName, "t", 1);
    pA->nqaAdminNameLen = 3;
    pA->nqaTestNameLen = 1;
    PbrNqaEntry *pNqa = pbrNqaEntryAdd(bytes("ops").data(), 3, bytes("t").data(), 1);
    // What the report of a probe's status does to the store.
    auto report = [&](uint32_t status) {
        pNqa->status = status;
        pbrReadyTableAdd(pList_);
        pbrViewMarkList(pList_);
    };
    bound({1});
    up(A);
    update();
    EXPECT_TRUE(takeSteps().empty()); // a new record counts as failing
    EXPECT_EQ("inert", view(1, 1501));
    up(B);
    update();
    EXPECT_EQ(Lines{"ADD if1 n10 best=B cur=01 last=00 hw=00 view=B"}, takeSteps());

    report(1);
    update();
    EXPECT_EQ((Lines{"DEL if1 n10 best=A cur=10 last=01 hw=11 view=A", "ADD if1 n10 best=A cur=10 last=00 hw=10 view=A"}),
              takeSteps());
    report(2);
    update();
    EXPECT_EQ("ADD if1 n10 best=B cur=01 last=00 hw=01 view=B", takeSteps().back());
    report(1);
    update();
    (void)takeSteps();
    (void)pbrNqaEntryDel(pNqa); // the record is lost
    pbrReadyTableAdd(pList_);
    pbrViewMarkList(pList_);
    update();
    EXPECT_EQ("B", view(1, 1501));
    EXPECT_EQ("B", steps::hopName(pNode_->pPbrNhopBest));
    pA->nqaAdminNameLen = pA->nqaTestNameLen = 0;
    pbrViewMarkList(pList_);
}

} // namespace
