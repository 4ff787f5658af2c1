// Start-up: options, the ordered list of calls, what each failure returns, prints and gives back.
#include "core/pbr_start.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "api/pbr_func_map.h"
#include "core/pbr_info.h"
#include "core/pbr_loop.h"
#include "core/pbr_types.h"
#include "platform/sil_process.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Lines = std::vector<std::string>;

const Lines STARTING = {
    "qrv_socket(16, 2, 0)",
    "qrv_ioctl(3, 0x8004667e, 1)",
    "qrv_bind(3, len=0 family=16 pad=0 port=0 groups=0, 12)",
    "qrv_setsockopt(3, 270, 0x1, 3, 4)",
    "qrv_setsockopt(3, 270, 0x1, 1, 4)",
    "qrv_setsockopt(3, 270, 0x1, 77, 4)",
    "qrv_setsockopt(3, 270, 0x1, 56, 4)",
    "qrv_setsockopt(3, 270, 0x1, 89, 4)",
    "qrv_setsockopt(3, 65535, 0x1002, 2500000, 4)",
    "qrv_setsockopt(3, 65535, 0x1019, 206, 4)",
    "silTimerListInit()",
    "silCreateMSem(9)",
    "silTimerStop(timer1)",
    "silTimerStart(timer1, 1000)",
    "silCreateTask(\"pbrtask\", 50, 512000)",
    "icmProcTcpInit(\"pbrcmdtask\", \"/tmp/policyroutecmd.socket\", 24)",
    "qrvHwilScalarSet(0, 499, 206, 0)",
};

Lines upTo(size_t count) {
    return Lines(STARTING.begin(), STARTING.begin() + static_cast<long>(count));
}

template <typename F> std::string printedBy(F f) {
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class Start : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(Start, TheCallsOfStartUpStandInOneOrder) {
    EXPECT_EQ(pbrInit(0, 0, 0), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), STARTING);
    checkStore();
}

TEST_F(Start, TheControlBlockIsZeroedAndItsLimitsAndPeriodsAreSet) {
    memset(static_cast<void *>(&gPbrInfo), 0xA5, sizeof(gPbrInfo));

    pbrInit(0, 0, 0);

    EXPECT_EQ(gPbrInfo.maxListNum, 64u);
    EXPECT_EQ(gPbrInfo.maxNodeNum, 128u);
    EXPECT_EQ(gPbrInfo.maxIfNum, 48u);
    EXPECT_EQ(gPbrInfo.updatePeriod, 1000u);
    EXPECT_EQ(gPbrInfo.arpCheckPeriod, 5000u);
    EXPECT_EQ(gPbrInfo.rtSock, 3);
    EXPECT_EQ(gPbrInfo.lock, 1u);
    EXPECT_EQ(gPbrInfo.listCount, 0u);
    EXPECT_EQ(gPbrInfo.debugFlags, 0u);
    EXPECT_EQ(gPbrInfo.memAllocated, 0u);
    EXPECT_EQ(gPbrInfo.hwAclAddCnt + gPbrInfo.hwAclAddErr + gPbrInfo.hwAclDelCnt + gPbrInfo.hwAclDelErr, 0u);
    EXPECT_EQ(gPbrInfo.rcvRtmAclAddCnt + gPbrInfo.rcvRtmAclDelCnt, 0u);
}

TEST_F(Start, GivenLimitsAreKept) {
    pbrInit(1, 2, 3);

    EXPECT_EQ(gPbrInfo.maxListNum, 1u);
    EXPECT_EQ(gPbrInfo.maxNodeNum, 2u);
    EXPECT_EQ(gPbrInfo.maxIfNum, 3u);
}

TEST_F(Start, TheWorkerTaskRunsTheLoopAndTheServerServesTheCommandMap) {
    pbrInit(0, 0, 0);

    ASSERT_EQ(fake::tasks().size(), 1u);
    EXPECT_EQ(fake::tasks()[0].entry, pbrMain);
    ASSERT_EQ(fake::commandServers().size(), 1u);
    EXPECT_EQ(fake::commandServers()[0].pCommands, gPbrFuncMap);
}

TEST_F(Start, WithoutARouteSocketStartUpFails) {
    fake::answer("qrv_bind", -1);
    testing::internal::CaptureStderr();

    EXPECT_EQ(pbrInit(0, 0, 0), QRV_ERR_SOCKET);

    testing::internal::GetCapturedStderr();
    EXPECT_EQ(fake::takeTrace().back(), "qrv_close(3)");
    EXPECT_EQ(gPbrInfo.rtSock, -1);
}

