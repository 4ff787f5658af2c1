// The ingress stage: see ebpf_front.h. Called by the kernel device under its lock; calls the compiler of images, the
// program and the readers of what is around.
//
// Invariants: what is on in the program is exactly what policies_ says is on; a generation's entries, nodes and
// counters are in its holding until they are retired, and in retired_ until they are removed.
#include "host/device/ebpf/ebpf_front.h"

#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <utility>

#include "host/device/ebpf/ebpf_around.h"
#include "host/device/kernel/nft_codec.h"
#include "host/logging/host_log.h"

namespace host {

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr const char *FRONT_MODULE = "ebpf-device";
constexpr size_t BUILT_AT_ONCE = 256;                   // rules; larger policies wait for a pause
constexpr Milliseconds BUILD_PAUSE{20}, BUILD_LATEST{500}; // of changes; since the first one
constexpr Milliseconds RETIRED_FOR{50};                 // longer than any packet's look

} // namespace

EbpfFront::EbpfFront(EbpfRedirect redirect) : redirect_(redirect) {}

EbpfFront::~EbpfFront() = default;

std::string EbpfFront::open(const KernelOptions &options) {
    options_ = {options.markMask, kernelMarkShift(options), options.tableBase};
    try {
        rt_ = std::make_unique<NetlinkSocket>(NETLINK_ROUTE);
        nft_ = std::make_unique<NetlinkSocket>(NETLINK_NETFILTER);
    } catch (const std::exception &error) {
        return std::string("the kernel cannot be reached: ") + error.what();
    }
    program_ = std::make_unique<EbpfProgram>();
    const std::string error = program_->load(options_);
    if (!error.empty()) {
        return error + " (host.device=ebpf needs the rights CAP_BPF and CAP_NET_ADMIN, and Linux 5.17 or newer)";
    }
    aroundRead();
    return error_;
}

// ---- what is around ----

std::vector<uint32_t> EbpfFront::groups() const { return {RTNLGRP_TC, RTNLGRP_IPV4_NETCONF}; }

// What is heard of nftables, filters, addresses and an interface's settings may change what is right here.
bool EbpfFront::hears(int protocol, const nlmsghdr *pMessage) {
    bool isWanted = false;
    if (protocol == NETLINK_NETFILTER) {
        const int type = NFNL_MSG_TYPE(pMessage->nlmsg_type);
        isWanted = !nftIsOfOurTable(pMessage) && (type == NFT_MSG_NEWCHAIN || type == NFT_MSG_DELCHAIN ||
                                                  type == NFT_MSG_NEWTABLE || type == NFT_MSG_DELTABLE);
    } else {
        switch (pMessage->nlmsg_type) {
        case RTM_NEWADDR: case RTM_DELADDR: case RTM_DELTFILTER: case RTM_DELQDISC: case RTM_NEWNETCONF:
            isWanted = true;
            break;
        case RTM_NEWROUTE: case RTM_DELROUTE: {
            const auto *pHeader = netlinkHeader<rtmsg>(pMessage);
            isWanted = pHeader != nullptr && pHeader->rtm_table == RT_TABLE_LOCAL;
            break;
        }
        default: break;
        }
    }
    if (isWanted) {
        isAroundDue_ = true;
    }
    return isWanted;
}

void EbpfFront::aroundRead() {
    std::vector<EbpfLocal> locals;
    error_ = ebpfLocalsRead(*rt_, &locals);
    if (error_.empty()) {
        error_ = program_->localsPut(locals);
    }
    hooks_ = redirect_ == EbpfRedirect::Off ? "" : ebpfHooksRead(*nft_);
    std::set<uint32_t> found;
    const std::string error = isTakenOver_ ? ebpfFiltersRead(*rt_, &found) : "";
    for (auto it = attached_.begin(); isTakenOver_ && error.empty() && it != attached_.end();) {
        it = found.count(*it) == 0 ? attached_.erase(it) : std::next(it); // put back where a policy wants it
    }
    for (auto &[key, policy] : policies_) {
        const std::string refusal = redirectRefusal(key);
        if (policy.isOn && refusal != policy.noRedirect) {
            policy.noRedirect = refusal;
            policy.image.flags = flagsOf(policy);
            error_ = error_.empty() ? program_->policyPut(policy.ifIndex, key.first, policy.image) : error_;
        }
    }
}

