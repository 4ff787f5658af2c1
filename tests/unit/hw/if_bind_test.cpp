// Binding a policy list to an interface, and undoing it.
#include "hw/pbr_if_bind.h"

#include "nexthop/pbr_ready_table.h"
#include "store/pbr_if_node_entry.h"
#include "store/pbr_view_mark.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::generalText;
using steps::Lines;
using steps::logText;
using steps::pointerText;

class IfBind : public steps::StoreTest {
protected:
    // List "a", node 10, ACL 1501, next hops A and B.
    void SetUp() override {
        StoreTest::SetUp();
        prepare();
    }
    void prepare() {
        pList_ = makeList("a");
        pNode_ = makeNode("a", 10, {.acl = 1501, .ipVer = 1});
        makeNextHop(pNode_, 1, "10.0.0.1");
        makeNextHop(pNode_, 2, "10.0.0.2");
        (void)fake::takeTrace();
    }
    // A node that sends out of interface 99.
    PbrNodeEntry *outNode(uint32_t index, uint32_t acl) {
        PbrNodeEntry *pNode = makeNode("a", index, {.acl = acl, .ipVer = 1, .outIf = 99});
        (void)fake::takeTrace();
        return pNode;
    }
    // The calls of a bind or unbind, on a fresh trace.
    Lines bindCalls(uint32_t unit) {
        (void)fake::takeTrace();
        EXPECT_EQ(0, bind(unit, "a"));
        return fake::takeCalls();
    }
    Lines unbindCalls(uint32_t unit) {
        (void)fake::takeTrace();
        EXPECT_EQ(0u, unbind(unit));
        return fake::takeCalls();
    }
    static PbrNextHopEntry *hop(const PbrNodeEntry *pNode, uint32_t index) {
        PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode);
        return index == 1 ? pHop : pbrNodeNextHopNext(pNode, pHop);
    }
    std::string refCnts() const {
        char text[32];
        snprintf(text, sizeof(text), "%02x %02x", hop(pNode_, 1)->refCntByte, hop(pNode_, 2)->refCntByte);
        return text;
    }
    std::string chain() const {
        std::string units;
        for (PbrIfEntry *pIf = pbrListBoundIfFirst(pList_); pIf != nullptr; pIf = pbrListBoundIfNext(pList_, pIf)) {
            units += units.empty() ? "" : ",";
            units += std::to_string(pIf->ifUnit);
        }
        return units;
    }
    PbrListEntry *pList_ = nullptr;
    PbrNodeEntry *pNode_ = nullptr;
};

TEST_F(IfBind, TheFirstBindingStartsDetectionAndWritesNothingForNodesWithNextHops) {
    hop(pNode_, 2)->nexthopArpState = 1; // known from an earlier binding
    EXPECT_EQ(bindCalls(1), (Lines{"aclLstSyncApi(1501, 2, 1)",
                                   "hrdScalarSetApi(0, 6, 01010700 00000000 00000000 0a000001)",
                                   "hrdScalarSetApi(0, 6, 01010700 00000000 00000000 0a000002)",
                                   "qrvIfSetApi(1, 56, 206)"}));
    EXPECT_EQ(1u, pbrListRefCntGet(pList_));
    EXPECT_EQ("01 01", refCnts());
    EXPECT_EQ(1, pNode_->nhopArpUp);
    EXPECT_EQ(0u, hwStatus(1, pNode_));
    EXPECT_EQ("1", chain());
}

