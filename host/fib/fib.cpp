// The mirror of the kernel's routing tables: see fib.h. Runs on the event thread; look-ups anywhere.
//
// Notifications are applied one by one and told 5 ms after the first of a burst. What they leave in
// doubt marks a table (or everything) stale; stale tables are read again after the same 5 ms, or later
// when reading takes long: it may take at most a sixth of the event thread's time.
#include "host/fib/fib.h"

#include <linux/if.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <utility>

#include "host/event/event_loop.h"
#include "host/fib/fib_asleep.h"
#include "host/fib/fib_parse.h"
#include "host/fib/fib_table.h"
#include "host/logging/host_log.h"
#include "host/netlink/netlink_monitor.h"
#include "host/netlink/netlink_socket.h"
#include "host/option/option.h"

namespace host {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds MERGE{5};
constexpr milliseconds RETRY{100};
constexpr milliseconds LONGEST_WAIT{10000};
constexpr uint32_t MAIN_TABLE = RT_TABLE_MAIN;
constexpr uint32_t LINK_FLAGS = IFF_UP | IFF_RUNNING | IFF_LOWER_UP; // what the kernel's routes depend on
constexpr std::chrono::seconds WAKING{10}; // a link that comes up has its addresses back by then
constexpr int DUMP_ATTEMPTS = 2; // a table that keeps changing is read again later instead

struct State {
    std::shared_mutex lock;
    FibTables tables;                               // under lock; written on the event thread
    FibAsleep asleep;                               // the same
    bool isGatewayWay = true;                       // option host.next-hop-via-gateway; set at start
    std::mutex callbackLock;
    std::vector<std::function<void()>> changed;     // under callbackLock
    std::atomic<uint64_t> tableReads{0}, resyncs{0};

