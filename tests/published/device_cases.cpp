// Entries of every kind: of links, of member ports, of single ACL rules.
#include "core/pbr_info.h"
#include "tests/fake/fake_state.h"
#include "tests/published/entry_lines.h"

namespace published {
namespace {

struct Family {
    uint32_t ver, acl, single, ecmp;
    const char *a, *b, *c;
};
constexpr Family IPV4 = {1, 1501, 7, 8, "10.0.0.1", "10.0.0.2", "10.0.0.3"};
constexpr Family IPV6 = {2, 3501, 46, 50, "2001:db8::1", "2001:db8::2", "2001:db8::3"};

void have(Stage &s, NodeSpec spec, const std::vector<std::string> &addresses) {
    s.list("a");
    s.node("a", 10, spec);
    uint8_t number = 1;
    for (const std::string &address : addresses) {
        s.hop("a", 10, number++, address);
    }
}

Entry entryOf(const Family &f, uint32_t action, const std::vector<std::string> &hops, uint32_t ecmp = 0) {
    return {.action = action, .hops = hops, .acl = f.acl, .ver = f.ver, .ecmp = ecmp};
}

Bytes upAll(const std::vector<std::string> &addresses) {
    Bytes read;
    for (const std::string &address : addresses) {
        const Bytes one = events::up(address);
        read.insert(read.end(), one.begin(), one.end());
    }
    return read;
}

// ---- entries of links ----

PUBLISHED(LinkEntry, ANodeToAnInterfaceIsWrittenAtItsBindingAndRemovedWithIt) {
    s.start();
    have(s, {.acl = 1501, .vrf = 4, .outIf = 12, .pri = 3}, {});
    EXPECT_EQ(0u, s.set(16, unitKey(7), 1, 1));
    s.drop();
    const Entry entry = {.action = 4, .vrf = 4, .outIf = 12, .pri = 3, .isEmpty = true};
    EXPECT_EQ(0u, s.setBytes(16, unitKey(7), 2, "a"));
    s.said(Lines{api_test::syncBytesLine("if(7)", 0x04128002, 0x90000003, "a"), "aclLstSyncApi(1501, 2, 1)"} +
           linkLines("add", 7, entry) + Lines{"qrvIfSetApi(7, 56, 206)"});
    EXPECT_EQ(0u, s.set(16, unitKey(7), 1, 2));
    s.said(Lines{api_test::syncLine("if(7)", 0x04128001, 0x10000003, 2), "aclLstSyncApi(1501, 2, -1)",
                 general("pbrIfEntryUnBind start to delete hw,hwStatus:1.")} +
           linkLines("del", 7, entry) +
           Lines{general("pbrIfnode delete"), "qrvIfSetApi(7, 57, 206)", general("pbrIfEntry delete")});
}

PUBLISHED(LinkEntry, APriorityAloneIsWrittenWithoutAction) {
    s.start();
    have(s, {.acl = 1501, .pri = 3}, {});
    EXPECT_EQ(0u, s.set(16, unitKey(7), 1, 1));
    s.drop();
    EXPECT_EQ(0u, s.setBytes(16, unitKey(7), 2, "a"));
    s.said(Lines{api_test::syncBytesLine("if(7)", 0x04128002, 0x90000003, "a"), "aclLstSyncApi(1501, 2, 1)"} +
           linkLines("add", 7, {.action = 0, .pri = 3, .isEmpty = true}) + Lines{"qrvIfSetApi(7, 56, 206)"});
}

PUBLISHED(LinkEntry, ANodeThatForwardsNormallyOrMatchesNoAclSendsNothing) {
    const NodeSpec specs[] = {{.acl = 1501, .outIf = 12, .forwardFlag = 2}, {.outIf = 12, .match1 = 1}};
    for (const NodeSpec &spec : specs) {
        s.start();
        have(s, spec, {});
        EXPECT_EQ(0u, s.set(16, unitKey(7), 1, 1));
        s.drop();
        const Entry entry = {.acl = spec.acl, .outIf = 12, .forwardFlag = spec.forwardFlag, .isEmpty = true};
        EXPECT_EQ(0u, s.setBytes(16, unitKey(7), 2, "a"));
        s.said(Lines{api_test::syncBytesLine("if(7)", 0x04128002, 0x90000003, "a"),
                     fake::text("aclLstSyncApi(%u, 2, 1)", spec.acl)} +
               linkLines("add", 7, entry) + Lines{"qrvIfSetApi(7, 56, 206)"});
    }
}

const std::string FIRST = "pbrIfNodeUpdate select best nexthop 1,curSelected:1,lastSelected:0.";

void singleEntry(Stage &s, const Family &f) {
    s.start();
    have(s, {.acl = f.acl, .ipVer = f.ver}, {f.a});
    s.bind(7, "a");
    const PbrNodeEntry *pNode = api_test::node("a", 10);
    s.read(events::up(f.a));
    s.tick();
    s.saidOfTick(updateLines("a", 10, FIRST, "change 1,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode) +
                 Lines{event("pbr start to add hw.")} + linkLines("add", 7, entryOf(f, f.single, {f.a})));
    s.read(events::down(f.a));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "", "change 1,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode) +
                 linkLines("del", 7, entryOf(f, f.single, {f.a})) + Lines{event("no best nhop,do not add hw.")});
}

PUBLISHED(LinkEntry, ASingleIpv4NextHopIsWrittenAndRemoved) { singleEntry(s, IPV4); }
PUBLISHED(LinkEntry, ASingleIpv6NextHopIsWrittenAndRemoved) { singleEntry(s, IPV6); }

void backupEntry(Stage &s, const Family &f) {
    s.start();
    have(s, {.acl = f.acl, .ipVer = f.ver}, {f.a, f.b});
    s.bind(7, "a");
    s.read(events::up(f.b));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "pbrIfNodeUpdate select best nexthop 2,curSelected:1,lastSelected:0.",
                             "change 1,pPbrNode->stateChangeFlag 0") +
                 updateLink(7, api_test::node("a", 10)) + Lines{event("pbr start to add hw.")} +
                 linkLines("add", 7, entryOf(f, 0, {f.a, f.b})));
}