TEST_F(IfBind, NodesAreBoundInOrderEachWithItsOwnCalls) {
    outNode(5, 1500);
    PbrNodeEntry *pPriority = makeNode("a", 20, {.acl = 1502, .pri = 3});
    EXPECT_EQ(bindCalls(1),
              (Lines{"aclLstSyncApi(1500, 2, 1)",
                     "aclIfSetApi(1, 20, if=1 acl=1500 dir=0 act=4 pri=0 vrf=0 hops=00000063)",
                     "aclLstSyncApi(1501, 2, 1)", "hrdScalarSetApi(0, 6, 01010700 00000000 00000000 0a000001)",
                     "hrdScalarSetApi(0, 6, 01010700 00000000 00000000 0a000002)", "aclLstSyncApi(1502, 2, 1)",
                     "aclIfSetApi(1, 20, if=1 acl=1502 dir=0 act=0 pri=3 vrf=0 hops=)",
                     "qrvIfSetApi(1, 56, 206)"}));
    std::string order;
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pbrIfEntryGet(1)); pLink != nullptr;
         pLink = pbrIfIfNodeNext(pbrIfEntryGet(1), pLink)) {
        order += std::to_string(pLink->pPbrNode->nodeIndex) + " ";
    }
    EXPECT_EQ("5 10 20 ", order);
    EXPECT_EQ(1u, hwStatus(1, pPriority));
}

TEST_F(IfBind, NodesWithoutNextHopsAreWrittenOnEveryBinding) {
    outNode(5, 1500);
    for (uint32_t unit : {1u, 2u, 3u}) {
        const Lines calls = bindCalls(unit);
        EXPECT_EQ(1, std::count(calls.begin(), calls.end(),
                                "aclIfSetApi(" + std::to_string(unit) + ", 20, if=" + std::to_string(unit) +
                                    " acl=1500 dir=0 act=4 pri=0 vrf=0 hops=00000063)"));
    }
}

TEST_F(IfBind, ANodeWithOutInterfaceAndNextHopsIsWrittenAtOnceWithoutDetection) {
    pNode_->outIfUnit = 9;
    EXPECT_EQ(bindCalls(1), (Lines{"aclLstSyncApi(1501, 2, 1)",
                                   "aclIfSetApi(1, 20, if=1 acl=1501 dir=0 act=4 pri=0 vrf=0 hops=00000009)",
                                   "qrvIfSetApi(1, 56, 206)"}));
    EXPECT_EQ("1f 1f", refCnts()); // not raised by the binding; counted by the add
}

TEST_F(IfBind, AKnownReachablePeerMakesTheNodeUpAndQueuesTheList) {
    makeList("known");
    PbrNodeEntry *pKnown = makeNode("known", 1, {.acl = 1700, .ipVer = 1});
    makeNextHop(pKnown, 1, "10.0.0.2")->nexthopArpState = 1;
    (void)bindCalls(1);
    EXPECT_EQ(1, pNode_->nhopArpUp);
    EXPECT_EQ("a", readyLists());
    EXPECT_EQ("B", steps::view(1, 1501));
}

TEST_F(IfBind, AFurtherBindingWritesASingleNodeOnlyWhenItIsUp) {
    (void)bindCalls(1);
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    ASSERT_EQ(0, bind(2, "a"));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{generalText("pbrIfEntry Add if(if2)\r\n"), "aclLstSyncApi(1501, 2, 1)",
                     generalText("pbrIfEntryBind pPbrNode(" + pointerText(pNode_) +
                                 ") is not best nhop,wait for hrd notify.\r\n"),
                     "qrvIfSetApi(2, 56, 206)"}));
    EXPECT_EQ(0u, hwStatus(2, pNode_));
    EXPECT_EQ("02 02", refCnts());

    pNode_->nhopArpUp = 1;
    (void)fake::takeTrace();
    ASSERT_EQ(0, bind(3, "a"));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{generalText("pbrIfEntry Add if(if3)\r\n"), "aclLstSyncApi(1501, 2, 1)",
                     generalText("pbrIfEntryBind find nhop start to add hw.\r\n"),
                     "aclIfSetApi(3, 20, if=3 acl=1501 dir=0 act=0 pri=0 vrf=0 hops=0a000001,0a000002)",
                     "qrvIfSetApi(3, 56, 206)"}));
    EXPECT_EQ(1u, hwStatus(3, pNode_));
    EXPECT_EQ("12 12", refCnts());
    EXPECT_EQ("3,2,1", chain());
}

