// Networks whose link is administratively down. The kernel takes their routes away with the link; the
// addresses on them do not live behind another route because of that. Values: no kernel, no lock.
#ifndef HOST_FIB_FIB_ASLEEP_H
#define HOST_FIB_FIB_ASLEEP_H

#include <cstdint>
#include <vector>

#include "host/fib/fib_table.h"

namespace host {

class FibAsleep {
public:
    // The network was on its link, which is down now. Short prefixes (below 8 bits of IPv4, 32 of IPv6) are
    // ways to elsewhere and no networks: they are left out.
    void add(const FibNetwork &network);

    // The link is up again or gone for good: its networks are no more asleep.
    void linkDel(uint32_t ifIndex);

    // An address was taken from a link: the network of that prefix is not the link's any more, in any table.
    void networkDel(uint32_t ifIndex, int version, const FibAddress &prefix, uint32_t prefixLen);

    // Prefix length of the longest network asleep in this table that has the address; 0: none has it.
    uint32_t longest(int version, uint32_t table, const FibAddress &address) const;

private:
    std::vector<FibNetwork> networks_; // few: those of the links that are down
};

} // namespace host

#endif
