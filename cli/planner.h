// The planner: from what runs and what is wanted to the steps that lead from one to the other, in an
// order that the daemon accepts. Pure: values in, values out, no socket.
//
// The daemon refuses changes of a list that is bound, and an ACL serves one node only. So the order is:
//   1. make and change probes and time ranges, so that they stand before a node refers to them; let nodes drop
//      that are to do so with nothing usable, so that none ever acts without;
//   2. make new ACLs, and change those that no changed list uses;
//   3. take lists that change off their interfaces; bind interfaces whose lists stay as they are
//      directly to their new list;
//   4. remove nodes that change or go, and lists that go;
//   5. change the other ACLs;
//   6. make lists and nodes; 7. bind;
//   8. remove ACLs, time ranges and probes that go; let nodes that are to do so route normally again.
// What does not differ is not touched. Each step has an inverse, which brings back what was. The device
// holds the lists concerned around the steps, so that packets see one change, not its steps.
#ifndef CLI_PLANNER_H
#define CLI_PLANNER_H

#include <set>
#include <string>
#include <vector>

#include "cli/policy.h"

namespace cli {

enum class StepKind {
    ProbesPut,   // have exactly `probes`, instead of `probesBefore`
    OtherwisePut, // drop with nothing usable: exactly nodes `drops`, instead of `dropsBefore`
    RangesPut,   // have exactly the time ranges `ranges`, instead of `rangesBefore`
    AclPut,      // make or replace an ACL with `rules`
    AclRemove,   // remove an ACL; `before` are its rules
    Unbind,      // take the list off the interface
    Rebind,      // bind an interface that has list `fromList` to list binding.list
    Bind,        // bind
    NodeRemove,  // remove `node` with its next hops
    NodeMake,    // make `node` with its next hops
    ListRemove,  // remove the (empty) list
    ListMake,    // make the list
};

struct Step {
    StepKind kind{};
    uint32_t acl = 0;
    bool aclWasThere = false; // AclPut: it replaces `before`
    AclRules rules;
    AclRules before;
    std::map<std::string, Probe> probes;
    std::map<std::string, Probe> probesBefore;
    std::map<uint32_t, Schedule> ranges;
    std::map<uint32_t, Schedule> rangesBefore;
    std::set<NodePlace> drops;
    std::set<NodePlace> dropsBefore;
    std::string list;     // of lists and nodes
    bool listActive = true; // ListMake, ListRemove: it is activated
    Node node;            // NodeMake, NodeRemove
    Binding binding;      // Bind, Unbind, Rebind
    std::string fromList; // Rebind
};

// Why what is wanted cannot be done.
struct PlanProblem {
    std::vector<std::string> places; // what it is about, most exact first: "binding lan0", "bindings"
    std::string text;
};

struct Plan {
    std::vector<Step> steps;           // in order
    std::vector<std::string> lines;    // for the operator: "+ ...", "- ...", "~ ..."
    std::vector<PlanProblem> problems; // empty: it can be done
    std::set<std::string> held;        // bound lists of whose nodes something changes
    std::set<std::string> newProbes;   // probes without a result yet on which bound lists depend
};

// Both policies have their units looked up. Lock: none
Plan planMake(const Policy &running, const Policy &wanted, const Limits &limits);

// The step that undoes `step`. Lock: none
Step stepUndo(const Step &step);

// "make node wan/10 (acl 1501, next hop 192.0.2.1)". Lock: none
std::string stepText(const Step &step);

// What a step is about, most exact first: "node wan/10", "list wan", "lists". refusal: why it was refused,
// which may name one of many things of the step. Lock: none
std::vector<std::string> stepPlaces(const Step &step, const std::string &refusal);

// "ACL 1501 rule 20: ..." -> "acl 1501 rule 20", "acl 1501", "acls". Lock: none
std::vector<std::string> aclPlaces(const std::string &refusal);

} // namespace cli

#endif
