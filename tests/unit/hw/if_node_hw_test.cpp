// The device entry of one interface-node link: the record, what is remembered of it, the texts.
#include "hw/pbr_if_node_hw.h"

#include "hw/pbr_hw_acl_content.h"
#include "store/pbr_if_node_entry.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::hwText;
using steps::Lines;
using steps::logText;

class IfNodeHw : public steps::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        makeList("a");
        pIf_ = makeIf(7);
        pNode_ = makeNode("a", 10, {.acl = 1501, .ipVer = 1});
        pLink_ = pbrIfNodeEntryAdd(pIf_, pNode_);
        fake::nameInterface(7, "lan0");
        (void)fake::takeTrace();
    }
    void hops(std::initializer_list<const char *> addresses) {
        for (const char *pAddress : addresses) {
            hops_.push_back(makeNextHop(pNode_, static_cast<uint32_t>(hops_.size() + 1), pAddress));
        }
        (void)fake::takeTrace();
    }
    void version6() {
        pNode_->policyRouteIpVer = 2;
    }
    // The call that an add makes, without its interface and ACL: "act=7 pri=0 vrf=0 hops=0a000001".
    std::string addRecord() { return record(20, pbrIfNodeHwAdd(pLink_)); }
    std::string delRecord() { return record(21, pbrIfNodeHwDel(pLink_)); }
    std::string record(uint32_t command, int32_t result) {
        EXPECT_EQ(0, result);
        const Lines calls = fake::takeCalls();
        if (calls.empty()) {
            return "none";
        }
        EXPECT_EQ(1u, calls.size());
        const std::string head =
            "aclIfSetApi(7, " + std::to_string(command) + ", if=7 acl=" + std::to_string(pNode_->aclNum) + " dir=0 ";
        EXPECT_EQ(head, calls[0].substr(0, head.size()));
        return calls[0].substr(head.size(), calls[0].size() - head.size() - 1);
    }
    static std::string counters() {
        return std::to_string(gPbrInfo.hwAclAddCnt) + " " + std::to_string(gPbrInfo.hwAclAddErr) + " " +
               std::to_string(gPbrInfo.hwAclDelCnt) + " " + std::to_string(gPbrInfo.hwAclDelErr);
    }
    uint32_t status() const { return pbrIfNodeHwStatusGet(pLink_); }

    PbrIfEntry *pIf_ = nullptr;
    PbrNodeEntry *pNode_ = nullptr;
    PbrIfNodeEntry *pLink_ = nullptr;
    std::vector<PbrNextHopEntry *> hops_;
};

// ---- the record ----

TEST_F(IfNodeHw, OneIpv4NextHopIsActionSevenWhateverItsState) {
    hops({"10.0.0.1"});
    EXPECT_EQ("act=7 pri=0 vrf=0 hops=0a000001", addRecord());
    EXPECT_EQ("act=7 pri=0 vrf=0 hops=0a000001", delRecord());
}

TEST_F(IfNodeHw, TwoConfiguredIpv4NextHopsAreBothSentWithNoAction) {
    hops({"10.0.0.1", "10.0.0.2"});
    hops_[1]->nexthopArpState = 1;
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000001,0a000002", addRecord());
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000001,0a000002", delRecord());
}

TEST_F(IfNodeHw, AnIpv4EcmpNodeSendsItsResolvedNextHopsAndActionEightFromTwoOn) {
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    pbrNodeIsEcmpSet(pNode_, 1);
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=", addRecord());
    hops_[2]->nexthopArpState = 1;
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000003", addRecord());
    hops_[0]->nexthopArpState = 2; // any state but 0 counts
    EXPECT_EQ("act=8 pri=0 vrf=0 hops=0a000001,0a000003", addRecord());
}

TEST_F(IfNodeHw, EcmpIsAnyValueButZeroHere) {
    hops({"10.0.0.1", "10.0.0.2"});
    hops_[1]->nexthopArpState = 1;
    for (uint32_t isEcmp : {1u, 2u, 3u}) {
        pbrNodeIsEcmpSet(pNode_, isEcmp);
        EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000002", addRecord());
    }
}

