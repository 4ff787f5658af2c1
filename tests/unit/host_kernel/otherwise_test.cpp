// Nodes that drop while nothing of them is usable: compilation, objects, and packets in both families.
#include "packet_world.h"

#include "host/device/kernel/kernel_model.h"

namespace kernel_test {
namespace {

using namespace host;

// ---- compilation ----

class OtherwiseCompileTest : public ::testing::Test {
protected:
    void SetUp() override {
        world_.fakeLinks = {{1, {1, "lan0", true}}, {3, {3, "up1", true}}, {5, {5, "down0", false}}};
        world_.route("192.0.2.1", "up1");
        world_.acl(1501, {"permit ip from any"});
        world_.acl(1502, {"permit ip from any"});
        world_.drops.insert({"wan", 10});
    }
    ProgramList program() { return programCompile("wan", world_.view.lists["wan"], world_.env()); }
    std::string action(uint32_t node = 10) {
        KernelModel model{KernelOptions{}};
        model.listSet("wan", program());
        for (const NftChange &change : model.changes({})) {
            if (change.kind == NftChange::Kind::RuleAdd && change.name == "do4/wan/" + std::to_string(node)) {
                return nftRuleText(change.rule);
            }
        }
        return "none";
    }
    World world_;
};

TEST_F(OtherwiseCompileTest, ANodeWithNothingUsableDropsAndOthersRouteAsUsual) {
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_INERT, 0, 1);
    world_.kind("wan", "lan0", 20, 1502, PBR_REDIRECT_INERT, 0, 1);
    EXPECT_EQ(action(10), "counter drop # nothing usable");
    EXPECT_EQ(action(20), "counter accept");
}

TEST_F(OtherwiseCompileTest, EachWayOfHavingNothingUsableDrops) {
    world_.nextHops("wan", "lan0", 10, 1501, {"203.0.113.1"});
    EXPECT_EQ(action(), "counter drop # nothing usable") << "no route";
    world_.route("203.0.113.1", "down0");
    EXPECT_EQ(action(), "counter drop # nothing usable") << "its interface is down";
    world_.outIf("wan", "lan0", 10, 1501, "down0");
    EXPECT_EQ(action(), "counter drop # nothing usable") << "the out-interface is down";
    world_.view.lists["wan"].at({1, 10}).outIfUnit = 99;
    EXPECT_EQ(action(), "counter drop # nothing usable") << "the out-interface does not exist";
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 12);
    EXPECT_EQ(action(), "counter drop # nothing usable") << "refused for its priority";
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    EXPECT_NE(action(), "counter drop # nothing usable") << "usable";
}

TEST_F(OtherwiseCompileTest, ANodeThatIsLeftOutOrOnlySetsAPriorityDropsNothing) {
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_ABSENT, 0, 1);
    EXPECT_EQ(action(), "none");
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_PRIORITY_ONLY, 5, 1);
    EXPECT_EQ(action().find("drop"), std::string::npos) << action();
}

TEST_F(OtherwiseCompileTest, NodesThatEndDifferentlyShareNoDecision) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"});
    KernelModel model{KernelOptions{}};
    model.listSet("wan", program());
    const uint32_t dropping = model.decisionOf({"wan", 10, 4, 0}), normal = model.decisionOf({"wan", 20, 4, 0});
    ASSERT_NE(dropping, normal);
    const auto last = [&](uint32_t id) {
        return model.decisions().objectsOf({4, id}).routes.at({4, KernelOptions{}.tableBase + id, RT_LAST_METRIC});
    };
    EXPECT_EQ(last(dropping), RT_BLACKHOLE);
    EXPECT_EQ(last(normal), RT_THROW);
}

// ---- packets ----

class OtherwisePacketTest : public PacketTest {
protected:
    void SetUp() override {
        PacketTest::SetUp();
        world_.drops.insert({"wan", 10});
    }
    // Where a packet to this port goes: 1, 2, 0 nowhere.
    int way(uint16_t port) {
        Udp client(lan_, lanAddress(), 0), first(isp1_, server(), port), second(isp2_, server(), port);
        client.send(server(), port);
        pollfd none = {};
        for (int i = 0; i < 30; i++) {
            if (first.receive(1, milliseconds(0)) == 1) {
                return 1;
            }
            if (second.receive(1, milliseconds(0)) == 1) {
                return 2;
            }
            (void)poll(&none, 0, 10);
        }
        return 0;
    }
    void inert() { world_.kind("wan", "lan0", 10, acl(1), PBR_REDIRECT_INERT, 0, v6() ? 2 : 1); }
};

