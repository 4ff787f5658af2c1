// Route and next-hop messages of the kernel as values of the mirror. Pure functions.
#ifndef HOST_FIB_FIB_PARSE_H
#define HOST_FIB_FIB_PARSE_H

#include <optional>

#include "host/fib/fib_table.h"
#include "host/netlink/netlink_message.h"

namespace host {

struct FibRouteMessage {
    int version = 4;
    uint32_t table = 0;
    FibRoute route;
};

// The route of an RTM_NEWROUTE or RTM_DELROUTE message; none for what the mirror leaves out (the local
// table, cached routes, routes for one type of service or source prefix) and for malformed messages.
// Routes of our own protocol number are returned: the caller leaves them out.
std::optional<FibRouteMessage> fibParseRoute(const nlmsghdr *pMessage);

struct FibNexthopMessage {
    uint32_t id = 0;
    uint8_t protocol = 0;
    FibNexthop nexthop;
};

// The object of an RTM_NEWNEXTHOP or RTM_DELNEXTHOP message.
std::optional<FibNexthopMessage> fibParseNexthop(const nlmsghdr *pMessage);

struct FibAddressMessage {
    uint32_t ifIndex = 0;
    int version = 4;
    FibAddress prefix{}; // the network that the address opens, masked
    uint32_t prefixLen = 0;
};

// The network of an RTM_NEWADDR or RTM_DELADDR message; none when malformed. Of a point-to-point address it
// is the peer's.
std::optional<FibAddressMessage> fibParseAddress(const nlmsghdr *pMessage);

} // namespace host

#endif