TEST_F(IfNodeHw, ADeleteOfAnEcmpNodeNamesTheNextHopsMarkedInTheDevice) {
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    pbrNodeIsEcmpSet(pNode_, 1);
    hops_[0]->nexthopArpState = hops_[1]->nexthopArpState = 1;
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=", delRecord());
    hops_[1]->nexthopHwState = 1;
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000002", delRecord());
    hops_[2]->nexthopHwState = 1;
    EXPECT_EQ("act=8 pri=0 vrf=0 hops=0a000002,0a000003", delRecord());
}

TEST_F(IfNodeHw, OneIpv6NextHopIsActionFortySixAndTwoAreNone) {
    version6();
    pNode_->aclNum = 3001;
    hops({"2001:db8::1"});
    EXPECT_EQ("act=46 pri=0 vrf=0 hops=20010db8,00000000,00000000,00000001", addRecord());
    hops({"2001:db8::2"});
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=20010db8,00000000,00000000,00000001,20010db8,00000000,00000000,00000002",
              addRecord());
}

TEST_F(IfNodeHw, AnIpv6EcmpNodeIsActionFiftyFromTwoReachableNextHopsOn) {
    version6();
    hops({"2001:db8::1", "2001:db8::2"});
    pbrNodeIsEcmpSet(pNode_, 1);
    hops_[1]->nexthopArpState = 1;
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=20010db8,00000000,00000000,00000002", addRecord());
    hops_[0]->nexthopArpState = 1;
    EXPECT_EQ("act=50 pri=0 vrf=0 hops=20010db8,00000000,00000000,00000001,20010db8,00000000,00000000,00000002",
              addRecord());
}

TEST_F(IfNodeHw, AnOutInterfaceIsActionFourWithoutVrf) {
    pNode_->outIfUnit = 0x01020304;
    pNode_->vrfid = 12;
    EXPECT_EQ("act=4 pri=0 vrf=0 hops=01020304", addRecord());
}

TEST_F(IfNodeHw, AnOutInterfaceWinsOverNextHops) {
    hops({"10.0.0.1"});
    pNode_->outIfUnit = 9;
    EXPECT_EQ("act=4 pri=0 vrf=0 hops=00000009", addRecord());
}

TEST_F(IfNodeHw, PriorityNineIsSentAsZeroAndEveryOtherAsItIs) {
    for (uint32_t ipPri = 0; ipPri <= 15; ipPri++) {
        pbrNodeIpPriSet(pNode_, ipPri);
        EXPECT_EQ("act=0 pri=" + std::to_string(ipPri == 9 ? 0 : ipPri) + " vrf=0 hops=", addRecord());
    }
}

TEST_F(IfNodeHw, TheVrfIsSentMostSignificantByteFirst) {
    hops({"10.0.0.1"});
    pNode_->vrfid = 0x0A0B0C0D;
    EXPECT_EQ("act=7 pri=0 vrf=168496141 hops=0a000001", addRecord());
}

TEST_F(IfNodeHw, AnUnknownIpVersionIsSentWithoutAddressAndAction) {
    hops({"10.0.0.1"});
    for (uint8_t version : {0, 3, 255}) {
        pNode_->policyRouteIpVer = version;
        EXPECT_EQ("act=0 pri=0 vrf=0 hops=", addRecord());
    }
}

TEST_F(IfNodeHw, ANodeWithoutNextHopsIsSentAllTheSame) {
    pbrNodeIpPriSet(pNode_, 5);
    EXPECT_EQ("act=0 pri=5 vrf=0 hops=", addRecord());
    EXPECT_EQ("act=0 pri=5 vrf=0 hops=", delRecord());
}

