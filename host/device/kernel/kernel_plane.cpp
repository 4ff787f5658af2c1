// The kernel plane: see kernel_plane.h. Called by the kernel device under its lock; calls the codecs.
//
// installed_ follows every change that the kernel confirmed and is replaced by what is read back.
#include "host/device/kernel/kernel_plane.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <linux/netlink.h>

#include "host/device/kernel/kernel_counts.h"
#include "host/device/kernel/nft_codec.h"
#include "host/device/kernel/rule_tree.h"
#include "host/logging/host_log.h"

namespace host {

namespace {

constexpr size_t COUNTS_ONE_BY_ONE = 8; // chains whose counters are read each for itself; more: all together
constexpr int APPLY_ROUNDS = 16; // every round leaves out at least one node, or resynchronises
constexpr const char *MODULE = "kernel-device";

uint64_t nowUs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch()).count());
}

template <class Map, class Key, class Value> bool holds(const Map &map, const Key &key, const Value &value) {
    auto it = map.find(key);
    return it != map.end() && it->second == value;
}

bool holdsAll(const RtImage &image, const DecisionObjects &objects) {
    const auto inside = [](const auto &held, const auto &asked) {
        return std::all_of(asked.begin(), asked.end(),
                           [&](const auto &item) { return holds(held, item.first, item.second); });
    };
    return inside(image.nextHops, objects.nextHops) && inside(image.groups, objects.groups) &&
           inside(image.routes, objects.routes) && image.rules.count(objects.rule) != 0;
}

void encode(NftBatch &batch, const NftChange &change, const NftCount &count) {
    batch.ownerSet(change.owner);
    switch (change.kind) {
    case NftChange::Kind::TableDel: batch.tableDel(); break;
    case NftChange::Kind::TableAdd: batch.tableAdd(); break;
    case NftChange::Kind::SetAdd: batch.setAdd(change.name); break;
    case NftChange::Kind::ChainAdd: batch.chainAdd(change.name); break;
    case NftChange::Kind::ChainFlush: batch.chainFlush(change.name); break;
    case NftChange::Kind::RuleAdd: batch.ruleAdd(change.name, change.rule, count); break;
    case NftChange::Kind::ElementDel: batch.elementDel(change.key); break;
    case NftChange::Kind::ElementAdd: batch.elementAdd(change.key, change.name); break;
    case NftChange::Kind::SetDel: batch.setDel(change.name); break;
    case NftChange::Kind::ChainDel: batch.chainDel(change.name); break;
    }
}

} // namespace

KernelSockets::KernelSockets() : nft(NETLINK_NETFILTER), rt(NETLINK_ROUTE) {}

std::string snapshotRead(KernelSockets &sockets, KernelSnapshot *pSnapshot) {
    const std::string error = nftRead(sockets.nft, &pSnapshot->nft);
    return error.empty() ? rtRead(sockets.rt, &pSnapshot->rt) : error;
}

KernelPlane::KernelPlane(const KernelOptions &options) : options_(options), model_(options) {
    model_.decisions().takenSet([this](uint8_t family, uint32_t preference, uint32_t table) {
        return isTaken(family, preference, table);
    });
    model_.decisions().nextHopTakenSet([this](uint32_t id) {
        return installed_.rt.foreignNextHops.count(id) != 0 || installed_.rt.nextHops.count(id) != 0 ||
               installed_.rt.groups.count(id) != 0;
    });
}

