// The way to an address: what both the mirror of the routing tables and its tables answer.
#ifndef HOST_FIB_FIB_EGRESS_H
#define HOST_FIB_FIB_EGRESS_H

#include <array>
#include <cstdint>

namespace host {

struct FibEgress {
    uint32_t ifIndex = 0;                // kernel interface index
    bool hasGateway = false;             // not on a connected network: reached through `gateway`
    std::array<uint8_t, 16> gateway{};   // network order
    int gatewayVersion = 0;              // 4 or 6 (an IPv4 route may lead to an IPv6 gateway); 0 without
    bool operator==(const FibEgress &) const = default;
};

} // namespace host

#endif
