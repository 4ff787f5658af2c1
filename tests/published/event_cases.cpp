// Peers, links, probes, cards: what the daemon reads, says and does, from binding to the periodic update.
#include "core/pbr_info.h"
#include "platform/sil_process.h"
#include "tests/fake/fake_state.h"
#include "tests/published/entry_lines.h"

namespace published {
namespace {

constexpr char A4[] = "10.0.0.1", A6[] = "2001:db8::1";
const Key IF7 = unitKey(7), IF8 = unitKey(8);
const char REGISTER4[] = "hrdScalarSetApi(0, 6, 01010700 00000003 00000000 0a000001)";
const char REGISTER6[] = "hrdScalarSetApi(0, 6, 01020700 00000003 00000000 20010db8 00000000 00000000 00000001)";
const char REMOVE4[] = "hrdScalarSetApi(0, 6, 00010700 00000003 00000000 0a000001)";
const char REMOVE6[] = "hrdScalarSetApi(0, 6, 00020700 00000003 00000000 20010db8 00000000 00000000 00000001)";

std::string nameSync(uint32_t unit, const std::string &list) {
    return api_test::syncBytesLine("if(" + std::to_string(unit) + ")", 0x04128002, 0x90000003, list);
}
std::string destroySync(uint32_t unit) {
    return api_test::syncLine("if(" + std::to_string(unit) + ")", 0x04128001, 0x10000003, 2);
}

// A list with node 10 and its next hops, in VRF 3 unless said.
void have(Stage &s, const std::string &list, NodeSpec spec, const std::vector<std::string> &addresses) {
    s.list(list);
    s.node(list, 10, spec);
    uint8_t number = 1;
    for (const std::string &address : addresses) {
        s.hop(list, 10, number++, address);
    }
}
NodeSpec version4(uint32_t acl = 1501) { return {.acl = acl, .ipVer = 1, .vrf = 3}; }
NodeSpec version6(uint32_t acl = 3501) { return {.acl = acl, .ipVer = 2, .vrf = 3}; }

void makeIf(Stage &s, uint32_t unit) {
    EXPECT_EQ(0u, s.set(16, unitKey(unit), 1, 1));
    s.drop();
}

// ---- binding ----

PUBLISHED(Binding, TheFirstBindingRegistersThePeersAndTheLastReleasesThem) {
    s.start();
    have(s, "a", version4(), {A4});
    makeIf(s, 7);
    EXPECT_EQ(0u, s.setBytes(16, IF7, 2, "a"));
    s.said({nameSync(7, "a"), "aclLstSyncApi(1501, 2, 1)", REGISTER4,
            general("pbr add hrd peer ipAddr=10.0.0.1,vrfid:3!"), "qrvIfSetApi(7, 56, 206)"});
    EXPECT_EQ(0u, s.set(16, IF7, 1, 2));
    s.said({destroySync(7), "aclLstSyncApi(1501, 2, -1)", REMOVE4,
            general("pbr delete hrd peer ipAddr=10.0.0.1!"), general("pbrIfEntryUnBind start to delete hwAddRefCnt."),
            general("pbrIfEntryUnBind pPbrNhopBest:" + pointerText(nullptr) + "."), general("pbrIfnode delete"),
            "qrvIfSetApi(7, 57, 206)", general("pbrIfEntry delete")});
}

PUBLISHED(Binding, Ipv6PeersAreRegisteredAndReleasedByTheirText) {
    s.start();
    have(s, "a", version6(), {A6});
    makeIf(s, 7);
    EXPECT_EQ(0u, s.setBytes(16, IF7, 2, "a"));
    s.said({nameSync(7, "a"), "aclLstSyncApi(3501, 2, 1)", REGISTER6,
            general("pbr add hrd peer ip6Addr=2001:db8::1,vrfid:3."), "qrvIfSetApi(7, 56, 206)"});
    EXPECT_EQ(0u, s.set(16, IF7, 1, 2));
    s.said({destroySync(7), "aclLstSyncApi(3501, 2, -1)", REMOVE6,
            general("pbr delete hrd peer ip6Addr=2001:db8::1."),
            general("pbrIfEntryUnBind start to delete hwAddRefCnt."),
            general("pbrIfEntryUnBind pPbrNhopBest:" + pointerText(nullptr) + "."), general("pbrIfnode delete"),
            "qrvIfSetApi(7, 57, 206)", general("pbrIfEntry delete")});
}

// A peer that another list knows: its state is taken over, and the registration outlives either binding.
void sharedPeer(Stage &s, bool isIpv4) {
    s.start();
    const std::string address = isIpv4 ? A4 : A6, acl = isIpv4 ? "1502" : "3502";
    const std::string peer = std::string(isIpv4 ? "ipAddr=" : "ip6Addr=") + address, end = isIpv4 ? "!" : ".";
    have(s, "a", isIpv4 ? version4() : version6(), {address});
    have(s, "b", isIpv4 ? version4(1502) : version6(3502), {address});
    s.bind(7, "a");
    auto bound = [&](const Lines &known) {
        return Lines{nameSync(8, "b"), "aclLstSyncApi(" + acl + ", 2, 1)", isIpv4 ? REGISTER4 : REGISTER6,
                     general("pbr add hrd peer " + peer + ",vrfid:3" + end)} +
               known + Lines{"qrvIfSetApi(8, 56, 206)"};
    };
    const std::string known = "nexthop " + peer + ",vrfid:3 arp state update to ", knownEnd = isIpv4 ? " !" : " ! ";
    makeIf(s, 8);
    EXPECT_EQ(0u, s.setBytes(16, IF8, 2, "b"));
    s.said(bound({general(known + "0" + knownEnd)}));
    EXPECT_EQ(0u, s.set(16, IF8, 1, 2));
    s.said({destroySync(8), "aclLstSyncApi(" + acl + ", 2, -1)",
            general("pbr did peer not need unbind " + peer + ",vrfid:3" + end),
            general("pbrIfEntryUnBind start to delete hwAddRefCnt."),
            general("pbrIfEntryUnBind pPbrNhopBest:" + pointerText(nullptr) + "."), general("pbrIfnode delete"),
            "qrvIfSetApi(8, 57, 206)", general("pbrIfEntry delete")});
    s.read(events::up(address, 3));
    makeIf(s, 8);
    EXPECT_EQ(0u, s.setBytes(16, IF8, 2, "b"));
    s.said(bound({general(known + "1" + knownEnd), event("arp state update add pbr to ready table.")}));
}

PUBLISHED(Binding, AKnownIpv4PeersStateIsTakenOverAndItsRegistrationKept) { sharedPeer(s, true); }
PUBLISHED(Binding, AKnownIpv6PeersStateIsTakenOverAndItsRegistrationKept) { sharedPeer(s, false); }

PUBLISHED(Binding, AFurtherBindingWaitsForAReportOrIsWrittenAtOnce) {
    s.start();
    have(s, "a", version4(), {A4});
    s.bind(7, "a");
    makeIf(s, 8);
    makeIf(s, 9);
    const PbrNodeEntry *pNode = api_test::node("a", 10);
    EXPECT_EQ(0u, s.setBytes(16, IF8, 2, "a"));
    s.said({nameSync(8, "a"), "aclLstSyncApi(1501, 2, 1)",
            general("pbrIfEntryBind pPbrNode(" + pointerText(pNode) + ") is not best nhop,wait for hrd notify."),
            "qrvIfSetApi(8, 56, 206)"});
    s.read(events::up(A4, 3));
    s.drop();
    EXPECT_EQ(0u, s.setBytes(16, unitKey(9), 2, "a"));
    s.said(Lines{nameSync(9, "a"), "aclLstSyncApi(1501, 2, 1)", general("pbrIfEntryBind find nhop start to add hw.")} +
           linkLines("add", 9, {.action = 7, .hops = {A4}, .ver = 1, .vrf = 3}) + Lines{"qrvIfSetApi(9, 56, 206)"});
}

PUBLISHED(Binding, AProtocolSwitchThatFailsIsLoggedAndChangesNothing) {
    s.start();
    s.list("a");
    makeIf(s, 7);
    fake::nameInterface(7, "lan0");
    fake::answer("qrvIfSetApi", -1);
    const std::string names = "(ifName=[lan0], proto=[policy-route], type=[state])\r\n";
    EXPECT_EQ(0u, s.setBytes(16, IF7, 2, "a"));
    s.said({nameSync(7, "a"), "qrvIfSetApi(7, 56, 206)",
            steps::logText(0x044B0005, 0, 0, "The interface enable protocol error." + names)});
    EXPECT_EQ(0u, s.set(16, IF7, 1, 2));
    s.said({destroySync(7), "qrvIfSetApi(7, 57, 206)",
            steps::logText(0x044B0006, 0, 0, "The interface disable protocol error." + names),
            general("pbrIfEntry delete")});
}

// ---- peer reports ----

void reported(Stage &s, bool isIpv4) {
    s.start();
    const std::string address = isIpv4 ? A4 : A6;
    have(s, "a", isIpv4 ? version4() : version6(), {address});
    s.bind(7, "a");
    const std::string family = isIpv4 ? "1" : "2";
    const std::string peer = (isIpv4 ? " ipAddr=" : " ip6Addr=") + address + ",vpnVrfid=3.";
    auto received = [&](const char *type) {
        return event("pbr receive QRV_RTM_HRD_XXX,nlmsg_type=" + std::string(type) + ",family=" + family + ",vrId=3.");
    };
    s.read(events::up(address, 3));
    s.saidOfRead({received("305"), event("pbrNextHopStateUp" + peer), event("pbrNextHopStateUp add to ready table.")});
    s.tick();
    s.read(events::change(address, 3));
    s.saidOfRead({received("307"), event("pbrNextHopStateChange recv rtm msg" + peer),
                  event("pbrNextHopStateChange pbr name:a,index:10."),
                  event("pbrNextHopStateChange add to ready table.")});
    s.read(events::down(address, 3));
    s.saidOfRead({received("306"), event("pbrNextHopStateDown" + peer),
                  event("pbrNextHopStateDown add to ready table.")});
    *gProcShellVariables[0].pValue = 1; // pbrselflog
    const std::string peerText = "family=[" + family + "], vrId=[3], ip=[" + address + "])";
    s.read(events::up(address, 3));
    s.saidOfRead({received("305"), peerLog("pbr receive hrd msg.(type=[305], " + peerText),
                  event("pbrNextHopStateUp" + peer), peerLog("pbr hrd up.(pbr=[a/10], " + peerText),
                  event("pbrNextHopStateUp add to ready table.")});
    s.read(events::down(address, 3));
    s.saidOfRead({received("306"), peerLog("pbr receive hrd msg.(type=[306], " + peerText),
                  event("pbrNextHopStateDown" + peer), peerLog("pbr hrd down.(pbr=[a/10], " + peerText),
                  event("pbrNextHopStateDown add to ready table.")});
    s.read(events::change(address, 3));
    s.saidOfRead({received("307"), peerLog("pbr receive hrd msg.(type=[307], " + peerText),
                  event("pbrNextHopStateChange recv rtm msg" + peer)});
}

PUBLISHED(PeerReport, AnIpv4PeersReportsAreToldAndOnDemandLogged) { reported(s, true); }
PUBLISHED(PeerReport, AnIpv6PeersReportsAreToldAndOnDemandLogged) { reported(s, false); }

// ---- the periodic update ----

std::string noChange(const PbrNextHopEntry *pBest) {
    return "pbrIfNodeUpdate no change best nexthop " + pointerText(pBest) + ".";
}

PUBLISHED(Update, ANextHopThatComesAndGoesIsWrittenAndRemoved) {
    s.start();
    have(s, "a", version4(), {A4});
    s.bind(7, "a");
    const PbrNodeEntry *pNode = api_test::node("a", 10);
    const Entry entry = {.action = 7, .hops = {A4}, .ver = 1, .vrf = 3};
    s.tick();
    s.saidOfTick({});
    s.read(events::up(A4, 3));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "pbrIfNodeUpdate select best nexthop 1,curSelected:1,lastSelected:0.",
                             "change 1,pPbrNode->stateChangeFlag 0") +
                 updateLink(7, pNode) + Lines{event("pbr start to add hw.")} + linkLines("add", 7, entry));
    s.read(events::up(A4, 3));
    s.tick();
    s.saidOfTick(updateLines("a", 10, noChange(pNode->pPbrNhopBest), ""));
    s.read(events::down(A4, 3));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "", "change 1,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode) +
                 linkLines("del", 7, entry) + Lines{event("no best nhop,do not add hw.")});
}

