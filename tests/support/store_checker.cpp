// The store checker.
#include "tests/support/store_checker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "core/pbr_info.h"
#include "store/pbr_records.h"
#include "tests/fake/fake.h"

namespace {

constexpr size_t RING_LIMIT = 100000;

// The links of a ring behind its head; fails and gives none when it is not closed both ways.
std::vector<PbrLink *> ring(PbrLink *pHead, const std::string &what) {
    std::vector<PbrLink *> links;
    PbrLink *pLink = pHead;
    do {
        if (pLink->pNext == nullptr || pLink->pNext->pPrev != pLink || links.size() > RING_LIMIT) {
            ADD_FAILURE() << what << ": the ring is not closed";
            return {};
        }
        pLink = pLink->pNext;
        if (pLink != pHead) {
            links.push_back(pLink);
        }
    } while (pLink != pHead);
    return links;
}

std::string text(const uint8_t *pName, size_t len) {
    return std::string(reinterpret_cast<const char *>(pName), len);
}

struct Checker {
    std::set<const void *> lists, nodes, hops, ifs, links, nqas;
    std::set<const PbrIfEntry *> chained;
    uint32_t allow;

    bool taken(const void *p, const char *pool) {
        const bool is = fake::poolOf(p) == pool;
        EXPECT_TRUE(is) << "a record that is not a taken slot of " << pool;
        return is;
    }

    void node(PbrListEntry *pList, PbrNodeEntry *pNode) {
        nodes.insert(pNode);
        EXPECT_EQ(pNode->pPbrList, pList) << "owner of a node";
        EXPECT_TRUE(pNode->auxLink.pNext == nullptr && pNode->auxLink.pPrev == nullptr) << "a chain of links was left behind";
        uint32_t lastIndex = 0;
        for (PbrLink *pLink : ring(&pNode->nextHopList, "next hops")) {
            PbrNextHopEntry *pHop = pbrNextHopFromNodeLink(pLink);
            if (!taken(pHop, "pbr_nexthop")) {
                return;
            }
            hops.insert(pHop);
            EXPECT_GE(pHop->nextHopIndex, lastIndex) << "order of next hops";
            lastIndex = pHop->nextHopIndex;
            EXPECT_LE(pHop->nqaAdminNameLen, PBR_NQA_NAME_BYTES);
            EXPECT_LE(pHop->nqaTestNameLen, PBR_NQA_NAME_BYTES);
        }
    }

    void list(PbrListEntry *pList) {
        lists.insert(pList);
        EXPECT_LE(pList->nameLen, PBR_NAME_BYTES);
        uint32_t lastIndex = 0;
        for (PbrLink *pLink : ring(&pList->nodeList, "nodes")) {
            PbrNodeEntry *pNode = pbrNodeFromListLink(pLink);
            if (!taken(pNode, "pbr_node")) {
                return;
            }
            EXPECT_GE(pNode->nodeIndex, lastIndex) << "order of nodes";
            lastIndex = pNode->nodeIndex;
            node(pList, pNode);
        }
        const std::vector<PbrLink *> bound = ring(&pList->auxList, "bound interfaces");
        for (PbrLink *pLink : bound) {
            PbrIfEntry *pIf = pbrIfFromBoundLink(pLink);
            if (!taken(pIf, "pbr_if")) {
                return;
            }
            EXPECT_TRUE(chained.insert(pIf).second) << "an interface in two chains";
            EXPECT_EQ(text(pIf->pbrName, pIf->pbrNameLen), text(pList->name, pList->nameLen)) << "a bound interface names another list";
        }
        if ((allow & STORE_ALLOW_COUNTS) == 0) {
            EXPECT_EQ(pbrListRefCntGet(pList), bound.size() % 16) << "use count";
        }
    }

    void usedTable() {
        std::string last;
        for (PbrLink *pLink : ring(&gPbrInfo.usedTable, "lists")) {
            PbrListEntry *pList = pbrListFromUsedLink(pLink);
            if (!taken(pList, "pbr_list")) {
                return;
            }
            const std::string name = text(pList->name, std::min<size_t>(pList->nameLen, PBR_NAME_BYTES));
            EXPECT_GE(name, last) << "order of lists"; // std::string compares unsigned bytes, shorter first
            last = name;
            list(pList);
        }
        EXPECT_EQ(gPbrInfo.listCount, lists.size());
    }

