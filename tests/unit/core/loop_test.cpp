// The worker loop, its timers and the mutex.
#include "core/pbr_loop.h"

#include <gtest/gtest.h>

#include "core/pbr_info.h"
#include "core/pbr_start.h"
#include "core/pbr_timer.h"
#include "nexthop/pbr_ready_table.h"
#include "store/pbr_list_entry.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Lines = std::vector<std::string>;

class Loop : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(); }
    void TearDown() override {
        EXPECT_FALSE(fake::locked());
        checkStore();
    }
    void pass() {
        pbrMainPass(&maxFd);
        EXPECT_FALSE(fake::locked());
    }
    int32_t maxFd = 0;
};

TEST_F(Loop, WithoutATimerTheLoopWakesEveryThreeSeconds) {
    pbrUpdateTimerStop();

    pass();

    EXPECT_EQ(fake::selects(), Lines{"3.000000 3"});
}

struct Wait {
    uint32_t dueMs;
    const char *select;
};

class LoopWait : public Loop, public ::testing::WithParamInterface<Wait> {};

TEST_P(LoopWait, TheRemainderBehindTheWholeSecondsIsAtLeastSeventeenMilliseconds) {
    gPbrInfo.updatePeriod = GetParam().dueMs;
    pbrUpdateTimerStart();

    pass();

    EXPECT_EQ(fake::selects(), Lines{std::string(GetParam().select) + " 3"});
}

INSTANTIATE_TEST_SUITE_P(DueTimes, LoopWait,
                         ::testing::Values(Wait{0, "0.017000"}, Wait{1, "0.017000"}, Wait{16, "0.017000"},
                                           Wait{17, "0.017000"}, Wait{18, "0.018000"}, Wait{999, "0.999000"},
                                           Wait{1000, "1.017000"}, Wait{1016, "1.017000"},
                                           Wait{1500, "1.500000"}, Wait{2000, "2.017000"}));

TEST_F(Loop, AnOverdueTimerWaitsSeventeenMilliseconds) {
    fake::advanceMs(5000);

    pass();

    EXPECT_EQ(fake::selects(), Lines{"0.017000 3"});
}

TEST_F(Loop, TheHighestDescriptorIsOnlyEverRaised) {
    maxFd = 900;
    pass();
    EXPECT_EQ(fake::selects(), Lines{"1.017000 900"});

    maxFd = 0;
    pass();
    EXPECT_EQ(maxFd, 3);
}

TEST_F(Loop, TheLastDescriptorOfTheReadSetIsWaitedFor) {
    fake::reset();
    fake::answer("qrv_socket", 1023);
    pbrInit(0, 0, 0);
    fake::whenPeerGoesUp("10.0.0.1", 0);

    pass();

    EXPECT_EQ(maxFd, 1023);
    EXPECT_EQ(fake::pendingBytes(), 0u);
}

TEST_F(Loop, AClosedSocketIsNotWaitedFor) {
    gPbrInfo.rtSock = -1;
    fake::whenPeerGoesUp("10.0.0.1", 0);

    pass();

    EXPECT_EQ(fake::selects(), Lines{"1.017000 0"});
    EXPECT_EQ(fake::pendingBytes(), 48u);
    gPbrInfo.rtSock = 3;
}

TEST_F(Loop, WaitingMessagesAreReadOnceAPass) {
    fake::whenPeerGoesUp("10.0.0.1", 0);
    fake::whenPeerGoesUp("10.0.0.2", 0);

    pass();
    EXPECT_EQ(fake::takeCalls(), Lines{"qrv_recvfrom(3, 3840)"});
    EXPECT_EQ(fake::pendingBytes(), 48u);

    pass();
    EXPECT_EQ(fake::pendingBytes(), 0u);
}

TEST_F(Loop, NothingIsReadWhenTheWaitFailsOrTimesOut) {
    for (int64_t ready : {-1, 0}) {
        fake::whenPeerGoesUp("10.0.0.1", 0);
        fake::answer("qrv_select", ready);
        pass();
        EXPECT_EQ(fake::takeCalls(), Lines{}) << ready;
    }
}

TEST_F(Loop, TimersRunAlthoughTheWaitFailed) {
    fake::answer("qrv_select", -1);
    fake::advanceMs(1000);

    pass();

    EXPECT_EQ(fake::takeCalls(), Lines{"silTimerStart(timer1, 1000)"});
}

