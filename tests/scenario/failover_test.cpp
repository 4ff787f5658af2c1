// Fail-over and bindings, from commands and messages to the device.
#include "tests/scenario/world.h"

namespace {

constexpr char BOTH[] = "act=0 pri=0 vrf=0 hops=0a000001,0a000002";

class Failover : public World {
protected:
    // List "wan": node 10, ACL 1501, next hops A and B.
    void SetUp() override {
        World::SetUp();
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        peer(A, false);
        peer(B, false);
        (void)fake::takeTrace();
    }
    // The device calls since the last look, short: "ADD 1", "DEL 2".
    static steps::Lines deviceCalls() {
        steps::Lines out;
        for (const std::string &line : fake::takeCalls()) {
            uint32_t unit = 0, command = 0;
            if (sscanf(line.c_str(), "aclIfSetApi(%u, %u", &unit, &command) == 2) {
                out.push_back((command == 20 ? "ADD " : "DEL ") + std::to_string(unit));
            }
        }
        return out;
    }
};

TEST_F(Failover, TrafficMovesFromAToBAndBackOnOneInterface) {
    peer(A, true);
    peer(B, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ("A", view(1, "wan", 10)); // the report that follows the registration
    EXPECT_TRUE(calls().empty());
    second();
    EXPECT_EQ((Plane{{{1, 1501}, BOTH}}), calls());
    EXPECT_EQ(steps::Lines{"ADD 1"}, deviceCalls());

    peer(A, false);
    EXPECT_EQ("B", view(1, "wan", 10)); // before the next period
    second();
    EXPECT_EQ((steps::Lines{"DEL 1", "ADD 1"}), deviceCalls());

    peer(A, true);
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    EXPECT_EQ((steps::Lines{"DEL 1", "ADD 1"}), deviceCalls());

    peer(A, false);
    peer(B, false);
    EXPECT_EQ("inert", view(1, "wan", 10));
    second();
    EXPECT_TRUE(calls().empty());
    second();
    EXPECT_EQ(steps::Lines{"DEL 1"}, deviceCalls());
    EXPECT_EQ(gPbrInfo.hwAclAddCnt, 3u);
    EXPECT_EQ(gPbrInfo.hwAclDelCnt, 3u);
    EXPECT_EQ(gPbrInfo.hwAclAddErr + gPbrInfo.hwAclDelErr, 0u);
}

TEST_F(Failover, OneListOnTwoInterfacesMovesBoth) {
    peer(A, true);
    peer(B, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    second();
    ASSERT_EQ(PBR_OK, bind(2, "wan")); // written inside the command: A is known to be up
    EXPECT_EQ((Plane{{{1, 1501}, BOTH}, {{2, 1501}, BOTH}}), calls());
    (void)deviceCalls();

    for (int round = 0; round < 3; round++) {
        peer(A, false);
        EXPECT_EQ("B", view(1, "wan", 10));
        EXPECT_EQ("B", view(2, "wan", 10));
        second();
        EXPECT_EQ((steps::Lines{"DEL 2", "ADD 2", "DEL 1", "ADD 1"}), deviceCalls());
        peer(A, true);
        EXPECT_EQ("A", view(1, "wan", 10));
        EXPECT_EQ("A", view(2, "wan", 10));
        second();
        EXPECT_EQ((steps::Lines{"DEL 2", "ADD 2", "DEL 1", "ADD 1"}), deviceCalls());
    }
    EXPECT_EQ((Plane{{{1, 1501}, BOTH}, {{2, 1501}, BOTH}}), calls());
}

TEST_F(Failover, UnbindingOneOfTwoLeavesTheOtherForwarding) {
    peer(A, true);
    peer(B, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    ASSERT_EQ(PBR_OK, bind(2, "wan"));
    second();
    ASSERT_EQ(PBR_OK, unbind(2));
    EXPECT_EQ((Plane{{{1, 1501}, BOTH}}), calls());
    EXPECT_EQ("A", view(1, "wan", 10));
    EXPECT_EQ("", view(2, "wan", 10));
    EXPECT_TRUE(isPeerRegistered(A));
    (void)deviceCalls();

    peer(A, false);
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    EXPECT_EQ((steps::Lines{"DEL 1", "ADD 1"}), deviceCalls());

    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_TRUE(calls().empty());
    EXPECT_FALSE(isPeerRegistered(A));
    EXPECT_FALSE(isPeerRegistered(B));
    EXPECT_TRUE(mirror().lists().empty());
}

TEST_F(Failover, UnbindingOneOfTwoBeforeTheRunLeavesTheCallsBehindAndTheViewRight) {
    peer(A, true);
    peer(B, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    ASSERT_EQ(PBR_OK, bind(2, "wan"));
    second();
    peer(A, false);
    ASSERT_EQ(PBR_OK, unbind(2)); // takes the list out of the ready table
    (void)deviceCalls();
    second();
    EXPECT_TRUE(deviceCalls().empty());
    EXPECT_EQ("B", view(1, "wan", 10));
}

TEST_F(Failover, ARebindAfterThePeerDiedUsesTheSurvivor) {
    peer(A, true);
    peer(B, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    second();
    ASSERT_EQ(PBR_OK, unbind(1));
    peer(A, false); // nobody listens
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    EXPECT_EQ((Plane{{{1, 1501}, BOTH}}), calls());
    EXPECT_EQ(gPbrInfo.hwAclAddCnt, 2u);
}

TEST_F(Failover, RebindingAnotherListMovesTheInterface) {
    haveNode("other", 10, 1502, 1);
    haveHops("other", 10, {C});
    peer(A, true);
    peer(C, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    second();
    ASSERT_EQ(PBR_OK, bind(1, "other"));
    EXPECT_EQ("", view(1, "wan", 10));
    EXPECT_EQ("C", view(1, "other", 10));
    EXPECT_FALSE(isPeerRegistered(A));
    second();
    EXPECT_EQ((Plane{{{1, 1502}, "act=7 pri=0 vrf=0 hops=0a000003"}}), calls());
}

TEST_F(Failover, Ipv6InAVrfMovesLikeIpv4) {
    haveNode("six", 10, 3501, 2, 7);
    haveHops("six", 10, {"2001:db8::1", "2001:db8::2"});
    peer("2001:db8::1", true, 7);
    peer("2001:db8::2", true, 7);
    ASSERT_EQ(PBR_OK, bind(1, "six"));
    second();
    EXPECT_EQ("A", view(1, "six", 10));
    peer("2001:db8::1", false, 7);
    EXPECT_EQ("B", view(1, "six", 10));
    second();
    EXPECT_EQ((Plane{{{1, 3501}, "act=0 pri=0 vrf=7 hops=20010db8,00000000,00000000,00000001,20010db8,00000000,"
                                 "00000000,00000002"}}),
              calls());
}

TEST_F(Failover, AChangedPeerIsRewrittenWhereItIsTheBest) {
    peer(A, true);
    peer(B, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    second();
    (void)deviceCalls();
    peerChanges(B);
    second();
    EXPECT_TRUE(deviceCalls().empty());
    peerChanges(A);
    second();
    EXPECT_EQ((steps::Lines{"DEL 1", "ADD 1"}), deviceCalls());
    EXPECT_EQ("A", view(1, "wan", 10));
}

TEST_F(Failover, EcmpMembersComeAndGoAndTheLastOneIsMissedByTheCallsOnly) {
    haveNode("set", 10, 1502, 1);
    ASSERT_EQ(PBR_OK, nodeSet("set", 10, PBR_NODE_IS_ECMP, 1));
    haveHops("set", 10, {A, B, C});
    ASSERT_EQ(PBR_OK, bind(1, "set"));
    EXPECT_EQ("inert", view(1, "set", 10));
    for (const char *address : {A, B, C}) {
        peer(address, true);
    }
    EXPECT_EQ("ABC", view(1, "set", 10));
    second();
    EXPECT_EQ((Plane{{{1, 1502}, "act=8 pri=0 vrf=0 hops=0a000001,0a000002,0a000003"}}), calls());
    peer(A, false);
    peer(C, false);
    EXPECT_EQ("B", view(1, "set", 10));
    second();
    EXPECT_EQ((Plane{{{1, 1502}, "act=0 pri=0 vrf=0 hops=0a000002"}}), calls());
    peer(B, false);
    EXPECT_EQ("inert", view(1, "set", 10));
    second();
    EXPECT_EQ((Plane{{{1, 1502}, "act=0 pri=0 vrf=0 hops=0a000002"}}), calls()); // stale
}

TEST_F(Failover, NodesBehindAChangingNodeKeepForwardingInTheView) {
    haveNode("wan", 20, 1502);
    ASSERT_EQ(PBR_OK, nodeSet("wan", 20, PBR_NODE_OUT_IF_UNIT, 99));
    haveNode("wan", 30, 1503);
    ASSERT_EQ(PBR_OK, nodeSet("wan", 30, PBR_NODE_IP_PRI, 3));
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ(2u, calls().size());
    peer(A, true);
    second();
    EXPECT_EQ((Plane{{{1, 1501}, BOTH}}), calls()); // the other two are gone from the device of the calls
    EXPECT_EQ("A", view(1, "wan", 10));
    EXPECT_EQ("out 99", view(1, "wan", 20));
    EXPECT_EQ("priority 3", view(1, "wan", 30));
}

TEST_F(Failover, ATimeRangeOpensAndClosesANode) {
    ASSERT_EQ(PBR_OK, nodeSet("wan", 10, PBR_NODE_TIME_RANGE_ID, 7));
    peer(A, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    second();
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ("absent", view(1, "wan", 10));
    range(7, true);
    EXPECT_EQ("A", view(1, "wan", 10));
    second();
    EXPECT_EQ(1u, calls().size());
    range(7, false);
    EXPECT_EQ("absent", view(1, "wan", 10));
    second();
    EXPECT_TRUE(calls().empty());
}

TEST_F(Failover, AnInterfaceWhoseEntryIsRefusedIsRetriedUntilItIsTaken) {
    peer(A, true);
    failingUnits_ = {1};
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    for (int i = 0; i < 3; i++) {
        second();
        EXPECT_TRUE(calls().empty());
    }
    EXPECT_EQ(3u, gPbrInfo.hwAclAddErr);
    failingUnits_.clear();
    second();
    EXPECT_EQ(1u, calls().size());
    (void)deviceCalls();
    second();
    EXPECT_TRUE(deviceCalls().empty());
}

TEST_F(Failover, ReportsThatArriveTogetherAreAllTakenInBeforeTheDeviceIsWritten) {
    peer(A, true);
    peer(B, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    second();
    (void)deviceCalls();
    std::vector<uint8_t> read = fake::hrd(306, A, 0);
    for (uint16_t type : {306, 305}) { // B down, B up
        const std::vector<uint8_t> more = fake::hrd(type, B, 0);
        read.insert(read.end(), more.begin(), more.end());
    }
    fake::deliver(read);
    second();
    EXPECT_EQ((steps::Lines{"DEL 1", "ADD 1"}), deviceCalls());
    EXPECT_EQ("B", view(1, "wan", 10));
}

TEST_F(Failover, ABoundListRefusesChangesAndAnUnboundOneTakesThem) {
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    EXPECT_EQ(PBR_ERR_IN_USE, nodeSet("wan", 10, PBR_NODE_IS_ECMP, 1));
    EXPECT_EQ(PBR_ERR_IN_USE, hopSet("wan", 10, 2, PBR_ROW_DESTROY));
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ(PBR_OK, hopSet("wan", 10, 2, PBR_ROW_DESTROY));
    peer(A, true);
    ASSERT_EQ(PBR_OK, bind(1, "wan"));
    second();
    EXPECT_EQ((Plane{{{1, 1501}, "act=7 pri=0 vrf=0 hops=0a000001"}}), calls());
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ(PBR_OK, listSet("wan", PBR_ROW_DESTROY));
    EXPECT_FALSE(fake::poolExists("pbr_list"));
}

} // namespace