TEST_F(IfNodeHw, OnlySixteenIpv4NextHopsFitAndAllAreCounted) {
    std::string expected;
    for (uint32_t i = 1; i <= 17; i++) {
        hops({("10.0.0." + std::to_string(i)).c_str()});
        hops_.back()->nexthopArpState = 1;
        char word[12];
        snprintf(word, sizeof(word), "%s0a0000%02x", i == 1 ? "" : ",", i);
        expected += i <= 16 ? word : "";
    }
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=" + expected, addRecord());
    pbrNodeIsEcmpSet(pNode_, 1);
    EXPECT_EQ("act=8 pri=0 vrf=0 hops=" + expected, addRecord());
}

TEST_F(IfNodeHw, OnlyFourIpv6NextHopsFitAndAllAreCounted) {
    version6();
    pbrNodeIsEcmpSet(pNode_, 1);
    std::string expected;
    for (uint32_t i = 1; i <= 5; i++) {
        hops({("2001:db8::" + std::to_string(i)).c_str()});
        hops_.back()->nexthopArpState = 1;
        if (i <= 4) {
            expected += i == 1 ? "" : ",";
            expected += "20010db8,00000000,00000000,0000000" + std::to_string(i);
        }
    }
    EXPECT_EQ("act=50 pri=0 vrf=0 hops=" + expected, addRecord());
    gPbrInfo.debugFlags = 4;
    (void)pbrIfNodeHwAdd(pLink_);
    const Lines texts = fake::takeTexts(); // the fifth is said too
    EXPECT_EQ(1, std::count(texts.begin(), texts.end(),
                            hwText("pbr if node hardware add ipv6 nextHop4=2001:db8::5\r\n")));
}

TEST_F(IfNodeHw, TheRecordOfAnotherInterfaceNamesThatInterface) {
    hops({"10.0.0.1"});
    constexpr PbrHwOperation operation = {"any", [](const PbrNextHopEntry *) { return true; }};
    PbrHwAclContent content;
    memset(&content, 0xFF, sizeof(content));
    pbrHwAclContentBuild(pNode_, 0x11223344, &operation, &content);
    uint8_t expected[80] = {0x11, 0x22, 0x33, 0x44, 0, 0, 0x05, 0xDD, 0, 7};
    expected[16] = 10;
    expected[19] = 1;
    EXPECT_EQ(0, memcmp(expected, content.bytes, sizeof(expected)));
}

// ---- what is passed over ----

TEST_F(IfNodeHw, ANodeWithoutAclMakesNoCallAndKeepsItsStatus) {
    hops({"10.0.0.1"});
    pNode_->aclNum = 0;
    for (uint32_t before : {0u, 1u, 2u}) {
        pbrIfNodeHwStatusSet(pLink_, before);
        EXPECT_EQ("none", addRecord());
        EXPECT_EQ("none", delRecord());
        EXPECT_EQ(before, status());
    }
    pbrNodeForwardFlagSet(pNode_, 2); // the ACL is asked first
    pbrIfNodeHwStatusSet(pLink_, 0);
    EXPECT_EQ("none", addRecord());
    EXPECT_EQ(0u, status());
    EXPECT_EQ("0 0 0 0", counters());
}

TEST_F(IfNodeHw, ForwardFlagTwoEndsProgrammedAfterAddAndAfterDeleteWithoutACall) {
    hops({"10.0.0.1"});
    hops_[0]->lastSelected = 1;
    pNode_->pPbrNhopBest = hops_[0];
    pbrNodeForwardFlagSet(pNode_, 2);
    EXPECT_EQ("none", addRecord());
    EXPECT_EQ(1u, status());
    pbrIfNodeHwStatusSet(pLink_, 0);
    EXPECT_EQ("none", delRecord());
    EXPECT_EQ(1u, status());
    EXPECT_EQ("0 0 0 0", counters());
    EXPECT_EQ(1, hops_[0]->lastSelected);
    EXPECT_EQ(hops_[0], pNode_->pPbrNhopBest);
    EXPECT_EQ(0, hops_[0]->refCntByte);
}

TEST_F(IfNodeHw, OtherForwardFlagsAreSent) {
    hops({"10.0.0.1"});
    for (uint32_t flag : {1u, 3u}) {
        pbrNodeForwardFlagSet(pNode_, flag);
        EXPECT_EQ("act=7 pri=0 vrf=0 hops=0a000001", addRecord());
    }
}

