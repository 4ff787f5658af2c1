// What happens at the limits: the four bits of a list's use count, and the pool of links.
#include "tests/scenario/world.h"

namespace {

class Limits : public World {
protected:
    void SetUp() override {
        World::SetUp();
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        haveNode("wan", 20, 1502);
        ASSERT_EQ(PBR_OK, nodeSet("wan", 20, PBR_NODE_OUT_IF_UNIT, 99));
        peer(A, true);
        peer(B, true);
    }
    void bindUnits(uint32_t from, uint32_t to) {
        for (uint32_t unit = from; unit <= to; unit++) {
            ASSERT_EQ(PBR_OK, bind(unit, "wan"));
        }
    }
};

TEST_F(Limits, ASixteenthBindingStopsTheListFromListening) {
    bindUnits(1, 16);
    second();
    for (uint32_t unit = 1; unit <= 16; unit++) {
        EXPECT_EQ("A", view(unit, "wan", 10));
        EXPECT_EQ("out 99", view(unit, "wan", 20));
    }
    peer(A, false); // not taken in: the list counts as unbound
    EXPECT_EQ("A", view(1, "wan", 10));
    ASSERT_EQ(PBR_OK, bind(17, "wan")); // a first binding again: the present state is reported
    EXPECT_EQ("B", view(1, "wan", 10));
    EXPECT_EQ("B", view(17, "wan", 10));
}

TEST_F(Limits, ASixteenTimesBoundListTakesEditsAndTheViewFollowsThem) {
    bindUnits(1, 16);
    second();
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_IS_ECMP, 1));
    EXPECT_EQ("AB", view(16, "wan", 10));
    ASSERT_EQ(PBR_OK, hopSet("wan", 10, 1, PBR_ROW_DESTROY));
    EXPECT_EQ("B", view(3, "wan", 10));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 20, PBR_NODE_OUT_IF_UNIT, 98));
    EXPECT_EQ("out 98", view(1, "wan", 20));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 20, PBR_NODE_ACL_NUM, 0));
    EXPECT_EQ("absent", view(1, "wan", 20));
    ASSERT_EQ(PBR_OK, nodeSet("wan", 20, PBR_NODE_STATUS, PBR_ROW_DESTROY));
    EXPECT_EQ("", view(1, "wan", 20));
    ASSERT_EQ(PBR_OK, listSet("wan", PBR_ROW_DESTROY));
    EXPECT_TRUE(mirror().lists().empty());
    for (uint32_t unit = 1; unit <= 16; unit++) {
        EXPECT_EQ(PBR_OK, unbind(unit));
    }
    EXPECT_FALSE(fake::poolExists("pbr_if"));
}

TEST_F(Limits, UnbindingOneOfSeventeenIsTakenForTheLastAndTheOthersKeepForwarding) {
    bindUnits(1, 17);
    second();
    ASSERT_EQ(PBR_OK, unbind(9));
    EXPECT_FALSE(isPeerRegistered("10.0.0.9"));
    EXPECT_TRUE(isPeerRegistered(A)); // other interfaces carry the list
    EXPECT_EQ("", view(9, "wan", 10));
    for (uint32_t unit : {1u, 8u, 10u, 17u}) {
        EXPECT_EQ("A", view(unit, "wan", 10));
    }
}

TEST_F(Limits, ABindingThatRunsOutOfLinksIsRefusedAndLeavesItsFirstLinks) {
    fake::answerNth("silMemPoolAlloc", 3, 0); // the interface entry, the first link, the second link
    allowed_ = STORE_ALLOW_COUNTS;
    EXPECT_EQ(PBR_ERR_BIND, bind(1, "wan"));
    EXPECT_EQ("A", view(1, "wan", 10)); // detection was started, and every link counts
    EXPECT_EQ("", view(1, "wan", 20));
    EXPECT_EQ(PBR_ERR_IN_USE, nodeSet("wan", 10, PBR_NODE_IS_ECMP, 1)); // the use count stays raised

    ASSERT_EQ(PBR_OK, unbind(1)); // destroying the interface takes the links away
    EXPECT_TRUE(mirror().lists().empty());
}

} // namespace