std::string KernelPlane::open() {
    const std::string refusal = kernelOptionsRefusal(options_);
    if (!refusal.empty()) {
        return refusal;
    }
    try {
        sockets_ = std::make_unique<KernelSockets>();
    } catch (const std::exception &error) {
        return std::string("the kernel cannot be reached: ") + error.what();
    }
    std::string error = snapshotRead(*sockets_, &installed_);
    if (!error.empty()) {
        return error + " (the kernel device needs nftables and the right CAP_NET_ADMIN)";
    }
    if (installed_.nft.foreign) {
        return "a table inet policyroute exists that is not ours: rename or delete it";
    }
    // Asked for something that changes nothing, the kernel tells whether we would be allowed to.
    NftBatch probe(sockets_->nft);
    if (!installed_.nft.table && !installed_.nft.stale) {
        probe.tableAdd();
        probe.tableDel();
        const NetlinkBatchResult result = probe.send();
        if (!result.failed.empty()) {
            return "nftables cannot be changed: " + result.failed.front().text +
                   " (the kernel device needs nftables and the right CAP_NET_ADMIN)";
        }
    }
    defragProbe();
    isAdopted_ = installed_.nft.table || installed_.nft.stale || !installed_.rt.isEmpty();
    model_.decisions().adopt(installed_.rt);
    decisionsMark();
    return "";
}

// Makes what reassembles fragments and removes it in one transaction: what the kernel cannot do is given up.
void KernelPlane::defragProbe() {
    if (!options_.defrag) {
        return;
    }
    const std::string chain = std::string(KERNEL_DEFRAG_CHAIN) + "-probe"; // ours from an earlier run may be there
    const bool isTableThere = installed_.nft.table || installed_.nft.stale;
    NftBatch probe(sockets_->nft);
    if (!isTableThere) {
        probe.tableAdd();
    }
    probe.chainAdd(chain);
    for (const NftRule &rule : kernelDefragRules()) {
        probe.ruleAdd(chain, rule);
    }
    probe.chainFlush(chain);
    probe.chainDel(chain);
    if (!isTableThere) {
        probe.tableDel();
    }
    const NetlinkBatchResult result = probe.send();
    if (!result.ok()) {
        options_.defrag = false;
        hostLog(LOG_LEVEL_WARNING, MODULE, "host.defrag is off: the kernel cannot reassemble fragments for us (%s)",
                result.failed.empty() ? "no answer" : result.failed.front().text.c_str());
    }
    model_.defragSet(options_.defrag);
}

const std::set<uint32_t> KernelPlane::ports() const {
    return sockets_ ? std::set<uint32_t>{sockets_->nft.portId(), sockets_->rt.portId()} : std::set<uint32_t>{};
}

// Preferences, tables and marks that others use are left alone; so are leftovers of ours until they are removed.
bool KernelPlane::isTaken(uint8_t family, uint32_t preference, uint32_t table) {
    const RtImage &image = installed_.rt;
    if (image.foreignPreferences.count({family, preference}) != 0 ||
        image.foreignTables.count({family, table}) != 0) {
        return true;
    }
    const bool isLeftover = std::any_of(image.rules.begin(), image.rules.end(), [&](const RtRule &rule) {
        return rule.action == RT_RULE_LOOKUP && rule.family == family && (rule.preference == preference || rule.table == table);
    });
    return isLeftover || (sockets_ && rtTableIsForeign(sockets_->rt, family, table));
}

// ---- routing half ----

void KernelPlane::decisionsMark() {
    for (auto &[key, decision] : model_.decisions().all()) {
        decision.installed = holdsAll(installed_.rt, model_.decisions().objectsOf(key));
    }
}

