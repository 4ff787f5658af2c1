// What ifnet_links.cpp and ifnet_api.cpp share: counters of the interface layer. Not for others.
#ifndef HOST_IFNET_IFNET_STATE_H
#define HOST_IFNET_IFNET_STATE_H

#include <cstdint>
#include <vector>

namespace host {

uint64_t ifnetResyncs(); // any thread

// Whether the daemon's protocol is on at a unit, that is, a policy is bound to it. Any thread. Lock: takes
bool ifnetHasPolicy(uint32_t unit);

// The units with that protocol on, ascending. Any thread. Lock: takes
std::vector<uint32_t> ifnetPolicyUnits();

// The daemon switched the protocol off at a unit: nothing need be remembered for it. Any thread. Lock: takes
void ifnetPolicyForget(uint32_t unit);

} // namespace host

#endif
