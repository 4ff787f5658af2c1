// Real packets through a router in namespaces, counted at the far ends.
#include "packet_world.h"

#include <atomic>
#include <thread>

namespace kernel_test {
namespace {

using namespace host;

TEST_P(PacketTest, MatchingTrafficTakesThePolicysNextHopAndOtherTrafficTheRoutingTables) {
    EXPECT_EQ(uplinkOf(5000), 1);
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 2);
    EXPECT_EQ(uplinkOf(6999), 2);
    EXPECT_EQ(uplinkOf(4999), 1);
    EXPECT_EQ(uplinkOf(7000), 1);
    EXPECT_EQ(uplinkOf(6000), 1) << "denied";
    world_.unbind("wan", "lan0");
    store();
    EXPECT_EQ(uplinkOf(5000), 1);
}

TEST_P(PacketTest, ADeniedPacketIsAskedOfTheNextNode) {
    world_.nextHops("wan", "lan0", 10, acl(1), {hop1()});
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 1);
    EXPECT_EQ(uplinkOf(6000), 2);
}

TEST_P(PacketTest, ANodeWithNothingUsableRoutesAsUsualAndNoLaterNodeIsAsked) {
    world_.kind("wan", "lan0", 10, acl(1), PBR_REDIRECT_INERT, 0, v6() ? 2 : 1);
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 1);
    world_.kind("wan", "lan0", 10, acl(1), PBR_REDIRECT_ABSENT, 0, v6() ? 2 : 1);
    store();
    EXPECT_EQ(uplinkOf(5000), 2) << "an absent node is not asked";
}

TEST_P(PacketTest, TrafficThatIsForTheRouterItselfStaysThere) {
    world_.acl(5001, {"permit ip from any"});
    world_.nextHops("wan", "lan0", 10, 5001, {hop2()});
    device();
    store();
    Udp client(lan_, lanAddress(), 0), own(*router_, routerAddress(), 5000);
    client.send(routerAddress(), 5000);
    EXPECT_EQ(own.receive(), 1);
    EXPECT_EQ(uplinkOf(5000), 2);
}

TEST_P(PacketTest, ASetSpreadsAndFollowsItsMembers) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop1(), hop2()});
    router_->sysctl("ipv4/fib_multipath_hash_policy", "1");
    router_->sysctl("ipv6/fib_multipath_hash_policy", "1");
    device();
    store();
    const auto spread = [&] {
        Udp first(isp1_, server(), 5000), second(isp2_, server(), 5000);
        for (int i = 0; i < 64; i++) {
            Udp client(lan_, lanAddress(), 0);
            client.send(server(), 5000);
        }
        const int firstCount = first.receive(64, milliseconds(150));
        return std::pair{firstCount, second.receive(64, milliseconds(150))};
    };
    const auto [first, second] = spread();
    EXPECT_EQ(first + second, 64);
    EXPECT_GT(first, 8);
    EXPECT_GT(second, 8);
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    store();
    EXPECT_EQ(spread(), (std::pair{0, 64}));
    world_.kind("wan", "lan0", 10, acl(), PBR_REDIRECT_INERT, 0, v6() ? 2 : 1);
    store();
    EXPECT_EQ(spread(), (std::pair{64, 0}));
}

TEST_P(PacketTest, AnOutInterfaceSendsOutOfIt) {
    // The server is a neighbour there, as on a point-to-point link.
    isp2_.sysctl("ipv4/conf/up2-far/proxy_arp", "1");
    run("ip neigh replace " + server() + " lladdr " +
        isp2_.run("cat /sys/class/net/up2-far/address 2>/dev/null || ip -br link show up2-far | awk '{print $3}'")
            .substr(0, 17) + " dev up2 nud permanent");
    world_.outIf("wan", "lan0", 10, acl(), "up2");
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 2) << run("ip neigh");
    EXPECT_EQ(uplinkOf(7000), 1);
}

TEST_P(PacketTest, APriorityIsSetInItsThreeBitsAndTheRestIsKept) {
    world_.kind("wan", "lan0", 10, acl(), PBR_REDIRECT_PRIORITY_ONLY, 5, v6() ? 2 : 1);
    device();
    store();
    EXPECT_EQ(uplinkOf(5000, 0x4c), 1);
    EXPECT_EQ(tos_, 0xac) << "precedence 2 became 5, the low five bits stayed";
    EXPECT_EQ(uplinkOf(7000, 0x4c), 1);
    EXPECT_EQ(tos_, 0x4c);
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()}, 7);
    store();
    EXPECT_EQ(uplinkOf(5000, 0x1c), 2);
    EXPECT_EQ(tos_, 0xfc);
}

