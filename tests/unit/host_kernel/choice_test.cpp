// Nodes that choose alike share a decision: what their change costs, what the table holds behind the chosen way, and that
// each node's packets go where its own entry says, whatever the others do.
#include "world.h"

#include <poll.h>
#include <random>

namespace kernel_test {
namespace {

using namespace host;
using std::chrono::milliseconds;

constexpr uint64_t CHOICE = 77;
constexpr uint32_t CHOOSING = 40;

class ChoiceTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        uplinks(far_, {"lan0", "up1", "up2"});
        run("ip address add 10.0.0.254/24 dev lan0");
        for (const char *pHop : {"192.0.2.1", "192.0.2.2"}) {
            world_.route(pHop, "up1");
        }
        world_.route("198.51.100.1", "up2");
        for (uint32_t node = 1; node <= CHOOSING; node++) {
            world_.acl(1000 + node, {"permit udp from any to any port " + std::to_string(node)});
        }
    }

    // hops empty: nothing is usable.
    void node(uint32_t index, const std::vector<std::string> &hops, const std::string &standby = "", uint64_t choice = CHOICE) {
        if (hops.empty()) {
            world_.kind("wan", "lan0", index, 1000 + index, PBR_REDIRECT_INERT, 0, 1);
        } else {
            world_.nextHops("wan", "lan0", index, 1000 + index, hops);
        }
        RedirectEntry &entry = world_.view.lists["wan"][{unitOf("lan0"), index}];
        entry.choice = choice;
        entry.standby = standby.empty() ? std::nullopt : std::optional(address(standby));
    }
    void nodes(const std::vector<std::string> &hops, const std::string &standby = "") {
        for (uint32_t index = 1; index <= CHOOSING; index++) {
            node(index, hops, standby);
        }
    }

    uint64_t messagesOfStore() {
        const uint64_t before = device().counters().kernelMessages;
        store();
        return device().counters().kernelMessages - before;
    }

    std::string table(uint32_t id = 1) { return run("ip route show table " + std::to_string(1000000 + id)); }
    bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
    std::string wayOf(uint32_t id) { return run("ip route get 203.0.113.9 from 10.0.0.1 iif lan0 mark " + std::to_string(id << 20)); }

    nlohmann::json used() {
        nlohmann::json found = nlohmann::json::array();
        const nlohmann::json shown = device().show();
        for (const auto &decision : shown["decisions"]) {
            if (decision["users"] != 0) {
                found.push_back(decision);
            }
        }
        return found;
    }

    // The kernel notices a carrier on a thread of its own.
    void up(const std::string &name) {
        run("ip link set " + name + " up");
        const auto isUp = [&] { return has(run("ip link show dev " + name), "LOWER_UP"); };
        for (int i = 0; i < 500 && !isUp(); i++) {
            (void)poll(nullptr, 0, 1);
        }
        ASSERT_TRUE(isUp());
    }

    Net far_;
};

TEST_F(ChoiceTest, WhatAllOfThemChooseNowIsOneRouteWhateverTheirNumber) {
    nodes({"192.0.2.1"});
    device();
    store();
    quiet();
    const std::string table4 = nft();
    nodes({"198.51.100.1"});
    EXPECT_LE(messagesOfStore(), 2u) << "a next hop and the route";
    EXPECT_TRUE(has(wayOf(1), "via 198.51.100.1 dev up2")) << table();
    quiet();
    nodes({"192.0.2.1", "198.51.100.1"});
    EXPECT_LE(messagesOfStore(), 3u) << "a next hop, the group and the route";
    quiet();
    nodes({});
    EXPECT_EQ(messagesOfStore(), 1u) << "the route goes";
    EXPECT_EQ(table(), "throw default proto 206 metric 4294967295 \n");
    quiet();
    nodes({"192.0.2.1"});
    EXPECT_LE(messagesOfStore(), 2u);
    quiet();
    EXPECT_EQ(nft(), table4);
    EXPECT_EQ(used().size(), 1u);
    EXPECT_EQ(used()[0]["users"], CHOOSING);
    EXPECT_EQ(device().counters().driftRepaired, 0u);
}

