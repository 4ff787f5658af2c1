// What peer reports do to the store.
#include "nexthop/pbr_nexthop_state.h"

#include "nexthop/pbr_nexthop_select.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::eventText;
using steps::Lines;
using steps::logText;

class NexthopState : public steps::StoreTest {
protected:
    // A list that counts as bound, with one node of two next hops in VRF 0: <prefix>1 and <prefix>2.
    PbrNodeEntry *boundList(const std::string &name, uint32_t acl, const std::string &prefix = "10.0.0.",
                            uint32_t vrf = 0) {
        makeList(name.c_str());
        PbrNodeEntry *pNode = makeNode(name.c_str(), 10, {.acl = acl, .ipVer = steps::familyOf(prefix + "1")});
        pNode->vrfid = vrf;
        makeNextHop(pNode, 1, (prefix + "1").c_str());
        makeNextHop(pNode, 2, (prefix + "2").c_str());
        EXPECT_EQ(0, bind(nextUnit_++, name));
        listUnlinkInit(&pNode->pPbrList->readyLink);
        (void)fake::takeTrace();
        return pNode;
    }
    static PbrNextHopEntry *hop(PbrNodeEntry *pNode, uint32_t index) {
        PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode);
        return index == 1 ? pHop : pbrNodeNextHopNext(pNode, pHop);
    }
    uint32_t nextUnit_ = 1;
};

TEST_F(NexthopState, UpQueuesEveryBoundListThatNamesThePeerTheLaterOneFirst) {
    PbrNodeEntry *pA = boundList("a", 1501);
    PbrNodeEntry *pB = boundList("b", 1502);
    PbrNodeEntry *pOther = boundList("c", 1503, "10.9.0.");

    up("10.0.0.1");

    EXPECT_EQ("b,a", readyLists());
    for (PbrNodeEntry *pNode : {pA, pB}) {
        EXPECT_EQ(1, hop(pNode, 1)->nexthopArpState);
        EXPECT_EQ(0, hop(pNode, 2)->nexthopArpState);
        EXPECT_EQ(1, pNode->nhopArpUp);
        EXPECT_EQ(0, hop(pNode, 1)->curSelected);
    }
    EXPECT_EQ(0, pOther->nhopArpUp);
    EXPECT_TRUE(fake::takeTrace().empty());
}

TEST_F(NexthopState, UpForAnAddressOfAnUnboundListOnlyChangesNothing) {
    makeList("a");
    PbrNodeEntry *pNode = makeNode("a", 10, {.acl = 1501, .ipVer = 1});
    makeNextHop(pNode, 1, "10.0.0.1");
    up("10.0.0.1");
    EXPECT_EQ(0, hop(pNode, 1)->nexthopArpState);
    EXPECT_EQ(0, pNode->nhopArpUp);
    EXPECT_EQ("", readyLists());
}

TEST_F(NexthopState, AReportMatchesOnlyItsOwnFamilyAndVrf) {
    PbrNodeEntry *pV6 = boundList("six", 3001, "a00:1::");
    PbrNodeEntry *pVrf = boundList("vrf", 1502, "10.0.0.", 4);
    steps::Address sameFirstBytes = steps::addressOf("a00:1::1"); // begins with 10.0.0.1
    sameFirstBytes[2] = 0;
    memcpy(hop(pV6, 1)->nextHop, sameFirstBytes.data(), 16);

    up("10.0.0.1", 0);
    EXPECT_EQ(0, hop(pV6, 1)->nexthopArpState);
    EXPECT_EQ(0, hop(pVrf, 1)->nexthopArpState);
    EXPECT_EQ("", readyLists());

    up("10.0.0.1", 4);
    EXPECT_EQ(1, hop(pVrf, 1)->nexthopArpState);
    EXPECT_EQ("vrf", readyLists());
}

