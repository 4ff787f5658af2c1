// A list's nodes as maps: from the plan of look-ups (host/classify) to chains, sets and elements. Pure.
//
//   flatF/LIST            the first section: a rule a look-up, rules that are compared one by one, and the way on
//   flatF/LIST/N          section N
//   mapF/LIST/N/...       the maps (kernel_map.h)
//   ruleF/LIST/NODE/RULE  a permit rule was met: counts it, goes to the node's action chain
//   skipF/LIST/NODE/RULE  a deny rule was met: counts it; packets come back
//   pathF/LIST/N.R-N.R    several rules were met: counts all, goes where the last one leads
//   partF/LIST/N.M/NODE   rules of one node that are compared one by one, a deny rule among them
//
// What leads to a node is its action chain (kernel_rules.h), as in lists that are compared one by one: a
// decision changes the same one rule.
#ifndef HOST_DEVICE_KERNEL_KERNEL_FLAT_H
#define HOST_DEVICE_KERNEL_KERNEL_FLAT_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/classify/class_plan.h"
#include "host/device/kernel/kernel_rules.h"
#include "host/device/kernel/nft_value.h"
#include "host/device/kernel/program.h"

namespace host {

// A rule that counts.
struct KernelRuleName {
    NodeKey node;
    uint32_t aclNum = 0;
    uint32_t number = 0;
    bool permit = true;
    bool operator==(const KernelRuleName &) const = default;
};

std::string kernelFlatChain(int family, const std::string &list, size_t section = 0);
std::string kernelRuleChain(const KernelRuleName &name);        // rule4/wan/10/5, skip4/wan/10/5
std::vector<NftRule> kernelRuleRules(const KernelRuleName &name); // of that chain

// A node in its place, with the rules of the family.
struct KernelFlatNode {
    NodeKey key;
    uint32_t aclNum = 0;
    std::vector<std::pair<uint32_t, AclRule>> rules;
};

struct KernelFlatChain {
    std::vector<NftRule> rules;
    std::optional<KernelRuleName> name; // of a rule's own chain
};

struct KernelFlat {
    std::map<std::string, KernelFlatChain> chains;
    std::set<std::string> sets;
    std::map<NftElementKey, std::string> elements; // targets as NftImage has them
};

// The rules of the nodes in their order, as the plan wants them. Lock: none
std::vector<ClassRule> kernelFlatRules(const std::vector<KernelFlatNode> &nodes);

// nodes: variant 0 of one list and family; plan: of kernelFlatRules(nodes), with keys of KERNEL_MAP_FIELDS
// fields at most. Lock: none
KernelFlat kernelFlat(const std::vector<KernelFlatNode> &nodes, const ClassPlan &plan);

} // namespace host

#endif