TEST_F(ChoiceTest, ANodeThatIsAddedBeforeItsNextHopIsKnownDisturbsNobody) {
    nodes({"192.0.2.1"});
    device();
    world_.unbind("wan", "lan0");
    for (uint32_t index = 2; index <= CHOOSING; index++) {
        node(index, {"192.0.2.1"});
    }
    store();
    quiet();
    node(1, {});
    (void)messagesOfStore();
    EXPECT_TRUE(has(wayOf(1), "via 192.0.2.1 ")) << table();
    EXPECT_EQ(used()[0]["users"], CHOOSING - 1);
    node(1, {"192.0.2.1"});
    EXPECT_EQ(messagesOfStore(), 2u) << "its action, emptied and filled";
    EXPECT_EQ(used()[0]["users"], CHOOSING);
}

TEST_F(ChoiceTest, AStandbyIsTheNextRouteOfTheTableAndTakesOverWithTheLink) {
    nodes({"192.0.2.1"}, "198.51.100.1");
    device();
    store();
    quiet();
    EXPECT_TRUE(has(table(), "via 192.0.2.1 dev up1 proto 206 metric 1")) << table();
    EXPECT_TRUE(has(table(), "via 198.51.100.1 dev up2 proto 206 metric 2")) << table();
    EXPECT_EQ(used()[0]["standby"][0]["gateway"], "198.51.100.1");
    run("ip link set up1 down");
    EXPECT_TRUE(has(wayOf(1), "via 198.51.100.1 dev up2")) << "nobody has told the device yet";
    world_.loop.advance(milliseconds(10)); // the device sees it in the kernel before the daemon does
    EXPECT_TRUE(has(wayOf(1), "via 198.51.100.1 dev up2")) << table();
    EXPECT_EQ(device().counters().driftRepaired, 0u);
    nodes({"198.51.100.1"});
    EXPECT_LE(messagesOfStore(), 2u) << "the standby becomes the chosen way";
    quiet();
    EXPECT_FALSE(has(table(), "metric 2 ")) << table();
    EXPECT_TRUE(has(table(), "via 198.51.100.1 dev up2 proto 206 metric 1")) << table();
    up("up1");
    nodes({"192.0.2.1"}, "198.51.100.1");
    store();
    quiet();
    EXPECT_TRUE(has(wayOf(1), "via 192.0.2.1 dev up1")) << table();
}

TEST_F(ChoiceTest, WhatIsNoStandbyAnyMoreLeavesTheTableAtOnce) {
    nodes({"192.0.2.1"}, "198.51.100.1");
    device();
    store();
    nodes({"192.0.2.1"});
    EXPECT_EQ(messagesOfStore(), 1u);
    EXPECT_FALSE(has(table(), "metric 2 ")) << table();
}

TEST_F(ChoiceTest, AStandbyThatTheKernelDoesNotTakeIsLeftOut) {
    run("ip link set up2 down");
    world_.fakeLinks = {{unitOf("lan0"), world_.env().link(unitOf("lan0")).value()},
                        {unitOf("up1"), world_.env().link(unitOf("up1")).value()}, {unitOf("up2"), {}}};
    IfnetLink stale = world_.fakeLinks[unitOf("up1")]; // what the device believes of a link that just went down
    stale.unit = unitOf("up2");
    stale.name = "up2";
    world_.fakeLinks[unitOf("up2")] = stale;
    nodes({"192.0.2.1"}, "198.51.100.1");
    device();
    store();
    EXPECT_TRUE(has(wayOf(1), "via 192.0.2.1 dev up1")) << table();
    EXPECT_FALSE(has(table(), "metric 2 ")) << table();
    EXPECT_EQ(used()[0]["error"], "");
    EXPECT_TRUE(used()[0]["installed"].get<bool>());
    up("up2");
    device().worldChanged();
    EXPECT_TRUE(has(table(), "via 198.51.100.1 dev up2 proto 206 metric 2")) << table();
}