std::string EbpfFront::redirectRefusal(const InterfaceKey &key) const {
    if (redirect_ == EbpfRedirect::Off) {
        return "host.ebpf-redirect is off";
    }
    if (redirect_ == EbpfRedirect::On) {
        return "";
    }
    return !hooks_.empty() ? hooks_ + " would not see them" : key.first == 4 ? ebpfSourceCheck(key.second) : "";
}

// ---- before: what the kernel is about to lose ----

// Programs of an earlier run are replaced by this run's, which leaves everything to the rules for now.
void EbpfFront::takeOver() {
    if (isTakenOver_) {
        return;
    }
    std::set<uint32_t> found;
    const std::string error = ebpfFiltersRead(*rt_, &found);
    for (const uint32_t ifIndex : found) {
        if (ebpfAttach(*rt_, ifIndex, program_->fd()).empty()) {
            attached_.insert(ifIndex);
        }
    }
    isTakenOver_ = error.empty();
    error_ = error;
}

// Brings the index of places up to date for a list.
void EbpfFront::listIndex(const KernelModel &model, const std::string &list, std::set<InterfaceKey> *pTouched) {
    std::map<InterfaceKey, std::vector<Place>> now;
    const auto program = model.lists().find(list);
    if (program != model.lists().end()) {
        for (const auto &[entryKey, entry] : program->second.entries) {
            for (const uint8_t family : {uint8_t{4}, uint8_t{6}}) {
                const NodeKey node{list, entryKey.second, family, entry.variant};
                if (entry.families[family == 6] && model.refusedOf(node).empty()) {
                    const ProgramNode &known = program->second.nodes.at(node);
                    now[{family, entry.ifName}].push_back({node, known.aclNum, known.rules});
                }
            }
        }
    }
    for (const auto &[key, places] : lists_[list]) {
        if (now.count(key) == 0) {
            listsOf_[key].erase(list);
        }
        pTouched->insert(key);
    }
    for (auto &[key, places] : now) {
        std::sort(places.begin(), places.end());
        listsOf_[key].insert(list);
        pTouched->insert(key);
    }
    if (now.empty()) {
        lists_.erase(list);
    } else {
        lists_[list] = std::move(now);
    }
}

std::vector<EbpfFront::Place> EbpfFront::placesOf(const InterfaceKey &key) const {
    std::vector<Place> places;
    const auto lists = listsOf_.find(key);
    if (lists == listsOf_.end()) {
        return places;
    }
    for (const std::string &list : lists->second) {
        const std::vector<Place> &more = lists_.at(list).at(key);
        places.insert(places.end(), more.begin(), more.end());
    }
    if (lists->second.size() > 1) {
        std::sort(places.begin(), places.end());
    }
    return places;
}

void EbpfFront::policyOff(const InterfaceKey &key, Policy &policy) {
    if (!policy.isOn) {
        return;
    }
    program_->policyRemove(policy.ifIndex, key.first);
    retired_.emplace_back(Clock::now(), std::exchange(policy.holding, {}));
    policy.isOn = false;
}

// Switches a policy off that is not as wanted, and appoints its building.
void EbpfFront::policyCheck(const InterfaceKey &key) {
    std::vector<Place> places = placesOf(key);
    const uint32_t ifIndex = places.empty() ? 0 : ebpfLinkRead(*rt_, key.second).ifIndex;
    const auto found = policies_.find(key);
    if (places.empty()) {
        if (found != policies_.end()) {
            policyOff(key, found->second);
            policies_.erase(found);
        }
        return;
    }
    Policy &policy = policies_[key];
    if (policy.places == places && policy.ifIndex == ifIndex && (policy.isOn || policy.isPending || !policy.refusal.empty())) {
        return;
    }
    policyOff(key, policy);
    policy.places = std::move(places);
    policy.changed = Clock::now();
    policy.since = policy.isPending ? policy.since : policy.changed;
    policy.isPending = true;
}