TEST_P(PacketTest, OthersMarkBitsAreKept) {
    run("nft add table inet mine");
    run("nft add chain inet mine before '{ type filter hook prerouting priority -200; }'");
    run("nft add rule inet mine before meta mark set 0x5");
    run("nft add chain inet mine after '{ type filter hook forward priority 0; }'");
    run("nft add rule inet mine after meta mark 0x00100005 counter comment ours-and-theirs");
    run("nft add rule inet mine after meta mark 0x00000005 counter comment theirs");
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 2);
    EXPECT_EQ(uplinkOf(7000), 1);
    const std::string counted = run("nft list table inet mine");
    EXPECT_NE(counted.find("meta mark 0x00100005 counter packets 1"), std::string::npos) << counted;
    EXPECT_NE(counted.find("meta mark 0x00000005 counter packets 1"), std::string::npos) << counted;
}

TEST_P(PacketTest, PacketsThatCarryAMarkInOurFieldAreLeftAlone) {
    run("nft add table inet mine");
    run("nft add chain inet mine before '{ type filter hook prerouting priority -200; }'");
    run("nft add rule inet mine before meta mark set 0x12300000");
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 1);
}

TEST_P(PacketTest, PacketsAreCountedByNode) {
    world_.nextHops("wan", "lan0", 10, acl(1), {hop1()});
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 1);
    EXPECT_EQ(uplinkOf(5001), 1);
    EXPECT_EQ(uplinkOf(6000), 2);
    const nlohmann::json shown = device().show();
    EXPECT_EQ(shown["entries"][0]["packets"], 2);
    EXPECT_EQ(shown["entries"][1]["packets"], 1);
}

TEST_P(PacketTest, WhenTheChosenLinkGoesDownTheLookUpFallsThroughAtOnce) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    EXPECT_EQ(uplinkOf(5000), 2);
    run("ip link set up2 down");
    EXPECT_EQ(uplinkOf(5000), 1) << "by the kernel alone, before the device knows";
    run("ip link set up2 up");
    if (v6()) {
        run("ip address add fd03::fe/64 dev up2 nodad || true"); // lost with the link
    }
    world_.loop.advance(milliseconds(10));
    EXPECT_EQ(uplinkOf(5000), 2);
}

TEST_P(PacketTest, AllFragmentsFollowARuleWithoutPorts) {
    world_.acl(5001, {"permit udp from any to " + server() + (v6() ? "/128" : "/32")});
    world_.nextHops("wan", "lan0", 10, 5001, {hop2()});
    device();
    store();
    Udp client(lan_, lanAddress(), 0), second(isp2_, server(), 5000);
    client.send(server(), 5000, 6000);
    EXPECT_EQ(second.receive(), 1);
}

TEST_P(PacketTest, LaterFragmentsDoNotMatchARuleWithPorts) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    Udp client(lan_, lanAddress(), 0);
    client.send(server(), 5000, 6000);
    client.send(server(), 5000, 8); // behind the fragments on their way
    Udp second(isp2_, server(), 5000);
    client.send(server(), 5000, 8);
    EXPECT_EQ(second.receive(), 1);
    EXPECT_EQ(device().show()["entries"][0]["packets"], 3) << "the first fragment and the two whole packets";
}

// The process ends and another starts with the same policy: every packet takes the policy's uplink.
TEST_P(PacketTest, AnAdoptedPolicyLosesNoPacket) {
    world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
    device();
    store();
    quiet();
    Udp client(lan_, lanAddress(), 0), second(isp2_, server(), 5000), warm(isp2_, server(), 5001);
    client.send(server(), 5001);
    ASSERT_EQ(warm.receive(), 1);
    std::atomic<bool> isOver{false};
    std::atomic<int> sent{0};
    std::thread sender([&] {
        while (!isOver) {
            client.send(server(), 5000);
            sent++;
            (void)poll(nullptr, 0, 1); // a packet each millisecond
        }
    });
    for (int round = 0; round < 10 || (sent < 300 && round < 5000); round++) {
        world_.undetermined = true;
        world_.kind("wan", "lan0", 10, acl(), PBR_REDIRECT_INERT, 0, v6() ? 2 : 1); // no peer is known yet
        restart();
        store();
        EXPECT_EQ(device().settle(), "");
        world_.loop.advance(milliseconds(300));
        EXPECT_TRUE(device().isHeld());
        world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
        store();
        world_.undetermined = false;
        world_.loop.advance(milliseconds(1000));
        EXPECT_FALSE(device().isHeld());
    }
    isOver = true;
    sender.join();
    EXPECT_GE(sent, 300);
    EXPECT_EQ(second.receive(1000000, milliseconds(300)), sent);
}

INSTANTIATE_TEST_SUITE_P(Families, PacketTest, ::testing::Values(4, 6),
                         [](const auto &family) { return "Ipv" + std::to_string(family.param); });

} // namespace
} // namespace kernel_test
