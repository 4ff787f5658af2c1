// Reading what surrounds the ingress stage: see ebpf_around.h. Called by the stage.
#include <netinet/in.h> // before the kernel's headers, which then leave out what it has

#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "host/device/ebpf/ebpf_around.h"
#include "host/device/kernel/kernel_rules.h"

namespace host {

namespace {

constexpr uint32_t FAMILY_BITS = 8; // of a prefix, before the address

void localTake(const nlmsghdr *pMessage, std::vector<EbpfLocal> *pLocals) {
    const auto *pHeader = netlinkHeader<rtmsg>(pMessage);
    if (pHeader == nullptr || pMessage->nlmsg_type != RTM_NEWROUTE || pHeader->rtm_type < RTN_LOCAL ||
        pHeader->rtm_type > RTN_MULTICAST) {
        return;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    if (attrs.u32(RTA_TABLE).value_or(pHeader->rtm_table) != RT_TABLE_LOCAL) {
        return; // a kernel that does not look at the filter
    }
    EbpfLocal local{};
    local.prefixLen = FAMILY_BITS + pHeader->rtm_dst_len;
    local.family = pHeader->rtm_family == AF_INET6 ? 6 : 4;
    const std::vector<uint8_t> address = attrs.bytes(RTA_DST);
    std::copy_n(address.begin(), std::min(address.size(), sizeof local.address), local.address);
    pLocals->push_back(local);
}

bool seesForwarded(uint8_t family, uint32_t hook) {
    switch (family) {
    case NFPROTO_INET:
    case NFPROTO_IPV4:
    case NFPROTO_IPV6:
        return hook == NF_INET_PRE_ROUTING || hook == NF_INET_FORWARD || hook == NF_INET_POST_ROUTING || hook == NF_INET_INGRESS;
    case NFPROTO_NETDEV: return hook == NF_NETDEV_INGRESS;
    default: return false;
    }
}

void hookTake(const nlmsghdr *pMessage, std::string *pFound) {
    const auto *pHeader = netlinkHeader<nfgenmsg>(pMessage);
    if (pHeader == nullptr || NFNL_MSG_TYPE(pMessage->nlmsg_type) != NFT_MSG_NEWCHAIN) {
        return;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    const nlattr *pHook = attrs.get(NFTA_CHAIN_HOOK);
    const std::string table = attrs.string(NFTA_CHAIN_TABLE);
    const bool isOurs = pHeader->nfgen_family == NFPROTO_INET && table == KERNEL_TABLE;
    if (pHook == nullptr || isOurs) {
        return;
    }
    const uint32_t hook = NetlinkAttrs(pHook).u32Be(NFTA_HOOK_HOOKNUM).value_or(0);
    if (seesForwarded(pHeader->nfgen_family, hook)) {
        *pFound = "chain " + attrs.string(NFTA_CHAIN_NAME) + " of nftables table " + table;
    }
}

int numberIn(const std::string &path) {
    std::ifstream file(path);
    int number = 0;
    file >> number; // 0 when there is no such file
    return number;
}

} // namespace

std::string ebpfLocalsRead(NetlinkSocket &rt, std::vector<EbpfLocal> *pLocals) {
    for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
        NetlinkMessage message(RTM_GETROUTE, 0);
        rtmsg header = {};
        header.rtm_family = family;
        header.rtm_table = RT_TABLE_LOCAL;
        message.header(header).putU32(RTA_TABLE, RT_TABLE_LOCAL);
        const NetlinkError error = rt.dump(message, [&](const nlmsghdr *p) { localTake(p, pLocals); }).error;
        if (error && error.code != ENOENT) { // a family that the machine does not have has no table
            return netlinkErrorText("cannot read this machine's addresses", error);
        }
    }
    return "";
}

EbpfLink ebpfLinkRead(NetlinkSocket &rt, const std::string &ifName) {
    EbpfLink link;
    NetlinkMessage message(RTM_GETLINK, 0);
    message.header(ifinfomsg{}).putString(IFLA_IFNAME, ifName);
    const NetlinkError error = rt.request(message, [&](const nlmsghdr *p) {
        const auto *pHeader = netlinkHeader<ifinfomsg>(p);
        if (pHeader == nullptr || p->nlmsg_type != RTM_NEWLINK) {
            return;
        }
        link.ifIndex = static_cast<uint32_t>(pHeader->ifi_index);
        if (pHeader->ifi_type != ARPHRD_ETHER && pHeader->ifi_type != ARPHRD_LOOPBACK) {
            link.refusal = "its packets carry no Ethernet header";
        } else if (NetlinkAttrs(p, sizeof *pHeader).u32(IFLA_MASTER).value_or(0) != 0) {
            link.refusal = "it belongs to a bridge, a bond or a VRF";
        }
    });
    if (error || link.ifIndex == 0) {
        return {0, "there is no such interface"};
    }
    return link;
}

std::string ebpfHooksRead(NetlinkSocket &nft) {
    std::string found;
    NetlinkMessage message(static_cast<uint16_t>((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETCHAIN), 0);
    nfgenmsg header = {};
    header.nfgen_family = NFPROTO_UNSPEC;
    header.version = NFNETLINK_V0;
    message.header(header);
    const NetlinkError error = nft.dump(message, [&](const nlmsghdr *p) { hookTake(p, &found); }).error;
    if (error) {
        return netlinkErrorText("cannot read nftables chains", error);
    }
    for (const char *pPath : {"/proc/net/ip_tables_names", "/proc/net/ip6_tables_names"}) {
        std::ifstream file(pPath);
        std::string table;
        if (found.empty() && file >> table) {
            found = "table " + table + " of the kernel's older packet filter";
        }
    }
    return found;
}

std::string ebpfSourceCheck(const std::string &ifName) {
    const std::string folder = "/proc/sys/net/ipv4/conf/";
    const int filter = std::max(numberIn(folder + "all/rp_filter"), numberIn(folder + ifName + "/rp_filter"));
    return filter == 0 ? "" : "the kernel checks source addresses there (rp_filter " + std::to_string(filter) + ")";
}

} // namespace host
