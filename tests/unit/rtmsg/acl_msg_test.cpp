// ACL events: rules added and removed, and what one message leaves for the next of the same read.
#include "rtmsg/pbr_acl_msg.h"

#include "platform/acl_dev_entry.h"
#include "tests/unit/rtmsg/messages.h"

namespace {

using namespace messages;

Bytes ruleAdd(uint32_t listNum, uint32_t ruleNum) {
    return aclRule(QRV_RTM_ACL_ADDACLRULE, listNum, ruleNum);
}
Bytes ruleDel(uint32_t listNum, uint32_t ruleNum) {
    return aclRule(QRV_RTM_ACL_DELACLRULE, listNum, ruleNum);
}

// "ADD if7 1501/3" of each device rule in a trace.
Lines ruleSteps(const Lines &trace) {
    Lines out;
    for (const std::string &line : callsOf(trace, "qrvIfSetApi")) {
        unsigned unit = 0, type = 0, acl = 0, rule = 0;
        const size_t name = line.find(" 476:");
        EXPECT_EQ(2, sscanf(line.c_str(), "qrvIfSetApi(%u, 44, type=0x%x", &unit, &type)) << line;
        EXPECT_EQ(2, sscanf(line.c_str() + name, " 476:%x 480:%x", &acl, &rule)) << line;
        out.push_back(std::string(type == ACL_DEV_RULE_ADD ? "ADD" : "DEL") + " if" + std::to_string(unit) + " " +
                      std::to_string(acl) + "/" + std::to_string(rule));
    }
    return out;
}

class AclMsg : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(); }
    void TearDown() override { checkStore(); }

    // A list with one node and one next hop, bound and in the device on each unit.
    PbrNodeEntry *programmed(const std::string &list, uint32_t acl, std::initializer_list<uint32_t> units,
                             uint32_t ecmp = 0) {
        makeList(list);
        PbrNodeEntry *pNode = makeNode(list, 10, {.acl = acl, .ipVer = 1, .ecmp = ecmp});
        PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0." + std::to_string(acl % 100));
        for (uint32_t unit : units) {
            bindIf(unit, list);
            pbrIfNodeHwStatusSet(linkOf(unit, pNode), PBR_HW_PROGRAMMED);
        }
        pHop->nexthopArpState = pHop->lastSelected = pHop->nexthopHwState = 1;
        pNode->pPbrNhopBest = ecmp != 0 ? nullptr : pHop;
        (void)fake::takeTrace();
        return pNode;
    }
    static Lines stepsOf(const Bytes &read) {
        receive(read);
        return ruleSteps(fake::takeTrace());
    }
};

// ---- a rule added ----

TEST_F(AclMsg, AnAddedRuleOfAnAclThatNoBoundNodeUsesOnlyCounts) {
    programmed("a", 1501, {7});
    makeList("b");
    makeNode("b", 10, {.acl = 1502, .outIf = 9});
    EXPECT_EQ(stepsOf(ruleAdd(1503, 1)), Lines{});
    EXPECT_EQ(stepsOf(ruleAdd(1502, 1)), Lines{}) << "its list is not bound";
    EXPECT_EQ(2u, gPbrInfo.rcvRtmAclAddCnt);
    EXPECT_EQ(0u, gPbrInfo.hwAclAddCnt);
}

TEST_F(AclMsg, AnAddedRuleIsWrittenOncePerInterfaceMostRecentlyBoundFirstAndEndsAtItsList) {
    PbrNodeEntry *pNode = programmed("a", 1501, {7, 8});
    programmed("b", 1501, {9}); // the same ACL, not visited
    EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), (Lines{"ADD if8 1501/3", "ADD if7 1501/3"}));
    EXPECT_EQ(2u, gPbrInfo.hwAclAddCnt);
    const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode);
    EXPECT_EQ(1u, pHop->curSelected) << "stays marked on a link that was in the device";
    EXPECT_EQ(1u, pHop->lastSelected);
    EXPECT_EQ(PBR_HW_PROGRAMMED, pbrIfNodeHwStatusGet(linkOf(7, pNode)));
}

