// Start-up: the calls in their order, what each failure prints, gives back and answers.
#include "core/pbr_show.h"
#include "core/pbr_start.h"
#include "platform/sil_process.h"
#include "tests/published/stage.h"

namespace published {
namespace {

const Lines PROCESS = {"silOptRead(\"policyroute.processmerge\")", "silCatchSegFault()", "patchSignalHandler()",
                       "procShellInit(\"pbr\", 0, 0)"};
const Lines OPTIONS = {"silOptRead(\"policyroute.enable\")", "silOptRead(\"policyroute.maxlistnum\")",
                       "silOptRead(\"policyroute.maxnodenum\")", "silOptRead(\"policyroute.maxifnum\")"};
const Lines MAKING = {
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
const char FAILED[] = "pbrInit init failed.\n\r";

// The first calls of the making, then what was called to give back.
Lines madeUntil(size_t count, const Lines &givenBack) {
    return OPTIONS + Lines(MAKING.begin(), MAKING.begin() + static_cast<long>(count)) + givenBack;
}

PUBLISHED(Start, TheProcessMakesItsCallsInOneOrderAndPrintsNothing) {
    s.prints([] { EXPECT_TRUE(pbrProcessStart()); }, "", "");
    s.said(PROCESS + OPTIONS + MAKING);
}

PUBLISHED(Start, MergedIntoAnotherProcessNothingIsStarted) {
    fake::option("policyroute.processmerge", "True");
    s.prints([] { EXPECT_FALSE(pbrProcessStart()); }, "", "");
    s.said({PROCESS[0]});
}

PUBLISHED(Start, ADisabledDaemonPrintsOneFailureAndStartsNothing) {
    fake::option("policyroute.enable", "false");
    s.prints([] { EXPECT_TRUE(pbrProcessStart()); }, FAILED, "");
    s.said(PROCESS + Lines{OPTIONS[0]});
}

PUBLISHED(Start, AFailureOfAnyKindIsPrintedTwice) {
    fake::answer("silCreateTask", -1);
    s.prints([] { EXPECT_TRUE(pbrProcessStart()); },
             "pbrInit create task ERROR!\r\n" + std::string(FAILED) + FAILED, "");
    s.said(PROCESS + madeUntil(15, {"silDeleteSem(1)", "qrv_close(3)"}));
}

// Starts with the options and tells the result.
void starts(Stage &s, uint32_t code, const std::string &out, const std::string &err, const Lines &expected) {
    uint32_t result = 0;
    s.prints([&] { result = pbrOptInit(); }, out, err);
    record().number("code", result);
    EXPECT_EQ(code, result);
    s.said(expected);
}

PUBLISHED(Start, WithoutASocketItsErrorNumberIsPrinted) {
    fake::answer("qrv_socket", -1);
    fake::answer("errnoGet", 24);
    starts(s, 0x03E8001B, "Create netlink socket failed(errno#24)!\r\n" + std::string(FAILED), "", madeUntil(1, {}));
}

PUBLISHED(Start, ASocketThatCannotBeBoundIsComplainedOfAndClosed) {
    fake::answer("qrv_bind", -1);
    starts(s, 0x03E8001B, FAILED, "pbr route Sock bind failed.\r\n: ", madeUntil(3, {"qrv_close(3)"}));
}

PUBLISHED(Start, EachSocketOptionThatFailsHasItsOwnTextAndClosesTheSocket) {
    struct Option {
        const char *out, *err;
    };
    const Option options[] = {{"", "pbr route Sock setsockopt QRV_RTNLGRP_NEIGH failed.\r\n: "},
                              {"", "pbr route Sock setsockopt QRV_RTNLGRP_LINK failed.\r\n: "},
                              {"pbr route Sock setsockopt QRV_RTNLGRP_HRD.", ""},
                              {"", "pbr route Sock setsockopt RTNLGRP_ACL.: "},
                              {"", "pbr route Sock setsockopt RTNLGRP_NQA.: "},
                              {"", "pbr route Sock setsockopt QRV_SO_RCVBUF failed.\r\n: "},
                              {"", "pbr route Sock name failed.\r\n: "}};
    for (uint32_t i = 0; i < 7; ++i) {
        fake::reset();
        fake::answerNth("qrv_setsockopt", i + 1, -1);
        starts(s, 0x03E8001B, options[i].out + std::string(FAILED), options[i].err, madeUntil(4 + i, {"qrv_close(3)"}));
    }
}

PUBLISHED(Start, ATimerListThatCannotBeMadeIsPrintedAndCountsAsSuccess) {
    fake::answer("silTimerListInit", -1);
    starts(s, 0, "pbr failed to initiate timerList.\r\n", "", madeUntil(11, {"qrv_close(3)"}));
}

PUBLISHED(Start, WithoutAMutexStartUpFailsAndTheSocketIsClosed) {
    fake::answer("silCreateMSem", 0);
    starts(s, 0xFFFFFFFF, FAILED, "", madeUntil(12, {"qrv_close(3)"}));
}

PUBLISHED(Start, WithoutAWorkerTaskStartUpFailsAndMutexAndSocketAreGivenBack) {
    fake::answer("silCreateTask", -1);
    starts(s, 0x03E8001C, "pbrInit create task ERROR!\r\n" + std::string(FAILED), "",
           madeUntil(15, {"silDeleteSem(1)", "qrv_close(3)"}));
}

PUBLISHED(Shell, TheShellOffersTheReportTheDebugCommandAndTwoSwitches) {
    s.start();
    for (uint32_t i = 0; i < gProcShellCommandCount; ++i) {
        record().shell(gProcShellCommands[i].name);
        testing::internal::CaptureStdout(); // the report is compared with golden files
        EXPECT_EQ(0, gProcShellCommands[i].run()) << gProcShellCommands[i].name;
        (void)testing::internal::GetCapturedStdout();
    }
    EXPECT_EQ(1u, gPbrDebug);
    for (uint32_t i = 0; i < gProcShellVariableCount; ++i) {
        record().shell(gProcShellVariables[i].name);
        *gProcShellVariables[i].pValue = 3;
    }
    EXPECT_EQ(3u, gPbrSelfLog);
    EXPECT_EQ(3u, gPbrDebug);
    s.said({});
}

} // namespace
} // namespace published
