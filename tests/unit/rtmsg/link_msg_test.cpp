// Link and aggregation events: attributes, member entries, interfaces that go.
#include "rtmsg/pbr_link_msg.h"

#include "tests/unit/rtmsg/messages.h"

namespace {

using namespace messages;

// An attribute with a u32; its length word may lie.
Bytes attribute(uint16_t type, uint32_t data, uint16_t lengthWord = 8) {
    Bytes bytes(8);
    memcpy(bytes.data(), &lengthWord, 2);
    memcpy(bytes.data() + 2, &type, 2);
    memcpy(bytes.data() + 4, &data, 4);
    return bytes;
}

Bytes link(uint16_t type, uint32_t ifIndex, std::initializer_list<Bytes> attributes = {}, uint32_t lengthWord = 0) {
    LinkInfo info = {};
    info.word0 = 0xAAAAAAAA; // not read
    info.ifIndex = ifIndex;
    memset(info.rest, 0xAA, sizeof(info.rest));
    Bytes payload(sizeof(info));
    memcpy(payload.data(), &info, sizeof(info));
    for (const Bytes &one : attributes) {
        payload.insert(payload.end(), one.begin(), one.end());
    }
    return fake::message(type, payload.data(), static_cast<uint32_t>(payload.size()), lengthWord);
}
Bytes newLink(uint32_t ifIndex, std::initializer_list<Bytes> attributes, uint32_t lengthWord = 0) {
    return link(QRV_RTM_NEWLINK, ifIndex, attributes, lengthWord);
}
Bytes portReset(uint32_t ifIndex) {
    const PortResetMsg msg = {0xAAAAAAAA, ifIndex};
    return fake::message(QRV_RTM_RESETPORTCONFIG, &msg, sizeof(msg));
}

constexpr uint32_t AGG = 5;
constexpr uint32_t PORT = 9;

class LinkMsg : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeList("a");
        pFirst_ = makeNode("a", 10, {.acl = 1501, .outIf = 12});
        pSecond_ = makeNode("a", 20, {.acl = 1502, .outIf = 13});
        bindIf(AGG, "a");
        fake::nameInterface(AGG, "agg1");
        fake::nameInterface(PORT, "port9");
        fake::answer("aggAnswer", 1);
        (void)fake::takeTrace();
    }
    void TearDown() override { checkStore(); }

    static Lines received(const Bytes &read) {
        receive(read);
        Lines trace = fake::takeTrace();
        trace.erase(trace.begin()); // the read
        return trace;
    }
    static Lines callsFor(const Bytes &read) {
        receive(read);
        Lines calls = fake::takeCalls();
        calls.erase(calls.begin());
        return calls;
    }
    void status(uint32_t first, uint32_t second) {
        pbrIfNodeHwStatusSet(linkOf(AGG, pFirst_), first);
        pbrIfNodeHwStatusSet(linkOf(AGG, pSecond_), second);
    }
    static std::string asked(uint32_t function) {
        return "qrvIfGetApi(5, 47, 0x03e8" + std::string(function == 66 ? "0135" : "0136") + ")";
    }
    static std::string member(uint32_t command, uint32_t acl, const char *pOutIf) {
        return "aclIfSetApi(9, " + std::to_string(command) + ", if=9 acl=" + std::to_string(acl) +
               " dir=0 act=4 pri=0 vrf=0 hops=" + pOutIf + ")";
    }

    PbrNodeEntry *pFirst_ = nullptr;
    PbrNodeEntry *pSecond_ = nullptr;
};

// ---- a port added ----

TEST_F(LinkMsg, APortAddedGetsTheEntriesOfTheProgrammedLinksOnly) {
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)})),
              (Lines{asked(66), member(20, 1501, "0000000c"), member(20, 1502, "0000000d")}));
    status(2, 1);
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)})), (Lines{asked(66), member(20, 1502, "0000000d")}));
    status(0, 3);
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)})), Lines{asked(66)});
}

TEST_F(LinkMsg, APortAddedIsToldForEveryLink) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(newLink(AGG, {attribute(66, PORT)}));
    const std::string text = eventText("agg add phy,so pbr bind on phy(agg=[agg1],phy=[port9],pbr=[a]).");
    EXPECT_EQ(eventTexts(fake::takeTrace()), (Lines{text, text}));
}

