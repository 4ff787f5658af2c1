// The report of the store, byte for byte, and the shell's commands and switches.
#include "core/pbr_show.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/pbr_info.h"
#include "nexthop/pbr_ready_table.h"
#include "platform/sil_process.h"
#include "store/pbr_if_entry.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/golden.h"
#include "tests/support/store_checker.h"

namespace {

std::string pointerText(const void *p) {
    char text[32];
    snprintf(text, sizeof(text), "%p", p);
    return text;
}

class Show : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(4, 20, 6); }
    void TearDown() override { checkStore(); }

    // The report as golden files spell it, the best next hop's pointer as "<best>", a null one as "<none>".
    static std::string report(const PbrNextHopEntry *pBest = nullptr) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, pbrInfoShow());
        fflush(stdout);
        std::string text = testing::internal::GetCapturedStdout();
        EXPECT_FALSE(fake::locked());
        if (pBest != nullptr) {
            replace(text, "--" + pointerText(pBest) + " ", "--<best> ");
        }
        replace(text, "--" + pointerText(nullptr) + " ", "--<none> ");
        return golden::spelled(text);
    }
    static void replace(std::string &text, const std::string &from, const std::string &to) {
        for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
            text.replace(at, from.size(), to);
        }
    }
    static void hwStatusSet(uint32_t ifUnit, const PbrNodeEntry *pNode, uint32_t hwStatus) {
        const PbrIfEntry *pIf = pbrIfEntryGet(ifUnit);
        for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr; pLink = pbrIfIfNodeNext(pIf, pLink)) {
            if (pLink->pPbrNode == pNode) {
                pbrIfNodeHwStatusSet(pLink, hwStatus);
            }
        }
    }
};

TEST_F(Show, AnEmptyStoreShowsTitlesLimitsCountersAndTheProbesColumnsAndNothingElse) {
    EXPECT_EQ(golden::file("show_empty.txt"), report());
}

TEST_F(Show, CountersAreShownInTheirPublishedOrderAndSigned) {
    gPbrInfo.hwAclAddCnt = 1;
    gPbrInfo.hwAclAddErr = 2;
    gPbrInfo.hwAclDelCnt = 3;
    gPbrInfo.hwAclDelErr = 0xFFFFFFFFu;
    gPbrInfo.rcvRtmAclAddCnt = 5;
    gPbrInfo.rcvRtmAclDelCnt = 6;
    EXPECT_EQ(golden::file("show_counters.txt"), report());
}

TEST_F(Show, AListWithThreeNodesShowsThreeAclsOnThreeLines) {
    makeList("a");
    for (uint32_t index : {10u, 20u, 30u}) {
        makeNode("a", index, {.acl = index == 30 ? 0 : 1500 + index / 10});
    }
    EXPECT_EQ(golden::file("show_three_nodes.txt"), report());
}

TEST_F(Show, ANodeWithoutNextHopsOnTwoInterfacesGivesTwoShortRowsEachWithItsHeader) {
    makeList("a");
    makeNode("a", 10, {.acl = 1501, .ipVer = 1, .outIf = 9, .pri = 5});
    fake::nameInterface(7, "lan0");
    bindIf(7, "a");
    bindIf(3, "a"); // shown first: ascending unit
    EXPECT_EQ(golden::file("show_short_rows.txt"), report());
}

