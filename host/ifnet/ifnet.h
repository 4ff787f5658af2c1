// Interfaces of the kernel: units are kernel interface indexes, names are the kernel's.
//
// Kept by a dump and the kernel's link notifications on the event thread; answers the daemon's interface
// layer (platform/qrv_if.h) and the host's services. When notifications were lost the links are read
// anew and the differences reported. Every change is told to the host's services (ifnetOnChange) and, when
// it is one that the daemon knows, published as link messages (link_messages.h).
//
// Aggregations are bridges, bonds and teams: their ports receive for them, so a policy belongs on the
// aggregation. A VRF's interfaces are no ports: they receive for themselves.
#ifndef HOST_IFNET_IFNET_H
#define HOST_IFNET_IFNET_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace host {

struct IfnetLink {
    uint32_t unit = 0;   // kernel interface index
    std::string name;
    bool up = false;     // administratively up and with carrier
    bool hasNeighbours = true; // false: no address resolution on it (point-to-point, loopback, NOARP)
    uint32_t aggregation = 0;  // unit of the aggregation of which it is a port; 0: none
    bool isEthernet = true;    // its packets carry an Ethernet header
    bool operator==(const IfnetLink &) const = default;
};

std::optional<IfnetLink> ifnetByUnit(uint32_t unit);           // any thread
std::optional<IfnetLink> ifnetByName(const std::string &name); // any thread
std::vector<IfnetLink> ifnetAll();                             // any thread; ascending units

// The name of a unit; of one that is gone, its last name while the daemon still has a policy on it; else
// "if" and the number.
std::string ifnetName(uint32_t unit);

// Calls `changed(link)` on the event thread when a link comes, changes (name, up) or goes (up = false, name kept).
// Any thread. Lock: none
void ifnetOnChange(std::function<void(const IfnetLink &)> changed);

// Starts following the kernel's link messages and reads the present links. Result: empty, or why not.
std::string ifnetStart();

// Asks the kernel for one link now and reports what changed, before it returns. The kernel holds carrier
// notifications back, up to a second after the previous one; a direct question gets the truth.
// Event thread, without locks of the caller.
void ifnetRefresh(uint32_t unit);

// What the daemon asked of the interface layer. Any thread. Lock: none
struct IfnetCounters {
    uint64_t protocolEnables = 0;  // accepted
    uint64_t protocolDisables = 0; // accepted
    uint64_t ruleRecords = 0;      // device rule records accepted
    uint64_t refused = 0;          // calls answered with failure
    uint64_t resyncs = 0;          // links read anew because notifications were lost
};
IfnetCounters ifnetCounters();

// Protocols that the daemon switched on at a unit, ascending. Any thread. Lock: none
std::vector<uint32_t> ifnetProtocols(uint32_t unit);

} // namespace host

#endif
