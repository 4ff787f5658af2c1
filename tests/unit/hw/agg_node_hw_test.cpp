// Entries on member ports of an aggregation: the record, what stays untouched, the texts.
#include "hw/pbr_agg_node_hw.h"

#include <sstream>

#include "store/pbr_if_node_entry.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::hwText;
using steps::Lines;
using steps::logText;

constexpr uint32_t AGG = 5;
constexpr uint32_t PORT = 9;

class AggNodeHw : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeList("a");
        pNode_ = makeNode("a", 10, {.acl = 1501, .ipVer = 1});
        pLink_ = pbrIfNodeEntryAdd(makeIf(AGG), pNode_);
        fake::nameInterface(AGG, "agg1");
        fake::nameInterface(PORT, "port9");
        (void)fake::takeTrace();
    }
    void TearDown() override { checkStore(); }

    void hops(std::initializer_list<const char *> addresses) {
        for (const char *pAddress : addresses) {
            hops_.push_back(makeNextHop(pNode_, static_cast<uint32_t>(hops_.size() + 1), pAddress));
        }
        (void)fake::takeTrace();
    }
    // What the port's record says behind its interface and ACL, "none" when nothing is sent.
    std::string joinRecord() { return record(20, pbrAggNodeHwAdd(pLink_, PORT)); }
    std::string quitRecord() { return record(21, pbrAggNodeHwDel(pLink_, PORT)); }
    std::string record(uint32_t command, int32_t result) {
        EXPECT_EQ(0, result);
        const Lines calls = fake::takeCalls();
        if (calls.empty()) {
            return "none";
        }
        EXPECT_EQ(1u, calls.size());
        const std::string head = "aclIfSetApi(9, " + std::to_string(command) +
                                 ", if=9 acl=" + std::to_string(pNode_->aclNum) + " dir=0 ";
        EXPECT_EQ(head, calls[0].substr(0, head.size()));
        return calls[0].substr(head.size(), calls[0].size() - head.size() - 1);
    }
    // Everything of the bookkeeping that must stay as it was.
    std::string bookkeeping() const {
        std::ostringstream out;
        out << steps::marks(pNode_) << " hw" << pbrIfNodeHwStatusGet(pLink_);
        for (const PbrNextHopEntry *pHop : hops_) {
            out << " " << static_cast<unsigned>(pHop->refCntByte);
        }
        for (uint32_t count : {gPbrInfo.hwAclAddCnt, gPbrInfo.hwAclAddErr, gPbrInfo.hwAclDelCnt,
                               gPbrInfo.hwAclDelErr}) {
            out << " " << count;
        }
        return out.str();
    }

    PbrNodeEntry *pNode_ = nullptr;
    PbrIfNodeEntry *pLink_ = nullptr;
    std::vector<PbrNextHopEntry *> hops_;
};

const std::string SETTINGS =
    "aclNum=1501,ipPri=3,forwardFlag=0,outIfUnit=0,vrfid=4,isEcmp=0,policyRouteIpVer = 1.\r\n";

TEST_F(AggNodeHw, JoiningTellsHeaderTargetNextHopContentAndResultAroundTheCall) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    hops({"10.0.0.1"});
    pbrNodeIpPriSet(pNode_, 3);
    pNode_->vrfid = 4;

    EXPECT_EQ(0, pbrAggNodeHwAdd(pLink_, PORT));

    EXPECT_EQ(fake::takeTrace(),
              (Lines{hwText(std::string("physical interface port9 join agg interface agg1,add policy route node to "
                                        "hardware:") + SETTINGS),
                     hwText("ifUnit 9 acl list 1501 \n\r"),
                     hwText("pbr agg if node hardware add nextHop0=0xa000001.\r\n"),
                     hwText("policyroute add hardware acl content if[port9],lstIndex[1501],direction[0],"
                            "action[7],newIpPri[3],vrfId[4].\r\n"),
                     "aclIfSetApi(9, 20, if=9 acl=1501 dir=0 act=7 pri=3 vrf=4 hops=0a000001)",
                     hwText("pbr agg if node hardware add success return:0.\r\n")}));
}

