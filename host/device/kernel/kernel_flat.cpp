// A list's nodes as maps: see kernel_flat.h. Used by the kernel model; calls the maps' names and the matches.
//
// A packet never comes back behind the jump that it left by `goto`: the last section ends in `accept`, which
// is what the base chain does with packets that no node wants.
#include "host/device/kernel/kernel_flat.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <utility>

#include "host/device/kernel/kernel_map.h"
#include "host/device/kernel/kernel_match.h"

namespace host {

namespace {

std::string ruleComment(uint32_t aclNum, uint32_t number) {
    return "acl " + std::to_string(aclNum) + " rule " + std::to_string(number);
}

std::string chainName(const char *pKind, int family, const std::string &label) {
    return pKind + std::to_string(family) + "/" + label;
}

class FlatBuilder {
public:
    FlatBuilder(const std::vector<KernelFlatNode> &nodes, const ClassPlan &plan)
        : nodes_(nodes), plan_(plan), family_(nodes.front().key.family), list_(nodes.front().key.list),
          label_(kernelNameEncode(list_)) {
        for (uint32_t node = 0; node < nodes.size(); node++) {
            for (uint32_t rule = 0; rule < nodes[node].rules.size(); rule++) {
                places_.emplace_back(node, rule);
            }
        }
    }

    KernelFlat build() {
        for (size_t section = 0; section < plan_.sections.size(); section++) {
            chain_.clear();
            for (size_t step = 0; step < plan_.sections[section].size(); step++) {
                const ClassStep &planned = plan_.sections[section][step];
                if (planned.kind == ClassStepKind::Linear) {
                    linearAdd(planned, section, step);
                } else {
                    mapAdd(planned, section);
                }
            }
            chain_.push_back({{wayOn(section)}, ""});
            flat_.chains[kernelFlatChain(family_, list_, section)].rules = std::move(chain_);
        }
        return std::move(flat_);
    }

private:
    uint32_t nodeOf(uint32_t rule) const { return places_[rule].first; }
    const AclRule &aclRule(uint32_t rule) const { return nodes_[nodeOf(rule)].rules[places_[rule].second].second; }

    KernelRuleName nameOf(uint32_t rule) const {
        const KernelFlatNode &node = nodes_[nodeOf(rule)];
        const auto &[number, value] = node.rules[places_[rule].second];
        return {node.key, node.aclNum, number, value.permit};
    }

    // The rule's own chain, which is made.
    std::string ruleChain(uint32_t rule) {
        KernelRuleName name = nameOf(rule);
        std::string chain = kernelRuleChain(name);
        KernelFlatChain &made = flat_.chains[chain];
        if (!made.name) {
            made.rules = kernelRuleRules(name);
            made.name = std::move(name);
        }
        return chain;
    }

    // From a section to the next one; behind the last no node matches.
    NftExpr wayOn(size_t section) const {
        return section + 1 < plan_.sections.size() ? nftVerdict(NFT_GOTO, kernelFlatChain(family_, list_, section + 1))
                                                   : nftVerdict(NF_ACCEPT);
    }

    // Where the rules met lead: a chain, and whether packets come back from it.
    std::pair<std::string, bool> wayOf(const std::vector<uint32_t> &met, ClassEnd end, size_t section) {
        const bool isBack = end == ClassEnd::GoOn;
        if (met.size() == 1 && end != ClassEnd::Leave) {
            return {ruleChain(met.front()), isBack};
        }
        std::string label;
        std::vector<NftRule> rules;
        for (const uint32_t rule : met) {
            const KernelRuleName name = nameOf(rule);
            label += (label.empty() ? "" : "-") + std::to_string(name.node.nodeIndex) + "." + std::to_string(name.number);
            rules.push_back({{nftVerdict(name.permit ? NFT_GOTO : NFT_JUMP, ruleChain(rule))}, ""});
        }
        if (end == ClassEnd::Leave) {
            rules.push_back({{wayOn(section)}, ""});
        }
        const std::string chain = chainName("path", family_, label_ + "/" + label);
        flat_.chains[chain].rules = std::move(rules);
        return {chain, isBack};
    }

