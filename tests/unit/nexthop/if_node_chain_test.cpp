// The links of a list by node: what is done with them is what a walk over all links does.
#include "store/pbr_if_node_chain.h"

#include <random>

#include "nexthop/pbr_if_node_update.h"
#include "store/pbr_if_node_entry.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::Lines;

class IfNodeChain : public steps::StoreTest {
protected:
    static PbrNodeEntry *node(const char *list, uint32_t index, uint32_t acl) {
        PbrNodeEntry *pNode = makeNode(list, index, {.acl = acl, .ipVer = 1});
        makeNextHop(pNode, 1, ("10.0.0." + std::to_string(acl % 5)).c_str());
        makeNextHop(pNode, 2, ("10.0.1." + std::to_string(acl % 3)).c_str());
        return pNode;
    }
    static std::vector<const PbrNodeEntry *> linkedNodes(const PbrNodeEntry *pNode) {
        std::vector<const PbrNodeEntry *> found;
        for (const PbrIfNodeEntry *p = pbrIfNodeChainFirst(pNode); p != nullptr; p = pbrIfNodeChainNext(p)) {
            found.push_back(p->pPbrNode);
        }
        return found;
    }
    static std::string chain(const PbrNodeEntry *pNode) {
        std::string text;
        for (const PbrIfNodeEntry *p = pbrIfNodeChainFirst(pNode); p != nullptr; p = pbrIfNodeChainNext(p)) {
            text += std::to_string(p->ifUnit) + " ";
            EXPECT_EQ(pNode, p->pPbrNode);
        }
        return text;
    }

    // Two lists on three interfaces, with links out of order, twice and of another list; then random reports, failures and
    // updates. Result: every call to the device. The texts make no difference to it.
    Lines wildRun(uint32_t seed, bool traced) {
        std::mt19937 dice(seed);
        gPbrInfo.debugFlags = traced ? PBR_DEBUG_GENERAL : 0;
        makeList("a");
        makeList("b");
        std::vector<PbrNodeEntry *> nodes;
        for (uint32_t n = 1; n <= 8; ++n) {
            nodes.push_back(node(n % 3 == 0 ? "b" : "a", n * 10, 1500 + n));
        }
        EXPECT_EQ(0, bind(1, "a"));
        EXPECT_EQ(0, bind(2, "a"));
        EXPECT_EQ(0, bind(3, "b"));
        nodes.push_back(node("a", 15, 1600)); // in front of others, its links behind theirs
        for (uint32_t unit : {1u, 2u}) {
            PbrIfEntry *pIf = pbrIfEntryGet(unit);
            (void)pbrIfNodeEntryAdd(pIf, nodes.back());
            (void)pbrIfNodeEntryAdd(pIf, nodes[dice() % nodes.size()]);
        }
        (void)takeSteps();
        watchDevice([&dice](uint32_t, uint32_t, uint32_t) { return dice() % 5 == 0 ? -1 : 0; });
        Lines done;
        for (int step = 0; step < 60; ++step) {
            const std::string address = (dice() % 2 == 0 ? "10.0.0." : "10.0.1.") + std::to_string(dice() % 5);
            switch (dice() % 4) {
            case 0: up(address); break;
            case 1: down(address); break;
            case 2: change(address); break;
            default: update();
            }
            const Lines more = takeShortSteps();
            done.insert(done.end(), more.begin(), more.end());
            done.push_back("step " + std::to_string(step) + " queued " + readyLists());
        }
        return done;
    }
};

TEST_F(IfNodeChain, HoldsTheLinksOfTheListsNodesInTheOrderOfAWalkAndLeavesTheFieldsZero) {
    makeList("a");
    makeList("b");
    PbrNodeEntry *pSecond = node("a", 20, 1502);
    PbrNodeEntry *pForeign = node("b", 10, 1503);
    for (uint32_t unit : {1u, 2u}) {
        ASSERT_EQ(0, bind(unit, "a"));
    }
    PbrNodeEntry *pFirst = node("a", 10, 1501);
    (void)pbrIfNodeEntryAdd(pbrIfEntryGet(1), pFirst);
    (void)pbrIfNodeEntryAdd(pbrIfEntryGet(1), pForeign); // as an earlier failure leaves it
    (void)pbrIfNodeEntryAdd(pbrIfEntryGet(1), pSecond);
    const PbrListEntry *pList = pSecond->pPbrList;

    pbrIfNodeChainMake(pList);
    EXPECT_EQ("1 ", chain(pFirst));
    EXPECT_EQ("2 1 1 ", chain(pSecond)); // most recently bound first
    EXPECT_EQ("", chain(pForeign));

    pbrIfNodeChainDrop(pList);
    for (const PbrNodeEntry *pNode : {pFirst, pSecond, pForeign}) {
        EXPECT_TRUE(pNode->auxLink.pNext == nullptr && pNode->auxLink.pPrev == nullptr);
    }
    for (uint32_t unit : {1u, 2u}) {
        const PbrIfEntry *pIf = pbrIfEntryGet(unit);
        for (const PbrIfNodeEntry *p = pbrIfIfNodeFirst(pIf); p != nullptr; p = pbrIfIfNodeNext(pIf, p)) {
            EXPECT_TRUE(p->nodeLink.pNext == nullptr && p->nodeLink.pPrev == nullptr);
        }
    }
}

class IfNodeChainRuns : public IfNodeChain, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(IfNodeChainRuns, ARunDoesTheSameWhetherOrNotItsTextsAreOn) {
    const Lines quiet = wildRun(GetParam(), false);
    TearDown();
    SetUp();
    const Lines traced = wildRun(GetParam(), true);
    EXPECT_EQ(quiet, traced);
    EXPECT_GT(quiet.size(), 80u) << "the device was hardly called";
}

INSTANTIATE_TEST_SUITE_P(Seeds, IfNodeChainRuns, ::testing::Range(1u, 21u));

} // namespace