TEST_F(AggNodeHw, LeavingAlsoRecordsItsHeaderWithTheSameTextWhateverTheDebugFlags) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    hops({"10.0.0.1"});
    pbrNodeIpPriSet(pNode_, 3);
    pNode_->vrfid = 4;
    const std::string header =
        "physical interface port9 quit agg interface agg1,del policy route node to hardware:" + SETTINGS;

    EXPECT_EQ(0, pbrAggNodeHwDel(pLink_, PORT));

    EXPECT_EQ(fake::takeTrace(),
              (Lines{hwText(header), logText(0x044B0003, 6, 2, header), hwText("ifUnit 9 acl list 1501 \n\r"),
                     hwText("pbr agg if node hardware del nextHop0=0xa000001.\r\n"),
                     hwText("policyroute del hardware acl content if[port9],lstIndex[1501],direction[0],"
                            "action[7],newIpPri[3],vrfId[4].\r\n"),
                     "aclIfSetApi(9, 21, if=9 acl=1501 dir=0 act=7 pri=3 vrf=4 hops=0a000001)",
                     hwText("pbr agg if node hardware del success return:0.\r\n")}));

    gPbrInfo.debugFlags = ~PBR_DEBUG_HARDWARE;
    EXPECT_EQ(0, pbrAggNodeHwDel(pLink_, PORT));
    EXPECT_EQ(fake::takeTexts(), Lines{logText(0x044B0003, 6, 2, header)});
    EXPECT_EQ(0, pbrAggNodeHwAdd(pLink_, PORT));
    EXPECT_EQ(fake::takeTexts(), Lines{});
}

TEST_F(AggNodeHw, AJoiningPortGetsTheEcmpMembersWrittenForTheAggregationWhateverTheirStateNow) {
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    for (uint32_t isEcmp : {1u, 2u, 3u}) {
        pbrNodeIsEcmpSet(pNode_, isEcmp);
        hops_[0]->lastSelected = hops_[2]->lastSelected = 0;
        hops_[1]->nexthopArpState = 1; // neither resolved nor marked in the device counts
        hops_[1]->nexthopHwState = 1;
        EXPECT_EQ("act=0 pri=0 vrf=0 hops=", joinRecord());
        hops_[0]->lastSelected = 1;
        EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000001", joinRecord());
        hops_[2]->lastSelected = 2;
        EXPECT_EQ("act=8 pri=0 vrf=0 hops=0a000001,0a000003", joinRecord());
    }
}

TEST_F(AggNodeHw, ALeavingPortNamesTheEcmpMembersInTheDevice) {
    hops({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    pbrNodeIsEcmpSet(pNode_, 1);
    hops_[0]->lastSelected = hops_[0]->nexthopArpState = 1;
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=", quitRecord());
    hops_[1]->nexthopHwState = hops_[2]->nexthopHwState = 1;
    EXPECT_EQ("act=8 pri=0 vrf=0 hops=0a000002,0a000003", quitRecord());
}

TEST_F(AggNodeHw, TwoNextHopsOfASingleNodeAreBothSentWithNoAction) {
    hops({"10.0.0.1", "10.0.0.2"});
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000001,0a000002", joinRecord());
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=0a000001,0a000002", quitRecord());
}

TEST_F(AggNodeHw, IPv6MembersHaveCodesAndTextsOfTheirOwn) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    pNode_->policyRouteIpVer = 2;
    hops({"2001:db8::1"});
    (void)pbrAggNodeHwAdd(pLink_, PORT);
    Lines trace = fake::takeTrace();
    EXPECT_EQ(trace[2], hwText("pbr agg if node hardware add ipv6 nextHop0=2001:db8::1\r\n"));
    EXPECT_EQ(trace[4], "aclIfSetApi(9, 20, if=9 acl=1501 dir=0 act=46 pri=0 vrf=0 "
                        "hops=20010db8,00000000,00000000,00000001)");
    (void)pbrAggNodeHwDel(pLink_, PORT);
    EXPECT_EQ(fake::takeTrace()[3], hwText("pbr agg if node hardware del ipv6 nextHop0=2001:db8::1\r\n"));

    hops({"2001:db8::2"});
    pbrNodeIsEcmpSet(pNode_, 1);
    hops_[0]->lastSelected = hops_[1]->lastSelected = 1;
    EXPECT_EQ("act=50 pri=0 vrf=0 hops=20010db8,00000000,00000000,00000001,20010db8,00000000,00000000,00000002",
              joinRecord());
}

TEST_F(AggNodeHw, AnOutInterfaceIsTheNodesNotTheMembersAndLeavesTheVrfZero) {
    pNode_->outIfUnit = 12;
    pNode_->vrfid = 4;
    EXPECT_EQ("act=4 pri=0 vrf=0 hops=0000000c", joinRecord());
    EXPECT_EQ("act=4 pri=0 vrf=0 hops=0000000c", quitRecord());
}

TEST_F(AggNodeHw, AnUnknownVersionIsSentWithoutAddress) {
    hops({"10.0.0.1"});
    pNode_->policyRouteIpVer = 7;
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=", joinRecord());
    EXPECT_EQ("act=0 pri=0 vrf=0 hops=", quitRecord());
}

TEST_F(AggNodeHw, NothingOfTheAggregationsBookkeepingChangesWhateverTheResult) {
    hops({"10.0.0.1", "10.0.0.2"});
    for (uint32_t hwStatus : {0u, 1u, 2u}) {
        for (int32_t result : {0, 17, -1}) {
            pbrIfNodeHwStatusSet(pLink_, hwStatus);
            hops_[0]->curSelected = hops_[0]->nexthopArpState = 1;
            hops_[1]->lastSelected = hops_[1]->nexthopHwState = 1;
            hops_[1]->refCntByte = 0x21;
            pNode_->pPbrNhopBest = hops_[1];
            const std::string before = bookkeeping();
            fake::answer("aclIfSetApi", result);
            EXPECT_EQ(result, pbrAggNodeHwAdd(pLink_, PORT));
            EXPECT_EQ(result, pbrAggNodeHwDel(pLink_, PORT));
            EXPECT_EQ(before, bookkeeping()) << hwStatus << " " << result;
        }
    }
}

TEST_F(AggNodeHw, AFailureIsToldWithTheModulesResultAndReturned) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    hops({"10.0.0.1"});
    fake::answer("aclIfSetApi", -5);
    EXPECT_EQ(-5, pbrAggNodeHwAdd(pLink_, PORT));
    EXPECT_EQ(fake::takeTexts().back(), hwText("pbr agg if node hardware add fail return:-5.\r\n"));
    EXPECT_EQ(-5, pbrAggNodeHwDel(pLink_, PORT));
    EXPECT_EQ(fake::takeTexts().back(), hwText("pbr agg if node hardware del fail return:-5.\r\n"));
}

