// Probe status: what is stored, which lists are queued.
#include "rtmsg/pbr_nqa_msg.h"

#include "hw/pbr_redirect_view.h"
#include "store/pbr_nqa_entry.h"
#include "tests/unit/rtmsg/messages.h"

namespace {

using namespace messages;

Bytes status(const std::string &admin, const std::string &test, uint8_t value) {
    NqaStatusMsg msg;
    memset(&msg, 'x', sizeof(msg)); // bytes behind a name are not read
    memcpy(msg.adminName, admin.data(), admin.size());
    memcpy(msg.testName, test.data(), test.size());
    msg.adminNameLen = static_cast<uint8_t>(admin.size());
    msg.testNameLen = static_cast<uint8_t>(test.size());
    msg.status = value;
    return fake::message(QRV_RTM_NQA, &msg, sizeof(msg));
}

class NqaMsg : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeIf(99); // the tables exist from the first list or interface on
    }
    void TearDown() override { checkStore(); }

    // A list whose next hop names the test; bound to the unit unless that is 0.
    static void user(const std::string &list, uint32_t unit, const std::string &admin, const std::string &test) {
        makeList(list);
        PbrNodeEntry *pNode = makeNode(list, 10, {.acl = 1501, .ipVer = 1});
        makeNextHop(pNode, 1, "10.0.0.1");
        nameTest(makeNextHop(pNode, 2, "10.0.0.2"), admin, test);
        if (unit != 0) {
            bindIf(unit, list);
        }
        (void)fake::takeTrace();
    }
    static std::string queued() {
        std::string names;
        for (const PbrListEntry *pList : readyLists()) {
            names += nameOf(pList);
        }
        return names;
    }
};

TEST_F(NqaMsg, AChangedStatusIsStoredAndEveryBoundListFromTheFirstUserOnIsQueued) {
    PbrNqaEntry *pNqa = makeNqa("admin", "icmp");
    user("a", 6, "admin", "other");
    user("b", 7, "admin", "icmp");
    user("c", 8, "other", "icmp"); // does not use it, queued all the same
    user("d", 0, "admin", "icmp"); // not bound
    receive(status("admin", "icmp", 1));
    EXPECT_EQ(1u, pNqa->status);
    EXPECT_EQ("cb", queued());
}

TEST_F(NqaMsg, AListThatIsNotBoundDoesNotMakeLaterOnesQueue) {
    makeNqa("admin", "icmp");
    user("a", 0, "admin", "icmp");
    user("b", 7, "admin", "other");
    receive(status("admin", "icmp", 1));
    EXPECT_EQ("", queued());
}

TEST_F(NqaMsg, TheSameStatusAgainQueuesNothing) {
    PbrNqaEntry *pNqa = makeNqa("admin", "icmp");
    user("a", 7, "admin", "icmp");
    for (uint8_t value : {2, 1}) {
        pNqa->status = value;
        receive(status("admin", "icmp", value));
        EXPECT_EQ("", queued()) << value;
    }
}

TEST_F(NqaMsg, NoResultIsStoredAsFailingAndCountsAsAChangeEvenFromFailing) {
    PbrNqaEntry *pNqa = makeNqa("admin", "icmp");
    user("a", 7, "admin", "icmp");
    ASSERT_EQ(2u, pNqa->status);
    receive(status("admin", "icmp", 3));
    EXPECT_EQ(2u, pNqa->status);
    EXPECT_EQ("a", queued());
}

TEST_F(NqaMsg, OtherValuesAreStoredAsTheyCome) {
    PbrNqaEntry *pNqa = makeNqa("admin", "icmp");
    for (uint8_t value : {0, 4, 255}) {
        receive(status("admin", "icmp", value));
        EXPECT_EQ(value, pNqa->status);
    }
}

TEST_F(NqaMsg, UnknownTestsAreIgnored) {
    PbrNqaEntry *pNqa = makeNqa("admin", "icmp");
    user("a", 7, "admin", "icmp");
    for (const auto &[admin, test] : {std::pair<std::string, std::string>{"admin", "icm"}, {"admi", "icmp"},
                                      {"admin", "icmpx"}, {"", ""}, {"icmp", "admin"}}) {
        receive(status(admin, test, 1));
        EXPECT_EQ(2u, pNqa->status) << admin << " " << test;
    }
    EXPECT_EQ("", queued());
}

TEST_F(NqaMsg, NamesOfThirtyTwoBytesAreComparedAndToldWhole) {
    const std::string admin(32, 'a'), test(32, 't');
    PbrNqaEntry *pNqa = makeNqa(admin, test);
    user("a", 7, admin, test);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(status(admin, test, 1));
    EXPECT_EQ(1u, pNqa->status);
    EXPECT_EQ("a", queued());
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              (Lines{eventText("pbr receive QRV_RTM_NQA,adminName=" + admin + ",testName=" + test + ",status=1."),
                     eventText("nqa status change add to ready table.")}));
}

TEST_F(NqaMsg, EveryQueuedListIsToldAndShortNamesAreBounded) {
    makeNqa("admin", "icmp");
    user("a", 7, "admin", "icmp");
    user("b", 8, "admin", "icmp");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    receive(status("admin", "icmp", 1));
    const std::string text = eventText("nqa status change add to ready table.");
    EXPECT_EQ(eventTexts(fake::takeTrace()),
              (Lines{eventText("pbr receive QRV_RTM_NQA,adminName=admin,testName=icmp,status=1."), text, text}));
}

TEST_F(NqaMsg, NameLengthsBeyondTheFieldsMatchNothingAndReadNothingBeyond) {
    makeNqa("admin", "icmp");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    Bytes message = status("admin", "icmp", 1);
    message[24 + 64] = 255;
    message[24 + 65] = 33;
    receive(message);
    const Lines texts = eventTexts(fake::takeTrace());
    ASSERT_EQ(1u, texts.size());
    EXPECT_EQ(texts[0], eventText("pbr receive QRV_RTM_NQA,adminName=admin" + std::string(27, 'x') +
                                  ",testName=icmp" + std::string(28, 'x') + ",status=1."));
}

TEST_F(NqaMsg, AMessageWithoutPayloadIsIgnored) {
    PbrNqaEntry *pNqa = makeNqa("admin", "icmp");
    receive(fake::message(QRV_RTM_NQA, nullptr, 0));
    EXPECT_EQ(2u, pNqa->status);
}

TEST_F(NqaMsg, AListWhoseUseCountWrappedIsNotQueuedButItsPacketsFollowTheStatus) {
    makeNqa("admin", "icmp");
    user("a", 1, "admin", "icmp");
    for (uint32_t unit = 2; unit <= 16; ++unit) {
        bindIf(unit, "a");
    }
    ASSERT_EQ(0u, pbrListRefCntGet(usedLists()[0]));
    const PbrRedirectVisitor visitor = {nullptr, [](void *, const uint8_t *, uint32_t) {},
                                        [](void *, const PbrRedirect *) {}};
    (void)pbrRedirectViewTake(true, &visitor);
    receive(status("admin", "icmp", 1));
    EXPECT_EQ("", queued());
    EXPECT_EQ(1u, pbrRedirectViewChanged());
}

TEST_F(NqaMsg, AListQueuedAlreadyMovesToTheFront) {
    makeNqa("admin", "icmp");
    user("a", 7, "admin", "icmp");
    user("b", 8, "admin", "icmp");
    receive(status("admin", "icmp", 1));
    receive(status("admin", "icmp", 2));
    EXPECT_EQ("ba", queued());
}

} // namespace