    void mapAdd(const ClassStep &step, size_t section) {
        const KernelMapLayout layout{step.kind, family_, step.fields};
        size_t number = 0;
        std::string name = kernelMapName(layout, label_, number);
        while (flat_.sets.count(name) != 0) {
            name = kernelMapName(layout, label_, ++number);
        }
        flat_.sets.insert(name);
        for (const ClassCell &cell : step.cells) {
            const auto [chain, isBack] = wayOf(cell.rules, classCellEnd(plan_, cell), section);
            flat_.elements[{name, kernelMapKey(layout, cell)}] = (isBack ? NFT_JUMP_TO : "") + chain;
        }
        std::vector<NftExpr> exprs = kernelMatchExprs(step.guard, family_);
        for (NftExpr &expr : kernelMapLoads(layout, step.guard)) {
            exprs.push_back(std::move(expr));
        }
        NftExpr look;
        look.op = NftOp::VerdictMap;
        look.name = name;
        exprs.push_back(std::move(look));
        chain_.push_back({std::move(exprs), ""});
    }

    // Rules of one node stand in a chain of their own when a deny rule among them passes over others.
    void linearAdd(const ClassStep &step, size_t section, size_t place) {
        for (size_t begin = 0, end = 0; begin < step.rules.size(); begin = end) {
            bool isPassing = false;
            while (end < step.rules.size() && nodeOf(step.rules[end]) == nodeOf(step.rules[begin])) {
                isPassing = isPassing || (end > begin && !aclRule(step.rules[end - 1]).permit);
                end++;
            }
            std::vector<NftRule> part;
            for (size_t i = begin; i < end; i++) {
                (isPassing ? part : chain_).push_back(linearRule(step.rules[i], section, isPassing));
            }
            if (isPassing) {
                const uint32_t node = nodes_[nodeOf(step.rules[begin])].key.nodeIndex;
                const std::string chain = chainName("part", family_, label_ + "/" + std::to_string(section) + "." +
                                                                         std::to_string(place) + "/" + std::to_string(node));
                flat_.chains[chain].rules = std::move(part);
                chain_.push_back({{nftVerdict(NFT_JUMP, chain)}, ""});
            }
        }
    }

    NftRule linearRule(uint32_t rule, size_t section, bool isPart) {
        const bool permit = aclRule(rule).permit;
        const ClassEnd end = permit ? ClassEnd::Decide : plan_.leaves[rule] ? ClassEnd::Leave : ClassEnd::GoOn;
        const auto [chain, isBack] = wayOf({rule}, end, section);
        std::vector<NftExpr> exprs = kernelMatchExprs(aclRule(rule), family_);
        // Out of a part a deny rule's `goto` returns behind the jump to the part.
        exprs.push_back(nftVerdict(isBack && !isPart ? NFT_JUMP : NFT_GOTO, chain));
        const KernelRuleName name = nameOf(rule);
        return {std::move(exprs), ruleComment(name.aclNum, name.number)};
    }

    const std::vector<KernelFlatNode> &nodes_;
    const ClassPlan &plan_;
    const uint8_t family_;
    const std::string list_, label_;
    std::vector<std::pair<uint32_t, uint32_t>> places_; // by rule: node, place in the node's rules
    std::vector<NftRule> chain_;                        // of the section being built
    KernelFlat flat_;
};

} // namespace

std::string kernelFlatChain(int family, const std::string &list, size_t section) {
    const std::string label = kernelNameEncode(list);
    return chainName("flat", family, section == 0 ? label : label + "/" + std::to_string(section));
}

std::string kernelRuleChain(const KernelRuleName &name) {
    return chainName(name.permit ? "rule" : "skip", name.node.family,
                     kernelNameEncode(name.node.list) + "/" + std::to_string(name.node.nodeIndex) + "/" + std::to_string(name.number));
}

std::vector<NftRule> kernelRuleRules(const KernelRuleName &name) {
    NftRule rule{{NftExpr{}}, ruleComment(name.aclNum, name.number)}; // a counter
    if (name.permit) {
        rule.exprs.push_back(nftVerdict(NFT_GOTO, kernelActionChain(name.node)));
    }
    return {std::move(rule)};
}

std::vector<ClassRule> kernelFlatRules(const std::vector<KernelFlatNode> &nodes) {
    std::vector<ClassRule> rules;
    for (uint32_t node = 0; node < nodes.size(); node++) {
        for (const auto &[number, rule] : nodes[node].rules) {
            rules.push_back({node, rule});
        }
    }
    return rules;
}

KernelFlat kernelFlat(const std::vector<KernelFlatNode> &nodes, const ClassPlan &plan) { return FlatBuilder(nodes, plan).build(); }

} // namespace host
