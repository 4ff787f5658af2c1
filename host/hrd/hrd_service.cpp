// Peers, targets and reports: see hrd_service.h for the states.
//
// A target is one neighbour entry of the kernel; the peers that are reached through it share it. All
// changes happen on the event thread under the service's lock; other threads only read. A target lives
// as long as some peer uses it; its two timers (asking again, giving up) are stopped with it.
#include "host/hrd/hrd_service.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "host/bus/bus.h"
#include "host/device/desired/desired_show.h"
#include "host/event/event_loop.h"
#include "host/fib/fib.h"
#include "host/hrd/hrd_neighbour.h"
#include "host/hrd/hrd_peers.h"
#include "host/ifnet/ifnet.h"
#include "host/logging/host_log.h"
#include "host/mgmt/watch_feed.h"
#include "host/netlink/netlink_monitor.h"
#include "host/option/option.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"

namespace host {

namespace {

using std::chrono::milliseconds;

constexpr uint64_t PERIOD_LEAST_MS = 20;
constexpr uint64_t PERIOD_MOST_MS = 3600000;
constexpr milliseconds LINGER{3000};     // a list that is changed leaves its interfaces for a moment
constexpr milliseconds ASK_SOON{50};     // after an entry vanished; who flushes a table is let finish
constexpr milliseconds LINK_PERIOD_LEAST{10};
constexpr milliseconds LINK_PERIOD_MOST{50};
constexpr size_t LINKS_AT_ONCE = 16;     // about 10 us each

struct Target;

struct Peer {
    HrdPeerKey key;
    bool isRegistered = true;
    EventLoop::TimerId lingerTimer = 0; // runs while it is not registered
    HrdState state = HrdState::Unknown;
    const char *reason = "no answer yet";
    std::optional<FibEgress> egress;
    Target *pTarget = nullptr;        // null: no egress, or one without neighbours
    uint32_t upIfIndex = 0;           // egress and link-layer address that were reported with Up
    std::vector<uint8_t> upLladdr;
    uint64_t ups = 0, downs = 0;
};

struct Target {
    HrdNeighbourKey key;
    HrdNeighbour entry;
    HrdEvidence verdict = HrdEvidence::Open; // of the entry; Failed stays until an answer comes
    std::set<Peer *> peers;
    EventLoop::TimerId askTimer = 0;    // next asking
    EventLoop::TimerId giveUpTimer = 0; // runs while the verdict is Open
    int loggedError = 0;                // errno that was logged last
};

struct State {
    std::mutex lock;
    std::map<HrdPeerKey, std::unique_ptr<Peer>> peers;
    std::map<HrdNeighbourKey, std::unique_ptr<Target>> targets;
    HrdCounters counters;
    uint32_t targetsMade = 0;
    milliseconds askPeriod{500};
    milliseconds linkPeriod{50};
    uint32_t lastLink = 0;            // interface asked for last
    std::unique_ptr<HrdNeighbours> pNeighbours;
    std::unique_ptr<NetlinkMonitor> pMonitor;
    std::atomic<bool> running{false};
};

State &state() {
    static State *pState = new State; // lives as long as the event thread, that is to the end
    return *pState;
}

std::string peerText(const HrdPeerKey &key) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(key.version == 4 ? AF_INET : AF_INET6, key.address.data(), text, sizeof(text));
    return key.vrfid == 0 ? text : std::string(text) + " vrf " + std::to_string(key.vrfid);
}

// ---- reports ----

void post(const Peer &peer, QrvRtmType type) {
    if (!peer.isRegistered) {
        return;
    }
    HrdPeerMsg message = {};
    std::copy(peer.key.address.begin(), peer.key.address.end(), message.address);
    message.family = peer.key.version == 4 ? 1 : 2;
    message.vrId = peer.key.vrfid;
    const std::vector<uint8_t> bytes = busMessage(type, &message, sizeof(message));
    busPublish(QRV_RTNLGRP_HRD, bytes.data(), bytes.size());
    ++state().counters.reports;
}

void postState(const Peer &peer) {
    if (peer.state != HrdState::Unknown) {
        post(peer, peer.state == HrdState::Up ? QRV_RTM_HRD_UP : QRV_RTM_HRD_DOWN);
    }
}

// ---- decision ----

struct Decision {
    HrdState state = HrdState::Unknown;
    const char *reason = "";         // why not Up
    bool proved = false;             // Up on present evidence: lladdr counts
    std::vector<uint8_t> lladdr;
};

// What the evidence says about the peer now. No entry yet, or no longer: the state it had.
Decision decide(const Peer &peer) {
    if (!peer.egress) {
        return {HrdState::Down, "no route", false, {}};
    }
    const std::optional<IfnetLink> link = ifnetByUnit(peer.egress->ifIndex);
    if (!link || !link->up) {
        return {HrdState::Down, "link down", false, {}};
    }
    if (peer.pTarget == nullptr) {
        return {HrdState::Up, "", true, {}};
    }
    switch (peer.pTarget->verdict) {
    case HrdEvidence::Good:
        return {HrdState::Up, "", true, peer.pTarget->entry.lladdr};
    case HrdEvidence::Failed:
        return {HrdState::Down, "no answer", false, {}};
    case HrdEvidence::Open:
        break;
    }
    return {peer.state, peer.state == HrdState::Up ? "" : "no answer yet", false, {}};
}

// For those who watch. state: "up", "down", "changed".
void watchPeer(const Peer &peer, const char *pState, const std::string &text) {
    watchTell("next-hop", "next hop " + peerText(peer.key) + " " + text,
              {{"address", ipAddressText(peer.key.version == 6 ? 2 : 1, peer.key.address)},
               {"vrf", peer.key.vrfid},
               {"state", pState},
               {"reason", peer.reason},
               {"interface", peer.egress ? ifnetName(peer.egress->ifIndex) : ""},
               {"lladdr", peer.state == HrdState::Up ? hrdLladdrText(peer.upLladdr) : ""}});
}

void logTransition(const Peer &peer) {
    if (!peer.isRegistered) {
        return;
    }
    const std::string who = peerText(peer.key);
    const std::string where = peer.egress ? ifnetName(peer.egress->ifIndex) : "no interface";
    const bool isUp = peer.state == HrdState::Up;
    watchPeer(peer, isUp ? "up" : "down", (isUp ? "is up: " + where : std::string("is down: ") + peer.reason + " (" + where + ")"));
    if (peer.state == HrdState::Up) {
        hostLog(LOG_LEVEL_NOTICE, "hrd", "next hop %s is up: %s %s", who.c_str(), where.c_str(),
                hrdLladdrText(peer.upLladdr).c_str());
    } else {
        hostLog(LOG_LEVEL_NOTICE, "hrd", "next hop %s is down: %s (%s)", who.c_str(), peer.reason, where.c_str());
    }
}

// Makes the peer's state what the evidence says; posts and logs a transition. Result: whether it posted.
bool evaluate(Peer &peer) {
    Decision decision = decide(peer);
    peer.reason = decision.reason;
    const bool turned = decision.state != peer.state;
    const bool moved = decision.proved && (peer.upIfIndex != peer.egress->ifIndex || peer.upLladdr != decision.lladdr);
    if (decision.proved) {
        peer.upIfIndex = peer.egress->ifIndex;
        peer.upLladdr = std::move(decision.lladdr);
    }
    if (turned) {
        peer.state = decision.state;
        ++(peer.state == HrdState::Up ? peer.ups : peer.downs);
        logTransition(peer);
        postState(peer);
    } else if (moved) {
        if (peer.isRegistered) {
            hostLog(LOG_LEVEL_NOTICE, "hrd", "next hop %s changed: %s %s", peerText(peer.key).c_str(),
                    ifnetName(peer.upIfIndex).c_str(), hrdLladdrText(peer.upLladdr).c_str());
            watchPeer(peer, "changed", "changed: " + ifnetName(peer.upIfIndex) + " " + hrdLladdrText(peer.upLladdr));
        }
        post(peer, QRV_RTM_HRD_CHANGE);
    }
    return turned || moved;
}

void evaluateAll(const Target &target) {
    for (Peer *pPeer : target.peers) {
        evaluate(*pPeer);
    }
}

// ---- targets ----

void giveUp(const HrdNeighbourKey &key) {
    const std::lock_guard guard(state().lock);
    const auto found = state().targets.find(key);
    if (found != state().targets.end() && found->second->verdict == HrdEvidence::Open) {
        found->second->giveUpTimer = 0;
        found->second->verdict = HrdEvidence::Failed;
        evaluateAll(*found->second);
    }
}

void giveUpStop(Target &target) {
    hostEventLoop().timerStop(std::exchange(target.giveUpTimer, 0));
}

// Takes what is known of the entry now; peers are not evaluated.
void entrySet(Target &target, HrdNeighbour entry) {
    const HrdEvidence evidence = hrdEvidence(entry);
    target.entry = std::move(entry);
    if (evidence != HrdEvidence::Open) {
        target.verdict = evidence;
        return giveUpStop(target);
    }
    if (target.verdict == HrdEvidence::Failed) {
        return; // asked again: failed until it answers
    }
    target.verdict = HrdEvidence::Open;
    if (target.giveUpTimer == 0) {
        const milliseconds wait = state().pNeighbours->askingTime(target.key.ifIndex, target.key.version) * 6 / 5;
        target.giveUpTimer = hostEventLoop().timerStart(wait, [key = target.key] { giveUp(key); });
    }
}

void failureNote(Target &target, const NetlinkError &error) {
    ++state().counters.failures;
    if (target.loggedError != error.code) {
        hostLog(LOG_LEVEL_WARNING, "hrd", "cannot ask for %s on %s: %s",
                peerText({0, target.key.version, target.key.address}).c_str(),
                ifnetName(target.key.ifIndex).c_str(), error.text.c_str());
    }
    target.loggedError = error.code;
}

// Reads the entry and makes the kernel ask, when the link can carry it.
void ask(Target &target) {
    const std::optional<IfnetLink> link = ifnetByUnit(target.key.ifIndex);
    HrdNeighbour entry; // none while the link is down
    if (link && link->up) {
        entry = target.entry; // stays when it cannot be read
        bool asked = false;
        const NetlinkError error = state().pNeighbours->solicit(target.key, entry, asked);
        state().counters.solicitations += asked ? 1 : 0;
        if (error) {
            failureNote(target, error);
        } else {
            target.loggedError = 0;
        }
    }
    entrySet(target, std::move(entry));
}

void askPeriodically(const HrdNeighbourKey &key);

void askAfter(Target &target, milliseconds wait) {
    hostEventLoop().timerStop(target.askTimer);
    target.askTimer = hostEventLoop().timerStart(wait, [key = target.key] { askPeriodically(key); });
}

void askPeriodically(const HrdNeighbourKey &key) {
    const std::lock_guard guard(state().lock);
    const auto found = state().targets.find(key);
    if (found == state().targets.end()) {
        return;
    }
    Target &target = *found->second;
    askAfter(target, state().askPeriod);
    ask(target);
    evaluateAll(target);
}

// Targets that are made together do not ask together for ever: the first period has any length.
milliseconds firstPeriod() {
    const uint32_t part = ++state().targetsMade * 618u % 1000u;
    return std::max(milliseconds(1), state().askPeriod * part / 1000);
}

Target &targetGet(const HrdNeighbourKey &key) {
    std::unique_ptr<Target> &pTarget = state().targets[key];
    if (pTarget == nullptr) {
        pTarget = std::make_unique<Target>();
        pTarget->key = key;
        askAfter(*pTarget, firstPeriod());
        ask(*pTarget);
    }
    return *pTarget;
}

void targetLeave(Peer &peer) {
    Target *pTarget = std::exchange(peer.pTarget, nullptr);
    if (pTarget == nullptr) {
        return;
    }
    pTarget->peers.erase(&peer);
    if (pTarget->peers.empty()) {
        hostEventLoop().timerStop(pTarget->askTimer);
        giveUpStop(*pTarget);
        state().targets.erase(pTarget->key);
    }
}

// Finds the peer's egress anew and puts it at the target that goes with it.
void attach(Peer &peer) {
    peer.egress = fibLookup(peer.key.vrfid, peer.key.version, peer.key.address);
    const std::optional<IfnetLink> link = peer.egress ? ifnetByUnit(peer.egress->ifIndex) : std::nullopt;
    if (!link || !link->hasNeighbours) {
        return targetLeave(peer);
    }
    const bool direct = !peer.egress->hasGateway;
    const HrdNeighbourKey key{peer.egress->ifIndex, direct ? peer.key.version : peer.egress->gatewayVersion,
                              direct ? peer.key.address : peer.egress->gateway};
    if (peer.pTarget != nullptr && peer.pTarget->key == key) {
        return;
    }
    targetLeave(peer);
    Target &target = targetGet(key);
    target.peers.insert(&peer);
    peer.pTarget = &target;
}

// ---- events of the kernel ----

// Whether the entry is being deleted: the kernel first calls it failed, in the name of who deletes it.
// A failure that the kernel found itself names nobody.
bool vanishing(const nlmsghdr *pMessage, const HrdNeighbour &entry) {
    return pMessage->nlmsg_type == RTM_DELNEIGH ||
           (hrdEvidence(entry) == HrdEvidence::Failed && pMessage->nlmsg_pid != 0);
}

void neighbourMessage(const nlmsghdr *pMessage) {
    if (pMessage->nlmsg_type != RTM_NEWNEIGH && pMessage->nlmsg_type != RTM_DELNEIGH) {
        return;
    }
    auto parsed = hrdParseNeighbour(pMessage);
    if (!parsed) {
        return;
    }
    const std::lock_guard guard(state().lock);
    const auto found = state().targets.find(parsed->first);
    if (found == state().targets.end()) {
        return;
    }
    Target &target = *found->second;
    if (vanishing(pMessage, parsed->second)) {
        entrySet(target, {});
        askAfter(target, std::min(ASK_SOON, state().askPeriod));
    } else {
        entrySet(target, std::move(parsed->second));
    }
    evaluateAll(target);
}

void neighboursLost() {
    const std::lock_guard guard(state().lock);
    ++state().counters.resyncs;
    hostLog(LOG_LEVEL_WARNING, "hrd", "neighbour notifications were lost, the entries are read anew");
    for (const auto &[key, pTarget] : state().targets) {
        ask(*pTarget);
        evaluateAll(*pTarget);
    }
}

void linkChanged(const IfnetLink &link) {
    const std::lock_guard guard(state().lock);
    std::set<Target *> asked;
    for (const auto &[key, pPeer] : state().peers) {
        if (!pPeer->egress || pPeer->egress->ifIndex != link.unit) {
            continue;
        }
        attach(*pPeer);
        if (link.up && pPeer->pTarget != nullptr && asked.insert(pPeer->pTarget).second) {
            ask(*pPeer->pTarget); // what was known before the link came up counts no more
        }
        evaluate(*pPeer);
    }
}

// The next few interfaces that lead to peers, in turn.
std::vector<uint32_t> linksInTurn() {
    std::set<uint32_t> all;
    const std::lock_guard guard(state().lock);
    for (const auto &[key, pPeer] : state().peers) {
        if (pPeer->egress) {
            all.insert(pPeer->egress->ifIndex);
        }
    }
    std::vector<uint32_t> turn(all.upper_bound(state().lastLink), all.end());
    turn.insert(turn.end(), all.begin(), all.upper_bound(state().lastLink));
    turn.resize(std::min(turn.size(), LINKS_AT_ONCE));
    state().lastLink = turn.empty() ? 0 : turn.back();
    return turn;
}

void linksPeriodically() {
    for (uint32_t unit : linksInTurn()) {
        ifnetRefresh(unit); // calls linkChanged when there is something new
    }
    hostEventLoop().timerStart(state().linkPeriod, linksPeriodically);
}

void routesChanged() {
    const std::lock_guard guard(state().lock);
    for (const auto &[key, pPeer] : state().peers) {
        attach(*pPeer);
        evaluate(*pPeer);
    }
}

void reportsLost() {
    const std::lock_guard guard(state().lock);
    for (const auto &[key, pPeer] : state().peers) {
        postState(*pPeer);
    }
}

HrdPeer shown(const Peer &peer) {
    HrdPeer row;
    row.vrfid = peer.key.vrfid;
    row.version = peer.key.version;
    row.address = peer.key.address;
    row.state = peer.state;
    row.reason = peer.reason;
    row.interfaceName = peer.egress ? ifnetName(peer.egress->ifIndex) : "";
    row.lladdr = peer.pTarget != nullptr ? hrdLladdrText(peer.pTarget->entry.lladdr) : "";
    row.ups = peer.ups;
    row.downs = peer.downs;
    return row;
}

void lingerEnd(const HrdPeerKey &key) {
    const std::lock_guard guard(state().lock);
    const auto found = state().peers.find(key);
    if (found != state().peers.end() && !found->second->isRegistered) {
        targetLeave(*found->second);
        state().peers.erase(found);
    }
}

} // namespace