// ---- what is remembered ----

TEST_F(IfNodeHw, AnAddMovesTheMarksOfEveryResolvedNextHopAndCountsForAll) {
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    hops_[0]->nexthopArpState = 1;
    hops_[0]->curSelected = 1;
    hops_[1]->nexthopArpState = 1;
    hops_[1]->lastSelected = 1; // overwritten by its curSelected 0
    hops_[2]->nexthopArpState = 2; // not exactly resolved: left alone
    hops_[2]->curSelected = 1;
    for (PbrNextHopEntry *pHop : hops_) {
        pHop->refCntByte = 0x01;
    }
    pNode_->pPbrNhopBest = hops_[0];

    (void)addRecord();

    EXPECT_EQ("best=A cur=001 last=100 hw=110", steps::marks(pNode_));
    for (PbrNextHopEntry *pHop : hops_) {
        EXPECT_EQ(0x10, pHop->refCntByte);
    }
    EXPECT_EQ(1u, status());
    EXPECT_EQ("1 0 0 0", counters());
}

TEST_F(IfNodeHw, ADeleteClearsTheMarksOfTheNextHopInTheDeviceAndTheNodesBest) {
    hops({"10.0.0.1", "10.0.0.2"});
    for (PbrNextHopEntry *pHop : hops_) {
        pHop->nexthopArpState = 1;
        pHop->nexthopHwState = 1;
        pHop->refCntByte = 0x15;
    }
    hops_[0]->lastSelected = 1;
    pNode_->pPbrNhopBest = hops_[1];
    pbrIfNodeHwStatusSet(pLink_, 1);

    (void)delRecord();

    EXPECT_EQ("best=- cur=00 last=00 hw=01", steps::marks(pNode_));
    EXPECT_EQ(0x05, hops_[0]->refCntByte);
    EXPECT_EQ(0x05, hops_[1]->refCntByte);
    EXPECT_EQ(0u, status());
    EXPECT_EQ("0 0 1 0", counters());
}

TEST_F(IfNodeHw, ADeleteClearsTheNodesBestEvenWhenNoNextHopIsMarked) {
    hops({"10.0.0.1"});
    pNode_->pPbrNhopBest = hops_[0];
    (void)delRecord();
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
}

TEST_F(IfNodeHw, TheMarksOfAnEcmpNodeAreNeverTouched) {
    hops({"10.0.0.1", "10.0.0.2"});
    pbrNodeIsEcmpSet(pNode_, 1);
    for (PbrNextHopEntry *pHop : hops_) {
        pHop->nexthopArpState = 1;
        pHop->curSelected = 1;
    }
    pNode_->pPbrNhopBest = hops_[0];
    (void)addRecord();
    EXPECT_EQ("best=A cur=11 last=00 hw=00", steps::marks(pNode_));
    EXPECT_EQ(0x1F, hops_[0]->refCntByte); // counters move all the same
    hops_[0]->lastSelected = 1;
    hops_[0]->nexthopHwState = 1;
    (void)delRecord();
    EXPECT_EQ("best=A cur=11 last=10 hw=10", steps::marks(pNode_));
    EXPECT_EQ(0x0F, hops_[0]->refCntByte);
}

TEST_F(IfNodeHw, SixteenAddsBringTheReferenceCountsBackToTheirStart) {
    hops({"10.0.0.1", "10.0.0.2"});
    hops_[0]->refCntByte = 0x37;
    for (int i = 0; i < 15; i++) {
        (void)addRecord();
        EXPECT_NE(0x37, hops_[0]->refCntByte);
    }
    (void)addRecord();
    EXPECT_EQ(0x37, hops_[0]->refCntByte);
    EXPECT_EQ(0x00, hops_[1]->refCntByte);
}

TEST_F(IfNodeHw, ADeleteCountWrapsBelowZero) {
    hops({"10.0.0.1"});
    (void)delRecord();
    EXPECT_EQ(0xF0, hops_[0]->refCntByte);
}

