// From redirect entries to a forwarding program: see program.h. Called by the kernel device whenever
// the entries, an ACL, a route or a link changed; calls nothing but the functions of ProgramEnv.
#include "host/device/kernel/program.h"

#include <algorithm>
#include <arpa/inet.h>
#include <utility>

namespace host {

namespace {

constexpr uint8_t HIGHEST_PRECEDENCE = 7; // the precedence field of both IP versions has three bits

std::string addressText(int version, const IpAddress &address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(version == 6 ? AF_INET6 : AF_INET, address.data(), text, sizeof text);
    return text;
}

// The IPv6 header look-up walks over these headers, so that they are never the upper protocol.
bool isExtensionHeader(int protocol) {
    return protocol == 0 || protocol == 43 || protocol == 44 || protocol == 51 || protocol == 60;
}

struct Outcome {
    ProgramDecision decision;
    std::string error;
    std::string reason;
};

void pathAdd(std::vector<ProgramPath> &paths, const ProgramPath &path) {
    for (ProgramPath &known : paths) {
        if (known.ifIndex == path.ifIndex && known.hasGateway == path.hasGateway &&
            known.gateway == path.gateway) {
            known.weight += path.weight;
            return;
        }
    }
    paths.push_back(path);
}

std::string outOfInterface(const RedirectEntry &entry, const ProgramEnv &env, ProgramDecision &decision,
                           std::string &reason) {
    std::optional<IfnetLink> link = env.link(entry.outIfUnit);
    if (!link) {
        return "out-interface " + std::to_string(entry.outIfUnit) + " does not exist";
    }
    if (!link->up) {
        reason = "out-interface " + link->name + " is down";
        return "";
    }
    decision.paths.push_back({link->unit, false, {}, 1});
    return "";
}

// Why one next hop cannot be used now; empty: its path was added.
std::string nextHopAdd(const RedirectEntry &entry, const IpAddress &address, const ProgramEnv &env,
                       std::vector<ProgramPath> &paths) {
    const int version = entry.ipVer == 2 ? 6 : 4;
    std::optional<FibEgress> egress = env.egress(entry.vrfid, version, address);
    if (!egress) {
        return "no route to next hop " + addressText(version, address);
    }
    std::optional<IfnetLink> link = env.link(egress->ifIndex);
    if (!link || !link->up) {
        return "interface towards next hop " + addressText(version, address) + " is down";
    }
    pathAdd(paths, {egress->ifIndex, true, egress->hasGateway ? egress->gateway : address, 1});
    return "";
}

Outcome nextHopsOutcome(const RedirectEntry &entry, const ProgramEnv &env) {
    Outcome outcome;
    for (const IpAddress &address : entry.nextHops) {
        std::string unusable = nextHopAdd(entry, address, env, outcome.decision.paths);
        if (!unusable.empty()) {
            outcome.reason += (outcome.reason.empty() ? "" : "; ") + unusable;
        }
    }
    std::vector<ProgramPath> &paths = outcome.decision.paths, &standby = outcome.decision.standby;
    std::sort(paths.begin(), paths.end());
    if (paths.size() == 1) {
        paths[0].weight = 1; // there is nothing to weigh it against
    }
    if (entry.standby && paths.size() <= 1) {
        (void)nextHopAdd(entry, *entry.standby, env, standby); // one that cannot be used now is none
        if (paths.empty() && !standby.empty()) {
            paths = std::exchange(standby, {});
        } else if (paths == standby) {
            standby.clear();
        }
    }
    return outcome;
}

Outcome decide(const RedirectEntry &entry, const ProgramEnv &env) {
    Outcome outcome;
    switch (entry.kind) {
    case PBR_REDIRECT_OUT_IF:
        outcome.error = outOfInterface(entry, env, outcome.decision, outcome.reason);
        break;
    case PBR_REDIRECT_NEXT_HOPS:
        outcome = nextHopsOutcome(entry, env);
        break;
    case PBR_REDIRECT_INERT:
        outcome.reason = "no usable next hop";
        break;
    case PBR_REDIRECT_PRIORITY_ONLY:
    case PBR_REDIRECT_ABSENT:
        break;
    }
    if (entry.newIpPri > HIGHEST_PRECEDENCE) {
        // Nothing of the entry is applied: half of an action is not what was asked for.
        return {{}, "priority " + std::to_string(entry.newIpPri) +
                        " cannot be set: IP precedence has three bits (1 to 7)", ""};
    }
    outcome.decision.precedence = entry.newIpPri;
    outcome.decision.choice = entry.choice;
    return outcome;
}

bool familyWanted(const RedirectEntry &entry, int family) {
    const std::optional<int> aclFamily = aclVersion(entry.aclNum);
    if (!aclFamily || (*aclFamily != 0 && *aclFamily != family)) {
        return false;
    }
    return entry.ipVer == 0 || (entry.ipVer == 1 && family == 4) || (entry.ipVer == 2 && family == 6);
}

// The variant under which this content is kept; a new one when the node was never seen with it.
uint8_t variantFor(ProgramList &program, NodeKey key, const ProgramNode &node) {
    for (key.variant = 0;; key.variant++) {
        auto [it, isNew] = program.nodes.emplace(key, node);
        if (isNew || it->second == node || key.variant == UINT8_MAX) {
            return key.variant;
        }
    }
}

class Compiler {
public:
    Compiler(const std::string &list, const ProgramEnv &env) : list_(list), env_(env) {}

