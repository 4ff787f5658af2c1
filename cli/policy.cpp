// Comparing, writing and judging policy values.
#include "cli/policy.h"

#include "cli/numbers.h"

namespace cli {

namespace {

bool nextHopsEqual(const std::vector<NextHop> &left, const std::vector<NextHop> &right) {
    if (left.size() != right.size()) {
        return false;
    }
    for (size_t i = 0; i < left.size(); i++) {
        const NextHop &a = left[i], &b = right[i];
        // The activation of a next hop matters only to its probe.
        const bool hasProbe = !a.probeAdmin.empty() && !a.probeTest.empty();
        if (a.address != b.address || a.probeAdmin != b.probeAdmin || a.probeTest != b.probeTest ||
            (hasProbe && a.active != b.active)) {
            return false;
        }
    }
    return true;
}

void append(std::string &text, const std::string &part) { text += (text.empty() ? "" : ", ") + part; }

std::string nodePlace(const List &list, uint32_t index) { return "node " + list.name + "/" + std::to_string(index); }

} // namespace

bool nodeEquals(const Node &left, const Node &right) {
    // Without next hops the version has no effect, and older nodes may lack it.
    const bool versionMatters = !left.nextHops.empty() || !right.nextHops.empty();
    return left.index == right.index && left.acl == right.acl &&
           (!versionMatters || left.ipVersion == right.ipVersion) && left.priority == right.priority &&
           left.outIfUnit == right.outIfUnit && left.ecmp == right.ecmp && left.vrf == right.vrf &&
           left.timeRange == right.timeRange && nextHopsEqual(left.nextHops, right.nextHops) &&
           left.matchValue1 == right.matchValue1 && left.matchValue2 == right.matchValue2 &&
           left.field7 == right.field7 && left.forwardFlag == right.forwardFlag;
}

std::string probeNameOf(const NextHop &nextHop) {
    const bool isNamed = !nextHop.probeAdmin.empty() && !nextHop.probeTest.empty();
    return isNamed ? nextHop.probeAdmin + "/" + nextHop.probeTest : "";
}

std::string nextHopText(const NextHop &nextHop) {
    std::string text = nextHop.address.empty() ? "(no address)" : addressWrite(nextHop.address);
    if (!nextHop.probeAdmin.empty() || !nextHop.probeTest.empty()) {
        text += " (probe " + nextHop.probeAdmin + "/" + nextHop.probeTest + ")";
    }
    return text;
}

std::string nodeMatchText(const Node &node) {
    std::string text;
    if (node.acl != 0) {
        append(text, "acl " + std::to_string(node.acl));
    }
    if (node.matchValue1 != 0 || node.matchValue2 != 0) {
        append(text, "match " + std::to_string(node.matchValue1) + "/" + std::to_string(node.matchValue2));
    }
    return text.empty() ? "(matches nothing)" : text;
}

std::string nodeActionText(const Node &node) {
    std::string text;
    if (node.outIfUnit != 0 || !node.outIfName.empty()) {
        append(text, "interface " + (node.outIfName.empty() ? "unit:" + std::to_string(node.outIfUnit)
                                                            : node.outIfName));
    }
    if (!node.nextHops.empty()) {
        std::string hops = node.ecmp != 0 ? "ecmp over " : node.nextHops.size() > 1 ? "next hops " : "next hop ";
        for (size_t i = 0; i < node.nextHops.size(); i++) {
            hops += (i == 0 ? "" : ", ") + nextHopText(node.nextHops[i]);
        }
        append(text, hops);
    }
    if (node.vrf != 0) {
        append(text, "vrf " + std::to_string(node.vrf));
    }
    if (node.priority != 0) {
        append(text, "priority " + std::to_string(node.priority));
    }
    if (node.timeRange) {
        append(text, "time-range " + std::to_string(*node.timeRange));
    }
    if (node.forwardFlag != 0) {
        append(text, "forward flag " + std::to_string(node.forwardFlag));
    }
    return text.empty() ? "(no action)" : text;
}

std::string nodeText(const Node &node) { return nodeMatchText(node) + ", " + nodeActionText(node); }

std::vector<std::string> listWarnings(const List &list) {
    std::vector<std::string> warnings;
    std::optional<uint32_t> firstWithNextHops;
    for (const auto &[index, node] : list.nodes) {
        const std::string place = nodePlace(list, index);
        if (!node.nextHops.empty()) {
            firstWithNextHops = firstWithNextHops.value_or(index);
        } else if (firstWithNextHops) {
            warnings.push_back(place + " has no next hop and stands behind node " +
                               std::to_string(*firstWithNextHops) +
                               ", which has: this works with Linux's kernel, but a switch's device loses its "
                               "entry when the next hops of that node change; put it first, or in a list of "
                               "its own");
        }
        for (const NextHop &nextHop : node.nextHops) {
            if (nextHop.address.empty()) {
                warnings.push_back(place + ": next hop " + std::to_string(nextHop.index) +
                                   " has no address and counts as configured; remove it");
            }
            if (node.ecmp != 0 && !probeNameOf(nextHop).empty()) {
                warnings.push_back(place + ": next hop " + nextHopText(nextHop) +
                                   ": ECMP does not look at probes, only at reachability");
            }
        }
        if (node.timeRange && (node.ecmp != 0 || node.nextHops.empty())) {
            warnings.push_back(place + ": a switch's device does not follow the time range of a node with "
                                       "ECMP or without next hops; Linux's kernel does");
        }
    }
    return warnings;
}

} // namespace cli