TEST_F(LinkMsg, NothingIsAskedForAnAggregationWithoutPolicy) {
    EXPECT_EQ(callsFor(newLink(6, {attribute(66, PORT), attribute(67, PORT)})), Lines{});
}

TEST_F(LinkMsg, WithoutTheAnswersFirstBitNoMemberEntryIsMade) {
    for (int64_t answer : {0, 2, 0xFE}) {
        fake::answer("aggAnswer", answer);
        EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)})), Lines{asked(66)}) << answer;
        EXPECT_EQ(callsFor(newLink(AGG, {attribute(67, PORT)})), Lines{asked(67)}) << answer;
    }
    fake::answer("aggAnswer", 0x83);
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)})).size(), 3u);
}

TEST_F(LinkMsg, AFailedQuestionIsToldAndTheNextAttributeIsLookedAt) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::answerNth("qrvIfGetApi", 1, -1);
    receive(newLink(AGG, {attribute(66, PORT), attribute(66, 10)}));
    const Lines trace = fake::takeTrace();
    EXPECT_EQ(eventTexts(trace).front(),
              eventText("agg 5 call qrvIfGetApi failed with cmd QRV_IF_HWAPIFUNCDISPATCH."));
    const Lines calls = callsOf(trace, "aclIfSetApi");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].substr(0, 16), "aclIfSetApi(10, ");
}

TEST_F(LinkMsg, AFailedMemberEntryIsNotRetriedAndLeavesTheAggregationAlone) {
    fake::answer("aclIfSetApi", 7);
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)})).size(), 3u);
    EXPECT_EQ(1u, pbrIfNodeHwStatusGet(linkOf(AGG, pFirst_)));
    EXPECT_EQ(0u, gPbrInfo.hwAclAddErr);
}

// ---- a port removed ----

TEST_F(LinkMsg, APortRemovedLosesTheEntriesOfProgrammedAndFailedLinks) {
    status(1, 2);
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(67, PORT)})),
              (Lines{asked(67), member(21, 1501, "0000000c"), member(21, 1502, "0000000d")}));
    status(0, 3);
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(67, PORT)})), Lines{asked(67)});
}

TEST_F(LinkMsg, APortRemovedIsToldFirstAlsoWithoutPolicy) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    EXPECT_EQ(received(newLink(6, {attribute(67, PORT)})), Lines{eventText("pbr receive agg 6 remove phy 9 msg.")});
    status(1, 0);
    receive(newLink(AGG, {attribute(67, PORT)}));
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              (Lines{eventText("pbr receive agg 5 remove phy 9 msg."),
                     eventText("agg remove phy,so pbr unbind on phy(agg=[agg1],phy=[port9],pbr=[a]).")}));
    fake::answer("qrvIfGetApi", 1);
    EXPECT_EQ(eventTexts(received(newLink(AGG, {attribute(67, PORT)}))),
              (Lines{eventText("pbr receive agg 5 remove phy 9 msg."),
                     eventText("agg 5 call qrvIfGetApi failed with cmd QRV_IF_HWAPIFUNCDISPATCH.")}));
}

// ---- a port joined ----

TEST_F(LinkMsg, APortThatJoinsAnAggregationLosesItsOwnBindingAndEntry) {
    bindIf(PORT, "a");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(newLink(PORT, {attribute(52, AGG)}));
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              Lines{eventText("phy join agg,so pbr unbind on phy(phy=[port9],agg=[agg1],pbr=[a]).")});
    EXPECT_EQ(nullptr, pbrIfEntryGet(PORT));
    EXPECT_EQ(1u, pbrListRefCntGet(usedLists()[0]));
    EXPECT_NE(nullptr, pbrIfEntryGet(AGG));
}

TEST_F(LinkMsg, APortWithoutPolicyJoinsSilently) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    EXPECT_EQ(received(newLink(PORT, {attribute(52, AGG)})), Lines{});
}