void EbpfFront::before(const KernelModel &model, const std::set<std::string> &lists) {
    takeOver();
    std::set<InterfaceKey> touched;
    for (const std::string &list : lists) {
        listIndex(model, list, &touched);
    }
    for (const InterfaceKey &key : touched) {
        policyCheck(key);
    }
}

// ---- after: equal to the rules again ----

void EbpfFront::after(const KernelModel &model, const std::set<std::string> &lists, bool isDone) {
    isBroken_ = !isDone;
    if (!isDone) {
        for (auto &[key, policy] : policies_) {
            policyOff(key, policy);
            policy.isPending = true;
            policy.since = policy.changed = Clock::now();
        }
        return;
    }
    nodesSet(model, lists);
    pendingBuild(model, false);
    filtersSet();
}

// isNew: the place may still have what another node left there.
void EbpfFront::nodeSet(const KernelModel &model, const NodeKey &key, bool isNew) {
    const std::optional<uint32_t> place = nodePlaces_.get(key);
    const auto list = model.lists().find(key.list);
    if (!place || list == model.lists().end() || list->second.nodes.count(key) == 0) {
        return;
    }
    EbpfNode node{model.decisionOf(key), EBPF_NODE_KNOWN, 0};
    if (node.decision != 0) {
        node.precedence = list->second.nodes.at(key).decision.precedence;
    } else if (model.isDropped(key)) {
        node.flags |= EBPF_NODE_DROP;
    } else if (list->second.nodes.at(key).decision.precedence == 0) {
        node.flags |= EBPF_NODE_ROUTED;
    }
    const auto [held, isFirst] = nodes_.try_emplace(key);
    const bool isSame = held->second.decision == node.decision && held->second.flags == node.flags &&
                        held->second.precedence == node.precedence;
    if (isNew || isFirst || !isSame) {
        held->second = node;
        const std::string error = program_->nodePut(*place, node);
        error_ = error.empty() ? error_ : error;
    }
}

void EbpfFront::nodesSet(const KernelModel &model, const std::set<std::string> &lists) {
    for (const std::string &list : lists) {
        const auto program = model.lists().find(list);
        if (program != model.lists().end()) {
            for (const auto &[key, node] : program->second.nodes) {
                nodeSet(model, key, false);
            }
        }
    }
}

uint32_t EbpfFront::flagsOf(const Policy &policy) {
    const uint32_t redirect = policy.noRedirect.empty() ? uint32_t{EBPF_POLICY_REDIRECT} : 0;
    return redirect | (policy.rest.empty() ? uint32_t{EBPF_POLICY_WHOLE} : 0);
}

// The rules of an interface with their places in the maps; those behind the last free place are left out.
std::vector<EbpfRule> EbpfFront::rulesOf(const KernelModel &model, const InterfaceKey &key, Policy &policy) {
    std::vector<EbpfRule> rules;
    uint32_t at = 0;
    bool isFull = false;
    policy.rules = 0;
    for (const Place &place : policy.places) {
        at++;
        const auto own = place.rules ? programRules(place.aclNum, *place.rules, key.first)
                                     : std::vector<std::pair<uint32_t, AclRule>>{};
        policy.rules += own.size();
        bool isNew = false;
        const std::optional<uint32_t> node = isFull || own.empty() ? std::nullopt : nodePlaces_.acquire(place.node, &isNew);
        isFull = isFull || (!own.empty() && !node);
        if (!node) {
            continue;
        }
        policy.holding.nodes.push_back(place.node);
        nodeSet(model, place.node, isNew);
        for (const auto &[number, rule] : own) {
            const CountKey name{place.node, place.aclNum, number};
            const std::optional<uint32_t> count = isFull ? std::nullopt : countPlaces_.acquire(name, &isNew);
            isFull = isFull || !count;
            if (isFull) {
                break;
            }
            if (isNew) {
                program_->countClear(*count);
            }
            policy.holding.counts.push_back(name);
            rules.push_back({rule, at, *count, *node});
        }
    }
    policy.rest = isFull ? "there is no room for more rules" : "";
    return rules;
}