    void best() {
        for (const void *p : nodes) {
            const PbrNextHopEntry *pBest = static_cast<const PbrNodeEntry *>(p)->pPbrNhopBest;
            if (pBest != nullptr) {
                EXPECT_TRUE(hops.count(pBest) != 0) << "a best next hop that is gone";
            }
        }
    }

    void readyTable() {
        for (PbrLink *pLink : ring(&gPbrInfo.readyTable, "ready table")) {
            EXPECT_TRUE(lists.count(pbrListFromReadyLink(pLink)) != 0) << "a queued list that is gone";
        }
    }

    void ifLinks(PbrIfEntry *pIf) {
        for (PbrLink *pLink : ring(&pIf->ifNodeList, "links of an interface")) {
            PbrIfNodeEntry *pIfNode = pbrIfNodeFromIfLink(pLink);
            if (!taken(pIfNode, "pbr_ifnode")) {
                return;
            }
            links.insert(pIfNode);
            EXPECT_EQ(pIfNode->ifUnit, pIf->ifUnit) << "unit of a link";
            EXPECT_TRUE(nodes.count(pIfNode->pPbrNode) != 0) << "a link to a node that is gone";
        }
    }

    void ifTree() {
        const PbrIfEntry *pLast = nullptr;
        for (void *p = avl_first(&gPbrInfo.ifTree); p != nullptr; p = avl_next(&gPbrInfo.ifTree, p)) {
            PbrIfEntry *pIf = static_cast<PbrIfEntry *>(p);
            if (!taken(pIf, "pbr_if") || !ifs.insert(pIf).second) {
                ADD_FAILURE() << "the interface tree is broken";
                return;
            }
            EXPECT_TRUE(pLast == nullptr || pLast->ifUnit <= pIf->ifUnit) << "order of interfaces";
            pLast = pIf;
            EXPECT_LE(pIf->pbrNameLen, PBR_NAME_BYTES);
            ifLinks(pIf);
        }
        for (const PbrIfEntry *pIf : chained) {
            EXPECT_TRUE(ifs.count(pIf) != 0) << "a bound interface that is not in the tree";
        }
    }

    void nqaTable() {
        const PbrNqaEntry *pLast = nullptr;
        auto key = [](const PbrNqaEntry *p) {
            return std::make_tuple(p->adminNameLen, text(p->adminName, p->adminNameLen), p->testNameLen,
                                   text(p->testName, p->testNameLen));
        };
        for (PbrLink *pLink : ring(&gPbrInfo.nqaTable, "probe tests")) {
            PbrNqaEntry *pNqa = pbrNqaFromNqaLink(pLink);
            if (!taken(pNqa, "pbr_nqa")) {
                return;
            }
            nqas.insert(pNqa);
            EXPECT_TRUE(pLast == nullptr || key(pLast) <= key(pNqa)) << "order of probe tests";
            pLast = pNqa;
        }
    }

    void slots() {
        EXPECT_EQ(fake::slotsTaken("pbr_list"), lists.size());
        EXPECT_EQ(fake::slotsTaken("pbr_node"), nodes.size());
        EXPECT_EQ(fake::slotsTaken("pbr_nexthop"), hops.size());
        EXPECT_EQ(fake::slotsTaken("pbr_if"), ifs.size());
        EXPECT_EQ(fake::slotsTaken("pbr_nqa"), nqas.size());
        if ((allow & STORE_ALLOW_LEAKS) == 0) {
            EXPECT_EQ(fake::slotsTaken("pbr_ifnode"), links.size());
        }
        for (const char *pool : {"pbr_if", "pbr_list", "pbr_node", "pbr_nexthop", "pbr_ifnode", "pbr_nqa"}) {
            EXPECT_EQ(fake::poolExists(pool), gPbrInfo.memAllocated != 0) << pool;
        }
    }
};

} // namespace

void checkStore(uint32_t allow) {
    Checker checker;
    checker.allow = allow;
    checker.usedTable();
    checker.ifTree();
    checker.nqaTable();
    checker.readyTable();
    checker.best();
    checker.slots();
    EXPECT_TRUE(ring(&gPbrInfo.nodeTable, "node table").empty()) << "the node table holds nothing";
}
