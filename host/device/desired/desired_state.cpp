// The redirect view as values: a list's entries replace what was held of it, and the answer names the
// lists for which that made a difference.
//
// Lists that the view visits without entries, and with a visit of all lists those it does not visit, are
// gone from the state. Absent entries are kept: a link without redirect is worth showing.
#include <algorithm>
#include <utility>

#include "host/device/desired/desired_show.h"
#include "host/device/desired/otherwise.h"
#include "host/device/device.h"
#include "host/ifnet/ifnet.h"
#include "host/mgmt/watch_feed.h"

namespace host {

namespace {

using Entries = std::map<std::pair<uint32_t, uint32_t>, RedirectEntry>;

struct Visit {
    std::map<std::string, Entries> lists; // as visited, by name
    Entries *pCurrent = nullptr;          // of the list that is being visited
};

void visitListBegin(void *pContext, const uint8_t *pName, uint32_t nameLen) {
    auto *pVisit = static_cast<Visit *>(pContext);
    const std::string name(reinterpret_cast<const char *>(pName), nameLen);
    pVisit->pCurrent = &pVisit->lists[name];
    pVisit->pCurrent->clear();
}

void visitEntry(void *pContext, const PbrRedirect *pRedirect) {
    auto *pVisit = static_cast<Visit *>(pContext);
    if (pVisit->pCurrent != nullptr) {
        (*pVisit->pCurrent)[{pRedirect->ifUnit, pRedirect->nodeIndex}] = redirectEntryFrom(*pRedirect);
    }
}

// What an entry makes of its packets, in words.
std::string outcomeText(const RedirectEntry &entry) {
    std::string hops;
    for (const IpAddress &address : entry.nextHops) {
        hops += (hops.empty() ? "" : ", ") + ipAddressText(entry.ipVer, address);
    }
    switch (entry.kind) {
    case PBR_REDIRECT_ABSENT: return "not in force";
    case PBR_REDIRECT_OUT_IF: return "out of " + ifnetName(entry.outIfUnit);
    case PBR_REDIRECT_NEXT_HOPS: return (entry.nextHops.size() > 1 ? "next hops " : "next hop ") + hops;
    case PBR_REDIRECT_PRIORITY_ONLY: return "priority " + std::to_string(entry.newIpPri);
    case PBR_REDIRECT_INERT:
        return otherwiseDrops(entry.list, entry.nodeIndex) ? "dropped, nothing usable" : "routed as usual, nothing usable";
    }
    return "";
}

using Outcomes = std::map<uint32_t, std::string>; // node -> what it makes of its packets

// Every link of a node has the same; the last one told stands for all.
Outcomes outcomesOf(const Entries &entries) {
    Outcomes outcomes;
    for (const auto &[key, entry] : entries) {
        outcomes[key.second] = outcomeText(entry);
    }
    return outcomes;
}

// Tells those who watch which nodes of a list decide otherwise than before.
void decisionsTell(const std::string &list, const Entries &before, const Entries &after) {
    const Outcomes old = outcomesOf(before);
    Outcomes all = outcomesOf(after);
    for (const auto &[node, outcome] : old) {
        all.try_emplace(node, "not bound");
    }
    for (const auto &[node, now] : all) {
        const auto was = old.find(node);
        const std::string then = was == old.end() ? "not bound" : was->second;
        if (then != now) {
            watchTell("decision", "list " + list + " node " + std::to_string(node) + ": " + now + " (was: " + then + ")",
                      {{"list", list}, {"node", node}, {"old", then}, {"new", now}});
        }
    }
}

// Puts the visited entries of one list into the state. Result: whether they differ from those held.
bool put(DesiredState &state, const std::string &name, Entries &&entries) {
    const auto held = state.lists.find(name);
    if (held == state.lists.end() ? entries.empty() : held->second == entries) {
        return false;
    }
    if (watchIsOn()) {
        decisionsTell(name, held == state.lists.end() ? Entries{} : held->second, entries);
    }
    if (entries.empty()) {
        state.lists.erase(held);
    } else {
        state.lists[name] = std::move(entries);
    }
    return true;
}

} // namespace

RedirectEntry redirectEntryFrom(const PbrRedirect &redirect) {
    RedirectEntry entry;
    entry.list.assign(reinterpret_cast<const char *>(redirect.pListName), redirect.listNameLen);
    entry.nodeIndex = redirect.nodeIndex;
    entry.ifUnit = redirect.ifUnit;
    entry.aclNum = redirect.aclNum;
    entry.kind = redirect.kind;
    entry.ipVer = redirect.ipVer;
    entry.ecmp = redirect.isEcmp != 0;
    entry.newIpPri = redirect.newIpPri;
    entry.vrfid = redirect.vrfid;
    entry.outIfUnit = redirect.outIfUnit;
    entry.configuredCount = redirect.configuredCount;
    entry.choice = redirect.choice;
    const size_t addressBytes = redirect.ipVer == 2 ? 16 : 4;
    for (uint32_t i = 0; i < redirect.nextHopCount; i++) {
        IpAddress address{};
        std::copy_n(redirect.nextHops[i], addressBytes, address.begin());
        entry.nextHops.push_back(address);
    }
    if (redirect.hasStandby != 0) {
        std::copy_n(redirect.standby, addressBytes, entry.standby.emplace().begin());
    }
    return entry;
}

std::vector<std::string> desiredStateTake(DesiredState &state, bool all) PBR_LOCK_HELD {
    Visit visit;
    const PbrRedirectVisitor visitor = {&visit, visitListBegin, visitEntry};
    const bool visitedAll = pbrRedirectViewTake(all, &visitor);
    if (visitedAll) {
        for (const auto &[name, entries] : state.lists) {
            visit.lists.try_emplace(name); // not visited: no longer there
        }
    }
    std::vector<std::string> changed;
    for (auto &[name, entries] : visit.lists) {
        if (put(state, name, std::move(entries))) {
            changed.push_back(name);
        }
    }
    return changed;
}

} // namespace host