void EbpfFront::policyBuild(const KernelModel &model, const InterfaceKey &key, Policy &policy) {
    policy.isPending = false;
    const EbpfLink link = ebpfLinkRead(*rt_, key.second);
    policy.ifIndex = link.ifIndex;
    policy.refusal = link.refusal;
    if (!policy.refusal.empty()) {
        return;
    }
    policy.holding = {key.first, ++generation_, {}, {}, {}};
    const std::vector<EbpfRule> rules = rulesOf(model, key, policy);
    EbpfImage image = ebpfImage(rules, key.first);
    policy.taken = image.taken;
    policy.rest = image.reason.empty() ? policy.rest : image.reason;
    policy.noRedirect = redirectRefusal(key);
    image.policy.generation = generation_;
    image.policy.flags = flagsOf(policy);
    for (const auto &[entryKey, entry] : image.entries) {
        policy.holding.keys.push_back(entryKey);
    }
    policy.refusal = program_->entriesPut(key.first, generation_, image.entries);
    if (policy.refusal.empty() && attached_.count(link.ifIndex) == 0) {
        policy.refusal = ebpfAttach(*rt_, link.ifIndex, program_->fd());
        if (policy.refusal.empty()) {
            attached_.insert(link.ifIndex);
        }
    }
    if (policy.refusal.empty()) {
        policy.refusal = program_->policyPut(link.ifIndex, key.first, image.policy);
    }
    policy.isOn = policy.refusal.empty();
    policy.image = image.policy;
    if (!policy.isOn) {
        hostLog(LOG_LEVEL_WARNING, FRONT_MODULE, "%s: %s; its packets are left to nftables", key.second.c_str(),
                policy.refusal.c_str());
        retired_.emplace_back(Clock::now(), std::exchange(policy.holding, {}));
    }
}

// isAll: also large ones whose changes pause.
void EbpfFront::pendingBuild(const KernelModel &model, bool isAll) {
    const Clock::time_point now = Clock::now();
    for (auto &[key, policy] : policies_) {
        const bool isPaused = isAll && (now - policy.changed >= BUILD_PAUSE || now - policy.since >= BUILD_LATEST);
        if (policy.isPending && (isPaused || policy.places.size() <= BUILT_AT_ONCE)) {
            policyBuild(model, key, policy);
        }
    }
}

// Puts back what somebody took away, and removes what no policy needs.
void EbpfFront::filtersSet() {
    std::set<uint32_t> wanted;
    for (const auto &[key, policy] : policies_) {
        if (policy.isOn || policy.isPending) {
            wanted.insert(policy.ifIndex);
        }
        if (policy.isOn && attached_.count(policy.ifIndex) == 0 && ebpfAttach(*rt_, policy.ifIndex, program_->fd()).empty()) {
            attached_.insert(policy.ifIndex);
        }
    }
    for (auto it = attached_.begin(); it != attached_.end();) {
        if (wanted.count(*it) == 0) {
            const std::string error = ebpfDetach(*rt_, *it);
            error_ = error.empty() ? error_ : error;
            it = attached_.erase(it);
        } else {
            ++it;
        }
    }
}

// ---- later ----

void EbpfFront::retiredDrop(bool isAll) {
    const Clock::time_point now = Clock::now();
    std::erase_if(retired_, [&](const auto &item) {
        const auto &[since, holding] = item;
        if (!isAll && now - since < RETIRED_FOR) {
            return false;
        }
        program_->entriesRemove(holding.family, holding.generation, holding.keys);
        for (const NodeKey &node : holding.nodes) {
            nodePlaces_.release(node);
            if (!nodePlaces_.get(node)) {
                nodes_.erase(node);
            }
        }
        for (const CountKey &count : holding.counts) {
            countPlaces_.release(count);
        }
        return true;
    });
}