// `planned` are the next hops that earlier steps of the same batch make: decisions share these.
void KernelPlane::stepsFor(const DecisionKey &key, std::set<uint32_t> &planned, std::vector<RtStep> &steps) const {
    const DecisionObjects objects = model_.decisions().objectsOf(key);
    const RtImage &held = installed_.rt;
    const auto verb = [](const auto &map, const auto &id) {
        return map.count(id) == 0 ? RtVerb::Add : RtVerb::Replace;
    };
    const auto standby = objects.routes.find({key.first, objects.rule.table, RT_STANDBY_METRIC});
    const auto isStandby = [&](uint32_t id) {
        const std::vector<ProgramPath> &paths = model_.decisions().get(key)->paths;
        return standby != objects.routes.end() && standby->second == id &&
               std::none_of(paths.begin(), paths.end(), [&](const ProgramPath &path) {
                   return objects.nextHops.at(id) == RtNextHop{key.first, path.ifIndex, path.hasGateway, path.gateway};
               });
    };
    for (const auto &item : objects.nextHops) {
        if (!holds(held.nextHops, item.first, item.second) && planned.insert(item.first).second) {
            steps.push_back({rtNextHopMessage(verb(held.nextHops, item.first), item.first, item.second), key, item.second.ifIndex,
                             [item](RtImage &image) { image.nextHops[item.first] = item.second; }, isStandby(item.first)});
        }
    }
    for (const auto &item : objects.groups) {
        if (!holds(held.groups, item.first, item.second)) {
            steps.push_back({rtGroupMessage(verb(held.groups, item.first), item.first, item.second), key, 0,
                             [item](RtImage &image) { image.groups[item.first] = item.second; }});
        }
    }
    // The last route first: a table is never without it while a rule leads there. The chosen way before the standby:
    // when the kernel has lost the way of before, the standby is what packets take now.
    for (const uint32_t metric : {RT_LAST_METRIC, RT_METRIC, RT_STANDBY_METRIC}) {
        const RtRouteKey place{key.first, objects.rule.table, metric};
        const auto wanted = objects.routes.find(place);
        if (wanted != objects.routes.end() && !holds(held.routes, place, wanted->second)) {
            steps.push_back({rtRouteMessage(verb(held.routes, place), place, wanted->second), key, 0,
                             [item = *wanted](RtImage &image) { image.routes[item.first] = item.second; },
                             metric == RT_STANDBY_METRIC});
        }
    }
    for (const uint32_t metric : {RT_METRIC, RT_STANDBY_METRIC}) {
        const auto old = held.routes.find({key.first, objects.rule.table, metric});
        if (old != held.routes.end() && objects.routes.count(old->first) == 0) {
            steps.push_back({rtRouteMessage(RtVerb::Del, old->first, old->second), key, 0,
                             [place = old->first](RtImage &image) { image.routes.erase(place); }, true});
        }
    }
    if (held.rules.count(objects.rule) == 0) {
        steps.push_back({rtRuleMessage(true, objects.rule), key, 0,
                         [rule = objects.rule](RtImage &image) { image.rules.insert(rule); }});
    }
}

// Result: for each step what the kernel said; false: done.
std::vector<NetlinkError> KernelPlane::stepsAnswer(const std::vector<RtStep> &steps) {
    std::vector<NetlinkMessage> messages;
    std::vector<uint32_t> seqs;
    for (const RtStep &step : steps) {
        messages.push_back(step.message);
    }
    const NetlinkBatchResult result = sockets_->rt.batch(messages, &seqs);
    counters_.kernelMessages += messages.size();
    std::map<uint32_t, const NetlinkError *> failed;
    for (const NetlinkError &error : result.failed) {
        failed.emplace(error.seq, &error);
    }
    std::vector<NetlinkError> answers(steps.size());
    for (size_t i = 0; i < steps.size(); i++) {
        const auto it = failed.find(seqs[i]);
        if (it != failed.end()) {
            answers[i] = *it->second;
        }
    }
    return answers;
}

// Failures are noted in the decisions.
void KernelPlane::stepsSend(std::vector<RtStep> &steps) {
    const std::vector<NetlinkError> answers = stepsAnswer(steps);
    std::map<uint32_t, std::string> linksDown; // whose next hops the kernel did not take for that, and its words
    for (size_t i = 0; i < steps.size(); i++) {
        if (answers[i].code == ENETDOWN && steps[i].ifIndex != 0) {
            linksDown.emplace(steps[i].ifIndex, answers[i].text);
        }
    }
    for (size_t i = 0; i < steps.size(); i++) {
        if (!answers[i]) {
            steps[i].done(installed_.rt);
        } else if (Decision *pDecision = model_.decisions().get(steps[i].owner); steps[i].isOptional && pDecision != nullptr) {
            pDecision->isStandbyRefused = true;
        } else {
            decisionRefuse(steps[i].owner, answers[i].text, linksDown);
        }
    }
}

