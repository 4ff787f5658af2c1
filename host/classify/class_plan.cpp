// The plan of an interface's look-ups: see class_plan.h. Called by the kernel model; calls the cells.
//
// One pass over the rules collects *open steps* of one form; a section's open steps become maps or
// linear steps when it ends. All comparisons of two rules are counted: when they are used up, what would
// need another one is decided the careful way (a new step, a new section), never the wrong way.
#include "host/classify/class_plan.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "host/classify/class_reach.h"

namespace host {

namespace {

constexpr size_t COMPARISONS_A_RULE = 64;

class Planner {
public:
    Planner(const std::vector<ClassRule> &rules, int family, const ClassLimits &limits)
        : rules_(rules), limits_(limits), left_(limits.comparisons + rules.size() * COMPARISONS_A_RULE) {
        plan_.leaves.resize(rules.size(), false);
        stepOf_.resize(rules.size(), 0);
        boxes_.reserve(rules.size());
        for (const ClassRule &rule : rules) {
            boxes_.push_back(classBox(rule.rule, family));
        }
    }

    ClassPlan plan() {
        for (uint32_t begin = 0, end = 0; begin < rules_.size(); begin = end) {
            while (end < rules_.size() && rules_[end].node == rules_[begin].node) {
                end++;
            }
            nodePlan(begin, end);
        }
        sectionEnd();
        return std::move(plan_);
    }

private:
    struct Open {
        std::vector<uint32_t> rules;
        ClassReach reach; // of these
    };

    bool mayMeet(uint32_t left, uint32_t right) {
        if (left_ == 0) {
            return true;
        }
        left_--;
        return classMayMeet(boxes_[left], boxes_[right]);
    }

    void nodePlan(uint32_t begin, uint32_t end) {
        if (isLeaverMet(begin, end)) {
            sectionEnd();
        }
        for (uint32_t rule = begin; rule < end; rule++) {
            stepOf_[rule] = place(rule);
        }
        // A deny rule whose node goes on in a later step must not come to it.
        size_t latest = 0;
        for (uint32_t rule = end; rule-- > begin;) {
            if (!rules_[rule].rule.permit && stepOf_[rule] < latest) {
                plan_.leaves[rule] = true;
                leavers_.push_back(rule);
                leaversReach_.add(boxes_[rule]);
            }
            latest = std::max(latest, stepOf_[rule]);
        }
    }

    bool isLeaverMet(uint32_t begin, uint32_t end) {
        for (uint32_t rule = begin; rule < end; rule++) {
            if (mayMeetAny(leaversReach_, leavers_, rule)) {
                return true;
            }
        }
        return false;
    }

    bool mayMeetAny(const ClassReach &reach, const std::vector<uint32_t> &others, uint32_t rule) {
        return reach.mayMeet(boxes_[rule]) &&
               std::any_of(others.begin(), others.end(), [&](uint32_t other) { return mayMeet(other, rule); });
    }

    // The open step that a rule goes to: the latest of its form, when it meets nobody behind; else a new one.
    size_t place(uint32_t rule) {
        size_t at = open_.size();
        while (at > 0 && !classSameForm(boxes_[open_[at - 1].rules.front()], boxes_[rule])) {
            at--;
        }
        const bool isMet = at == 0 || std::any_of(open_.begin() + static_cast<std::ptrdiff_t>(at), open_.end(), [&](const Open &open) {
            return mayMeetAny(open.reach, open.rules, rule);
        });
        if (isMet) {
            open_.emplace_back();
            at = open_.size();
        }
        open_[at - 1].rules.push_back(rule);
        open_[at - 1].reach.add(boxes_[rule]);
        return at - 1;
    }

    void sectionEnd() {
        if (open_.empty()) {
            return;
        }
        plan_.sections.emplace_back();
        for (Open &open : std::exchange(open_, {})) {
            stepsAdd(std::move(open.rules));
        }
        leavers_.clear();
        leaversReach_.clear();
    }

    // A step, and those of the rules that its map left over.
    void stepsAdd(std::vector<uint32_t> rules) {
        while (!rules.empty()) {
            std::vector<uint32_t> left;
            ClassStep step = stepFor(rules, left);
            plan_.maps += step.kind == ClassStepKind::Linear ? 0 : 1;
            plan_.sections.back().push_back(std::move(step));
            rules = std::move(left);
        }
    }

