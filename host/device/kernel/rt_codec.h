// Our routing objects as values and on the wire: rules, routes, next-hop objects, next-hop groups.
//
// What is ours is recognised by protocol 206. Of what is not ours only the places are remembered
// (preferences, tables, next-hop ids), so that we keep away from them. Used by the kernel plane; the
// values also by the decision table.
#ifndef HOST_DEVICE_KERNEL_RT_CODEC_H
#define HOST_DEVICE_KERNEL_RT_CODEC_H

#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/device/device.h"
#include "host/netlink/netlink_socket.h"

namespace host {

// What a rule does, by the kernel's numbers; others that it has are kept as they are.
constexpr uint8_t RT_RULE_LOOKUP = 1, RT_RULE_GOTO = 2, RT_RULE_NOP = 3;

struct RtRule {
    uint8_t family = 4; // 4 or 6
    uint32_t preference = 0, mark = 0, mask = 0, table = 0;
    uint32_t target = 0; // RT_RULE_GOTO: the preference at which packets go on
    uint8_t action = RT_RULE_LOOKUP;
    auto operator<=>(const RtRule &) const = default;
};

constexpr uint32_t RT_METRIC = 1;               // of the route over the next hop
constexpr uint32_t RT_STANDBY_METRIC = 2;       // of the route that takes over when the one above is gone
constexpr uint32_t RT_LAST_METRIC = UINT32_MAX; // of the route for when the one above is gone

// Where a route leads, beside the ids of next hops.
constexpr uint32_t RT_THROW = 0;                  // on to other tables: the packet is routed as usual
constexpr uint32_t RT_BLACKHOLE = UINT32_MAX - 1; // the packet is dropped
constexpr uint32_t RT_STRANGE = UINT32_MAX;       // something that we do not make

struct RtRouteKey { // always the default prefix
    uint8_t family = 4;
    uint32_t table = 0, metric = RT_METRIC;
    auto operator<=>(const RtRouteKey &) const = default;
};

struct RtNextHop {
    uint8_t family = 4;
    uint32_t ifIndex = 0;
    bool hasGateway = false;
    IpAddress gateway{};
    auto operator<=>(const RtNextHop &) const = default;
};

using RtGroup = std::vector<std::pair<uint32_t, uint32_t>>; // (next-hop id, weight) ascending

struct RtImage {
    std::set<RtRule> rules;
    std::map<RtRouteKey, uint32_t> routes; // -> next-hop id, RT_THROW, RT_BLACKHOLE
    std::map<uint32_t, RtNextHop> nextHops;
    std::map<uint32_t, RtGroup> groups;
    std::set<std::pair<uint8_t, uint32_t>> foreignPreferences; // (family, preference), family, table, id:
    std::set<std::pair<uint8_t, uint32_t>> foreignTables;      // of rules that are not ours
    std::set<uint32_t> foreignNextHops;
    bool operator==(const RtImage &) const = default;
    bool isEmpty() const { return rules.empty() && routes.empty() && nextHops.empty() && groups.empty(); }
};

NetlinkMessage rtRuleMessage(bool isAdd, const RtRule &rule);
// What is there already is replaced only when it is known to be ours; an add fails on whatever is there.
enum class RtVerb : uint8_t { Add, Replace, Del };
NetlinkMessage rtRouteMessage(RtVerb verb, const RtRouteKey &key, uint32_t nextHop);
NetlinkMessage rtNextHopMessage(RtVerb verb, uint32_t id, const RtNextHop &nextHop);
NetlinkMessage rtGroupMessage(RtVerb verb, uint32_t id, const RtGroup &group);
NetlinkMessage rtNextHopDelMessage(uint32_t id);

// Reads what is ours, and the places of others. Result: empty, or why it cannot be read.
std::string rtRead(NetlinkSocket &socket, RtImage *pImage);

// What the machine takes an address for: "local", "broadcast", "anycast", "multicast", or empty: others'.
std::string rtAddressKind(NetlinkSocket &socket, uint8_t family, const std::array<uint8_t, 16> &address);

// Whether a table holds routes that are not ours. Lock: none
bool rtTableIsForeign(NetlinkSocket &socket, int family, uint32_t table);

// Whether a notification may concern us: a rule, a route of our protocol, a next hop, a link or its
// addresses (the kernel drops next hops with a link without telling). Lock: none
bool rtMayConcernUs(const nlmsghdr *pMessage);

// The interface of a notification that says: it is down, without carrier, or gone. Else 0. Lock: none
uint32_t rtLinkLost(const nlmsghdr *pMessage);

} // namespace host

#endif