TEST_F(AclMsg, AnAddedRuleIsToldPerListAndPerLink) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    PbrNodeEntry *pNode = programmed("a", 1501, {7});
    char pointer[32];
    snprintf(pointer, sizeof(pointer), "%p", static_cast<const void *>(pNode->pPbrNhopBest));
    receive(ruleAdd(1501, 3));
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              (Lines{eventText("pbr receive QRV_RTM_ACL_ADDACLRULE,listNum=1501,ruleNum=3,name=a,nodeIndex=10."),
                     eventText("pbr receive QRV_RTM_ACL_ADDACLRULE,name=a,nodeIndex=10,pPbrNhopBest:" +
                               std::string(pointer) + ",emptyAcl:0,aclNoAction:0,outIfUnit:0.")}));
}

TEST_F(AclMsg, OnlyLinksInTheDeviceOrWaitingForTheirFirstRuleGetARule) {
    PbrNodeEntry *pNode = programmed("a", 1501, {7});
    PbrIfNodeEntry *pLink = linkOf(7, pNode);
    for (uint32_t hwStatus : {0u, 2u, 3u}) {
        pbrIfNodeHwStatusSet(pLink, hwStatus);
        EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{}) << hwStatus;
        pLink->emptyAcl = pLink->aclNoAction = 2; // 1 only
        EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{}) << hwStatus;
        pLink->emptyAcl = pLink->aclNoAction = 0;
    }
}

TEST_F(AclMsg, TheFirstRuleOfAWaitingLinkMovesTheMarksAsItsEntryWould) {
    for (bool isEmptyAcl : {true, false}) {
        startDaemon();
        PbrNodeEntry *pNode = programmed("a", 1501, {7});
        PbrIfNodeEntry *pLink = linkOf(7, pNode);
        PbrNextHopEntry *pBest = pbrNodeNextHopFirst(pNode);
        PbrNextHopEntry *pOther = makeNextHop(pNode, 2, "10.0.0.2");
        pbrIfNodeHwStatusSet(pLink, PBR_HW_NONE);
        (isEmptyAcl ? pLink->emptyAcl : pLink->aclNoAction) = 1;
        pBest->lastSelected = pBest->nexthopHwState = 0;
        pBest->refCntByte = 0xF1;
        pOther->refCntByte = 0x20;

        EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{"ADD if7 1501/3"});

        EXPECT_EQ(PBR_HW_PROGRAMMED, pbrIfNodeHwStatusGet(pLink));
        EXPECT_EQ(0, pLink->emptyAcl + pLink->aclNoAction);
        EXPECT_EQ("1 0 1", std::to_string(pBest->lastSelected) + " " + std::to_string(pBest->curSelected) + " " +
                               std::to_string(pBest->nexthopHwState));
        EXPECT_EQ(0x00, pBest->refCntByte) << "both counts have four bits";
        EXPECT_EQ(0x3F, pOther->refCntByte) << "counts of the others move too";
        EXPECT_EQ(0, pOther->lastSelected + pOther->nexthopHwState);
    }
}

TEST_F(AclMsg, AWaitingLinkWithMoreAddsToComeKeepsItsNextHopsMark) {
    PbrNodeEntry *pNode = programmed("a", 1501, {7});
    PbrIfNodeEntry *pLink = linkOf(7, pNode);
    PbrNextHopEntry *pBest = pbrNodeNextHopFirst(pNode);
    pLink->emptyAcl = 1;
    pBest->lastSelected = pBest->nexthopHwState = 0;
    pBest->refCntByte = 0x02;
    (void)stepsOf(ruleAdd(1501, 3));
    EXPECT_EQ("0 1 0", std::to_string(pBest->lastSelected) + " " + std::to_string(pBest->curSelected) + " " +
                           std::to_string(pBest->nexthopHwState));
    EXPECT_EQ(0x11, pBest->refCntByte);
    EXPECT_EQ(0, pLink->emptyAcl);
}

