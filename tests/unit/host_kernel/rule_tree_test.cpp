// The rules that lead packets over those of other decisions: every mark finds what it would find without them,
// whichever of them are there, and is compared with few.
#include "world.h"

#include <algorithm>
#include <random>

#include "host/device/kernel/rule_tree.h"

namespace kernel_test {
namespace {

using namespace host;

constexpr uint32_t FIELD = 0xfff00000, SHIFT = 20;
using Foreign = std::set<std::pair<uint8_t, uint32_t>>;

RtRule lookUp(uint32_t id, const KernelOptions &options = {}) {
    return {4, options.rulePreference + id - 1, id << kernelMarkShift(options), options.markMask, options.tableBase + id, 0,
            RT_RULE_LOOKUP};
}

std::set<RtRule> lookUps(const std::set<uint32_t> &ids) {
    std::set<RtRule> rules;
    for (const uint32_t id : ids) {
        rules.insert(lookUp(id));
    }
    return rules;
}

std::set<uint32_t> upTo(uint32_t count) {
    std::set<uint32_t> ids;
    for (uint32_t id = 1; id <= count; id++) {
        ids.insert(id);
    }
    return ids;
}

std::vector<RtRule> treeOf(const std::set<RtRule> &rules, const Foreign &foreign = {}) {
    return ruleTree(KernelOptions{}, 4, rules, foreign);
}

// Marks worth asking for: of ids and their neighbours, with other bits, and none.
std::vector<uint32_t> marksFor(const std::set<uint32_t> &ids) {
    std::vector<uint32_t> marks = {0, 7, 0x000fffff, 0xfff00000};
    for (const uint32_t id : ids) {
        for (const uint32_t near : {id, id - 1, id + 1}) {
            marks.push_back(near << SHIFT);
            marks.push_back((near << SHIFT) | 0x1234);
        }
    }
    return marks;
}

void expectAsWithout(const std::set<RtRule> &plain, const std::vector<RtRule> &tree, uint32_t mark, const std::string &what) {
    ASSERT_EQ(ruleWalk(rulesInOrder(4, plain, tree), mark).tables, ruleWalk(rulesInOrder(4, plain, {}), mark).tables)
        << what << ", mark " << std::hex << mark;
}

TEST(RuleTree, AFewDecisionsAreAskedOneAfterTheOther) {
    EXPECT_TRUE(treeOf(lookUps(upTo(RULE_TREE_FROM - 1))).empty());
    EXPECT_FALSE(treeOf(lookUps(upTo(RULE_TREE_FROM))).empty());
}

TEST(RuleTree, EveryMarkFindsItsTableWhicheverGotosThereAre) {
    std::mt19937 random(20);
    for (int round = 0; round < 300; round++) {
        std::set<uint32_t> ids;
        const uint32_t most = round % 3 == 0 ? 4095 : 12 + random() % 60;
        for (uint32_t count = RULE_TREE_FROM + random() % 40; count > 0; count--) {
            ids.insert(1 + random() % most);
        }
        const std::set<RtRule> plain = lookUps(ids);
        std::vector<RtRule> tree = treeOf(plain);
        if (round % 2 != 0) {
            std::erase_if(tree, [&](const RtRule &) { return random() % 2 == 0; });
            std::shuffle(tree.begin(), tree.end(), random);
        }
        for (const uint32_t mark : marksFor(ids)) {
            expectAsWithout(plain, tree, mark, "round " + std::to_string(round));
        }
    }
}

TEST(RuleTree, TheGotosOfBeforeKeepNobodyFromHisTableWhileTheNewAreMade) {
    std::mt19937 random(21);
    for (int round = 0; round < 300; round++) {
        std::set<uint32_t> before;
        for (int count = 0; count < 30; count++) {
            before.insert(1 + random() % 80);
        }
        std::set<uint32_t> after = before;
        after.insert(1 + random() % 80);
        after.erase(1 + random() % 80);
        // The rules of both, with the gotos of either or both: what packets meet between any two messages.
        std::set<RtRule> all = lookUps(before);
        all.merge(lookUps(after));
        std::vector<RtRule> gotos = treeOf(lookUps(before)), later = treeOf(all);
        gotos.insert(gotos.end(), later.begin(), later.end());
        std::erase_if(gotos, [&](const RtRule &) { return random() % 4 == 0; });
        const std::vector<RtRule> rules = rulesInOrder(4, all, gotos), plain = rulesInOrder(4, all, {});
        for (const uint32_t mark : marksFor(before)) {
            if (before.count(mark >> SHIFT) != 0 || mark == 0) {
                ASSERT_EQ(ruleWalk(rules, mark).tables, ruleWalk(plain, mark).tables) << round << ", mark " << std::hex << mark;
            }
        }
    }
}

TEST(RuleTree, APacketIsComparedWithTwoRulesABitAtMost) {
    for (const uint32_t count : {16u, 64u, 256u, 1024u}) {
        const std::set<RtRule> plain = lookUps(upTo(count));
        const std::vector<RtRule> rules = rulesInOrder(4, plain, treeOf(plain));
        EXPECT_LE(ruleWalk(rules, 0).rules, 3u) << count << " decisions, no mark";
        size_t bits = 0;
        for (uint32_t rest = count; rest != 0; rest >>= 1) {
            bits++;
        }
        for (uint32_t id = 1; id <= count; id++) {
            // Behind its own rule a packet asks only when its table throws it.
            std::vector<RtRule> upToOwn = rules;
            upToOwn.erase(std::next(std::find(upToOwn.begin(), upToOwn.end(), lookUp(id))), upToOwn.end());
            EXPECT_LE(ruleWalk(upToOwn, id << SHIFT).rules, 2 * bits + 2) << id << " of " << count;
        }
    }
}

TEST(RuleTree, NoGotoLeadsPastARuleOfOthers) {
    std::mt19937 random(22);
    for (int round = 0; round < 200; round++) {
        std::set<uint32_t> ids = upTo(20 + random() % 40);
        ids.erase(1 + random() % 10);
        const uint32_t place = 14990 + random() % 80;
        const RtRule other{4, place, 0, 0, 77, 0, RT_RULE_LOOKUP};
        const RtRule marked{4, place, 5u << SHIFT, FIELD, 78, 0, RT_RULE_LOOKUP};
        std::set<RtRule> plain = lookUps(ids);
        const std::vector<RtRule> tree = treeOf(plain, {{4, place}, {6, 15004}});
        plain.insert(other);
        plain.insert(marked);
        for (const uint32_t mark : marksFor(ids)) {
            expectAsWithout(plain, tree, mark, "rule at " + std::to_string(place));
        }
    }
}

TEST(RuleTree, NoGotoLeadsPastWhatARunWithOtherOptionsLeft) {
    std::set<RtRule> plain = lookUps(upTo(20));
    plain.insert({4, 15006, 3u << 28, 0xf0000000, 1000003, 0, RT_RULE_LOOKUP}); // another mask
    plain.insert({4, 15011, 2u << SHIFT, FIELD, 1000002, 0, RT_RULE_LOOKUP});   // another first preference
    for (const uint32_t mark : marksFor(upTo(20))) {
        expectAsWithout(plain, treeOf(plain), mark, "");
    }
}

TEST(RuleTree, TheEndStandsBeforeTheNextRuleOfOthers) {
    const auto endOf = [](const std::vector<RtRule> &tree) { return tree.empty() ? 0 : tree.front().preference; };
    EXPECT_EQ(endOf(treeOf(lookUps(upTo(20)))), 15031u) << "the place of id 32";
    EXPECT_EQ(endOf(treeOf(lookUps(upTo(20)), {{4, 15031}})), 15031u) << "the same place is behind all of ours";
    EXPECT_EQ(endOf(treeOf(lookUps(upTo(20)), {{4, 15030}})), 15020u) << "the place of id 21";
}

TEST(RuleTree, AtTheEndOfAllPreferencesOnlyTheMarksAreLed) {
    KernelOptions options;
    options.rulePreference = 32746; // twenty preferences before the main table's
    std::set<RtRule> plain;
    for (const uint32_t id : upTo(kernelMarkLimit(options))) {
        plain.insert(lookUp(id, options));
    }
    ASSERT_EQ(plain.size(), 20u);
    const std::vector<RtRule> tree = ruleTree(options, 4, plain, {{4, 32766}, {4, 32767}});
    EXPECT_EQ(tree.size(), 19u);
    for (const RtRule &rule : tree) {
        EXPECT_LT(std::max(rule.preference, rule.target), 32766u);
        EXPECT_NE(rule.mark, 0u);
    }
}

// ---- on a real kernel ----

class RuleTreeKernel : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        cable("lan0", far_, {"10.0.0.254/24"}, {});
        cable("up1", far_, {"192.0.2.254/24", "2001:db8::fe/64"}, {});
        run("ip route add default via 192.0.2.250 dev up1");
        run("sysctl -qw net.ipv4.ip_forward=1");
        for (uint32_t node = 1; node <= 60; node++) {
            world_.acl(1000 + node, {"permit udp from any to any port " + std::to_string(node)});
            world_.route(hop(node), "up1");
        }
    }

