// Single changes of the running policy, each whole or not at all: a node is made with all its fields and
// next hops, or removed again. The order of the underlying sets is the one that the daemon accepts:
// the IP version before the ACL and the next hops, VRF before the next hops, a next hop's address and
// probe names before its activation, the time range last.
//
// Failures are thrown: Refused, NoDaemon.
#ifndef CLI_OPERATE_H
#define CLI_OPERATE_H

#include "cli/daemon.h"
#include "cli/planner.h"
#include "cli/policy.h"

namespace cli {

// active: activates it too, as a list that is to act must be.
void listMake(Daemon &daemon, const std::string &name, bool active = true);
// Unbinds the time ranges of its nodes first: the daemon would leave them registered.
void listRemove(Daemon &daemon, const std::string &name);

void nodeMake(Daemon &daemon, const std::string &list, const Node &node);
void nodeRemove(Daemon &daemon, const std::string &list, uint32_t index);
// Removes the node's next hops and makes its IP version and VRF unset.
void nodeClear(Daemon &daemon, const std::string &list, uint32_t index);
// Makes the node `before` equal to `after`, field by field; next hops are not touched.
void nodeChange(Daemon &daemon, const std::string &list, const Node &before, const Node &after);

void nextHopMake(Daemon &daemon, const std::string &list, uint32_t nodeIndex, const NextHop &nextHop);
void nextHopRemove(Daemon &daemon, const std::string &list, uint32_t nodeIndex, uint8_t index);

// Binds, also instead of another list.
void bindMake(Daemon &daemon, uint32_t unit, const std::string &interface, const std::string &list);
void bindRemove(Daemon &daemon, uint32_t unit, const std::string &interface);

void aclPut(Daemon &daemon, uint32_t acl, const AclRules &rules);
void aclRemove(Daemon &daemon, uint32_t acl);

// Exactly these probes, exactly these time ranges; those that are the same go on undisturbed.
void probesPut(Daemon &daemon, const std::map<std::string, Probe> &probes);
void timeRangesPut(Daemon &daemon, const std::map<uint32_t, Schedule> &ranges);

// Exactly these nodes drop their packets while nothing of them is usable; one node.
void otherwisePut(Daemon &daemon, const std::set<NodePlace> &drops);
void otherwiseSet(Daemon &daemon, const NodePlace &place, bool isDrop);

// Does a step of a plan.
void stepDo(Daemon &daemon, const Step &step);

// How many steps from steps[from] on can be done together, which costs one or two waits for all of them: at least 1, at
// most 64, of one kind.
size_t stepsTogether(const std::vector<Step> &steps, size_t from);

// Does these steps (stepsTogether). Throws as stepDo does; `at` is then the step that was refused: those before it are
// done, and nothing is left of it and of those behind it.
void stepsDo(Daemon &daemon, const std::vector<Step> &steps, size_t from, size_t count, size_t &at);

} // namespace cli

#endif
