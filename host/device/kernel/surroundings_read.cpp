// Reading what surrounds our objects: see surroundings.h. Called by the kernel device on the event thread.
#include <algorithm>
#include <fstream>
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "host/device/kernel/surroundings.h"
#include "host/fib/fib.h"
#include "host/nqa/nqa_way.h"

namespace host {

namespace {

constexpr uint32_t LOCAL_TABLE = 255; // ends nobody's way but that of packets for this machine

std::optional<int> sysctlRead(const std::string &name) {
    std::ifstream file("/proc/sys/net/" + name);
    int value = 0;
    return (file >> value) ? std::optional<int>(value) : std::nullopt;
}

bool isSelective(const fib_rule_hdr &header, const NetlinkAttrs &attrs) {
    constexpr uint16_t selectors[] = {FRA_OIFNAME, FRA_UID_RANGE, FRA_IP_PROTO, FRA_SPORT_RANGE,
                                      FRA_DPORT_RANGE, FRA_L3MDEV, FRA_TUN_ID, FRA_FLOW};
    const bool isNamed = std::any_of(std::begin(selectors), std::end(selectors), [&](uint16_t type) {
        return attrs.has(type) && (type != FRA_L3MDEV || attrs.u8(type) != 0);
    });
    return isNamed || header.src_len != 0 || header.dst_len != 0 || header.tos != 0 || attrs.u32(FRA_FWMASK).value_or(0) != 0 ||
           (header.flags & FIB_RULE_INVERT) != 0 ||
           static_cast<int32_t>(attrs.u32(FRA_SUPPRESS_PREFIXLEN).value_or(UINT32_MAX)) >= 0;
}

void ruleTake(const nlmsghdr *pMessage, const std::function<bool(uint8_t, uint32_t)> &hasDefault, Surroundings *pAround) {
    const auto *pHeader = netlinkHeader<fib_rule_hdr>(pMessage);
    if (pMessage->nlmsg_type != RTM_NEWRULE || pHeader == nullptr) {
        return;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    const uint8_t protocol = attrs.u8(FRA_PROTOCOL).value_or(0);
    if (protocol == FIB_PROTO_POLICYROUTE || protocol == NQA_PROTO) {
        return;
    }
    Surroundings::Rule rule;
    rule.family = pHeader->family == AF_INET6 ? 6 : 4;
    rule.preference = attrs.u32(FRA_PRIORITY).value_or(0);
    rule.mark = attrs.u32(FRA_FWMARK).value_or(0);
    rule.mask = attrs.u32(FRA_FWMASK).value_or(0);
    rule.table = attrs.u32(FRA_TABLE).value_or(pHeader->table);
    rule.iif = attrs.string(FRA_IIFNAME);
    const bool isEnd = pHeader->action == FR_ACT_BLACKHOLE || pHeader->action == FR_ACT_UNREACHABLE ||
                       pHeader->action == FR_ACT_PROHIBIT;
    const bool isLookup = pHeader->action == FR_ACT_TO_TBL && rule.table != LOCAL_TABLE;
    rule.takesAll = !isSelective(*pHeader, attrs) && (isEnd || (isLookup && hasDefault(rule.family, rule.table)));
    pAround->rules.push_back(rule);
}

void addressTake(const nlmsghdr *pMessage, Surroundings *pAround) {
    const auto *pHeader = netlinkHeader<ifaddrmsg>(pMessage);
    if (pMessage->nlmsg_type != RTM_NEWADDR || pHeader == nullptr) {
        return;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    // The far end's address of a point-to-point link is the one whose network is connected.
    const std::vector<uint8_t> bytes = attrs.bytes(IFA_ADDRESS);
    Surroundings::Address address;
    address.ifUnit = pHeader->ifa_index;
    address.version = pHeader->ifa_family == AF_INET6 ? 6 : 4;
    address.prefixLen = pHeader->ifa_prefixlen;
    std::copy_n(bytes.begin(), std::min(bytes.size(), address.address.size()), address.address.begin());
    pAround->addresses.push_back(address);
}

NetlinkError rulesRead(NetlinkSocket &socket, uint8_t family,
                       const std::function<bool(uint8_t, uint32_t)> &hasDefault, Surroundings *pAround) {
    NetlinkMessage message(RTM_GETRULE, 0);
    fib_rule_hdr header = {};
    header.family = family;
    message.header(header);
    return socket.dump(message, [&](const nlmsghdr *p) { ruleTake(p, hasDefault, pAround); }).error;
}

NetlinkError addressesRead(NetlinkSocket &socket, Surroundings *pAround) {
    NetlinkMessage message(RTM_GETADDR, 0);
    message.header(ifaddrmsg{});
    return socket.dump(message, [&](const nlmsghdr *p) { addressTake(p, pAround); }).error;
}

} // namespace

std::string surroundingsRead(NetlinkSocket &socket, const std::function<bool(uint8_t, uint32_t)> &hasDefault,
                             Surroundings *pAround) {
    pAround->forwarding4 = sysctlRead("ipv4/ip_forward");
    pAround->forwarding6 = sysctlRead("ipv6/conf/all/forwarding");
    pAround->reflect4 = sysctlRead("ipv4/fwmark_reflect");
    pAround->reflect6 = sysctlRead("ipv6/fwmark_reflect");
    pAround->rpFilterAll = sysctlRead("ipv4/conf/all/rp_filter");
    for (Surroundings::Bound &bound : pAround->bound) {
        bound.forwarding4 = sysctlRead("ipv4/conf/" + bound.ifName + "/forwarding");
    }
    for (Surroundings::Uplink &uplink : pAround->uplinks) {
        uplink.rpFilter = sysctlRead("ipv4/conf/" + uplink.ifName + "/rp_filter");
    }
    NetlinkError error = rulesRead(socket, AF_INET, hasDefault, pAround);
    error = error ? error : rulesRead(socket, AF_INET6, hasDefault, pAround);
    error = error ? error : addressesRead(socket, pAround);
    return netlinkErrorText("cannot read rules and addresses", error);
}

} // namespace host
