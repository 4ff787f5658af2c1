// Route and next-hop messages: see the header.
#include "host/fib/fib_parse.h"

#include <linux/if_addr.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace host {

namespace {

int versionOf(uint8_t family) {
    return family == AF_INET ? 4 : family == AF_INET6 ? 6 : 0;
}

// A gateway attribute's address: 4 or 16 bytes; all zero means on-link.
void gatewaySet(FibLeg &leg, const uint8_t *pAddress, size_t len) {
    if ((len != 4 && len != 16) || std::all_of(pAddress, pAddress + len, [](uint8_t b) { return b == 0; })) {
        return;
    }
    leg.gatewayVersion = len == 4 ? 4 : 6;
    std::copy_n(pAddress, len, leg.gateway.begin());
}

// RTA_GATEWAY, or RTA_VIA (u16 family, address) for a gateway of the other family.
void gatewayTake(FibLeg &leg, const NetlinkAttrs &attrs) {
    const std::vector<uint8_t> gateway = attrs.bytes(RTA_GATEWAY);
    gatewaySet(leg, gateway.data(), gateway.size());
    const std::vector<uint8_t> via = attrs.bytes(RTA_VIA);
    if (via.size() > sizeof(uint16_t)) {
        gatewaySet(leg, via.data() + sizeof(uint16_t), via.size() - sizeof(uint16_t));
    }
}

void flagsTake(FibLeg &leg, uint32_t flags) {
    leg.dead = (flags & RTNH_F_DEAD) != 0;
    leg.linkDown = (flags & RTNH_F_LINKDOWN) != 0;
}

std::vector<FibLeg> multipathOf(const NetlinkAttrs &attrs) {
    std::vector<FibLeg> legs;
    const std::vector<uint8_t> bytes = attrs.bytes(RTA_MULTIPATH);
    size_t at = 0;
    while (at + sizeof(rtnexthop) <= bytes.size()) {
        rtnexthop hop;
        std::memcpy(&hop, bytes.data() + at, sizeof(hop));
        if (hop.rtnh_len < sizeof(hop) || at + hop.rtnh_len > bytes.size()) {
            break;
        }
        FibLeg leg;
        leg.ifIndex = static_cast<uint32_t>(hop.rtnh_ifindex);
        flagsTake(leg, hop.rtnh_flags);
        gatewayTake(leg, NetlinkAttrs(bytes.data() + at + sizeof(hop), hop.rtnh_len - sizeof(hop)));
        legs.push_back(leg);
        at += RTNH_ALIGN(hop.rtnh_len);
    }
    return legs;
}

bool leftOut(const rtmsg &header, uint32_t table) {
    return versionOf(header.rtm_family) == 0 || table == RT_TABLE_LOCAL || header.rtm_tos != 0 ||
           header.rtm_src_len != 0 || (header.rtm_flags & RTM_F_CLONED) != 0 ||
           header.rtm_dst_len > (header.rtm_family == AF_INET ? 32 : 128);
}

} // namespace

std::optional<FibRouteMessage> fibParseRoute(const nlmsghdr *pMessage) {
    const rtmsg *pHeader = netlinkHeader<rtmsg>(pMessage);
    if (pHeader == nullptr) {
        return std::nullopt;
    }
    const NetlinkAttrs attrs(pMessage, sizeof(rtmsg));
    FibRouteMessage message;
    message.table = attrs.u32(RTA_TABLE).value_or(pHeader->rtm_table);
    message.version = versionOf(pHeader->rtm_family);
    if (leftOut(*pHeader, message.table)) {
        return std::nullopt;
    }
    FibRoute &route = message.route;
    const std::vector<uint8_t> prefix = attrs.bytes(RTA_DST);
    std::copy_n(prefix.begin(), std::min(prefix.size(), route.prefix.size()), route.prefix.begin());
    route.prefixLen = pHeader->rtm_dst_len;
    route.prefix = fibMask(route.prefix, route.prefixLen);
    route.type = pHeader->rtm_type;
    route.protocol = pHeader->rtm_protocol;
    route.metric = attrs.u32(RTA_PRIORITY).value_or(0);
    route.nexthopId = attrs.u32(RTA_NH_ID).value_or(0);
    if (attrs.has(RTA_MULTIPATH)) {
        route.legs = multipathOf(attrs);
        return message;
    }
    FibLeg leg;
    leg.ifIndex = attrs.u32(RTA_OIF).value_or(0);
    flagsTake(leg, pHeader->rtm_flags);
    gatewayTake(leg, attrs);
    route.legs.push_back(leg);
    return message;
}

std::optional<FibNexthopMessage> fibParseNexthop(const nlmsghdr *pMessage) {
    const nhmsg *pHeader = netlinkHeader<nhmsg>(pMessage);
    if (pHeader == nullptr) {
        return std::nullopt;
    }
    const NetlinkAttrs attrs(pMessage, sizeof(nhmsg));
    FibNexthopMessage message;
    message.id = attrs.u32(NHA_ID).value_or(0);
    message.protocol = pHeader->nh_protocol;
    if (message.id == 0) {
        return std::nullopt;
    }
    FibNexthop &nexthop = message.nexthop;
    nexthop.blackhole = attrs.has(NHA_BLACKHOLE);
    nexthop.leg.ifIndex = attrs.u32(NHA_OIF).value_or(0);
    flagsTake(nexthop.leg, pHeader->nh_flags);
    const std::vector<uint8_t> gateway = attrs.bytes(NHA_GATEWAY);
    gatewaySet(nexthop.leg, gateway.data(), gateway.size());
    const std::vector<uint8_t> group = attrs.bytes(NHA_GROUP);
    for (size_t at = 0; at + sizeof(nexthop_grp) <= group.size(); at += sizeof(nexthop_grp)) {
        nexthop_grp member;
        std::memcpy(&member, group.data() + at, sizeof(member));
        nexthop.members.push_back(member.id);
    }
    return message;
}

std::optional<FibAddressMessage> fibParseAddress(const nlmsghdr *pMessage) {
    const ifaddrmsg *pHeader = netlinkHeader<ifaddrmsg>(pMessage);
    if (pHeader == nullptr || versionOf(pHeader->ifa_family) == 0) {
        return std::nullopt;
    }
    const std::vector<uint8_t> address = NetlinkAttrs(pMessage, sizeof(ifaddrmsg)).bytes(IFA_ADDRESS);
    FibAddressMessage message;
    message.ifIndex = pHeader->ifa_index;
    message.version = versionOf(pHeader->ifa_family);
    message.prefixLen = pHeader->ifa_prefixlen;
    if (address.size() != (message.version == 4 ? 4u : 16u) || message.prefixLen > 8 * address.size()) {
        return std::nullopt;
    }
    std::copy(address.begin(), address.end(), message.prefix.begin());
    message.prefix = fibMask(message.prefix, message.prefixLen);
    return message;
}

} // namespace host
