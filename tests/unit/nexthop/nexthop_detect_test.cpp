// Registration of next hops with the host-route-detection service.
#include "nexthop/pbr_nexthop_detect.h"

#include "tests/unit/hw/steps.h"

namespace {

using steps::eventText;
using steps::generalText;
using steps::Lines;

class NexthopDetect : public steps::StoreTest {
protected:
    PbrNextHopEntry *listWithHop(const char *pName, uint32_t acl, const char *pAddress, uint32_t vrf) {
        makeList(pName);
        PbrNodeEntry *pNode = makeNode(pName, 10, {.acl = acl, .ipVer = steps::familyOf(pAddress)});
        pNode->vrfid = vrf;
        return makeNextHop(pNode, 1, pAddress);
    }
    // An interface that carries a list by name; the list's own side is not looked at by the functions here.
    PbrIfEntry *ifWithList(uint32_t unit, const std::string &name) {
        PbrIfEntry *pIf = makeIf(unit);
        memcpy(pIf->pbrName, name.data(), name.size());
        pIf->pbrNameLen = static_cast<uint16_t>(name.size());
        (void)fake::takeTrace();
        return pIf;
    }
};

TEST_F(NexthopDetect, AnIpv4PeerIsRegisteredWithSixteenBytes) {
    const PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 3);
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    EXPECT_EQ(0, pbrNextHopDetect(1, 3, pHop));
    EXPECT_EQ(fake::takeTrace(), (Lines{"hrdScalarSetApi(0, 6, 01010700 00000003 00000000 0a000001)",
                                        generalText("pbr add hrd peer ipAddr=10.0.0.1,vrfid:3!\r\n")}));
    EXPECT_EQ(0, pbrNextHopUnDetect(1, 3, pHop));
    EXPECT_EQ(fake::takeTrace(), (Lines{"hrdScalarSetApi(0, 6, 00010700 00000003 00000000 0a000001)",
                                        generalText("pbr delete hrd peer ipAddr=10.0.0.1!\r\n")}));
}

TEST_F(NexthopDetect, AnIpv6PeerIsRegisteredWithTwentyEightBytesAndItsVrfMostSignificantByteFirst) {
    const PbrNextHopEntry *pHop = listWithHop("a", 3001, "2001:db8::1", 0x01020304);
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    EXPECT_EQ(0, pbrNextHopDetect(2, 0x01020304, pHop));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{"hrdScalarSetApi(0, 6, 01020700 01020304 00000000 20010db8 00000000 00000000 00000001)",
                     generalText("pbr add hrd peer ip6Addr=2001:db8::1,vrfid:16909060.\r\n")}));
    EXPECT_EQ(0, pbrNextHopUnDetect(2, 0x01020304, pHop));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{"hrdScalarSetApi(0, 6, 00020700 01020304 00000000 20010db8 00000000 00000000 00000001)",
                     generalText("pbr delete hrd peer ip6Addr=2001:db8::1.\r\n")}));
}

TEST_F(NexthopDetect, AnUnknownVersionIsRegisteredAsIpv6) {
    const PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 0);
    (void)fake::takeTrace();
    EXPECT_EQ(0, pbrNextHopDetect(0, 0, pHop));
    EXPECT_EQ(fake::takeTrace(),
              Lines{"hrdScalarSetApi(0, 6, 01020700 00000000 00000000 0a000001 00000000 00000000 00000000)"});
}

TEST_F(NexthopDetect, ARefusalOfTheServiceIsNotLookedAt) {
    const PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 0);
    fake::answer("hrdScalarSetApi", -1);
    EXPECT_EQ(0, pbrNextHopDetect(1, 0, pHop));
    EXPECT_EQ(0, pbrNextHopUnDetect(1, 0, pHop));
}

TEST_F(NexthopDetect, TheSameAddressInAnotherVrfIsAnotherPeer) {
    const PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 3);
    listWithHop("b", 1502, "10.0.0.1", 4);
    PbrIfEntry *pIf = ifWithList(1, "a");
    ifWithList(2, "b");
    EXPECT_EQ(0, pbrNextHopCheckUnDetect(pIf, 1, 3, pHop));
}

TEST_F(NexthopDetect, AnotherInterfaceWithTheSameListKeepsTheRegistration) {
    const PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 3);
    PbrIfEntry *pFirst = ifWithList(1, "a");
    PbrIfEntry *pSecond = ifWithList(2, "a");
    gPbrInfo.debugFlags = 64;
    EXPECT_EQ(-1, pbrNextHopCheckUnDetect(pFirst, 1, 3, pHop));
    EXPECT_EQ(-1, pbrNextHopCheckUnDetect(pSecond, 1, 3, pHop));
    EXPECT_EQ(fake::takeTrace(),
              (Lines{generalText("pbr did peer not need unbind ipAddr=10.0.0.1,vrfid:3!\r\n"),
                     generalText("pbr did peer not need unbind ipAddr=10.0.0.1,vrfid:3!\r\n")}));
}

TEST_F(NexthopDetect, AnotherListWithThePeerOnAnotherInterfaceKeepsTheRegistration) {
    const PbrNextHopEntry *pHop = listWithHop("a", 3001, "2001:db8::1", 3);
    listWithHop("b", 3002, "2001:db8::1", 3);
    PbrIfEntry *pIf = ifWithList(1, "a");
    ifWithList(2, "b");
    gPbrInfo.debugFlags = 64;
    EXPECT_EQ(-1, pbrNextHopCheckUnDetect(pIf, 2, 3, pHop));
    EXPECT_EQ(fake::takeTrace(),
              Lines{generalText("pbr did peer not need unbind ip6Addr=2001:db8::1,vrfid:3.\r\n")});
}