PUBLISHED(Update, AReportedChangeRewritesTheLinksThatItFound) {
    s.start();
    have(s, "a", version4(), {A4});
    s.bind(7, "a");
    const PbrNodeEntry *pNode = api_test::node("a", 10);
    const Entry entry = {.action = 7, .hops = {A4}, .ver = 1, .vrf = 3};
    s.read(events::up(A4, 3));
    s.tick();
    s.read(events::change(A4, 3));
    s.bind(8, "a"); // written at its binding, after the report
    s.tick();
    s.saidOfTick(updateLines("a", 10, noChange(pNode->pPbrNhopBest),
                             "change 0,pPbrNode->stateChangeFlag 1") +
                 updateLink(8, pNode) + Lines{event("check change:0, stateChangeFlag 0 ")} + updateLink(7, pNode) +
                 linkLines("del", 7, entry) + Lines{event("pbr start to add hw.")} + linkLines("add", 7, entry));
}

PUBLISHED(Update, OutsideItsTimeRangeANodeSelectsNothing) {
    s.start();
    have(s, "a", {.acl = 1501, .ipVer = 1, .timeRangeId = 7}, {A4});
    s.bind(7, "a");
    s.read(events::up(A4));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "pbrIfNodeUpdate set timerang but not in time,return NULL."
                                      "timeRangeId[7],timeRangeMatched[0].", "") +
                 Lines{hardware(noChange(nullptr))});
}