    static std::string hop(uint32_t node) { return "192.0.2." + std::to_string(node); }

    void nodes(uint32_t from, uint32_t to) {
        for (uint32_t node = from; node <= to; node++) {
            world_.nextHops("wan", "lan0", node, 1000 + node, {hop(node)});
        }
    }

    std::string wayOf(uint32_t mark) {
        return run("ip route get 203.0.113.9 from 10.0.0.1 iif lan0 mark " + std::to_string(mark));
    }

    void expectWays() {
        const nlohmann::json decisions = device().show()["decisions"];
        for (const nlohmann::json &decision : decisions) {
            const std::string way = wayOf(decision["mark"].get<uint32_t>() | 0x77);
            EXPECT_NE(way.find("via " + decision["paths"][0]["gateway"].get<std::string>() + " "), std::string::npos)
                << decision << way;
        }
        EXPECT_NE(wayOf(0).find("via 192.0.2.250"), std::string::npos);
        EXPECT_NE(wayOf(0xfff00000).find("via 192.0.2.250"), std::string::npos) << "a mark of nobody";
    }

    size_t gotos() {
        const std::string rules = run("ip rule");
        size_t count = 0;
        for (size_t at = rules.find("goto"); at != std::string::npos; at = rules.find("goto", at + 1)) {
            count++;
        }
        return count;
    }

