// Steps of the tests of choice, update, device entries and binding: what is done to the store, what the
// device is told while it happens, and what the redirect view answers.
//
// A test fixture starts the daemon on the fake, holds the mutex as every caller of these functions does,
// and after each step checks the store and that the view's answers taken by marks are complete.
// Next hops are named by letters in the expectations: the address ending in 1 is A, in 2 is B, ...
#ifndef TESTS_UNIT_HW_STEPS_H
#define TESTS_UNIT_HW_STEPS_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/pbr_info.h"
#include "hw/pbr_if_bind.h"
#include "hw/pbr_redirect_view.h"
#include "nexthop/pbr_if_node_update.h"
#include "nexthop/pbr_nexthop_state.h"
#include "store/pbr_if_entry.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_records.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace steps {

using Lines = std::vector<std::string>;
using Address = std::array<uint8_t, 16>;

// ---- words of the trace ----

inline std::string quoted(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        default: out += c;
        }
    }
    return out + "\"";
}

// A debug text of a module, as the trace shows it; logs likewise.
inline std::string debugText(uint32_t logId, const std::string &text) {
    char head[40];
    snprintf(head, sizeof(head), "debug 0x%08X 7 0 ", logId);
    return head + quoted(text);
}
inline std::string logText(uint32_t logId, uint32_t priority, uint32_t flags, const std::string &text) {
    char head[60];
    snprintf(head, sizeof(head), "log 0x%08X p%u f%u ", logId, priority, flags);
    return head + quoted(text);
}
inline std::string hwText(const std::string &text) { return debugText(0x044B0003, text); }
inline std::string eventText(const std::string &text) { return debugText(0x044B0002, text); }
inline std::string generalText(const std::string &text) { return debugText(0x044B0000, text); }

// What differs from one run or machine to the next: a printed pointer.
inline std::string pointerText(const void *p) {
    char text[32];
    snprintf(text, sizeof(text), "%p", p);
    return text;
}

// ---- addresses and names ----

inline uint32_t familyOf(const std::string &address) {
    return address.find(':') == std::string::npos ? 1 : 2;
}
inline Address addressOf(const std::string &address) {
    Address out = {};
    EXPECT_EQ(1, inet_pton(familyOf(address) == 1 ? AF_INET : AF_INET6, address.c_str(), out.data()));
    return out;
}
inline char letterOf(const uint8_t *pAddress, uint32_t ipVer) {
    return static_cast<char>('A' - 1 + pAddress[ipVer == 2 ? 15 : 3]);
}

// ---- the redirect view as text ----

inline std::string viewText(const PbrRedirect &r) {
    std::string out;
    switch (r.kind) {
    case PBR_REDIRECT_ABSENT: return "absent";
    case PBR_REDIRECT_INERT: return "inert";
    case PBR_REDIRECT_PRIORITY_ONLY: return "priority " + std::to_string(r.newIpPri);
    case PBR_REDIRECT_OUT_IF: return "out " + std::to_string(r.outIfUnit);
    case PBR_REDIRECT_NEXT_HOPS:
        for (uint32_t i = 0; i < r.nextHopCount; i++) {
            out += letterOf(r.nextHops[i], r.ipVer);
        }
        return out;
    }
    return "?";
}

inline std::string view(uint32_t ifUnit, uint32_t aclNum) {
    PbrRedirect redirect;
    return pbrRedirectViewGet(ifUnit, aclNum, &redirect) ? viewText(redirect) : "none";
}

// Keeps the answers as a forwarding plane would, by marks only.
class ViewMirror {
public:
    // Takes what is marked (or all); lists without entries are not kept.
    void take(bool all) {
        const PbrRedirectVisitor visitor = {this, listBegin, entry};
        if (all) {
            lists_.clear();
        }
        const bool isAll = pbrRedirectViewChanged() == 2;
        if (isAll) {
            lists_.clear();
        }
        EXPECT_EQ(all || isAll, pbrRedirectViewTake(all, &visitor));
        EXPECT_EQ(0u, pbrRedirectViewChanged());
        std::erase_if(lists_, [](const auto &item) { return item.second.empty(); });
    }
    using Entries = std::map<std::pair<uint32_t, uint32_t>, std::string>; // (unit, node) -> answer
    const std::map<std::string, Entries> &lists() const { return lists_; }

private:
    static void listBegin(void *pContext, const uint8_t *pName, uint32_t nameLen) {
        auto *pSelf = static_cast<ViewMirror *>(pContext);
        pSelf->name_.assign(reinterpret_cast<const char *>(pName), nameLen);
        pSelf->lists_[pSelf->name_].clear();
    }
    static void entry(void *pContext, const PbrRedirect *pRedirect) {
        auto *pSelf = static_cast<ViewMirror *>(pContext);
        EXPECT_EQ(pSelf->name_, std::string(reinterpret_cast<const char *>(pRedirect->pListName),
                                            pRedirect->listNameLen));
        pSelf->lists_[pSelf->name_][{pRedirect->ifUnit, pRedirect->nodeIndex}] = viewText(*pRedirect);
    }
    std::string name_;
    std::map<std::string, Entries> lists_;
};

// ---- the store at the moment of a device call ----

inline PbrNodeEntry *nodeOfAcl(uint32_t aclNum) {
    for (PbrListEntry *pList = pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable)); pList != nullptr;
         pList = pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pList->usedLink))) {
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
             pNode = pbrListNodeNext(pList, pNode)) {
            if (pNode->aclNum == aclNum) {
                return pNode;
            }
        }
    }
    return nullptr;
}

