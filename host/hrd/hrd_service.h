// Host-route detection on the kernel's neighbour tables: see platform/hrd.h for the daemon's side.
//
// A peer is watched through its target: the neighbour entry of the peer, or of its gateway, on the
// interface that the routing table of its VRF names. The kernel does the asking (ARP, neighbour
// discovery); the service makes it ask, again every half of host.neighbour-probe-ms, and follows what
// it finds.
//
//   state     becomes      when                                                        posted
//   Unknown   Up or Down   first evidence; Down too when none came in 1.2 x the        HRD_UP, HRD_DOWN
//                          kernel's own time of asking
//   Up        Down         the kernel's asking failed; link down; no route             HRD_DOWN
//   Down      Up           the neighbour answered; a link without neighbours came up   HRD_UP
//   Up        Up           another link-layer address or another egress interface      HRD_CHANGE
//
// An entry that merely vanished (flushed by hand, collected) is asked for again and keeps the state until
// there is an answer or 1.2 x the time of asking is over. A peer that is registered again within 3 s of
// its removal is known at once. The present state is posted after every
// registration too, and again for all peers after messages to the daemon were lost. The links that lead
// to peers are asked for twenty times a period, because the kernel holds carrier notifications back.
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

struct HrdCounters {
    uint64_t reports = 0;       // messages posted
    uint64_t solicitations = 0; // times the kernel was made to ask
    uint64_t failures = 0;      // netlink requests that failed
    uint64_t resyncs = 0;       // entries read anew because notifications were lost
};
HrdCounters hrdCounters(); // any thread

// Starts the service on the event thread; after ifnetStart and fibStart. Result: empty, or why not.
std::string hrdStart();

} // namespace host

#endif
