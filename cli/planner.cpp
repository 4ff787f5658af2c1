// The differences are found table by table first, then put in order.
#include "cli/planner.h"
#include "schedule/schedule_text.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace cli {

namespace {

using Bindings = std::map<uint32_t, Binding>; // by unit

// What differs, by table.
struct Difference {
    const Policy &running;
    const Policy &wanted;
    Bindings boundNow;
    Bindings boundThen;
    std::set<std::string> touched; // lists of which something changes: they must not be bound meanwhile
    std::set<uint32_t> aclsOfTouched;
};

Bindings bindingsByUnit(const Policy &policy) {
    Bindings bindings;
    for (const Binding &binding : policy.bindings) {
        bindings[binding.unit] = binding;
    }
    return bindings;
}

const List *listOf(const Policy &policy, const std::string &name) {
    const auto found = policy.lists.find(name);
    return found == policy.lists.end() ? nullptr : &found->second;
}

const Node *nodeOf(const List *pList, uint32_t index) {
    if (pList == nullptr) {
        return nullptr;
    }
    const auto found = pList->nodes.find(index);
    return found == pList->nodes.end() ? nullptr : &found->second;
}

bool listEquals(const List &left, const List &right) {
    return std::equal(left.nodes.begin(), left.nodes.end(), right.nodes.begin(), right.nodes.end(),
                      [](const auto &a, const auto &b) { return nodeEquals(a.second, b.second); });
}

void touchedFind(Difference &difference) {
    for (const auto &[name, list] : difference.running.lists) {
        const List *pWanted = listOf(difference.wanted, name);
        if (pWanted == nullptr || !listEquals(list, *pWanted)) {
            difference.touched.insert(name);
        }
    }
    for (const auto &[name, list] : difference.wanted.lists) {
        if (listOf(difference.running, name) == nullptr) {
            difference.touched.insert(name);
        }
    }
    for (const std::string &name : difference.touched) {
        for (const Policy *pPolicy : {&difference.running, &difference.wanted}) {
            if (const List *pList = listOf(*pPolicy, name)) {
                for (const auto &[index, node] : pList->nodes) {
                    difference.aclsOfTouched.insert(node.acl);
                }
            }
        }
    }
}

Step placeStep(StepKind kind, const std::string &list) {
    Step step;
    step.kind = kind;
    step.list = list;
    return step;
}

Step listStep(StepKind kind, const List &list) {
    Step step = placeStep(kind, list.name);
    step.listActive = list.active;
    return step;
}

Step nodeStep(StepKind kind, const std::string &list, const Node &node) {
    Step step = placeStep(kind, list);
    step.node = node;
    return step;
}

Step bindStep(StepKind kind, const Binding &binding) {
    Step step;
    step.kind = kind;
    step.binding = binding;
    return step;
}

Step rebindStep(const Binding &from, const Binding &to) {
    Step step = bindStep(StepKind::Rebind, to);
    step.fromList = from.list;
    return step;
}

// What is wanted, and beside it what runs and is not wanted: it goes when nothing refers to it any more.
template <typename Map> Map united(const Map &running, const Map &wanted) {
    Map both = wanted;
    both.insert(running.begin(), running.end());
    return both;
}

void probesPut(const std::map<std::string, Probe> &before, const std::map<std::string, Probe> &after,
               std::vector<Step> &steps) {
    if (before != after) {
        Step step;
        step.kind = StepKind::ProbesPut;
        step.probes = after;
        step.probesBefore = before;
        steps.push_back(step);
    }
}

void otherwisePut(const std::set<NodePlace> &before, const std::set<NodePlace> &after, std::vector<Step> &steps) {
    if (before != after) {
        Step step;
        step.kind = StepKind::OtherwisePut;
        step.drops = after;
        step.dropsBefore = before;
        steps.push_back(step);
    }
}

void rangesPut(const std::map<uint32_t, Schedule> &before, const std::map<uint32_t, Schedule> &after,
               std::vector<Step> &steps) {
    if (before != after) {
        Step step;
        step.kind = StepKind::RangesPut;
        step.ranges = after;
        step.rangesBefore = before;
        steps.push_back(step);
    }
}

// ACLs that are new or differ. afterRemoval: those that changed lists use now, else the others.
void aclPuts(const Difference &difference, bool afterRemoval, std::vector<Step> &steps) {
    for (const auto &[number, rules] : difference.wanted.acls) {
        const auto now = difference.running.acls.find(number);
        const bool isThere = now != difference.running.acls.end();
        const bool later = isThere && difference.aclsOfTouched.count(number) != 0;
        if (later != afterRemoval || (isThere && now->second == rules)) {
            continue;
        }
        Step step;
        step.kind = StepKind::AclPut;
        step.acl = number;
        step.aclWasThere = isThere;
        step.rules = rules;
        step.before = isThere ? now->second : AclRules();
        steps.push_back(step);
    }
}

void aclRemovals(const Difference &difference, std::vector<Step> &steps) {
    for (const auto &[number, rules] : difference.running.acls) {
        if (difference.wanted.acls.count(number) == 0) {
            Step step;
            step.kind = StepKind::AclRemove;
            step.acl = number;
            step.before = rules;
            steps.push_back(step);
        }
    }
}

// An interface goes from one list to another without a gap when the new list is left as it is and has a
// use left; `uses` counts the interfaces of each list as the steps go on.
bool canRebind(const Difference &difference, const Binding &to, std::map<std::string, size_t> &uses) {
    return difference.touched.count(to.list) == 0 && uses[to.list] < MAX_BOUND;
}

// Takes off what must be off, binds directly what can be; binds holds what must be bound later.
void unbinds(const Difference &difference, std::vector<Step> &steps, std::vector<Step> &binds) {
    std::map<std::string, size_t> uses;
    std::vector<std::pair<Binding, Binding>> moves;
    for (const auto &[unit, now] : difference.boundNow) {
        const auto then = difference.boundThen.find(unit);
        const bool stays = then != difference.boundThen.end();
        if (stays && then->second.list != now.list && difference.touched.count(then->second.list) == 0) {
            uses[now.list]++;
            moves.push_back({now, then->second});
        } else if (!stays || then->second.list != now.list || difference.touched.count(now.list) != 0) {
            steps.push_back(bindStep(StepKind::Unbind, now));
            if (stays) {
                binds.push_back(bindStep(StepKind::Bind, then->second));
            }
        } else {
            uses[now.list]++;
        }
    }
    for (const auto &[now, then] : moves) {
        uses[now.list]--;
        if (canRebind(difference, then, uses)) {
            uses[then.list]++;
            steps.push_back(rebindStep(now, then));
        } else {
            steps.push_back(bindStep(StepKind::Unbind, now));
            binds.push_back(bindStep(StepKind::Bind, then));
        }
    }
    for (const auto &[unit, then] : difference.boundThen) {
        if (difference.boundNow.count(unit) == 0) {
            binds.push_back(bindStep(StepKind::Bind, then));
        }
    }
}

void removals(const Difference &difference, std::vector<Step> &steps) {
    for (const std::string &name : difference.touched) {
        const List *pNow = listOf(difference.running, name);
        const List *pThen = listOf(difference.wanted, name);
        if (pNow == nullptr) {
            continue;
        }
        for (const auto &[index, node] : pNow->nodes) {
            const Node *pNode = nodeOf(pThen, index);
            if (pNode == nullptr || !nodeEquals(node, *pNode)) {
                steps.push_back(nodeStep(StepKind::NodeRemove, name, node));
            }
        }
        if (pThen == nullptr) {
            steps.push_back(listStep(StepKind::ListRemove, *pNow));
        }
    }
}

void makings(const Difference &difference, std::vector<Step> &steps) {
    for (const std::string &name : difference.touched) {
        const List *pNow = listOf(difference.running, name);
        const List *pThen = listOf(difference.wanted, name);
        if (pThen == nullptr) {
            continue;
        }
        if (pNow == nullptr) {
            steps.push_back(listStep(StepKind::ListMake, *pThen));
        }
        for (const auto &[index, node] : pThen->nodes) {
            const Node *pNode = nodeOf(pNow, index);
            if (pNode == nullptr || !nodeEquals(*pNode, node)) {
                steps.push_back(nodeStep(StepKind::NodeMake, name, node));
            }
        }
    }
}

// ---- what the operator reads ----

// The lines of things that are one value each; was and becomes: the values' texts.
template <typename Map, typename Text>
void valueLines(const char *pWhat, const Map &now, const Map &then, Text text, std::vector<std::string> &lines) {
    for (const auto &[key, value] : united(now, then)) {
        const auto before = now.find(key), after = then.find(key);
        std::ostringstream what;
        what << pWhat << " " << key;
        if (before == now.end()) {
            lines.push_back("+ " + what.str() + ": " + text(value));
        } else if (after == then.end()) {
            lines.push_back("- " + what.str());
        } else if (!(before->second == after->second)) {
            lines.push_back("~ " + what.str() + ": " + text(before->second) + " -> " + text(after->second));
        }
    }
}

void aclLines(const Difference &difference, std::vector<std::string> &lines) {
    for (const auto &[number, rules] : difference.wanted.acls) {
        const auto found = difference.running.acls.find(number);
        const bool isThere = found != difference.running.acls.end();
        const AclRules before = isThere ? found->second : AclRules();
        if (isThere && before == rules) {
            continue;
        }
        lines.push_back((isThere ? "~ acl " : "+ acl ") + std::to_string(number));
        for (const auto &[ruleNum, rule] : before) {
            const auto kept = rules.find(ruleNum);
            if (kept == rules.end() || !(kept->second == rule)) {
                lines.push_back("    - " + std::to_string(ruleNum) + " " + rule.text);
            }
        }
        for (const auto &[ruleNum, rule] : rules) {
            const auto had = before.find(ruleNum);
            if (had == before.end() || !(had->second == rule)) {
                lines.push_back("    + " + std::to_string(ruleNum) + " " + rule.text);
            }
        }
    }
    for (const auto &[number, rules] : difference.running.acls) {
        if (difference.wanted.acls.count(number) == 0) {
            lines.push_back("- acl " + std::to_string(number));
        }
    }
}

// " (bound to lan0, lan1)": the interfaces that stay bound to a list that changes.
std::string boundText(const Difference &difference, const std::string &name) {
    std::string names;
    for (const auto &[unit, now] : difference.boundNow) {
        const auto then = difference.boundThen.find(unit);
        if (now.list == name && then != difference.boundThen.end() && then->second.list == name) {
            names += (names.empty() ? "" : ", ") + now.interface;
        }
    }
    return names.empty() ? "" : " (bound to " + names + ")";
}

void nodeLines(const List *pNow, const List *pThen, std::vector<std::string> &lines) {
    std::set<uint32_t> indexes;
    for (const List *pList : {pNow, pThen}) {
        if (pList != nullptr) {
            for (const auto &[index, node] : pList->nodes) {
                indexes.insert(index);
            }
        }
    }
    for (const uint32_t index : indexes) {
        const Node *pBefore = nodeOf(pNow, index), *pAfter = nodeOf(pThen, index);
        const std::string place = "node " + std::to_string(index) + ": ";
        if (pAfter == nullptr) {
            lines.push_back("    - " + place + nodeText(*pBefore));
        } else if (pBefore == nullptr) {
            lines.push_back("    + " + place + nodeText(*pAfter));
        } else if (!nodeEquals(*pBefore, *pAfter)) {
            lines.push_back("    ~ " + place + nodeText(*pBefore) + " -> " + nodeText(*pAfter));
        }
    }
}

void listLines(const Difference &difference, std::vector<std::string> &lines) {
    for (const std::string &name : difference.touched) {
        const List *pNow = listOf(difference.running, name), *pThen = listOf(difference.wanted, name);
        const char *pSign = pNow == nullptr ? "+ " : pThen == nullptr ? "- " : "~ ";
        lines.push_back(pSign + ("list " + name) + boundText(difference, name));
        nodeLines(pNow, pThen, lines);
    }
}

void otherwiseLines(const Difference &difference, std::vector<std::string> &lines) {
    const std::set<NodePlace> &now = difference.running.otherwiseDrop, &then = difference.wanted.otherwiseDrop;
    for (const auto &[list, node] : united(now, then)) {
        const bool isNow = now.count({list, node}) != 0, isThen = then.count({list, node}) != 0;
        if (isNow != isThen) {
            lines.push_back((isThen ? "+ node " : "- node ") + list + "/" + std::to_string(node) + ": otherwise drop");
        }
    }
}

void bindingLines(const Difference &difference, std::vector<std::string> &lines) {
    for (const auto &[unit, now] : difference.boundNow) {
        const auto then = difference.boundThen.find(unit);
        if (then == difference.boundThen.end()) {
            lines.push_back("- binding " + now.interface + ": " + now.list);
        } else if (then->second.list != now.list) {
            lines.push_back("~ binding " + now.interface + ": " + now.list + " -> " + then->second.list);
        }
    }
    for (const auto &[unit, then] : difference.boundThen) {
        if (difference.boundNow.count(unit) == 0) {
            lines.push_back("+ binding " + then.interface + ": " + then.list);
        }
    }
}

template <typename Map> bool isSame(const Map &now, const Map &then, const typename Map::key_type &key) {
    const auto before = now.find(key), after = then.find(key);
    return (before == now.end()) == (after == then.end()) && (before == now.end() || before->second == after->second);
}

// Whether the ACL, a probe, the time range or the last resort of one of the list's nodes changes.
bool surroundingsChange(const Difference &difference, const List &list) {
    const Policy &now = difference.running, &then = difference.wanted;
    return std::any_of(list.nodes.begin(), list.nodes.end(), [&](const auto &each) {
        const Node &node = each.second;
        const NodePlace place{list.name, node.index};
        return now.otherwiseDrop.count(place) != then.otherwiseDrop.count(place) || !isSame(now.acls, then.acls, node.acl) ||
               (node.timeRange && !isSame(now.timeRanges, then.timeRanges, *node.timeRange)) ||
               std::any_of(node.nextHops.begin(), node.nextHops.end(), [&](const NextHop &nextHop) {
                   return !isSame(now.probes, then.probes, probeNameOf(nextHop));
               });
    });
}

// The bound lists whose packets may see a change.
void heldFind(const Difference &difference, std::set<std::string> &held) {
    const std::pair<const Policy *, const Bindings *> sides[] = {{&difference.running, &difference.boundNow},
                                                                 {&difference.wanted, &difference.boundThen}};
    for (const auto &[pPolicy, pBindings] : sides) {
        for (const auto &[unit, binding] : *pBindings) {
            const Bindings &others = pBindings == &difference.boundNow ? difference.boundThen : difference.boundNow;
            const auto other = others.find(unit);
            const List *pList = listOf(*pPolicy, binding.list);
            if (other == others.end() || other->second.list != binding.list ||
                difference.touched.count(binding.list) != 0 ||
                (pList != nullptr && surroundingsChange(difference, *pList))) {
                held.insert(binding.list);
            }
        }
    }
}

void newProbesFind(const Difference &difference, std::set<std::string> &probes) {
    for (const auto &[unit, binding] : difference.boundThen) {
        const List *pList = listOf(difference.wanted, binding.list);
        if (pList == nullptr) {
            continue;
        }
        for (const auto &[index, node] : pList->nodes) {
            for (const NextHop &nextHop : node.nextHops) {
                const std::string name = probeNameOf(nextHop);
                if (!name.empty() && !isSame(difference.running.probes, difference.wanted.probes, name)) {
                    probes.insert(name);
                }
            }
        }
    }
}

void limitCheck(size_t count, uint64_t most, const char *pWhat, const char *pOption,
                const std::vector<std::string> &places, std::vector<PlanProblem> &problems) {
    if (count > most) {
        problems.push_back({places, "the policy has " + std::to_string(count) + " " + pWhat + ", the daemon holds " +
                                        std::to_string(most) + ": raise " + pOption + " and restart the daemon"});
    }
}

// A record without a list takes the place of a binding, unless one of the bindings takes it.
void bindingsLimitCheck(const Policy &wanted, const Limits &limits, std::vector<PlanProblem> &problems) {
    std::set<uint32_t> units = limits.idleInterfaces;
    std::string tooMany; // the first interface for which there is no record
    for (const Binding &binding : wanted.bindings) {
        units.insert(binding.unit);
        if (units.size() > limits.maxInterfaces && tooMany.empty()) {
            tooMany = binding.interface;
        }
    }
    if (!tooMany.empty()) {
        const size_t idle = units.size() - wanted.bindings.size();
        const std::string aside = idle == 0 ? "" : " (" + std::to_string(idle) + " of them without a list)";
        limitCheck(units.size(), limits.maxInterfaces, ("interfaces" + aside).c_str(), "policyroute.maxifnum",
                   {"binding " + tooMany, "bindings"}, problems);
    }
}

void limitsCheck(const Policy &wanted, const Limits &limits, std::vector<PlanProblem> &problems) {
    size_t nodes = 0, nextHops = 0;
    for (const auto &[name, list] : wanted.lists) {
        nodes += list.nodes.size();
        for (const auto &[index, node] : list.nodes) {
            nextHops += node.nextHops.size();
        }
    }
    limitCheck(wanted.lists.size(), limits.maxLists, "lists", "policyroute.maxlistnum", {"lists"}, problems);
    limitCheck(nodes, limits.maxNodes, "nodes", "policyroute.maxnodenum", {"lists"}, problems);
    limitCheck(nextHops, uint64_t{4} * limits.maxNodes, "next hops", "policyroute.maxnodenum", {"lists"}, problems);
    bindingsLimitCheck(wanted, limits, problems);
}

// The number behind the first `word`; empty without one.
std::string digitsAfter(const std::string &text, const std::string &word) {
    const size_t at = text.find(word);
    const size_t first = at == std::string::npos ? text.size() : at + word.size();
    size_t last = first;
    while (last < text.size() && text[last] >= '0' && text[last] <= '9') {
        last++;
    }
    return text.substr(first, last - first);
}

// The longest name that the text tells.
std::string probeNamedIn(const std::string &text, const std::map<std::string, Probe> &probes) {
    std::string named;
    for (const auto &[name, probe] : probes) {
        if (name.size() > named.size() && text.find(name) != std::string::npos) {
            named = name;
        }
    }
    return named;
}

} // namespace

