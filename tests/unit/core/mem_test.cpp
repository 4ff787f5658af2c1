// The six record pools.
#include "core/pbr_mem.h"

#include <gtest/gtest.h>

#include "core/pbr_info.h"
#include "store/pbr_records.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Lines = std::vector<std::string>;

const Lines MAKING = {"silMemPoolInit(\"pbr_if\", 48)",       "silMemPoolInit(\"pbr_list\", 64)",
                      "silMemPoolInit(\"pbr_node\", 128)",    "silMemPoolInit(\"pbr_nexthop\", 512)",
                      "silMemPoolInit(\"pbr_ifnode\", 6144)", "silMemPoolInit(\"pbr_nqa\", 512)"};
const Lines DESTROYING = {"silMemPoolDestroy(\"pbr_if\")",      "silMemPoolDestroy(\"pbr_list\")",
                          "silMemPoolDestroy(\"pbr_node\")",    "silMemPoolDestroy(\"pbr_nexthop\")",
                          "silMemPoolDestroy(\"pbr_ifnode\")", "silMemPoolDestroy(\"pbr_nqa\")"};

class Mem : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(); }
    void TearDown() override { checkStore(); }
};

TEST_F(Mem, ThePoolsAreMadeInOrderWithTheirSizes) {
    EXPECT_EQ(pbrMemAlloc(), 0);

    EXPECT_EQ(fake::takeTrace(), MAKING);
    EXPECT_EQ(fake::poolSlotBytes("pbr_if"), sizeof(PbrIfEntry));
    EXPECT_EQ(fake::poolSlotBytes("pbr_list"), sizeof(PbrListEntry));
    EXPECT_EQ(fake::poolSlotBytes("pbr_node"), sizeof(PbrNodeEntry));
    EXPECT_EQ(fake::poolSlotBytes("pbr_nexthop"), sizeof(PbrNextHopEntry));
    EXPECT_EQ(fake::poolSlotBytes("pbr_ifnode"), sizeof(PbrIfNodeEntry));
    EXPECT_EQ(fake::poolSlotBytes("pbr_nqa"), sizeof(PbrNqaEntry));
}

TEST_F(Mem, ThePoolsAreMadeOnce) {
    ASSERT_EQ(pbrMemAlloc(), 0);
    fake::takeTrace();

    EXPECT_EQ(pbrMemAlloc(), 0);

    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(Mem, MakingAndDestroyingAreTracedWithTheGeneralBit) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    ASSERT_EQ(pbrMemAlloc(), 0);
    pbrMemFree();

    EXPECT_EQ(fake::takeTexts(), (Lines{"debug 0x044B0000 7 0 \"pbr allocate  memory success.\\r\\n\"",
                                        "debug 0x044B0000 7 0 \"pbr free memory success.\\r\\n\""}));
}

TEST_F(Mem, ThePoolsAreDestroyedInOrder) {
    ASSERT_EQ(pbrMemAlloc(), 0);
    fake::takeTrace();

    EXPECT_EQ(pbrMemFree(), 0);

    EXPECT_EQ(fake::takeTrace(), DESTROYING);
    EXPECT_EQ(gPbrInfo.memAllocated, 0u);
}

TEST_F(Mem, AFailureOfTheFirstPoolLeavesNothingToUndo) {
    fake::answerNth("silMemPoolInit", 1, -1);

    EXPECT_EQ(pbrMemAlloc(), -1);

    EXPECT_EQ(fake::takeTrace(), Lines{MAKING[0]});
}

TEST_F(Mem, AFailureOfALaterPoolDestroysAllSix) {
    for (uint32_t n = 2; n <= 6; ++n) {
        startDaemon();
        fake::answerNth("silMemPoolInit", n, -1);

        EXPECT_EQ(pbrMemAlloc(), -1);

        Lines expected(MAKING.begin(), MAKING.begin() + n);
        for (uint32_t pool = 0; pool < 6; ++pool) {
            expected.push_back(pool < n - 1 ? DESTROYING[pool] : "silMemPoolDestroy(none)");
        }
        EXPECT_EQ(fake::takeTrace(), expected) << n;
        EXPECT_EQ(gPbrInfo.memAllocated, 0u);
        checkStore();
        EXPECT_EQ(pbrMemAlloc(), 0) << "the next creation tries again";
    }
}

TEST_F(Mem, APoolOfMoreSlotsThanAWordCanCountFails) {
    startDaemon(0, 0x10000, 0x10000); // 2^32 links

    EXPECT_EQ(pbrMemAlloc(), -1);

    EXPECT_FALSE(fake::poolExists("pbr_if"));
    EXPECT_EQ(gPbrInfo.memAllocated, 0u);

    startDaemon(0, 0x40000000u, 1); // 2^32 next hops; the nodes before them fail already
    EXPECT_EQ(pbrMemAlloc(), -1);
}

TEST_F(Mem, ANegativeLimitFailsTheFirstCreationAndNotStartUp) {
    startDaemon(static_cast<uint32_t>(-1));

    EXPECT_EQ(pbrMemAlloc(), -1);
}

TEST_F(Mem, ProbeRecordsDoNotOutliveThePools) {
    ASSERT_EQ(pbrMemAlloc(), 0);
    makeNqa("ops", "isp");

    pbrMemFree();

    EXPECT_TRUE(listEmpty(&gPbrInfo.nqaTable));
}

} // namespace