// A link that went down is told by the kernel before the services know of it. What is built on such a next
// hop is refused with it, by other words.
void KernelPlane::decisionRefuse(const DecisionKey &key, const std::string &text,
                                 const std::map<uint32_t, std::string> &linksDown) {
    Decision *pDecision = model_.decisions().get(key);
    if (pDecision == nullptr || !pDecision->error.empty()) {
        return;
    }
    pDecision->error = "the kernel refused the route: " + text;
    for (const ProgramPath &path : pDecision->paths) {
        auto down = linksDown.find(path.ifIndex);
        if (down != linksDown.end()) {
            pDecision->waits = true;
            pDecision->error = "a link is down: " + down->second;
        }
    }
}

// Result: the decisions that were to be installed.
std::set<DecisionKey> KernelPlane::decisionsSend() {
    std::vector<RtStep> steps;
    std::set<uint32_t> planned;
    std::set<DecisionKey> pending;
    for (const auto &[key, decision] : model_.decisions().all()) {
        if (decision.users > 0 && !decision.installed && decision.error.empty()) {
            stepsFor(key, planned, steps);
            pending.insert(key);
        }
        isCollectDue_ = isCollectDue_ || decision.users == 0;
    }
    if (!steps.empty()) {
        counters_.applies++;
        stepsSend(steps); // what failed is in the decisions
        isTreeDue_ = true;
    }
    if (isTreeDue_) {
        treePlan(installed_.rt.rules);
        const bool isDone = treeSend();
        for (const DecisionKey &key : isDone ? std::set<DecisionKey>{} : pending) {
            decisionRefuse(key, "rules of other decisions lead past its own", {});
        }
    }
    return pending;
}

// A refusal may come from what the kernel took along with a link and we have not read yet: read, and try again once.
void KernelPlane::decisionsInstall() {
    std::set<DecisionKey> pending = decisionsSend();
    const auto isRefused = [this](const DecisionKey &key) {
        const Decision *pDecision = model_.decisions().get(key);
        return !pDecision->error.empty() && !pDecision->waits;
    };
    RtImage image;
    if (std::any_of(pending.begin(), pending.end(), isRefused) && rtRead(sockets_->rt, &image).empty()) {
        for (const DecisionKey &key : pending) {
            if (isRefused(key)) {
                model_.decisions().get(key)->error.clear();
            }
        }
        installed_.rt = image;
        isTreeDue_ = true;
        model_.decisions().nextHopsAvoid(installed_.rt.foreignNextHops);
        decisionsMark();
        pending.merge(decisionsSend());
    }
    bool isLeft = false;
    for (const DecisionKey &key : pending) {
        Decision *pDecision = model_.decisions().get(key);
        pDecision->isMade = pDecision->isMade || installed_.rt.rules.count(model_.decisions().objectsOf(key).rule) != 0;
        pDecision->installed = pDecision->error.empty() &&
                               holdsAll(installed_.rt, model_.decisions().objectsOf(key));
        if (!pDecision->installed && pDecision->error.empty()) {
            pDecision->error = "the kernel does not hold the route";
        }
        if (!pDecision->error.empty()) {
            counters_.refusals += pDecision->waits ? 0 : 1;
            hostLog(pDecision->waits ? LOG_LEVEL_INFO : LOG_LEVEL_WARNING, MODULE, "decision %u (IPv%u): %s", key.second,
                    key.first, pDecision->error.c_str());
            model_.decisionChanged(key);
        }
        isLeft = isLeft || (pDecision->waits && pDecision->choice != 0);
    }
    if (isLeft) {
        waysLeave(pending);
    }
}