TEST_F(NexthopState, AnIpv4AddressIsComparedOverFourBytesAndAnIpv6AddressOverSixteen) {
    PbrNodeEntry *pV4 = boundList("four", 1501);
    PbrNodeEntry *pV6 = boundList("six", 3001, "2001:db8::");
    steps::Address v4 = steps::addressOf("10.0.0.1");
    v4[4] = 0xEE; // not part of an IPv4 address
    pbrNextHopStateUp(1, 0, v4.data());
    EXPECT_EQ(1, hop(pV4, 1)->nexthopArpState);
    steps::Address v6 = steps::addressOf("2001:db8::3"); // differs in the last byte only
    pbrNextHopStateUp(2, 0, v6.data());
    EXPECT_EQ(0, hop(pV6, 1)->nexthopArpState);
    EXPECT_EQ(0, hop(pV6, 2)->nexthopArpState);
    up("2001:db8::2");
    EXPECT_EQ(1, hop(pV6, 2)->nexthopArpState);
}

TEST_F(NexthopState, UpMarksTheNextHopOfAnEcmpNodeAsSelected) {
    PbrNodeEntry *pNode = boundList("a", 1501);
    for (uint32_t isEcmp : {0u, 1u, 2u, 3u}) {
        pbrNodeIsEcmpSet(pNode, isEcmp);
        hop(pNode, 1)->curSelected = 0;
        up("10.0.0.1");
        EXPECT_EQ(isEcmp == 1 ? 1 : 0, hop(pNode, 1)->curSelected) << isEcmp;
    }
}

TEST_F(NexthopState, DownKeepsTheNodeUpWhileAnotherNextHopIsReachable) {
    PbrNodeEntry *pNode = boundList("a", 1501);
    up("10.0.0.1");
    up("10.0.0.2");
    hop(pNode, 1)->curSelected = 1;
    hop(pNode, 2)->curSelected = 1;
    listUnlinkInit(&pNode->pPbrList->readyLink);

    down("10.0.0.1");

    EXPECT_EQ(0, hop(pNode, 1)->nexthopArpState);
    EXPECT_EQ(0, hop(pNode, 1)->curSelected);
    EXPECT_EQ(1, hop(pNode, 2)->nexthopArpState);
    EXPECT_EQ(1, hop(pNode, 2)->curSelected);
    EXPECT_EQ(1, pNode->nhopArpUp);
    EXPECT_EQ("a", readyLists());

    down("10.0.0.2");
    EXPECT_EQ(0, pNode->nhopArpUp);
}

TEST_F(NexthopState, DownSetsLaterNodesUpOnceOneMatchingNodeHasAReachableNextHop) {
    PbrNodeEntry *pFirst = boundList("a", 1501);
    PbrNodeEntry *pLater = boundList("b", 1502);
    PbrNodeEntry *pOtherVrf = boundList("c", 1503, "10.0.0.", 3);
    hop(pFirst, 2)->nexthopArpState = 1;
    hop(pLater, 1)->nexthopArpState = 1;
    pLater->nhopArpUp = 0;
    pOtherVrf->nhopArpUp = 0;

    down("10.0.0.1");

    EXPECT_EQ(1, pFirst->nhopArpUp);
    EXPECT_EQ(1, pLater->nhopArpUp); // although none of its next hops is reachable
    EXPECT_EQ(0, pOtherVrf->nhopArpUp);
    EXPECT_EQ("b,a", readyLists());
}

TEST_F(NexthopState, DownCountsOnlyWhatCameBeforeWhenTheReachableNodeIsLater) {
    PbrNodeEntry *pFirst = boundList("a", 1501);
    PbrNodeEntry *pLater = boundList("b", 1502);
    hop(pLater, 2)->nexthopArpState = 1;
    pFirst->nhopArpUp = 1;
    down("10.0.0.1");
    EXPECT_EQ(0, pFirst->nhopArpUp);
    EXPECT_EQ(1, pLater->nhopArpUp);
}

TEST_F(NexthopState, DownRecomputesMatchingNodesThatDoNotNameThePeerAndQueuesThemNot) {
    PbrNodeEntry *pNode = boundList("a", 1501, "10.9.0.");
    pNode->nhopArpUp = 1; // left from earlier; nothing is reachable
    down("10.0.0.1");
    EXPECT_EQ(0, pNode->nhopArpUp);
    EXPECT_EQ("", readyLists());
}

