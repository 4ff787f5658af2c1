// The links: dump, notifications, look-ups, and the messages about them. See ifnet.h.
//
// The links that are there at the start are no news: nothing is published about them. When the bus lost
// messages for the daemon, it is told again what would keep a policy where it cannot act: units that are
// gone, and ports that joined an aggregation after they were bound.
//
// The map is written on the event thread (and by ifnetStart before it is watched) and read anywhere,
// under one mutex that is never held while callbacks run.
#include "host/ifnet/ifnet.h"
#include "host/journal/journal.h"

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "host/bus/bus.h"
#include "host/event/event_loop.h"
#include "host/ifnet/ifnet_state.h"
#include "host/ifnet/link_messages.h"
#include "host/logging/host_log.h"
#include "host/mgmt/watch_feed.h"
#include "host/netlink/netlink_monitor.h"
#include "host/netlink/netlink_socket.h"

namespace host {

namespace {

using Links = std::map<uint32_t, IfnetLink>;

struct State {
    std::mutex lock;
    Links links;                                                 // under lock
    std::map<uint32_t, std::string> goneNames;                   // under lock; of units with a policy
    std::map<uint32_t, uint32_t> joinedBound;                    // under lock; port with a policy -> what it joined
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

// Whether the link's master is an aggregation, by what the kernel calls its ports.
bool isPort(const NetlinkAttrs &attrs) {
    const nlattr *pInfo = attrs.get(IFLA_LINKINFO);
    const std::string kind = pInfo == nullptr ? "" : NetlinkAttrs(pInfo).string(IFLA_INFO_SLAVE_KIND);
    return kind == "bridge" || kind == "bond" || kind == "team";
}

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
    link.aggregation = isPort(attrs) ? attrs.u32(IFLA_MASTER).value_or(0) : 0;
    link.isEthernet = pInfo->ifi_type == ARPHRD_ETHER;
    return link;
}

// What the operator should know about policies, in the log.
void policyTell(const std::optional<IfnetLink> &before, const std::optional<IfnetLink> &after) {
    const IfnetLink &link = after ? *after : *before;
    if (!ifnetHasPolicy(link.unit)) {
        return;
    }
    const bool hasJoined = after && after->aggregation != 0 && (!before || before->aggregation != after->aggregation);
    if (!after) {
        hostLog(LOG_LEVEL_NOTICE, "ifnet", "interface %s (unit %u) is gone and its policy is unbound: bind it again "
                "when the interface is back", link.name.c_str(), link.unit);
    } else if (hasJoined) {
        hostLog(LOG_LEVEL_NOTICE, "ifnet", "interface %s is a port of %s now and its own policy is unbound: bind the "
                "policy to %s", link.name.c_str(), ifnetName(after->aggregation).c_str(),
                ifnetName(after->aggregation).c_str());
        const std::lock_guard guard(state().lock);
        state().joinedBound[link.unit] = after->aggregation;
    }
}

// Tells the services and the daemon a link that came (no `before`), changed, or went (no `after`).
void report(const std::optional<IfnetLink> &before, const std::optional<IfnetLink> &after) {
    IfnetLink link = after ? *after : *before;
    link.up = after && after->up;
    std::vector<std::function<void(const IfnetLink &)>> changed;
    {
        const std::lock_guard guard(state().lock);
        changed = state().changed;
    }
    for (const auto &call : changed) {
        call(link);
    }
    const char *pState = !after ? "gone" : after->up ? "up" : "down";
    if (!before || !after || before->up != after->up) {
        watchTell("link", "interface " + link.name + " is " + (before ? "" : "new and ") + pState,
                  {{"interface", link.name}, {"unit", link.unit}, {"state", pState}, {"new", !before}});
    }
    policyTell(before, after);
    if (before && (!after || (after->aggregation != 0 && after->aggregation != before->aggregation))) {
        journalInterfaceLeft(before->unit); // the daemon unbinds it when it reads the message
    }
    linkMessagesPublish(linkMessagesOf(before, after));
}

// The aggregation that a port joined while it had a policy that it still has; 0: none.
uint32_t joinedWhileBound(uint32_t unit) {
    const std::lock_guard guard(state().lock);
    const auto joined = state().joinedBound.find(unit);
    return joined == state().joinedBound.end() ? 0 : joined->second;
}

// Messages to the daemon were lost.
void messagesLost() {
    for (const uint32_t unit : ifnetPolicyUnits()) {
        const std::optional<IfnetLink> link = ifnetByUnit(unit);
        if (!link) {
            linkMessagesPublish({linkMessage(QRV_RTM_DELLINK_FINAL, unit)});
        } else if (link->aggregation != 0 && joinedWhileBound(unit) == link->aggregation) {
            linkMessagesPublish({linkMessage(QRV_RTM_NEWLINK, unit, QRV_RTM_LINK_JOINED, link->aggregation)});
        }
    }
}

void linkSet(const IfnetLink &link) {
    std::optional<IfnetLink> before;
    {
        const std::lock_guard guard(state().lock);
        const auto found = state().links.find(link.unit);
        if (found != state().links.end()) {
            before = found->second;
        }
        if (before == link) {
            return;
        }
        state().links[link.unit] = link;
        state().goneNames.erase(link.unit);
    }
    report(before, link);
}

void linkGone(uint32_t unit) {
    IfnetLink gone;
    const bool hasPolicy = ifnetHasPolicy(unit);
    {
        const std::lock_guard guard(state().lock);
        const auto found = state().links.find(unit);
        if (found == state().links.end()) {
            return;
        }
        gone = found->second;
        state().links.erase(found);
        if (hasPolicy) {
            state().goneNames[unit] = gone.name; // for the daemon's texts while it unbinds
        }
    }
    report(gone, std::nullopt);
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
    const std::lock_guard guard(state().lock);
    const auto found = state().links.find(unit);
    if (found != state().links.end()) {
        return found->second.name;
    }
    const auto gone = state().goneNames.find(unit);
    return gone != state().goneNames.end() ? gone->second : "if" + std::to_string(unit);
}

void ifnetPolicyForget(uint32_t unit) {
    const std::lock_guard guard(state().lock);
    state().goneNames.erase(unit);
    state().joinedBound.erase(unit);
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
    busOnLoss(messagesLost);
    state().pMonitor->start(hostEventLoop());
    return {};
}

} // namespace host