TEST_F(NexthopDetect, AListThatNoOtherInterfaceCarriesDoesNotKeepTheRegistration) {
    const PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 3);
    listWithHop("b", 1502, "10.0.0.1", 3); // configured, bound nowhere
    PbrIfEntry *pIf = ifWithList(1, "a");
    ifWithList(2, "gone");
    ifWithList(3, "");
    EXPECT_EQ(0, pbrNextHopCheckUnDetect(pIf, 1, 3, pHop));
}

TEST_F(NexthopDetect, APeerIsComparedOverAllSixteenBytesAndItsVersion) {
    PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 3);
    PbrNextHopEntry *pOther = listWithHop("b", 1502, "10.0.0.1", 3);
    PbrIfEntry *pIf = ifWithList(1, "a");
    ifWithList(2, "b");
    pOther->nextHop[15] = 1;
    EXPECT_EQ(0, pbrNextHopCheckUnDetect(pIf, 1, 3, pHop));
    pOther->nextHop[15] = 0;
    EXPECT_EQ(-1, pbrNextHopCheckUnDetect(pIf, 1, 3, pHop));
    EXPECT_EQ(0, pbrNextHopCheckUnDetect(pIf, 2, 3, pHop));
}

TEST_F(NexthopDetect, AKnownReachablePeerOfAnUnboundListIsTakenOverAndQueuesTheList) {
    PbrNextHopEntry *pHop = listWithHop("b", 1501, "10.0.0.1", 3);
    listWithHop("a", 1502, "10.0.0.1", 3)->nexthopArpState = 1;
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    PbrListEntry *pList = pbrListEntryGet(bytes("b").data(), 1);

    pbrNextHopUpdateArpState(pList, 1, 3, pHop);

    EXPECT_EQ(1, pHop->nexthopArpState);
    EXPECT_EQ("b", readyLists());
    EXPECT_EQ(fake::takeTrace(),
              (Lines{generalText("nexthop ipAddr=10.0.0.1,vrfid:3 arp state update to 1 !\r\n"),
                     eventText("arp state update add pbr to ready table.\r\n")}));
}

TEST_F(NexthopDetect, AKnownUnreachablePeerIsTakenOverAndQueuesNothing) {
    PbrNextHopEntry *pHop = listWithHop("a", 3001, "2001:db8::1", 3);
    listWithHop("b", 3002, "2001:db8::1", 3);
    pHop->nexthopArpState = 1;
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();

    pbrNextHopUpdateArpState(pbrListEntryGet(bytes("a").data(), 1), 2, 3, pHop);

    EXPECT_EQ(0, pHop->nexthopArpState);
    EXPECT_EQ("", readyLists());
    EXPECT_EQ(fake::takeTrace(),
              Lines{generalText("nexthop ip6Addr=2001:db8::1,vrfid:3 arp state update to 0 ! \r\n")});
}

TEST_F(NexthopDetect, AStateThatIsTakenOverMarksTheListForTheRedirectView) {
    PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 3);
    PbrNextHopEntry *pKnown = listWithHop("b", 1502, "10.0.0.1", 3);
    PbrListEntry *pList = pbrListEntryGet(bytes("a").data(), 1);
    for (uint8_t state : {1, 0}) {
        pKnown->nexthopArpState = state;
        checked();
        pbrNextHopUpdateArpState(pList, 1, 3, pHop);
        EXPECT_EQ(1, pList->viewMark);
        EXPECT_EQ(1u, pbrRedirectViewChanged());
    }
    checked();
    pbrNextHopUpdateArpState(pList, 1, 4, pHop); // nothing known
    EXPECT_EQ(0u, pbrRedirectViewChanged());
}

TEST_F(NexthopDetect, TheFirstListInNameOrderIsTheOneThatIsTakenOver) {
    PbrNextHopEntry *pHop = listWithHop("m", 1501, "10.0.0.1", 3);
    listWithHop("z", 1502, "10.0.0.1", 3)->nexthopArpState = 1;
    listWithHop("b", 1503, "10.0.0.1", 3)->nexthopArpState = 0;
    listWithHop("a", 1504, "10.0.0.1", 2)->nexthopArpState = 1; // another VRF
    pHop->nexthopArpState = 1;
    pbrNextHopUpdateArpState(pbrListEntryGet(bytes("m").data(), 1), 1, 3, pHop);
    EXPECT_EQ(0, pHop->nexthopArpState);
}

TEST_F(NexthopDetect, APeerThatOnlyItsOwnListNamesKeepsItsState) {
    PbrNextHopEntry *pHop = listWithHop("a", 1501, "10.0.0.1", 3);
    PbrNodeEntry *pSecond = makeNode("a", 20, {.acl = 1502, .ipVer = 1});
    pSecond->vrfid = 3;
    makeNextHop(pSecond, 1, "10.0.0.1")->nexthopArpState = 1;
    gPbrInfo.debugFlags = 64;
    (void)fake::takeTrace();
    pbrNextHopUpdateArpState(pbrListEntryGet(bytes("a").data(), 1), 1, 3, pHop);
    EXPECT_EQ(0, pHop->nexthopArpState);
    EXPECT_EQ("", readyLists());
    EXPECT_TRUE(fake::takeTrace().empty());
}

} // namespace