// What packets take while the chosen way cannot be installed, for a link that is down, is not what was chosen before.
void KernelPlane::waysLeave(const std::set<DecisionKey> &pending) {
    std::vector<RtStep> steps;
    for (const DecisionKey &key : pending) {
        const DecisionObjects objects = model_.decisions().objectsOf(key);
        const RtRouteKey place{key.first, objects.rule.table, RT_METRIC};
        const auto held = installed_.rt.routes.find(place);
        if (model_.decisions().get(key)->waits && held != installed_.rt.routes.end() && !holds(objects.routes, place, held->second)) {
            steps.push_back({rtRouteMessage(RtVerb::Del, place, held->second), key, 0,
                             [place](RtImage &image) { image.routes.erase(place); }});
        }
    }
    if (!steps.empty()) {
        (void)stepsDo(steps); // read back like all that the kernel has
    }
}

// ---- nftables half ----

// What the rules counted that are about to be written anew. What cannot be read counts from 0.
std::map<std::string, NftChainCounts> KernelPlane::countsRead(const std::vector<NftChange> &changes) const {
    std::set<std::string> chains;
    bool isAll = false;
    for (const NftChange &change : changes) {
        isAll = isAll || (change.kind == NftChange::Kind::TableDel && installed_.nft.stale);
        if (change.kind == NftChange::Kind::ChainFlush && kernelIsCountingChain(change.name)) {
            chains.insert(change.name);
        }
    }
    std::map<std::string, NftChainCounts> counts;
    if (isAll || chains.size() > COUNTS_ONE_BY_ONE) {
        chains = {""}; // all in one dump
    }
    for (const std::string &chain : chains) {
        const std::string error = nftCountsRead(sockets_->nft, chain, &counts);
        if (!error.empty()) {
            hostLog(LOG_LEVEL_WARNING, MODULE, "%s", error.c_str());
        }
    }
    return counts;
}

// isCounting: rules that are written anew count on from what they had. Result: what failed; empty when the
// transaction was done.
std::vector<NftRefusal> KernelPlane::nftSend(const std::vector<NftChange> &changes, bool isCounting) {
    const auto counts = isCounting ? countsRead(changes) : std::map<std::string, NftChainCounts>{};
    NftBatch batch(sockets_->nft);
    for (const NftChange &change : changes) {
        encode(batch, change, kernelCountBefore(counts, change));
    }
    counters_.applies++;
    const NetlinkBatchResult result = batch.send();
    counters_.kernelMessages += batch.count();
    std::vector<NftRefusal> refusals;
    if (result.ok()) {
        nftImageChange(installed_.nft, changes);
        model_.clean();
        return refusals;
    }
    for (const NetlinkError &error : result.failed) {
        const std::string *pOwner = batch.ownerOf(error.seq);
        refusals.push_back({pOwner == nullptr ? "" : *pOwner, error.text});
    }
    if (refusals.empty()) {
        refusals.push_back({"", "the kernel's answer was lost"});
    }
    return refusals;
}

// Leaves out the nodes whose rules the kernel refused. Result: whether there was one.
bool KernelPlane::nodesRefuse(const std::vector<NftRefusal> &refusals) {
    bool isAny = false;
    for (const auto &[owner, text] : refusals) {
        if (model_.refuse(owner, "the kernel refused the rules: " + text)) {
            isAny = true;
            counters_.refusals++;
            hostLog(LOG_LEVEL_WARNING, MODULE, "%s: %s", owner.c_str(), text.c_str());
        }
    }
    return isAny;
}

std::string KernelPlane::resync() {
    KernelSnapshot snapshot;
    std::string error = snapshotRead(*sockets_, &snapshot);
    if (error.empty() && snapshot.nft.foreign) {
        error = "a table inet policyroute exists that is not ours";
    }
    if (error.empty()) {
        (void)reconcile(&snapshot.nft, &snapshot.rt); // the caller goes on with what it finds
    }
    return error;
}