// Whether something is to be built, and can be.
bool EbpfFront::isWaiting() const {
    return !isBroken_ && std::any_of(policies_.begin(), policies_.end(), [](const auto &item) { return item.second.isPending; });
}

std::chrono::milliseconds EbpfFront::workDelay() const {
    if (isAroundDue_) {
        return Milliseconds{1};
    }
    return isWaiting() ? BUILD_PAUSE : retired_.empty() ? Milliseconds{0} : RETIRED_FOR;
}

// What was retired is kept while something is pending, so that what is built goes on with its counters.
std::chrono::milliseconds EbpfFront::work(const KernelModel &model) {
    if (isAroundDue_.exchange(false)) {
        aroundRead();
    }
    if (!isBroken_) {
        pendingBuild(model, true);
        filtersSet();
    }
    if (!isWaiting()) {
        retiredDrop(false);
    }
    return workDelay();
}

std::string EbpfFront::flush() {
    for (auto &[key, policy] : policies_) {
        policyOff(key, policy);
        policy.isPending = true;
        policy.since = policy.changed = Clock::now();
    }
    std::set<uint32_t> found;
    std::string error = ebpfFiltersRead(*rt_, &found);
    for (const uint32_t ifIndex : found) {
        const std::string one = ebpfDetach(*rt_, ifIndex);
        error = error.empty() ? one : error;
    }
    attached_.clear();
    isTakenOver_ = true;
    retiredDrop(true);
    return error;
}

// ---- questions ----

std::map<EbpfFront::CountKey, NftCount> EbpfFront::counts() const {
    std::map<CountKey, NftCount> counts;
    countPlaces_.visit([&](const CountKey &name, uint32_t place) {
        const EbpfCount count = program_->count(place);
        counts[name] = {count.packets, count.bytes};
    });
    return counts;
}

void EbpfFront::countsClear() {
    countPlaces_.visit([&](const CountKey &, uint32_t place) { program_->countClear(place); });
}

nlohmann::json EbpfFront::show() const {
    nlohmann::json interfaces = nlohmann::json::array();
    for (const auto &[key, policy] : policies_) {
        interfaces.push_back({{"interface", key.second}, {"ipVersion", key.first}, {"on", policy.isOn},
                              {"why", policy.isOn ? "" : policy.isPending ? "it is being changed" : policy.refusal},
                              {"rules", policy.rules}, {"rulesInFront", policy.isOn ? policy.taken : 0},
                              {"rest", policy.rest}, {"redirect", policy.isOn && policy.noRedirect.empty()},
                              {"noRedirect", policy.isOn ? policy.noRedirect : ""},
                              {"lookUps", policy.isOn ? policy.image.count : 0}, {"elements", policy.holding.keys.size()}});
    }
    return {{"front", std::move(interfaces)}, {"frontError", error_}};
}

std::vector<std::string> EbpfFront::differences() {
    std::vector<std::string> lines;
    std::set<uint32_t> found;
    const std::string error = ebpfFiltersRead(*rt_, &found);
    if (!error.empty()) {
        return {error};
    }
    for (const auto &[key, policy] : policies_) {
        if (policy.isOn && found.count(policy.ifIndex) == 0) {
            lines.push_back("the filter of interface " + key.second + " is missing (IPv" + std::to_string(key.first) + ")");
            isAroundDue_ = true;
        }
    }
    return lines;
}

std::vector<DeviceNotice> EbpfFront::warnings() const {
    const bool isSentOn = std::any_of(policies_.begin(), policies_.end(), [](const auto &item) {
        return item.second.isOn && item.second.noRedirect.empty();
    });
    if (redirect_ != EbpfRedirect::On || hooks_.empty() || !isSentOn) {
        return {};
    }
    return {{"passed-by", "packets of bound interfaces are sent on at ingress; " + hooks_ + " does not see them",
             "set host.ebpf-redirect to auto, or be sure that it need not see them"}};
}

} // namespace host
