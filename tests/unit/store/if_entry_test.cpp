// The tree of interface entries, their links, and port bitmaps.
#include "store/pbr_if_entry.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/pbr_info.h"
#include "store/pbr_if_node_entry.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_port_bit.h"
#include "store/pbr_view_mark.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Units = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

class IfEntry : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(); }
    void TearDown() override { checkStore(); }
};

class IfNodeEntry : public IfEntry {};

Units units() {
    Units all;
    for (PbrIfEntry *pIf = pbrIfEntryFirst(); pIf != nullptr; pIf = pbrIfEntryNext(pIf)) {
        all.push_back(pIf->ifUnit);
    }
    return all;
}

TEST_F(IfEntry, ANewEntryHasNoListAndNoLinks) {
    PbrIfEntry *pIf = makeIf(7);

    EXPECT_EQ(pIf->ifUnit, 7u);
    EXPECT_EQ(pIf->status, PBR_IF_CREATE);
    EXPECT_EQ(pIf->pbrNameLen, 0u);
    EXPECT_TRUE(listEmpty(&pIf->ifNodeList));
    EXPECT_EQ(pIf->boundLink.pNext, nullptr);
}

TEST_F(IfEntry, UnitsAreComparedUnsigned) {
    makeIf(7);
    makeIf(3);
    makeIf(0x80000001u);

    EXPECT_EQ(units(), (Units{3, 7, 0x80000001u}));
}