TEST_F(NexthopState, ARepeatedReportIsAppliedAgainAndQueuesTheListAgain) {
    PbrNodeEntry *pNode = boundList("a", 1501);
    for (int i = 0; i < 2; i++) {
        up("10.0.0.1");
        EXPECT_EQ("a", readyLists());
        listUnlinkInit(&pNode->pPbrList->readyLink);
    }
    for (int i = 0; i < 2; i++) {
        down("10.0.0.1");
        EXPECT_EQ("a", readyLists());
        listUnlinkInit(&pNode->pPbrList->readyLink);
    }
}

TEST_F(NexthopState, AChangeOfTheBestNextHopMarksTheNodeAndItsLinksOnly) {
    makeList("a");
    PbrNodeEntry *pOther = makeNode("a", 5, {.acl = 1500, .ipVer = 1});
    makeNextHop(pOther, 1, "10.0.0.7");
    PbrNodeEntry *pNode = makeNode("a", 10, {.acl = 1501, .ipVer = 1});
    makeNextHop(pNode, 1, "10.0.0.1");
    makeNextHop(pNode, 2, "10.0.0.2");
    ASSERT_EQ(0, bind(1, "a"));
    ASSERT_EQ(0, bind(2, "a"));
    up("10.0.0.1");
    update();

    change("10.0.0.1");

    EXPECT_TRUE(pbrNodeStateChangeGet(pNode));
    EXPECT_TRUE(pbrIfNodeStateChangeGet(link(1, pNode)));
    EXPECT_TRUE(pbrIfNodeStateChangeGet(link(2, pNode)));
    EXPECT_FALSE(pbrNodeStateChangeGet(pOther));
    EXPECT_FALSE(pbrIfNodeStateChangeGet(link(1, pOther)));
    EXPECT_EQ("a", readyLists());
    EXPECT_EQ(1, hop(pNode, 1)->nexthopArpState);
}

TEST_F(NexthopState, AChangeOfABackupNextHopMarksAndQueuesNothing) {
    PbrNodeEntry *pNode = boundList("a", 1501);
    up("10.0.0.1");
    up("10.0.0.2");
    listUnlinkInit(&pNode->pPbrList->readyLink);
    hop(pNode, 1)->curSelected = 0;
    (void)fake::takeTrace();

    change("10.0.0.2");

    EXPECT_FALSE(pbrNodeStateChangeGet(pNode));
    EXPECT_EQ("", readyLists());
    EXPECT_EQ(1, hop(pNode, 1)->curSelected); // the marks are refreshed all the same
}

TEST_F(NexthopState, AChangeNeverMatchesAnEcmpNodeAndMarksItsResolvedNextHops) {
    PbrNodeEntry *pNode = boundList("a", 1501);
    pbrNodeIsEcmpSet(pNode, 1);
    up("10.0.0.1");
    hop(pNode, 1)->curSelected = 0;
    listUnlinkInit(&pNode->pPbrList->readyLink);

    change("10.0.0.1");

    EXPECT_FALSE(pbrNodeStateChangeGet(pNode));
    EXPECT_EQ("", readyLists());
    EXPECT_EQ(1, hop(pNode, 1)->curSelected);
}

TEST_F(NexthopState, AChangeNeverReadsAnAddressThroughTheEcmpMarker) {
    PbrNodeEntry *pNode = boundList("a", 1501);
    pbrNodeIsEcmpSet(pNode, 1);
    // An address that equals what stands where the marker, taken for a next hop, would have its own.
    steps::Address address = {};
    memcpy(address.data(),
           reinterpret_cast<uint8_t *>(&pNode->nextHopList) + offsetof(PbrNextHopEntry, nextHop), 4);
    pbrNextHopStateChange(1, 0, address.data());
    EXPECT_FALSE(pbrNodeStateChangeGet(pNode));
    EXPECT_EQ("", readyLists());
}