TEST_F(AclMsg, AFailedFirstRuleCountsAsWrittenAllTheSame) {
    PbrNodeEntry *pNode = programmed("a", 1501, {7});
    PbrIfNodeEntry *pLink = linkOf(7, pNode);
    pbrIfNodeHwStatusSet(pLink, PBR_HW_NONE);
    pLink->emptyAcl = 1;
    fake::answer("qrvIfSetApi", 5);
    (void)stepsOf(ruleAdd(1501, 3));
    EXPECT_EQ(PBR_HW_PROGRAMMED, pbrIfNodeHwStatusGet(pLink));
    EXPECT_EQ(1u, gPbrInfo.hwAclAddErr);
}

TEST_F(AclMsg, TheOwnNextHopOfTheBestsIndexIsMarkedOrNone) {
    PbrNodeEntry *pNode = programmed("a", 1501, {7});
    PbrNodeEntry *pOther = makeNode("a", 20, {.acl = 1502, .ipVer = 1});
    PbrNextHopEntry *pForeign = makeNextHop(pOther, 1, "10.0.0.9");
    pNode->pPbrNhopBest = pForeign;
    EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{"ADD if7 1501/3"});
    EXPECT_EQ(1u, pbrNodeNextHopFirst(pNode)->curSelected);
    EXPECT_EQ(0u, pForeign->curSelected);
    pbrNodeNextHopFirst(pNode)->curSelected = 0;
    pForeign->nextHopIndex = 77;
    EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{}) << "nothing is taken, so nothing is sent";
    pForeign->nextHopIndex = 1;
    pNode->pPbrNhopBest = nullptr;
}

TEST_F(AclMsg, OnAnEcmpNodeEveryResolvedNextHopIsMarked) {
    for (uint32_t isEcmp : {1u, 2u, 3u}) {
        startDaemon();
        PbrNodeEntry *pNode = programmed("a", 1501, {7}, isEcmp);
        PbrNextHopEntry *pSecond = makeNextHop(pNode, 2, "10.0.0.2");
        PbrNextHopEntry *pThird = makeNextHop(pNode, 3, "10.0.0.3");
        pSecond->nexthopArpState = 2; // 1 only
        pThird->nexthopArpState = 1;
        receive(ruleAdd(1501, 3));
        const Lines calls = callsOf(fake::takeTrace(), "qrvIfSetApi");
        ASSERT_EQ(1u, calls.size());
        EXPECT_NE(calls[0].find(" 276:0a000001 280:0a000003 476:"), std::string::npos) << calls[0];
        EXPECT_EQ(0u, pSecond->curSelected);
        EXPECT_EQ(1u, pThird->curSelected);
    }
}

TEST_F(AclMsg, ANodeWithoutBestIsLeftAlone) {
    programmed("a", 1501, {7})->pPbrNhopBest = nullptr;
    programmed("b", 1501, {8});
    EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{"ADD if8 1501/3"}) << "and the next list is visited";
}

TEST_F(AclMsg, ARuleOfANodeWithOutInterfaceDoesNotEndTheWalk) {
    for (const char *pList : {"a", "b"}) {
        makeList(pList);
        makeNode(pList, 10, {.acl = 1501, .ipVer = 1, .outIf = 9});
    }
    bindIf(7, "a");
    bindIf(8, "b");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    (void)fake::takeTrace();
    receive(ruleAdd(1501, 3));
    const Lines trace = fake::takeTrace();
    EXPECT_EQ(ruleSteps(trace), (Lines{"ADD if7 1501/3", "ADD if8 1501/3"}));
    EXPECT_EQ(eventTexts(trace)[2],
              eventText("pbr rule 3 start to add hw,name=a,nodeIndex=10,emptyAcl:0,outIfUnit:9,ipPri:9."));
}

TEST_F(AclMsg, ANodeWithAPriorityAndNoNextHopIsWrittenOnTheSamePath) {
    makeList("a");
    PbrNodeEntry *pNode = makeNode("a", 10, {.acl = 1501, .ipVer = 1, .pri = 4});
    bindIf(7, "a");
    (void)fake::takeTrace();
    EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{"ADD if7 1501/3"});
    pbrNodeIpPriSet(pNode, PBR_IP_PRI_NONE);
    EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{});
}

