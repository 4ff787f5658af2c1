// The kernel device: see kernel_device.h. Called by the ACL module and the synchronisation point under
// the daemon's mutex, and by services on the event thread; calls the compiler and the kernel plane.
#include "host/device/kernel/kernel_device.h"

#include <arpa/inet.h>
#include <algorithm>
#include <cerrno>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>

#include <nlohmann/json.hpp>

#include "host/device/desired/desired_show.h"
#include "host/device/kernel/nft_codec.h"
#include "host/hrd/hrd_service.h"
#include "host/logging/host_log.h"
#include "host/mgmt/watch_feed.h"
#include "host/option/option.h"

namespace host {

namespace {

constexpr const char *MODULE = "kernel-device";

// What a node is to every link of it; the rest of an entry names the link.
void contentCopy(RedirectEntry &to, const RedirectEntry &from) {
    const uint32_t ifUnit = to.ifUnit;
    to = from;
    to.ifUnit = ifUnit;
}

} // namespace

KernelDevice::KernelDevice(KernelDeviceHooks hooks) : hooks_(std::move(hooks)), plane_(hooks_.options) {}

KernelDevice::~KernelDevice() {
    if (isStarted_) {
        hooks_.pLoop->timerStop(readBackTimer_);
        hooks_.pLoop->timerStop(holdTimer_);
        hooks_.pLoop->timerStop(checkTimer_);
        hooks_.pLoop->timerStop(frontTimer_);
    }
}

// ---- start, and what an earlier run left ----

std::string KernelDevice::start() {
    {
        std::lock_guard guard(lock_);
        try {
            readers_ = std::make_unique<KernelSockets>();
            monitorsStart();
        } catch (const std::exception &error) {
            return std::string("the kernel cannot be followed: ") + error.what();
        }
        const std::string error = plane_.open();
        if (!error.empty()) {
            return "kernel device: " + error;
        }
        const std::string refusal = hooks_.pFront ? hooks_.pFront->open(hooks_.options) : "";
        if (!refusal.empty()) {
            return "eBPF device: " + refusal;
        }
        isHeld_ = plane_.isAdopted();
        isStarted_ = true;
    }
    hooks_.pLoop->post([this, alive = std::weak_ptr(alive_)] {
        if (alive.expired()) {
            return;
        }
        nftMonitor_->start(*hooks_.pLoop);
        rtMonitor_->start(*hooks_.pLoop);
        if (isHeld()) {
            hostLog(LOG_LEVEL_NOTICE, MODULE, "a policy of an earlier run is in the kernel; it is kept for now");
            holdTimer_ = hooks_.pLoop->timerStart(hooks_.adoptWait, [this] { holdPoll(); });
        }
    });
    if (hooks_.onWorldChange) {
        hooks_.onWorldChange([this] { worldChanged(); });
    }
    return "";
}

// Joined before the first look, so that nothing is missed.
void KernelDevice::monitorsStart() {
    const auto foreignNft = [this] { readBackSoon(FOREIGN_CHANGE_MS, READ_NFT); };
    const auto foreignRt = [this] { readBackSoon(FOREIGN_CHANGE_MS, READ_RT); };
    const auto isOwn = [this](const nlmsghdr *pMessage) { return plane_.ports().count(pMessage->nlmsg_pid) != 0; };
    std::vector<uint32_t> groups = {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
                                    RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE, RTNLGRP_NEXTHOP};
    if (hooks_.pFront) {
        const std::vector<uint32_t> more = hooks_.pFront->groups();
        groups.insert(groups.end(), more.begin(), more.end());
    }
    nftMonitor_ = std::make_unique<NetlinkMonitor>(
        NETLINK_NETFILTER, std::vector<uint32_t>{NFNLGRP_NFTABLES},
        [=, this](const nlmsghdr *pMessage) {
            if (!isOwn(pMessage) && nftIsOfOurTable(pMessage)) {
                foreignNft();
            }
            frontHears(NETLINK_NETFILTER, pMessage);
        },
        foreignNft);
    rtMonitor_ = std::make_unique<NetlinkMonitor>(
        NETLINK_ROUTE, groups,
        [=, this](const nlmsghdr *pMessage) {
            if (!isOwn(pMessage) && rtMayConcernUs(pMessage)) {
                foreignRt();
            }
            if (const uint32_t lost = rtLinkLost(pMessage); lost != 0) {
                linksLost_.insert(lost);
            }
            frontHears(NETLINK_ROUTE, pMessage);
        },
        foreignRt);
}

bool KernelDevice::isHeld() const {
    std::lock_guard guard(lock_);
    return isHeld_;
}

KernelCounters KernelDevice::counters() const {
    std::lock_guard guard(lock_);
    return plane_.counters();
}

// Goes on until no peer is undetermined and the daemon had time to hear of it.
void KernelDevice::holdPoll() {
    holdTimer_ = 0;
    if (!isHeld()) {
        return;
    }
    const bool isKnown = !hooks_.isUndetermined || !hooks_.isUndetermined();
    if ((isKnown && determined_ >= HOLD_GRACE_MS) || held_ >= HOLD_EXTRA_MS) {
        adoptionEnd();
        return;
    }
    determined_ = isKnown ? determined_ + HOLD_POLL_MS : std::chrono::milliseconds{0};
    held_ += HOLD_POLL_MS;
    holdTimer_ = hooks_.pLoop->timerStart(HOLD_POLL_MS, [this] { holdPoll(); });
}

void KernelDevice::adoptionEnd() {
    std::lock_guard guard(lock_);
    if (!isHeld_) {
        return;
    }
    isHeld_ = false;
    plane_.model().allDirty();
    allCompile();
    apply();
    readBackSoon(READ_BACK_MS, READ_ALL); // also when nothing had to be changed: leftovers are collected then
    hostLog(LOG_LEVEL_NOTICE, MODULE, "the policy of the earlier run is replaced by the present one");
}

// ---- desired state ----

// Puts one answer of the view into the state, for the entry's link and for the node's other links (the
// node decides, not the link). Result: the list when something differs, else empty.
std::string KernelDevice::entryMerge(const RedirectEntry &entry) {
    auto &entries = state_.lists[entry.list];
    const EntryKey key{entry.ifUnit, entry.nodeIndex};
    bool isChange = entries.count(key) == 0;
    entries[key].ifUnit = entry.ifUnit;
    // From interface to interface, of each the node: lists have many nodes and few interfaces.
    for (auto it = entries.begin(); it != entries.end();) {
        const uint32_t ifUnit = it->first.first;
        if (const auto other = entries.find({ifUnit, entry.nodeIndex}); other != entries.end()) {
            const RedirectEntry before = other->second;
            contentCopy(other->second, entry);
            isChange = isChange || !(before == other->second);
        }
        it = entries.upper_bound({ifUnit, UINT32_MAX});
    }
    return isChange ? entry.list : "";
}

// While an interface is being bound its links are told one by one and are not all in the view's lists.
// all: the view's lists were taken anew, so that every such link has to be put in again.
std::vector<std::string> KernelDevice::provisionalMerge(bool all, uint32_t ifUnit, uint32_t aclNum) {
    std::vector<std::string> changed;
    for (auto it = provisional_.begin(); it != provisional_.end();) {
        if (!all && *it != std::pair{ifUnit, aclNum}) {
            ++it;
            continue;
        }
        const std::optional<RedirectEntry> entry = hooks_.get(it->first, it->second);
        if (!entry) {
            it = provisional_.erase(it);
            continue;
        }
        const std::string list = entryMerge(*entry);
        if (!list.empty()) {
            changed.push_back(list);
        }
        ++it;
    }
    return changed;
}

ProgramList KernelDevice::listCompile(const std::string &list) const {
    static const std::map<EntryKey, RedirectEntry> none;
    const auto it = state_.lists.find(list);
    return programCompile(list, it == state_.lists.end() ? none : it->second, hooks_.env);
}

void KernelDevice::listsCompile(const std::vector<std::string> &lists) {
    std::set<std::string> free(lists.begin(), lists.end());
    std::erase_if(free, [this](const std::string &list) { return kept_.count(list) != 0; });
    for (const std::string &list : free) {
        compiledSet(list, listCompile(list), list != *free.rbegin());
    }
}

// Everything, with each address looked up once.
void KernelDevice::allCompile() {
    std::map<std::tuple<uint32_t, int, IpAddress>, std::optional<FibEgress>> known;
    ProgramEnv env = hooks_.env;
    env.egress = [&](uint32_t vrfid, int version, const IpAddress &address) {
        auto [it, isNew] = known.try_emplace({vrfid, version, address});
        if (isNew) {
            it->second = hooks_.env.egress(vrfid, version, address);
        }
        return it->second;
    };
    std::set<std::string> free;
    for (const auto &[list, entries] : state_.lists) {
        free.insert(list);
    }
    std::erase_if(free, [this](const std::string &list) { return kept_.count(list) != 0; });
    for (const std::string &list : free) {
        compiledSet(list, programCompile(list, state_.lists.at(list), env), list != *free.rbegin());
    }
}

// Lock: held by caller
void KernelDevice::apply() {
    if (isHeld_ || !isStarted_) {
        return;
    }
    const uint64_t before = plane_.counters().applies;
    const std::string error = hooks_.pFront ? applyBehindFront() : plane_.apply();
    if (!error.empty() && error != error_) {
        hostLog(LOG_LEVEL_ERROR, MODULE, "%s", error.c_str());
    }
    error_ = error;
    if (plane_.counters().applies != before || plane_.isCollectDue() || !error.empty()) {
        readBackSoon(READ_BACK_MS, READ_ALL);
    }
}

int32_t KernelDevice::add(uint32_t ifUnit, uint32_t aclNum, const uint8_t *) {
    std::lock_guard guard(lock_);
    provisional_.insert({ifUnit, aclNum});
    const std::optional<RedirectEntry> wanted = hooks_.get(ifUnit, aclNum);
    if (wanted && isDone(*wanted)) {
        return 0; // what else has changed is taken at the end of the run: a run costs one take, not one an entry
    }
    if (wanted && (isHeld_ || kept_.count(wanted->list) != 0) && !isFlushed_ && error_.empty()) {
        // The kernel sees nothing of it yet: the entry is put in by itself, and the view is taken at the end.
        if (!entryMerge(*wanted).empty()) {
            merged_.insert(wanted->list);
        }
        return aloneRefused(*wanted).empty() ? 0 : EOPNOTSUPP;
    }
    std::vector<std::string> changed = hooks_.take(state_, false);
    for (const std::string &list : provisionalMerge(!changed.empty(), ifUnit, aclNum)) {
        changed.push_back(list);
    }
    const std::optional<RedirectEntry> entry = hooks_.get(ifUnit, aclNum);
    if (!entry) {
        return 0; // a link that does not exist wants nothing
    }
    const EntryKey key{entry->ifUnit, entry->nodeIndex};
    const bool isRetry = !statusOf(entry->list, key).error.empty() || isFlushed_ || !error_.empty();
    if (isRetry) {
        refusedRetry();
        changed.push_back(entry->list);
    }
    isFlushed_ = false;
    listsCompile(changed);
    if (!changed.empty()) {
        apply();
    }
    const KernelEntryStatus status = statusOf(entry->list, key);
    if (!status.error.empty()) {
        return EOPNOTSUPP;
    }
    return status.installed || isHeld_ || kept_.count(entry->list) != 0 ? 0 : EIO;
}

// Whether the state has this entry as it is wanted, and nothing about it is left to try.
bool KernelDevice::isDone(const RedirectEntry &wanted) const {
    const EntryKey key{wanted.ifUnit, wanted.nodeIndex};
    const auto list = state_.lists.find(wanted.list);
    if (isFlushed_ || !error_.empty() || list == state_.lists.end()) {
        return false;
    }
    const auto held = list->second.find(key);
    if (held == list->second.end() || !(held->second == wanted)) {
        return false;
    }
    const KernelEntryStatus status = statusOf(wanted.list, key);
    return status.error.empty() && (status.installed || isHeld_ || kept_.count(wanted.list) != 0);
}

// The view decides: the end of the handler or of the run, which follows, says what remains.
int32_t KernelDevice::del(uint32_t ifUnit, uint32_t aclNum, const uint8_t *) {
    std::lock_guard guard(lock_);
    provisional_.erase({ifUnit, aclNum});
    return 0;
}

void KernelDevice::storeChanged() {
    std::lock_guard guard(lock_);
    provisional_.clear();
    std::vector<std::string> changed = hooks_.take(state_, false);
    changed.insert(changed.end(), merged_.begin(), merged_.end());
    merged_.clear();
    if (changed.empty()) {
        return;
    }
    isFlushed_ = false;
    listsCompile(changed);
    apply();
}

void KernelDevice::aclChanged(uint32_t aclNum) {
    std::lock_guard guard(lock_);
    std::vector<std::string> changed;
    for (const auto &[list, entries] : state_.lists) {
        const bool isUsed = std::any_of(entries.begin(), entries.end(), [&](const auto &item) {
            return item.second.aclNum == aclNum && item.second.kind != PBR_REDIRECT_ABSENT;
        });
        if (isUsed) {
            changed.push_back(list);
        }
    }
    if (changed.empty()) {
        return;
    }
    listsCompile(changed);
    if (!isFlushed_) {
        apply();
    }
}

// Of lists that have no entries there is nothing to compile; when they get some, the answer is asked for.
void KernelDevice::listsChanged(const std::set<std::string> &lists) {
    std::lock_guard guard(lock_);
    std::vector<std::string> changed;
    for (const std::string &list : lists) {
        if (state_.lists.count(list) != 0) {
            changed.push_back(list);
        }
    }
    listsCompile(changed);
    if (!isFlushed_) {
        apply();
    }
}

void KernelDevice::worldChanged() {
    std::lock_guard guard(lock_);
    if (!isHeld_) {
        refusedRetry();
    }
    allCompile();
    if (!isFlushed_) {
        apply();
    }
}

std::string KernelDevice::firstError() const {
    for (const auto &[list, program] : plane_.model().lists()) {
        for (const auto &[key, entry] : program.entries) {
            const std::string error = plane_.model().status(list, key).error;
            if (!error.empty()) {
                return "list " + list + " node " + std::to_string(key.second) + ": " + error;
            }
        }
    }
    return "";
}

std::string KernelDevice::settle() {
    std::lock_guard guard(lock_);
    if (isHeld_) {
        // Released as soon as the peers are known: the present policy is complete only then.
        hooks_.pLoop->timerStop(holdTimer_);
        holdTimer_ = hooks_.pLoop->timerStart(std::chrono::milliseconds{0}, [this] { holdPoll(); });
        return firstError();
    }
    isFlushed_ = false;
    refusedRetry();
    allCompile();
    apply();
    return error_.empty() ? firstError() : error_;
}

std::string KernelDevice::flush() {
    std::lock_guard guard(lock_);
    isHeld_ = false;
    isFlushed_ = true;
    std::string error = hooks_.pFront ? hooks_.pFront->flush() : "";
    const std::string behind = plane_.flush();
    error = behind.empty() ? error : behind;
    isFrontAll_ = true;
    hostLog(LOG_LEVEL_NOTICE, MODULE, "everything of ours was removed from the kernel%s%s",
            error.empty() ? "" : ": ", error.c_str());
    return error;
}

// ---- reading back ----

// Any thread: the timer itself is set on the event thread. An appointment is moved forward, never back,
// so that steady changes do not put it off. Lock: may be held
void KernelDevice::readBackSoon(std::chrono::milliseconds delay, unsigned parts) {
    if (!isStarted_) {
        return;
    }
    hooks_.pLoop->post([this, alive = std::weak_ptr(alive_), delay, parts] {
        if (alive.expired()) {
            return;
        }
        const bool isUrgent = delay < READ_BACK_MS;
        readParts_ |= parts;
        if (readBackTimer_ != 0 && (isReadUrgent_ || !isUrgent)) {
            return;
        }
        hooks_.pLoop->timerStop(readBackTimer_);
        isReadUrgent_ = isUrgent;
        readBackTimer_ = hooks_.pLoop->timerStart(delay, [this] {
            readBackTimer_ = 0;
            const unsigned appointed = readParts_;
            readParts_ = 0;
            readBack(appointed);
        });
    });
}

void KernelDevice::readBack(unsigned parts) {
    uint64_t applies = 0;
    {
        std::lock_guard guard(lock_);
        if (isHeld_ || isFlushed_) {
            return;
        }
        const std::string remains = plane_.collect();
        if (!remains.empty()) {
            hostLog(LOG_LEVEL_WARNING, MODULE, "%s", remains.c_str());
        }
        applies = plane_.counters().applies;
    }
    KernelSnapshot snapshot;
    std::string error = (parts & READ_NFT) != 0 ? nftRead(readers_->nft, &snapshot.nft) : "";
    error = error.empty() && (parts & READ_RT) != 0 ? rtRead(readers_->rt, &snapshot.rt) : error;
    rtMonitor_->readNow(); // a link that went down before the routes were read has been told by now
    std::lock_guard guard(lock_);
    if (!error.empty()) {
        hostLog(LOG_LEVEL_WARNING, MODULE, "%s", error.c_str());
        return;
    }
    // cppcheck-suppress knownConditionTrueFalse ; the lock was free meanwhile
    if (plane_.counters().applies != applies || isHeld_ || isFlushed_) {
        readBackSoon(READ_BACK_MS, parts); // the snapshot is older than what we did meanwhile
        return;
    }
    const std::set<uint32_t> linksLost = (parts & READ_RT) != 0 ? std::exchange(linksLost_, {}) : std::set<uint32_t>{};
    if (plane_.reconcile((parts & READ_NFT) != 0 ? &snapshot.nft : nullptr,
                         (parts & READ_RT) != 0 ? &snapshot.rt : nullptr, linksLost)) {
        const std::string text =
            "the kernel held something else than was installed" + plane_.driftText() + "; it is repaired";
        hostLog(LOG_LEVEL_WARNING, MODULE, "%s", text.c_str());
        repairs_.push_back(hooks_.now());
        while (hooks_.now() - repairs_.front() > REPAIRS_SPAN) {
            repairs_.pop_front();
        }
        watchTell("drift", text, {{"repaired", plane_.counters().driftRepaired}});
    }
    apply();
}

// ---- show ----

uint64_t KernelDevice::packetsOf(const std::string &list, const EntryKey &key,
                                 const std::map<std::string, std::vector<uint64_t>> &packets,
                                 const std::map<KernelFront::CountKey, NftCount> &front) const {
    uint64_t sum = 0;
    const auto &programs = plane_.model().lists();
    for (const NodeKey &nodeKey : plane_.model().nodesOf(list, key)) {
        const ProgramNode &node = programs.at(list).nodes.at(nodeKey);
        const bool isFlat = plane_.model().isFlat(list, nodeKey.family);
        const std::string chain = kernelMatchChain(nodeKey);
        const auto rules = node.rules ? programRules(node.aclNum, *node.rules, nodeKey.family)
                                      : std::vector<std::pair<uint32_t, AclRule>>();
        for (size_t i = 0; i < rules.size(); i++) {
            const auto &[number, rule] = rules[i];
            const auto counted = packets.find(isFlat ? kernelRuleChain({nodeKey, node.aclNum, number, rule.permit}) : chain);
            const size_t at = isFlat ? 0 : i;
            sum += rule.permit && counted != packets.end() && at < counted->second.size() ? counted->second[at] : 0;
        }
        sum += frontCount(front, nodeKey, node).packets;
    }
    return sum;
}

std::string KernelDevice::linkName(uint32_t unit) const {
    const std::optional<IfnetLink> link = hooks_.env.link(unit);
    return link ? link->name : "if" + std::to_string(unit);
}

nlohmann::json KernelDevice::entriesShow(const std::map<std::string, std::vector<uint64_t>> &packets) const {
    const auto front = hooks_.pFront ? hooks_.pFront->counts() : std::map<KernelFront::CountKey, NftCount>{};
    nlohmann::json shown = nlohmann::json::array();
    for (const auto &[list, entries] : state_.lists) {
        for (const auto &[key, entry] : entries) {
            const KernelEntryStatus status = statusOf(list, key);
            const bool isInKernel = status.installed && !isHeld_ && !isFlushed_;
            nlohmann::json row = redirectEntryShow(entry, {isInKernel, status.error});
            row["interface"] = linkName(entry.ifUnit);
            row["outInterface"] = entry.outIfUnit == 0 ? "" : linkName(entry.outIfUnit);
            row["reason"] = status.reason;
            row["packets"] = packetsOf(list, key, packets, front);
            nlohmann::json ids = nlohmann::json::array();
            bool isDropped = false;
            for (const NodeKey &node : plane_.model().nodesOf(list, key)) {
                ids.push_back(plane_.model().decisionOf(node));
                isDropped = isDropped || plane_.model().isDropped(node);
            }
            row["otherwise"] = hooks_.env.drops && hooks_.env.drops(list, entry.nodeIndex) ? "drop" : "normal";
            row["dropping"] = isDropped && isInKernel;
            row["decisions"] = std::move(ids);
            shown.push_back(std::move(row));
        }
    }
    return shown;
}

nlohmann::json KernelDevice::decisionsShow() const {
    nlohmann::json shown = nlohmann::json::array();
    for (const auto &[key, decision] : plane_.model().decisions().all()) {
        nlohmann::json paths = nlohmann::json::array();
        for (const ProgramPath &path : decision.paths) {
            paths.push_back({{"interface", linkName(path.ifIndex)},
                             {"gateway", path.hasGateway ? ipAddressText(key.first == 6 ? 2 : 1, path.gateway) : ""},
                             {"weight", path.weight}});
        }
        const RtRule rule = plane_.model().decisions().objectsOf(key).rule;
        nlohmann::json standby = nlohmann::json::array();
        for (const ProgramPath &path : decision.standby) {
            const std::string gateway = path.hasGateway ? ipAddressText(key.first == 6 ? 2 : 1, path.gateway) : "";
            standby.push_back({{"interface", linkName(path.ifIndex)}, {"gateway", gateway}});
        }
        shown.push_back({{"id", key.second}, {"ipVersion", key.first}, {"mark", rule.mark}, {"table", rule.table},
                         {"preference", rule.preference}, {"paths", std::move(paths)}, {"otherwise", decision.drop ? "drop" : "normal"},
                         {"standby", std::move(standby)}, {"users", decision.users}, {"installed", decision.installed},
                         {"error", decision.error}});
    }
    return shown;
}

nlohmann::json KernelDevice::show() {
    std::map<std::string, std::vector<uint64_t>> packets;
    if (readers_) {
        (void)nftCounters(readers_->nft, &packets); // what cannot be read is shown without packets
    }
    std::lock_guard guard(lock_);
    const KernelCounters &counters = plane_.counters();
    const char *pState = !isStarted_ ? "unusable" : isHeld_ ? "held" : isFlushed_ ? "flushed" : "live";
    nlohmann::json shown = hooks_.pFront ? hooks_.pFront->show() : nlohmann::json::object();
    shown.update({{"kind", hooks_.pFront ? "ebpf" : "kernel"},
            {"state", pState},
            {"error", error_},
            {"markMask", hooks_.options.markMask},
            {"defrag", plane_.isDefragOn() ? "on" : hooks_.options.defrag ? "off: the kernel cannot" : "off"},
            {"held", kept_},
            {"entries", entriesShow(packets)},
            {"decisions", decisionsShow()},
            {"lists", listsShow()},
            {"counters",
             {{"applies", counters.applies},
              {"kernelMessages", counters.kernelMessages},
              {"driftRepaired", counters.driftRepaired},
              {"refusals", counters.refusals},
              {"lastApplyUs", counters.lastApplyUs}}}});
    return shown;
}

} // namespace host
