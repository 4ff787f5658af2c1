// The kernel's neighbour entries: reading one, understanding it, and making the kernel ask for it.
//
// What works on Linux (tried on 6.18), and what must not be done:
// - State PROBE set without link-layer address and without NLM_F_REPLACE makes the kernel ask a known
//   neighbour again at once; the entry keeps its address, its router flag and, when echoed, its
//   externally-learned flag. Setting PROBE drops the managed flag: it is put back behind it.
// - NTF_USE creates an entry, or wakes a failed one, and asks at once. It must never meet a permanent
//   entry: the kernel then drops the permanence. A new entry is therefore made with NLM_F_EXCL, and a
//   known one is read directly before it is touched.
// Not for several threads at once: the owner locks.
#ifndef HOST_HRD_HRD_NEIGHBOUR_H
#define HOST_HRD_HRD_NEIGHBOUR_H

#include <array>
#include <chrono>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/netlink/netlink_socket.h"

namespace host {

struct HrdNeighbourKey {
    uint32_t ifIndex = 0;
    int version = 4;                   // 4 or 6
    std::array<uint8_t, 16> address{}; // network order
    auto operator<=>(const HrdNeighbourKey &) const = default;
};

struct HrdNeighbour {
    uint16_t state = 0;             // NUD_...; 0: no entry
    uint8_t flags = 0;              // NTF_...
    uint32_t extendedFlags = 0;     // NTF_EXT_...
    std::vector<uint8_t> lladdr;    // empty: not known
};

// What an entry proves about its neighbour.
enum class HrdEvidence {
    Good,   // has a link-layer address in a state in which the kernel uses it
    Failed, // the kernel asked and got no answer
    Open,   // no entry, or the kernel is asking for the first time
};
HrdEvidence hrdEvidence(const HrdNeighbour &entry);

// The entry of an RTM_NEWNEIGH or RTM_DELNEIGH (then with state 0) message; none for proxy entries,
// other families and malformed messages.
std::optional<std::pair<HrdNeighbourKey, HrdNeighbour>> hrdParseNeighbour(const nlmsghdr *pMessage);

// "02:00:00:00:00:01".
std::string hrdLladdrText(const std::vector<uint8_t> &lladdr);

class HrdNeighbours {
public:
    // Opens its socket; throws std::system_error.
    HrdNeighbours();

    // Reads the entry; one without entry has state 0. On failure `entry` is untouched.
    NetlinkError get(const HrdNeighbourKey &key, HrdNeighbour &entry);

    // Reads the entry and makes the kernel ask, unless it is asking already or the entry is permanent
    // or needs no asking. entry: as it is then; a failed entry that was woken is INCOMPLETE, not failed.
    // asked: whether it was made to ask. On failure entry is as read, or untouched.
    NetlinkError solicit(const HrdNeighbourKey &key, HrdNeighbour &entry, bool &asked);

    // How long the kernel asks for a missing neighbour before it gives up (retransmission time times
    // probes of the interface). Read from the kernel, at most once a second.
    std::chrono::milliseconds askingTime(uint32_t ifIndex, int version);

private:
    NetlinkError set(const HrdNeighbourKey &key, uint16_t netlinkFlags, uint16_t state, uint8_t flags,
                     uint32_t extendedFlags);
    void readAskingTimes();

    NetlinkSocket socket_;
    std::map<std::pair<uint32_t, int>, std::chrono::milliseconds> askingTimes_; // by interface and version
    std::optional<std::chrono::steady_clock::time_point> askingTimesRead_;
};

} // namespace host

#endif