    void entryAdd(const EntryKey &key, const RedirectEntry &entry) {
        ProgramEntry &result = program_.entries[key];
        result.source = entry;
        if (entry.kind == PBR_REDIRECT_ABSENT) {
            return;
        }
        const std::optional<IfnetLink> link = env_.link(entry.ifUnit);
        if (!link) {
            result.error = "interface " + std::to_string(entry.ifUnit) + " does not exist";
            return;
        }
        result.ifName = link->name;
        compile(entry, result);
    }

    ProgramList take() { return std::move(program_); }

private:
    void compile(const RedirectEntry &entry, ProgramEntry &result) {
        const std::shared_ptr<const AclRules> rules = rulesOf(entry.aclNum);
        Outcome outcome = decide(entry, env_);
        // A node that sends nowhere of itself has nothing that could become unusable.
        outcome.decision.drop = entry.kind != PBR_REDIRECT_PRIORITY_ONLY && env_.drops && env_.drops(list_, entry.nodeIndex);
        result.error = outcome.error;
        result.reason = outcome.reason;
        if (!rules) {
            result.reason = "ACL " + std::to_string(entry.aclNum) + " does not exist";
        }
        bool isAnyFamily = false;
        for (const int family : {4, 6}) {
            if (!familyWanted(entry, family)) {
                continue;
            }
            isAnyFamily = true;
            familyAdd(entry, family, {entry.aclNum, rules, outcome.decision}, result);
        }
        if (!isAnyFamily && result.error.empty()) {
            result.error = "ACL " + std::to_string(entry.aclNum) +
                           " matches no packet of the next hops' IP version";
        }
    }

    void familyAdd(const RedirectEntry &entry, int family, const ProgramNode &node, ProgramEntry &result) {
        if (node.rules) {
            const std::string refusal = programRulesRefusal(node.aclNum, *node.rules, family);
            if (!refusal.empty()) {
                result.error = refusal;
                return;
            }
        }
        NodeKey key{list_, entry.nodeIndex, static_cast<uint8_t>(family), 0};
        result.variant = variantFor(program_, key, node);
        result.families[family == 6] = true;
        result.present = true;
    }

    // One snapshot an ACL and compilation, so that all links of a node see the same rules.
    std::shared_ptr<const AclRules> rulesOf(uint32_t aclNum) {
        auto it = snapshots_.find(aclNum);
        if (it == snapshots_.end()) {
            it = snapshots_.emplace(aclNum, env_.rules(aclNum)).first;
        }
        return it->second;
    }

    const std::string &list_;
    const ProgramEnv &env_;
    ProgramList program_;
    std::map<uint32_t, std::shared_ptr<const AclRules>> snapshots_;
};

} // namespace

std::vector<std::pair<uint32_t, AclRule>> programRules(uint32_t aclNum, const AclRules &rules, int family) {
    std::vector<std::pair<uint32_t, AclRule>> found;
    for (const auto &[number, rule] : rules) {
        const int version = aclRuleVersion(aclNum, rule);
        if (version == 0 || version == family) {
            found.emplace_back(number, rule);
        }
    }
    return found;
}

std::string programRulesRefusal(uint32_t aclNum, const AclRules &rules, int family) {
    if (family != 6) {
        return "";
    }
    for (const auto &[number, rule] : rules) {
        const int version = aclRuleVersion(aclNum, rule);
        if ((version == 0 || version == 6) && isExtensionHeader(rule.protocol)) {
            return "ACL " + std::to_string(aclNum) + " rule " + std::to_string(number) + ": protocol " +
                   std::to_string(rule.protocol) + " is an IPv6 extension header and cannot be matched exactly";
        }
    }
    return "";
}

ProgramList programCompile(const std::string &list, const std::map<EntryKey, RedirectEntry> &entries,
                           const ProgramEnv &env) {
    Compiler compiler(list, env);
    for (const auto &[key, entry] : entries) {
        compiler.entryAdd(key, entry);
    }
    return compiler.take();
}

} // namespace host
