// Rules that lead packets over others: see rule_tree.h. Used by the kernel plane and by the costs.
#include "host/device/kernel/rule_tree.h"

#include <algorithm>
#include <bit>

namespace host {

namespace {

constexpr uint32_t LAST_PREFERENCE = 32765; // one before the main table's rule

class TreeBuilder {
public:
    TreeBuilder(const KernelOptions &options, uint8_t family, const std::set<RtRule> &rules,
                const std::set<std::pair<uint8_t, uint32_t>> &foreign)
        : options_(options), family_(family), shift_(kernelMarkShift(options)) {
        for (const RtRule &rule : rules) {
            if (rule.family == family && rule.action == RT_RULE_LOOKUP) {
                take(rule);
            }
        }
        for (const auto &[version, preference] : foreign) {
            if (version == family) {
                obstacles_.insert(preference);
            }
        }
    }

    std::vector<RtRule> build() {
        if (ids_.size() < RULE_TREE_FROM) {
            return {};
        }
        endAdd();
        splitsAdd();
        return std::move(tree_);
    }

private:
    void take(const RtRule &rule) {
        const uint32_t id = rule.mark >> shift_;
        const bool isOfOrder = rule.mask == options_.markMask && id != 0 && id << shift_ == rule.mark &&
                               rule.preference == preferenceOf(id);
        if (!isOfOrder) {
            obstacles_.insert(rule.preference);
        } else if (ids_.empty() || ids_.back() != id) { // ascending, as the set of rules is
            ids_.push_back(id);
        }
    }

    uint32_t preferenceOf(uint32_t id) const { return options_.rulePreference + id - 1; }

    // Whether a goto from there to there leads past rules of the order only.
    bool isClear(uint32_t from, uint32_t to) const {
        const auto next = obstacles_.lower_bound(from);
        return next == obstacles_.end() || *next >= to;
    }

    // All bits from this one on. Not quite all of the field: the kernel would take a goto that asks for them for the one
    // of packets without a mark when that is to be removed. The next id is not far, so that nobody is led astray.
    uint32_t maskFrom(uint32_t bit) const {
        const uint32_t mask = options_.markMask >> (shift_ + bit) << (shift_ + bit);
        return bit == 0 ? mask & (mask >> 1) : mask;
    }

    // Far enough away to serve the next ids too, where nothing is in the way.
    void endAdd() {
        const uint32_t near = preferenceOf(ids_.back()) + 1;
        const uint32_t far = preferenceOf(uint32_t{1} << std::bit_width(ids_.back()));
        const uint32_t end = far <= LAST_PREFERENCE && isClear(near, far) ? far : near;
        const uint32_t first = preferenceOf(ids_.front());
        if (end <= LAST_PREFERENCE && isClear(first, end)) {
            tree_.push_back({family_, end, 0, 0, 0, 0, RT_RULE_NOP});
            tree_.push_back({family_, first, 0, options_.markMask, 0, end, RT_RULE_GOTO});
        }
    }

    // One between any two neighbours: the highest bit in which they differ divides all ids that are the same above it.
    void splitsAdd() {
        const size_t begin = tree_.size();
        for (size_t i = 1; i < ids_.size(); i++) {
            const auto bit = static_cast<uint32_t>(std::bit_width(ids_[i - 1] ^ ids_[i]) - 1);
            const uint32_t block = ids_[i] >> (bit + 1) << (bit + 1);
            const uint32_t first = preferenceOf(*std::lower_bound(ids_.begin(), ids_.end(), block));
            const uint32_t to = preferenceOf(ids_[i]), mask = maskFrom(bit);
            if (isClear(first, to)) {
                tree_.push_back({family_, first, (ids_[i] << shift_) & mask, mask, 0, to, RT_RULE_GOTO});
            }
        }
        // Where several begin, the one that half of the marks take is asked first.
        std::sort(tree_.begin() + static_cast<std::ptrdiff_t>(begin), tree_.end(), [](const RtRule &left, const RtRule &right) {
            return std::pair(left.preference, std::countr_zero(right.mask)) <
                   std::pair(right.preference, std::countr_zero(left.mask));
        });
    }

    const KernelOptions &options_;
    uint8_t family_;
    uint32_t shift_;
    std::vector<uint32_t> ids_;
    std::set<uint32_t> obstacles_;
    std::vector<RtRule> tree_;
};

} // namespace

std::vector<RtRule> ruleTree(const KernelOptions &options, uint8_t family, const std::set<RtRule> &rules,
                             const std::set<std::pair<uint8_t, uint32_t>> &foreign) {
    return TreeBuilder(options, family, rules, foreign).build();
}

std::vector<RtRule> rulesInOrder(uint8_t family, const std::set<RtRule> &rules, const std::vector<RtRule> &tree) {
    std::vector<RtRule> ordered;
    const auto take = [&](const RtRule &rule) {
        if (rule.family == family) {
            ordered.push_back(rule);
        }
    };
    std::for_each(rules.begin(), rules.end(), take);
    std::for_each(tree.begin(), tree.end(), take);
    std::stable_sort(ordered.begin(), ordered.end(),
                     [](const RtRule &left, const RtRule &right) { return left.preference < right.preference; });
    return ordered;
}

RuleWalk ruleWalk(const std::vector<RtRule> &rules, uint32_t mark, bool isToTable) {
    RuleWalk walk;
    for (auto it = rules.begin(); it != rules.end() && !(isToTable && walk.untilTable != 0);) {
        walk.rules++;
        const bool isMatch = (mark & it->mask) == it->mark;
        if (isMatch && it->action == RT_RULE_LOOKUP) {
            walk.tables.push_back(it->table);
            walk.untilTable = walk.untilTable == 0 ? walk.rules : walk.untilTable;
        }
        const auto target = std::lower_bound(it, rules.end(), it->target, [](const RtRule &rule, uint32_t preference) {
            return rule.preference < preference;
        });
        // A goto to where no rule is leads nowhere.
        const bool isLed = isMatch && it->action == RT_RULE_GOTO && target != rules.end() && target->preference == it->target;
        it = isLed ? target : std::next(it);
    }
    return walk;
}

} // namespace host
