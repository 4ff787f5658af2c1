// A router between a LAN host and two uplinks that lead to one server address each, with sockets and raw
// frames at the far ends.
#ifndef TESTS_UNIT_HOST_KERNEL_PACKET_WORLD_H
#define TESTS_UNIT_HOST_KERNEL_PACKET_WORLD_H

#include "world.h"

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kernel_test {

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

// An IP packet, written byte by byte.
struct Packet {
    int version = 4;
    std::string source = "", destination = ""; // empty: the LAN host, the server
    uint8_t protocol = 17;
    uint8_t tos = 0;                 // TOS byte, traffic class
    std::vector<uint8_t> payload{};  // what follows the IP header and the headers below
    uint16_t offset = 0;             // of a fragment, in bytes, a multiple of 8
    bool more = false;               // more fragments follow
    bool hasOptionHeader = false;    // IPv6: a destination options header before the protocol's
    uint32_t id = 1;                 // of the packet that a fragment belongs to
    host::AclMac sourceMac{};        // all 0: the sender's
};

// The protocol's header and some bytes behind it.
std::vector<uint8_t> portsPayload(uint16_t source, uint16_t destination, size_t bytes = 24);
std::vector<uint8_t> tcpPayload(uint8_t flags, uint16_t source = 1024, uint16_t destination = 80);
std::vector<uint8_t> icmpPayload(uint8_t type, uint8_t code);

// The IP packet as bytes; addresses must be given.
std::vector<uint8_t> packetBytes(const Packet &packet);

// Raw frames on one Ethernet interface of a namespace.
class Wire {
public:
    Wire(const Net &net, const std::string &ifName);
    ~Wire();
    Wire(const Wire &) = delete;

    void send(const host::AclMac &to, const Packet &packet);
    // IP packets that came in since the last call and go to this address, each from its IP header on.
    std::vector<std::vector<uint8_t>> take(int version, const std::string &destination);
    // Waits until something has come in at one of them, at most so long.
    static void wait(const Wire &left, const Wire &right, milliseconds limit);

private:
    int fd_ = -1;
    host::AclMac mac_{};
};

host::AclMac macOf(const Net &net, const std::string &ifName);

// lan -- lan0 router up1 -- isp1, up2 -- isp2. Both ISPs answer for the server's address. By the routing
// table everything goes to isp1.
class SteeringTest : public KernelTest {
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

    // Which uplink packets from the LAN to the server leave by: 1, 2, 0 for none, 3 for both. What left is kept.
    int uplinkOf(const Packet &packet) { return uplinkOf(std::vector<Packet>{packet}); }
    int uplinkOf(const std::vector<Packet> &packets);

    Net lan_, isp1_, isp2_;
    std::vector<std::vector<uint8_t>> left_; // of the latest uplinkOf

private:
    std::unique_ptr<Wire> lanWire_, wire1_, wire2_; // once raw packets are sent
};

// Each test in both families.
class PacketTest : public SteeringTest, public ::testing::WithParamInterface<int> {
protected:
    using SteeringTest::uplinkOf;

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

    int tos_ = -1; // of the latest packet of uplinkOf
};

} // namespace kernel_test

#endif