Plan planMake(const Policy &running, const Policy &wanted, const Limits &limits) {
    Difference difference{running, wanted, bindingsByUnit(running), bindingsByUnit(wanted), {}, {}};
    touchedFind(difference);
    Plan plan;
    std::vector<Step> binds;
    const auto allProbes = united(running.probes, wanted.probes);
    const auto allRanges = united(running.timeRanges, wanted.timeRanges);
    const auto allDrops = united(running.otherwiseDrop, wanted.otherwiseDrop);
    probesPut(running.probes, allProbes, plan.steps);
    otherwisePut(running.otherwiseDrop, allDrops, plan.steps);
    rangesPut(running.timeRanges, allRanges, plan.steps);
    aclPuts(difference, false, plan.steps);
    unbinds(difference, plan.steps, binds);
    removals(difference, plan.steps);
    aclPuts(difference, true, plan.steps);
    makings(difference, plan.steps);
    plan.steps.insert(plan.steps.end(), binds.begin(), binds.end());
    aclRemovals(difference, plan.steps);
    rangesPut(allRanges, wanted.timeRanges, plan.steps);
    probesPut(allProbes, wanted.probes, plan.steps);
    otherwisePut(allDrops, wanted.otherwiseDrop, plan.steps);
    aclLines(difference, plan.lines);
    valueLines("probe", running.probes, wanted.probes, probeText, plan.lines);
    valueLines("time-range", running.timeRanges, wanted.timeRanges, schedule::scheduleText, plan.lines);
    listLines(difference, plan.lines);
    otherwiseLines(difference, plan.lines);
    bindingLines(difference, plan.lines);
    limitsCheck(wanted, limits, plan.problems);
    heldFind(difference, plan.held);
    newProbesFind(difference, plan.newProbes);
    return plan;
}

