// What the policy counted: packets and bytes of nodes and rules, and through which changes they last.
#include "packet_world.h"

#include <nlohmann/json.hpp>

namespace kernel_test {
namespace {

using namespace host;
using Json = nlohmann::json;

class CountersTest : public PacketTest {
protected:
    void send(uint16_t port, int count) {
        for (int i = 0; i < count; i++) {
            (void)uplinkOf(port);
        }
    }
    // The counters of the only node.
    Json counters() {
        const Json all = device().policyCounters()["counters"];
        EXPECT_EQ(all.size(), 1u) << all.dump();
        return all.empty() ? Json::object() : all[0];
    }
    // Packets: of the node, then of its rules.
    std::vector<uint64_t> packets() {
        const Json node = counters();
        std::vector<uint64_t> counts = {node["packets"].get<uint64_t>()};
        for (const Json &rule : node["rules"]) {
            counts.push_back(rule["packets"].get<uint64_t>());
        }
        return counts;
    }
    using Counts = std::vector<uint64_t>;
};

TEST_P(CountersTest, TellPacketsAndBytesOfANodeAndOfEachRule) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    send(5000, 3);
    send(6000, 2); // denied by the first rule
    send(4000, 1); // matched by none
    EXPECT_EQ(packets(), (Counts{3, 2, 3}));
    const Json node = counters();
    const uint64_t size = 8 + 8 + (v6() ? 40 : 20);
    EXPECT_EQ(node["bytes"], 3 * size);
    EXPECT_EQ(node["rules"][0]["bytes"], 2 * size);
    EXPECT_EQ(node["rules"][0]["rule"], 10);
    EXPECT_EQ(node["rules"][1]["rule"], 20);
    EXPECT_EQ(node["list"], "wan");
    EXPECT_EQ(node["node"], 10);
    EXPECT_EQ(node["ipVersion"], GetParam());
}

TEST_P(CountersTest, AreKeptWhenTheNodeDecidesOtherwise) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    send(5000, 3);
    world_.nextHops("wan", "lan0", 10, acl(), {hop1()});
    store();
    EXPECT_EQ(packets(), (Counts{3, 0, 3}));
    world_.kind("wan", "lan0", 10, acl(), PBR_REDIRECT_INERT, 0, v6() ? 2 : 1);
    store();
    send(5000, 2);
    EXPECT_EQ(packets(), (Counts{5, 0, 5}));
}

TEST_P(CountersTest, StayWithTheNumberOfTheirRuleWhenTheAclChanges) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    send(5000, 3);
    send(6000, 1);
    world_.acl(acl(), {"permit udp from any to any port 1", "permit udp from any to any port 5000-5100",
                       "permit udp from any to any port 6000"});
    device().aclChanged(acl());
    EXPECT_EQ(packets(), (Counts{3, 1, 3, 0}));
    send(6000, 2);
    EXPECT_EQ(packets(), (Counts{5, 1, 3, 2}));
    world_.acl(acl(), {"permit udp from any to any port 1"});
    device().aclChanged(acl());
    EXPECT_EQ(packets(), (Counts{5, 1}));
}

TEST_P(CountersTest, AreKeptWhenManyNodesAreRewrittenAtOnce) {
    for (uint32_t node = 20; node < 40; node++) {
        world_.nextHops("wan", "lan0", node, acl(), {hop2()});
    }
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    send(5000, 4);
    for (uint32_t node = 20; node < 40; node++) {
        world_.nextHops("wan", "lan0", node, acl(), {hop1()});
    }
    world_.nextHops("wan", "lan0", 10, acl(), {hop1()});
    store();
    const Json all = device().policyCounters()["counters"];
    ASSERT_EQ(all.size(), 21u);
    EXPECT_EQ(all[0]["node"], 10);
    EXPECT_EQ(all[0]["packets"], 4);
    EXPECT_EQ(all[1]["packets"], 0);
}

TEST_P(CountersTest, AreKeptOverARestart) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    send(5000, 3);
    restart();
    world_.mark("wan");
    store();
    (void)device().settle();
    quiet();
    EXPECT_EQ(packets(), (Counts{3, 0, 3}));
    send(5000, 1);
    EXPECT_EQ(packets(), (Counts{4, 0, 4}));
}

TEST_P(CountersTest, BeginAtZeroWhenTheyAreClearedAndNoPacketGoesAstray) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    send(5000, 3);
    EXPECT_EQ(device().policyCountersClear(), "");
    EXPECT_EQ(packets(), (Counts{0, 0, 0}));
    EXPECT_EQ(uplinkOf(5000), 2);
    EXPECT_EQ(packets(), (Counts{1, 0, 1}));
    quiet();
    EXPECT_EQ(device().show()["counters"]["driftRepaired"], 0);
}

TEST_P(CountersTest, AreGoneWithTheNode) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    send(5000, 2);
    world_.unbind("wan", "lan0");
    store();
    EXPECT_EQ(device().policyCounters()["counters"], Json::array());
    EXPECT_EQ(device().policyCountersClear(), "");
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    store();
    EXPECT_EQ(packets(), (Counts{0, 0, 0}));
}

INSTANTIATE_TEST_SUITE_P(Families, CountersTest, ::testing::Values(4, 6),
                         [](const auto &family) { return "Ipv" + std::to_string(family.param); });

} // namespace
} // namespace kernel_test