TEST_P(OtherwisePacketTest, WhatMatchesANodeWithNothingUsableGoesNowhere) {
    inert();
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    device();
    store();
    EXPECT_EQ(way(5000), 0);
    EXPECT_EQ(way(6000), 2) << "denied by the node, taken by the next one";
    EXPECT_EQ(way(7000), 1) << "matched by no node";
    EXPECT_TRUE(device().show()["entries"][0]["dropping"]);
    world_.nextHops("wan", "lan0", 10, acl(1), {hop2()});
    store();
    EXPECT_EQ(way(5000), 2);
    EXPECT_FALSE(device().show()["entries"][0]["dropping"]);
    world_.kind("wan", "lan0", 10, acl(1), PBR_REDIRECT_ABSENT, 0, v6() ? 2 : 1);
    store();
    EXPECT_EQ(way(5500), 2) << "left out: the next node is asked";
}

TEST_P(OtherwisePacketTest, TheOptionActsOnABoundListAtOnceAndBothWays) {
    inert();
    world_.drops.clear();
    device();
    store();
    EXPECT_EQ(way(5000), 1);
    world_.drops.insert({"wan", 10});
    device().listsChanged({"wan", "unknown"});
    EXPECT_EQ(way(5000), 0);
    world_.drops.clear();
    device().listsChanged({"wan"});
    EXPECT_EQ(way(5000), 1);
}

TEST_P(OtherwisePacketTest, ALinkThatGoesDownLeavesNoWayBesideTheNodesWithOrWithoutADaemon) {
    world_.nextHops("wan", "lan0", 10, acl(1), {hop2()});
    device();
    store();
    quiet();
    EXPECT_EQ(way(5000), 2);
    device_.reset();                // the daemon is down, its objects stay
    EXPECT_EQ(way(5000), 2);
    run("ip link set up2 down");    // the kernel takes the route away without a word
    EXPECT_EQ(way(5000), 0);
    EXPECT_EQ(way(7000), 1);
    restart();
    EXPECT_EQ(way(5000), 0) << "held as it was found";
    inert();
    store();
    (void)device().settle();
    quiet();
    world_.loop.advance(std::chrono::seconds(6));
    EXPECT_FALSE(device().isHeld());
    EXPECT_EQ(way(5000), 0);
}

TEST_P(OtherwisePacketTest, ARestartFindsItsDecisionsAgainAndChangesNothing) {
    world_.nextHops("wan", "lan0", 10, acl(1), {hop2()});
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    device();
    store();
    quiet();
    const std::string before = nft() + run("ip rule; ip -6 rule; ip nexthop");
    restart();
    store();
    (void)device().settle();
    world_.loop.advance(std::chrono::seconds(6));
    EXPECT_FALSE(device().isHeld());
    EXPECT_EQ(device().counters().applies, 0u);
    EXPECT_EQ(device().counters().driftRepaired, 0u);
    const std::string table = run(std::string("ip ") + (v6() ? "-6 " : "") + "route show table 1000001");
    EXPECT_NE(table.find("blackhole default"), std::string::npos) << table;
    EXPECT_EQ(run("ip rule; ip -6 rule; ip nexthop"), before.substr(before.size() - run("ip rule; ip -6 rule; ip nexthop").size()));
}

TEST_P(OtherwisePacketTest, AnOutInterfaceThatIsDownDrops) {
    world_.outIf("wan", "lan0", 10, acl(1), "up2");
    run("ip link set up2 down");
    device();
    store();
    EXPECT_EQ(way(5000), 0);
    EXPECT_EQ(way(7000), 1);
}

INSTANTIATE_TEST_SUITE_P(Families, OtherwisePacketTest, ::testing::Values(4, 6),
                         [](const auto &given) { return "Ipv" + std::to_string(given.param); });

} // namespace
} // namespace kernel_test
