// Lists that are looked up in maps: what a change costs, what stays, what is repaired, what is taken over from an
// earlier run, and which lists are compared one by one. That maps answer as the rules do: explain_test.cpp.
#include "packet_world.h"

#include <algorithm>
#include <sstream>

#include <nlohmann/json.hpp>

namespace kernel_test {
namespace {

using namespace host;
using Json = nlohmann::json;

constexpr uint32_t NODES = 40;

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

class FlatTest : public SteeringTest {
protected:
    void SetUp() override {
        SteeringTest::SetUp();
        for (uint32_t node = 1; node <= NODES; node++) {
            world_.acl(1600 + node, {ruleOf(node)});
        }
    }

    static std::string ruleOf(uint32_t node) { return "permit udp from any to any port " + std::to_string(5000 + node); }

    void nodes(const std::string &list = "wan", const std::string &ifName = "lan0") {
        for (uint32_t node = 1; node <= NODES; node++) {
            world_.nextHops(list, ifName, node, 1600 + node, {"198.51.100.1"});
        }
    }

    void send(uint16_t port, int count, int uplink = 2) {
        Packet packet;
        packet.source = "10.1.0.2";
        packet.destination = "203.0.113.7";
        packet.payload = portsPayload(1000, port);
        for (int i = 0; i < count; i++) {
            EXPECT_EQ(uplinkOf(packet), uplink) << port << "\n" << nft();
        }
    }

    // Packets of the only rule of a node, and of the node.
    std::pair<uint64_t, uint64_t> counted(uint32_t node) {
        const Json counters = device().policyCounters()["counters"];
        for (const Json &row : counters) {
            if (row["node"] == node) {
                return {row["rules"][0]["packets"], row["packets"]};
            }
        }
        return {};
    }
    using Both = std::pair<uint64_t, uint64_t>;

    uint64_t messagesOf(const std::function<void()> &change) {
        const uint64_t before = device().counters().kernelMessages;
        change();
        store();
        return device().counters().kernelMessages - before;
    }