PUBLISHED(LinkEntry, TwoIpv4NextHopsOfWhichOneIsUsedAreWrittenWithoutAction) { backupEntry(s, IPV4); }
PUBLISHED(LinkEntry, TwoIpv6NextHopsOfWhichOneIsUsedAreWrittenWithoutAction) { backupEntry(s, IPV6); }

void ecmpEntry(Stage &s, const Family &f) {
    s.start();
    have(s, {.acl = f.acl, .ipVer = f.ver, .ecmp = 1}, {f.a, f.b});
    s.bind(7, "a");
    const PbrNodeEntry *pNode = api_test::node("a", 10);
    s.read(upAll({f.a, f.b}));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "", "change 2,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode) +
                 Lines{event("pbr start to add hw.")} + linkLines("add", 7, entryOf(f, f.ecmp, {f.a, f.b}, 1)));
    s.read(events::down(f.a));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "", "change 1,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode) +
                 linkLines("del", 7, entryOf(f, 0, {}, 1)) + Lines{event("pbr start to add hw.")} +
                 linkLines("add", 7, entryOf(f, 0, {f.b}, 1)));
}

PUBLISHED(LinkEntry, AnIpv4SetIsWrittenWithItsReachableMembers) { ecmpEntry(s, IPV4); }
PUBLISHED(LinkEntry, AnIpv6SetIsWrittenWithItsReachableMembers) { ecmpEntry(s, IPV6); }

// The marks "in the device" of a node outlive its removal but for the next hop that was chosen. Once the node
// has become a set, the set is removed with the members so marked.
void ecmpRemoval(Stage &s, const Family &f) {
    s.start();
    have(s, {.acl = f.acl, .ipVer = f.ver}, {f.a, f.b, f.c});
    s.bind(7, "a");
    s.read(upAll({f.a, f.b, f.c}));
    s.tick();
    s.unbind(7);
    EXPECT_EQ(0u, s.set(13, nodeKey("a", 10), 9, 1));
    s.bind(7, "a");
    const PbrNodeEntry *pNode = api_test::node("a", 10);
    s.read(events::up(f.b));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "", "change 1,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode) +
                 Lines{event("pbr start to add hw.")} + linkLines("add", 7, entryOf(f, f.ecmp, {f.a, f.b, f.c}, 1)));
    s.read(events::up(f.b));
    s.tick();
    s.saidOfTick(updateLines("a", 10, "", "change 1,pPbrNode->stateChangeFlag 0") + updateLink(7, pNode) +
                 linkLines("del", 7, entryOf(f, f.ecmp, {f.b, f.c}, 1)) + Lines{event("pbr start to add hw.")} +
                 linkLines("add", 7, entryOf(f, f.ecmp, {f.a, f.b, f.c}, 1)));
}

