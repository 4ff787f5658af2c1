// The planner: from what runs and what is wanted to the steps that lead from one to the other, in an
// order that the daemon accepts. Pure: values in, values out, no socket.
//
// The daemon refuses changes of a list that is bound, and an ACL serves one node only. So the order is:
//   1. make new ACLs, and change those that no changed list uses;
//   2. take lists that change off their interfaces; bind interfaces whose lists stay as they are
//      directly to their new list;
//   3. remove nodes that change or go, and lists that go;
//   4. change the other ACLs;
//   5. make lists and nodes; 6. bind; 7. remove ACLs that go.
// What does not differ is not touched. Each step has an inverse, which brings back what was.
#ifndef CLI_PLANNER_H
#define CLI_PLANNER_H

#include <string>
#include <vector>

#include "cli/policy.h"

namespace cli {

enum class StepKind {
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
    std::string list;     // of lists and nodes
    Node node;            // NodeMake, NodeRemove
    Binding binding;      // Bind, Unbind, Rebind
    std::string fromList; // Rebind
};

struct Plan {
    std::vector<Step> steps;           // in order
    std::vector<std::string> lines;    // for the operator: "+ ...", "- ...", "~ ..."
    std::vector<std::string> problems; // why it cannot be done; empty: it can
};

// Both policies have their units looked up. Lock: none
Plan planMake(const Policy &running, const Policy &wanted, const Limits &limits);

// The step that undoes `step`. Lock: none
Step stepUndo(const Step &step);

// "node wan/10: make (acl 1501, next hop 192.0.2.1)". Lock: none
std::string stepText(const Step &step);

} // namespace cli

#endif