TEST_F(IfNodeHw, AFailedAddLeavesEveryNextHopAsItWasAndSetsTheStatusToFailed) {
    hops({"10.0.0.1", "10.0.0.2"});
    hops_[0]->nexthopArpState = 1;
    hops_[0]->curSelected = 1;
    hops_[0]->refCntByte = 0x21;
    pNode_->pPbrNhopBest = hops_[0];
    const PbrNextHopEntry before = *hops_[0];
    const PbrNodeEntry nodeBefore = *pNode_;
    watchDevice([](uint32_t, uint32_t, uint32_t) { return -77; });
    for (uint32_t status : {0u, 1u, 2u}) {
        pbrIfNodeHwStatusSet(pLink_, status);
        EXPECT_EQ(-77, pbrIfNodeHwAdd(pLink_));
        EXPECT_EQ(2u, pbrIfNodeHwStatusGet(pLink_));
    }
    EXPECT_EQ(0, memcmp(&before, hops_[0], sizeof(before)));
    EXPECT_EQ(0, memcmp(&nodeBefore, pNode_, sizeof(nodeBefore)));
    EXPECT_EQ("0 3 0 0", counters());
}

TEST_F(IfNodeHw, AFailedDeleteLeavesEverythingAsItWas) {
    hops({"10.0.0.1"});
    hops_[0]->lastSelected = 1;
    hops_[0]->refCntByte = 0x21;
    pNode_->pPbrNhopBest = hops_[0];
    const PbrNextHopEntry before = *hops_[0];
    watchDevice([](uint32_t, uint32_t, uint32_t) { return 5; });
    for (uint32_t status : {0u, 1u, 2u}) {
        pbrIfNodeHwStatusSet(pLink_, status);
        EXPECT_EQ(5, pbrIfNodeHwDel(pLink_));
        EXPECT_EQ(status, pbrIfNodeHwStatusGet(pLink_));
    }
    EXPECT_EQ(0, memcmp(&before, hops_[0], sizeof(before)));
    EXPECT_EQ(hops_[0], pNode_->pPbrNhopBest);
    EXPECT_EQ("0 0 0 3", counters());
}

TEST_F(IfNodeHw, TheStatusKeepsTheOtherBitsOfItsWord) {
    hops({"10.0.0.1"});
    pLink_->hwWord = 0x9FFFFFFFu;
    (void)addRecord();
    EXPECT_EQ(0xBFFFFFFFu, pLink_->hwWord);
    (void)delRecord();
    EXPECT_EQ(0x9FFFFFFFu, pLink_->hwWord);
    pLink_->hwWord = 0;
}

TEST_F(IfNodeHw, EachCallToTheDeviceMarksTheListForTheRedirectView) {
    hops({"10.0.0.1"});
    checked();
    (void)addRecord();
    EXPECT_EQ(1u, pbrRedirectViewChanged());
    checked();
    watchDevice([](uint32_t, uint32_t, uint32_t) { return 5; });
    (void)pbrIfNodeHwDel(pLink_);
    EXPECT_EQ(1u, pbrRedirectViewChanged());
}

// ---- the texts ----

TEST_F(IfNodeHw, AnAddSaysWhatItDoesWithBitFour) {
    hops({"10.0.0.1", "10.0.0.2"});
    pbrNodeIpPriSet(pNode_, 3);
    pNode_->vrfid = 12;
    gPbrInfo.debugFlags = 4;
    EXPECT_EQ(0, pbrIfNodeHwAdd(pLink_));
    EXPECT_EQ(
        fake::takeTrace(),
        (Lines{hwText("interface lan0 add policy route node to hardware:aclNum=1501,ipPri=3,forwardFlag=0,"
                      "outIfUnit=0,vrfid=12,isEcmp=0,policyRouteIpVer = 1.\r\n"),
               hwText("ifUnit 7 acl list 1501 \n\r"), hwText("pbr if node hardware add nextHop0=0xa000001.\r\n"),
               hwText("pbr if node hardware add nextHop1=0xa000002.\r\n"),
               hwText("policyroute add hardware acl content if[lan0],lstIndex[1501],direction[0],action[0],"
                      "newIpPri[3],vrfId[12],len[80].\r\n"),
               "aclIfSetApi(7, 20, if=7 acl=1501 dir=0 act=0 pri=3 vrf=12 hops=0a000001,0a000002)",
               hwText("pbr if node hardware add success return:0.\r\n")}));
}