TEST_F(ChoiceTest, BehindTheStandbyOfANodeThatDropsTheBlackholeIsLast) {
    for (uint32_t index = 1; index <= CHOOSING; index++) {
        world_.drops.insert({"wan", index});
    }
    nodes({"192.0.2.1"}, "198.51.100.1");
    device();
    store();
    EXPECT_TRUE(has(table(), "metric 2 ")) << table();
    EXPECT_TRUE(has(table(), "blackhole default")) << table();
    run("ip link set up1 down");
    EXPECT_TRUE(has(wayOf(1), "via 198.51.100.1 dev up2"));
    run("ip link set up2 down");
    EXPECT_FALSE(router_->succeeds("ip route get 203.0.113.9 from 10.0.0.1 iif lan0 mark 0x100000"));
    nodes({});
    store();
    EXPECT_EQ(table(), "blackhole default proto 206 metric 4294967295 \n");
    EXPECT_TRUE(device().show()["entries"][0]["dropping"].get<bool>());
}

TEST_F(ChoiceTest, WhoStartsAgainFindsDecisionsOfEqualPathsAsTheyWere) {
    for (uint32_t index = 1; index <= CHOOSING; index++) {
        node(index, {"192.0.2.1"}, index % 2 == 0 ? "198.51.100.1" : "192.0.2.2", 70 + index % 4);
    }
    device();
    store();
    quiet();
    ASSERT_EQ(used().size(), 4u);
    const std::string rules = nft();
    restart();
    const auto state = world_.view;
    nodes({}); // nothing is known at first
    device();
    store();
    world_.view = state;
    world_.mark("wan");
    store();
    world_.loop.advance(std::chrono::seconds(20));
    quiet();
    EXPECT_EQ(nft(), rules);
    EXPECT_EQ(device().counters().kernelMessages, 0u);
}

// The same entries with and without choices: every node's packets go the same way.
TEST_F(ChoiceTest, SharingChangesNobodysWay) {
    std::mt19937 random(6);
    const std::vector<std::vector<std::string>> outcomes = {
        {}, {"192.0.2.1"}, {"192.0.2.2"}, {"198.51.100.1"}, {"192.0.2.1", "198.51.100.1"}};
    KernelModel shared{KernelOptions{}}, alone{KernelOptions{}};
    std::map<uint64_t, size_t> chosen;
    for (int round = 0; round < 400; round++) {
        for (uint32_t index = 1; index <= 12; index++) {
            const uint64_t choice = 1 + index % 3;
            if (random() % 3 == 0) {
                chosen[choice] = random() % outcomes.size();
            }
            // Most follow what their choice has chosen; some are late, or gone.
            if (random() % 4 != 0) {
                node(index, outcomes[chosen[choice]], random() % 2 == 0 ? "192.0.2.2" : "", choice);
            }
            world_.drops.clear();
            world_.drops.insert({"wan", 1 + random() % 12});
        }
        ProgramList program = programCompile("wan", world_.view.lists["wan"], world_.env());
        shared.listSet("wan", program);
        for (auto &[key, each] : program.nodes) {
            each.decision.choice = 0;
            each.decision.standby.clear();
        }
        alone.listSet("wan", program);
        for (const auto &[key, each] : program.nodes) {
            const auto pathsOf = [&key = key](const KernelModel &model) {
                const Decision *pDecision = model.decisions().get({key.family, model.decisionOf(key)});
                return pDecision == nullptr ? std::vector<ProgramPath>{} : pDecision->paths;
            };
            ASSERT_EQ(pathsOf(shared), pathsOf(alone)) << "round " << round << " node " << key.nodeIndex;
            ASSERT_EQ(pathsOf(shared), each.decision.paths);
            ASSERT_EQ(shared.isDropped(key), alone.isDropped(key)) << "round " << round << " node " << key.nodeIndex;
        }
        uint32_t users = 0;
        for (const auto &[key, decision] : shared.decisions().all()) {
            users += decision.users;
            for (const auto &[other, same] : shared.decisions().all()) {
                ASSERT_FALSE(key < other && decision.choice != 0 && std::pair(decision.choice, decision.drop) == std::pair(same.choice, same.drop));
            }
        }
        ASSERT_LE(users, 12u);
        if (random() % 5 == 0) {
            shared.decisions().drop();
            alone.decisions().drop();
        }
    }
}

} // namespace
} // namespace kernel_test