TEST_F(IfEntry, EntriesAreWalkedAscendingWhateverTheOrderOfCreationAndDeletion) {
    Units order = {0, 3, 7, 0x7FFFFFFFu, 0xFFFFFFFFu};
    do {
        startDaemon();
        for (uint32_t unit : order) {
            makeIf(unit);
            checkStore();
        }
        ASSERT_EQ(units(), (Units{0, 3, 7, 0x7FFFFFFFu, 0xFFFFFFFFu}));
        for (uint32_t unit : order) {
            pbrIfEntryDel(pbrIfEntryGet(unit));
            checkStore();
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(IfEntry, TheComparisonAnswersOneMinusOneAndZero) {
    PbrIfEntry a = {};
    PbrIfEntry b = {};
    a.ifUnit = 1;
    b.ifUnit = 0x80000000u;

    EXPECT_EQ(pbrIfEntryCompare(&a, &b), -1);
    EXPECT_EQ(pbrIfEntryCompare(&b, &a), 1);
    EXPECT_EQ(pbrIfEntryCompare(&a, &a), 0);
}

TEST_F(IfEntry, AnEntryIsFoundByItsUnit) {
    PbrIfEntry *pIf = makeIf(7);
    makeIf(8);

    EXPECT_EQ(pbrIfEntryGet(7), pIf);
    EXPECT_EQ(pbrIfEntryGet(9), nullptr);
}

TEST_F(IfEntry, NothingIsFoundInAnEmptyTree) {
    EXPECT_EQ(pbrIfEntryGet(7), nullptr);
    EXPECT_EQ(pbrIfEntryFirst(), nullptr);
}

TEST_F(IfEntry, CreationAndDeletionAreLoggedWithTheInterfacesName) {
    makeList("a");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::nameInterface(7, "lan0");
    fake::takeTrace();

    pbrIfEntryDel(makeIf(7));

    EXPECT_EQ(fake::takeTrace(), (Texts{"debug 0x044B0000 7 0 \"pbrIfEntry Add if(lan0)\\r\\n\"",
                                        "debug 0x044B0000 7 0 \"pbrIfEntry delete\\r\\n\""}));
}

TEST_F(IfEntry, TheNameInALogIsCutAtSixtyThreeCharacters) {
    makeList("a");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::nameInterface(7, std::string(80, 'x'));

    makeIf(7);

    EXPECT_EQ(fake::takeTexts(),
              (Texts{"debug 0x044B0000 7 0 \"pbrIfEntry Add if(" + std::string(63, 'x') + ")\\r\\n\""}));
}

TEST_F(IfEntry, TheInterfacesOfTheLimitFitAndOneMoreIsRefusedWithItsText) {
    startDaemon(0, 0, 2);
    makeIf(1);
    makeIf(2);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::takeTrace();

    EXPECT_EQ(pbrIfEntryAdd(3), nullptr);

    EXPECT_EQ(fake::takeTrace(), (Texts{"debug 0x044B0004 7 0 \"pbr if free table is empty !\\r\\n\""}));
    EXPECT_EQ(units(), (Units{1, 2}));
}

TEST_F(IfEntry, PoolsThatCannotBeMadeAreReported) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::answerNth("silMemPoolInit", 3, -1);

    EXPECT_EQ(pbrIfEntryAdd(7), nullptr);

    EXPECT_EQ(fake::takeTexts(), (Texts{"debug 0x044B0004 7 0 \"pbr malloc malloc error !\\r\\n\""}));
}

TEST_F(IfEntry, AListKeepsThePoolsWhenTheLastEntryGoes) {
    makeList("a");

    pbrIfEntryDel(makeIf(7));

    EXPECT_TRUE(fake::poolExists("pbr_if"));
}

TEST_F(IfEntry, TheLastEntryTakesThePoolsWithItWhenNoListExists) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    PbrIfEntry *pIf = makeIf(7);
    fake::takeTrace();

    pbrIfEntryDel(pIf);

    EXPECT_EQ(fake::takeTexts(), (Texts{"debug 0x044B0000 7 0 \"pbrIfEntry delete\\r\\n\"",
                                        "debug 0x044B0000 7 0 \"pbr free memory success.\\r\\n\""}));
    EXPECT_FALSE(fake::poolExists("pbr_if"));
}

TEST_F(IfEntry, EveryFailureOfTheFirstCreationLeavesNothingBehind) {
    for (uint32_t n = 1;; ++n) {
        startDaemon();
        fake::failNth(n);
        PbrIfEntry *pIf = pbrIfEntryAdd(7);
        if (!fake::faultHit()) {
            EXPECT_EQ(n, 8u) << "six pools and a slot can fail";
            EXPECT_NE(pIf, nullptr);
            return;
        }
        EXPECT_EQ(pIf, nullptr) << fake::faultCall();
        EXPECT_EQ(units(), Units{});
        checkStore();
    }
}

TEST_F(IfNodeEntry, LinksAreWalkedInTheOrderInWhichTheyWereMade) {
    makeList("a");
    PbrIfEntry *pIf = makeIf(7);
    PbrNodeEntry *p20 = makeNode("a", 20);
    PbrNodeEntry *p10 = makeNode("a", 10);
    PbrIfNodeEntry *pFirst = pbrIfNodeEntryAdd(pIf, p20);
    PbrIfNodeEntry *pSecond = pbrIfNodeEntryAdd(pIf, p10);
    PbrIfNodeEntry *pThird = pbrIfNodeEntryAdd(pIf, p20);

    EXPECT_EQ(pbrIfIfNodeFirst(pIf), pFirst);
    EXPECT_EQ(pbrIfIfNodeNext(pIf, pFirst), pSecond);
    EXPECT_EQ(pbrIfIfNodeNext(pIf, pSecond), pThird);
    EXPECT_EQ(pbrIfIfNodeNext(pIf, pThird), nullptr);
}

TEST_F(IfNodeEntry, ANewLinkHasNothingInTheDevice) {
    makeList("a");
    PbrNodeEntry *pNode = makeNode("a", 1);

    PbrIfNodeEntry *pLink = pbrIfNodeEntryAdd(makeIf(7), pNode);

    ASSERT_NE(pLink, nullptr);
    EXPECT_EQ(pLink->pPbrNode, pNode);
    EXPECT_EQ(pLink->ifUnit, 7u);
    EXPECT_EQ(pbrIfNodeHwStatusGet(pLink), PBR_HW_NONE);
    EXPECT_EQ(pLink->emptyAcl, 0u);
    EXPECT_EQ(pLink->aclNoAction, 0u);
    EXPECT_EQ(pLink->nodeLink.pNext, nullptr);
    EXPECT_EQ(pLink->nodeLink.pPrev, nullptr);
}

TEST_F(IfNodeEntry, StatusAndChangeMarkShareAWord) {
    makeList("a");
    PbrIfNodeEntry *pLink = pbrIfNodeEntryAdd(makeIf(7), makeNode("a", 1));

    pbrIfNodeHwStatusSet(pLink, PBR_HW_FAILED);
    pbrIfNodeStateChangeSet(pLink, true);

    EXPECT_EQ(pLink->hwWord, (2u << 29) | (1u << 26));
    pbrIfNodeHwStatusSet(pLink, PBR_HW_NONE);
    EXPECT_TRUE(pbrIfNodeStateChangeGet(pLink));
}

TEST_F(IfNodeEntry, TheLinksOfThePoolFitAndOneMoreIsRefusedWithItsText) {
    startDaemon(0, 2, 1);
    makeList("a");
    PbrNodeEntry *pNode = makeNode("a", 1);
    PbrIfEntry *pIf = makeIf(7);
    pbrIfNodeEntryAdd(pIf, pNode);
    pbrIfNodeEntryAdd(pIf, pNode);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    EXPECT_EQ(pbrIfNodeEntryAdd(pIf, pNode), nullptr);

    EXPECT_EQ(fake::takeTexts(), (Texts{"debug 0x044B0004 7 0 \"pbr if node free table is empty !\\r\\n\""}));
}

TEST_F(IfNodeEntry, DeletingALinkIsLoggedAndKeepsTheOthers) {
    makeList("a");
    PbrIfEntry *pIf = makeIf(7);
    PbrIfNodeEntry *pFirst = pbrIfNodeEntryAdd(pIf, makeNode("a", 1));
    PbrIfNodeEntry *pSecond = pbrIfNodeEntryAdd(pIf, makeNode("a", 2));
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    EXPECT_EQ(pbrIfNodeEntryDel(pFirst), 0);

    EXPECT_EQ(fake::takeTexts(), (Texts{"debug 0x044B0000 7 0 \"pbrIfnode delete\\r\\n\""}));
    EXPECT_EQ(pbrIfIfNodeFirst(pIf), pSecond);
    EXPECT_EQ(pbrIfIfNodeNext(pIf, pSecond), nullptr);
}

TEST_F(IfNodeEntry, AChangeMarksTheNodesListForTheRedirectView) {
    PbrListEntry *pList = makeList("a");
    PbrNodeEntry *pNode = makeNode("a", 1);
    PbrIfEntry *pIf = makeIf(7);
    pList->viewMark = 0;

    PbrIfNodeEntry *pLink = pbrIfNodeEntryAdd(pIf, pNode);
    EXPECT_EQ(pList->viewMark, 1u);
    pList->viewMark = 0;

    pbrIfNodeEntryDel(pLink);
    EXPECT_EQ(pList->viewMark, 1u);
}

TEST(PortBit, BitNineIsTheSecondBitOfTheSecondByte) {
    uint8_t bitmap[4] = {};

    pbrPortBitSet(bitmap, 9);

    EXPECT_EQ(bitmap[0], 0u);
    EXPECT_EQ(bitmap[1], 0x40u);
}

TEST(PortBit, EveryBitIsCountedFromTheMostSignificant) {
    for (uint32_t n = 0; n < 32; ++n) {
        uint8_t set[4] = {};
        uint8_t clear[4] = {0xFF, 0xFF, 0xFF, 0xFF};
        pbrPortBitSet(set, n);
        pbrPortBitClear(clear, n);
        for (uint32_t byte = 0; byte < 4; ++byte) {
            const uint32_t mask = byte == n / 8 ? 0x80u >> (n % 8) : 0;
            EXPECT_EQ(set[byte], mask) << n;
            EXPECT_EQ(clear[byte], 0xFFu & ~mask) << n;
        }
    }
}

TEST(PortBit, SettingAndClearingKeepTheOtherBits) {
    uint8_t bitmap[1] = {0x81};

    pbrPortBitSet(bitmap, 1);
    pbrPortBitClear(bitmap, 0);

    EXPECT_EQ(bitmap[0], 0x41u);
}

} // namespace