TEST_F(LinkMsg, AnEntryWhoseUnbindFailsStays) {
    makeIf(PORT); // bound to nothing
    receive(newLink(PORT, {attribute(52, AGG)}));
    EXPECT_NE(nullptr, pbrIfEntryGet(PORT));
    receive(link(QRV_RTM_DELLINK_FINAL, PORT));
    EXPECT_NE(nullptr, pbrIfEntryGet(PORT));
    receive(portReset(PORT));
    EXPECT_NE(nullptr, pbrIfEntryGet(PORT));
}

// ---- the attributes ----

TEST_F(LinkMsg, SeveralAttributesAreAppliedInOrderAndOthersSkipped) {
    bindIf(PORT, "a");
    (void)fake::takeTrace();
    const Lines calls = callsFor(newLink(AGG, {attribute(1, 0), attribute(66, PORT), attribute(51, 1), attribute(67, 8)}));
    EXPECT_EQ(calls.size(), 6u);
    EXPECT_EQ(callsOf(calls, "qrvIfGetApi"), (Lines{asked(66), asked(67)}));
}

TEST_F(LinkMsg, AMessageOfExactlyFortyEightBytesHasNoAttribute) {
    EXPECT_EQ(callsFor(joined({newLink(AGG, {}), attribute(66, PORT)})), Lines{});
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)}, 48)), Lines{}) << "the rest is no message";
}

TEST_F(LinkMsg, AMessageShorterThanItsLinkPartHasNoAttribute) {
    for (uint32_t length = 24; length < 48; length++) {
        EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT)}, length)), Lines{}) << length;
    }
}

TEST_F(LinkMsg, APayloadOfTwentyThreeBytesIsIgnored) {
    const Bytes whole = newLink(AGG, {attribute(66, PORT)});
    alignas(4) uint8_t message[192] = {};
    memcpy(message, whole.data(), whole.size());
    pbrNewLinkProcess(message, 23);
    EXPECT_EQ(fake::takeTrace(), Lines{});
    pbrNewLinkProcess(message, 24);
    EXPECT_EQ(fake::takeCalls().size(), 3u);
    EXPECT_EQ(0u, pbrDelLinkProcess(message, 23));
    EXPECT_NE(nullptr, pbrIfEntryGet(AGG));
    EXPECT_EQ(0u, pbrDelLinkProcess(message, 24));
    EXPECT_EQ(nullptr, pbrIfEntryGet(AGG));
}

TEST_F(LinkMsg, AnAttributeLengthBelowItsHeaderEndsTheAttributes) {
    for (uint16_t length = 0; length < 4; length++) {
        EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT, length), attribute(66, PORT)})), Lines{}) << length;
    }
}

TEST_F(LinkMsg, AnAttributeLengthBeyondTheMessageEndsTheAttributes) {
    for (uint16_t length : {9, 17, 0xFFFF}) {
        EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT, length)})), Lines{}) << length;
    }
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(1, 0), attribute(66, PORT, 9)})), Lines{});
}

TEST_F(LinkMsg, TheNextAttributeStartsAtTheNextMultipleOfFour) {
    for (uint16_t length : {5, 6, 7, 8}) {
        EXPECT_EQ(callsFor(newLink(AGG, {attribute(1, 0, length), attribute(66, PORT)})).size(), 3u) << length;
    }
    EXPECT_EQ(callsFor(newLink(AGG, {attribute(66, PORT), attribute(66, PORT)}, 48 + 8 + 3)).size(), 3u)
        << "three bytes are no attribute";
}

TEST_F(LinkMsg, AnAttributeWithoutItsDataReadsWhatFollowsOrZeroAtTheEndOfTheRead) {
    Bytes read = newLink(AGG, {attribute(66, PORT, 4)}, 52);
    read.resize(52);
    const Lines calls = callsFor(read);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[1], "aclIfSetApi(0, 20, if=0 acl=1501 dir=0 act=4 pri=0 vrf=0 hops=0000000c)");
}

// ---- an interface that goes ----

TEST_F(LinkMsg, AnInterfaceGoneForGoodLosesItsBindingAndItsEntry) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(link(QRV_RTM_DELLINK_FINAL, AGG));
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              (Lines{eventText("pbr receive QRV_RTM_DELLINK_FINAL message."),
                     eventText("Interface unregister,so pbr unbind(Interface=[agg1],pbr=[a]).")}));
    EXPECT_EQ(nullptr, pbrIfEntryGet(AGG));
    EXPECT_EQ(0u, pbrListRefCntGet(usedLists()[0]));
    EXPECT_EQ(2u, gPbrInfo.hwAclDelCnt);
}

