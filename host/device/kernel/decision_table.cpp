// The decisions that packets are marked with: see decision_table.h. Used by the kernel model and plane.
#include "host/device/kernel/decision_table.h"

#include <algorithm>

namespace host {

namespace {

RtNextHop nextHopOf(uint8_t family, const ProgramPath &path) {
    return {family, path.ifIndex, path.hasGateway, path.gateway};
}

uint32_t groupId(const DecisionKey &key) {
    return (key.first == 6 ? GROUP_ID_BASE_IPV6 : GROUP_ID_BASE_IPV4) + key.second;
}

} // namespace

Decision *DecisionTable::get(const DecisionKey &key) {
    auto it = decisions_.find(key);
    return it == decisions_.end() ? nullptr : &it->second;
}

const Decision *DecisionTable::get(const DecisionKey &key) const {
    auto it = decisions_.find(key);
    return it == decisions_.end() ? nullptr : &it->second;
}

uint32_t DecisionTable::freeId(uint8_t family) {
    const uint32_t limit = kernelMarkLimit(options_);
    for (uint32_t id = 1; id <= limit; id++) {
        const bool isKnown = decisions_.count({family, id}) != 0;
        if (!isKnown && !(taken_ && taken_(family, options_.rulePreference + id - 1, options_.tableBase + id))) {
            return id;
        }
    }
    return 0;
}

uint32_t DecisionTable::nextHopId(const RtNextHop &nextHop) {
    auto it = nextHopIds_.find(nextHop);
    if (it != nextHopIds_.end()) {
        return it->second;
    }
    for (uint32_t id = NEXT_HOP_ID_BASE + 1; id < NEXT_HOP_ID_BASE + NEXT_HOP_ID_COUNT; id++) {
        if (nextHopsById_.count(id) == 0 && !(nextHopTaken_ && nextHopTaken_(id))) {
            nextHopIds_[nextHop] = id;
            nextHopsById_[id] = nextHop;
            return id;
        }
    }
    return 0;
}

uint32_t DecisionTable::acquire(uint8_t family, const std::vector<ProgramPath> &paths, bool drop,
                                std::string *pError) {
    auto known = ids_.find({family, drop, 0, paths});
    if (known != ids_.end()) {
        decisions_[{family, known->second}].users++;
        return known->second;
    }
    const uint32_t id = freeId(family);
    if (id == 0) {
        *pError = "no free packet mark: more than " + std::to_string(kernelMarkLimit(options_)) +
                  " different decisions (host.mark-mask, host.rule-preference)";
        return 0;
    }
    if (!nextHopsGet(family, paths)) {
        *pError = "no free next-hop object id";
        return 0;
    }
    ids_[{family, drop, 0, paths}] = id;
    Decision &decision = decisions_[{family, id}];
    decision.paths = paths;
    decision.drop = drop;
    decision.users = 1;
    return id;
}

DecisionTable::Content DecisionTable::contentOf(uint8_t family, const Decision &decision) {
    return {family, decision.drop, decision.choice, decision.choice == 0 ? decision.paths : std::vector<ProgramPath>{}};
}

bool DecisionTable::nextHopsGet(uint8_t family, const std::vector<ProgramPath> &paths) {
    return std::all_of(paths.begin(), paths.end(), [&](const ProgramPath &path) { return nextHopId(nextHopOf(family, path)) != 0; });
}

void DecisionTable::use(uint8_t family, uint32_t id) { decisions_.at({family, id}).users++; }

uint32_t DecisionTable::choiceFind(uint8_t family, uint64_t choice, bool drop) const {
    const auto known = ids_.find({family, drop, choice, {}});
    return known == ids_.end() ? 0 : known->second;
}

// A decision without users that has these paths, of several rather one with the same standby. Result: 0 none.
uint32_t DecisionTable::unusedId(uint8_t family, const ProgramDecision &wanted) const {
    const Content content{family, wanted.drop, 0, wanted.paths};
    std::set<uint32_t> ids;
    if (const auto known = ids_.find(content); known != ids_.end()) {
        ids.insert(known->second);
    }
    if (const auto adopted = adopted_.find(content); adopted != adopted_.end()) {
        ids.insert(adopted->second.begin(), adopted->second.end());
    }
    uint32_t found = 0;
    for (const uint32_t id : ids) {
        const Decision *pDecision = get({family, id});
        if (pDecision == nullptr || pDecision->users != 0 || contentOf(family, *pDecision) != content) {
            continue;
        }
        if (pDecision->standby == wanted.standby) {
            return id;
        }
        found = found == 0 ? id : found;
    }
    return found;
}

uint32_t DecisionTable::choiceId(uint8_t family, uint64_t choice, const ProgramDecision &wanted) {
    const Content content{family, wanted.drop, choice, {}};
    const uint32_t known = choiceFind(family, choice, wanted.drop);
    if (known != 0 && decisions_.at({family, known}).isMade) {
        return known;
    }
    const uint32_t same = unusedId(family, wanted);
    if (known != 0 && same == 0) {
        return known;
    }
    const uint32_t id = same != 0 ? same : freeId(family);
    if (id == 0) {
        return 0;
    }
    if (const auto byPaths = ids_.find({family, wanted.drop, 0, wanted.paths}); byPaths != ids_.end() && byPaths->second == id) {
        ids_.erase(byPaths);
    }
    if (known != 0) { // of no use to the kernel; its users go to the other one
        Decision &left = decisions_.at({family, known});
        left.choice = 0;
        ids_.try_emplace(contentOf(family, left), known);
    }
    ids_[content] = id;
    Decision &decision = decisions_[{family, id}];
    decision.choice = choice;
    decision.drop = wanted.drop;
    return id;
}

bool DecisionTable::change(const DecisionKey &key, const ProgramDecision &wanted) {
    Decision &decision = decisions_.at(key);
    if (!nextHopsGet(key.first, wanted.paths) || !nextHopsGet(key.first, wanted.standby)) {
        return false;
    }
    if (decision.paths != wanted.paths || decision.standby != wanted.standby) {
        decision.paths = wanted.paths;
        decision.standby = wanted.standby;
        decision.installed = decision.waits = decision.isStandbyRefused = false;
        decision.error.clear();
    }
    return true;
}

void DecisionTable::release(uint8_t family, uint32_t id) {
    Decision *pDecision = get({family, id});
    if (pDecision != nullptr && pDecision->users > 0) {
        pDecision->users--;
    }
}

void DecisionTable::nextHopsAvoid(const std::set<uint32_t> &ids) {
    for (const uint32_t id : ids) {
        auto it = nextHopsById_.find(id);
        if (it == nextHopsById_.end()) {
            continue;
        }
        const RtNextHop nextHop = it->second;
        nextHopIds_.erase(nextHop);
        // The id stays known while the new one is chosen, so that it is not chosen again.
        const uint32_t other = nextHopId(nextHop);
        nextHopsById_.erase(id);
        if (other == 0) {
            nextHopIds_[nextHop] = id; // none is left: the kernel will refuse, and say so
        }
    }
}

void DecisionTable::drop() {
    std::map<RtNextHop, uint32_t> used;
    adopted_.clear(); // what was adopted and is not used goes now
    for (auto it = decisions_.begin(); it != decisions_.end();) {
        if (it->second.users == 0) {
            const auto known = ids_.find(contentOf(it->first.first, it->second));
            if (known != ids_.end() && known->second == it->first.second) {
                ids_.erase(known);
            }
            it = decisions_.erase(it);
            continue;
        }
        for (const auto *pPaths : {&it->second.paths, &it->second.standby}) {
            for (const ProgramPath &path : *pPaths) {
                const RtNextHop nextHop = nextHopOf(it->first.first, path);
                used[nextHop] = nextHopIds_.at(nextHop);
            }
        }
        ++it;
    }
    nextHopIds_ = std::move(used);
    nextHopsById_.clear();
    for (const auto &[nextHop, id] : nextHopIds_) {
        nextHopsById_[id] = nextHop;
    }
}

DecisionObjects DecisionTable::objectsOf(const DecisionKey &key) const {
    DecisionObjects objects;
    const Decision &decision = decisions_.at(key);
    RtGroup group;
    for (const ProgramPath &path : decision.paths) {
        const RtNextHop nextHop = nextHopOf(key.first, path);
        const uint32_t id = nextHopIds_.at(nextHop);
        objects.nextHops[id] = nextHop;
        group.emplace_back(id, path.weight);
    }
    std::sort(group.begin(), group.end());
    const uint32_t table = options_.tableBase + key.second;
    if (!group.empty()) {
        const uint32_t target = group.size() == 1 ? group[0].first : groupId(key);
        if (group.size() > 1) {
            objects.groups[target] = group;
        }
        objects.routes[{key.first, table, RT_METRIC}] = target;
    }
    for (const ProgramPath &path : decision.isStandbyRefused ? std::vector<ProgramPath>{} : decision.standby) {
        const RtNextHop nextHop = nextHopOf(key.first, path);
        const uint32_t id = nextHopIds_.at(nextHop);
        objects.nextHops[id] = nextHop;
        objects.routes[{key.first, table, RT_STANDBY_METRIC}] = id;
    }
    objects.routes[{key.first, table, RT_LAST_METRIC}] = decision.drop ? RT_BLACKHOLE : RT_THROW;
    objects.rule = {key.first, options_.rulePreference + key.second - 1,
                    key.second << kernelMarkShift(options_), options_.markMask, table, 0, RT_RULE_LOOKUP};
    return objects;
}

RtImage DecisionTable::wanted() const {
    RtImage image;
    for (const auto &[key, decision] : decisions_) {
        if (decision.users == 0) {
            continue;
        }
        DecisionObjects objects = objectsOf(key);
        image.nextHops.merge(objects.nextHops);
        image.groups.merge(objects.groups);
        image.routes.merge(objects.routes);
        image.rules.insert(objects.rule);
    }
    return image;
}

bool DecisionTable::pathsOf(const RtImage &image, uint8_t family, uint32_t target,
                            std::vector<ProgramPath> *pPaths) const {
    RtGroup members;
    auto group = image.groups.find(target);
    if (group != image.groups.end()) {
        members = group->second;
    } else {
        members.emplace_back(target, 1);
    }
    for (const auto &[id, weight] : members) {
        auto it = image.nextHops.find(id);
        if (it == image.nextHops.end() || it->second.family != family || nextHopIds_.count(it->second) == 0) {
            return false;
        }
        pPaths->push_back({it->second.ifIndex, it->second.hasGateway, it->second.gateway, weight});
    }
    std::sort(pPaths->begin(), pPaths->end());
    return true;
}

// A rule, its table's route and that route's next hops, all as we would make them today.
bool DecisionTable::adoptOne(const RtImage &image, const RtRule &rule) {
    const uint32_t id = rule.table - options_.tableBase;
    auto route = image.routes.find({rule.family, rule.table, RT_METRIC});
    const auto last = image.routes.find({rule.family, rule.table, RT_LAST_METRIC});
    const bool drop = last != image.routes.end() && last->second == RT_BLACKHOLE;
    std::vector<ProgramPath> paths;
    if (rule.action != RT_RULE_LOOKUP || id == 0 || id > kernelMarkLimit(options_) || route == image.routes.end() || route->second == 0 ||
        !pathsOf(image, rule.family, route->second, &paths)) {
        return false;
    }
    const DecisionKey key{rule.family, id};
    decisions_[key].paths = paths;
    decisions_[key].drop = drop;
    decisions_[key].isMade = true;
    const auto standby = image.routes.find({rule.family, rule.table, RT_STANDBY_METRIC});
    std::vector<ProgramPath> second;
    if (standby != image.routes.end() && pathsOf(image, rule.family, standby->second, &second) && second.size() == 1) {
        decisions_[key].standby = std::move(second);
    }
    const bool isFirst = ids_.try_emplace({rule.family, drop, 0, paths}, id).second;
    adopted_[{rule.family, drop, 0, paths}].insert(id);
    // A set that shrank with a link is still reached by the group's id: not what we would make.
    const DecisionObjects objects = objectsOf(key);
    const bool isSameGroup =
        objects.groups.empty() || image.groups.at(route->second) == objects.groups.begin()->second;
    if (objects.rule == rule && objects.routes.at(route->first) == route->second && isSameGroup) {
        return true;
    }
    decisions_.erase(key);
    adopted_[{rule.family, drop, 0, paths}].erase(id);
    if (isFirst) {
        ids_.erase({rule.family, drop, 0, paths});
    }
    return false;
}

void DecisionTable::adopt(const RtImage &image) {
    for (const auto &[id, nextHop] : image.nextHops) {
        const bool isInRange = id > NEXT_HOP_ID_BASE && id < NEXT_HOP_ID_BASE + NEXT_HOP_ID_COUNT;
        if (isInRange && nextHopIds_.emplace(nextHop, id).second) {
            nextHopsById_[id] = nextHop;
        }
    }
    for (const RtRule &rule : image.rules) {
        (void)adoptOne(image, rule); // what is not adopted is removed when the policy is settled
    }
}

} // namespace host
