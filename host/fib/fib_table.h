// Routing tables as values: what the mirror holds and how it is searched. No kernel, no lock.
//
// fib.cpp feeds it with what the kernel tells; tests feed it directly. A change that cannot be applied
// with certainty (several routes share prefix and metric) is told as Doubt: the table is then read anew.
#ifndef HOST_FIB_FIB_TABLE_H
#define HOST_FIB_FIB_TABLE_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "host/fib/fib_egress.h"

namespace host {

using FibAddress = std::array<uint8_t, 16>; // network order; IPv4 in the first 4 bytes, rest 0

struct FibLeg {
    uint32_t ifIndex = 0;   // 0: not told
    int gatewayVersion = 0; // 4, 6; 0: on-link
    FibAddress gateway{};
    bool dead = false;      // the kernel does not use it
    bool linkDown = false;  // no carrier
};

struct FibRoute {
    FibAddress prefix{};    // masked
    uint8_t prefixLen = 0;  // 0..32, 0..128
    uint8_t type = 1;       // RTN_UNICAST ...
    uint8_t protocol = 0;
    uint32_t metric = 0;
    uint32_t nexthopId = 0; // next-hop object; 0: the legs tell
    std::vector<FibLeg> legs;
};

struct FibNetwork { // what a route without gateway says: these addresses are on this link
    int version = 4;
    uint32_t table = 0;
    FibAddress prefix{}; // masked
    uint32_t prefixLen = 0;
    uint32_t ifIndex = 0;
    bool operator==(const FibNetwork &) const = default;
};

struct FibNexthop {
    FibLeg leg;                     // of a single next hop
    bool blackhole = false;
    std::vector<uint32_t> members;  // ids, of a group
};

// Same way to the same place: all but the legs' states.
bool fibRouteSame(const FibRoute &a, const FibRoute &b);

// The address with all but its first len bits zero.
FibAddress fibMask(const FibAddress &address, uint32_t len);

class FibTables {
public:
    enum class Change { None, Done, Doubt };

    // A route was added, or (replace) took the place of the one with its prefix and metric.
    Change routeAdd(int version, uint32_t table, const FibRoute &route, bool replace);
    Change routeDel(int version, uint32_t table, const FibRoute &route);

    // Adds what a dump of a table tells, in its order.
    void routeAppend(int version, uint32_t table, FibRoute route);

    // A table becomes what `fresh` holds of it (nothing: it has no routes); `fresh` is emptied of it.
    void tableTake(int version, uint32_t table, FibTables &fresh);
    bool tableKnown(int version, uint32_t table) const;

    void nexthopSet(uint32_t id, FibNexthop nexthop);
    void nexthopDel(uint32_t id);

    // fibLookup for a table, among the routes whose prefix has at least `shortest` bits.
    std::optional<FibEgress> lookup(int version, uint32_t table, const FibAddress &address,
                                    uint32_t shortest = 0) const;

    // The networks connected through this link, in all tables.
    std::vector<FibNetwork> networksOf(uint32_t ifIndex) const;

    size_t routeCount() const;

private:
    struct Hash {
        size_t operator()(const FibAddress &address) const;
    };
    using Prefixes = std::unordered_map<FibAddress, std::vector<FibRoute>, Hash>;
    // Prefix length, longest first; the routes of one prefix by ascending metric.
    using Table = std::map<uint32_t, Prefixes, std::greater<uint32_t>>;

    std::vector<FibLeg> legsOf(const FibRoute &route) const;
    const FibLeg *usable(const std::vector<FibLeg> &legs) const;
    // The leg that leads to the address, before a gateway without interface is resolved.
    std::optional<FibLeg> legTo(int version, uint32_t table, const FibAddress &address, uint32_t shortest) const;

    std::map<std::pair<int, uint32_t>, Table> tables_;
    std::unordered_map<uint32_t, FibNexthop> nexthops_;
};

} // namespace host

#endif
