// The compilation without a kernel: programs, rules, decisions, and the steps between two states.
#include "world.h"

#include "host/device/kernel/kernel_model.h"

namespace kernel_test {
namespace {

using namespace host;

class CompileTest : public ::testing::Test {
protected:
    void SetUp() override {
        world_.fakeLinks = {{1, {1, "lan0", true}}, {2, {2, "lan1", true}}, {3, {3, "up1", true}},
                            {4, {4, "up2", true}}, {5, {5, "down0", false}}};
        world_.route("192.0.2.1", "up1");
        world_.route("192.0.2.2", "up1");
        world_.route("198.51.100.1", "up2");
        world_.route("203.0.113.9", "up2", "198.51.100.1");
        world_.route("2001:db8::1", "up1");
        world_.acl(1501, {"permit tcp from 10.1.0.0/16 to any port 443", "deny ip from 10.1.9.0/25"});
        world_.acl(1502, {"permit ip from any"});
        world_.acl(3001, {"permit icmp from 2001:db8:1::/48 to any"});
        world_.acl(5001, {"permit ip from any", "permit udp from 10.0.0.0/8 port 1000-2000", "permit tcp from fd00::/8"});
    }

    ProgramList program(const std::string &list = "wan") {
        return programCompile(list, world_.view.lists[list], world_.env());
    }

    void set(const std::string &list = "wan") { model_.listSet(list, program(list)); }

    // The steps to the wanted state, carried out.
    std::vector<std::string> steps() {
        std::vector<std::string> texts;
        const std::vector<NftChange> changes = model_.changes(held_);
        for (const NftChange &change : changes) {
            texts.push_back(nftChangeText(change));
        }
        nftImageChange(held_, changes);
        model_.clean();
        return texts;
    }

    std::vector<std::string> matchTexts(const NodeKey &key) {
        std::vector<std::string> texts;
        for (const NftRule &rule : kernelMatchRules(key, program().nodes.at(key))) {
            texts.push_back(nftRuleText(rule));
        }
        return texts;
    }

    World world_;
    KernelModel model_{KernelOptions{}};
    NftImage held_;
};

TEST_F(CompileTest, OneNextHopIsOnePathWithTheAddressAsGateway) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 5);
    const ProgramNode node = program().nodes.at({"wan", 10, 4, 0});
    EXPECT_EQ(node.decision.precedence, 5);
    ASSERT_EQ(node.decision.paths.size(), 1u);
    EXPECT_EQ(node.decision.paths[0], (ProgramPath{3, true, address("192.0.2.1"), 1}));
}

TEST_F(CompileTest, ANextHopBehindARouterIsReachedThroughTheRouter) {
    world_.nextHops("wan", "lan0", 10, 1501, {"203.0.113.9"});
    EXPECT_EQ(program().nodes.at({"wan", 10, 4, 0}).decision.paths[0],
              (ProgramPath{4, true, address("198.51.100.1"), 1}));
}

TEST_F(CompileTest, NextHopsThatShareAPathAreOneMemberOfTheirWeight) {
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1", "192.0.2.1", "203.0.113.9"});
    const std::vector<ProgramPath> paths = program().nodes.at({"wan", 10, 4, 0}).decision.paths;
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(paths[0].weight, 1u);
    EXPECT_EQ(paths[1], (ProgramPath{4, true, address("198.51.100.1"), 2}));
}

TEST_F(CompileTest, TheOrderOfNextHopsMakesNoOtherDecision) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1", "198.51.100.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1", "192.0.2.1"});
    const ProgramList made = program();
    EXPECT_EQ(made.nodes.at({"wan", 10, 4, 0}).decision, made.nodes.at({"wan", 20, 4, 0}).decision);
}

TEST_F(CompileTest, ANextHopWithoutRouteIsLeftOutWithAReason) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1", "192.0.2.77"});
    const ProgramList made = program();
    EXPECT_EQ(made.nodes.at({"wan", 10, 4, 0}).decision.paths.size(), 1u);
    EXPECT_EQ(made.entries.at({1, 10}).reason, "no route to next hop 192.0.2.77");
    EXPECT_EQ(made.entries.at({1, 10}).error, "");
}

TEST_F(CompileTest, WithoutAnyRouteTheTrafficIsRoutedAsUsualAndTheNodeStillMatches) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.77"}, 3);
    const ProgramList made = program();
    EXPECT_TRUE(made.nodes.at({"wan", 10, 4, 0}).decision.paths.empty());
    EXPECT_EQ(made.nodes.at({"wan", 10, 4, 0}).decision.precedence, 3);
    EXPECT_TRUE(made.entries.at({1, 10}).present);
}