TEST_F(IfBind, AFurtherBindingWritesAnEcmpNodeAtOnceAndMarksItsResolvedNextHops) {
    pbrNodeIsEcmpSet(pNode_, 1);
    (void)bindCalls(1);
    hop(pNode_, 1)->nexthopArpState = 1;
    hop(pNode_, 2)->nexthopArpState = 2;
    EXPECT_EQ(bindCalls(2),
              (Lines{"aclLstSyncApi(1501, 2, 1)",
                     "aclIfSetApi(2, 20, if=2 acl=1501 dir=0 act=8 pri=0 vrf=0 hops=0a000001,0a000002)",
                     "qrvIfSetApi(2, 56, 206)"}));
    EXPECT_EQ(1, hop(pNode_, 1)->curSelected);
    EXPECT_EQ(0, hop(pNode_, 2)->curSelected);
}

TEST_F(IfBind, AnEcmpValueOfTwoIsBoundLikeASingleNode) {
    pbrNodeIsEcmpSet(pNode_, 2);
    (void)bindCalls(1);
    (void)bindCalls(2);
    EXPECT_EQ(0u, hwStatus(2, pNode_));
}

TEST_F(IfBind, TheSixteenthBindingBringsTheCountToZeroAndTheSeventeenthIsAFirstOneAgain) {
    for (uint32_t unit = 1; unit <= 15; unit++) {
        ASSERT_EQ(0, bind(unit, "a"));
    }
    up("10.0.0.1");
    update();
    EXPECT_EQ(15u, pbrListRefCntGet(pList_));
    (void)takeSteps();

    EXPECT_EQ(bindCalls(16), (Lines{"aclLstSyncApi(1501, 2, 1)", "qrvIfSetApi(16, 56, 206)"}));
    EXPECT_EQ(0u, pbrListRefCntGet(pList_));
    down("10.0.0.1"); // taken for unbound: nobody listens
    EXPECT_EQ(1, hop(pNode_, 1)->nexthopArpState);
    EXPECT_EQ("", readyLists());

    EXPECT_EQ(bindCalls(17), (Lines{"aclLstSyncApi(1501, 2, 1)",
                                    "hrdScalarSetApi(0, 6, 01010700 00000000 00000000 0a000001)",
                                    "hrdScalarSetApi(0, 6, 01010700 00000000 00000000 0a000002)",
                                    "qrvIfSetApi(17, 56, 206)"}));
    EXPECT_EQ(1u, pbrListRefCntGet(pList_));
    EXPECT_TRUE(takeSteps().empty());
    up("10.0.0.1");
    up("10.0.0.2");
    down("10.0.0.1"); // the list lives again: all seventeen are written
    update();
    for (uint32_t unit = 1; unit <= 17; unit++) {
        EXPECT_EQ(1u, hwStatus(unit, pNode_)) << unit;
        EXPECT_EQ("B", steps::view(unit, 1501));
    }

    (void)unbindCalls(17); // the count is 0: taken for the last binding
    EXPECT_EQ(0u, pbrListRefCntGet(pList_));
    EXPECT_EQ(1u, hwStatus(1, pNode_));
    EXPECT_EQ("B", steps::view(1, 1501));
}

TEST_F(IfBind, AMissingListIsRefusedAndChangesNothing) {
    (void)makeIf(1);
    (void)fake::takeTrace();
    EXPECT_EQ(-1, bind(1, "nosuch"));
    EXPECT_TRUE(fake::takeTrace().empty());
    EXPECT_EQ(65536002u, pbrIfEntryUnBind(pbrIfEntryGet(1)));
    EXPECT_TRUE(fake::takeTrace().empty());
    EXPECT_EQ(nullptr, pbrIfEntryGet(1)->boundLink.pNext);
}

TEST_F(IfBind, AListThatMayNotBeBoundIsRefusedBeforeAnythingChanges) {
    makeNode("a", 20, {.acl = 1502}); // matches, but does nothing
    (void)makeIf(1);
    (void)fake::takeTrace();
    EXPECT_EQ(-1, bind(1, "a"));
    EXPECT_TRUE(fake::takeTrace().empty());
    EXPECT_EQ(0u, pbrListRefCntGet(pList_));
    EXPECT_EQ("00 00", refCnts());
    pbrIfEntryGet(1)->pbrNameLen = 0;
}

