// Host-route detection on the kernel's neighbour tables: see platform/hrd.h for the daemon's side.
#ifndef HOST_HRD_HRD_SERVICE_H
#define HOST_HRD_HRD_SERVICE_H

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace host {

enum class HrdState { Unknown, Up, Down }; // Unknown: registered, no answer and no failure yet

struct HrdPeer {
    uint32_t vrfid = 0;
    int version = 4;                    // 4 or 6
    std::array<uint8_t, 16> address{};  // network order
    HrdState state = HrdState::Unknown;
    std::string reason;                 // why it is down or unknown: "no route", "link down", "no answer"
    std::string interfaceName;          // egress, when known
    std::string lladdr;                 // link-layer address, when known
    uint64_t ups = 0, downs = 0;        // transitions
};

// All registered peers now. Any thread. Lock: none (takes the service's own)
std::vector<HrdPeer> hrdPeers();

// Whether some registered peer is still Unknown. Any thread.
bool hrdUndetermined();

// Starts the service on the event thread. Result: empty, or why not.
std::string hrdStart();

} // namespace host

#endif
