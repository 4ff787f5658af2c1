// See packet_world.h.
#include "packet_world.h"

#include <cstring>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>

namespace kernel_test {

using host::AclMac;

namespace {

void put16(std::vector<uint8_t> &bytes, uint32_t value) {
    bytes.push_back(static_cast<uint8_t>(value >> 8));
    bytes.push_back(static_cast<uint8_t>(value));
}

void put32(std::vector<uint8_t> &bytes, uint32_t value) {
    put16(bytes, value >> 16);
    put16(bytes, value & 0xffff);
}

void append(std::vector<uint8_t> &bytes, const std::vector<uint8_t> &more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void putAddress(std::vector<uint8_t> &bytes, int version, const std::string &text) {
    const IpAddress raw = address(text);
    bytes.insert(bytes.end(), raw.begin(), raw.begin() + (version == 6 ? 16 : 4));
}

void headerChecksum(std::vector<uint8_t> &bytes) {
    uint32_t sum = 0;
    for (size_t i = 0; i < 20; i += 2) {
        sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    }
    sum = (sum & 0xffff) + (sum >> 16);
    sum = ~((sum & 0xffff) + (sum >> 16));
    bytes[10] = static_cast<uint8_t>(sum >> 8);
    bytes[11] = static_cast<uint8_t>(sum);
}

std::vector<uint8_t> ipv4Bytes(const Packet &packet) {
    std::vector<uint8_t> bytes = {0x45, packet.tos};
    put16(bytes, static_cast<uint32_t>(20 + packet.payload.size()));
    put16(bytes, packet.id);
    put16(bytes, (packet.more ? 0x2000u : 0u) | packet.offset / 8u);
    append(bytes, {64, packet.protocol, 0, 0});
    putAddress(bytes, 4, packet.source);
    putAddress(bytes, 4, packet.destination);
    headerChecksum(bytes);
    append(bytes, packet.payload);
    return bytes;
}

std::vector<uint8_t> ipv6Bytes(const Packet &packet) {
    std::vector<uint8_t> inner;
    uint8_t first = packet.protocol;
    const bool isFragment = packet.more || packet.offset != 0;
    if (packet.hasOptionHeader) {
        append(inner, {first, 0, 1, 4, 0, 0, 0, 0}); // padding of six bytes
        first = IPPROTO_DSTOPTS;
    }
    std::vector<uint8_t> outer;
    if (isFragment) {
        append(outer, {first, 0});
        put16(outer, packet.offset | (packet.more ? 1u : 0u));
        put32(outer, packet.id);
        first = IPPROTO_FRAGMENT;
    }
    append(outer, inner);
    append(outer, packet.payload);
    std::vector<uint8_t> bytes = {static_cast<uint8_t>(0x60 | packet.tos >> 4), static_cast<uint8_t>(packet.tos << 4),
                                  0, 0};
    put16(bytes, static_cast<uint32_t>(outer.size()));
    append(bytes, {first, 64});
    putAddress(bytes, 6, packet.source);
    putAddress(bytes, 6, packet.destination);
    append(bytes, outer);
    return bytes;
}

} // namespace

std::vector<uint8_t> portsPayload(uint16_t source, uint16_t destination, size_t bytes) {
    std::vector<uint8_t> payload;
    put16(payload, source);
    put16(payload, destination);
    put16(payload, static_cast<uint32_t>(bytes)); // UDP's length
    payload.resize(bytes);
    return payload;
}

std::vector<uint8_t> tcpPayload(uint8_t flags, uint16_t source, uint16_t destination) {
    std::vector<uint8_t> payload = portsPayload(source, destination, 20);
    payload[4] = payload[5] = 0;
    payload[12] = 0x50;
    payload[13] = flags;
    return payload;
}

std::vector<uint8_t> icmpPayload(uint8_t type, uint8_t code) {
    std::vector<uint8_t> payload = {type, code};
    payload.resize(64);
    return payload;
}

std::vector<uint8_t> packetBytes(const Packet &packet) {
    return packet.version == 6 ? ipv6Bytes(packet) : ipv4Bytes(packet);
}

// ---- wire ----

AclMac macOf(const Net &net, const std::string &ifName) {
    AclMac mac{};
    net.in([&] {
        ifreq request = {};
        strncpy(request.ifr_name, ifName.c_str(), sizeof request.ifr_name - 1);
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(ioctl(fd, SIOCGIFHWADDR, &request), 0) << ifName;
        close(fd);
        memcpy(mac.data(), request.ifr_hwaddr.sa_data, mac.size());
    });
    return mac;
}

Wire::Wire(const Net &net, const std::string &ifName) : mac_(macOf(net, ifName)) {
    net.in([&] {
        fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL));
        sockaddr_ll name = {};
        name.sll_family = AF_PACKET;
        name.sll_protocol = htons(ETH_P_ALL);
        name.sll_ifindex = static_cast<int>(if_nametoindex(ifName.c_str()));
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&name), sizeof name), 0) << strerror(errno);
    });
}

