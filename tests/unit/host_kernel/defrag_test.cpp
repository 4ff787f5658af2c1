// Fragments with host.defrag on: first and later fragments take the same way, whatever the rules look at.
#include "packet_world.h"

namespace kernel_test {
namespace {

using namespace host;

class DefragTest : public PacketTest {
protected:
    void SetUp() override {
        PacketTest::SetUp();
        world_.options.defrag = true;
    }

    void policy(const std::vector<std::string> &texts) {
        world_.acl(acl(), texts);
        world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
        device();
        store();
    }

    // One UDP datagram in three fragments.
    std::vector<Packet> datagram(uint16_t port, uint32_t id) const {
        std::vector<Packet> fragments(3);
        for (size_t i = 0; i < fragments.size(); i++) {
            Packet &made = fragments[i];
            made.version = GetParam();
            made.payload = i == 0 ? portsPayload(1, port, 1024) : std::vector<uint8_t>(1024, uint8_t(0x88));
            made.offset = static_cast<uint16_t>(i * 1024);
            made.more = i != 2;
            made.id = id;
        }
        fragments[0].payload[4] = 3072 >> 8; // UDP's length
        fragments[0].payload[5] = 3072 & 0xff;
        return fragments;
    }

    std::string forwardedFragments(const Net &net) const {
        return net.run("nft list table inet counted | grep -o 'counter packets [0-9]*'");
    }
};

TEST_P(DefragTest, EveryFragmentTakesTheWayOfItsPorts) {
    policy({"permit udp to any port 5000"});
    EXPECT_EQ(uplinkOf(datagram(5000, 1)), 2);
    EXPECT_EQ(left_.size(), 3u) << "fragments again, as they came";
    EXPECT_EQ(uplinkOf(datagram(5001, 2)), 1);
    EXPECT_EQ(device().show()["entries"][0]["packets"], 1) << "one packet, not three";
}

TEST_P(DefragTest, FragmentsMayComeInAnyOrder) {
    policy({"permit udp to any port 5000"});
    std::vector<Packet> fragments = datagram(5000, 7);
    std::swap(fragments[0], fragments[2]);
    EXPECT_EQ(uplinkOf(fragments), 2);
    std::swap(fragments[0], fragments[1]);
    for (Packet &fragment : fragments) {
        fragment.id = 8;
    }
    EXPECT_EQ(uplinkOf(fragments), 2);
}

TEST_P(DefragTest, ADeniedDatagramIsDeniedWhole) {
    policy({"deny udp to any port 6000", "permit ip"});
    EXPECT_EQ(uplinkOf(datagram(6000, 1)), 1);
    EXPECT_EQ(uplinkOf(datagram(6001, 2)), 2);
}

TEST_P(DefragTest, DatagramsOfRealSocketsArriveWhole) {
    policy({"permit udp to any port 5000"});
    Udp client(lan_, lanAddress(), 0), first(isp1_, server(), 5000), second(isp2_, server(), 5000);
    for (int i = 0; i < 10; i++) {
        client.send(server(), 5000, 6000);
    }
    EXPECT_EQ(second.receive(10), 10);
    EXPECT_EQ(first.receive(1, milliseconds(50)), 0);
}

TEST_P(DefragTest, WithoutItLaterFragmentsGoAnotherWay) {
    world_.options.defrag = false;
    policy({"permit udp to any port 5000"});
    EXPECT_EQ(uplinkOf(datagram(5000, 1)), 3) << "the first by its port, the others without";
}

TEST_P(DefragTest, NoConnectionIsTracked) {
    policy({"permit udp to any port 5000"});
    run("nft add table inet look");
    run("nft add chain inet look after '{ type filter hook prerouting priority -100; }'");
    EXPECT_EQ(uplinkOf(datagram(5000, 1)), 2);
    EXPECT_EQ(run("cat /proc/sys/net/netfilter/nf_conntrack_count 2>/dev/null || echo 0"), "0\n");
}

TEST_P(DefragTest, ItGoesWithThePolicy) {
    policy({"permit udp to any port 5000"});
    EXPECT_NE(nft().find("chain defrag"), std::string::npos);
    world_.unbind("wan", "lan0");
    store();
    std::vector<Packet> alone = {datagram(5000, 1)[1]}; // never completed
    EXPECT_EQ(uplinkOf(alone), 1) << "fragments pass one by one again";
}

TEST_P(DefragTest, ARuleForFragmentsIsRefusedAndItsNodeIsLeftOut) {
    world_.acl(acl(2), {"permit udp"});
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    policy({"permit udp to any port 5000", "deny udp fragments"});
    world_.nextHops("wan", "lan0", 10, acl(), {hop1()});
    store();
    EXPECT_EQ(device().show()["entries"][0]["error"],
              "ACL " + std::to_string(acl()) + " rule 20: fragments are reassembled before they are matched "
              "(host.defrag is on), so that this rule would never match");
    EXPECT_EQ(uplinkOf(5000), 2) << "the next node is asked";
    world_.acl(acl(), {"permit udp to any port 5000"});
    device().aclChanged(acl());
    EXPECT_EQ(device().show()["entries"][0]["error"], "");
    EXPECT_EQ(uplinkOf(5000), 1);
    world_.acl(acl(), {"permit udp fragments"});
    device().aclChanged(acl());
    EXPECT_NE(device().show()["entries"][0]["error"], "");
    EXPECT_EQ(uplinkOf(5000), 2);
    quiet();
    EXPECT_EQ(device().counters().driftRepaired, 0u);
}

TEST_P(DefragTest, ATableOfAnEarlierRunWithoutItGetsIt) {
    world_.options.defrag = false;
    policy({"permit udp to any port 5000"});
    quiet();
    EXPECT_EQ(nft().find("chain defrag"), std::string::npos);
    world_.options.defrag = true;
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(1000));
    EXPECT_NE(nft().find("chain defrag"), std::string::npos);
    EXPECT_EQ(uplinkOf(datagram(5000, 1)), 2);
    world_.options.defrag = false;
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(1000));
    EXPECT_EQ(nft().find("chain defrag"), std::string::npos);
    EXPECT_EQ(uplinkOf(datagram(5000, 2)), 3);
}

TEST_P(DefragTest, SomebodyWhoRemovesItIsUndone) {
    policy({"permit udp to any port 5000"});
    quiet();
    run("nft flush chain inet policyroute defrag");
    world_.loop.advance(milliseconds(100));
    EXPECT_NE(nft().find("tproxy"), std::string::npos);
    EXPECT_EQ(device().counters().driftRepaired, 1u);
    EXPECT_EQ(uplinkOf(datagram(5000, 1)), 2);
}

INSTANTIATE_TEST_SUITE_P(Families, DefragTest, ::testing::Values(4, 6),
                         [](const auto &family) { return "Ipv" + std::to_string(family.param); });

} // namespace
} // namespace kernel_test
