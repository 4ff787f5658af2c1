// Comparing what the kernel holds with what it should hold, in words: KernelPlane::differences. Called by
// the kernel device for a check, and to tell what it repairs; changes nothing.
#include <arpa/inet.h>

#include "host/device/desired/desired_show.h"
#include "host/device/kernel/kernel_plane.h"

namespace host {

namespace {

using Lines = std::vector<std::string>;

void chainsCompare(const NftImage &wanted, const NftImage &held, Lines &lines) {
    for (const auto &[name, rules] : wanted.chains) {
        const auto found = held.chains.find(name);
        if (found == held.chains.end()) {
            lines.push_back("chain " + name + " is missing");
        } else if (found->second != rules) {
            lines.push_back("chain " + name + " holds other rules");
        }
    }
    for (const auto &[name, rules] : held.chains) {
        if (wanted.chains.count(name) == 0) {
            lines.push_back("chain " + name + " should not be there");
        }
    }
}

void setsCompare(const NftImage &wanted, const NftImage &held, Lines &lines) {
    for (const std::string &name : wanted.sets) {
        if (held.sets.count(name) == 0) {
            lines.push_back("set " + name + " is missing");
        }
    }
    for (const std::string &name : held.sets) {
        if (wanted.sets.count(name) == 0) {
            lines.push_back("set " + name + " should not be there");
        }
    }
    for (const auto &[key, chain] : wanted.elements) {
        const auto found = held.elements.find(key);
        if (held.sets.count(key.first) != 0 && (found == held.elements.end() || found->second != chain)) {
            lines.push_back("an element of set " + key.first + (chain.empty() ? "" : ", to " + chain) + " is missing");
        }
    }
    for (const auto &[key, chain] : held.elements) {
        if (wanted.sets.count(key.first) != 0 && wanted.elements.count(key) == 0) {
            lines.push_back("an element of set " + key.first + (chain.empty() ? "" : ", to " + chain) + " should not be there");
        }
    }
}

void imagesCompare(const NftImage &wanted, const NftImage &held, Lines &lines) {
    if (held.foreign) {
        lines.push_back("table inet policyroute is not ours");
    } else if (wanted.table && !held.table) {
        lines.push_back(held.stale ? "table inet policyroute is of another layout" : "table inet policyroute is missing");
    } else if (!wanted.table && (held.table || held.stale)) {
        lines.push_back("table inet policyroute should not be there");
    } else {
        chainsCompare(wanted, held, lines);
        setsCompare(wanted, held, lines);
    }
}

std::string nextHopText(const RtNextHop &nextHop) {
    return nextHop.hasGateway ? "via " + ipAddressText(nextHop.family == 6 ? 2 : 1, nextHop.gateway)
                              : "out of interface " + std::to_string(nextHop.ifIndex);
}

template <class Map, class Key, class Value> const char *lackOf(const Map &map, const Key &key, const Value &value) {
    const auto found = map.find(key);
    return found == map.end() ? " is missing" : found->second == value ? nullptr : " is another one";
}

void rtCompare(const DecisionObjects &wanted, const RtImage &held, Lines &lines) {
    const auto tell = [&lines](const std::string &what, const char *pLack) {
        if (pLack != nullptr) {
            lines.push_back(what + pLack);
        }
    };
    if (held.rules.count(wanted.rule) == 0) {
        lines.push_back("IPv" + std::to_string(wanted.rule.family) + " rule " + std::to_string(wanted.rule.preference) +
                        " is missing");
    }
    for (const auto &[key, target] : wanted.routes) {
        tell("the IPv" + std::to_string(key.family) + " default route of table " + std::to_string(key.table) + " with metric " +
                 std::to_string(key.metric),
             lackOf(held.routes, key, target));
    }
    for (const auto &[id, nextHop] : wanted.nextHops) {
        tell("next hop " + std::to_string(id) + " (" + nextHopText(nextHop) + ")", lackOf(held.nextHops, id, nextHop));
    }
    for (const auto &[id, group] : wanted.groups) {
        tell("next-hop group " + std::to_string(id), lackOf(held.groups, id, group));
    }
}

} // namespace

std::vector<std::string> KernelPlane::differences(const KernelSnapshot &snapshot) const {
    Lines lines;
    imagesCompare(model_.image(), snapshot.nft, lines);
    for (const auto &[key, decision] : model_.decisions().all()) {
        if (decision.users > 0 && decision.error.empty()) { // an error is told with the entries
            rtCompare(model_.decisions().objectsOf(key), snapshot.rt, lines);
        }
    }
    for (const RtRule &rule : tree_) {
        if (snapshot.rt.rules.count(rule) == 0) {
            lines.push_back("IPv" + std::to_string(rule.family) + " rule " + std::to_string(rule.preference) +
                            (rule.action == RT_RULE_GOTO ? " (goto " + std::to_string(rule.target) + ")" : " (nop)") + " is missing");
        }
    }
    return lines;
}

std::string KernelPlane::driftText() const {
    const Lines lines = differences(installed_);
    if (lines.empty()) {
        return "";
    }
    const std::string more = lines.size() == 1 ? "" : ", and " + std::to_string(lines.size() - 1) + " more";
    return " (" + lines.front() + more + ")";
}

} // namespace host