TEST_F(LinkMsg, AnInterfaceGoneWithoutPolicyIsToldAndTheReadGoesOn) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    EXPECT_EQ(received(joined({link(QRV_RTM_DELLINK_FINAL, 6), newLink(6, {attribute(67, PORT)})})),
              (Lines{eventText("pbr receive QRV_RTM_DELLINK_FINAL message."),
                     eventText("pbr receive agg 6 remove phy 9 msg.")}));
}

TEST_F(LinkMsg, AFinalRemovalTooShortForItsLinkIsToldAndIgnored) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    Bytes read = link(QRV_RTM_DELLINK_FINAL, AGG, {}, 47);
    read.resize(47);
    EXPECT_EQ(received(read), Lines{eventText("pbr receive QRV_RTM_DELLINK_FINAL message.")});
    EXPECT_NE(nullptr, pbrIfEntryGet(AGG));
}

TEST_F(LinkMsg, AnInterfaceWhoseConfigurationIsResetLosesItsBindingAndTheReadGoesOn) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(joined({portReset(AGG), newLink(6, {attribute(67, PORT)})}));
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              (Lines{eventText("pbr receive QRV_RTM_RESETPORTCONFIG message."),
                     eventText("pbr receive QRV_RTM_RESETPORTCONFIG,so pbr unbind(Interface=[agg1],pbr=[a])."),
                     eventText("pbr receive agg 6 remove phy 9 msg.")}));
    EXPECT_EQ(nullptr, pbrIfEntryGet(AGG));
}

TEST_F(LinkMsg, AResetOfAnInterfaceWithoutPolicyDropsTheRestOfTheRead) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    EXPECT_EQ(received(joined({portReset(6), newLink(6, {attribute(67, PORT)}), link(QRV_RTM_DELLINK_FINAL, AGG)})),
              Lines{eventText("pbr receive QRV_RTM_RESETPORTCONFIG message.")});
    EXPECT_NE(nullptr, pbrIfEntryGet(AGG));
}

TEST_F(LinkMsg, AResetWhoseUnbindFailsDropsTheRestOfTheRead) {
    makeIf(6); // bound to nothing
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    EXPECT_EQ(received(joined({portReset(6), link(QRV_RTM_DELLINK_FINAL, AGG)})),
              (Lines{eventText("pbr receive QRV_RTM_RESETPORTCONFIG message."),
                     eventText("pbr receive QRV_RTM_RESETPORTCONFIG,so pbr unbind(Interface=[if6],pbr=[]).")}));
    EXPECT_NE(nullptr, pbrIfEntryGet(AGG));
}

TEST_F(LinkMsg, ADeviceEntryThatCannotBeRemovedDoesNotKeepTheInterface) {
    fake::answer("aclIfSetApi", 9);
    receive(link(QRV_RTM_DELLINK_FINAL, AGG));
    EXPECT_EQ(nullptr, pbrIfEntryGet(AGG));
    EXPECT_EQ(2u, gPbrInfo.hwAclDelErr);
}

TEST_F(LinkMsg, ListNamesOfSixteenBytesArePrintedWholeAndNotFurther) {
    makeList("list-of-16-bytes");
    bindIf(PORT, "list-of-16-bytes");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(newLink(PORT, {attribute(52, AGG)}));
    EXPECT_EQ(eventTexts(fake::takeTrace()).front(),
              eventText("phy join agg,so pbr unbind on phy(phy=[port9],agg=[agg1],pbr=[list-of-16-bytes])."));
}

TEST_F(LinkMsg, TheTextsStandBehindTheirDebugFlag) {
    gPbrInfo.debugFlags = ~PBR_DEBUG_GENERAL;
    receive(joined({newLink(AGG, {attribute(66, PORT), attribute(67, PORT)}), link(QRV_RTM_DELLINK_FINAL, AGG),
                    portReset(6)}));
    EXPECT_EQ(eventTexts(fake::takeTrace()), Lines{});
}

} // namespace