PUBLISHED(LinkEntry, AnIpv4SetIsRemovedWithTheMembersMarkedAsWritten) { ecmpRemoval(s, IPV4); }
PUBLISHED(LinkEntry, AnIpv6SetIsRemovedWithTheMembersMarkedAsWritten) { ecmpRemoval(s, IPV6); }

// ---- entries of member ports ----

const std::string JOINED = event("agg add phy,so pbr bind on phy(agg=[if5],phy=[if9],pbr=[a]).");
const std::string LEFT = event("agg remove phy,so pbr unbind on phy(agg=[if5],phy=[if9],pbr=[a]).");
const Lines ASKED_ADD = {"qrvIfGetApi(5, 47, 0x03e80135)", JOINED};
const Lines ASKED_REMOVE = {event("pbr receive agg 5 remove phy 9 msg."), "qrvIfGetApi(5, 47, 0x03e80136)", LEFT};

void memberComesAndGoes(Stage &s, const Entry &added, const Entry &removed) {
    fake::answer("aggAnswer", 1);
    s.read(events::memberAdded(5, 9));
    s.saidOfRead(ASKED_ADD + memberLines("add", 9, 5, added));
    s.read(events::memberRemoved(5, 9));
    s.saidOfRead(ASKED_REMOVE + memberLines("del", 9, 5, removed));
}

void singleMember(Stage &s, const Family &f) {
    s.start();
    have(s, {.acl = f.acl, .ipVer = f.ver}, {f.a});
    s.bind(5, "a");
    s.read(events::up(f.a));
    s.tick();
    memberComesAndGoes(s, entryOf(f, f.single, {f.a}), entryOf(f, f.single, {f.a}));
}

PUBLISHED(MemberEntry, AMemberGetsAndLosesTheSingleIpv4NextHop) { singleMember(s, IPV4); }
PUBLISHED(MemberEntry, AMemberGetsAndLosesTheSingleIpv6NextHop) { singleMember(s, IPV6); }

PUBLISHED(MemberEntry, AMemberOfASetThatWasNeverASingleEntryHasNoAddresses) {
    s.start();
    have(s, {.acl = 1501, .ipVer = 1, .ecmp = 1}, {"10.0.0.1", "10.0.0.2"});
    s.bind(5, "a");
    s.read(upAll({"10.0.0.1", "10.0.0.2"}));
    s.tick();
    memberComesAndGoes(s, entryOf(IPV4, 0, {}, 1), entryOf(IPV4, 0, {}, 1));
}

// Two next hops that both were chosen once while deletes failed are both marked as written; then the node
// becomes a set.
void twoWritten(Stage &s, const Family &f, uint32_t unit) {
    s.start();
    have(s, {.acl = f.acl, .ipVer = f.ver}, {f.a, f.b});
    s.bind(unit, "a");
    s.read(events::up(f.b));
    s.tick();
    fake::answerWith("aclIfSetApi", [](const std::string &line) { return line.find(", 21, ") < line.size() ? 7 : 0; });
    s.read(events::down(f.b));
    s.read(events::up(f.a));
    s.tick();
    s.unbind(unit);
    EXPECT_EQ(0u, s.set(13, nodeKey("a", 10), 9, 1));
    s.bind(unit, "a");
    s.read(events::up(f.a));
    s.tick();
    fake::answerWith("aclIfSetApi", [](const std::string &) { return 0; });
    s.drop();
}

void ecmpMember(Stage &s, const Family &f) {
    twoWritten(s, f, 5);
    memberComesAndGoes(s, entryOf(f, f.ecmp, {f.a, f.b}, 1), entryOf(f, f.ecmp, {f.a, f.b}, 1));
}

PUBLISHED(MemberEntry, AMemberOfAnIpv4SetGetsAndLosesWhatIsMarkedAsWritten) { ecmpMember(s, IPV4); }
PUBLISHED(MemberEntry, AMemberOfAnIpv6SetGetsAndLosesWhatIsMarkedAsWritten) { ecmpMember(s, IPV6); }

// ---- rules of single ACL rules ----

