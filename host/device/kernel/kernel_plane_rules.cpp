// The kernel plane's rules that lead packets over others, and the removal of what nobody needs: see
// kernel_plane.h and rule_tree.h.
#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "host/device/kernel/kernel_plane.h"
#include "host/device/kernel/nft_codec.h"
#include "host/device/kernel/rule_tree.h"
#include "host/logging/host_log.h"

namespace host {

namespace {

constexpr const char *RULES_MODULE = "kernel-device";

} // namespace

void KernelPlane::treePlan(const std::set<RtRule> &rules) {
    tree_ = ruleTree(options_, 4, rules, installed_.rt.foreignPreferences);
    const std::vector<RtRule> six = ruleTree(options_, 6, rules, installed_.rt.foreignPreferences);
    tree_.insert(tree_.end(), six.begin(), six.end());
}

// What leads elsewhere now goes before the new comes: the kernel tells rules of one preference and condition apart in
// the order of their age only. Nothing depends on these rules but time. Result: false when one could not be removed.
bool KernelPlane::treeSend() {
    const std::set<RtRule> wanted(tree_.begin(), tree_.end());
    std::set<RtRule> held = installed_.rt.rules;
    std::erase_if(held, [&](const RtRule &rule) { return rule.action != RT_RULE_LOOKUP && wanted.count(rule) == 0; });
    // The kernel puts a new rule behind those of its preference: those to be asked after it have to move.
    std::set<std::pair<uint8_t, uint32_t>> changed;
    for (const RtRule &rule : tree_) {
        const std::pair place(rule.family, rule.preference);
        if (changed.count(place) != 0) {
            held.erase(rule);
        } else if (held.count(rule) == 0) {
            changed.insert(place);
        }
    }
    std::vector<RtStep> steps;
    for (const RtRule &rule : installed_.rt.rules) {
        if (held.count(rule) == 0) {
            steps.push_back({rtRuleMessage(false, rule), {}, 0, [rule](RtImage &image) { image.rules.erase(rule); }});
        }
    }
    const size_t dels = steps.size();
    for (const RtRule &rule : tree_) {
        if (held.count(rule) == 0) {
            steps.push_back({rtRuleMessage(true, rule), {}, 0, [rule](RtImage &image) { image.rules.insert(rule); }});
        }
    }
    isTreeDue_ = false;
    if (steps.empty()) {
        return true;
    }
    counters_.applies++;
    const std::vector<std::string> refusals = stepsDo(steps);
    for (size_t i = dels; i < steps.size(); i++) {
        if (!refusals[i].empty()) {
            hostLog(LOG_LEVEL_WARNING, RULES_MODULE, "the kernel refused a rule that saves packets time: %s", refusals[i].c_str());
        }
    }
    // What was refused is not missed later.
    std::erase_if(tree_, [this](const RtRule &rule) { return installed_.rt.rules.count(rule) == 0; });
    isTreeDue_ = !std::all_of(refusals.begin(), refusals.begin() + static_cast<std::ptrdiff_t>(dels),
                              [](const std::string &refusal) { return refusal.empty(); });
    return !isTreeDue_;
}

KernelPlane::RuleCost KernelPlane::ruleCost(uint8_t family) const {
    std::set<RtRule> lookUps = installed_.rt.rules;
    std::erase_if(lookUps, [](const RtRule &rule) { return rule.action != RT_RULE_LOOKUP; });
    const std::vector<RtRule> rules = rulesInOrder(family, lookUps, tree_);
    RuleCost cost;
    cost.unsteered = ruleWalk(rules, 0).rules;
    for (const RtRule &rule : rules) {
        if (rule.action == RT_RULE_LOOKUP) {
            cost.decisions++;
            cost.steered = std::max(cost.steered, ruleWalk(rules, rule.mark, true).untilTable);
        }
    }
    return cost;
}

// Sends removals, and additions that nothing else depends on. Result: for each step the kernel's refusal. What is gone
// already is as removed as it can be.
std::vector<std::string> KernelPlane::stepsDo(const std::vector<RtStep> &steps) {
    const std::vector<NetlinkError> answers = stepsAnswer(steps);
    std::vector<std::string> refusals(steps.size());
    for (size_t i = 0; i < steps.size(); i++) {
        const bool isGone = answers[i].code == ENOENT || answers[i].code == ESRCH;
        if (!answers[i] || isGone) {
            steps[i].done(installed_.rt);
        } else {
            refusals[i] = answers[i].text;
        }
    }
    return refusals;
}

// Rules first, then what they lead to. A next-hop object takes its routes and memberships with it.
void KernelPlane::junkSteps(const RtImage &wanted, std::vector<RtStep> &steps) const {
    for (const RtRule &rule : installed_.rt.rules) {
        if (wanted.rules.count(rule) == 0) {
            steps.push_back({rtRuleMessage(false, rule), {}, 0, [rule](RtImage &image) { image.rules.erase(rule); }});
        }
    }
    for (const auto &[key, target] : installed_.rt.routes) {
        if (wanted.routes.count(key) == 0) {
            steps.push_back({rtRouteMessage(RtVerb::Del, key, target), {}, 0,
                             [key = key](RtImage &image) { image.routes.erase(key); }});
        }
    }
    for (const auto &[id, group] : installed_.rt.groups) {
        if (wanted.groups.count(id) == 0) {
            steps.push_back({rtNextHopDelMessage(id), {}, 0, [id = id](RtImage &image) { image.groups.erase(id); }});
        }
    }
    for (const auto &[id, nextHop] : installed_.rt.nextHops) {
        if (wanted.nextHops.count(id) == 0) {
            steps.push_back({rtNextHopDelMessage(id), {}, 0, [id = id](RtImage &image) { image.nextHops.erase(id); }});
        }
    }
}

std::string KernelPlane::collect() {
    isCollectDue_ = false;
    model_.decisions().drop();
    RtImage wanted = model_.decisions().wanted();
    std::set<RtRule> staying = installed_.rt.rules;
    const size_t dropped = std::erase_if(staying, [&](const RtRule &rule) {
        return rule.action == RT_RULE_LOOKUP && wanted.rules.count(rule) == 0;
    });
    if (dropped != 0) {
        treePlan(staying);
        (void)treeSend(); // what could not be removed leads past nothing that is in use
    }
    wanted.rules.insert(tree_.begin(), tree_.end());
    std::vector<RtStep> steps;
    junkSteps(wanted, steps);
    std::string remains;
    for (const std::string &refusal : steps.empty() ? std::vector<std::string>{} : stepsDo(steps)) {
        remains = refusal.empty() ? remains : "the kernel did not remove a routing object: " + refusal;
    }
    return remains;
}

std::string KernelPlane::flush() {
    std::string error = resync();
    if (!error.empty()) {
        return error;
    }
    if (installed_.nft.table || installed_.nft.stale) {
        NftBatch batch(sockets_->nft);
        batch.tableDel();
        const NetlinkBatchResult result = batch.send();
        if (!result.ok()) {
            return "table inet policyroute cannot be removed: " +
                   (result.failed.empty() ? std::string("no answer") : result.failed.front().text);
        }
        installed_.nft = {};
    }
    model_.allDirty();
    std::vector<RtStep> steps;
    junkSteps({}, steps);
    stepsSend(steps); // what remains is read back and told, below
    KernelSnapshot snapshot;
    error = snapshotRead(*sockets_, &snapshot);
    installed_ = snapshot;
    tree_.clear();
    isTreeDue_ = true;
    decisionsMark();
    if (!error.empty()) {
        return error;
    }
    return snapshot.rt.isEmpty() && !snapshot.nft.table ? "" : "the kernel did not remove everything";
}

} // namespace host