TEST_F(Loop, TheMutexIsGivenThreeTimesAPassWithInputAndTwiceWithout) {
    const uint32_t before = fake::syncCount();
    pass();
    EXPECT_EQ(fake::syncCount(), before + 2);

    fake::whenPeerGoesUp("10.0.0.1", 0);
    pass();
    EXPECT_EQ(fake::syncCount(), before + 5);
}

TEST_F(Loop, TheUpdateRunsWithTheMutexHeldSoThatACommandWaits) {
    makeList("a");
    pbrReadyTableAdd(usedLists().front());
    bool held = false;
    fake::answerWith("qrv_ioctl", [&held](const std::string &) { // the update asks for waiting input
        held = fake::locked();
        return 0;
    });
    fake::advanceMs(1000);

    pass();

    EXPECT_TRUE(held);
    EXPECT_TRUE(readyLists().empty());
}

TEST_F(Loop, MessagesAreHandledWithTheMutexHeld) {
    bool held = false;
    fake::whenPeerGoesUp("10.0.0.1", 0);
    fake::answerWith("qrv_recvfrom", [&held](const std::string &) {
        held = fake::locked();
        return 0;
    });

    pass();

    EXPECT_TRUE(held);
}

TEST_F(Loop, TheUpdateIsNotMadeBeforeItsPeriodIsOver) {
    makeList("a");
    pbrReadyTableAdd(usedLists().front());

    fake::advanceMs(999);
    pass();
    EXPECT_EQ(readyLists().size(), 1u);

    fake::advanceMs(1);
    pass();
    EXPECT_TRUE(readyLists().empty());
}

TEST_F(Loop, ThePeriodRunsFromTheEndOfOneUpdateToTheStartOfTheNext) {
    makeList("a");
    fake::answerWith("qrv_ioctl", [](const std::string &) { // the run takes 300 ms
        fake::advanceMs(300);
        return 0;
    });
    pbrReadyTableAdd(usedLists().front());
    fake::advanceMs(1000);
    pass();
    fake::selects();

    pass();

    EXPECT_EQ(fake::selects(), Lines{"1.017000 3"});
}

TEST_F(Loop, AnUpdateIsFollowedByTheNext) {
    for (int round = 0; round < 3; ++round) {
        fake::advanceMs(1000);
        pass();
        EXPECT_EQ(fake::takeCalls(), Lines{"silTimerStart(timer1, 1000)"});
    }
}

TEST_F(Loop, StartingTheUpdateTimerStopsItFirst) {
    pbrUpdateTimerStart();

    EXPECT_EQ(fake::takeCalls(), (Lines{"silTimerStop(timer1)", "silTimerStart(timer1, 1000)"}));
}

TEST_F(Loop, TheArpCheckArmsItselfBeforeItAsksAndPassesTheAnswerOn) {
    fake::answer("qrvHwilScalarGet", 42);

    EXPECT_EQ(pbrArpCheckTimerTimeOut(nullptr), 42);

    EXPECT_EQ(fake::takeCalls(), (Lines{"silTimerStart(timer2, 5000)", "qrvHwilScalarGet(0, 55)"}));
}

TEST_F(Loop, NothingStartsTheArpCheck) {
    for (int round = 0; round < 20; ++round) {
        fake::advanceMs(1000);
        pass();
    }

    for (const std::string &line : fake::takeCalls()) {
        EXPECT_EQ(line, "silTimerStart(timer1, 1000)");
    }
}

TEST_F(Loop, GivingTheMutexBackTellsTheForwardingPlaneFirst) {
    const uint32_t before = fake::syncCount();

    EXPECT_EQ(pbrLock(), 0);
    EXPECT_TRUE(fake::locked());
    EXPECT_EQ(pbrUnlock(), 0); // the fake fails when the hint comes without the mutex

    EXPECT_EQ(fake::syncCount(), before + 1);
    EXPECT_FALSE(fake::locked());
}

TEST_F(Loop, TheMutexPassesThePlatformsResultOn) {
    fake::answer("silTakeSem", 5);
    fake::answer("silGiveSem", 6);

    EXPECT_EQ(pbrLock(), 5);
    EXPECT_EQ(pbrUnlock(), 6);
}

} // namespace