bool hrdRunning() {
    return state().running;
}

void hrdPeerAdd(const HrdPeerKey &key) {
    if (const std::optional<FibEgress> egress = fibLookup(key.vrfid, key.version, key.address)) {
        ifnetRefresh(egress->ifIndex); // a link that has just come up must not give a false first answer
    }
    const std::lock_guard guard(state().lock);
    std::unique_ptr<Peer> &pPeer = state().peers[key];
    if (pPeer == nullptr) {
        pPeer = std::make_unique<Peer>();
        pPeer->key = key;
    }
    pPeer->isRegistered = true;
    hostEventLoop().timerStop(std::exchange(pPeer->lingerTimer, 0));
    attach(*pPeer);
    if (!evaluate(*pPeer)) {
        postState(*pPeer); // every registration is answered
    }
}

// A peer whose registration comes back soon, as when its list is changed, is known at once then.
void hrdPeerDel(const HrdPeerKey &key) {
    const std::lock_guard guard(state().lock);
    const auto found = state().peers.find(key);
    if (found == state().peers.end() || !found->second->isRegistered) {
        return;
    }
    found->second->isRegistered = false;
    found->second->ups = found->second->downs = 0;
    found->second->lingerTimer = hostEventLoop().timerStart(LINGER, [key] { lingerEnd(key); });
}