TEST_F(CompileTest, AnAbsentEntryIsNotAsked) {
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_ABSENT);
    const ProgramList made = program();
    EXPECT_TRUE(made.nodes.empty());
    EXPECT_FALSE(made.entries.at({1, 10}).present);
    EXPECT_EQ(made.entries.at({1, 10}).error, "");
}

TEST_F(CompileTest, AnInertEntryMatchesAndSetsItsPriority) {
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_INERT, 6, 1);
    const ProgramList made = program();
    EXPECT_EQ(made.nodes.at({"wan", 10, 4, 0}).decision, (ProgramDecision{6, {}, false, {}, 0}));
    EXPECT_EQ(made.entries.at({1, 10}).reason, "no usable next hop");
}

TEST_F(CompileTest, PrioritiesBeyondThreeBitsAreRefusedAndNothingOfTheEntryIsApplied) {
    for (const uint8_t priority : {8, 10, 15}) {
        world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, priority);
        const ProgramList made = program();
        EXPECT_EQ(made.entries.at({1, 10}).error, "priority " + std::to_string(priority) +
                  " cannot be set: IP precedence has three bits (1 to 7)");
        EXPECT_EQ(made.nodes.at({"wan", 10, 4, 0}).decision, ProgramDecision{});
    }
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 7);
    EXPECT_EQ(program().entries.at({1, 10}).error, "");
}

TEST_F(CompileTest, AnOutInterfaceThatDoesNotExistIsRefused) {
    world_.outIf("wan", "lan0", 10, 1501, "up1");
    world_.view.lists["wan"][{1, 10}].outIfUnit = 77;
    EXPECT_EQ(program().entries.at({1, 10}).error, "out-interface 77 does not exist");
    EXPECT_TRUE(program().nodes.at({"wan", 10, 4, 0}).decision.paths.empty());
}

TEST_F(CompileTest, AnOutInterfaceThatIsDownIsRoutedAsUsual) {
    world_.outIf("wan", "lan0", 10, 1501, "down0");
    EXPECT_EQ(program().entries.at({1, 10}).error, "");
    EXPECT_EQ(program().entries.at({1, 10}).reason, "out-interface down0 is down");
    EXPECT_TRUE(program().nodes.at({"wan", 10, 4, 0}).decision.paths.empty());
}

TEST_F(CompileTest, AnInterfaceThatDoesNotExistIsRefused) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.view.lists["wan"][{99, 10}] = world_.view.lists["wan"][{1, 10}];
    world_.view.lists["wan"][{99, 10}].ifUnit = 99;
    EXPECT_EQ(program().entries.at({99, 10}).error, "interface 99 does not exist");
    EXPECT_EQ(program().entries.at({1, 10}).error, "");
}

TEST_F(CompileTest, AnAclNumberFixesTheFamily) {
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_PRIORITY_ONLY, 1);
    world_.kind("wan", "lan0", 20, 3001, PBR_REDIRECT_PRIORITY_ONLY, 1);
    world_.kind("wan", "lan0", 30, 5001, PBR_REDIRECT_PRIORITY_ONLY, 1);
    const ProgramList made = program();
    std::vector<NodeKey> keys;
    for (const auto &[key, node] : made.nodes) {
        keys.push_back(key);
    }
    EXPECT_EQ(keys, (std::vector<NodeKey>{{"wan", 10, 4, 0}, {"wan", 20, 6, 0}, {"wan", 30, 4, 0}, {"wan", 30, 6, 0}}));
}

TEST_F(CompileTest, TheNextHopsVersionNarrowsAnAclOfBothFamilies) {
    world_.nextHops("wan", "lan0", 10, 5001, {"2001:db8::1"});
    const ProgramList made = program();
    ASSERT_EQ(made.nodes.size(), 1u);
    EXPECT_EQ(made.nodes.begin()->first.family, 6);
}

TEST_F(CompileTest, AnAclOfTheOtherFamilyIsRefused) {
    world_.nextHops("wan", "lan0", 10, 1501, {"2001:db8::1"});
    EXPECT_EQ(program().entries.at({1, 10}).error, "ACL 1501 matches no packet of the next hops' IP version");
}

TEST_F(CompileTest, AnIpv6ExtensionHeaderAsProtocolIsRefusedAndLeftOut) {
    world_.acl(3001, {"permit 43 from any to any"});
    world_.nextHops("wan", "lan0", 10, 3001, {"2001:db8::1"});
    EXPECT_EQ(program().entries.at({1, 10}).error,
              "ACL 3001 rule 10: protocol 43 is an IPv6 extension header and cannot be matched exactly");
    EXPECT_TRUE(program().nodes.empty());
    world_.acl(1501, {"permit 43 from any to any"});
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    EXPECT_EQ(program().entries.at({1, 10}).error, "");
}

