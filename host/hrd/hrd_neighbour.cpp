// The kernel's neighbour entries: see the header.
#include "host/hrd/hrd_neighbour.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace host {

namespace {

using std::chrono::milliseconds;

constexpr uint16_t STATES_ASKABLE = NUD_REACHABLE | NUD_STALE | NUD_DELAY;
constexpr uint16_t STATES_GOOD = STATES_ASKABLE | NUD_PROBE | NUD_PERMANENT | NUD_NOARP;
constexpr milliseconds USUAL_ASKING_TIME{3000}; // 3 probes, 1 s apart
constexpr std::chrono::seconds ASKING_TIMES_KEPT{1};

uint8_t familyOf(int version) {
    return version == 4 ? AF_INET : AF_INET6;
}

ndmsg headerOf(const HrdNeighbourKey &key) {
    ndmsg header = {};
    header.ndm_family = familyOf(key.version);
    header.ndm_ifindex = static_cast<int32_t>(key.ifIndex);
    return header;
}

void addressPut(NetlinkMessage &message, const HrdNeighbourKey &key) {
    message.put(NDA_DST, key.address.data(), key.version == 4 ? 4 : 16);
}

} // namespace

HrdEvidence hrdEvidence(const HrdNeighbour &entry) {
    if ((entry.state & NUD_FAILED) != 0) {
        return HrdEvidence::Failed;
    }
    return (entry.state & STATES_GOOD) != 0 && !entry.lladdr.empty() ? HrdEvidence::Good : HrdEvidence::Open;
}

std::optional<std::pair<HrdNeighbourKey, HrdNeighbour>> hrdParseNeighbour(const nlmsghdr *pMessage) {
    const ndmsg *pHeader = netlinkHeader<ndmsg>(pMessage);
    if (pHeader == nullptr || (pHeader->ndm_family != AF_INET && pHeader->ndm_family != AF_INET6) ||
        (pHeader->ndm_flags & NTF_PROXY) != 0) {
        return std::nullopt;
    }
    const NetlinkAttrs attrs(pMessage, sizeof(ndmsg));
    const std::vector<uint8_t> address = attrs.bytes(NDA_DST);
    if (address.size() != (pHeader->ndm_family == AF_INET ? 4u : 16u)) {
        return std::nullopt;
    }
    HrdNeighbourKey key{static_cast<uint32_t>(pHeader->ndm_ifindex), pHeader->ndm_family == AF_INET ? 4 : 6, {}};
    std::copy(address.begin(), address.end(), key.address.begin());
    HrdNeighbour entry;
    if (pMessage->nlmsg_type == RTM_NEWNEIGH) {
        entry = {pHeader->ndm_state, pHeader->ndm_flags, attrs.u32(NDA_FLAGS_EXT).value_or(0),
                 attrs.bytes(NDA_LLADDR)};
    }
    return std::pair(key, entry);
}

std::string hrdLladdrText(const std::vector<uint8_t> &lladdr) {
    static const char *const digits = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : lladdr) {
        text += text.empty() ? "" : ":";
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

HrdNeighbours::HrdNeighbours() : socket_(NETLINK_ROUTE) {}

NetlinkError HrdNeighbours::get(const HrdNeighbourKey &key, HrdNeighbour &entry) {
    NetlinkMessage message(RTM_GETNEIGH, 0);
    message.header(headerOf(key));
    addressPut(message, key);
    HrdNeighbour found;
    NetlinkError error = socket_.request(message, [&](const nlmsghdr *pMessage) {
        if (const auto parsed = hrdParseNeighbour(pMessage)) {
            found = parsed->second;
        }
    });
    if (error.code == ENOENT) {
        error = {}; // no such entry
    }
    if (!error) {
        entry = found;
    }
    return error;
}

NetlinkError HrdNeighbours::set(const HrdNeighbourKey &key, uint16_t netlinkFlags, uint16_t neighbourState,
                                uint8_t flags, uint32_t extendedFlags) {
    ndmsg header = headerOf(key);
    header.ndm_state = neighbourState;
    header.ndm_flags = flags;
    NetlinkMessage message(RTM_NEWNEIGH, netlinkFlags);
    message.header(header);
    addressPut(message, key);
    if (extendedFlags != 0) {
        message.putU32(NDA_FLAGS_EXT, extendedFlags);
    }
    return socket_.request(message);
}

NetlinkError HrdNeighbours::solicit(const HrdNeighbourKey &key, HrdNeighbour &entry, bool &asked) {
    asked = false;
    NetlinkError error = get(key, entry);
    if (error) {
        return error;
    }
    const uint8_t learned = entry.flags & NTF_EXT_LEARNED;
    const uint32_t managed = entry.extendedFlags & NTF_EXT_MANAGED;
    if (entry.state == NUD_NONE) {
        error = set(key, NLM_F_CREATE | NLM_F_EXCL, NUD_NONE, NTF_USE, 0);
        if (error.code == EEXIST) {
            return {}; // it came meanwhile, and with it a notification
        }
        entry.state = error ? NUD_NONE : NUD_INCOMPLETE;
    } else if ((entry.state & NUD_FAILED) != 0) {
        error = set(key, 0, NUD_NONE, NTF_USE | learned, managed);
        entry.state = error ? entry.state : NUD_INCOMPLETE; // the old failure proves nothing any more
    } else if ((entry.state & STATES_ASKABLE) != 0) {
        error = set(key, 0, NUD_PROBE, learned, 0);
        if (!error && managed != 0) {
            error = set(key, 0, NUD_NONE, learned, managed);
        }
    } else {
        return {}; // asking already, permanent, or not to be asked
    }
    asked = !error;
    return error.code == ENOENT ? NetlinkError() : error; // vanished meanwhile: a notification tells
}

std::chrono::milliseconds HrdNeighbours::askingTime(uint32_t ifIndex, int version) {
    const auto now = std::chrono::steady_clock::now();
    if (!askingTimesRead_ || now - *askingTimesRead_ > ASKING_TIMES_KEPT) {
        readAskingTimes();
        askingTimesRead_ = now;
    }
    const auto found = askingTimes_.find({ifIndex, version});
    return found == askingTimes_.end() ? USUAL_ASKING_TIME : found->second;
}

void HrdNeighbours::readAskingTimes() {
    askingTimes_.clear();
    for (int version : {4, 6}) {
        NetlinkMessage message(RTM_GETNEIGHTBL, 0);
        ndtmsg header = {};
        header.ndtm_family = familyOf(version);
        message.header(header);
        // A failure leaves the usual time in force.
        (void)socket_.dump(message, [&](const nlmsghdr *pMessage) {
            const NetlinkAttrs attrs(pMessage, sizeof(ndtmsg));
            if (!attrs.has(NDTA_PARMS)) {
                return;
            }
            const NetlinkAttrs parms(attrs.get(NDTA_PARMS));
            const std::vector<uint8_t> retransmit = parms.bytes(NDTPA_RETRANS_TIME);
            uint64_t milliseconds64 = 0;
            if (retransmit.size() == sizeof(milliseconds64)) {
                std::memcpy(&milliseconds64, retransmit.data(), sizeof(milliseconds64));
                const uint64_t probes = parms.u32(NDTPA_MCAST_PROBES).value_or(3) +
                                        parms.u32(NDTPA_APP_PROBES).value_or(0);
                askingTimes_[{parms.u32(NDTPA_IFINDEX).value_or(0), version}] =
                    milliseconds(std::min<uint64_t>(milliseconds64 * std::max<uint64_t>(probes, 1), 3600000));
            }
        });
    }
}

} // namespace host