TEST_F(IfNodeHw, ADeleteSaysWhatItDoesAndIsAlwaysRecorded) {
    version6();
    pNode_->aclNum = 3001;
    hops({"2001:db8::1"});
    gPbrInfo.debugFlags = 4;
    const std::string settings = "aclNum=3001,ipPri=9,forwardFlag=0,outIfUnit=0,vrfid=0,isEcmp=0,policyRouteIpVer";
    const std::string always =
        logText(0x044B0003, 6, 2, "Interface lan0 del policy route node to hardware:" + settings + "=2.\r\n");
    EXPECT_EQ(0, pbrIfNodeHwDel(pLink_));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{hwText("interface lan0 del policy route node to hardware:" + settings + " = 2.\r\n"), always,
                     hwText("ifUnit 7 acl list 3001 \n\r"),
                     hwText("pbr if node hardware del ipv6 nextHop0=2001:db8::1\r\n"),
                     hwText("policyroute del hardware acl content if[lan0],lstIndex[3001],direction[0],action[46],"
                            "newIpPri[0],vrfId[0],len[80].\r\n"),
                     "aclIfSetApi(7, 21, if=7 acl=3001 dir=0 act=46 pri=0 vrf=0 "
                     "hops=20010db8,00000000,00000000,00000001)",
                     hwText("pbr if node hardware del success return:0.\r\n")}));
    gPbrInfo.debugFlags = ~4u;
    EXPECT_EQ(0, pbrIfNodeHwDel(pLink_));
    EXPECT_EQ(fake::takeTexts(), Lines{always});
}

TEST_F(IfNodeHw, FailuresAreSaidWithTheirCode) {
    hops({"10.0.0.1"});
    gPbrInfo.debugFlags = 4;
    watchDevice([](uint32_t, uint32_t, uint32_t) { return -2; });
    (void)pbrIfNodeHwAdd(pLink_);
    EXPECT_EQ(hwText("pbr if node hardware add fail return:-2.\r\n"), fake::takeTexts().back());
    (void)pbrIfNodeHwDel(pLink_);
    EXPECT_EQ(hwText("pbr if node hardware del fail return:-2.\r\n"), fake::takeTexts().back());
}

TEST_F(IfNodeHw, AMissingNextHopIsSaidBeforeTheAclIsLookedAt) {
    pNode_->aclNum = 0;
    gPbrInfo.debugFlags = 4;
    const std::string settings = "aclNum=0,ipPri=9,forwardFlag=0,outIfUnit=0,vrfid=0,isEcmp=0,policyRouteIpVer";
    EXPECT_EQ(0, pbrIfNodeHwAdd(pLink_));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{hwText("interface lan0 add policy route node to hardware:" + settings + " = 1.\r\n"),
                     hwText("nextHop is not exist.\r\n")}));
    EXPECT_EQ(0, pbrIfNodeHwDel(pLink_));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{hwText("interface lan0 del policy route node to hardware:" + settings + " = 1.\r\n"),
                     logText(0x044B0003, 6, 2,
                             "Interface lan0 del policy route node to hardware:" + settings + "=1.\r\n"),
                     hwText("nextHop is not exist.\r\n")}));
}

TEST_F(IfNodeHw, AnAddSaysNothingWhileItsBitIsOff) {
    hops({"10.0.0.1"});
    gPbrInfo.debugFlags = ~4u;
    (void)pbrIfNodeHwAdd(pLink_);
    EXPECT_TRUE(fake::takeTexts().empty());
}

} // namespace