TEST_F(CompileTest, LinksOfANodeShareItsChainAndLinksThatDifferDoNot) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan1", 10, 1501, {"192.0.2.1"});
    EXPECT_EQ(program().nodes.size(), 1u);
    world_.nextHops("wan", "lan1", 10, 1501, {"198.51.100.1"});
    EXPECT_EQ(program().nodes.size(), 2u);
    EXPECT_NE(program().entries.at({1, 10}).variant, program().entries.at({2, 10}).variant);
}

TEST_F(CompileTest, RulesAreWrittenExactly) {
    world_.acl(1501, {"permit tcp from 10.1.0.0/16 to any port 443", "deny ip from 10.1.9.0/25",
                      "permit udp from any port 5-9 to 192.0.2.7/32", "permit icmp from any", "permit ip from any"});
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    EXPECT_EQ(matchTexts({"wan", 10, 4, 0}), (std::vector<std::string>{
        "meta nfproto ==02 nh+12:2 ==0a01 meta l4proto ==06 th+0:3 th+2:2 ==01bb counter goto do4/wan/10 # acl 1501 rule 10",
        "meta nfproto ==02 nh+12:4 &ffffff80^00000000 ==0a010900 counter return # acl 1501 rule 20",
        "meta nfproto ==02 nh+16:4 ==c0000207 meta l4proto ==11 th+0:3 th+0:2 >=0005 <=0009 counter goto do4/wan/10 # acl 1501 rule 30",
        "meta l4proto ==01 counter goto do4/wan/10 # acl 1501 rule 40",
        "counter goto do4/wan/10 # acl 1501 rule 50"}));
}

TEST_F(CompileTest, Ipv6RulesReadTheirOwnHeader) {
    world_.nextHops("wan", "lan0", 10, 3001, {"2001:db8::1"});
    EXPECT_EQ(matchTexts({"wan", 10, 6, 0}), (std::vector<std::string>{
        "meta nfproto ==0a nh+8:6 ==20010db80001 meta l4proto ==3a counter goto do6/wan/10 # acl 3001 rule 10"}));
}

TEST_F(CompileTest, EachFamilyGetsItsOwnRulesOfAnAclOfBoth) {
    world_.kind("wan", "lan0", 10, 5001, PBR_REDIRECT_PRIORITY_ONLY, 1);
    EXPECT_EQ(matchTexts({"wan", 10, 4, 0}).size(), 2u);
    EXPECT_EQ(matchTexts({"wan", 10, 6, 0}).size(), 2u);
    EXPECT_NE(matchTexts({"wan", 10, 6, 0})[1].find("rule 30"), std::string::npos);
}

TEST_F(CompileTest, ActionsSetThePrecedenceAndOurMarkBitsOnly) {
    const KernelOptions options;
    const auto text = [&](int family, uint32_t id, uint8_t precedence) {
        return nftRuleText(kernelActionRules({"wan", 10, static_cast<uint8_t>(family), 0}, id, precedence, options)[0]);
    };
    EXPECT_EQ(text(4, 0, 0), "counter accept");
    EXPECT_EQ(text(4, 0, 5), "counter nh+0:2 &ff1f^00a0 set nh+0:2 checksum+10 accept");
    EXPECT_EQ(text(6, 0, 7), "counter nh+0:2 &f1ff^0e00 set nh+0:2 accept");
    const std::vector<uint8_t> keep = nftWord(0x000fffff), mark = nftWord(0x00300000);
    NftRule rule = kernelActionRules({"wan", 10, 4, 0}, 3, 0, options)[0];
    EXPECT_EQ(rule.exprs[2].data, keep);
    EXPECT_EQ(rule.exprs[2].data2, mark);
    EXPECT_EQ(rule.comment, "table 1000003");
}

TEST_F(CompileTest, NamesOfListsAndInterfacesCannotLeaveTheirPlace) {
    EXPECT_EQ(kernelNameEncode("wan-1_x"), "wan-1_x");
    EXPECT_EQ(kernelNameEncode("a/b. \"\xff"), "a.2fb.2e.20.22.ff");
    EXPECT_EQ(kernelMatchChain({"a/1", 2, 4, 0}), "match4/a.2f1/2");
    EXPECT_EQ(kernelInterfaceKey("lan0").size(), 16u);
}