// A first failure may come from somebody else's change that we have not read yet: read, and try again
// before anything is left out.
std::string KernelPlane::nftApply() {
    std::string error;
    for (int round = 0; round < APPLY_ROUNDS; round++) {
        const std::vector<NftChange> changes = model_.changes(installed_.nft);
        if (changes.empty()) {
            model_.clean();
            return "";
        }
        const std::vector<NftRefusal> refusals = nftSend(changes);
        if (refusals.empty()) {
            return "";
        }
        if (round == 0) {
            error = resync();
            if (!error.empty()) {
                return error;
            }
            decisionsInstall();
        } else if (!nodesRefuse(refusals)) {
            return "the kernel refused the rules: " + refusals.front().second;
        }
    }
    return "the kernel refused the rules again and again";
}

// ---- the whole ----

std::string KernelPlane::apply() {
    const uint64_t begin = nowUs();
    const uint64_t applies = counters_.applies;
    decisionsInstall();
    const std::string error = model_.isDirty() ? nftApply() : "";
    if (counters_.applies != applies) {
        counters_.lastApplyUs = nowUs() - begin;
    }
    for (const auto &[key, decision] : model_.decisions().all()) {
        isCollectDue_ = isCollectDue_ || decision.users == 0;
    }
    return error;
}

bool KernelPlane::hasRefused() const {
    for (const auto &[key, decision] : model_.decisions().all()) {
        if (decision.users > 0 && !decision.error.empty()) {
            return true;
        }
    }
    return false;
}

void KernelPlane::retryRefused() {
    for (auto &[key, decision] : model_.decisions().all()) {
        if (decision.isStandbyRefused) {
            decision.isStandbyRefused = decision.installed = false;
        }
        if (!decision.error.empty()) {
            decision.error.clear();
            decision.waits = false;
            decision.installed = false;
            model_.decisionChanged(key);
        }
    }
}

bool KernelPlane::reconcile(const NftImage *pNft, const RtImage *pRt, const std::set<uint32_t> &linksLost) {
    bool isDrift = false;
    if (pNft != nullptr && !(*pNft == installed_.nft)) {
        installed_.nft = *pNft;
        model_.allDirty();
        isDrift = !(model_.image() == installed_.nft);
    }
    if (pRt != nullptr && !(*pRt == installed_.rt)) {
        // Objects of ours beyond the wanted ones are no drift: they wait to be collected.
        installed_.rt = *pRt;
        model_.decisions().nextHopsAvoid(installed_.rt.foreignNextHops);
        decisionsMark();
        isCollectDue_ = isTreeDue_ = true;
        isDrift = isDrift || !std::all_of(tree_.begin(), tree_.end(), [&](const RtRule &rule) { return pRt->rules.count(rule) != 0; });
        for (const auto &[key, decision] : model_.decisions().all()) {
            const auto isLost = [&](const ProgramPath &path) { return linksLost.count(path.ifIndex) != 0; };
            const bool isByLink = (std::any_of(decision.paths.begin(), decision.paths.end(), isLost) ||
                                   std::any_of(decision.standby.begin(), decision.standby.end(), isLost)) &&
                                  installed_.rt.rules.count(model_.decisions().objectsOf(key).rule) != 0; // rules do not go with a link
            isDrift = isDrift || (decision.users > 0 && !decision.installed && decision.error.empty() && !isByLink);
        }
    }
    if (isDrift) {
        counters_.driftRepaired++;
    }
    return isDrift;
}

std::string KernelPlane::countsClear() {
    std::string error = apply();
    if (error.empty() && model_.isDirty()) {
        error = "the rules are being changed";
    }
    const std::vector<NftChange> changes = error.empty() ? model_.rewriteCounting() : std::vector<NftChange>{};
    if (changes.empty()) {
        return error;
    }
    const std::vector<NftRefusal> refusals = nftSend(changes, false);
    return refusals.empty() ? "" : "the kernel refused the rules: " + refusals.front().second;
}

} // namespace host
