// From the ordered rules of an interface's nodes to a plan of look-ups that answers as the rules do one by
// one, in (nearly) constant time where the rules allow it. Pure: no kernel, no globals, no clock.
//
// The plan is a row of *sections*, each a row of *steps*. A step is one look-up of a packet's fields in a map,
// or some rules that are compared one by one. A packet goes from step to step:
//   - found in a map, or matched by a rule: as the cell or the rule says: the node decides (Decide), the next
//     step is asked (GoOn), or the first step of the next section (Leave);
//   - not found: the next step is asked;
//   - behind the last step of a section begins the next; behind the last section no node matches.
//
// Invariant, proved by the model test: the node that decides, and the rules met on the way (for the
// counters), are those of the rules asked in their order: the first permit rule that matches decides, a deny
// rule that matches passes over the rest of its node.
//
// How it is kept: a rule joins an earlier step of its form only when no rule that would be passed by may
// match the same packet; a deny rule whose node goes on in a later step leaves the section, and the section
// ends before the first node of which a rule may match what that deny rule matches.
#ifndef HOST_CLASSIFY_CLASS_PLAN_H
#define HOST_CLASSIFY_CLASS_PLAN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "aclrule/acl_rule.h"
#include "host/classify/class_cells.h"
#include "host/classify/class_field.h"

namespace host {

// A rule in the order in which the rules are asked.
struct ClassRule {
    uint32_t node = 0; // the node's place in the order, ascending
    aclrule::AclRule rule;
};

enum class ClassEnd : uint8_t { Decide, GoOn, Leave };

enum class ClassStepKind : uint8_t {
    Linear, // the rules one by one
    Hash,   // a map of single keys
    Range,  // a map of ranges of one field
    Ranges, // a map of keys with a range in each field
};

struct ClassStep {
    ClassStepKind kind = ClassStepKind::Linear;
    aclrule::AclRule guard;          // maps: what every packet must fulfil besides
    std::vector<ClassField> fields;  // maps: the key, ascending
    std::vector<ClassCell> cells;    // maps
    std::vector<uint32_t> rules;     // places in the order given, ascending; of a map: those it answers for
    std::string reason;              // Linear: why there is no map
};

struct ClassPlan {
    std::vector<std::vector<ClassStep>> sections;
    std::vector<bool> leaves; // by rule: a deny rule that leaves its section
    size_t maps = 0;          // steps that are maps
};

struct ClassLimits {
    size_t mapFrom = 8;            // rules from which on a map is made; 0: never
    size_t comparisons = 1u << 20; // of two rules, beyond those in proportion to their number
    size_t fieldsMost = CLASS_FIELD_COUNT; // in a map's key
};

// rules: of one family (4 or 6), in their order. Lock: none
ClassPlan classPlan(const std::vector<ClassRule> &rules, int family, const ClassLimits &limits);

// What a cell's last rule leads to. Lock: none
ClassEnd classCellEnd(const ClassPlan &plan, const ClassCell &cell);

// "rules compared one by one", "map of single keys", ... Lock: none
const char *classStepText(ClassStepKind kind);

} // namespace host

#endif
