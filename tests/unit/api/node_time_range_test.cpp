// Node field 19, the time range: api/pbr_node_time_range.cpp.
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

const char SYNC_KEY[] = "node(\"web\",10,mask=0,hop=0)";
const char BIND5[] = "timerangeBind(5, \"pbrweb-10\", node(\"web\",10,mask=0,hop=0))";

class NodeTimeRange : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        haveList("web");
        haveNode("web", 10);
        (void)fake::takeTrace();
    }
};

std::string sync19(uint32_t value) { return syncLine(SYNC_KEY, 0x08F04013u, 3, value); }
uint32_t bind(uint32_t id) { return setNumber(pbrNodeSetApi, nodeKey("web", 10), PBR_NODE_TIME_RANGE_ID, id); }
uint32_t unbind() { return bind(PBR_TIME_RANGE_NONE); }
uint32_t bound() { return node("web", 10)->timeRangeId; }

TEST_F(NodeTimeRange, BindingRegistersTheNodeWithItsKey) {
    node("web", 10)->timeRangeMatched = 1;

    EXPECT_EQ(bind(5), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), (Lines{sync19(5), BIND5}));
    EXPECT_EQ(bound(), 5u);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 0u);
}

TEST_F(NodeTimeRange, TheCallbacksFindTheNodeByTheKey) {
    ASSERT_EQ(bind(5), PBR_OK);
    fake::TimerangeBinding binding = fake::timerangeBindings().at(0);
    ASSERT_EQ(binding.context.size(), sizeof(PbrNodeKey));

    EXPECT_EQ(binding.start(binding.context.data()), PBR_OK);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 1u);
    EXPECT_EQ(binding.stop(binding.context.data()), PBR_OK);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 0u);
    EXPECT_EQ(binding.start(binding.context.data()), PBR_OK);
    EXPECT_EQ(binding.unbind(binding.context.data()), PBR_OK);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 0u);
    EXPECT_EQ(bound(), 5u) << "only a set of the field unbinds the id";
}

TEST_F(NodeTimeRange, TheCallbacksPassOverANodeThatHasGone) {
    ASSERT_EQ(bind(5), PBR_OK);
    fake::TimerangeBinding binding = fake::timerangeBindings().at(0);
    ASSERT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 10), PBR_NODE_STATUS, PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(binding.start(binding.context.data()), PBR_OK);
    EXPECT_TRUE(listEmpty(&gPbrInfo.readyTable));
}

TEST_F(NodeTimeRange, BindingTheSameRangeAgainSucceedsWithoutACall) {
    ASSERT_EQ(bind(5), PBR_OK);
    node("web", 10)->timeRangeMatched = 1;
    (void)fake::takeTrace();

    EXPECT_EQ(bind(5), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{sync19(5)});
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 1u) << "left alone";
}

TEST_F(NodeTimeRange, AnotherRangeIsRefusedWhileOneIsBound) {
    ASSERT_EQ(bind(5), PBR_OK);
    (void)fake::takeTrace();

    EXPECT_EQ(bind(6), PBR_FAIL);

    EXPECT_EQ(fake::takeTrace(), Lines{sync19(6)});
    EXPECT_EQ(bound(), 5u);
}

TEST_F(NodeTimeRange, RangeZeroCountsAsBound) {
    EXPECT_EQ(bind(0), PBR_OK);
    EXPECT_EQ(bind(6), PBR_FAIL);
    EXPECT_EQ(bound(), 0u);
}

TEST_F(NodeTimeRange, UnbindingRangeZeroDoesNotTellTheService) {
    ASSERT_EQ(bind(0), PBR_OK);
    (void)fake::takeTrace();

    EXPECT_EQ(unbind(), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{sync19(PBR_TIME_RANGE_NONE)});
    EXPECT_EQ(bound(), PBR_TIME_RANGE_NONE);
}