    // Event thread only, after start.
    std::unique_ptr<NetlinkSocket> pSocket;
    std::unique_ptr<NetlinkMonitor> pMonitor;
    struct Link {
        uint32_t flags = 0;                         // of LINK_FLAGS
        bool hasMaster = false;                     // a port, or of a VRF
    };
    std::map<uint32_t, Link> links;                 // by interface index
    std::set<std::pair<int, uint32_t>> stale;       // (version, table) to be read again
    bool allStale = false;
    bool tellScheduled = false, readScheduled = false;
    Clock::time_point nextRead{};                   // tables are not read before
};

State &state() {
    static State *pState = new State; // lives as long as the event thread, that is to the end
    return *pState;
}

void tell();
void readStale();

void scheduleTell() {
    if (!std::exchange(state().tellScheduled, true)) {
        hostEventLoop().timerStart(MERGE, tell);
    }
}

void scheduleRead(milliseconds least = MERGE) {
    if (!std::exchange(state().readScheduled, true)) {
        const auto early = std::chrono::ceil<milliseconds>(state().nextRead - Clock::now());
        hostEventLoop().timerStart(std::max(least, early), readStale);
    }
}

void staleAll() {
    state().allStale = true;
    scheduleRead();
}

// Our own routes are left out; only one that took the place of another's matters.
void routeMessage(const nlmsghdr *pMessage) {
    const std::optional<FibRouteMessage> message = fibParseRoute(pMessage);
    if (!message) {
        return;
    }
    const bool replace = (pMessage->nlmsg_flags & NLM_F_REPLACE) != 0;
    FibTables::Change change = FibTables::Change::None;
    if (message->route.protocol != FIB_PROTO_POLICYROUTE) {
        const std::unique_lock guard(state().lock);
        change = pMessage->nlmsg_type == RTM_NEWROUTE
                     ? state().tables.routeAdd(message->version, message->table, message->route, replace)
                     : state().tables.routeDel(message->version, message->table, message->route);
    } else if (replace && state().tables.tableKnown(message->version, message->table)) {
        change = FibTables::Change::Doubt;
    }
    if (change == FibTables::Change::Done) {
        scheduleTell();
    } else if (change == FibTables::Change::Doubt) {
        state().stale.insert({message->version, message->table});
        scheduleRead();
    }
}

void nexthopMessage(const nlmsghdr *pMessage) {
    const std::optional<FibNexthopMessage> message = fibParseNexthop(pMessage);
    if (!message || message->protocol == FIB_PROTO_POLICYROUTE) {
        return;
    }
    {
        const std::unique_lock guard(state().lock);
        if (pMessage->nlmsg_type == RTM_NEWNEXTHOP) {
            state().tables.nexthopSet(message->id, message->nexthop);
        } else {
            state().tables.nexthopDel(message->id);
        }
    }
    scheduleTell();
    if (pMessage->nlmsg_type == RTM_DELNEXTHOP) {
        staleAll(); // with the object the kernel deletes its routes, IPv4 ones silently
    }
}

const State::Link *linkOf(uint32_t ifIndex) {
    const auto found = state().links.find(ifIndex);
    return found == state().links.end() ? nullptr : &found->second;
}

// The link was set down: what is connected through it is asleep from now on. The kernel says so before it
// takes the routes away.
void linkSleeps(uint32_t ifIndex) {
    const std::unique_lock guard(state().lock);
    for (const FibNetwork &network : state().tables.networksOf(ifIndex)) {
        state().asleep.add(network);
    }
}

void linkWakes(uint32_t ifIndex) {
    const State::Link *pLink = linkOf(ifIndex);
    if (pLink != nullptr && (pLink->flags & IFF_UP) != 0) {
        {
            const std::unique_lock guard(state().lock);
            state().asleep.linkDel(ifIndex);
        }
        scheduleTell();
    }
}

void linkMessage(const nlmsghdr *pMessage) {
    const ifinfomsg *pInfo = netlinkHeader<ifinfomsg>(pMessage);
    if (pInfo == nullptr || pInfo->ifi_family != AF_UNSPEC) {
        return;
    }
    const uint32_t ifIndex = static_cast<uint32_t>(pInfo->ifi_index);
    const bool isGone = pMessage->nlmsg_type == RTM_DELLINK;
    const uint32_t flags = isGone ? 0 : pInfo->ifi_flags & LINK_FLAGS;
    State::Link &link = state().links[ifIndex];
    link.hasMaster = NetlinkAttrs(pMessage, sizeof(ifinfomsg)).has(IFLA_MASTER);
    const uint32_t held = std::exchange(link.flags, flags);
    if (isGone) {
        state().links.erase(ifIndex);
        const std::unique_lock guard(state().lock);
        state().asleep.linkDel(ifIndex);
    } else if ((held & IFF_UP) != 0 && (flags & IFF_UP) == 0) {
        linkSleeps(ifIndex);
    } else if ((held & IFF_UP) == 0 && (flags & IFF_UP) != 0) {
        hostEventLoop().timerStart(WAKING, [ifIndex] { linkWakes(ifIndex); });
    }
    if (held != flags) {
        staleAll();
    }
}

// Addresses of links that are down. IPv6 addresses go by themselves with their link: that tells nothing.
void addressTake(const nlmsghdr *pMessage) {
    const std::optional<FibAddressMessage> message = fibParseAddress(pMessage);
    const State::Link *pLink = message ? linkOf(message->ifIndex) : nullptr;
    if (pLink == nullptr || (pLink->flags & IFF_UP) != 0) {
        return;
    }
    const std::unique_lock guard(state().lock);
    if (pMessage->nlmsg_type == RTM_NEWADDR && !pLink->hasMaster) {
        state().asleep.add({message->version, MAIN_TABLE, message->prefix, message->prefixLen, message->ifIndex});
    } else if (pMessage->nlmsg_type == RTM_DELADDR && message->version == 4) {
        state().asleep.networkDel(message->ifIndex, 4, message->prefix, message->prefixLen);
    }
}

void receive(const nlmsghdr *pMessage) {
    switch (pMessage->nlmsg_type) {
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        return routeMessage(pMessage);
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
        return nexthopMessage(pMessage);
    case RTM_NEWLINK:
    case RTM_DELLINK:
        return linkMessage(pMessage);
    case RTM_NEWADDR:
        return addressTake(pMessage);
    case RTM_DELADDR:
        addressTake(pMessage);
        if (netlinkHeader<ifaddrmsg>(pMessage) != nullptr && netlinkHeader<ifaddrmsg>(pMessage)->ifa_family == AF_INET) {
            staleAll(); // routes that preferred this source are gone, silently
        }
        return;
    default:
        return;
    }
}

void lost() {
    ++state().resyncs;
    hostLog(LOG_LEVEL_WARNING, "fib", "route notifications were lost, the tables are read anew");
    staleAll();
}

// Reads the routes of one table of one version (table 0: of all tables) into `tables`.
NetlinkDumpResult readRoutes(FibTables &tables, int version, uint32_t table) {
    NetlinkMessage request(RTM_GETROUTE, 0);
    rtmsg header = {};
    header.rtm_family = version == 4 ? AF_INET : AF_INET6;
    request.header(header);
    if (table != 0) {
        request.putU32(RTA_TABLE, table);
    }
    NetlinkDumpResult result = state().pSocket->dump(
        request,
        [&](const nlmsghdr *pMessage) {
            std::optional<FibRouteMessage> message = fibParseRoute(pMessage);
            const bool wanted = message && message->route.protocol != FIB_PROTO_POLICYROUTE &&
                                (table == 0 || message->table == table);
            if (wanted) {
                tables.routeAppend(message->version, message->table, std::move(message->route));
            }
        },
        DUMP_ATTEMPTS);
    if (result.error.code == ENOENT) {
        result.error = {}; // no such table: no routes
    }
    return result;
}

NetlinkDumpResult readNexthops(FibTables &tables) {
    NetlinkMessage request(RTM_GETNEXTHOP, 0);
    request.header(nhmsg{});
    return state().pSocket->dump(
        request,
        [&](const nlmsghdr *pMessage) {
            const std::optional<FibNexthopMessage> message = fibParseNexthop(pMessage);
            if (message && message->protocol != FIB_PROTO_POLICYROUTE) {
                tables.nexthopSet(message->id, message->nexthop);
            }
        },
        DUMP_ATTEMPTS);
}

// Reads everything. Result: whether it must be read again (failed, or the tables changed meanwhile).
bool readAll(std::string &failure) {
    FibTables fresh;
    bool again = false;
    for (int part = 0; part < 3; ++part) {
        const NetlinkDumpResult result = part == 0   ? readNexthops(fresh)
                                         : part == 1 ? readRoutes(fresh, 4, 0)
                                                     : readRoutes(fresh, 6, 0);
        if (result.error) {
            failure = netlinkErrorText("read the routing tables", result.error);
            return true;
        }
        again = again || result.interrupted;
    }
    const std::unique_lock guard(state().lock);
    state().tables = std::move(fresh);
    return again;
}

bool readTable(int version, uint32_t table, std::string &failure) {
    FibTables fresh;
    const NetlinkDumpResult result = readRoutes(fresh, version, table);
    if (result.error) {
        failure = netlinkErrorText("read a routing table", result.error);
        return true;
    }
    const std::unique_lock guard(state().lock);
    state().tables.tableTake(version, table, fresh);
    return result.interrupted;
}

void tell() {
    state().tellScheduled = false;
    std::vector<std::function<void()>> changed;
    {
        const std::lock_guard guard(state().callbackLock);
        changed = state().changed;
    }
    for (const auto &call : changed) {
        call();
    }
}

// Reads what is stale and tells. What must be read again stays stale.
void readStale() {
    state().readScheduled = false;
    const Clock::time_point begin = Clock::now();
    const std::set<std::pair<int, uint32_t>> stale = std::exchange(state().stale, {});
    std::string failure;
    if (std::exchange(state().allStale, false)) {
        state().allStale = readAll(failure);
    } else {
        for (const auto &[version, table] : stale) {
            if (readTable(version, table, failure)) {
                state().stale.insert({version, table});
            }
        }
    }
    ++state().tableReads;
    const Clock::time_point end = Clock::now();
    state().nextRead = end + std::min<Clock::duration>(5 * (end - begin), LONGEST_WAIT);
    if (!failure.empty()) {
        hostLog(LOG_LEVEL_ERROR, "fib", "%s; trying again", failure.c_str());
    }
    if (state().allStale || !state().stale.empty()) {
        scheduleRead(RETRY);
    }
    tell();
}

std::string readLinks() {
    NetlinkMessage request(RTM_GETLINK, 0);
    request.header(ifinfomsg{});
    const NetlinkDumpResult result = state().pSocket->dump(request, [](const nlmsghdr *pMessage) {
        if (const ifinfomsg *pInfo = netlinkHeader<ifinfomsg>(pMessage)) {
            state().links[static_cast<uint32_t>(pInfo->ifi_index)] = {
                pInfo->ifi_flags & LINK_FLAGS, NetlinkAttrs(pMessage, sizeof(ifinfomsg)).has(IFLA_MASTER)};
        }
    });
    return netlinkErrorText("read the links", result.error);
}

std::string readAddresses() {
    NetlinkMessage request(RTM_GETADDR, 0);
    request.header(ifaddrmsg{});
    return netlinkErrorText("read the addresses", state().pSocket->dump(request, addressTake).error);
}

} // namespace