// The letter of a next hop found by its address in memory, "-" for none, "?" for one that does not exist.
inline std::string hopName(const PbrNextHopEntry *pWanted) {
    if (pWanted == nullptr) {
        return "-";
    }
    for (PbrListEntry *pList = pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable)); pList != nullptr;
         pList = pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pList->usedLink))) {
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
             pNode = pbrListNodeNext(pList, pNode)) {
            for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
                 pHop = pbrNodeNextHopNext(pNode, pHop)) {
                if (pHop == pWanted) {
                    return std::string(1, letterOf(pHop->nextHop, pNode->policyRouteIpVer));
                }
            }
        }
    }
    return "?";
}

// "best=A cur=10 last=01 hw=11": the node's choice and the marks of its next hops in list order.
inline std::string marks(const PbrNodeEntry *pNode) {
    std::string cur, last, hw;
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        cur += std::to_string(pHop->curSelected);
        last += std::to_string(pHop->lastSelected);
        hw += std::to_string(pHop->nexthopHwState);
    }
    return "best=" + hopName(pNode->pPbrNhopBest) + " cur=" + cur + " last=" + last + " hw=" + hw;
}

// ---- the fixture ----

class StoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        (void)pbrLock();
        watchDevice([](uint32_t, uint32_t, uint32_t) { return 0; });
        (void)fake::takeTrace();
    }
    void TearDown() override {
        checked();
        (void)pbrUnlock();
    }

    // Answers aclIfSetApi(unit, command, acl) and keeps "ADD if1 n10 best=... view=..." for each call.
    void watchDevice(std::function<int32_t(uint32_t, uint32_t, uint32_t)> answer) {
        fake::answerWith("aclIfSetApi", [this, answer](const std::string &line) -> int64_t {
            uint32_t unit = 0, command = 0, recordUnit = 0, acl = 0;
            EXPECT_EQ(4, sscanf(line.c_str(), "aclIfSetApi(%u, %u, if=%u acl=%u", &unit, &command,
                                &recordUnit, &acl)) << line;
            EXPECT_EQ(unit, recordUnit);
            const PbrNodeEntry *pNode = nodeOfAcl(acl);
            steps_.push_back(std::string(command == 20 ? "ADD" : "DEL") + " if" + std::to_string(unit) + " n" +
                             std::to_string(pNode->nodeIndex) + " " + marks(pNode) + " view=" + view(unit, acl));
            return answer(unit, command, acl);
        });
    }
    Lines takeSteps() { return std::exchange(steps_, {}); }

    // Only what was called on which interface and node: "DEL if1 n10".
    Lines takeShortSteps() {
        Lines out;
        for (const std::string &step : takeSteps()) {
            out.push_back(step.substr(0, step.find(" best=")));
        }
        return out;
    }

    // The store is sound, and marks alone keep a forwarding plane complete.
    void checked() {
        checkStore();
        mirror_.take(false);
        ViewMirror whole;
        whole.take(true);
        EXPECT_EQ(whole.lists(), mirror_.lists());
    }

    void up(const std::string &address, uint32_t vrf = 0) {
        pbrNextHopStateUp(familyOf(address), vrf, addressOf(address).data());
        checked();
    }
    void down(const std::string &address, uint32_t vrf = 0) {
        pbrNextHopStateDown(familyOf(address), vrf, addressOf(address).data());
        checked();
    }
    void change(const std::string &address, uint32_t vrf = 0) {
        pbrNextHopStateChange(familyOf(address), vrf, addressOf(address).data());
        checked();
    }
    void update() {
        EXPECT_EQ(0, pbrIfNodeUpdate());
        checked();
    }
    int32_t bind(uint32_t ifUnit, const std::string &list) {
        PbrIfEntry *pIf = pbrIfEntryGet(ifUnit);
        if (pIf == nullptr) {
            pIf = makeIf(ifUnit);
        }
        memcpy(pIf->pbrName, list.data(), list.size());
        pIf->pbrNameLen = static_cast<uint16_t>(list.size());
        int32_t result = pbrIfEntryBind(pIf);
        checked();
        return result;
    }
    uint32_t unbind(uint32_t ifUnit) {
        PbrIfEntry *pIf = pbrIfEntryGet(ifUnit);
        uint32_t result = pbrIfEntryUnBind(pIf);
        pIf->pbrNameLen = 0;
        checked();
        return result;
    }

    static std::string readyLists() {
        std::string names;
        for (PbrListEntry *pList = pbrListFromReadyLink(listFirst(&gPbrInfo.readyTable)); pList != nullptr;
             pList = pbrListFromReadyLink(listNext(&gPbrInfo.readyTable, &pList->readyLink))) {
            names += names.empty() ? "" : ",";
            names += nameOf(pList);
        }
        return names;
    }
    static PbrIfNodeEntry *link(uint32_t ifUnit, const PbrNodeEntry *pNode) {
        PbrIfEntry *pIf = pbrIfEntryGet(ifUnit);
        for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
             pLink = pbrIfIfNodeNext(pIf, pLink)) {
            if (pLink->pPbrNode == pNode) {
                return pLink;
            }
        }
        return nullptr;
    }
    static uint32_t hwStatus(uint32_t ifUnit, const PbrNodeEntry *pNode) {
        const PbrIfNodeEntry *pLink = link(ifUnit, pNode);
        return pLink == nullptr ? 99 : pbrIfNodeHwStatusGet(pLink);
    }

    ViewMirror mirror_;

private:
    Lines steps_;
};

} // namespace steps

#endif
