// The kernel's routing tables as the host needs them: which interface and gateway lead to an address.
//
// A mirror of the routes of all tables (but the local table, 255), IPv4 and IPv6, kept by dump and
// notification on the event thread. Routes of our own protocol number (FIB_PROTO_POLICYROUTE) are left
// out, and so are routes for one type of service or one source prefix only: they do not say where an
// address lies. The kernel's rules are not consulted: a VRF is one table. What the kernel deletes
// silently (routes of a link that goes down, of a local address or next-hop object that vanishes) is
// found by reading the tables again after such an event.
#ifndef HOST_FIB_FIB_H
#define HOST_FIB_FIB_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/fib/fib_egress.h"

namespace host {

constexpr uint8_t FIB_PROTO_POLICYROUTE = 206; // our number on rules, routes and next hops

// Kernel table of a VRF id: 0 is the main table (254); else the value of option host.vrf.NAME that
// equals the id, else the id itself as a table number.
uint32_t fibTableOfVrf(uint32_t vrfid);

// Longest prefix match for `address` (version 4 or 6) in the VRF's table (for the main table: also what
// the local table says is on-link is not considered). A route through a gateway gives that gateway and
// its interface (resolved once), or is no way with option host.next-hop-via-gateway=off. Of several legs the first usable one
// counts: not dead, and rather one with carrier. Routes of the lowest metric first; one that forbids (unreachable, blackhole, prohibit),
// ends the table (throw) or delivers locally is no way to anywhere. An address on the network of a link
// that is administratively down is not to be had by a route to more than that network: the kernel has only
// taken the network's own route away. Known are networks whose link went down while the mirror runs, and
// those of the addresses that a link in no VRF has while it is down.
// none: unreachable. Any thread. Lock: none (takes the mirror's own)
std::optional<FibEgress> fibLookup(uint32_t vrfid, int version, const std::array<uint8_t, 16> &address);

// Calls `changed` on the event thread after routes or links changed (bursts are merged within 5 ms).
void fibOnChange(std::function<void()> changed);

// Starts the mirror and reads the tables. Result: empty, or why not.
std::string fibStart();

struct FibCounters {
    uint64_t tableReads = 0; // times that tables were read, the first time included
    uint64_t resyncs = 0;    // of these: because notifications were lost
};
FibCounters fibCounters(); // any thread

} // namespace host

#endif
