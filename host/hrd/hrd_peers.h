// Peers of the service, from the daemon's call to the event thread. Not for others.
#ifndef HOST_HRD_HRD_PEERS_H
#define HOST_HRD_HRD_PEERS_H

#include <array>
#include <compare>
#include <cstdint>

namespace host {

struct HrdPeerKey {
    uint32_t vrfid = 0;
    int version = 4;                   // 4 or 6
    std::array<uint8_t, 16> address{}; // network order; IPv4 in the first 4 bytes, rest 0
    auto operator<=>(const HrdPeerKey &) const = default;
};

// Whether hrdStart succeeded. Any thread.
bool hrdRunning();

// Registers the peer (again), or removes it. Event thread. Lock: takes the service's own
void hrdPeerAdd(const HrdPeerKey &key);
void hrdPeerDel(const HrdPeerKey &key);

} // namespace host

#endif