// The beginning of a rule message's lines: the message, the link, and for a node without choice its start.
Lines ruleAdded(const Entry &entry, const PbrNodeEntry *pNode) {
    const std::string acl = std::to_string(entry.acl);
    Lines lines = {event("pbr receive QRV_RTM_ACL_ADDACLRULE,listNum=" + acl + ",ruleNum=5,name=a,nodeIndex=10."),
                   event("pbr receive QRV_RTM_ACL_ADDACLRULE,name=a,nodeIndex=10,pPbrNhopBest:" +
                         pointerText(pNode->pPbrNhopBest) + ",emptyAcl:0,aclNoAction:0,outIfUnit:" +
                         std::to_string(entry.outIf) + ".")};
    if (entry.isEmpty) {
        const char form[] = "pbr rule 5 start to add hw,name=a,nodeIndex=10,emptyAcl:0,outIfUnit:%u,ipPri:%u.";
        lines.push_back(event(fake::text(form, entry.outIf, entry.pri)));
    }
    return lines;
}
Lines ruleRemoved(const Entry &entry) {
    const std::string acl = std::to_string(entry.acl);
    return {event("pbr rcv del acl rule msg,listNum=" + acl + ",ruleNum=5."),
            event("pbr receive QRV_RTM_ACL_DELACLRULE,listNum=" + acl + ",ruleNum=5,name=a,nodeIndex=10.")};
}

void ruleComes(Stage &s, const Entry &entry, const std::string &words) {
    s.read(events::ruleAdded(entry.acl, 5));
    s.saidOfRead(ruleAdded(entry, api_test::node("a", 10)) + ruleLines("add", 7, entry, words));
}
void ruleGoes(Stage &s, const Entry &entry, const std::string &words) {
    s.read(events::ruleRemoved(entry.acl, 5));
    s.saidOfRead(ruleRemoved(entry) + ruleLines("del", 7, entry, words));
}

const std::string RULE_END4 = " 476:000005dd 480:00000005 484:00050000";
const std::string RULE_END6 = " 476:00000dad 480:00000005 484:00050000";

PUBLISHED(RuleEntry, ARuleToAnInterfaceIsWrittenRemovedAndItsFailureTold) {
    s.start();
    have(s, {.acl = 1501, .outIf = 12}, {});
    s.bind(7, "a");
    Entry entry = {.outIf = 12, .isEmpty = true};
    ruleComes(s, entry, "68:00000002 224:08000000 276:0000000c" + RULE_END4);
    ruleGoes(s, entry, "68:00000002 224:08000000 276:0000000c" + RULE_END4);
    fake::answer("qrvIfSetApi", 9);
    entry.result = 9;
    ruleComes(s, entry, "68:00000002 224:08000000 276:0000000c" + RULE_END4);
    ruleGoes(s, entry, "68:00000002 224:08000000 276:0000000c" + RULE_END4);
    EXPECT_EQ("2 1 0 1", std::to_string(gPbrInfo.hwAclAddCnt) + " " + std::to_string(gPbrInfo.hwAclAddErr) + " " +
                             std::to_string(gPbrInfo.hwAclDelCnt - 1) + " " + std::to_string(gPbrInfo.hwAclDelErr));
}

PUBLISHED(RuleEntry, ARuleOfAPriorityAloneCarriesOnlyThat) {
    s.start();
    have(s, {.acl = 1501, .pri = 3}, {});
    s.bind(7, "a");
    const Entry entry = {.pri = 3, .isEmpty = true};
    ruleComes(s, entry, "68:00000002 224:00010000 232:00000003" + RULE_END4);
    ruleGoes(s, entry, "68:00000002 224:00010000 232:00000003" + RULE_END4);
}

PUBLISHED(RuleEntry, ARuleToASingleIpv4NextHopNamesIt) {
    s.start();
    have(s, {.acl = 1501, .ipVer = 1}, {"10.0.0.1"});
    s.bind(7, "a");
    s.read(events::up("10.0.0.1"));
    s.tick();
    const Entry entry = {.hops = {"10.0.0.1"}, .ver = 1};
    ruleComes(s, entry, "68:00000002 72:01000000 224:01000000 276:0a000001" + RULE_END4);
    ruleGoes(s, entry, "68:00000002 72:01000000 224:01000000 276:0a000001" + RULE_END4);
}

PUBLISHED(RuleEntry, ARuleWithPriorityAndVrfCarriesAllThree) {
    s.start();
    have(s, {.acl = 1501, .ipVer = 1, .vrf = 4, .pri = 3}, {"10.0.0.1"});
    s.bind(7, "a");
    s.read(events::up("10.0.0.1", 4));
    s.tick();
    const Entry entry = {.hops = {"10.0.0.1"}, .ver = 1, .vrf = 4, .pri = 3};
    const std::string words = "68:00000002 72:01000000 224:01010000 228:00400000 232:00000003 276:0a000001 "
                              "316:00000004" + RULE_END4;
    ruleComes(s, entry, words);
    ruleGoes(s, entry, words);
}