TEST_F(IfBind, AFailedDeviceAddDoesNotChangeTheResult) {
    PbrNodeEntry *pOut = outNode(5, 1500);
    watchDevice([](uint32_t, uint32_t, uint32_t) { return -1; });
    (void)bindCalls(1);
    EXPECT_EQ(2u, hwStatus(1, pOut));
}

TEST_F(IfBind, AProtocolSwitchThatFailsIsRecordedAndDoesNotChangeTheResult) {
    fake::nameInterface(1, "lan0");
    fake::answer("qrvIfSetApi", -1);
    (void)fake::takeTrace();
    EXPECT_EQ(0, bind(1, "a"));
    EXPECT_EQ(fake::takeTexts(),
              Lines{logText(0x044B0005, 0, 0,
                            "The interface enable protocol error.(ifName=[lan0], proto=[policy-route], "
                            "type=[state])\r\n")});
    EXPECT_EQ("1", chain());
    EXPECT_EQ(0u, unbind(1));
    EXPECT_EQ(fake::takeTexts(),
              Lines{logText(0x044B0006, 0, 0,
                            "The interface disable protocol error.(ifName=[lan0], proto=[policy-route], "
                            "type=[state])\r\n")});
    EXPECT_EQ("", chain());
}

// ---- unbinding ----

TEST_F(IfBind, TheLastUnbindEndsDetectionAndRemovesTheEntry) {
    (void)bindCalls(1);
    up("10.0.0.1");
    update();
    pbrReadyTableAdd(pList_);
    EXPECT_EQ(unbindCalls(1), (Lines{"aclLstSyncApi(1501, 2, -1)",
                                     "hrdScalarSetApi(0, 6, 00010700 00000000 00000000 0a000001)",
                                     "hrdScalarSetApi(0, 6, 00010700 00000000 00000000 0a000002)",
                                     "aclIfSetApi(1, 21, if=1 acl=1501 dir=0 act=0 pri=0 vrf=0 hops=0a000001,0a000002)",
                                     "qrvIfSetApi(1, 57, 206)"}));
    EXPECT_EQ(0u, pbrListRefCntGet(pList_));
    EXPECT_EQ("", readyLists());
    EXPECT_EQ("", chain());
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
    EXPECT_EQ(nullptr, pbrIfIfNodeFirst(pbrIfEntryGet(1)));
    EXPECT_EQ("00 00", refCnts());
}

TEST_F(IfBind, TheLastUnbindOfALinkThatNeverCameIntoTheDeviceTakesItsCountsAndBestBack) {
    (void)bindCalls(1);
    pNode_->pPbrNhopBest = hop(pNode_, 2);
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    EXPECT_EQ(0u, unbind(1));
    const Lines texts = fake::takeTexts();
    EXPECT_EQ(texts,
              (Lines{generalText("pbr delete hrd peer ipAddr=10.0.0.1!\r\n"),
                     generalText("pbr delete hrd peer ipAddr=10.0.0.2!\r\n"),
                     generalText("pbrIfEntryUnBind start to delete hwAddRefCnt.\r\n"),
                     generalText("pbrIfEntryUnBind start to delete hwAddRefCnt.\r\n"),
                     generalText("pbrIfEntryUnBind pPbrNhopBest:" + pointerText(hop(pNode_, 2)) + ".\r\n"),
                     generalText("pbrIfnode delete\r\n")}));
    EXPECT_EQ("00 00", refCnts());
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
}

TEST_F(IfBind, UnbindingOneOfTwoAsksNobodyForThePeerAndKeepsTheBestOfLinksNotInTheDevice) {
    (void)bindCalls(1);
    (void)bindCalls(2);
    pNode_->pPbrNhopBest = hop(pNode_, 1);
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    EXPECT_EQ(0u, unbind(2));
    EXPECT_EQ(fake::takeTrace(), (Lines{"aclLstSyncApi(1501, 2, -1)",
                                        generalText("pbrIfEntryUnBind start to delete hwAddRefCnt.\r\n"),
                                        generalText("pbrIfEntryUnBind start to delete hwAddRefCnt.\r\n"),
                                        generalText("pbrIfnode delete\r\n"), "qrvIfSetApi(2, 57, 206)"}));
    EXPECT_EQ(hop(pNode_, 1), pNode_->pPbrNhopBest);
    EXPECT_EQ("01 01", refCnts());
    EXPECT_EQ("1", chain());
}

