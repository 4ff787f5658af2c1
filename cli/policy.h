// A policy as values: what a policy file says and what a daemon runs, in one form that compares.
#ifndef CLI_POLICY_H
#define CLI_POLICY_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli/acl_text.h"
#include "cli/policy_probe.h"
#include "cli/policy_range.h"

namespace cli {

constexpr size_t MAX_NEXT_HOPS = 4;      // next hops of a node that the device records have room for
constexpr size_t MAX_BOUND = 15;         // interfaces of a list: its use count has four bits
constexpr size_t MAX_LIST_NAME = 16;     // bytes
constexpr size_t MAX_PROBE_NAME = 32;    // bytes of each of a probe's two names
constexpr uint32_t PRIORITY_NONE = 9;    // what the daemon stores for "no priority"; cannot be asked for
constexpr uint32_t MAX_PRIORITY = 15;

struct NextHop {
    uint8_t index = 0;          // number within the node
    std::vector<uint8_t> address; // 4 or 16 bytes, network order; empty: never set
    std::string probeAdmin;     // both empty: no probe
    std::string probeTest;
    bool active = true;         // its last status command was "activate"
};

struct Node {
    uint32_t index = 0;
    uint32_t acl = 0;       // 0 none
    int ipVersion = 0;      // 4, 6, 0 unset
    uint32_t priority = 0;  // 1..15, 0 none
    uint32_t outIfUnit = 0; // 0 none
    std::string outIfName;  // as given or as the interface is called now
    uint8_t ecmp = 0;       // 1: spread over the next hops
    uint32_t vrf = 0;
    std::optional<uint32_t> timeRange;
    std::vector<NextHop> nextHops; // ascending index
    // What a policy file cannot say; other management planes may have set it.
    uint32_t matchValue1 = 0;
    uint32_t matchValue2 = 0;
    uint32_t field7 = 0;
    uint32_t forwardFlag = 0;
    bool active = true;
};

struct List {
    std::string name;
    bool active = true;
    std::map<uint32_t, Node> nodes;
};

struct Binding {
    std::string interface; // name; "unit:7" for a unit without a name
    uint32_t unit = 0;     // 0: not looked up yet
    std::string list;
};

using VrfNames = std::map<std::string, uint32_t>; // name -> number of its table

using NodePlace = std::pair<std::string, uint32_t>; // list, node

struct Policy {
    std::map<uint32_t, AclRules> acls;
    std::map<std::string, Probe> probes; // by "administrator/test"
    std::map<uint32_t, Schedule> timeRanges;
    std::map<std::string, List> lists;
    std::vector<Binding> bindings;
    // Nodes whose packets are dropped while nothing of them is usable: the host keeps it beside the daemon, so
    // that a node which goes does not take it along.
    std::set<NodePlace> otherwiseDrop;
};

// What the daemon may hold, for checks before anything is changed.
struct Limits {
    uint32_t maxLists = UINT32_MAX;
    uint32_t maxNodes = UINT32_MAX; // of all lists together; next hops: four times that
    uint32_t maxInterfaces = UINT32_MAX;   // to which lists are bound, of all lists together
    std::set<uint32_t> idleInterfaces = {}; // units that have a record without a list: it counts too
};

// Whether two nodes ask for the same: next hops are compared in order, whatever their index. Lock: none
bool nodeEquals(const Node &left, const Node &right);

// "acl 1501, next hops 192.0.2.1 (probe ops/a), 192.0.2.5, vrf 10": what a node matches and does.
std::string nodeText(const Node &node);
std::string nodeMatchText(const Node &node);  // "acl 1501"
std::string nodeActionText(const Node &node); // the rest
std::string nextHopText(const NextHop &nextHop);

// "ops/isp-a"; empty: the next hop has no probe. Lock: none
std::string probeNameOf(const NextHop &nextHop);

// Warnings about nodes that work here but not everywhere, as plain sentences. Lock: none
std::vector<std::string> listWarnings(const List &list);

} // namespace cli

#endif
