// Real packets through a router in namespaces: a LAN host, two uplinks that lead to one server address
// each, and sockets that count at the far ends.
#include "world.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace kernel_test {
namespace {

using namespace host;
using std::chrono::milliseconds;

// A UDP socket; it stays in the namespace it was made in.
class Udp {
public:
    Udp(const Net &net, const std::string &at, uint16_t port, uint32_t mark = 0) {
        net.in([&] {
            isV6_ = at.find(':') != std::string::npos;
            fd_ = socket(isV6_ ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            const int on = 1;
            setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            setsockopt(fd_, isV6_ ? IPPROTO_IPV6 : IPPROTO_IP, isV6_ ? IPV6_RECVTCLASS : IP_RECVTOS, &on, sizeof on);
            const int room = 1 << 20;
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
            if (mark != 0) {
                setsockopt(fd_, SOL_SOCKET, SO_MARK, &mark, sizeof mark);
            }
            const sockaddr_storage name = nameOf(at, port);
            EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&name), sizeof name), 0) << at << strerror(errno);
        });
    }
    ~Udp() { close(fd_); }
    Udp(const Udp &) = delete;

    void tosSet(int value) {
        ASSERT_EQ(setsockopt(fd_, isV6_ ? IPPROTO_IPV6 : IPPROTO_IP, isV6_ ? IPV6_TCLASS : IP_TOS, &value, sizeof value), 0);
    }

    void send(const std::string &to, uint16_t port, size_t bytes = 8) {
        const sockaddr_storage name = nameOf(to, port);
        const std::string text(bytes, 'x');
        EXPECT_GT(sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr *>(&name), sizeof name), 0)
            << strerror(errno);
    }

    // Packets that arrive within `limit` of the one before, at most `atMost`; their last TOS is kept.
    int receive(int atMost = 1, milliseconds limit = milliseconds(1000)) {
        int count = 0;
        for (pollfd waiting = {fd_, POLLIN, 0}; count < atMost && poll(&waiting, 1, static_cast<int>(limit.count())) == 1;) {
            char data[64], control[128];
            iovec part = {data, sizeof data};
            msghdr message = {};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            if (recvmsg(fd_, &message, MSG_DONTWAIT) < 0) {
                break;
            }
            const cmsghdr *pControl = CMSG_FIRSTHDR(&message);
            tos = pControl == nullptr ? -1 : *CMSG_DATA(pControl);
            count++;
        }
        return count;
    }

    int tos = -1;

private:
    static sockaddr_storage nameOf(const std::string &at, uint16_t port) {
        sockaddr_storage name = {};
        if (at.find(':') == std::string::npos) {
            auto *p = reinterpret_cast<sockaddr_in *>(&name);
            p->sin_family = AF_INET;
            p->sin_port = htons(port);
            inet_pton(AF_INET, at.c_str(), &p->sin_addr);
        } else {
            auto *p = reinterpret_cast<sockaddr_in6 *>(&name);
            p->sin6_family = AF_INET6;
            p->sin6_port = htons(port);
            inet_pton(AF_INET6, at.c_str(), &p->sin6_addr);
        }
        return name;
    }
    int fd_ = -1;
    bool isV6_ = false;
};

// lan -- lan0 router up1 -- isp1, up2 -- isp2. Both ISPs answer for the server's address. By the routing
// table everything goes to isp1.
class PacketTest : public KernelTest, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        cable("lan0", lan_, {"10.1.0.1/16", "fd01::1/64"}, {"10.1.0.2/16", "fd01::2/64"});
        cable("up1", isp1_, {"192.0.2.254/24", "fd02::fe/64"}, {"192.0.2.1/24", "fd02::1/64"});
        cable("up2", isp2_, {"198.51.100.254/24", "fd03::fe/64"}, {"198.51.100.1/24", "fd03::1/64"});
        for (const Net *pIsp : {&isp1_, &isp2_}) {
            pIsp->run("ip address add 203.0.113.7/32 dev lo");
            pIsp->run("ip address add fd99::7/128 dev lo");
        }
        isp1_.run("ip route add 10.1.0.0/16 via 192.0.2.254; ip route add fd01::/64 via fd02::fe");
        isp2_.run("ip route add 10.1.0.0/16 via 198.51.100.254; ip route add fd01::/64 via fd03::fe");
        lan_.run("ip route add default via 10.1.0.1; ip -6 route add default via fd01::1");
        run("ip route add default via 192.0.2.1; ip -6 route add default via fd02::1");
        // The kernel takes new IPv6 addresses into use on a thread of its own.
        for (const Net *pNet : {router_.get(), &lan_, &isp1_, &isp2_}) {
            for (int i = 0; i < 2000 && !pNet->run("ip -6 address show tentative").empty(); i++) {
                (void)poll(nullptr, 0, 1);
            }
        }
        for (const char *pName : {"lan0", "up1", "up2"}) {
            router_->sysctl(std::string("ipv4/conf/") + pName + "/rp_filter", "0");
        }
        router_->sysctl("ipv4/conf/all/rp_filter", "0");
        world_.acl(1501, {"deny udp from any to any port 6000", "permit udp from 10.1.0.0/16 to any port 5000-6999"});
        world_.acl(3001, {"deny udp from any to any port 6000", "permit udp from fd01::/64 to any port 5000-6999"});
        world_.acl(1502, {"permit udp from any to any port 5000-6000"});
        world_.acl(3002, {"permit udp from any to any port 5000-6000"});
        for (const char *pHop : {"192.0.2.1", "fd02::1"}) {
            world_.route(pHop, "up1");
        }
        for (const char *pHop : {"198.51.100.1", "fd03::1"}) {
            world_.route(pHop, "up2");
        }
    }

    bool v6() const { return GetParam() == 6; }
    std::string lanAddress() const { return v6() ? "fd01::2" : "10.1.0.2"; }
    std::string server() const { return v6() ? "fd99::7" : "203.0.113.7"; }
    std::string hop1() const { return v6() ? "fd02::1" : "192.0.2.1"; }
    std::string hop2() const { return v6() ? "fd03::1" : "198.51.100.1"; }
    std::string routerAddress() const { return v6() ? "fd03::fe" : "198.51.100.254"; }
    uint32_t acl(uint32_t which = 1) const { return (v6() ? 3000 : 1500) + which; }

    // Which uplink a packet to this port takes: 1, 2, or 0 for none.
    int uplinkOf(uint16_t port, int tos = 0) {
        Udp client(lan_, lanAddress(), 0), first(isp1_, server(), port), second(isp2_, server(), port);
        client.tosSet(tos);
        client.send(server(), port);
        for (int i = 0; i < 100; i++) {
            if (first.receive(1, milliseconds(10)) == 1) {
                tos_ = first.tos;
                return 1;
            }
            if (second.receive(1, milliseconds(10)) == 1) {
                tos_ = second.tos;
                return 2;
            }
        }
        return 0;
    }

    Net lan_, isp1_, isp2_;
    int tos_ = -1; // of the latest packet of uplinkOf
};

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
