// Judging what surrounds our objects: see surroundings.h. Pure; called by the kernel device.
#include "host/device/kernel/surroundings.h"

#include <algorithm>
#include <cstdio>

#include "host/device/desired/desired_show.h"

namespace host {

namespace {

using Notices = std::vector<DeviceNotice>;

constexpr int RP_FILTER_STRICT = 1;

std::string markText(uint32_t value) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", value);
    return text;
}

std::string familyText(uint8_t family) { return family == 6 ? "IPv6" : "IPv4"; }

bool isWithin(const IpAddress &address, const IpAddress &network, uint8_t prefixLen) {
    for (unsigned bit = 0; bit < prefixLen; bit++) {
        const auto mask = static_cast<uint8_t>(0x80u >> (bit % 8));
        if ((address[bit / 8] & mask) != (network[bit / 8] & mask)) {
            return false;
        }
    }
    return true;
}

bool isAsked(const Surroundings &around, uint8_t family) {
    return std::any_of(around.bound.begin(), around.bound.end(),
                       [&](const Surroundings::Bound &bound) { return bound.families[family == 6]; });
}

void forwardingJudge(const Surroundings &around, Notices &notices) {
    for (const Surroundings::Bound &bound : around.bound) {
        // While forwarding is off for all, the interfaces' own values follow from that.
        if (bound.families[0] && bound.forwarding4 == 0 && around.forwarding4 != 0) {
            notices.push_back({"forwarding-off",
                               "IPv4 packets that come in through " + bound.ifName + " are not forwarded",
                               "sysctl -w net.ipv4.conf." + bound.ifName + ".forwarding=1"});
        }
    }
    if (isAsked(around, 4) && around.forwarding4 == 0) {
        notices.push_back({"forwarding-off", "this machine forwards no IPv4 packets",
                           "sysctl -w net.ipv4.ip_forward=1"});
    }
    if (isAsked(around, 6) && around.forwarding6 == 0) {
        notices.push_back({"forwarding-off", "this machine forwards no IPv6 packets",
                           "sysctl -w net.ipv6.conf.all.forwarding=1"});
    }
}

// An ICMP error for a steered packet would carry its mark and so take its way, and not that to its sender.
void reflectionJudge(const Surroundings &around, Notices &notices) {
    for (const uint8_t family : {uint8_t{4}, uint8_t{6}}) {
        const std::optional<int> &reflect = family == 6 ? around.reflect6 : around.reflect4;
        if (isAsked(around, family) && reflect.value_or(0) != 0) {
            notices.push_back({"errors-steered",
                               "ICMP errors of this machine for steered " + familyText(family) +
                                   " packets leave by the policy's way, and not to the sender: path MTUs are not learned",
                               "sysctl -w net.ipv" + std::to_string(family) + ".fwmark_reflect=0"});
        }
    }
}

// The kernel takes the greater of the two values; 1 drops what does not come from where it would be sent.
void reversePathJudge(const Surroundings &around, Notices &notices) {
    for (const Surroundings::Uplink &uplink : around.uplinks) {
        const int filter = std::max(around.rpFilterAll.value_or(0), uplink.rpFilter.value_or(0));
        if (filter != RP_FILTER_STRICT || uplink.isDefaultWay) {
            continue;
        }
        notices.push_back({"reverse-path",
                           "answers that come in through " + uplink.ifName +
                               " are dropped by the strict reverse path filter: the routing table does not lead back there",
                           "sysctl -w net.ipv4.conf." + uplink.ifName + ".rp_filter=2 (loose), and all.rp_filter not 1"});
    }
}

void rulesJudge(const Surroundings &around, Notices &notices) {
    for (const Surroundings::Rule &rule : around.rules) {
        const std::string place = familyText(rule.family) + " rule " + std::to_string(rule.preference);
        if ((rule.mask & around.markMask) != 0) {
            notices.push_back({"mark-overlap",
                               place + " of another program looks at mark bits " + markText(rule.mask & around.markMask) +
                                   ", which are ours (host.mark-mask " + markText(around.markMask) + ")",
                               "give one of the two other bits: host.mark-mask, or the other program's mask"});
        }
        const uint32_t first = around.firstPreference[rule.family == 6];
        if (first != 0 && rule.preference >= first && rule.preference < around.lastPreference[rule.family == 6]) {
            notices.push_back({"rule-among",
                               place + " of another program stands among ours, " + std::to_string(first) + " to " +
                                   std::to_string(around.lastPreference[rule.family == 6]) +
                                   ": packets are compared with all of them, which costs time",
                               "give it another preference, or host.rule-preference one behind it"});
        }
        const bool isAsked = rule.iif.empty() || std::any_of(around.bound.begin(), around.bound.end(), [&](const auto &bound) {
            return bound.ifName == rule.iif;
        });
        if (rule.takesAll && isAsked && rule.preference < around.lastPreference[rule.family == 6]) {
            notices.push_back({"rule-before",
                               place + " of another program takes every packet" +
                                   (rule.iif.empty() ? "" : " from " + rule.iif) + " before our rules up to " +
                                   std::to_string(around.lastPreference[rule.family == 6]) + " are asked",
                               "give it a greater preference, or host.rule-preference a smaller one"});
        }
    }
}

// The network of a next hop is on an interface that is down; its packets go where the routing table says.
void hopsJudge(const Surroundings &around, Notices &notices) {
    for (const Surroundings::Hop &hop : around.hops) {
        const auto home = std::find_if(around.addresses.begin(), around.addresses.end(), [&](const auto &address) {
            return address.version == hop.version && isWithin(hop.address, address.address, address.prefixLen);
        });
        if (!hop.hasGateway || home == around.addresses.end() || home->isUp || home->ifName == hop.ifName) {
            continue;
        }
        notices.push_back({"next-hop-elsewhere",
                           "list " + hop.list + " node " + std::to_string(hop.nodeIndex) + ": next hop " +
                               ipAddressText(hop.version == 6 ? 2 : 1, hop.address) + " belongs to " + home->ifName +
                               ", which is down; its packets leave through " + hop.ifName + " now",
                           "ip link set " + home->ifName + " up; or tie the next hop to a probe that goes through it"});
    }
}

// Once a rule, whatever the number of interfaces.
void fragmentsJudge(const Surroundings &around, Notices &notices) {
    for (const Surroundings::FragmentsRule &rule : around.fragmentsRules) {
        const std::string &tracker = around.tracker[rule.family == 6];
        if (tracker.empty()) {
            continue;
        }
        notices.push_back({"never-fragments",
                           "list " + rule.list + " node " + std::to_string(rule.nodeIndex) + ": ACL " +
                               std::to_string(rule.aclNum) + " rule " + std::to_string(rule.ruleNum) +
                               " asks for fragments and never matches: nftables table " + tracker +
                               " tracks connections, for which the kernel puts fragments together first",
                           "write the rule without 'fragments', and set host.defrag=on"});
    }
}

void repairsJudge(const Surroundings &around, Notices &notices) {
    if (around.repairs > SURROUNDINGS_REPAIRS_MOST) {
        notices.push_back({"repaired-often",
                           "another program changed or removed our objects; they were repaired " +
                               std::to_string(around.repairs) + " times within a minute",
                           "let it keep away from table inet policyroute and from rules and routes of protocol 206"});
    }
}

} // namespace

std::vector<DeviceNotice> surroundingsJudge(const Surroundings &around) {
    Notices notices;
    forwardingJudge(around, notices);
    rulesJudge(around, notices);
    repairsJudge(around, notices);
    reversePathJudge(around, notices);
    reflectionJudge(around, notices);
    hopsJudge(around, notices);
    fragmentsJudge(around, notices);
    return notices;
}

} // namespace host
