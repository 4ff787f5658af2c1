// The links: dump, notifications, look-ups. See ifnet.h.
//
// The map is written on the event thread (and by ifnetStart before it is watched) and read anywhere,
// under one mutex that is never held while callbacks run.
#include "host/ifnet/ifnet.h"

#include <linux/if.h>
#include <linux/rtnetlink.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "host/event/event_loop.h"
#include "host/ifnet/ifnet_state.h"
#include "host/logging/host_log.h"
#include "host/netlink/netlink_monitor.h"
#include "host/netlink/netlink_socket.h"

namespace host {

namespace {

using Links = std::map<uint32_t, IfnetLink>;

struct State {
    std::mutex lock;
    Links links;                                                 // under lock
    std::vector<std::function<void(const IfnetLink &)>> changed; // under lock
    std::atomic<uint64_t> resyncs{0};
    std::unique_ptr<NetlinkSocket> pSocket;   // event thread after start
    std::unique_ptr<NetlinkMonitor> pMonitor; // event thread after start
};

State &state() {
    static State *pState = new State; // lives as long as the event thread, that is to the end
    return *pState;
}

// With operational state UNKNOWN (tun, loopback) the kernel says RUNNING too.
constexpr uint32_t FLAGS_UP = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;

std::optional<IfnetLink> linkOf(const nlmsghdr *pMessage) {
    const ifinfomsg *pInfo = netlinkHeader<ifinfomsg>(pMessage);
    // Bridges announce their ports' forwarding settings as links of family AF_BRIDGE: not our subject.
    if (pInfo == nullptr || pInfo->ifi_family != AF_UNSPEC || pInfo->ifi_index <= 0) {
        return std::nullopt;
    }
    const NetlinkAttrs attrs(pMessage, sizeof(ifinfomsg));
    IfnetLink link;
    link.unit = static_cast<uint32_t>(pInfo->ifi_index);
    link.name = attrs.string(IFLA_IFNAME);
    link.up = (pInfo->ifi_flags & FLAGS_UP) == FLAGS_UP;
    link.hasNeighbours = (pInfo->ifi_flags & (IFF_NOARP | IFF_LOOPBACK | IFF_POINTOPOINT)) == 0;
    return link;
}

// Tells a link that came, changed or went. Link messages for the daemon belong here too.
void report(const IfnetLink &link) {
    std::vector<std::function<void(const IfnetLink &)>> changed;
    {
        const std::lock_guard guard(state().lock);
        changed = state().changed;
    }
    for (const auto &call : changed) {
        call(link);
    }
}

void linkSet(const IfnetLink &link) {
    {
        const std::lock_guard guard(state().lock);
        IfnetLink &held = state().links[link.unit];
        if (held == link) {
            return;
        }
        held = link;
    }
    report(link);
}

void linkGone(uint32_t unit) {
    IfnetLink gone;
    {
        const std::lock_guard guard(state().lock);
        const auto found = state().links.find(unit);
        if (found == state().links.end()) {
            return;
        }
        gone = found->second;
        state().links.erase(found);
    }
    gone.up = false;
    report(gone);
}

void receive(const nlmsghdr *pMessage) {
    const std::optional<IfnetLink> link = linkOf(pMessage);
    if (!link) {
        return;
    }
    if (pMessage->nlmsg_type == RTM_NEWLINK) {
        linkSet(*link);
    } else if (pMessage->nlmsg_type == RTM_DELLINK) {
        linkGone(link->unit);
    }
}

std::string readLinks(Links &links) {
    NetlinkMessage request(RTM_GETLINK, 0);
    request.header(ifinfomsg{});
    const NetlinkDumpResult result = state().pSocket->dump(request, [&links](const nlmsghdr *pMessage) {
        if (const std::optional<IfnetLink> link = linkOf(pMessage)) {
            links[link->unit] = *link;
        }
    });
    return netlinkErrorText("read the links", result.error);
}

void resync() {
    ++state().resyncs;
    Links now;
    const std::string failure = readLinks(now);
    if (!failure.empty()) {
        hostLog(LOG_LEVEL_ERROR, "ifnet", "%s; trying again", failure.c_str());
        hostEventLoop().timerStart(std::chrono::milliseconds(100), resync);
        return;
    }
    hostLog(LOG_LEVEL_WARNING, "ifnet", "link notifications were lost, links read anew");
    for (const IfnetLink &held : ifnetAll()) {
        if (now.find(held.unit) == now.end()) {
            linkGone(held.unit);
        }
    }
    for (const auto &[unit, link] : now) {
        linkSet(link);
    }
}

} // namespace

std::optional<IfnetLink> ifnetByUnit(uint32_t unit) {
    const std::lock_guard guard(state().lock);
    const auto found = state().links.find(unit);
    return found == state().links.end() ? std::nullopt : std::optional<IfnetLink>(found->second);
}

std::optional<IfnetLink> ifnetByName(const std::string &name) {
    const std::lock_guard guard(state().lock);
    for (const auto &[unit, link] : state().links) {
        if (link.name == name) {
            return link;
        }
    }
    return std::nullopt;
}

std::vector<IfnetLink> ifnetAll() {
    const std::lock_guard guard(state().lock);
    std::vector<IfnetLink> all;
    for (const auto &[unit, link] : state().links) {
        all.push_back(link);
    }
    return all;
}

std::string ifnetName(uint32_t unit) {
    const std::optional<IfnetLink> link = ifnetByUnit(unit);
    return link ? link->name : "if" + std::to_string(unit);
}

void ifnetOnChange(std::function<void(const IfnetLink &)> changed) {
    const std::lock_guard guard(state().lock);
    state().changed.push_back(std::move(changed));
}

void ifnetRefresh(uint32_t unit) {
    if (state().pSocket == nullptr) {
        return; // not started, or it could not be
    }
    NetlinkMessage request(RTM_GETLINK, 0);
    ifinfomsg header = {};
    header.ifi_index = static_cast<int>(unit);
    request.header(header);
    request.putU32(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    std::optional<IfnetLink> link;
    const NetlinkError error =
        state().pSocket->request(request, [&link](const nlmsghdr *pMessage) { link = linkOf(pMessage); });
    if (link) {
        linkSet(*link);
    } else if (error.code == ENODEV) {
        linkGone(unit);
    }
}

uint64_t ifnetResyncs() {
    return state().resyncs;
}

std::string ifnetStart() {
    try {
        state().pSocket = std::make_unique<NetlinkSocket>(NETLINK_ROUTE);
        state().pMonitor = std::make_unique<NetlinkMonitor>(
            NETLINK_ROUTE, std::vector<uint32_t>{RTNLGRP_LINK}, receive, resync);
    } catch (const std::exception &error) {
        return std::string("follow the links: ") + error.what();
    }
    Links links;
    const std::string failure = readLinks(links);
    if (!failure.empty()) {
        return failure;
    }
    {
        const std::lock_guard guard(state().lock);
        state().links = std::move(links);
    }
    state().pMonitor->start(hostEventLoop());
    return {};
}

} // namespace host
