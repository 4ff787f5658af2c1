// The order in which a kept policy is made again: lists, nodes, next hops, then bindings. Pure.
#ifndef HOST_JOURNAL_POLICY_REPLAY_H
#define HOST_JOURNAL_POLICY_REPLAY_H

#include <vector>

#include "host/journal/policy_state.h"

namespace host {

// The sets that make this state, in an order that the daemon accepts: each row is created, then gets its
// fields; a node its version before its next hops; a list what is below it before it is bound. Lock: none
std::vector<PolicySet> policyReplay(const PolicyState &state);

} // namespace host

#endif
