// What a program does with one packet that is thought of: which nodes are asked in which order, which rule
// of which ACL answers, and why the others do not. Pure: it reads the same program that is installed.
#ifndef HOST_DEVICE_KERNEL_PROGRAM_EXPLAIN_H
#define HOST_DEVICE_KERNEL_PROGRAM_EXPLAIN_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "aclrule/acl_packet.h"
#include "host/device/kernel/program.h"

namespace host {

struct ExplainRule {
    uint32_t number = 0;
    AclRule rule;
    aclrule::AclMatch match;
};

enum class ExplainOutcome : uint8_t {
    Matched, // a permit rule matches: this node decides
    Denied,  // a deny rule matches: the next node is asked
    NoMatch, // no rule matches: the next node is asked
    LeftOut, // the node is not asked; why says so
    Unknown, // a rule asks for something that was not told: nothing can be said from here on
};

struct ExplainNode {
    NodeKey key;
    EntryKey entryKey;
    uint32_t aclNum = 0;
    ExplainOutcome outcome = ExplainOutcome::LeftOut;
    std::string why;
    std::vector<ExplainRule> rules; // those that were looked at; the last one answered, if any did
};

struct ProgramExplanation {
    bool isBound = false;           // some list is bound to the interface
    std::vector<ExplainNode> nodes; // in the order asked, up to the one that decides
    // The node that decides, else null. Lock: none
    const ExplainNode *decider() const;
};

// Asks the nodes of interface ifUnit. refusal: why the plane does not have a node, empty when it has.
// Lock: that of the lists, held by caller
ProgramExplanation programExplain(const std::map<std::string, ProgramList> &lists, uint32_t ifUnit,
                                  const aclrule::AclPacket &packet,
                                  const std::function<std::string(const NodeKey &)> &refusal);

// {"verdict": "policy" (a node decides, "list", "node", "acl", "rule", "ruleText"), "normal" (routed as
// usual), "unknown" (more must be told), "why", "nodes": [{"list", "node", "acl", "outcome": "matched",
// "denied", "no match", "left out", "unknown", "why", "rules": [{"rule", "text", "answer", "why"}]}]}.
// Lock: none
nlohmann::json programExplainShow(const ProgramExplanation &explanation);

} // namespace host

#endif