Wire::~Wire() { close(fd_); }

void Wire::send(const AclMac &to, const Packet &packet) {
    const AclMac &from = packet.sourceMac == AclMac{} ? mac_ : packet.sourceMac;
    std::vector<uint8_t> frame(to.begin(), to.end());
    frame.insert(frame.end(), from.begin(), from.end());
    put16(frame, packet.version == 6 ? ETH_P_IPV6 : ETH_P_IP);
    append(frame, packetBytes(packet));
    EXPECT_EQ(write(fd_, frame.data(), frame.size()), static_cast<ssize_t>(frame.size())) << strerror(errno);
}

std::vector<std::vector<uint8_t>> Wire::take(int version, const std::string &destination) {
    std::vector<std::vector<uint8_t>> taken;
    const IpAddress wanted = address(destination);
    const size_t place = version == 6 ? 24 : 16, size = version == 6 ? 16 : 4;
    for (;;) {
        std::vector<uint8_t> frame(70000);
        sockaddr_ll name = {};
        socklen_t nameSize = sizeof name;
        const ssize_t got =
            recvfrom(fd_, frame.data(), frame.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&name), &nameSize);
        if (got < 0) {
            return taken;
        }
        frame.resize(static_cast<size_t>(got));
        const bool isIp = ntohs(name.sll_protocol) == (version == 6 ? ETH_P_IPV6 : ETH_P_IP);
        if (name.sll_pkttype == PACKET_OUTGOING || !isIp || frame.size() < 14 + place + size) {
            continue;
        }
        frame.erase(frame.begin(), frame.begin() + 14);
        if (std::equal(wanted.begin(), wanted.begin() + static_cast<ptrdiff_t>(size),
                       frame.begin() + static_cast<ptrdiff_t>(place))) {
            taken.push_back(std::move(frame));
        }
    }
}

void Wire::wait(const Wire &left, const Wire &right, milliseconds limit) {
    pollfd waiting[] = {{left.fd_, POLLIN, 0}, {right.fd_, POLLIN, 0}};
    (void)poll(waiting, 2, static_cast<int>(limit.count()));
}

// ---- steering ----

int SteeringTest::uplinkOf(const std::vector<Packet> &packets) {
    if (!lanWire_) {
        lanWire_ = std::make_unique<Wire>(lan_, "lan0-far");
        wire1_ = std::make_unique<Wire>(isp1_, "up1-far");
        wire2_ = std::make_unique<Wire>(isp2_, "up2-far");
    }
    const bool isV6 = packets.front().version == 6;
    const std::string server = isV6 ? "fd99::7" : "203.0.113.7";
    const std::string destination = packets.front().destination.empty() ? server : packets.front().destination;
    (void)wire1_->take(packets.front().version, destination); // what came in before
    (void)wire2_->take(packets.front().version, destination);
    for (Packet packet : packets) {
        packet.source = packet.source.empty() ? (isV6 ? "fd01::2" : "10.1.0.2") : packet.source;
        packet.destination = packet.destination.empty() ? server : packet.destination;
        lanWire_->send(macOf(*router_, "lan0"), packet);
    }
    left_.clear();
    int uplinks = 0;
    for (int round = 0; round < 200 && left_.size() < packets.size(); round++) {
        Wire::wait(*wire1_, *wire2_, milliseconds(10));
        for (const auto &[pWire, number] : {std::pair{wire1_.get(), 1}, std::pair{wire2_.get(), 2}}) {
            for (std::vector<uint8_t> &packet : pWire->take(packets.front().version, destination)) {
                left_.push_back(std::move(packet));
                uplinks |= number;
            }
        }
    }
    EXPECT_EQ(left_.size(), packets.size()) << "packets that left";
    return uplinks;
}

} // namespace kernel_test