TEST_F(IfBind, APeerThatAnotherListNeedsStaysRegistered) {
    makeList("b");
    PbrNodeEntry *pOther = makeNode("b", 1, {.acl = 1600, .ipVer = 1});
    makeNextHop(pOther, 1, "10.0.0.2");
    ASSERT_EQ(0, bind(1, "a"));
    ASSERT_EQ(0, bind(2, "b"));
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    EXPECT_EQ(0u, unbind(1));
    const Lines trace = fake::takeTrace();
    EXPECT_EQ(1, std::count(trace.begin(), trace.end(),
                            "hrdScalarSetApi(0, 6, 00010700 00000000 00000000 0a000001)"));
    EXPECT_EQ(0, std::count(trace.begin(), trace.end(),
                            "hrdScalarSetApi(0, 6, 00010700 00000000 00000000 0a000002)"));
    EXPECT_EQ(1, std::count(trace.begin(), trace.end(),
                            generalText("pbr did peer not need unbind ipAddr=10.0.0.2,vrfid:0!\r\n")));
}

TEST_F(IfBind, ALinkWhoseAddFailedIsDeletedAllTheSame) {
    PbrNodeEntry *pOut = outNode(5, 1500);
    watchDevice([first = true](uint32_t, uint32_t, uint32_t) mutable { return std::exchange(first, false) ? -1 : 0; });
    (void)bindCalls(1);
    ASSERT_EQ(2u, hwStatus(1, pOut));
    gPbrInfo.debugFlags = 64;
    (void)takeSteps();
    (void)fake::takeTrace();
    EXPECT_EQ(0u, unbind(1));
    EXPECT_EQ(Lines{"DEL if1 n5"}, takeShortSteps());
    const Lines texts = fake::takeTexts();
    EXPECT_EQ(generalText("pbrIfEntryUnBind start to delete hw,hwStatus:2.\r\n"), texts[0]);
}

TEST_F(IfBind, AnOutInterfaceNodeThatIsNotInTheDeviceKeepsItsCountsWhenUnbound) {
    pNode_->outIfUnit = 9;
    (void)bindCalls(1);
    pbrIfNodeHwStatusSet(link(1, pNode_), 0);
    hop(pNode_, 1)->refCntByte = 0x05;
    (void)unbindCalls(1);
    EXPECT_EQ(0x05, hop(pNode_, 1)->refCntByte);
}

TEST_F(IfBind, BindingAndUnbindingMarkTheListAlsoOneWithoutNodes) {
    PbrListEntry *pEmpty = makeList("empty");
    PbrIfEntry *pIf = makeIf(1);
    nameList(pIf, "empty");
    checked();
    EXPECT_EQ(0, pbrIfEntryBind(pIf));
    EXPECT_EQ(1, pEmpty->viewMark);
    checked();
    EXPECT_EQ(0u, pbrIfEntryUnBind(pIf));
    EXPECT_EQ(1, pEmpty->viewMark);
}

TEST_F(IfBind, AnUnbindWithOthersLeftStillTakesTheListOutOfTheReadyTable) {
    (void)bindCalls(1);
    (void)bindCalls(2);
    pbrReadyTableAdd(pList_);
    (void)unbindCalls(1);
    EXPECT_EQ("", readyLists());
    EXPECT_EQ("2", chain());
}

TEST_F(IfBind, UnbindingAnEntryThatWasNeverBoundIsHarmless) {
    PbrIfEntry *pIf = makeIf(1);
    nameList(pIf, "a");
    (void)fake::takeTrace();
    EXPECT_EQ(0u, pbrIfEntryUnBind(pIf));
    pIf->pbrNameLen = 0;
    EXPECT_EQ(15u, pbrListRefCntGet(pList_)); // the count wraps downwards too
    pbrListRefCntSet(pList_, 0);
    EXPECT_EQ("", chain());
}

// ---- a binding that runs out of links ----

