// The kernel device asked whether all is as it should be: KernelDevice::check, storeCompare, warnings.
//
//   check: reads the kernel back, compares, judges the surroundings, then asks for the store
//     -- storeCompare (daemon's mutex held): the store against what was taken of it -->
//   answer on the event thread; without the store's turn within STORE_WAIT_MS that is a difference too
#include <algorithm>
#include <tuple>

#include "host/device/kernel/kernel_device.h"
#include "host/device/kernel/nft_codec.h"
#include "host/device/kernel/rule_tree.h"

namespace host {

namespace {

constexpr int READS_MOST = 4; // a change of our own between two reads makes the first one old

// The rules with `fragments` of all programs, each once.
std::vector<Surroundings::FragmentsRule> fragmentsRulesOf(const KernelModel &model) {
    std::vector<Surroundings::FragmentsRule> found;
    std::set<std::tuple<uint32_t, uint32_t, uint8_t>> seen; // an ACL serves one node
    for (const auto &[list, program] : model.lists()) {
        for (const auto &[key, node] : program.nodes) {
            const auto rules = node.rules ? programRules(node.aclNum, *node.rules, key.family)
                                          : std::vector<std::pair<uint32_t, AclRule>>();
            for (const auto &[number, rule] : rules) {
                if (rule.fragments && seen.insert({node.aclNum, number, key.family}).second) {
                    found.push_back({list, key.nodeIndex, node.aclNum, number, key.family});
                }
            }
        }
    }
    return found;
}

const char *const ADVICE_REPAIR = "it is repaired at once; 'pbrctl check' again tells what remains";

} // namespace

// Reads without the lock, so that packets' policy does not wait; compares when nothing was changed meanwhile.
std::vector<DeviceNotice> KernelDevice::differencesNow() {
    std::vector<DeviceNotice> notices;
    for (int i = 0; i < READS_MOST; i++) {
        uint64_t applies = 0;
        {
            std::lock_guard guard(lock_);
            if (!isStarted_) {
                return {{"unusable", "the kernel device is not in use", "see the daemon's log for why"}};
            }
            if (isHeld_) {
                return {{"held", "the policy of an earlier run is in the kernel, the present one is not yet",
                         "wait until the next hops are known, or 'pbrctl device settle'"}};
            }
            applies = plane_.counters().applies;
        }
        KernelSnapshot snapshot;
        const std::string error = snapshotRead(*readers_, &snapshot);
        std::lock_guard guard(lock_);
        if (!error.empty()) {
            return {{"unreadable", error, "the daemon needs the right CAP_NET_ADMIN"}};
        }
        // cppcheck-suppress knownConditionTrueFalse ; the lock was free meanwhile
        if (plane_.counters().applies != applies && i + 1 < READS_MOST) {
            continue;
        }
        if (isFlushed_) {
            notices.push_back({"flushed", "everything of ours was removed from the kernel on request",
                               "'pbrctl device settle' installs the policy again"});
            break;
        }
        for (const std::string &line : plane_.differences(snapshot)) {
            notices.push_back({"kernel", line, ADVICE_REPAIR});
        }
        const std::vector<DeviceNotice> front = frontDifferences();
        notices.insert(notices.end(), front.begin(), front.end());
        if (!error_.empty()) {
            notices.push_back({"refused", error_, "see the daemon's log"});
        }
        break;
    }
    return notices;
}

// Lock: held by caller
std::vector<DeviceNotice> KernelDevice::entriesRefused() const {
    std::vector<DeviceNotice> notices;
    for (const auto &[list, entries] : state_.lists) {
        for (const auto &[key, entry] : entries) {
            const KernelEntryStatus status = statusOf(list, key);
            const std::string place = "list " + list + " node " + std::to_string(key.second) + " on " + linkName(key.first);
            if (!status.error.empty()) {
                notices.push_back({"refused", place + ": " + status.error, "change the node or its ACL"});
            } else if (kept_.count(list) != 0) {
                notices.push_back({"changing", place + " waits for the end of a change", "check again afterwards"});
            } else if (!status.installed && !isHeld_ && !isFlushed_) {
                notices.push_back({"kernel", place + " is not installed", ADVICE_REPAIR});
            }
        }
    }
    return notices;
}

// Lock: held by caller
uint32_t KernelDevice::repairsLately() const {
    const auto now = hooks_.now();
    return static_cast<uint32_t>(std::count_if(repairs_.begin(), repairs_.end(),
                                               [&](const auto &at) { return now - at <= REPAIRS_SPAN; }));
}

// What the device itself knows of its surroundings. Lock: held by caller
Surroundings KernelDevice::surroundingsBegin() const {
    Surroundings around;
    around.markMask = hooks_.options.markMask;
    around.repairs = repairsLately();
    std::map<std::string, Surroundings::Bound> bound;
    for (const auto &[list, entries] : state_.lists) {
        for (const auto &[key, entry] : entries) {
            Surroundings::Bound &at = bound[linkName(key.first)];
            at.families[0] = at.families[0] || entry.ipVer != 2;
            at.families[1] = at.families[1] || entry.ipVer == 2 || aclVersion(entry.aclNum) == 0;
            const int version = entry.ipVer == 2 ? 6 : 4;
            for (const IpAddress &address : entry.nextHops) {
                if (const auto egress = hooks_.env.egress(entry.vrfid, version, address)) {
                    around.hops.push_back({list, key.second, version, address, egress->hasGateway, linkName(egress->ifIndex)});
                }
            }
        }
    }
    for (auto &[name, at] : bound) {
        at.ifName = name;
        around.bound.push_back(at);
    }
    if (!plane_.isDefragOn()) {
        around.fragmentsRules = fragmentsRulesOf(plane_.model());
    }
    const std::optional<FibEgress> everything = hooks_.env.egress(0, 4, IpAddress{});
    std::set<uint32_t> uplinks;
    std::map<uint8_t, std::pair<size_t, uint32_t>> used; // by family: decisions, and the first preference
    for (const auto &[key, decision] : plane_.model().decisions().all()) {
        if (decision.users == 0) {
            continue;
        }
        uint32_t &last = around.lastPreference[key.first == 6];
        const uint32_t preference = plane_.model().decisions().objectsOf(key).rule.preference;
        last = std::max(last, preference);
        used.try_emplace(key.first, 0, preference).first->second.first++;
        for (const ProgramPath &path : decision.paths) {
            if (key.first == 4 && uplinks.insert(path.ifIndex).second) {
                around.uplinks.push_back({linkName(path.ifIndex), std::nullopt, everything && everything->ifIndex == path.ifIndex});
            }
        }
    }
    for (const auto &[family, count] : used) {
        around.firstPreference[family == 6] = count.first < RULE_TREE_FROM ? 0 : count.second;
    }
    return around;
}

std::vector<DeviceNotice> KernelDevice::warnings() {
    Surroundings around;
    {
        std::lock_guard guard(lock_);
        if (!isStarted_) {
            return {};
        }
        around = surroundingsBegin();
    }
    const auto hasDefault = [this](uint8_t family, uint32_t table) {
        return hooks_.env.egress(table, family, IpAddress{}).has_value();
    };
    std::string error = surroundingsRead(readers_->rt, hasDefault, &around);
    if (error.empty() && !around.fragmentsRules.empty()) {
        error = surroundingsTrackersRead(readers_->nft, &around);
    }
    if (!error.empty()) {
        return {{"unreadable", error, "the daemon needs the right CAP_NET_ADMIN"}};
    }
    for (Surroundings::Address &address : around.addresses) {
        const std::optional<IfnetLink> link = hooks_.env.link(address.ifUnit);
        address.ifName = link ? link->name : "if" + std::to_string(address.ifUnit);
        address.isUp = link && link->up;
    }
    std::vector<DeviceNotice> notices = surroundingsJudge(around);
    if (hooks_.pFront) {
        std::lock_guard guard(lock_);
        const std::vector<DeviceNotice> front = hooks_.pFront->warnings();
        notices.insert(notices.end(), front.begin(), front.end());
    }
    return notices;
}

void KernelDevice::check(std::function<void(nlohmann::json)> done) {
    std::vector<DeviceNotice> differences = differencesNow();
    const std::vector<DeviceNotice> around = warnings();
    nlohmann::json answer;
    {
        std::lock_guard guard(lock_);
        const std::vector<DeviceNotice> refused = entriesRefused();
        differences.insert(differences.end(), refused.begin(), refused.end());
        size_t entries = 0;
        std::set<uint32_t> units;
        for (const auto &[list, places] : state_.lists) {
            for (const auto &[key, entry] : places) {
                entries += entry.kind == PBR_REDIRECT_ABSENT || entry.kind == PBR_REDIRECT_INERT ? 0 : 1;
                units.insert(key.first);
            }
        }
        answer = {{"compared", true}, {"entries", entries}, {"interfaces", units.size()},
                  {"repairs", plane_.counters().driftRepaired}, {"differences", deviceNoticesShow(differences)},
                  {"warnings", deviceNoticesShow(around)}};
    }
    if (std::any_of(differences.begin(), differences.end(), [](const auto &notice) { return notice.code == "kernel"; })) {
        readBackSoon(FOREIGN_CHANGE_MS, READ_ALL); // what was not told to us is repaired too
    }
    checks_.emplace_back(std::move(answer), std::move(done));
    if (checkTimer_ == 0) {
        checkTimer_ = hooks_.pLoop->timerStart(STORE_WAIT_MS, [this] {
            checksAnswer({{"store", "the daemon did not give its policy within 5 seconds", "look whether it is busy, and check again"}});
        });
    }
    hooks_.askStore();
}

// Event thread.
void KernelDevice::checksAnswer(const std::vector<DeviceNotice> &storeNotices) {
    hooks_.pLoop->timerStop(std::exchange(checkTimer_, 0));
    const nlohmann::json more = deviceNoticesShow(storeNotices);
    for (auto &[answer, done] : std::exchange(checks_, {})) {
        answer["differences"].insert(answer["differences"].end(), more.begin(), more.end());
        done(answer);
    }
}

// The whole view is taken: a list that differs was changed without a mark, and is put right here.
void KernelDevice::storeCompare() {
    std::vector<DeviceNotice> notices;
    {
        std::lock_guard guard(lock_);
        const std::vector<std::string> changed = hooks_.take(state_, true);
        for (const std::string &list : changed) {
            notices.push_back({"store", "list " + list + ": the device did not follow the daemon's policy", ADVICE_REPAIR});
        }
        if (!changed.empty()) {
            listsCompile(changed);
            apply();
        }
    }
    hooks_.pLoop->post([this, alive = std::weak_ptr(alive_), notices] {
        if (!alive.expired()) {
            checksAnswer(notices);
        }
    });
}

} // namespace host