TEST_F(CompileTest, MarkMasksMustBeOneRunOfBits) {
    EXPECT_EQ(kernelOptionsRefusal({0xfff00000, 15000, 1000000}), "");
    EXPECT_EQ(kernelOptionsRefusal({0x80000000, 15000, 1000000}), "");
    EXPECT_NE(kernelOptionsRefusal({0, 15000, 1000000}), "");
    EXPECT_NE(kernelOptionsRefusal({0xf0f00000, 15000, 1000000}), "");
    EXPECT_NE(kernelOptionsRefusal({0xfff00000, 0, 1000000}), "");
    EXPECT_NE(kernelOptionsRefusal({0xfff00000, 32766, 1000000}), "");
    EXPECT_NE(kernelOptionsRefusal({0xfff00000, 15000, 255}), "");
    EXPECT_EQ(kernelMarkLimit({0xfff00000, 15000, 1000000}), 4095u);
    EXPECT_EQ(kernelMarkLimit({0xfff00000, 32760, 1000000}), 6u);
}

TEST_F(CompileTest, TheFirstBindingMakesTheWholeTableInOneTransaction) {
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    set();
    const std::vector<std::string> made = steps();
    ASSERT_GT(made.size(), 10u);
    EXPECT_EQ(std::vector<std::string>(made.begin(), made.begin() + 8),
              (std::vector<std::string>{"add table", "add set interfaces4", "add set interfaces6", "add set local-types",
                                        "add chain do4/wan/10", "add chain in4/lan0", "add chain match4/wan/10",
                                        "add chain prerouting"}));
    EXPECT_EQ(held_, model_.image());
    EXPECT_TRUE(steps().empty());
}

TEST_F(CompileTest, AChangedDecisionRewritesOneRule) {
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1501, {"192.0.2.1"});
    set();
    (void)steps();
    world_.nextHops("wan", "lan0", 20, 1501, {"198.51.100.1"});
    set();
    const std::vector<std::string> made = steps();
    ASSERT_EQ(made.size(), 2u);
    EXPECT_EQ(made[0], "flush chain do4/wan/20");
    EXPECT_EQ(made[1].rfind("add rule do4/wan/20: counter meta mark", 0), 0u);
    EXPECT_EQ(held_, model_.image());
}

TEST_F(CompileTest, AChangedAclRewritesOnlyTheChainsThatUseIt) {
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    world_.nextHops("other", "lan1", 10, 1501, {"192.0.2.1"});
    set("wan");
    set("other");
    (void)steps();
    world_.acl(1501, {"permit ip from 10.0.0.0/8"});
    set("wan");
    set("other");
    const std::vector<std::string> made = steps();
    ASSERT_EQ(made.size(), 2u);
    EXPECT_EQ(made[0], "flush chain match4/other/10");
}

TEST_F(CompileTest, ASnapshotWithTheSameRulesChangesNothing) {
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    set();
    (void)steps();
    world_.acl(1502, {"permit ip from any"});
    set();
    EXPECT_TRUE(steps().empty());
}

TEST_F(CompileTest, ASecondInterfaceAddsItsChainAndElementOnly) {
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    set();
    (void)steps();
    world_.nextHops("wan", "lan1", 10, 1502, {"192.0.2.1"});
    set();
    const std::vector<std::string> made = steps();
    ASSERT_EQ(made.size(), 4u);
    EXPECT_EQ(made[0], "add chain in4/lan1");
    EXPECT_EQ(made[2], "add rule in4/lan1: jump match4/wan/10");
    EXPECT_EQ(made[3], "add element interfaces4 lan1 -> in4/lan1");
}

TEST_F(CompileTest, TheLastUnbindingRemovesTheTable) {
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    set();
    (void)steps();
    model_.listSet("wan", {});
    EXPECT_EQ(steps(), (std::vector<std::string>{"delete table"}));
    EXPECT_EQ(held_, NftImage{});
    EXPECT_TRUE(model_.lists().empty());
}

TEST_F(CompileTest, AJumpIsRemovedBeforeTheChainItLeadsTo) {
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    world_.nextHops("other", "lan1", 10, 1501, {"192.0.2.1"});
    set("wan");
    set("other");
    (void)steps();
    model_.listSet("other", {});
    const std::vector<std::string> made = steps();
    EXPECT_EQ(std::vector<std::string>(made.end() - 4, made.end()),
              (std::vector<std::string>{"delete element interfaces4 lan1", "delete chain in4/lan1",
                                        "delete chain match4/other/10", "delete chain do4/other/10"}));
    EXPECT_EQ(held_, model_.image());
}