TEST_F(AclMsg, OnThatPathOneWaitingFlagIsClearedPerRule) {
    makeList("a");
    PbrNodeEntry *pNode = makeNode("a", 10, {.acl = 1501, .ipVer = 1, .outIf = 9});
    bindIf(7, "a");
    PbrIfNodeEntry *pLink = linkOf(7, pNode);
    pbrIfNodeHwStatusSet(pLink, PBR_HW_NONE);
    pLink->emptyAcl = pLink->aclNoAction = 1;
    receive(ruleAdd(1501, 3));
    EXPECT_EQ("0 1", std::to_string(pLink->emptyAcl) + " " + std::to_string(pLink->aclNoAction));
    EXPECT_EQ(PBR_HW_PROGRAMMED, pbrIfNodeHwStatusGet(pLink));
    pbrIfNodeHwStatusSet(pLink, PBR_HW_FAILED);
    receive(ruleAdd(1501, 3));
    EXPECT_EQ("0 0", std::to_string(pLink->emptyAcl) + " " + std::to_string(pLink->aclNoAction));
    EXPECT_EQ(PBR_HW_PROGRAMMED, pbrIfNodeHwStatusGet(pLink));
}

TEST_F(AclMsg, OfAListTheFirstNodeWithTheAclCounts) {
    programmed("a", 1501, {7});
    makeNode("a", 5, {.acl = 1501, .ipVer = 1, .outIf = 9}); // before it, and without a link
    EXPECT_EQ(stepsOf(ruleAdd(1501, 3)), Lines{});
}

// ---- a rule removed ----

TEST_F(AclMsg, ARemovedRuleIsTakenFromProgrammedAndFailedLinksAndEndsAtItsList) {
    PbrNodeEntry *pNode = programmed("a", 1501, {7, 8, 9});
    programmed("b", 1501, {10});
    pbrIfNodeHwStatusSet(linkOf(8, pNode), PBR_HW_FAILED);
    pbrIfNodeHwStatusSet(linkOf(9, pNode), PBR_HW_NONE);
    linkOf(9, pNode)->emptyAcl = 1; // waiting is not enough here
    EXPECT_EQ(stepsOf(ruleDel(1501, 3)), (Lines{"DEL if8 1501/3", "DEL if7 1501/3"}));
    EXPECT_EQ(1u, gPbrInfo.rcvRtmAclDelCnt);
    EXPECT_EQ(0u, gPbrInfo.rcvRtmAclAddCnt);
    EXPECT_EQ(2u, gPbrInfo.hwAclDelCnt);
}

TEST_F(AclMsg, ARemovedRuleIsToldAlsoForListsThatAreNotBound) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    makeList("a");
    programmed("b", 1501, {7});
    receive(ruleDel(1501, 3));
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              (Lines{eventText("pbr rcv del acl rule msg,listNum=1501,ruleNum=3."),
                     eventText("pbr list a refCnt is 0.ignore"),
                     eventText("pbr receive QRV_RTM_ACL_DELACLRULE,listNum=1501,ruleNum=3,name=b,nodeIndex=10.")}));
}

TEST_F(AclMsg, ARemovedRuleOfAnUnusedAclIsToldAndNothingElse) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    programmed("b", 1501, {7});
    receive(ruleDel(1502, 3));
    const Lines trace = fake::takeTrace();
    EXPECT_EQ(eventTexts(trace), Lines{eventText("pbr rcv del acl rule msg,listNum=1502,ruleNum=3.")});
    EXPECT_EQ(ruleSteps(trace), Lines{});
}

// ---- what lives for one read ----

TEST_F(AclMsg, ASecondRuleOfAReadThatMatchesNothingIsAppliedToTheFirstOnesNode) {
    programmed("a", 1501, {7});
    programmed("b", 1600, {8});
    EXPECT_EQ(stepsOf(joined({ruleAdd(1501, 3), ruleAdd(1999, 4)})), (Lines{"ADD if7 1501/3", "ADD if7 1999/4"}));
    EXPECT_EQ(stepsOf(ruleAdd(1999, 4)), Lines{}) << "the next read starts anew";
}