TEST_F(Start, ATimerListThatCannotBeMadeIsReportedAsSuccess) {
    fake::answer("silTimerListInit", -1);
    uint32_t result = PBR_FAIL;

    EXPECT_EQ(printedBy([&] { result = pbrInit(0, 0, 0); }), "pbr failed to initiate timerList.\r\n");

    EXPECT_EQ(result, PBR_OK);
    Lines expected = upTo(11);
    expected.push_back("qrv_close(3)");
    EXPECT_EQ(fake::takeTrace(), expected);
    EXPECT_EQ(gPbrInfo.rtSock, -1);
}

TEST_F(Start, WithoutAMutexStartUpFails) {
    fake::answer("silCreateMSem", 0);

    EXPECT_EQ(pbrInit(0, 0, 0), PBR_FAIL);

    Lines expected = upTo(12);
    expected.push_back("qrv_close(3)");
    EXPECT_EQ(fake::takeTrace(), expected);
}

TEST_F(Start, WithoutAWorkerTaskStartUpFailsAndGivesMutexAndSocketBack) {
    fake::answer("silCreateTask", -1);
    uint32_t result = PBR_OK;

    EXPECT_EQ(printedBy([&] { result = pbrInit(0, 0, 0); }), "pbrInit create task ERROR!\r\n");

    EXPECT_EQ(result, QRV_ERR_TASK);
    Lines expected = upTo(15);
    expected.push_back("silDeleteSem(1)");
    expected.push_back("qrv_close(3)");
    EXPECT_EQ(fake::takeTrace(), expected);
    EXPECT_EQ(gPbrInfo.lock, 0u);
    EXPECT_EQ(gPbrInfo.rtSock, -1);
    EXPECT_EQ(fake::semCount(), 0u);
}

TEST_F(Start, ACommandServerThatCannotStartIsNotLookedAt) {
    fake::answer("icmProcTcpInit", -1);
    fake::answer("qrvHwilScalarSet", 1);

    EXPECT_EQ(pbrInit(0, 0, 0), PBR_OK);
}

TEST_F(Start, EveryFailingCallComesBackAsPublishedAndLeavesNothingOpen) {
    const std::pair<std::string, uint32_t> expected[] = {
        {"qrv_socket", QRV_ERR_SOCKET},     {"qrv_bind", QRV_ERR_SOCKET},       {"qrv_setsockopt", QRV_ERR_SOCKET},
        {"qrv_setsockopt", QRV_ERR_SOCKET}, {"qrv_setsockopt", QRV_ERR_SOCKET}, {"qrv_setsockopt", QRV_ERR_SOCKET},
        {"qrv_setsockopt", QRV_ERR_SOCKET}, {"qrv_setsockopt", QRV_ERR_SOCKET}, {"qrv_setsockopt", QRV_ERR_SOCKET},
        {"silTimerListInit", PBR_OK},       {"silCreateMSem", PBR_FAIL},        {"silCreateTask", QRV_ERR_TASK}};
    for (uint32_t n = 1;; ++n) {
        fake::reset();
        fake::failNth(n);
        uint32_t result = PBR_OK;
        testing::internal::CaptureStderr();
        printedBy([&] { result = pbrInit(0, 0, 0); });
        testing::internal::GetCapturedStderr();
        if (!fake::faultHit()) {
            EXPECT_EQ(n, 13u);
            EXPECT_EQ(result, PBR_OK);
            return;
        }
        ASSERT_LE(n, 12u);
        EXPECT_EQ(fake::faultCall(), expected[n - 1].first);
        EXPECT_EQ(result, expected[n - 1].second) << fake::faultCall();
        EXPECT_EQ(gPbrInfo.rtSock, -1);
        EXPECT_EQ(fake::semCount(), 0u);
        EXPECT_TRUE(fake::tasks().empty());
        EXPECT_TRUE(fake::commandServers().empty());
        checkStore();
    }
}

class OptInit : public Start {};

TEST_F(OptInit, TheOptionsAreReadInOrderAndTheLimitsPassedOn) {
    fake::option("policyroute.maxlistnum", "5");
    fake::option("policyroute.maxnodenum", "6");
    fake::option("policyroute.maxifnum", "7");

    EXPECT_EQ(pbrOptInit(), PBR_OK);

    const Lines trace = fake::takeTrace();
    EXPECT_EQ(Lines(trace.begin(), trace.begin() + 4),
              (Lines{"silOptRead(\"policyroute.enable\")", "silOptRead(\"policyroute.maxlistnum\")",
                     "silOptRead(\"policyroute.maxnodenum\")", "silOptRead(\"policyroute.maxifnum\")"}));
    EXPECT_EQ(gPbrInfo.maxListNum, 5u);
    EXPECT_EQ(gPbrInfo.maxNodeNum, 6u);
    EXPECT_EQ(gPbrInfo.maxIfNum, 7u);
}

