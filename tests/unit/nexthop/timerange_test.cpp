// Start, stop and end of a node's time range.
#include "nexthop/pbr_timerange.h"

#include "api/pbr_keys.h"
#include "nexthop/pbr_ready_table.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::eventText;
using steps::Lines;

class Timerange : public steps::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        pList_ = makeList("gold");
        pNode_ = makeNode("gold", 10, {.acl = 1501, .ipVer = 1});
        pNode_->timeRangeId = 7;
        (void)makeList("other");
        gPbrInfo.debugFlags = 64;
        (void)fake::takeTrace();
    }
    PbrListEntry *pList_ = nullptr;
    PbrNodeEntry *pNode_ = nullptr;
};

TEST_F(Timerange, TwoStartsInARowLeaveItMatchedAndTheListQueuedOnceAtTheFront) {
    pbrReadyTableAdd(pbrListEntryGet(bytes("other").data(), 5));
    EXPECT_EQ(0u, pbrStartTimerange(pNode_));
    EXPECT_EQ(0u, pbrStartTimerange(pNode_));
    EXPECT_EQ(1u, pNode_->timeRangeMatched);
    EXPECT_EQ("gold,other", readyLists());
    EXPECT_EQ(fake::takeTexts(), (Lines{eventText("pbr gold node 10 timerange 7 start \r\n"),
                                        eventText("pbr gold node 10 timerange 7 start \r\n")}));
}

TEST_F(Timerange, AStopMovesAQueuedListToTheFront) {
    (void)pbrStartTimerange(pNode_);
    pbrReadyTableAdd(pbrListEntryGet(bytes("other").data(), 5));
    EXPECT_EQ("other,gold", readyLists());
    (void)fake::takeTexts();
    EXPECT_EQ(0u, pbrStopTimerange(pNode_));
    EXPECT_EQ(0u, pNode_->timeRangeMatched);
    EXPECT_EQ("gold,other", readyLists());
    EXPECT_EQ(fake::takeTexts(), Lines{eventText("pbr gold node 10 timerange 7 stop \r\n")});
}

TEST_F(Timerange, UnbindLeavesTheIdAndTakesTheMatchAway) {
    pNode_->timeRangeMatched = 1;
    EXPECT_EQ(0u, pbrUnBindTimerange(pNode_));
    EXPECT_EQ(7u, pNode_->timeRangeId);
    EXPECT_EQ(0u, pNode_->timeRangeMatched);
    EXPECT_EQ("gold", readyLists());
    EXPECT_EQ(fake::takeTexts(), Lines{eventText("pbr gold node 10 timerange 7 unbind \r\n")});
}

TEST_F(Timerange, ANullNodeIsPassedOver) {
    EXPECT_EQ(0u, pbrStartTimerange(nullptr));
    EXPECT_EQ(0u, pbrStopTimerange(nullptr));
    EXPECT_EQ(0u, pbrUnBindTimerange(nullptr));
    EXPECT_EQ("", readyLists());
    EXPECT_TRUE(fake::takeTexts().empty());
}

TEST_F(Timerange, NothingIsSaidWhileTheDebugBitIsOff) {
    gPbrInfo.debugFlags = ~64u;
    (void)pbrStartTimerange(pNode_);
    EXPECT_TRUE(fake::takeTexts().empty());
}

TEST_F(Timerange, ANameOfSixteenBytesIsPrintedWhole) {
    (void)makeList("abcdefghijklmnop");
    PbrNodeEntry *pNode = makeNode("abcdefghijklmnop", 4000000000u, {});
    (void)fake::takeTexts();
    (void)pbrStartTimerange(pNode);
    EXPECT_EQ(fake::takeTexts(), Lines{eventText("pbr abcdefghijklmnop node -294967296 timerange -1 start \r\n")});
}

// The deliverers take the mutex themselves.
class TimerangeDelivery : public Timerange {
protected:
    void SetUp() override {
        Timerange::SetUp();
        (void)pbrUnlock();
        memcpy(key_.listName, "gold", 4);
        key_.listNameLen = 4;
        key_.nodeIndex = 10;
        gPbrInfo.debugFlags = 0;
    }
    void TearDown() override {
        (void)pbrLock();
        Timerange::TearDown();
    }
    // The context as the service holds it: at an odd address.
    void *context() {
        memcpy(context_ + 1, &key_, sizeof(key_));
        return context_ + 1;
    }
    PbrNodeKey key_ = {};
    uint8_t context_[sizeof(PbrNodeKey) + 1] = {};
};

TEST_F(TimerangeDelivery, StartStopAndUnbindReachTheNodeOfTheKey) {
    EXPECT_EQ(0u, pbrTimerangeDeliverStart(context()));
    EXPECT_EQ(1u, pNode_->timeRangeMatched);
    EXPECT_EQ("gold", readyLists());
    EXPECT_EQ(0u, pbrTimerangeDeliverStop(context()));
    EXPECT_EQ(0u, pNode_->timeRangeMatched);
    (void)pbrTimerangeDeliverStart(context());
    EXPECT_EQ(0u, pbrTimerangeDeliverUnBind(context()));
    EXPECT_EQ(0u, pNode_->timeRangeMatched);
    EXPECT_EQ(7u, pNode_->timeRangeId);
}

TEST_F(TimerangeDelivery, EachDeliveryTellsTheForwardingPlaneAndGivesTheMutexBack) {
    uint32_t before = fake::syncCount();
    (void)pbrTimerangeDeliverStart(context());
    EXPECT_EQ(before + 1, fake::syncCount());
    EXPECT_FALSE(fake::locked());
}

TEST_F(TimerangeDelivery, ANodeThatIsGoneIsPassedOver) {
    key_.nodeIndex = 11;
    EXPECT_EQ(0u, pbrTimerangeDeliverStart(context()));
    key_.nodeIndex = 10;
    key_.listNameLen = 0xFFFF;
    EXPECT_EQ(0u, pbrTimerangeDeliverStart(context()));
    EXPECT_EQ(0u, pNode_->timeRangeMatched);
    EXPECT_EQ("", readyLists());
    EXPECT_FALSE(fake::locked());
}

} // namespace
