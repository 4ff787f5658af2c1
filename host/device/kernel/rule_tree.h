// Rules that lead packets over the routing rules of decisions that are not theirs. Pure.
//
// Each decision has one rule, in the order of ids: id n looks up its table for packets with its mark, at preference
// base + n - 1. A packet would be compared with all of them. Beyond a few, `goto` rules are put among them:
//
//   mark 0 in our field                  ->  the end, behind the last id (a rule that does nothing)
//   the same as these ids from bit b on  ->  the first of them, past those that differ in bit b alone
//
// so that a packet is compared with two rules a bit at most. A goto leads past rules only that cannot match its packets,
// and past none of others: each of them may be missing, or be there too early, and every mark still finds its table. They
// stand at the preferences of ids in use, and the end at one that the next ids would have.
//
// Where a rule that is not of this order stands (another program's, or one of an earlier run with other options), no goto
// leads past it.
#ifndef HOST_DEVICE_KERNEL_RULE_TREE_H
#define HOST_DEVICE_KERNEL_RULE_TREE_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "host/device/kernel/kernel_rules.h"
#include "host/device/kernel/rt_codec.h"

namespace host {

constexpr size_t RULE_TREE_FROM = 16; // decisions of a family from which on there are gotos

// rules: of ours, as they are or will be in the kernel; only those that look up a table count. foreign: family and
// preference of others' rules. Result: the gotos and the end of a family, in the order in which they are best added.
// Lock: none
std::vector<RtRule> ruleTree(const KernelOptions &options, uint8_t family, const std::set<RtRule> &rules,
                             const std::set<std::pair<uint8_t, uint32_t>> &foreign);

// What a packet with a mark meets among rules, none of which ends its way.
struct RuleWalk {
    std::vector<uint32_t> tables; // looked up
    size_t rules = 0;             // compared with
    size_t untilTable = 0;        // compared with until the first table was looked up; 0: none was
};
// The rules of a family as they are asked, those of `tree` behind others of their preference. Lock: none
std::vector<RtRule> rulesInOrder(uint8_t family, const std::set<RtRule> &rules, const std::vector<RtRule> &tree);
// isToTable: ends where the first table is looked up. Lock: none
RuleWalk ruleWalk(const std::vector<RtRule> &rules, uint32_t mark, bool isToTable = false);

} // namespace host

#endif