Step stepUndo(const Step &step) {
    Step undo = step;
    switch (step.kind) {
    case StepKind::ProbesPut: std::swap(undo.probes, undo.probesBefore); break;
    case StepKind::OtherwisePut: std::swap(undo.drops, undo.dropsBefore); break;
    case StepKind::RangesPut: std::swap(undo.ranges, undo.rangesBefore); break;
    case StepKind::AclPut:
        undo.kind = step.aclWasThere ? StepKind::AclPut : StepKind::AclRemove;
        std::swap(undo.rules, undo.before);
        break;
    case StepKind::AclRemove:
        undo.kind = StepKind::AclPut;
        undo.aclWasThere = false;
        std::swap(undo.rules, undo.before);
        break;
    case StepKind::Unbind: undo.kind = StepKind::Bind; break;
    case StepKind::Bind: undo.kind = StepKind::Unbind; break;
    case StepKind::Rebind: std::swap(undo.fromList, undo.binding.list); break;
    case StepKind::NodeRemove: undo.kind = StepKind::NodeMake; break;
    case StepKind::NodeMake: undo.kind = StepKind::NodeRemove; break;
    case StepKind::ListRemove: undo.kind = StepKind::ListMake; break;
    case StepKind::ListMake: undo.kind = StepKind::ListRemove; break;
    }
    return undo;
}