PUBLISHED(RuleEntry, ARuleToASingleIpv6NextHopNamesIt) {
    s.start();
    have(s, {.acl = 3501, .ipVer = 2}, {"2001:db8::1"});
    s.bind(7, "a");
    s.read(events::up("2001:db8::1"));
    s.tick();
    const Entry entry = entryOf(IPV6, 0, {"2001:db8::1"});
    ruleComes(s, entry, "68:00000002 228:00020000 324:20010db8 336:00000001" + RULE_END6);
    ruleGoes(s, entry, "68:00000002 72:02000000 228:00020000 324:20010db8 336:00000001" + RULE_END6);
}

PUBLISHED(RuleEntry, ARuleToAnIpv4SetNamesItsReachableMembersWithTheDoubledWords) {
    s.start();
    have(s, {.acl = 1501, .ipVer = 1, .ecmp = 1}, {"10.0.0.1", "10.0.0.2"});
    s.bind(7, "a");
    s.read(upAll({"10.0.0.1", "10.0.0.2"}));
    s.tick();
    ruleComes(s, entryOf(IPV4, 0, {"10.0.0.1", "10.0.0.2"}, 1),
              "68:00000002 72:01000000 224:01000000 276:0a000001 280:0a000002" + RULE_END4);
    ruleGoes(s, entryOf(IPV4, 0, {}, 1), "68:00000002 72:01000000 224:01000000" + RULE_END4);
}

PUBLISHED(RuleEntry, ARuleToAnIpv6SetKeepsTheFirstAndTheLastMember) {
    s.start();
    have(s, {.acl = 3501, .ipVer = 2, .ecmp = 1}, {"2001:db8::1", "2001:db8::2", "2001:db8::3"});
    s.bind(7, "a");
    s.read(upAll({"2001:db8::1", "2001:db8::2", "2001:db8::3"}));
    s.tick();
    ruleComes(s, entryOf(IPV6, 0, {"2001:db8::1", "2001:db8::2", "2001:db8::3"}, 1),
              "68:00000002 228:00002000 324:20010db8 336:00000001 340:20010db8 352:00000003" + RULE_END6);
}

PUBLISHED(RuleEntry, ARuleOfASetIsRemovedWithTheMembersMarkedAsWritten) {
    twoWritten(s, IPV4, 7);
    ruleGoes(s, entryOf(IPV4, 0, {"10.0.0.1", "10.0.0.2"}, 1),
             "68:00000002 72:01000000 224:01000000 276:0a000001 280:0a000002" + RULE_END4);
    twoWritten(s, IPV6, 7);
    ruleGoes(s, entryOf(IPV6, 0, {"2001:db8::1", "2001:db8::2"}, 1),
             "68:00000002 72:02000000 228:00002000 324:20010db8 336:00000001 340:20010db8 352:00000002" + RULE_END6);
}

PUBLISHED(RuleEntry, ARuleOfASetWithoutReachableMemberIsNotSent) {
    s.start();
    have(s, {.acl = 1501, .ipVer = 1, .ecmp = 1}, {"10.0.0.1"});
    s.bind(7, "a");
    s.read(events::up("10.0.0.1"));
    s.tick();
    s.read(events::down("10.0.0.1"));
    ruleComes(s, entryOf(IPV4, 0, {}, 1), "");
}

PUBLISHED(RuleEntry, ARuleOfANodeThatForwardsNormallyIsOnlyTold) {
    s.start();
    have(s, {.acl = 1501, .outIf = 12, .forwardFlag = 2}, {});
    s.bind(7, "a");
    const Entry entry = {.outIf = 12, .forwardFlag = 2, .isEmpty = true};
    ruleComes(s, entry, "");
    ruleGoes(s, entry, "");
}

PUBLISHED(RuleEntry, RulesOfUnboundListsAreToldAndTheirAclForgotten) {
    s.start();
    have(s, {.acl = 1501, .outIf = 12}, {});
    s.read(events::ruleAdded(1501, 5));
    s.saidOfRead({});
    s.read(events::ruleRemoved(1501, 5));
    s.saidOfRead({event("pbr rcv del acl rule msg,listNum=1501,ruleNum=5."), event("pbr list a refCnt is 0.ignore")});
    s.read(events::aclRemoved(1501));
    s.saidOfRead({});
    EXPECT_EQ(0u, s.getNumber(12, nodeKey("a", 10), 4).number);
}

} // namespace
} // namespace published