TEST_F(IfBind, ABindingThatRunsOutOfLinksKeepsWhatWasDoneAndIsNotInTheChain) {
    (void)pbrUnlock();
    startDaemon(4, 1, 2); // 2 interfaces x 1 node: two links
    (void)pbrLock();
    mirror_ = {};
    watchDevice([](uint32_t, uint32_t, uint32_t) { return 0; });
    pList_ = makeList("a");
    pNode_ = makeNode("a", 10, {.acl = 1501, .ipVer = 1, .outIf = 9});
    ASSERT_EQ(0, bind(1, "a"));
    PbrIfEntry *pIf = makeIf(2);
    (void)pbrIfNodeEntryAdd(pIf, pNode_); // a link that an earlier failure left behind
    nameList(pIf, "a");
    pbrViewMarkAll();
    (void)fake::takeTrace();
    EXPECT_EQ(-1, pbrIfEntryBind(pIf));
    pIf->pbrNameLen = 0;
    EXPECT_EQ(fake::takeCalls(), Lines{"aclLstSyncApi(1501, 2, 1)"});
    EXPECT_EQ(2u, pbrListRefCntGet(pList_)); // stays raised
    EXPECT_EQ("1", chain());
    EXPECT_EQ("out 9", steps::view(2, 1501)); // every link counts for the view
    checkStore(STORE_ALLOW_COUNTS);
    mirror_.take(false);
    steps::ViewMirror whole;
    whole.take(true);
    EXPECT_EQ(whole.lists(), mirror_.lists());
    EXPECT_EQ(1u, whole.lists().at("a").count({2, 10}));

    (void)pbrIfNodeEntryDel(pbrIfIfNodeFirst(pIf));
    pbrListRefCntSet(pList_, 1);
    pbrViewMarkAll();
}

// Every platform call inside a bind and an unbind fails once.
TEST_F(IfBind, AnyPlatformFailureGivesThePublishedResultAndASoundStore) {
    bool isHit = true;
    for (uint32_t n = 1; isHit; n++) {
        ASSERT_LT(n, 100u);
        (void)pbrUnlock();
        startDaemon();
        (void)pbrLock();
        mirror_ = {};
        prepare();
        outNode(5, 1500);
        outNode(20, 1502);
        (void)makeIf(1);
        (void)makeIf(2);
        nameList(pbrIfEntryGet(1), "a");
        nameList(pbrIfEntryGet(2), "a");
        fake::failNth(n);
        bool isRefused = false;
        for (uint32_t unit : {1u, 2u}) {
            const bool before = fake::faultHit();
            const int32_t result = pbrIfEntryBind(pbrIfEntryGet(unit));
            const bool ranOut = !before && fake::faultHit() && fake::faultCall() == "silMemPoolAlloc";
            EXPECT_EQ(ranOut ? -1 : 0, result) << n << " " << fake::faultCall();
            isRefused = isRefused || ranOut;
            checkStore(isRefused ? STORE_ALLOW_COUNTS : 0);
        }
        EXPECT_EQ(2u, pbrListRefCntGet(pList_));
        pbrNextHopStateUp(1, 0, steps::addressOf("10.0.0.1").data());
        (void)pbrIfNodeUpdate();
        checkStore(isRefused ? STORE_ALLOW_COUNTS : 0);
        for (uint32_t unit : {1u, 2u}) {
            EXPECT_EQ(0u, pbrIfEntryUnBind(pbrIfEntryGet(unit))) << fake::faultCall();
            checkStore(isRefused ? STORE_ALLOW_COUNTS : 0);
            EXPECT_EQ(nullptr, pbrIfIfNodeFirst(pbrIfEntryGet(unit)));
        }
        isHit = fake::faultHit();
        fake::failNth(0);
        EXPECT_EQ(0u, fake::slotsTaken("pbr_ifnode"));
        EXPECT_EQ(0u, pbrListRefCntGet(pList_));
        mirror_.take(false);
        EXPECT_TRUE(mirror_.lists().empty());
        pbrIfEntryGet(1)->pbrNameLen = pbrIfEntryGet(2)->pbrNameLen = 0;
    }
}

} // namespace