TEST_F(NexthopState, AChangeWithNothingUsableMarksNothing) {
    PbrNodeEntry *pNode = boundList("a", 1501);
    change("10.0.0.1");
    EXPECT_FALSE(pbrNodeStateChangeGet(pNode));
    EXPECT_EQ("", readyLists());
}

TEST_F(NexthopState, ReportsAreSaidWithBitSixtyFour) {
    boundList("a", 1501);
    boundList("six", 3001, "2001:db8::", 9);
    gPbrInfo.debugFlags = 64;

    up("10.0.0.1");
    EXPECT_EQ(fake::takeTexts(), (Lines{eventText("pbrNextHopStateUp ipAddr=10.0.0.1,vpnVrfid=0.\r\n"),
                                        eventText("pbrNextHopStateUp add to ready table.\r\n")}));
    change("10.0.0.1");
    EXPECT_EQ(fake::takeTexts(),
              (Lines{eventText("pbrNextHopStateChange recv rtm msg ipAddr=10.0.0.1,vpnVrfid=0.\r\n"),
                     eventText("pbrNextHopStateChange pbr name:a,index:10.\r\n"),
                     eventText("pbrNextHopStateChange add to ready table.\r\n")}));
    down("10.0.0.1");
    EXPECT_EQ(fake::takeTexts(), (Lines{eventText("pbrNextHopStateDown ipAddr=10.0.0.1,vpnVrfid=0.\r\n"),
                                        eventText("pbrNextHopStateDown add to ready table.\r\n")}));
    up("2001:db8::1", 9);
    EXPECT_EQ(fake::takeTexts(), (Lines{eventText("pbrNextHopStateUp ip6Addr=2001:db8::1,vpnVrfid=9.\r\n"),
                                        eventText("pbrNextHopStateUp add to ready table.\r\n")}));
    change("2001:db8::1", 9);
    EXPECT_EQ(fake::takeTexts(),
              (Lines{eventText("pbrNextHopStateChange recv rtm msg ip6Addr=2001:db8::1,vpnVrfid=9.\r\n"),
                     eventText("pbrNextHopStateChange pbr name:six,index:10.\r\n"),
                     eventText("pbrNextHopStateChange add to ready table.\r\n")}));
    down("2001:db8::1", 9);
    EXPECT_EQ(fake::takeTexts(), (Lines{eventText("pbrNextHopStateDown ip6Addr=2001:db8::1,vpnVrfid=9.\r\n"),
                                        eventText("pbrNextHopStateDown add to ready table.\r\n")}));
}

TEST_F(NexthopState, AReportThatConcernsNobodyLeavesItsOpeningLineOnly) {
    gPbrInfo.debugFlags = 64;
    up("10.0.0.1", 0xFFFFFFFFu);
    EXPECT_EQ(fake::takeTexts(), Lines{eventText("pbrNextHopStateUp ipAddr=10.0.0.1,vpnVrfid=-1.\r\n")});
}

TEST_F(NexthopState, EachMatchingNextHopIsRecordedWhileTheSelfLogIsOn) {
    boundList("a", 1501);
    boundList("b", 1502);
    boundList("six", 3001, "2001:db8::", 9);
    gPbrSelfLog = 1;

    up("10.0.0.1");
    EXPECT_EQ(fake::takeTexts(),
              (Lines{logText(0x044B0002, 6, 284,
                             "pbr hrd up.(pbr=[a/10], family=[1], vrId=[0], ip=[10.0.0.1])\r\n"),
                     logText(0x044B0002, 6, 284,
                             "pbr hrd up.(pbr=[b/10], family=[1], vrId=[0], ip=[10.0.0.1])\r\n")}));
    down("2001:db8::2", 9);
    EXPECT_EQ(fake::takeTexts(),
              Lines{logText(0x044B0002, 6, 284,
                            "pbr hrd down.(pbr=[six/10], family=[2], vrId=[9], ip=[2001:db8::2])\r\n")});
    change("10.0.0.1");
    EXPECT_TRUE(fake::takeTexts().empty());
    gPbrSelfLog = 0;
    down("10.0.0.1");
    EXPECT_TRUE(fake::takeTexts().empty());
}

} // namespace