PUBLISHED(Update, AFailedAddIsTriedAgainWithADeleteFirst) {
    s.start();
    have(s, "a", version4(), {A4});
    s.bind(7, "a");
    const PbrNodeEntry *pNode = api_test::node("a", 10);
    fake::answer("aclIfSetApi", 7);
    const Entry failing = {.action = 7, .hops = {A4}, .ver = 1, .vrf = 3, .result = 7};
    s.read(events::up(A4, 3));
    s.tick();
    const Lines selected = updateLines("a", 10, "pbrIfNodeUpdate select best nexthop 1,curSelected:1,lastSelected:0.",
                                       "change 1,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode);
    s.saidOfTick(selected + Lines{event("pbr start to add hw.")} + linkLines("add", 7, failing));
    s.tick();
    s.saidOfTick(selected + linkLines("del", 7, failing) + Lines{event("pbr start to add hw.")} +
                 linkLines("add", 7, failing));
}

// ---- links ----

const Entry OUT = {.action = 4, .outIf = 12, .isEmpty = true};

// List "a" with one node to interface 12, on the interface.
void haveOut(Stage &s, uint32_t unit) {
    s.start();
    have(s, "a", {.acl = 1501, .outIf = 12}, {});
    s.bind(unit, "a");
}

Lines gone(uint32_t unit) {
    return Lines{"aclLstSyncApi(1501, 2, -1)", general("pbrIfEntryUnBind start to delete hw,hwStatus:1.")} +
           linkLines("del", unit, OUT) +
           Lines{general("pbrIfnode delete"), "qrvIfSetApi(" + std::to_string(unit) + ", 57, 206)",
                 general("pbrIfEntry delete")};
}

PUBLISHED(LinkMessage, APortThatJoinsAnAggregationLosesItsBinding) {
    haveOut(s, 9);
    s.read(events::portJoins(9, 5));
    s.saidOfRead(Lines{event("phy join agg,so pbr unbind on phy(phy=[if9],agg=[if5],pbr=[a]).")} + gone(9));
    s.read(events::portJoins(9, 5));
    s.saidOfRead({});
}

PUBLISHED(LinkMessage, APortAddedOrRemovedGetsOrLosesTheAggregationsEntries) {
    haveOut(s, 5);
    fake::answer("aggAnswer", 1);
    s.read(events::memberAdded(5, 9));
    s.saidOfRead(Lines{"qrvIfGetApi(5, 47, 0x03e80135)",
                       event("agg add phy,so pbr bind on phy(agg=[if5],phy=[if9],pbr=[a]).")} +
                 memberLines("add", 9, 5, OUT));
    s.read(events::memberRemoved(5, 9));
    s.saidOfRead(Lines{event("pbr receive agg 5 remove phy 9 msg."), "qrvIfGetApi(5, 47, 0x03e80136)",
                       event("agg remove phy,so pbr unbind on phy(agg=[if5],phy=[if9],pbr=[a]).")} +
                 memberLines("del", 9, 5, OUT));
    fake::answer("aclIfSetApi", 7);
    const Entry failing = {.action = 4, .outIf = 12, .isEmpty = true, .result = 7};
    s.read(events::memberAdded(5, 9));
    s.saidOfRead(Lines{"qrvIfGetApi(5, 47, 0x03e80135)",
                       event("agg add phy,so pbr bind on phy(agg=[if5],phy=[if9],pbr=[a]).")} +
                 memberLines("add", 9, 5, failing));
    s.read(events::memberRemoved(5, 9));
    s.saidOfRead(Lines{event("pbr receive agg 5 remove phy 9 msg."), "qrvIfGetApi(5, 47, 0x03e80136)",
                       event("agg remove phy,so pbr unbind on phy(agg=[if5],phy=[if9],pbr=[a]).")} +
                 memberLines("del", 9, 5, failing));
}

PUBLISHED(LinkMessage, AQuestionThatFailsIsToldAndAnAnswerOfNoDoesNothing) {
    haveOut(s, 5);
    s.read(events::memberAdded(5, 9));
    s.saidOfRead({"qrvIfGetApi(5, 47, 0x03e80135)"});
    fake::answer("qrvIfGetApi", -1);
    s.read(events::memberAdded(5, 9));
    s.saidOfRead({"qrvIfGetApi(5, 47, 0x03e80135)",
                  event("agg 5 call qrvIfGetApi failed with cmd QRV_IF_HWAPIFUNCDISPATCH.")});
    s.read(events::memberRemoved(5, 9));
    s.saidOfRead({event("pbr receive agg 5 remove phy 9 msg."), "qrvIfGetApi(5, 47, 0x03e80136)",
                  event("agg 5 call qrvIfGetApi failed with cmd QRV_IF_HWAPIFUNCDISPATCH.")});
}

PUBLISHED(LinkMessage, AnInterfaceThatIsGoneLosesItsBinding) {
    haveOut(s, 7);
    s.read(events::interfaceGone(7));
    s.saidOfRead(Lines{event("pbr receive QRV_RTM_DELLINK_FINAL message."),
                       event("Interface unregister,so pbr unbind(Interface=[if7],pbr=[a]).")} + gone(7));
}

PUBLISHED(LinkMessage, AResetPortLosesItsBindingAndAnUnknownOneEndsTheRead) {
    haveOut(s, 7);
    s.read(events::portReset(7));
    s.saidOfRead(Lines{event("pbr receive QRV_RTM_RESETPORTCONFIG message."),
                       event("pbr receive QRV_RTM_RESETPORTCONFIG,so pbr unbind(Interface=[if7],pbr=[a]).")} + gone(7));
    s.read(events::joined({events::portReset(7), events::interfaceGone(7)}));
    s.saidOfRead({event("pbr receive QRV_RTM_RESETPORTCONFIG message.")});
}

// ---- probes ----

PUBLISHED(ProbeMessage, AChangedStatusQueuesTheListsThatUseTheTest) {
    s.start();
    have(s, "a", version4(), {A4});
    s.hopActive("a", 10, 1, "admin", "icmp");
    s.bind(7, "a");
    const std::string received = "pbr receive QRV_RTM_NQA,adminName=admin,testName=icmp,status=";
    s.read(events::probe("admin", "icmp", 1));
    s.saidOfRead({event(received + "1."), event("nqa status change add to ready table.")});
    s.read(events::probe("admin", "icmp", 1));
    s.saidOfRead({event(received + "1.")});
    s.read(events::probe("admin", "icmp", 3));
    s.saidOfRead({event(received + "3."), event("nqa status change add to ready table.")});
}

// ---- cards and slots ----

// Words 1 to 3 of a message that is only a header.
uint32_t headerWord(const Bytes &message, uint32_t index) {
    uint32_t word;
    memcpy(&word, message.data() + 4 * index, sizeof(word));
    return word;
}

Lines rewritten() { return linkLines("del", 7, OUT) + linkLines("add", 7, OUT); }

PUBLISHED(CardMessage, ACardOfThisSystemGetsTheEntriesOfQueuedListsAgain) {
    haveOut(s, 7);
    s.set(13, nodeKey("a", 10), 16, 0); // queued
    fake::answer("qrvSelfSysIndex", events::OWN_SYSTEM);
    const Bytes message = events::cardStarted();
    const uint32_t slot = headerWord(message, 1);
    s.read(message);
    const char form[] = "pbr receive QRV_RTM_CARD_UP,rtm_type=0,sysId=24,slotId=%d,cardId=0,type=0.";
    s.saidOfRead(Lines{event(fake::text(form, static_cast<int32_t>(slot))), "qrvSelfSysIndex()",
                       fake::text("qrvHwilCardGet(24 %u 0 0, 0x2ee002a)", slot), "qrvHwilScalarGet(0, 55)"} +
                 rewritten());
}

PUBLISHED(CardMessage, ASlotIsAskedForBothScalarsAndAForeignOnePassedOver) {
    haveOut(s, 7);
    s.set(13, nodeKey("a", 10), 16, 0);
    const Bytes message = events::slotStarted();
    const uint32_t slot = headerWord(message, 1);
    const char form[] = "pbr receive QRV_RTM_SLOT_UP,rtm_type=0,sysId=24,slotId=%d,type=0.";
    const std::string told = event(fake::text(form, static_cast<int32_t>(slot)));
    s.read(message);
    s.saidOfRead({told, "qrvSelfSysIndex()"});
    fake::answer("qrvSelfSysIndex", events::OWN_SYSTEM);
    fake::answerWith("qrvHwilScalarGet", [](const std::string &line) { return line.find("46") < line.size() ? 1 : 0; });
    s.read(message);
    s.saidOfRead(Lines{told, "qrvSelfSysIndex()", fake::text("qrvHwilSlotGet(24 %u 0, 0x1f4002b)", slot),
                       "qrvHwilScalarGet(0, 55)", "qrvHwilScalarGet(0, 46)"} + rewritten());
}

} // namespace
} // namespace published
