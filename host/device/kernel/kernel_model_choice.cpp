// The part of the kernel model that shares decisions: see kernel_model.h and decision_table.h.
//
// Nodes that choose alike have one decision, whose paths change when all of them have chosen otherwise: one change in the
// kernel, whatever their number. While some have and others have not (a node that was just added, a list that is held),
// those that agree with what the kernel has keep it, and the others share by paths as long as that lasts.
#include <algorithm>
#include <utility>

#include "host/device/kernel/kernel_model.h"

namespace host {

namespace {

// A decision whose link is down keeps its users: its table passes their packets on, or drops them.
bool isStaying(const Decision &decision) {
    return decision.error.empty() || (decision.waits && decision.choice != 0 && decision.isMade);
}

} // namespace

void KernelModel::groupLeave(const NodeKey &key, const Node &node) {
    const ChoiceKey place{key.family, node.grouped.choice, node.grouped.drop};
    const auto choice = choices_.find(place);
    if (node.grouped.choice == 0 || choice == choices_.end()) {
        return;
    }
    const auto group = choice->second.groups.find({node.grouped.paths, node.grouped.standby});
    group->second.erase(key);
    if (group->second.empty()) {
        choice->second.groups.erase(group);
    }
    choice->second.moved.erase(key);
    unsettled_.insert(place);
}

// Of a node that chooses: when the choices are settled. Of others at once.
void KernelModel::decisionSet(const NodeKey &key, Node &node) {
    const ProgramDecision &wanted = node.program.decision;
    groupLeave(key, node);
    node.grouped = wanted;
    node.error.clear();
    if (wanted.choice != 0) {
        const ChoiceKey place{key.family, wanted.choice, wanted.drop};
        Choice &choice = choices_[place];
        choice.groups[{wanted.paths, wanted.standby}].insert(key);
        choice.moved.insert(key);
        unsettled_.insert(place);
        return;
    }
    uint32_t id = 0;
    if (!wanted.paths.empty()) {
        id = decisions_.acquire(key.family, wanted.paths, wanted.drop, &node.error);
        if (id != 0) {
            decisions_.release(key.family, id); // decisionMove uses it
        }
    }
    decisionMove(key, id);
}

// The new decision is used before the old one is let go.
void KernelModel::decisionMove(const NodeKey &key, uint32_t id) {
    Node &node = nodes_.at(key);
    const uint32_t old = std::exchange(node.decision, id);
    if (id == old) {
        return;
    }
    if (id != 0) {
        decisions_.use(key.family, id);
        users_[{key.family, id}].insert(key);
    }
    if (old != 0) {
        decisions_.release(key.family, old);
        std::set<NodeKey> &users = users_[{key.family, old}];
        users.erase(key);
        if (users.empty()) {
            users_.erase({key.family, old});
        }
    }
}

void KernelModel::choicesSettle() {
    for (const ChoiceKey &key : std::exchange(unsettled_, {})) {
        choiceSettle(key);
    }
}

void KernelModel::choiceSettle(const ChoiceKey &key) {
    const auto &[family, number, drop] = key;
    const auto found = choices_.find(key);
    if (found == choices_.end() || found->second.groups.empty()) {
        choices_.erase(key);
        return;
    }
    Choice &choice = found->second;
    // Whose outcome the shared decision has: what it has already, else what most have, if any of them has a way.
    uint32_t shared = decisions_.choiceFind(family, number, drop);
    auto main = choice.groups.end();
    if (shared != 0) {
        const Decision &decision = *decisions_.get({family, shared});
        main = choice.groups.find({decision.paths, decision.standby});
    }
    if (main == choice.groups.end()) {
        main = std::max_element(choice.groups.begin(), choice.groups.end(), [](const auto &left, const auto &right) {
            return std::pair(!left.first.first.empty(), left.second.size()) < std::pair(!right.first.first.empty(), right.second.size());
        });
    }
    ProgramDecision wanted;
    wanted.drop = drop;
    std::tie(wanted.paths, wanted.standby) = main->first;
    const uint32_t before = shared;
    const bool wasRefused = shared != 0 && !isStaying(*decisions_.get({family, shared}));
    if (shared != 0 || !wanted.paths.empty()) { // nodes that never had a way need no decision
        shared = wanted.paths.empty() ? shared : decisions_.choiceId(family, number, wanted);
        shared = shared != 0 && decisions_.change({family, shared}, wanted) ? shared : 0;
    }
    const bool isOther = shared != before;
    for (const auto &[outcome, members] : choice.groups) {
        // Members that stay with their decision are not looked at.
        const bool isMain = outcome == main->first && shared != 0;
        std::vector<NodeKey> touched;
        for (const NodeKey &node : isOther ? members : choice.moved) {
            if (isOther || members.count(node) != 0) {
                touched.push_back(node);
            }
        }
        for (const NodeKey &node : touched) {
            uint32_t id = isMain ? shared : 0;
            std::string &error = nodes_.at(node).error;
            error.clear();
            if (!isMain && !outcome.first.empty()) {
                id = decisions_.acquire(family, outcome.first, drop, &error);
                if (id != 0) {
                    decisions_.release(family, id);
                }
            }
            Node &known = nodes_.at(node);
            known.isActionDue = known.isActionDue || known.decision != id || !error.empty();
            decisionMove(node, id);
            if (std::exchange(known.isActionDue, false) && known.refused.empty()) {
                actionSet(node, known);
            }
        }
    }
    choice.moved.clear();
    if (wasRefused && before == shared && decisions_.get({family, shared})->error.empty()) {
        decisionChanged({family, shared});
    }
}

uint32_t KernelModel::effective(const NodeKey &key, const Node &node) const {
    const Decision *pDecision = decisions_.get({key.family, node.decision});
    return pDecision != nullptr && isStaying(*pDecision) ? node.decision : 0;
}

void KernelModel::decisionChanged(const DecisionKey &key) {
    auto users = users_.find(key);
    if (users == users_.end()) {
        return;
    }
    for (const NodeKey &node : users->second) {
        if (nodes_.at(node).refused.empty()) {
            actionSet(node, nodes_.at(node));
        }
    }
}

uint32_t KernelModel::decisionOf(const NodeKey &key) const {
    auto it = nodes_.find(key);
    if (it == nodes_.end()) {
        return 0;
    }
    const Decision *pDecision = decisions_.get({key.family, effective(key, it->second)});
    return pDecision == nullptr || pDecision->paths.empty() ? 0 : it->second.decision;
}

bool KernelModel::isDropped(const NodeKey &key) const {
    auto it = nodes_.find(key);
    if (it == nodes_.end() || !it->second.refused.empty() || !it->second.program.decision.drop) {
        return false;
    }
    const Decision *pDecision = decisions_.get({key.family, effective(key, it->second)});
    const bool hasStandby = pDecision != nullptr && !pDecision->standby.empty() && !pDecision->isStandbyRefused;
    return pDecision == nullptr || pDecision->paths.empty() || (pDecision->waits && !hasStandby);
}

} // namespace host