    Net far_;
};

TEST_F(RuleTreeKernel, EveryDecisionIsReachedWhileTheyComeAndGo) {
    device();
    for (const uint32_t count : {5u, 20u, 60u}) {
        nodes(1, count);
        store();
        EXPECT_EQ(gotos(), count < RULE_TREE_FROM ? 0 : count) << count << " decisions";
        expectWays();
        quiet();
        expectWays();
    }
    EXPECT_EQ(run("ip rule").find("unresolved"), std::string::npos) << run("ip rule");
    for (uint32_t node = 1; node <= 60; node += 2) {
        world_.kind("wan", "lan0", node, 1000 + node, PBR_REDIRECT_INERT);
    }
    store();
    expectWays();
    quiet();
    expectWays();
    EXPECT_EQ(gotos(), 30u);
    nodes(11, 15);
    store();
    expectWays();
    quiet();
    for (uint32_t node = 1; node <= 58; node++) {
        world_.kind("wan", "lan0", node, 1000 + node, PBR_REDIRECT_INERT);
    }
    store();
    quiet();
    expectWays();
    EXPECT_EQ(gotos(), 0u);
    EXPECT_EQ(device().counters().driftRepaired, 0u);
}

TEST_F(RuleTreeKernel, WhoStartsAgainFindsThemAsHeWouldMakeThem) {
    nodes(1, 30);
    device();
    store();
    quiet();
    const std::string rules = run("ip rule");
    restart();
    device();
    store();
    world_.loop.advance(std::chrono::seconds(20));
    quiet();
    EXPECT_EQ(run("ip rule"), rules);
    EXPECT_EQ(device().counters().kernelMessages, 0u);
}

