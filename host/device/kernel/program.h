// The plane-independent half of the compilation: from redirect entries to a forwarding program.
//
// A program says for each list and IP family which nodes exist, which ACL rules each of them matches
// and what happens to the packets that a permit rule matches: routed as usual, or over a set of paths,
// each with or without a new precedence. It names kernel interfaces and gateways and nothing else of a
// particular forwarding plane: another plane takes a program as it is.
//
// Pure: no kernel, no globals, no clock; everything that must be asked comes through ProgramEnv.
// What a plane that sees only real packets cannot express exactly is refused here, entry by entry,
// with a text. A refused entry never yields anything wider: its traffic is routed as usual (dropped where
// the node asks for that) where the match can be expressed (so that no later node catches it), else the
// entry is left out.
#ifndef HOST_DEVICE_KERNEL_PROGRAM_H
#define HOST_DEVICE_KERNEL_PROGRAM_H

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/acl/acl_rule.h"
#include "host/device/device.h"
#include "host/fib/fib.h"
#include "host/ifnet/ifnet.h"

namespace host {

// What the compilation asks of the world. Every function is called on the caller's thread.
struct ProgramEnv {
    std::function<std::shared_ptr<const AclRules>(uint32_t aclNum)> rules;  // null: no such ACL
    std::function<std::optional<IfnetLink>(uint32_t unit)> link;            // none: no such interface
    std::function<std::optional<FibEgress>(uint32_t vrfid, int version, const IpAddress &address)> egress;
    // Whether a node's packets are dropped while nothing is usable; empty: of none.
    std::function<bool(const std::string &list, uint32_t nodeIndex)> drops;
};

// One way out of the machine. Onlink: the gateway is asked for on the interface whatever the routes say.
struct ProgramPath {
    uint32_t ifIndex = 0;     // kernel interface index
    bool hasGateway = false;  // false: out of the interface, the packet's own destination is the neighbour
    IpAddress gateway{};      // network order, IPv4 in the first 4 bytes
    uint32_t weight = 1;      // how many of the node's next hops lead here
    auto operator<=>(const ProgramPath &) const = default;
};

// What happens to a matched packet. No paths, or none that works: routed as usual or dropped, and no later
// node is asked.
struct ProgramDecision {
    uint8_t precedence = 0;         // 1..7: new IP precedence, 0 unchanged
    std::vector<ProgramPath> paths; // ascending, no path twice; two or more: the traffic is spread
    bool drop = false;              // what no path takes is dropped
    std::vector<ProgramPath> standby; // none or one: takes over when the kernel loses the only path with its link
    uint64_t choice = 0;            // nodes with the same one change their paths together, as a rule; 0: unknown
    auto operator<=>(const ProgramDecision &) const = default;
};

// Names one node chain. Links of one node that should behave alike share one (variant 0); were they
// ever to differ, each difference gets a variant of its own.
struct NodeKey {
    std::string list;       // the list's name, its bytes
    uint32_t nodeIndex = 0;
    uint8_t family = 4;     // 4 or 6
    uint8_t variant = 0;
    auto operator<=>(const NodeKey &) const = default;
};

struct ProgramNode {
    uint32_t aclNum = 0;
    std::shared_ptr<const AclRules> rules; // null: no such ACL, matches nothing
    ProgramDecision decision;
    bool operator==(const ProgramNode &) const = default; // rules by identity of the snapshot
};

using EntryKey = std::pair<uint32_t, uint32_t>; // interface unit, node index

// What became of one redirect entry.
struct ProgramEntry {
    RedirectEntry source;
    bool present = false;    // some family asks this node
    uint8_t variant = 0;
    bool families[2] = {};   // asked for IPv4, IPv6 packets
    std::string error;       // refused, why; empty: expressed exactly
    std::string reason;      // why the traffic is routed as usual, or what is left out; no error
    std::string ifName;      // the interface's name now
    bool operator==(const ProgramEntry &) const = default;
};

struct ProgramList {
    std::map<NodeKey, ProgramNode> nodes;
    std::map<EntryKey, ProgramEntry> entries;
};

// Compiles one list. `list`: its name; `entries`: what the redirect view says of it. Lock: none
ProgramList programCompile(const std::string &list, const std::map<EntryKey, RedirectEntry> &entries,
                           const ProgramEnv &env);

// The rules of a snapshot that concern a family (4 or 6), ascending. Lock: none
std::vector<std::pair<uint32_t, AclRule>> programRules(uint32_t aclNum, const AclRules &rules, int family);

// Why a family's packets cannot be matched exactly by these rules; empty: they can. Lock: none
std::string programRulesRefusal(uint32_t aclNum, const AclRules &rules, int family);

} // namespace host

#endif