    // The table whatever the order of elements: its words, sorted.
    std::vector<std::string> words() {
        std::vector<std::string> found;
        std::istringstream text(router_->succeeds("nft list table inet policyroute") ? nft() : "");
        for (std::string word; text >> word;) {
            found.push_back(word.back() == ',' ? word.substr(0, word.size() - 1) : word);
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    void settled() {
        store();
        quiet();
        EXPECT_EQ(device().counters().driftRepaired, 0u);
    }
};

TEST_F(FlatTest, AnInterfaceGoesToOneLookUpForAllItsNodes) {
    nodes();
    device();
    settled();
    const std::string interface = run("nft list chain inet policyroute in4/lan0");
    EXPECT_TRUE(has(interface, "goto flat4/wan")) << interface;
    EXPECT_FALSE(has(interface, "jump")) << interface;
    EXPECT_TRUE(has(run("nft list chain inet policyroute flat4/wan"), "udp dport vmap @map4/wan/0/hash.dport")) << nft();
    EXPECT_FALSE(has(nft(), "match4/wan"));
    send(5001, 1);
    send(5040, 1);
    send(5041, 1, 1);
}

TEST_F(FlatTest, TellsWhatAListCostsAndWhichRulesNoMapHolds) {
    nodes();
    world_.acl(1700, {"permit tcp from any to any flags syn"});
    world_.nextHops("wan", "lan0", 900, 1700, {"198.51.100.1"});
    world_.nextHops("few", "up1", 10, 1501, {"192.0.2.1"});
    device();
    settled();
    const Json lists = device().show()["lists"];
    ASSERT_EQ(lists.size(), 2u) << lists.dump(1);
    EXPECT_EQ(lists[0]["list"], "few");
    EXPECT_EQ(lists[0]["flat"], false);
    EXPECT_EQ(lists[0]["mostRules"], 2);
    EXPECT_EQ(lists[1]["flat"], true);
    EXPECT_EQ(lists[1]["mostLookUps"], 1);
    EXPECT_EQ(lists[1]["mostRules"], 1);
    EXPECT_EQ(lists[1]["steps"][0]["fields"], Json::array({"dport"}));
    EXPECT_EQ(lists[1]["steps"][0]["rules"], NODES);
    EXPECT_EQ(lists[1]["steps"][1]["reason"], "too few rules of its form stand together");
    EXPECT_EQ(lists[1]["steps"][1]["first"], Json::array({{{"node", 900}, {"rule", 10}}}));
}

TEST_F(FlatTest, ANodeThatChangesItsNextHopIsOneRule) {
    nodes();
    device();
    settled();
    world_.nextHops("wan", "lan0", 1, 1601, {"192.0.2.1"});
    store();
    EXPECT_EQ(messagesOf([&] { world_.nextHops("wan", "lan0", 2, 1602, {"192.0.2.1"}); }), 2u) << "its action, emptied and filled";
    send(5002, 1, 1);
    settled();
}

TEST_F(FlatTest, ANodeMoreIsItsChainsAndOneElement) {
    nodes();
    device();
    settled();
    world_.acl(1700, {"permit udp from any to any port 5900"});
    EXPECT_EQ(messagesOf([&] { world_.nextHops("wan", "lan0", 900, 1700, {"198.51.100.1"}); }), 5u) << nft();
    send(5900, 1);
    EXPECT_EQ(messagesOf([&] {
        world_.view.lists["wan"].erase({unitOf("lan0"), 900});
        world_.mark("wan");
    }), 5u);
    send(5900, 1, 1);
    settled();
}

TEST_F(FlatTest, CountsStayWhenARuleMovesIntoAMapAndOutOfIt) {
    world_.options.mapFrom = NODES;
    nodes();
    device();
    settled();
    EXPECT_TRUE(has(nft(), "map4/wan"));
    send(5001, 3);
    world_.view.lists["wan"].erase({unitOf("lan0"), 40});
    world_.mark("wan");
    settled();
    EXPECT_FALSE(has(nft(), "map4/wan")) << "too few now";
    EXPECT_EQ(counted(1), (Both{3, 3}));
    send(5001, 1);
    nodes();
    settled();
    EXPECT_TRUE(has(nft(), "map4/wan"));
    EXPECT_EQ(counted(1), (Both{4, 4}));
    EXPECT_EQ(counted(40), (Both{0, 0}));
    send(5001, 1);
    EXPECT_EQ(counted(1), (Both{5, 5}));
}

TEST_F(FlatTest, CountsStayWhenARuleBecomesADenial) {
    nodes();
    device();
    settled();
    send(5001, 3);
    world_.acl(1601, {"deny udp from any to any port 5001"});
    device().aclChanged(1601);
    send(5001, 1, 1);
    EXPECT_EQ(counted(1), (Both{4, 3}));
    settled();
}

TEST_F(FlatTest, CountsBeginAtZeroWhenTheyAreCleared) {
    nodes();
    device();
    settled();
    send(5001, 3);
    EXPECT_EQ(device().policyCountersClear(), "");
    EXPECT_EQ(counted(1), (Both{0, 0}));
    send(5001, 1);
    EXPECT_EQ(counted(1), (Both{1, 1}));
    EXPECT_EQ(device().show()["entries"][0]["packets"], 1);
}

TEST_F(FlatTest, WhatOthersChangeInMapsIsRepaired) {
    for (uint32_t node = 1; node <= 10; node++) { // ranges that touch, and one that lies on others
        world_.acl(1700 + node, {"permit tcp from 10." + std::to_string(node) + ".0.0/16"});
        world_.acl(1720 + node, {"permit udp from 10." + std::to_string(node) + ".0.0/16 to any port 5000-" + std::to_string(5000 + node)});
        world_.nextHops("lab", "up1", node, 1700 + node, {"198.51.100.1"});
        world_.nextHops("lab", "up1", 100 + node, 1720 + node, {"198.51.100.1"});
    }
    nodes();
    device();
    settled();
    ASSERT_TRUE(has(nft(), "/range.saddr") && has(nft(), "/ranges.saddr.dport")) << nft();
    const std::vector<std::string> whole = words();
    uint64_t repaired = 0;
    for (const char *pDamage :
         {"nft delete element inet policyroute map4/wan/0/hash.dport '{ 5003 }'",
          "nft add element inet policyroute map4/wan/0/hash.dport '{ 99 : goto do4/wan/1 }'",
          "nft 'delete element inet policyroute map4/wan/0/hash.dport { 5003 }; add element inet policyroute map4/wan/0/hash.dport { 5003 : goto do4/wan/1 }'",
          "nft 'delete element inet policyroute map4/wan/0/hash.dport { 5003 }; add element inet policyroute map4/wan/0/hash.dport { 5003 : jump rule4/wan/3/10 }'",
          "nft flush map inet policyroute map4/wan/0/hash.dport",
          "nft delete element inet policyroute map4/lab/0/range.saddr '{ 10.3.0.0/16 }'",
          "nft add element inet policyroute map4/lab/0/range.saddr '{ 9.0.0.0/8 : goto do4/wan/1 }'",
          "nft delete element inet policyroute map4/lab/0/ranges.saddr.dport '{ 10.3.0.0/16 . 5000-5003 }'",
          "nft flush chain inet policyroute flat4/wan", "nft flush chain inet policyroute rule4/wan/3/10",
          "nft 'flush chain inet policyroute flat4/wan; delete map inet policyroute map4/wan/0/hash.dport'",
          "nft 'add map inet policyroute map4/wan/7/hash.sport { type inet_service : verdict; }'", "nft delete table inet policyroute"}) {
        run(pDamage);
        EXPECT_NE(words(), whole) << pDamage;
        world_.loop.advance(milliseconds(10));
        EXPECT_EQ(words(), whole) << pDamage;
        EXPECT_GT(device().counters().driftRepaired, repaired) << pDamage;
        repaired = device().counters().driftRepaired;
    }
}

TEST_F(FlatTest, ARestartWithTheSamePolicyChangesNothing) {
    nodes();
    device();
    settled();
    send(5001, 2);
    const std::string whole = nft();
    restart();
    world_.mark("wan");
    store();
    (void)device().settle();
    quiet();
    EXPECT_EQ(device().counters().kernelMessages, 0u);
    EXPECT_EQ(nft(), whole);
    EXPECT_EQ(counted(1), (Both{2, 2}));
}

TEST_F(FlatTest, APolicyOfALinearRunIsTakenOverWithItsCounts) {
    world_.options.mapFrom = 0;
    nodes();
    device();
    settled();
    send(5001, 2);
    world_.options.mapFrom = 8;
    restart();
    world_.mark("wan");
    store();
    (void)device().settle();
    quiet();
    EXPECT_TRUE(has(nft(), "map4/wan"));
    EXPECT_FALSE(has(nft(), "match4/wan"));
    EXPECT_EQ(counted(1), (Both{2, 2}));
    send(5001, 1);
    EXPECT_EQ(counted(1), (Both{3, 3}));
    EXPECT_TRUE(device().counters().driftRepaired <= 1);
}

TEST_F(FlatTest, InterfacesOfOneListShareItsMaps) {
    nodes();
    nodes("wan", "up1");
    device();
    settled();
    EXPECT_TRUE(has(run("nft list chain inet policyroute in4/up1"), "goto flat4/wan"));
    EXPECT_TRUE(has(run("nft list chain inet policyroute in4/lan0"), "goto flat4/wan"));
    world_.unbind("wan", "up1");
    settled();
    EXPECT_FALSE(has(nft(), "in4/up1"));
    send(5001, 1);
}

TEST_F(FlatTest, InterfacesThatAskDifferentNodesAreComparedOneByOne) {
    nodes();
    nodes("wan", "up1");
    world_.view.lists["wan"].erase({unitOf("up1"), 7});
    device();
    settled();
    EXPECT_FALSE(has(nft(), "map4/wan"));
    send(5007, 1);
}

TEST_F(FlatTest, AListBesideAnotherOneOnItsInterfaceIsComparedOneByOne) {
    nodes();
    device();
    settled();
    world_.nextHops("other", "lan0", 20, 1501, {"192.0.2.1"});
    settled();
    EXPECT_FALSE(has(nft(), "map4/wan"));
    EXPECT_TRUE(has(run("nft list chain inet policyroute in4/lan0"), "jump match4/other/20"));
    send(5001, 1);
    world_.unbind("other", "lan0");
    settled();
    EXPECT_TRUE(has(nft(), "map4/wan"));
    send(5001, 1);
}

TEST_F(FlatTest, NothingIsLeftWhenTheListIsUnbound) {
    nodes();
    device();
    settled();
    world_.unbind("wan", "lan0");
    settled();
    EXPECT_EQ(run("nft list ruleset"), "");
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    nodes("other", "up1");
    settled();
    world_.unbind("other", "up1");
    settled();
    EXPECT_FALSE(has(nft(), "other")) << nft();
}

TEST_F(FlatTest, RulesThatTouchAndOverlapChangeOneByOne) {
    device();
    for (uint32_t round = 0; round < 60; round++) { // each change as a transaction on what is there
        std::vector<std::string> rules, more;
        for (uint32_t i = 0; i < 12; i++) {
            const uint32_t first = 5000 + (round * 7 + i * i * 5) % 64, size = (round + i * 3) % 9;
            rules.push_back("permit udp from any to any port " + std::to_string(first) + "-" + std::to_string(first + size));
            more.push_back("permit tcp from 10.1." + std::to_string(first % 8 * 16) + (i % 4 == 0 ? ".0/20" : ".0/22") + " to any port " +
                           std::to_string(first) + "-" + std::to_string(first + size));
        }
        world_.acl(1700, rules);
        world_.acl(1701, more);
        world_.nextHops("wan", "lan0", 10, 1700, {"198.51.100.1"});
        world_.nextHops("wan", "lan0", 20, 1701, {"198.51.100.1"});
        device().aclChanged(1700);
        device().aclChanged(1701);
        store();
        quiet();
        ASSERT_EQ(device().counters().driftRepaired, 0u) << round;
        ASSERT_EQ(device().counters().refusals, 0u) << round;
        ASSERT_TRUE(has(nft(), "/range.dport") && has(nft(), "/ranges.saddr.dport")) << nft();
    }
}

// What the kernel refuses of a map is compared one by one: here an element whose place somebody else took while
// we were not told.
TEST_F(FlatTest, AMapThatTheKernelRefusesIsComparedOneByOne) {
    KernelModel model{KernelOptions{}};
    ProgramEnv env = world_.env();
    nodes();
    model.listSet("wan", programCompile("wan", world_.view.lists["wan"], env));
    NftImage held;
    nftImageChange(held, model.changes(held));
    model.clean();
    ASSERT_TRUE(model.isFlat("wan", 4));
    ASSERT_TRUE(model.refuse("flat4/wan", "no"));
    EXPECT_FALSE(model.isFlat("wan", 4));
    nftImageChange(held, model.changes(held));
    model.clean();
    EXPECT_EQ(held, model.image());
    EXPECT_EQ(held.chains.count("match4/wan/40"), 1u);
    EXPECT_EQ(held.chains.count("flat4/wan"), 0u);
    EXPECT_EQ(held.sets.size(), 3u);
    EXPECT_TRUE(model.status("wan", {unitOf("lan0"), 1}).installed);
}

} // namespace
} // namespace kernel_test