TEST_F(AclMsg, ASecondRuleForALaterListIsAppliedToTheFirstListsNodeAndNeverReachesItsOwn) {
    programmed("a", 1501, {7});
    programmed("b", 1002, {8});
    EXPECT_EQ(stepsOf(joined({ruleAdd(1501, 3), ruleAdd(1002, 4)})), (Lines{"ADD if7 1501/3", "ADD if7 1002/4"}));
    EXPECT_EQ(stepsOf(joined({ruleDel(1501, 3), ruleDel(1002, 4)})), (Lines{"DEL if7 1501/3", "DEL if7 1002/4"}));
    EXPECT_EQ(stepsOf(joined({ruleAdd(1501, 3), ruleDel(1002, 4)})), (Lines{"ADD if7 1501/3", "DEL if7 1002/4"}));
    EXPECT_EQ(stepsOf(ruleAdd(1002, 4)), Lines{"ADD if8 1002/4"});
}

TEST_F(AclMsg, OnceARuleWasDoneALaterOneStopsAtTheFirstBoundListThatHoldsOrRemembersANode) {
    programmed("a", 1501, {7});
    PbrNodeEntry *pSecond = programmed("b", 1502, {8});
    pbrIfNodeHwStatusSet(linkOf(7, pbrListNodeFirst(usedLists()[0])), PBR_HW_NONE);
    EXPECT_EQ(stepsOf(joined({ruleAdd(1502, 3), ruleAdd(1501, 4), ruleAdd(1502, 5)})), Lines{"ADD if8 1502/3"})
        << "the second finds list a's node without an entry; the third keeps to list a and its remembered node";
    EXPECT_EQ(1u, pbrIfNodeHwStatusGet(linkOf(8, pSecond)));
}

TEST_F(AclMsg, TheNodeOfAnEarlierListIsRememberedInLaterLists) {
    programmed("a", 1501, {7})->pPbrNhopBest = nullptr; // found, not written
    programmed("b", 1600, {8});
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(ruleAdd(1501, 3));
    const Lines texts = eventTexts(fake::takeTrace());
    EXPECT_EQ(texts.back(), eventText("pbr receive QRV_RTM_ACL_ADDACLRULE,listNum=1501,ruleNum=3,name=b,nodeIndex=10."));
}

TEST_F(AclMsg, HwCountDoesNotAdvanceOnThePathOfOutInterfaces) {
    makeList("a");
    makeNode("a", 10, {.acl = 1501, .outIf = 9});
    bindIf(7, "a");
    programmed("b", 1502, {8});
    EXPECT_EQ(stepsOf(joined({ruleAdd(1501, 3), ruleAdd(1502, 4)})),
              (Lines{"ADD if7 1501/3", "ADD if7 1502/4", "ADD if8 1502/4"}));
}

// ---- an ACL removed ----

TEST_F(AclMsg, ARemovedAclLeavesTheNodesOfListsThatAreNotBound) {
    PbrNodeEntry *pBound = programmed("a", 1501, {7});
    makeList("b");
    PbrNodeEntry *pFirst = makeNode("b", 10, {.acl = 1501});
    PbrNodeEntry *pOther = makeNode("b", 20, {.acl = 1502});
    PbrNodeEntry *pLast = makeNode("b", 30, {.acl = 1501});
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::takeTrace();
    const AclNumMsg msg = {1501};
    receive(fake::message(QRV_RTM_ACL_DELACL, &msg, sizeof(msg)));
    EXPECT_EQ("1501 0 1502 0", std::to_string(pBound->aclNum) + " " + std::to_string(pFirst->aclNum) + " " +
                                   std::to_string(pOther->aclNum) + " " + std::to_string(pLast->aclNum));
    EXPECT_EQ(fake::takeTexts(), Lines{});
    EXPECT_EQ(0u, gPbrInfo.rcvRtmAclAddCnt + gPbrInfo.rcvRtmAclDelCnt);
}

// ---- short messages ----

TEST_F(AclMsg, AMessageWithoutPayloadReadsTheBytesBehindItOrZero) {
    programmed("a", 1501, {7});
    for (uint16_t type : {QRV_RTM_ACL_ADDACLRULE, QRV_RTM_ACL_DELACLRULE, QRV_RTM_ACL_DELACL}) {
        EXPECT_EQ(stepsOf(fake::message(type, nullptr, 0)), Lines{}) << type;
    }
}

} // namespace