TEST_F(RuleTreeKernel, RulesInARowOfAnEarlierRunGetTheirGotosWithoutBeingMadeAgain) {
    nodes(1, 30);
    device();
    store();
    quiet();
    device_.reset();
    for (const nlohmann::json &rule : json("ip -j rule")) {
        const std::string place = std::to_string(rule["priority"].get<uint32_t>());
        if (rule.contains("goto")) {
            run("ip rule del pref " + place + " goto " + std::to_string(rule["goto"].get<uint32_t>()));
        } else if (rule.contains("nop")) {
            run("ip rule del pref " + place + " nop");
        }
    }
    ASSERT_EQ(gotos(), 0u);
    const uint64_t lookUps = 30;
    ASSERT_EQ(ourRules().size(), lookUps) << run("ip rule");
    device();
    store();
    world_.loop.advance(std::chrono::seconds(20));
    quiet();
    expectWays();
    EXPECT_EQ(gotos(), 30u) << run("ip rule");
    EXPECT_EQ(device().counters().kernelMessages, 31u) << "the gotos and their end";
}

TEST_F(RuleTreeKernel, ARuleOfAnotherProgramAmongThemIsStillAsked) {
    nodes(1, 30);
    device();
    store();
    quiet();
    run("ip route add default via 192.0.2.251 dev up1 table 77");
    run("ip rule add pref 15012 fwmark 0x00300000/0xfff00000 table 77");
    run("ip rule add pref 15012 to 203.0.113.9 fwmark 0/0xfff00000 table 77");
    world_.loop.advance(std::chrono::milliseconds(10));
    EXPECT_NE(wayOf(0).find("via 192.0.2.251"), std::string::npos) << run("ip rule");
    EXPECT_NE(wayOf(0x00300000).find("via 192.0.2.3 "), std::string::npos);
    EXPECT_NE(wayOf(0x01e00000).find("via 192.0.2.30 "), std::string::npos);
    run("ip rule del pref 15012 fwmark 0x00300000/0xfff00000 table 77");
    run("ip rule del pref 15012 to 203.0.113.9 table 77");
    world_.loop.advance(std::chrono::milliseconds(10));
    expectWays();
    EXPECT_EQ(gotos(), 30u);
    EXPECT_EQ(device().counters().driftRepaired, 0u);
}

TEST_F(RuleTreeKernel, WhatSomebodyRemovesIsPutBack) {
    nodes(1, 30);
    device();
    store();
    quiet();
    const std::string rules = run("ip rule | sort");
    for (const char *pDamage : {"ip rule flush protocol 206", "ip rule del pref 15031", "ip rule del pref 15000 goto 15031"}) {
        run(pDamage);
        EXPECT_NE(run("ip rule | sort"), rules) << pDamage;
        world_.loop.advance(std::chrono::milliseconds(10));
        EXPECT_EQ(run("ip rule | sort"), rules) << pDamage;
        expectWays();
    }
    EXPECT_EQ(device().counters().driftRepaired, 3u);
}

TEST_F(RuleTreeKernel, TheCostOfAnInterfaceTellsTheRulesOnAPacketsWay) {
    nodes(1, 12);
    device();
    store();
    quiet();
    const auto routingRules = [&] { return device().costs(unitOf("lan0"))["costs"][0]["routingRules"]; };
    EXPECT_EQ(routingRules(), (nlohmann::json{{"decisions", 12}, {"unsteered", 12}, {"steered", 12}}));
    nodes(1, 60);
    store();
    quiet();
    const nlohmann::json told = routingRules();
    EXPECT_EQ(told["decisions"], 60);
    EXPECT_EQ(told["unsteered"], 3);
    EXPECT_LE(told["steered"].get<size_t>(), 14u);
    EXPECT_GE(told["steered"].get<size_t>(), 6u);
    EXPECT_TRUE(device().costs(unitOf("up1"))["costs"].empty());
    EXPECT_EQ(device().costs(std::nullopt)["costs"].size(), 1u);
}

TEST_F(RuleTreeKernel, FlushRemovesThemToo) {
    nodes(1, 30);
    device();
    store();
    EXPECT_EQ(device().flush(), "");
    EXPECT_EQ(run("ip rule | wc -l"), "3\n");
}

} // namespace
} // namespace kernel_test