// The names of host.vrf.NAME = TABLE are for operators; an id is its table's number with or without one.
uint32_t fibTableOfVrf(uint32_t vrfid) {
    return vrfid == 0 ? MAIN_TABLE : vrfid;
}

std::optional<FibEgress> fibLookup(uint32_t vrfid, int version, const std::array<uint8_t, 16> &address) {
    const std::shared_lock guard(state().lock);
    const uint32_t table = fibTableOfVrf(vrfid);
    const std::optional<FibEgress> egress =
        state().tables.lookup(version, table, address, state().asleep.longest(version, table, address));
    return egress && egress->hasGateway && !state().isGatewayWay ? std::nullopt : egress;
}

void fibOnChange(std::function<void()> changed) {
    const std::lock_guard guard(state().callbackLock);
    state().changed.push_back(std::move(changed));
}

FibCounters fibCounters() {
    return {state().tableReads, state().resyncs};
}

std::string fibStart() {
    try {
        state().pSocket = std::make_unique<NetlinkSocket>(NETLINK_ROUTE);
        state().pMonitor = std::make_unique<NetlinkMonitor>(
            NETLINK_ROUTE,
            std::vector<uint32_t>{RTNLGRP_LINK, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE, RTNLGRP_NEXTHOP,
                                  RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR},
            receive, lost);
    } catch (const std::exception &error) {
        return std::string("follow the routes: ") + error.what();
    }
    state().isGatewayWay = optionGet("host.next-hop-via-gateway") != "off";
    std::string failure = readLinks();
    failure = failure.empty() ? readAddresses() : failure;
    const bool again = failure.empty() && readAll(failure);
    if (!failure.empty()) {
        return failure;
    }
    ++state().tableReads;
    hostEventLoop().post([again] {
        state().allStale = again;
        if (again) {
            scheduleRead(RETRY);
        }
        state().pMonitor->start(hostEventLoop());
    });
    return {};
}

} // namespace host
