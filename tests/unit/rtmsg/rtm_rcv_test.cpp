// Input of route messages: one read a call, the peer reports, and what is passed over.
#include "rtmsg/pbr_rtm_rcv.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/pbr_bytes.h"
#include "core/pbr_info.h"
#include "platform/qrv_rtm.h"
#include "rtmsg/pbr_hrd_msg.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

class RtmRcv : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(); }
    void TearDown() override { checkStore(); }

    // A bound list with one next hop.
    PbrNextHopEntry *boundNextHop(const std::string &list, uint32_t unit, const std::string &address,
                                  uint32_t ipVer, uint32_t vrf) {
        makeList(list);
        PbrNextHopEntry *pHop =
            makeNextHop(makeNode(list, 1, {.acl = 1500 + unit, .ipVer = ipVer, .vrf = vrf}), 1, address);
        bindIf(unit, list);
        fake::takeTrace();
        return pHop;
    }
};

Bytes joined(std::initializer_list<Bytes> messages) {
    Bytes read;
    for (const Bytes &one : messages) {
        read.insert(read.end(), one.begin(), one.end());
    }
    return read;
}

void receive(const Bytes &read) {
    fake::deliver(read);
    pbrRtmRcv(3);
    checkStore();
}

TEST_F(RtmRcv, OneCallReadsOnceAtMostThreeThousandEightHundredAndForty) {
    fake::whenPeerGoesUp("10.0.0.1", 0);
    fake::whenPeerGoesUp("10.0.0.2", 0);

    pbrRtmRcv(3);

    EXPECT_EQ(fake::takeCalls(), Lines{"qrv_recvfrom(3, 3840)"});
    EXPECT_EQ(fake::pendingBytes(), 48u);
}

TEST_F(RtmRcv, AReadThatBringsNothingDoesNothing) {
    PbrNextHopEntry *pHop = boundNextHop("a", 7, "10.0.0.1", 1, 0);
    fake::whenPeerGoesUp("10.0.0.1", 0);
    for (int64_t got : {0, -1}) {
        fake::answer("qrv_recvfrom", got);
        pbrRtmRcv(3);
        EXPECT_EQ(pHop->nexthopArpState, 0u) << got;
    }
}

TEST_F(RtmRcv, PeerReportsReachTheNextHopsTheyConcern) {
    PbrNextHopEntry *pHop = boundNextHop("a", 7, "10.0.0.1", 1, 3);

    receive(fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 4));
    EXPECT_EQ(pHop->nexthopArpState, 0u);
    receive(fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 3));
    EXPECT_EQ(pHop->nexthopArpState, 1u);
    receive(fake::hrd(QRV_RTM_HRD_DOWN, "10.0.0.1", 3));
    EXPECT_EQ(pHop->nexthopArpState, 0u);
}

TEST_F(RtmRcv, AChangeReportMarksTheNodeThatUsesThePeer) {
    PbrNextHopEntry *pHop = boundNextHop("a", 7, "10.0.0.1", 1, 0);
    receive(fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 0));
    PbrNodeEntry *pNode = pbrListNodeFirst(usedLists().front());

    receive(fake::hrd(QRV_RTM_HRD_CHANGE, "10.0.0.1", 0));

    EXPECT_TRUE(pbrNodeStateChangeGet(pNode));
    EXPECT_EQ(pHop->nexthopArpState, 1u);
}

TEST_F(RtmRcv, IPv6ReportsAreTakenWithSixteenBytes) {
    PbrNextHopEntry *pHop = boundNextHop("a", 7, "2001:db8::1", 2, 0);

    receive(fake::hrd(QRV_RTM_HRD_UP, "2001:db8::2", 0));
    EXPECT_EQ(pHop->nexthopArpState, 0u);
    receive(fake::hrd(QRV_RTM_HRD_UP, "2001:db8::1", 0));
    EXPECT_EQ(pHop->nexthopArpState, 1u);
}

TEST_F(RtmRcv, EveryReportOfAReadIsHandledInOrder) {
    PbrNextHopEntry *pA = boundNextHop("a", 7, "10.0.0.1", 1, 0);
    PbrNextHopEntry *pB = boundNextHop("b", 8, "2001:db8::1", 2, 0);

    receive(joined({fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 0), fake::hrd(QRV_RTM_HRD_UP, "2001:db8::1", 0),
                    fake::hrd(QRV_RTM_HRD_DOWN, "10.0.0.1", 0)}));

    EXPECT_EQ(pA->nexthopArpState, 0u);
    EXPECT_EQ(pB->nexthopArpState, 1u);
    EXPECT_EQ(readyLists(), (std::vector<PbrListEntry *>{usedLists()[0], usedLists()[1]}));
}

TEST_F(RtmRcv, ReceivedReportsAreTraced) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    receive(fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 3));

    EXPECT_EQ(fake::takeTexts(),
              (Lines{"debug 0x044B0002 7 0 \"pbr receive QRV_RTM_HRD_XXX,nlmsg_type=305,family=1,vrId=3.\\r\\n\"",
                     "debug 0x044B0002 7 0 \"pbrNextHopStateUp ipAddr=10.0.0.1,vpnVrfid=3.\\r\\n\""}));
}