TEST_F(Show, NextHopsInEveryStateAreShownUnderTheirOwnHeadersAndNumberedThroughTheTable) {
    const std::string list = "list-of-16-bytes";
    makeList(list);
    makeList("b");
    PbrNodeEntry *pNode = makeNode(list, 10, {.acl = 1501, .ipVer = 1, .timeRangeId = 7, .timeRangeMatched = 1});
    PbrNodeEntry *pPlain = makeNode(list, 20, {.acl = 1502, .ipVer = 1, .outIf = 9, .pri = 4});
    PbrNodeEntry *pIdle = makeNode(list, 30, {.acl = 1503, .ipVer = 1});
    makeNextHop(pIdle, 1, "10.0.0.9");
    PbrNextHopEntry *pBest = makeNextHop(pNode, 1, "10.0.0.1");
    PbrNextHopEntry *pOther = makeNextHop(pNode, 2, "10.0.0.2");
    PbrNextHopEntry *pLast = makeNextHop(pNode, 200, "10.0.0.3");
    fake::nameInterface(7, "lan0");
    fake::nameInterface(3, "a-rather-long-interface-name"); // wider than its column
    bindIf(7, list);
    bindIf(3, list);
    pNode->pPbrNhopBest = pBest;
    pBest->nexthopHwState = pBest->nexthopArpState = pBest->lastSelected = 1;
    pBest->refCntByte = 3 << 4 | 12; // removals in the high half
    pOther->nexthopArpState = pOther->curSelected = 1;
    pOther->refCntByte = 15;
    pLast->nexthopHwState = 1;
    pLast->refCntByte = 15 << 4;
    hwStatusSet(3, pNode, 2);
    hwStatusSet(7, pNode, 1);
    hwStatusSet(3, pPlain, 0);
    pbrReadyTableAdd(usedLists()[0]);
    pbrReadyTableAdd(usedLists()[1]); // to the front

    EXPECT_EQ(golden::file("show_next_hops.txt"), report(pBest));
}

TEST_F(Show, ProbesShowTheAdministratorsLengthInTheTagsPlaceToo) {
    makeIf(3); // shows nothing of itself
    makeNqa("admin", "icmp")->status = 1;
    makeNqa("administrator-name-of-32-bytes-a", "operation-tag-of-32-bytes-abcdef");
    EXPECT_EQ(golden::file("show_probes.txt"), report());
}

TEST_F(Show, AListOnTheReadyTableIsShownWithItsUseCount) {
    makeList("a");
    makeNode("a", 10, {.acl = 1501, .outIf = 9});
    bindIf(7, "a");
    pbrReadyTableAdd(usedLists()[0]);
    const std::string ready = report();
    const std::string row = "\\n\n\\r 1      --a                     --1            \\n\n\\r";
    const size_t table = ready.find("show pbr ready table :");
    EXPECT_NE(ready.find(row, table), std::string::npos) << ready;
    EXPECT_LT(ready.find(row, table), ready.find("show pbr used table :")) << ready;
}

TEST_F(Show, TheResultIsThatOfGivingTheMutexBack) {
    fake::answer("silGiveSem", -3);
    testing::internal::CaptureStdout();
    EXPECT_EQ(-3, pbrInfoShow());
    (void)testing::internal::GetCapturedStdout();
}

TEST_F(Show, TheDebugCommandSetsItsSwitchAndNothingElse) {
    EXPECT_EQ(0u, gPbrDebug);
    EXPECT_EQ(0, pbrdebug());
    EXPECT_EQ(1u, gPbrDebug);
    EXPECT_EQ(0u, gPbrInfo.debugFlags);
}

TEST_F(Show, TheShellHasTwoCommandsAndTwoSwitches) {
    ASSERT_EQ(2u, gProcShellCommandCount);
    EXPECT_STREQ("pbrInfoShow", gProcShellCommands[0].name);
    EXPECT_EQ(pbrInfoShow, gProcShellCommands[0].run);
    EXPECT_STREQ("pbrdebug", gProcShellCommands[1].name);
    EXPECT_EQ(pbrdebug, gProcShellCommands[1].run);
    ASSERT_EQ(2u, gProcShellVariableCount);
    EXPECT_STREQ("pbrselflog", gProcShellVariables[0].name);
    EXPECT_EQ(&gPbrSelfLog, gProcShellVariables[0].pValue);
    EXPECT_STREQ("pbrDebug", gProcShellVariables[1].name);
    EXPECT_EQ(&gPbrDebug, gProcShellVariables[1].pValue);
}

} // namespace
