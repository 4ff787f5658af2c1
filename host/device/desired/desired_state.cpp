// The redirect view as values: a list's entries replace what was held of it, and the answer names the
// lists for which that made a difference.
//
// Lists that the view visits without entries, and with a visit of all lists those it does not visit, are
// gone from the state. Absent entries are kept: a link without redirect is worth showing.
#include <algorithm>
#include <utility>

#include "host/device/device.h"

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

// Puts the visited entries of one list into the state. Result: whether they differ from those held.
bool put(DesiredState &state, const std::string &name, Entries &&entries) {
    const auto held = state.lists.find(name);
    if (held == state.lists.end() ? entries.empty() : held->second == entries) {
        return false;
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
    const size_t addressBytes = redirect.ipVer == 2 ? 16 : 4;
    for (uint32_t i = 0; i < redirect.nextHopCount; i++) {
        IpAddress address{};
        std::copy_n(redirect.nextHops[i], addressBytes, address.begin());
        entry.nextHops.push_back(address);
    }
    return entry;
}

std::vector<std::string> desiredStateTake(DesiredState &state, bool all) {
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