TEST_F(RtmRcv, ReceivedReportsAreRecordedWhileTheSelfLogIsOn) {
    gPbrSelfLog = 1;

    receive(fake::hrd(QRV_RTM_HRD_DOWN, "10.0.0.1", 3));
    receive(fake::hrd(QRV_RTM_HRD_CHANGE, "2001:db8::1", 0));

    EXPECT_EQ(fake::takeTexts(),
              (Lines{"log 0x044B0002 p6 f284 \"pbr receive hrd msg.(type=[306], family=[1], vrId=[3], ip=[10.0.0.1])\\r\\n\"",
                     "log 0x044B0002 p6 f284 \"pbr receive hrd msg.(type=[307], family=[2], vrId=[0], ip=[2001:db8::1])\\r\\n\""}));
}

TEST_F(RtmRcv, AFamilyOtherThanOneIsTakenAsIPv6) {
    gPbrSelfLog = 1;
    Bytes report = fake::hrd(QRV_RTM_HRD_UP, "2001:db8::1", 0);
    report[24 + 16] = 77;

    receive(report);

    EXPECT_EQ(fake::takeTexts(),
              (Lines{"log 0x044B0002 p6 f284 \"pbr receive hrd msg.(type=[305], family=[77], vrId=[0], ip=[2001:db8::1])\\r\\n\""}));
}

TEST_F(RtmRcv, AnIPv4ReportKeepsTheTailOfAnEarlierIPv6AddressOfTheSameRead) {
    PbrRtmRead read = {};
    const Bytes ipv6 = fake::hrd(QRV_RTM_HRD_UP, "2001:db8:1:2:3:4:5:6", 0);
    const Bytes ipv4 = fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 0);
    Bytes expected = addressBytes("2001:db8:1:2:3:4:5:6");
    const Bytes head = addressBytes("10.0.0.1");
    std::copy(head.begin(), head.begin() + 4, expected.begin());

    EXPECT_TRUE(pbrHrdMsgRcv(&read, ipv6.data(), 0));
    EXPECT_TRUE(pbrHrdMsgRcv(&read, ipv4.data(), 0));

    EXPECT_EQ(Bytes(read.hrdAddress, read.hrdAddress + 16), expected);
}

TEST_F(RtmRcv, AReportWithoutPayloadReadsZerosAndHarmsNothing) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    PbrNextHopEntry *pHop = boundNextHop("a", 7, "10.0.0.1", 1, 0);

    receive(fake::message(QRV_RTM_HRD_UP, nullptr, 0));

    EXPECT_EQ(pHop->nexthopArpState, 0u);
    EXPECT_EQ(fake::takeTexts().front(),
              "debug 0x044B0002 7 0 \"pbr receive QRV_RTM_HRD_XXX,nlmsg_type=305,family=0,vrId=0.\\r\\n\"");
}

TEST_F(RtmRcv, AReportAtTheVeryEndOfAFullReadIsHandled) {
    PbrNextHopEntry *pHop = boundNextHop("a", 7, "10.0.0.1", 1, 0);
    const Bytes filler(3840 - 48 - 24, 0);
    Bytes read = joined({fake::message(350, filler.data(), 3840 - 48 - 24), fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 0)});
    ASSERT_EQ(read.size(), 3840u);

    receive(read);

    EXPECT_EQ(pHop->nexthopArpState, 1u);
}

TEST_F(RtmRcv, ARequestForAProbesStateFromOutsideIsSkipped) {
    gPbrInfo.debugFlags = 0xFFFFFFFFu;
    const NqaStatusMsg request = {};

    receive(fake::message(QRV_RTM_NQA_STATEREQ, &request, sizeof(request)));

    EXPECT_EQ(fake::takeTexts(), Lines{});
}

TEST_F(RtmRcv, UnknownTypesAreSkippedSilentlyAndTheNextMessageIsHandled) {
    PbrNextHopEntry *pHop = boundNextHop("a", 7, "10.0.0.1", 1, 0);
    for (uint16_t type : {0, 1, 33, 304, 308, 0xFFFF}) {
        receive(joined({fake::message(type, nullptr, 0), fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 0)}));
        EXPECT_EQ(pHop->nexthopArpState, 1u) << type;
        receive(fake::hrd(QRV_RTM_HRD_DOWN, "10.0.0.1", 0));
    }
}

TEST_F(RtmRcv, ASlotMessageOfAnotherSystemChangesNothing) {
    boundNextHop("a", 7, "10.0.0.1", 1, 0);
    receive(fake::hrd(QRV_RTM_HRD_UP, "10.0.0.1", 0));
    fake::takeTrace();

    receive(fake::message(QRV_RTM_SLOT_UP, nullptr, 0)); // its length word, read as the system, is 24; ours is 1

    for (const std::string &line : fake::takeCalls()) {
        EXPECT_EQ(line.find("aclIfSetApi"), std::string::npos) << line;
    }
}

TEST_F(RtmRcv, NoReadOfArbitraryBytesHarmsTheStore) {
    boundNextHop("a", 7, "10.0.0.1", 1, 0);
    uint32_t seed = 12345;
    auto next = [&seed] { return static_cast<uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24); };
    const uint16_t types[] = {32, 34, 97, 108, 248, 250, 251, 305, 306, 307, 324, 349, 350};
    for (int round = 0; round < 300; ++round) {
        Bytes read(next() * 16);
        for (uint8_t &byte : read) {
            byte = next();
        }
        for (size_t at = 0; at + 24 <= read.size(); at += 24 + 4 * (next() % 20)) {
            const uint32_t length = next() % 4 == 0 ? next() : 24 + 4 * (next() % 20);
            memcpy(read.data() + at, &length, 4);
            memcpy(read.data() + at + 4, &types[next() % 13], 2);
        }
        receive(read);
    }
}

} // namespace