TEST_F(OptInit, ALimitOfZeroOfATextOrAbsentIsTheDefault) {
    fake::option("policyroute.maxlistnum", "0");
    fake::option("policyroute.maxnodenum", "many");

    pbrOptInit();

    EXPECT_EQ(gPbrInfo.maxListNum, 64u);
    EXPECT_EQ(gPbrInfo.maxNodeNum, 128u);
    EXPECT_EQ(gPbrInfo.maxIfNum, 48u);
}

TEST_F(OptInit, ALimitHasNoUpperBound) {
    fake::option("policyroute.maxlistnum", "2000000000");

    pbrOptInit();

    EXPECT_EQ(gPbrInfo.maxListNum, 2000000000u);
}

TEST_F(OptInit, AnEnableThatBeginsWithFStopsStartUpSilently) {
    for (const char *value : {"f", "F", "false", "Fine"}) {
        fake::reset();
        fake::option("policyroute.enable", value);
        EXPECT_EQ(printedBy([] { EXPECT_EQ(pbrOptInit(), PBR_FAIL); }), "") << value;
        EXPECT_EQ(fake::takeTrace(), Lines{"silOptRead(\"policyroute.enable\")"}) << value;
    }
}

TEST_F(OptInit, AnyOtherEnableStarts) {
    for (const char *value : {"0", "no", "true", ""}) {
        fake::reset();
        fake::option("policyroute.enable", value);
        EXPECT_EQ(pbrOptInit(), PBR_OK) << value;
    }
}

TEST_F(OptInit, AFailedStartIsPrinted) {
    fake::answer("silCreateMSem", 0);

    EXPECT_EQ(printedBy([] { EXPECT_EQ(pbrOptInit(), PBR_FAIL); }), "pbrInit init failed.\n\r");
}

class ProcessStart : public Start {};

TEST_F(ProcessStart, TheProcessStepsStandInOneOrder) {
    EXPECT_TRUE(pbrProcessStart());

    const Lines trace = fake::takeTrace();
    EXPECT_EQ(Lines(trace.begin(), trace.begin() + 5),
              (Lines{"silOptRead(\"policyroute.processmerge\")", "silCatchSegFault()", "patchSignalHandler()",
                     "procShellInit(\"pbr\", 0, 0)", "silOptRead(\"policyroute.enable\")"}));
    EXPECT_EQ(trace.back(), STARTING.back());
}

TEST_F(ProcessStart, AMergedProcessDoesNothing) {
    for (const char *value : {"t", "T", "true", "T1"}) {
        fake::reset();
        fake::option("policyroute.processmerge", value);
        EXPECT_FALSE(pbrProcessStart()) << value;
        EXPECT_EQ(fake::takeTrace(), Lines{"silOptRead(\"policyroute.processmerge\")"}) << value;
    }
}

TEST_F(ProcessStart, AnyOtherMergeOptionStarts) {
    for (const char *value : {"yes", "1", "f", ""}) {
        fake::reset();
        fake::option("policyroute.processmerge", value);
        EXPECT_TRUE(pbrProcessStart()) << value;
        EXPECT_GT(fake::takeTrace().size(), STARTING.size()) << value;
    }
}

TEST_F(ProcessStart, ABrokenPipeIsIgnored) {
    signal(SIGPIPE, SIG_DFL);

    pbrProcessStart();

    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(ProcessStart, AFailedStartIsPrintedTwiceAndTheProcessStays) {
    fake::answer("silCreateTask", -1);
    bool stays = false;

    EXPECT_EQ(printedBy([&] { stays = pbrProcessStart(); }),
              "pbrInit create task ERROR!\r\npbrInit init failed.\n\rpbrInit init failed.\n\r");

    EXPECT_TRUE(stays);
}

TEST_F(ProcessStart, ADisabledDaemonPrintsTheFailureOnceAndStays) {
    fake::option("policyroute.enable", "false");
    bool stays = false;

    EXPECT_EQ(printedBy([&] { stays = pbrProcessStart(); }), "pbrInit init failed.\n\r");

    EXPECT_TRUE(stays);
}

TEST(Shell, LogPrioritiesAreThePublishedOnes) {
    const uint8_t expected[7] = {7, 7, 6, 6, 3, 0, 0};
    EXPECT_EQ(memcmp(gPbrDebugPri, expected, sizeof(expected)), 0);
}

} // namespace
