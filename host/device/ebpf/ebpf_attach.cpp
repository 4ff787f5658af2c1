// Filters of the ingress program on interfaces: see ebpf_program.h. Raw messages, because only so a filter gets a name
// of ours and replaces an earlier one in one step.
#include <arpa/inet.h>
#include <cerrno>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include "host/device/ebpf/ebpf_program.h"
#include "host/netlink/netlink_socket.h"

namespace host {

namespace {

constexpr uint32_t INGRESS = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS);
constexpr uint32_t EGRESS = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_EGRESS);
constexpr uint32_t FILTER_HANDLE = 1;

tcmsg filterHeader(uint32_t ifIndex, uint32_t parent) {
    tcmsg header = {};
    header.tcm_family = AF_UNSPEC;
    header.tcm_ifindex = static_cast<int>(ifIndex);
    header.tcm_parent = parent;
    return header;
}

tcmsg ourFilter(uint32_t ifIndex) {
    tcmsg header = filterHeader(ifIndex, INGRESS);
    header.tcm_handle = FILTER_HANDLE;
    header.tcm_info = TC_H_MAKE(static_cast<uint32_t>(EBPF_FILTER_PRIORITY) << 16, htons(ETH_P_ALL));
    return header;
}

// Of one place of an interface: filters of others, and whether ours is there.
struct Filters {
    size_t others = 0;
    bool isOurs = false;
};

NetlinkError filtersOf(NetlinkSocket &socket, uint32_t ifIndex, uint32_t parent, Filters *pFilters) {
    NetlinkMessage message(RTM_GETTFILTER, 0);
    message.header(filterHeader(ifIndex, parent));
    return socket.dump(message, [&](const nlmsghdr *p) {
        const auto *pHeader = netlinkHeader<tcmsg>(p);
        if (p->nlmsg_type != RTM_NEWTFILTER || pHeader == nullptr || pHeader->tcm_handle == 0) {
            return; // one without handle stands for all of its priority
        }
        const NetlinkAttrs attrs(p, sizeof *pHeader);
        const nlattr *pOptions = attrs.get(TCA_OPTIONS);
        const bool isBpf = attrs.string(TCA_KIND) == "bpf" && pOptions != nullptr;
        if (isBpf && NetlinkAttrs(pOptions).string(TCA_BPF_NAME) == EBPF_NAME) {
            pFilters->isOurs = true;
        } else {
            pFilters->others++;
        }
    }).error;
}

std::string classifierAdd(NetlinkSocket &socket, uint32_t ifIndex) {
    NetlinkMessage message(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL);
    tcmsg header = filterHeader(ifIndex, TC_H_CLSACT);
    header.tcm_handle = TC_H_MAKE(TC_H_CLSACT, 0);
    message.header(header).putString(TCA_KIND, "clsact");
    const NetlinkError error = socket.request(message);
    return error.code == EEXIST ? "" : netlinkErrorText("the interface takes no clsact", error);
}

} // namespace

std::string ebpfFiltersRead(NetlinkSocket &socket, std::set<uint32_t> *pIfIndexes) {
    std::set<uint32_t> candidates;
    NetlinkMessage message(RTM_GETQDISC, 0);
    message.header(filterHeader(0, 0));
    NetlinkError error = socket.dump(message, [&](const nlmsghdr *p) {
        const auto *pHeader = netlinkHeader<tcmsg>(p);
        if (pHeader != nullptr && NetlinkAttrs(p, sizeof *pHeader).string(TCA_KIND) == "clsact") {
            candidates.insert(static_cast<uint32_t>(pHeader->tcm_ifindex));
        }
    }).error;
    for (const uint32_t ifIndex : candidates) {
        Filters filters;
        const NetlinkError one = filtersOf(socket, ifIndex, INGRESS, &filters);
        error = one && one.code != ENODEV ? one : error;
        if (filters.isOurs) {
            pIfIndexes->insert(ifIndex);
        }
    }
    return netlinkErrorText("cannot read filters of interfaces", error);
}

std::string ebpfAttach(NetlinkSocket &socket, uint32_t ifIndex, int fd) {
    const std::string error = classifierAdd(socket, ifIndex);
    if (!error.empty()) {
        return error;
    }
    NetlinkMessage message(RTM_NEWTFILTER, NLM_F_CREATE | NLM_F_REPLACE);
    message.header(ourFilter(ifIndex)).putString(TCA_KIND, "bpf");
    const size_t options = message.nestStart(TCA_OPTIONS);
    message.putU32(TCA_BPF_FD, static_cast<uint32_t>(fd));
    message.putString(TCA_BPF_NAME, EBPF_NAME);
    message.putU32(TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
    message.nestEnd(options);
    return netlinkErrorText("the interface takes no filter", socket.request(message));
}

std::string ebpfDetach(NetlinkSocket &socket, uint32_t ifIndex) {
    NetlinkMessage message(RTM_DELTFILTER, 0);
    message.header(ourFilter(ifIndex)).putString(TCA_KIND, "bpf");
    const NetlinkError error = socket.request(message);
    if (error && error.code != ENOENT && error.code != ENODEV && error.code != EINVAL) {
        return netlinkErrorText("the filter cannot be removed", error);
    }
    Filters filters;
    if (filtersOf(socket, ifIndex, INGRESS, &filters) || filtersOf(socket, ifIndex, EGRESS, &filters) ||
        filters.others != 0 || filters.isOurs) {
        return "";
    }
    NetlinkMessage qdisc(RTM_DELQDISC, 0);
    tcmsg header = filterHeader(ifIndex, TC_H_CLSACT);
    header.tcm_handle = TC_H_MAKE(TC_H_CLSACT, 0);
    qdisc.header(header);
    (void)socket.request(qdisc); // without filters it costs nothing, should it stay
    return "";
}

} // namespace host
