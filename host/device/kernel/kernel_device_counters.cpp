// What the policy counted: the part of KernelDevice behind `pbrctl show policy-counters`. The counters are
// those of the kernel's rules; the program says whose they are.
#include <nlohmann/json.hpp>

#include "host/device/kernel/kernel_device.h"
#include "host/device/kernel/nft_codec.h"

namespace host {

namespace {

using nlohmann::json;
using Counts = std::map<std::string, NftChainCounts>;
using FrontCounts = std::map<KernelFront::CountKey, NftCount>;

json countShow(const NftCount &count) { return {{"packets", count.packets}, {"bytes", count.bytes}}; }

// A flat list has a chain a rule, others have one a node.
NftCount countOf(const KernelRuleName &name, size_t place, bool isFlat, const Counts &counts) {
    const auto chain = counts.find(isFlat ? kernelRuleChain(name) : kernelMatchChain(name.node));
    const size_t at = isFlat ? 0 : place;
    return chain == counts.end() || at >= chain->second.size() ? NftCount{} : chain->second[at].second;
}

NftCount countSum(const NftCount &left, const NftCount &right) {
    return {left.packets + right.packets, left.bytes + right.bytes};
}

json rulesShow(const NodeKey &key, const ProgramNode &node, bool isFlat, const Counts &counts, const FrontCounts &front) {
    json shown = json::array();
    if (!node.rules || (!isFlat && counts.count(kernelMatchChain(key)) == 0)) {
        return shown;
    }
    // The chain has the rules in the program's order; while it is being changed it may be shorter.
    size_t i = 0;
    for (const auto &[number, rule] : programRules(node.aclNum, *node.rules, key.family)) {
        const auto before = front.find({key, node.aclNum, number});
        json row = countShow(countSum(countOf({key, node.aclNum, number, rule.permit}, i, isFlat, counts),
                                      before == front.end() ? NftCount{} : before->second));
        row["rule"] = number;
        row["text"] = aclRuleFormat(node.aclNum, rule);
        shown.push_back(std::move(row));
        i++;
    }
    return shown;
}

} // namespace

json KernelDevice::policyCounters() {
    Counts counts;
    const std::string error = readers_ == nullptr ? "" : nftCountsRead(readers_->nft, "", &counts);
    if (!error.empty()) {
        throw std::runtime_error(error);
    }
    std::lock_guard guard(lock_);
    const FrontCounts front = hooks_.pFront ? hooks_.pFront->counts() : FrontCounts{};
    json shown = json::array();
    for (const auto &[list, program] : plane_.model().lists()) {
        for (const auto &[key, node] : program.nodes) {
            const auto action = counts.find(kernelActionChain(key));
            const bool isCounted = action != counts.end() && !action->second.empty();
            json row = countShow(countSum(isCounted ? action->second.front().second : NftCount{}, frontCount(front, key, node)));
            row["list"] = list;
            row["node"] = key.nodeIndex;
            row["ipVersion"] = key.family;
            row["acl"] = node.aclNum;
            row["rules"] = rulesShow(key, node, plane_.model().isFlat(list, key.family), counts, front);
            shown.push_back(std::move(row));
        }
    }
    return {{"counters", std::move(shown)}};
}

std::string KernelDevice::policyCountersClear() {
    std::lock_guard guard(lock_);
    if (isHeld_) {
        return "the policy of an earlier run is still in force; try again when the next hops are known";
    }
    if (isFlushed_ || !isStarted_) {
        return "";
    }
    if (hooks_.pFront) {
        hooks_.pFront->countsClear();
    }
    return plane_.countsClear();
}

} // namespace host
