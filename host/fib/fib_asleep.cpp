// Networks of links that are down: see the header.
#include "host/fib/fib_asleep.h"

#include <algorithm>

namespace host {

namespace {

constexpr uint32_t SHORTEST_NETWORK_IPV4 = 8, SHORTEST_NETWORK_IPV6 = 32;

} // namespace

void FibAsleep::add(const FibNetwork &network) {
    const uint32_t shortest = network.version == 4 ? SHORTEST_NETWORK_IPV4 : SHORTEST_NETWORK_IPV6;
    const bool isHeld = std::find(networks_.begin(), networks_.end(), network) != networks_.end();
    if (network.prefixLen >= shortest && !isHeld) {
        networks_.push_back(network);
    }
}

void FibAsleep::linkDel(uint32_t ifIndex) {
    std::erase_if(networks_, [&](const FibNetwork &held) { return held.ifIndex == ifIndex; });
}

void FibAsleep::networkDel(uint32_t ifIndex, int version, const FibAddress &prefix, uint32_t prefixLen) {
    std::erase_if(networks_, [&](const FibNetwork &held) {
        return held.ifIndex == ifIndex && held.version == version && held.prefixLen == prefixLen &&
               held.prefix == prefix;
    });
}

uint32_t FibAsleep::longest(int version, uint32_t table, const FibAddress &address) const {
    uint32_t longest = 0;
    for (const FibNetwork &held : networks_) {
        if (held.version == version && held.table == table && fibMask(address, held.prefixLen) == held.prefix) {
            longest = std::max(longest, held.prefixLen);
        }
    }
    return longest;
}

} // namespace host