std::vector<HrdPeer> hrdPeers() {
    const std::lock_guard guard(state().lock);
    std::vector<HrdPeer> rows;
    for (const auto &[key, pPeer] : state().peers) {
        if (pPeer->isRegistered) {
            rows.push_back(shown(*pPeer));
        }
    }
    return rows;
}

bool hrdUndetermined() {
    const std::lock_guard guard(state().lock);
    return std::any_of(state().peers.begin(), state().peers.end(),
                       [](const auto &entry) {
                           return entry.second->isRegistered && entry.second->state == HrdState::Unknown;
                       });
}

HrdCounters hrdCounters() {
    const std::lock_guard guard(state().lock);
    return state().counters;
}

std::string hrdStart() {
    const uint64_t periodMs = optionNumber("host.neighbour-probe-ms");
    if (periodMs < PERIOD_LEAST_MS || periodMs > PERIOD_MOST_MS) {
        return "option host.neighbour-probe-ms: " + std::to_string(periodMs) + " is not within 20 to 3600000";
    }
    // Half of it: a neighbour that falls silent right after an answer is asked within half a period.
    state().askPeriod = milliseconds(periodMs / 2);
    state().linkPeriod = std::clamp(milliseconds(periodMs / 20), LINK_PERIOD_LEAST, LINK_PERIOD_MOST);
    try {
        state().pNeighbours = std::make_unique<HrdNeighbours>();
        state().pMonitor = std::make_unique<NetlinkMonitor>(
            NETLINK_ROUTE, std::vector<uint32_t>{RTNLGRP_NEIGH}, neighbourMessage, neighboursLost);
    } catch (const std::exception &error) {
        return std::string("follow the neighbours: ") + error.what();
    }
    ifnetOnChange(linkChanged);
    fibOnChange(routesChanged);
    busOnLoss(reportsLost);
    state().pMonitor->start(hostEventLoop());
    hostEventLoop().post(linksPeriodically);
    state().running = true;
    return {};
}

} // namespace host