TEST_F(CompileTest, NodesOfAnInterfaceAreAskedInTheirOrder) {
    world_.nextHops("wan", "lan0", 20, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 3, 1502, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 100, 5001, {"192.0.2.1"});
    set();
    std::vector<std::string> jumps;
    for (const std::string &text : steps()) {
        if (text.rfind("add rule in4/lan0: jump", 0) == 0) {
            jumps.push_back(text.substr(24));
        }
    }
    EXPECT_EQ(jumps, (std::vector<std::string>{"match4/wan/3", "match4/wan/20", "match4/wan/100"}));
}

TEST_F(CompileTest, EqualDecisionsShareAMarkAndAFreedOneIsUsedAgain) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"}, 4);
    set();
    EXPECT_EQ(model_.decisionOf({"wan", 10, 4, 0}), 1u);
    EXPECT_EQ(model_.decisionOf({"wan", 20, 4, 0}), 1u);
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    set();
    EXPECT_EQ(model_.decisionOf({"wan", 20, 4, 0}), 2u);
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.2"});
    set();
    EXPECT_EQ(model_.decisionOf({"wan", 10, 4, 0}), 3u) << "the kernel may still hold the first";
    model_.decisions().drop();
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"});
    set();
    EXPECT_EQ(model_.decisionOf({"wan", 20, 4, 0}), 1u);
}

TEST_F(CompileTest, ADecisionBeyondTheMarkFieldIsRefusedAndItsTrafficRoutedAsUsual) {
    KernelModel small{KernelOptions{0x40000000, 15000, 1000000}};
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"}, 4);
    small.listSet("wan", program());
    EXPECT_EQ(small.decisionOf({"wan", 10, 4, 0}), 1u);
    EXPECT_EQ(small.decisionOf({"wan", 20, 4, 0}), 0u);
    EXPECT_EQ(small.status("wan", {1, 10}).error, "");
    EXPECT_NE(small.status("wan", {1, 20}).error.find("no free packet mark"), std::string::npos);
}

TEST_F(CompileTest, IdsThatOthersUseAreNotGivenOut) {
    model_.decisions().takenSet([](uint8_t, uint32_t preference, uint32_t table) {
        return preference == 15000 || table == 1000002;
    });
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    set();
    EXPECT_EQ(model_.decisionOf({"wan", 10, 4, 0}), 3u);
}

TEST_F(CompileTest, ASetIsAGroupOfSharedNextHops) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1", "198.51.100.1"});
    set();
    const RtImage image = model_.decisions().wanted();
    EXPECT_EQ(image.nextHops.size(), 2u);
    ASSERT_EQ(image.groups.size(), 1u);
    EXPECT_EQ(image.groups.begin()->first, GROUP_ID_BASE_IPV4 + 2);
    EXPECT_EQ(image.routes.at({4, 1000001, RT_METRIC}), NEXT_HOP_ID_BASE + 1);
    EXPECT_EQ(image.routes.at({4, 1000002, RT_METRIC}), GROUP_ID_BASE_IPV4 + 2);
    EXPECT_EQ(image.routes.at({4, 1000002, RT_LAST_METRIC}), 0u);
    EXPECT_EQ(image.rules.count({4, 15001, 0x00200000, 0xfff00000, 1000002}), 1u);
}

TEST_F(CompileTest, AdoptedDecisionsKeepTheirIds) {
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1", "198.51.100.1"});
    world_.outIf("wan", "lan0", 30, 5001, "up2");
    set();
    const RtImage left = model_.decisions().wanted();
    KernelModel later{KernelOptions{}};
    later.decisions().adopt(left);
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_INERT);
    later.listSet("wan", program());
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"});
    later.listSet("wan", program());
    EXPECT_EQ(later.decisions().wanted(), left);
}

TEST_F(CompileTest, ARefusedNodeIsLeftOutUntilItsListIsSetAgain) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"});
    set();
    (void)steps();
    const NftImage whole = held_;
    ASSERT_TRUE(model_.refuse("match4/wan/10", "no"));
    EXPECT_EQ(model_.status("wan", {1, 10}).error, "no");
    EXPECT_EQ(model_.status("wan", {1, 20}).error, "");
    (void)steps();
    EXPECT_EQ(held_.chains.count("match4/wan/10"), 0u);
    EXPECT_EQ(held_.chains.at("in4/lan0").size(), whole.chains.at("in4/lan0").size() - 1);
    set();
    (void)steps();
    EXPECT_EQ(held_, whole);
    EXPECT_FALSE(model_.refuse("in4/lan0", "no"));
}

} // namespace
} // namespace kernel_test