std::string stepText(const Step &step) {
    const std::string acl = "acl " + std::to_string(step.acl);
    const std::string node = "node " + step.list + "/" + std::to_string(step.node.index);
    const std::string binding = step.binding.interface + ": ";
    switch (step.kind) {
    case StepKind::ProbesPut: return "set the probes";
    case StepKind::RangesPut: return "set the time ranges";
    case StepKind::OtherwisePut: return "set which nodes drop with nothing usable";
    case StepKind::AclPut: return (step.aclWasThere ? "change " : "make ") + acl;
    case StepKind::AclRemove: return "remove " + acl;
    case StepKind::Unbind: return "take list " + step.binding.list + " off " + step.binding.interface;
    case StepKind::Bind: return "bind " + binding + step.binding.list;
    case StepKind::Rebind: return "bind " + binding + step.binding.list + " instead of " + step.fromList;
    case StepKind::NodeRemove: return "remove " + node;
    case StepKind::NodeMake: return "make " + node + " (" + nodeText(step.node) + ")";
    case StepKind::ListRemove: return "remove list " + step.list;
    case StepKind::ListMake: return "make list " + step.list;
    }
    return "";
}

std::vector<std::string> aclPlaces(const std::string &refusal) {
    const std::string acl = "acl " + digitsAfter(refusal, "ACL ");
    return {acl + " rule " + digitsAfter(refusal, " rule "), acl, "acls"};
}

std::vector<std::string> stepPlaces(const Step &step, const std::string &refusal) {
    const std::string node = "node " + step.list + "/" + std::to_string(step.node.index);
    const std::string acl = "acl " + std::to_string(step.acl);
    switch (step.kind) {
    case StepKind::ProbesPut: return {"probe " + probeNamedIn(refusal, step.probes), "probes"};
    case StepKind::RangesPut: return {"time-range " + digitsAfter(refusal, "range "), "time-ranges"};
    case StepKind::OtherwisePut: return {"lists"};
    case StepKind::AclPut:
    case StepKind::AclRemove: return {acl + " rule " + digitsAfter(refusal, " rule "), acl, "acls"};
    case StepKind::Unbind:
    case StepKind::Bind:
    case StepKind::Rebind:
        return {"binding " + step.binding.interface, "list " + step.binding.list, "bindings", "lists"};
    case StepKind::NodeRemove:
    case StepKind::NodeMake: return {node, "list " + step.list, "lists"};
    case StepKind::ListRemove:
    case StepKind::ListMake: return {"list " + step.list, "lists"};
    }
    return {};
}

} // namespace cli