TEST_F(AggNodeHw, ANodeWithoutAclSendsNothingAndKeepsItsStatus) {
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    pNode_->aclNum = 0;
    pbrNodeForwardFlagSet(pNode_, 2); // the ACL is asked first
    EXPECT_EQ(0, pbrAggNodeHwAdd(pLink_, PORT));
    EXPECT_EQ(0, pbrAggNodeHwDel(pLink_, PORT));
    EXPECT_EQ(0u, pbrIfNodeHwStatusGet(pLink_));
    EXPECT_EQ(fake::takeCalls(), Lines{});
}

TEST_F(AggNodeHw, ANodeWithoutNextHopIsToldInBothOutputsAndSentAllTheSame) {
    const std::string text = "nextHop is not exist.\r\n";
    (void)pbrAggNodeHwAdd(pLink_, PORT);
    EXPECT_EQ(fake::takeTrace(), (Lines{logText(0x044B0003, 6, 3, text),
                                        "aclIfSetApi(9, 20, if=9 acl=1501 dir=0 act=0 pri=0 vrf=0 hops=)"}));
    gPbrInfo.debugFlags = PBR_DEBUG_HARDWARE;
    (void)pbrAggNodeHwAdd(pLink_, PORT);
    Lines trace = fake::takeTrace();
    EXPECT_EQ(Lines(trace.begin() + 1, trace.begin() + 3), (Lines{hwText(text), logText(0x044B0003, 6, 3, text)}));
    pNode_->aclNum = 0; // told before the node is passed over
    (void)pbrAggNodeHwDel(pLink_, PORT);
    trace = fake::takeTrace();
    EXPECT_EQ(trace.size(), 4u);
    EXPECT_EQ(Lines(trace.end() - 2, trace.end()), (Lines{hwText(text), logText(0x044B0003, 6, 3, text)}));
}

TEST_F(AggNodeHw, ForwardFlagTwoMarksTheAggregationsLinkWrittenAlsoWhenAPortLeaves) {
    hops({"10.0.0.1"});
    pbrNodeForwardFlagSet(pNode_, 2);
    for (int32_t (*operation)(PbrIfNodeEntry *, uint32_t) : {pbrAggNodeHwAdd, pbrAggNodeHwDel}) {
        pbrIfNodeHwStatusSet(pLink_, PBR_HW_NONE);
        EXPECT_EQ(0, operation(pLink_, PORT));
        EXPECT_EQ(PBR_HW_PROGRAMMED, pbrIfNodeHwStatusGet(pLink_));
    }
    EXPECT_EQ(fake::takeCalls(), Lines{});
    EXPECT_EQ(0u, gPbrInfo.hwAclAddCnt + gPbrInfo.hwAclDelCnt);
}

} // namespace
