// What happens to the packets of a node while nothing of it is usable: an option of the host for each node,
// beside the daemon, whose store knows nothing of it. Normally they are routed as usual; a node named here
// lets them drop. The operations keep it in the journal.
//
// Written by the operations of the management socket (host/mgmt/otherwise_ops), read by devices when they
// compile a node. Any thread; a lock of its own, taken last.
#ifndef HOST_DEVICE_DESIRED_OTHERWISE_H
#define HOST_DEVICE_DESIRED_OTHERWISE_H

#include <cstdint>
#include <set>
#include <string>
#include <utility>

namespace host {

using OtherwisePlace = std::pair<std::string, uint32_t>; // list, node; neither need exist

// Whether the node's packets are dropped while nothing is usable. Lock: takes
bool otherwiseDrops(const std::string &list, uint32_t nodeIndex);

// All nodes of which this is so. Lock: takes
std::set<OtherwisePlace> otherwiseAll();

// Exactly these nodes from now on. Result: the lists for which that is a difference. Lock: takes
std::set<std::string> otherwiseReplaceAll(const std::set<OtherwisePlace> &places);

} // namespace host

#endif
