// The differences are found table by table first, then put in order.
#include "cli/planner.h"

#include <algorithm>
#include <set>

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

Step listStep(StepKind kind, const std::string &list) {
    Step step;
    step.kind = kind;
    step.list = list;
    return step;
}

Step nodeStep(StepKind kind, const std::string &list, const Node &node) {
    Step step = listStep(kind, list);
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
            steps.push_back(listStep(StepKind::ListRemove, name));
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
            steps.push_back(listStep(StepKind::ListMake, name));
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

// " (off and on again: lan0, lan1)": the interfaces that stay bound to a list that changes.
std::string pauseText(const Difference &difference, const std::string &name) {
    std::string names;
    for (const auto &[unit, now] : difference.boundNow) {
        const auto then = difference.boundThen.find(unit);
        if (now.list == name && then != difference.boundThen.end() && then->second.list == name) {
            names += (names.empty() ? "" : ", ") + now.interface;
        }
    }
    return names.empty() ? "" : " (taken off " + names + " and bound again around the change)";
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
        lines.push_back(pSign + ("list " + name) + pauseText(difference, name));
        nodeLines(pNow, pThen, lines);
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

void limitsCheck(const Policy &wanted, const Limits &limits, std::vector<std::string> &problems) {
    size_t nodes = 0, nextHops = 0;
    for (const auto &[name, list] : wanted.lists) {
        nodes += list.nodes.size();
        for (const auto &[index, node] : list.nodes) {
            nextHops += node.nextHops.size();
        }
    }
    const auto check = [&problems](const char *pWhat, size_t count, uint64_t most, const char *pOption) {
        if (count > most) {
            problems.push_back("the policy has " + std::to_string(count) + " " + pWhat + ", the daemon holds " +
                               std::to_string(most) + ": raise " + pOption + " and restart the daemon");
        }
    };
    check("lists", wanted.lists.size(), limits.maxLists, "policyroute.maxlistnum");
    check("nodes", nodes, limits.maxNodes, "policyroute.maxnodenum");
    check("next hops", nextHops, uint64_t{4} * limits.maxNodes, "policyroute.maxnodenum");
}

} // namespace

Plan planMake(const Policy &running, const Policy &wanted, const Limits &limits) {
    Difference difference{running, wanted, bindingsByUnit(running), bindingsByUnit(wanted), {}, {}};
    touchedFind(difference);
    Plan plan;
    std::vector<Step> binds;
    aclPuts(difference, false, plan.steps);
    unbinds(difference, plan.steps, binds);
    removals(difference, plan.steps);
    aclPuts(difference, true, plan.steps);
    makings(difference, plan.steps);
    plan.steps.insert(plan.steps.end(), binds.begin(), binds.end());
    aclRemovals(difference, plan.steps);
    aclLines(difference, plan.lines);
    listLines(difference, plan.lines);
    bindingLines(difference, plan.lines);
    limitsCheck(wanted, limits, plan.problems);
    return plan;
}

Step stepUndo(const Step &step) {
    Step undo = step;
    switch (step.kind) {
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

} // namespace cli
