// What the ingress stage must know of the machine around it: its addresses, an interface's kind, and what packets
// would miss that are sent on at once.
#ifndef HOST_DEVICE_EBPF_EBPF_AROUND_H
#define HOST_DEVICE_EBPF_EBPF_AROUND_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/device/ebpf/ebpf_layout.h"
#include "host/netlink/netlink_socket.h"

namespace host {

// Prefixes that are this machine's own, broadcast, anycast and group addresses: those of the table "local".
// Result: empty, or why they cannot be read.
std::string ebpfLocalsRead(NetlinkSocket &rt, std::vector<EbpfLocal> *pLocals);

struct EbpfLink {
    uint32_t ifIndex = 0; // 0: there is no such interface
    std::string refusal;  // why packets cannot be looked at there; empty: they can
};
EbpfLink ebpfLinkRead(NetlinkSocket &rt, const std::string &ifName);

// What of others sees forwarded packets and would not see those sent on at once: hooks of nftables and of the older
// packet filter. Empty: nothing.
std::string ebpfHooksRead(NetlinkSocket &nft);

// Why IPv4 packets of an interface need the kernel's look at their source address; empty: they do not.
std::string ebpfSourceCheck(const std::string &ifName);

} // namespace host

#endif