    ClassStep stepFor(const std::vector<uint32_t> &rules, std::vector<uint32_t> &left) const {
        ClassStep step;
        step.rules = rules;
        if (limits_.mapFrom == 0 || rules.size() < limits_.mapFrom) {
            step.reason = "too few rules of its form stand together";
            return step;
        }
        keyFind(step);
        const bool isKey = !step.fields.empty() && step.fields.size() <= limits_.fieldsMost;
        ClassCells cells = isKey ? classCells(membersOf(step)) : ClassCells{};
        if (!isKey || !cells.refusal.empty()) {
            step.reason = isKey                 ? cells.refusal
                          : step.fields.empty() ? "the rules differ in nothing that a map can hold"
                                                : "the rules differ in too many fields for a key";
            step.fields.clear();
            step.guard = {};
            return step;
        }
        left = std::move(cells.left);
        std::erase_if(step.rules, [&](uint32_t rule) { return std::binary_search(left.begin(), left.end(), rule); });
        step.cells = std::move(cells.cells);
        step.kind = kindOf(step);
        return step;
    }

    // The fields in which the rules differ are the key; in what they agree is asked once, before.
    void keyFind(ClassStep &step) const {
        const uint32_t first = step.rules.front();
        step.guard = boxes_[first].rest;
        for (size_t i = 0; i < CLASS_FIELD_COUNT; i++) {
            const ClassField field = static_cast<ClassField>(i);
            if (!boxes_[first].has(field)) {
                continue;
            }
            const bool isCommon = std::all_of(step.rules.begin(), step.rules.end(), [&](uint32_t rule) {
                return boxes_[rule].range(field) == boxes_[first].range(field);
            });
            // A code is asked for beside its type only.
            const bool isBound = field == ClassField::IcmpCode && !step.fields.empty() && step.fields.back() == ClassField::IcmpType;
            if (isCommon && !isBound) {
                classConditionCopy(step.guard, rules_[first].rule, field);
            } else {
                step.fields.push_back(field);
            }
        }
    }

    std::vector<ClassMember> membersOf(const ClassStep &step) const {
        std::vector<ClassMember> members;
        members.reserve(step.rules.size());
        for (const uint32_t rule : step.rules) {
            members.push_back({rule, rules_[rule].node, rules_[rule].rule.permit, {}});
            for (const ClassField field : step.fields) {
                members.back().key.push_back(boxes_[rule].range(field));
            }
        }
        return members;
    }

    static ClassStepKind kindOf(const ClassStep &step) {
        const bool isHash = std::all_of(step.cells.begin(), step.cells.end(), [](const ClassCell &cell) {
            return std::all_of(cell.key.begin(), cell.key.end(), [](const ClassRange &range) { return range.isOne(); });
        });
        return isHash ? ClassStepKind::Hash : step.fields.size() == 1 ? ClassStepKind::Range : ClassStepKind::Ranges;
    }

    const std::vector<ClassRule> &rules_;
    const ClassLimits &limits_;
    size_t left_; // comparisons
    ClassPlan plan_;
    std::vector<ClassBox> boxes_;
    std::vector<Open> open_;         // of the section
    std::vector<size_t> stepOf_;     // by rule: its open step
    std::vector<uint32_t> leavers_;  // deny rules of the section that leave it
    ClassReach leaversReach_;
};

} // namespace

ClassPlan classPlan(const std::vector<ClassRule> &rules, int family, const ClassLimits &limits) {
    return Planner(rules, family, limits).plan();
}

ClassEnd classCellEnd(const ClassPlan &plan, const ClassCell &cell) {
    if (cell.isDecided) {
        return ClassEnd::Decide;
    }
    return plan.leaves[cell.rules.back()] ? ClassEnd::Leave : ClassEnd::GoOn;
}

const char *classStepText(ClassStepKind kind) {
    switch (kind) {
    case ClassStepKind::Linear: return "rules compared one by one";
    case ClassStepKind::Hash: return "map of single keys";
    case ClassStepKind::Range: return "map of ranges";
    case ClassStepKind::Ranges: return "map of several ranges";
    }
    return "";
}

} // namespace host
