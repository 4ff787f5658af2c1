// Our routing objects as values and on the wire: see rt_codec.h. Called by the kernel plane.
#include "host/device/kernel/rt_codec.h"

#include <algorithm>
#include <linux/fib_rules.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "host/fib/fib.h"

namespace host {

namespace {

uint16_t flagsOf(RtVerb verb) {
    switch (verb) {
    case RtVerb::Add: return NLM_F_CREATE | NLM_F_EXCL;
    case RtVerb::Replace: return NLM_F_CREATE | NLM_F_REPLACE;
    case RtVerb::Del: return 0;
    }
    return 0;
}

static_assert(RT_RULE_LOOKUP == FR_ACT_TO_TBL && RT_RULE_GOTO == FR_ACT_GOTO && RT_RULE_NOP == FR_ACT_NOP);

uint8_t familyNumber(uint8_t family) { return family == 6 ? AF_INET6 : AF_INET; }
uint8_t familyOf(uint8_t number) { return number == AF_INET6 ? 6 : 4; }

void ruleTake(const nlmsghdr *pMessage, RtImage *pImage) {
    const auto *pHeader = netlinkHeader<fib_rule_hdr>(pMessage);
    if (pMessage->nlmsg_type != RTM_NEWRULE || pHeader == nullptr) {
        return;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    const uint8_t family = familyOf(pHeader->family);
    const uint32_t table = attrs.u32(FRA_TABLE).value_or(pHeader->table);
    const uint32_t preference = attrs.u32(FRA_PRIORITY).value_or(0);
    if (attrs.u8(FRA_PROTOCOL).value_or(0) != FIB_PROTO_POLICYROUTE) {
        pImage->foreignPreferences.insert({family, preference});
        pImage->foreignTables.insert({family, table});
        return;
    }
    pImage->rules.insert({family, preference, attrs.u32(FRA_FWMARK).value_or(0), attrs.u32(FRA_FWMASK).value_or(0), table,
                          attrs.u32(FRA_GOTO).value_or(0), pHeader->action});
}

void routeTake(const nlmsghdr *pMessage, RtImage *pImage) {
    const auto *pHeader = netlinkHeader<rtmsg>(pMessage);
    if (pMessage->nlmsg_type != RTM_NEWROUTE || pHeader == nullptr || pHeader->rtm_dst_len != 0 ||
        pHeader->rtm_protocol != FIB_PROTO_POLICYROUTE || (pHeader->rtm_flags & RTM_F_CLONED) != 0) {
        return;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    const RtRouteKey key{familyOf(pHeader->rtm_family), attrs.u32(RTA_TABLE).value_or(pHeader->rtm_table),
                         attrs.u32(RTA_PRIORITY).value_or(0)};
    pImage->routes[key] = pHeader->rtm_type == RTN_THROW       ? RT_THROW
                          : pHeader->rtm_type == RTN_BLACKHOLE ? RT_BLACKHOLE
                                                               : attrs.u32(RTA_NH_ID).value_or(RT_STRANGE);
}

RtGroup groupOf(const nlattr *pAttr) {
    RtGroup group;
    const size_t count = mnl_attr_get_payload_len(pAttr) / sizeof(nexthop_grp);
    const auto *pMembers = static_cast<const nexthop_grp *>(mnl_attr_get_payload(pAttr));
    for (size_t i = 0; i < count; i++) {
        group.emplace_back(pMembers[i].id, pMembers[i].weight + 1u);
    }
    std::sort(group.begin(), group.end());
    return group;
}

void nextHopTake(const nlmsghdr *pMessage, RtImage *pImage) {
    const auto *pHeader = netlinkHeader<nhmsg>(pMessage);
    if (pMessage->nlmsg_type != RTM_NEWNEXTHOP || pHeader == nullptr) {
        return;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    const uint32_t id = attrs.u32(NHA_ID).value_or(0);
    if (pHeader->nh_protocol != FIB_PROTO_POLICYROUTE) {
        pImage->foreignNextHops.insert(id);
        return;
    }
    if (attrs.has(NHA_GROUP)) {
        pImage->groups[id] = groupOf(attrs.get(NHA_GROUP));
        return;
    }
    RtNextHop nextHop{familyOf(pHeader->nh_family), attrs.u32(NHA_OIF).value_or(0), attrs.has(NHA_GATEWAY), {}};
    const std::vector<uint8_t> gateway = attrs.bytes(NHA_GATEWAY);
    std::copy_n(gateway.begin(), std::min(gateway.size(), nextHop.gateway.size()), nextHop.gateway.begin());
    pImage->nextHops[id] = nextHop;
}

NetlinkError rulesRead(NetlinkSocket &socket, uint8_t family, RtImage *pImage) {
    NetlinkMessage message(RTM_GETRULE, 0);
    fib_rule_hdr header = {};
    header.family = family;
    message.header(header);
    return socket.dump(message, [&](const nlmsghdr *p) { ruleTake(p, pImage); }).error;
}

// protocol 0: any; table 0: all.
NetlinkError routesDump(NetlinkSocket &socket, uint8_t family, uint8_t protocol, uint32_t table,
                        const NetlinkSocket::Handler &each) {
    NetlinkMessage message(RTM_GETROUTE, 0);
    rtmsg header = {};
    header.rtm_family = family;
    header.rtm_protocol = protocol;
    message.header(header);
    if (table != 0) {
        message.putU32(RTA_TABLE, table);
    }
    return socket.dump(message, each).error;
}

NetlinkError nextHopsRead(NetlinkSocket &socket, RtImage *pImage) {
    NetlinkMessage message(RTM_GETNEXTHOP, 0);
    message.header(nhmsg{});
    return socket.dump(message, [&](const nlmsghdr *p) { nextHopTake(p, pImage); }).error;
}

} // namespace

NetlinkMessage rtRuleMessage(bool isAdd, const RtRule &rule) {
    NetlinkMessage message(isAdd ? RTM_NEWRULE : RTM_DELRULE,
                           isAdd ? static_cast<uint16_t>(NLM_F_CREATE | NLM_F_EXCL) : uint16_t{0});
    fib_rule_hdr header = {};
    header.family = familyNumber(rule.family);
    header.action = rule.action;
    message.header(header);
    message.putU32(FRA_PRIORITY, rule.preference).putU32(FRA_FWMARK, rule.mark).putU32(FRA_FWMASK, rule.mask);
    if (rule.action == RT_RULE_GOTO) {
        message.putU32(FRA_GOTO, rule.target);
    }
    if (rule.table != 0) {
        message.putU32(FRA_TABLE, rule.table);
    }
    message.putU8(FRA_PROTOCOL, FIB_PROTO_POLICYROUTE);
    return message;
}

NetlinkMessage rtRouteMessage(RtVerb verb, const RtRouteKey &key, uint32_t nextHop) {
    const bool isAdd = verb != RtVerb::Del;
    NetlinkMessage message(isAdd ? RTM_NEWROUTE : RTM_DELROUTE, flagsOf(verb));
    rtmsg header = {};
    header.rtm_family = familyNumber(key.family);
    header.rtm_protocol = FIB_PROTO_POLICYROUTE;
    header.rtm_type = nextHop == RT_THROW ? RTN_THROW : nextHop == RT_BLACKHOLE ? RTN_BLACKHOLE : RTN_UNICAST;
    header.rtm_scope = isAdd || key.family == 6 ? RT_SCOPE_UNIVERSE : RT_SCOPE_NOWHERE; // nowhere: any
    message.header(header);
    message.putU32(RTA_TABLE, key.table).putU32(RTA_PRIORITY, key.metric);
    if (header.rtm_type == RTN_UNICAST && isAdd) {
        message.putU32(RTA_NH_ID, nextHop);
    }
    return message;
}

NetlinkMessage rtNextHopMessage(RtVerb verb, uint32_t id, const RtNextHop &nextHop) {
    NetlinkMessage message(RTM_NEWNEXTHOP, flagsOf(verb));
    nhmsg header = {};
    header.nh_family = familyNumber(nextHop.family);
    header.nh_protocol = FIB_PROTO_POLICYROUTE;
    header.nh_flags = nextHop.hasGateway ? RTNH_F_ONLINK : 0;
    message.header(header);
    message.putU32(NHA_ID, id).putU32(NHA_OIF, nextHop.ifIndex);
    if (nextHop.hasGateway) {
        message.put(NHA_GATEWAY, nextHop.gateway.data(), nextHop.family == 6 ? 16 : 4);
    }
    return message;
}

NetlinkMessage rtGroupMessage(RtVerb verb, uint32_t id, const RtGroup &group) {
    NetlinkMessage message(RTM_NEWNEXTHOP, flagsOf(verb));
    nhmsg header = {};
    header.nh_family = AF_UNSPEC;
    header.nh_protocol = FIB_PROTO_POLICYROUTE;
    message.header(header);
    message.putU32(NHA_ID, id);
    std::vector<nexthop_grp> members;
    for (const auto &[member, weight] : group) {
        nexthop_grp entry = {};
        entry.id = member;
        entry.weight = static_cast<uint8_t>(std::min<uint32_t>(weight, 254) - 1);
        members.push_back(entry);
    }
    message.put(NHA_GROUP, members.data(), members.size() * sizeof(nexthop_grp));
    return message;
}

NetlinkMessage rtNextHopDelMessage(uint32_t id) {
    NetlinkMessage message(RTM_DELNEXTHOP, 0);
    message.header(nhmsg{});
    message.putU32(NHA_ID, id);
    return message;
}

std::string rtRead(NetlinkSocket &socket, RtImage *pImage) {
    *pImage = {};
    const auto takeRoute = [&](const nlmsghdr *p) { routeTake(p, pImage); };
    NetlinkError error = rulesRead(socket, AF_INET, pImage);
    error = error ? error : rulesRead(socket, AF_INET6, pImage);
    error = error ? error : routesDump(socket, AF_INET, FIB_PROTO_POLICYROUTE, 0, takeRoute);
    error = error ? error : routesDump(socket, AF_INET6, FIB_PROTO_POLICYROUTE, 0, takeRoute);
    error = error ? error : nextHopsRead(socket, pImage);
    return netlinkErrorText("cannot read rules, routes and next hops", error);
}

std::string rtAddressKind(NetlinkSocket &socket, uint8_t family, const std::array<uint8_t, 16> &address) {
    if (family == 6 ? address[0] == 0xff : address[0] >> 4 == 0xe) {
        return "multicast";
    }
    if (family == 4 && (address[0] == 0 || (address[0] & address[1] & address[2] & address[3]) == 0xff)) {
        return "broadcast";
    }
    NetlinkMessage message(RTM_GETROUTE, 0);
    rtmsg header = {};
    header.rtm_family = familyNumber(family);
    header.rtm_dst_len = family == 6 ? 128 : 32;
    message.header(header);
    message.put(RTA_DST, address.data(), family == 6 ? 16 : 4);
    uint8_t type = RTN_UNICAST;
    const NetlinkError error = socket.request(message, [&](const nlmsghdr *pMessage) {
        const auto *pHeader = netlinkHeader<rtmsg>(pMessage);
        type = pMessage->nlmsg_type == RTM_NEWROUTE && pHeader != nullptr ? pHeader->rtm_type : type;
    });
    if (error) {
        return ""; // no route: not ours
    }
    return type == RTN_LOCAL ? "local" : type == RTN_BROADCAST ? "broadcast" : type == RTN_ANYCAST ? "anycast" : "";
}

bool rtTableIsForeign(NetlinkSocket &socket, int family, uint32_t table) {
    bool isForeign = false;
    // A table that does not exist is an error to the kernel and free to us.
    (void)routesDump(socket, familyNumber(static_cast<uint8_t>(family)), 0, table, [&](const nlmsghdr *p) {
        const auto *pHeader = netlinkHeader<rtmsg>(p);
        const bool isOther = pHeader != nullptr && pHeader->rtm_protocol != FIB_PROTO_POLICYROUTE;
        isForeign = isForeign || (p->nlmsg_type == RTM_NEWROUTE && isOther);
    });
    return isForeign;
}

bool rtMayConcernUs(const nlmsghdr *pMessage) {
    switch (pMessage->nlmsg_type) {
    case RTM_DELROUTE:
    case RTM_NEWROUTE: {
        const auto *pHeader = netlinkHeader<rtmsg>(pMessage);
        return pHeader != nullptr && pHeader->rtm_protocol == FIB_PROTO_POLICYROUTE;
    }
    case RTM_NEWRULE:
    case RTM_DELRULE:
    case RTM_NEWADDR:
    case RTM_DELADDR:
    case RTM_NEWLINK:
    case RTM_DELLINK:
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
        return true;
    default:
        return false;
    }
}

uint32_t rtLinkLost(const nlmsghdr *pMessage) {
    if (pMessage->nlmsg_type != RTM_NEWLINK && pMessage->nlmsg_type != RTM_DELLINK) {
        return 0;
    }
    const auto *pHeader = netlinkHeader<ifinfomsg>(pMessage);
    if (pHeader == nullptr) {
        return 0;
    }
    constexpr uint32_t CARRIER = IFF_RUNNING | IFF_LOWER_UP; // with neither, next hops go
    const bool isLost = pMessage->nlmsg_type == RTM_DELLINK || (pHeader->ifi_flags & IFF_UP) == 0 ||
                        (pHeader->ifi_flags & CARRIER) != CARRIER;
    return isLost ? static_cast<uint32_t>(pHeader->ifi_index) : 0;
}

} // namespace host
