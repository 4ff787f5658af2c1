// What a packet pays: the part of KernelDevice behind `pbrctl explain --cost` and the lists of `show device`. Answers from
// the model and from what is installed, and asks the kernel for nothing.
#include <algorithm>

#include <nlohmann/json.hpp>

#include "host/device/kernel/kernel_device.h"

namespace host {

namespace {

using CostJson = nlohmann::json;

constexpr const char *NOT_ALONE = "no rules, or its interfaces do not all ask the same nodes of it alone";

std::string whyNotFlat(const KernelCost &cost) {
    return !cost.refused.empty()  ? "the kernel refused the maps: " + cost.refused
           : cost.steps.empty()   ? NOT_ALONE
           : cost.isFlat          ? ""
                                  : "no map comes out of its rules";
}

// Look-ups, and rules that are compared one by one, until no node has matched.
std::pair<size_t, size_t> mostOf(const KernelCost &cost) {
    std::pair<size_t, size_t> most;
    for (const KernelStep &step : cost.steps) {
        const bool isMap = cost.isFlat && step.kind != ClassStepKind::Linear;
        most.first += isMap ? 1 : 0;
        most.second += isMap ? 0 : step.rules;
    }
    return most;
}

// Of nodes that are compared one after the other, whose interfaces may have other nodes too.
KernelCost rowOf(const KernelAsked &asked, const std::map<std::string, ProgramList> &lists, const std::string &why) {
    constexpr size_t PLACES = 10;
    KernelCost cost{asked.nodes.empty() ? "" : asked.nodes.front().list, asked.family, false, "", 1, {}};
    KernelStep step;
    step.reason = why;
    for (const NodeKey &key : asked.nodes) {
        const ProgramNode &node = lists.at(key.list).nodes.at(key);
        const auto rules = node.rules ? programRules(node.aclNum, *node.rules, key.family)
                                      : std::vector<std::pair<uint32_t, AclRule>>();
        step.rules += rules.size();
        for (size_t i = 0; i < rules.size() && step.places.size() < PLACES; i++) {
            step.places.emplace_back(key.nodeIndex, rules[i].first);
        }
    }
    cost.steps.push_back(std::move(step));
    return cost;
}

} // namespace

// isWithText: also the rules that are named, in words.
CostJson KernelDevice::stepsShow(const KernelCost &cost, bool isWithText) const {
    const auto textOf = [&](uint32_t nodeIndex, uint32_t number) -> std::string {
        const auto &nodes = plane_.model().lists().at(cost.list).nodes;
        const auto node = nodes.lower_bound({cost.list, nodeIndex, cost.family, 0});
        if (node == nodes.end() || node->first.nodeIndex != nodeIndex || !node->second.rules ||
            node->second.rules->count(number) == 0) {
            return "";
        }
        return aclRuleFormat(node->second.aclNum, node->second.rules->at(number));
    };
    CostJson steps = CostJson::array();
    for (const KernelStep &step : cost.steps) {
        CostJson fields = CostJson::array(), places = CostJson::array();
        for (const ClassField field : step.fields) {
            fields.push_back(classFieldName(field));
        }
        for (const auto &[node, rule] : step.places) {
            places.push_back({{"node", node}, {"rule", rule}});
            if (isWithText) {
                places.back()["text"] = textOf(node, rule);
            }
        }
        steps.push_back({{"kind", classStepText(step.kind)}, {"fields", std::move(fields)}, {"rules", step.rules},
                         {"elements", step.cells}, {"reason", step.reason}, {"first", std::move(places)}});
    }
    return steps;
}

// What a packet pays for a list.
CostJson KernelDevice::listsShow() const {
    CostJson shown = CostJson::array();
    for (const KernelCost &cost : plane_.model().costs()) {
        const auto [maps, linear] = mostOf(cost);
        shown.push_back({{"list", cost.list}, {"ipVersion", cost.family}, {"flat", cost.isFlat}, {"why", whyNotFlat(cost)},
                         {"mostLookUps", maps}, {"mostRules", linear}, {"sections", cost.sections},
                         {"steps", stepsShow(cost, false)}});
    }
    return shown;
}

CostJson KernelDevice::costs(std::optional<uint32_t> ifUnit) {
    std::lock_guard guard(lock_);
    const std::string only = ifUnit ? linkName(*ifUnit) : "";
    const KernelModel &model = plane_.model();
    const std::vector<KernelCost> lists = model.costs();
    CostJson shown = CostJson::array();
    for (const KernelAsked &asked : model.asked()) {
        if (ifUnit && asked.ifName != only) {
            continue;
        }
        std::set<std::string> names;
        for (const NodeKey &node : asked.nodes) {
            names.insert(node.list);
        }
        const std::string name = names.empty() ? "" : *names.begin();
        const auto known = std::find_if(lists.begin(), lists.end(), [&](const KernelCost &cost) {
            return names.size() == 1 && cost.list == name && cost.family == asked.family && !cost.steps.empty();
        });
        const bool isKnown = known != lists.end();
        const KernelCost cost = isKnown ? *known : rowOf(asked, model.lists(), NOT_ALONE);
        const auto [maps, linear] = mostOf(cost);
        const KernelPlane::RuleCost rules = plane_.ruleCost(asked.family);
        shown.push_back({{"interface", asked.ifName}, {"ipVersion", asked.family}, {"lists", names}, {"flat", cost.isFlat},
                         {"why", isKnown ? whyNotFlat(cost) : NOT_ALONE}, {"mostLookUps", maps}, {"mostRules", linear},
                         {"sections", cost.sections}, {"steps", stepsShow(cost, true)},
                         {"routingRules", {{"decisions", rules.decisions}, {"unsteered", rules.unsteered}, {"steered", rules.steered}}}});
    }
    return {{"costs", std::move(shown)}};
}

} // namespace host