TEST_F(NodeTimeRange, UnbindingTellsTheServiceAndForgetsTheRange) {
    ASSERT_EQ(bind(5), PBR_OK);
    (void)fake::takeTrace();

    EXPECT_EQ(unbind(), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), (Lines{sync19(PBR_TIME_RANGE_NONE), "timerangeUnbind(5, \"pbrweb-10\", 1)"}));
    EXPECT_EQ(bound(), PBR_TIME_RANGE_NONE);
    EXPECT_TRUE(fake::timerangeBindings().empty());
    EXPECT_EQ(bind(6), PBR_OK);
}

TEST_F(NodeTimeRange, UnbindingANodeWithoutRangeTellsTheServiceToo) {
    EXPECT_EQ(unbind(), PBR_OK);

    EXPECT_EQ(fake::takeTrace(),
              (Lines{sync19(PBR_TIME_RANGE_NONE), "timerangeUnbind(4294967295, \"pbrweb-10\", 1)"}));
}

TEST_F(NodeTimeRange, AFailedUnbindIsPassedOnAndKeepsTheRange) {
    ASSERT_EQ(bind(5), PBR_OK);
    fake::answer("timerangeUnbind", 0x00001234);

    EXPECT_EQ(unbind(), 0x00001234u);

    EXPECT_EQ(bound(), 5u);
}

TEST_F(NodeTimeRange, AFailedBindIsABadArgumentAndKeepsNothing) {
    node("web", 10)->timeRangeMatched = 1;
    fake::answer("timerangeBind", 0x00001234);

    EXPECT_EQ(bind(5), PBR_ERR_BAD_ARGUMENT);

    EXPECT_EQ(bound(), PBR_TIME_RANGE_NONE);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 1u);
}

TEST_F(NodeTimeRange, TheServiceIsCalledUnderTheLock) {
    bool held = false;
    fake::answerWith("timerangeBind", [&](const std::string &) {
        held = fake::locked();
        return 0;
    });

    EXPECT_EQ(bind(5), PBR_OK);

    EXPECT_TRUE(held);
}

TEST_F(NodeTimeRange, TheNameTakesASixteenByteListAndALargeIndex) {
    haveList("0123456789abcdef");
    haveNode("0123456789abcdef", 0xFFFFFFFE);
    (void)fake::takeTrace();

    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("0123456789abcdef", 0xFFFFFFFE), PBR_NODE_TIME_RANGE_ID, 9), PBR_OK);

    EXPECT_EQ(fake::timerangeBindings().at(0).name, "pbr0123456789abcdef--2") << "the index is printed signed";
}

TEST_F(NodeTimeRange, EveryStepIsToldWhileTheDebugFlagIsSet) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    const std::string name = debugLine("pbr\\ttimerange name pbrweb-10.");

    (void)bind(5);
    (void)bind(5);
    (void)bind(6);
    EXPECT_EQ(fake::takeTrace(),
              (Lines{sync19(5), name, debugLine("pbr bind timerange 5."), BIND5,
                     sync19(5), name, debugLine("pbr bind timerange 5."), debugLine("pbr bind same timerange 5 alreaey."),
                     sync19(6), name, debugLine("pbr bind timerange 6."), debugLine("pbr bind timerange 5 alreaey.")}));

    fake::answerNth("timerangeUnbind", 1, -1);
    (void)unbind();
    (void)unbind();
    const std::string sync = sync19(PBR_TIME_RANGE_NONE);
    const std::string call = "timerangeUnbind(5, \"pbrweb-10\", 1)";
    EXPECT_EQ(fake::takeTrace(), (Lines{sync, name, debugLine("pbr unbind timerange 5."), call,
                                        debugLine("pbr unbind timerange ERROR."),
                                        sync, name, debugLine("pbr unbind timerange 5."), call}));

    fake::answer("timerangeBind", -1);
    (void)bind(5);
    EXPECT_EQ(fake::takeTrace(), (Lines{sync19(5), name, debugLine("pbr bind timerange 5."), BIND5,
                                        debugLine("pbr bind timerange ERROR.")}));

    (void)unbind();
    EXPECT_EQ(fake::takeTrace(), (Lines{sync, name, debugLine("pbr unbind timerange -1."),
                                        "timerangeUnbind(4294967295, \"pbrweb-10\", 1)"}));
}

} // namespace
