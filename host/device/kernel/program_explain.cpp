// See program_explain.h. Called by the devices.
#include "host/device/kernel/program_explain.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

namespace host {

namespace {

using aclrule::AclAnswer;
using nlohmann::json;

// Looks at the rules in their order until one answers.
void rulesAsk(ExplainNode &node, const ProgramNode &program, const aclrule::AclPacket &packet) {
    node.outcome = ExplainOutcome::NoMatch;
    if (!program.rules) {
        node.why = "ACL " + std::to_string(program.aclNum) + " does not exist";
        return;
    }
    for (const auto &[number, rule] : programRules(program.aclNum, *program.rules, packet.version)) {
        node.rules.push_back({number, rule, aclRuleMatch(program.aclNum, rule, packet)});
        const aclrule::AclMatch &match = node.rules.back().match;
        if (match.answer == AclAnswer::Unknown) {
            node.outcome = ExplainOutcome::Unknown;
            node.why = "ACL " + std::to_string(program.aclNum) + " rule " + std::to_string(number) + ": " + match.why;
            return;
        }
        if (match.answer == AclAnswer::Match) {
            node.outcome = rule.permit ? ExplainOutcome::Matched : ExplainOutcome::Denied;
            return;
        }
    }
}

// Why a node is not asked about packets of this family; empty: it is.
std::string leftOut(const ProgramEntry &entry, int family, const std::function<std::string()> &refusal) {
    if (entry.source.kind == PBR_REDIRECT_ABSENT) {
        return "not in force: no ACL, forward flag 2, or its time range is not active";
    }
    if (!entry.families[family == 6]) {
        const bool isOther = entry.families[family != 6];
        return !entry.error.empty() || !isOther ? entry.error
                                                : "it is for IPv" + std::to_string(family == 6 ? 4 : 6) + " packets";
    }
    return refusal();
}

ExplainNode nodeAsk(const std::string &list, const ProgramList &program, const EntryKey &key,
                    const aclrule::AclPacket &packet, const std::function<std::string(const NodeKey &)> &refusal) {
    const ProgramEntry &entry = program.entries.at(key);
    ExplainNode node;
    node.entryKey = key;
    node.aclNum = entry.source.aclNum;
    node.key = {list, key.second, static_cast<uint8_t>(packet.version), entry.variant};
    node.why = leftOut(entry, packet.version, [&] { return refusal(node.key); });
    if (node.why.empty() && entry.families[packet.version == 6]) {
        rulesAsk(node, program.nodes.at(node.key), packet);
    }
    return node;
}

const char *outcomeText(ExplainOutcome outcome) {
    switch (outcome) {
    case ExplainOutcome::Matched: return "matched";
    case ExplainOutcome::Denied: return "denied";
    case ExplainOutcome::NoMatch: return "no match";
    case ExplainOutcome::LeftOut: return "left out";
    case ExplainOutcome::Unknown: return "unknown";
    }
    return "";
}

const char *answerText(AclAnswer answer) {
    return answer == AclAnswer::Match ? "match" : answer == AclAnswer::Miss ? "miss" : "unknown";
}

json nodeShow(const ExplainNode &node) {
    json rules = json::array();
    for (const ExplainRule &rule : node.rules) {
        rules.push_back({{"rule", rule.number},
                         {"text", aclRuleFormat(node.aclNum, rule.rule)},
                         {"answer", answerText(rule.match.answer)},
                         {"why", rule.match.why}});
    }
    return {{"list", node.key.list}, {"node", node.key.nodeIndex}, {"acl", node.aclNum},
            {"outcome", outcomeText(node.outcome)}, {"why", node.why}, {"rules", std::move(rules)}};
}

} // namespace

const ExplainNode *ProgramExplanation::decider() const {
    return nodes.empty() || nodes.back().outcome != ExplainOutcome::Matched ? nullptr : &nodes.back();
}

ProgramExplanation programExplain(const std::map<std::string, ProgramList> &lists, uint32_t ifUnit,
                                  const aclrule::AclPacket &packet,
                                  const std::function<std::string(const NodeKey &)> &refusal) {
    std::vector<std::pair<uint32_t, std::string>> asked; // node, list: the order of the interface's chain
    for (const auto &[list, program] : lists) {
        for (const auto &[key, entry] : program.entries) {
            if (key.first == ifUnit) {
                asked.emplace_back(key.second, list);
            }
        }
    }
    std::sort(asked.begin(), asked.end());
    ProgramExplanation explanation;
    explanation.isBound = !asked.empty();
    for (const auto &[nodeIndex, list] : asked) {
        explanation.nodes.push_back(nodeAsk(list, lists.at(list), {ifUnit, nodeIndex}, packet, refusal));
        const ExplainOutcome outcome = explanation.nodes.back().outcome;
        if (outcome == ExplainOutcome::Matched || outcome == ExplainOutcome::Unknown) {
            break;
        }
    }
    return explanation;
}

json programExplainShow(const ProgramExplanation &explanation) {
    json shown = {{"verdict", "normal"}, {"why", ""}, {"nodes", json::array()}};
    for (const ExplainNode &node : explanation.nodes) {
        shown["nodes"].push_back(nodeShow(node));
    }
    const ExplainNode *pNode = explanation.decider();
    if (pNode != nullptr) {
        shown["verdict"] = "policy";
        shown["list"] = pNode->key.list;
        shown["node"] = pNode->key.nodeIndex;
        shown["acl"] = pNode->aclNum;
        shown["rule"] = pNode->rules.back().number;
        shown["ruleText"] = aclRuleFormat(pNode->aclNum, pNode->rules.back().rule);
    } else if (!explanation.isBound) {
        shown["why"] = "no list is bound to the interface";
    } else if (explanation.nodes.back().outcome == ExplainOutcome::Unknown) {
        shown["verdict"] = "unknown";
        shown["why"] = explanation.nodes.back().why;
    } else {
        shown["why"] = "no node matches it";
    }
    return shown;
}

} // namespace host
