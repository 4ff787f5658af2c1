// Start-up.
//
// pbrInit is one ordered list of calls. Its texts go to standard output: nobody listens to logs yet.
#include "core/pbr_start.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "api/pbr_func_map.h"
#include "core/pbr_info.h"
#include "core/pbr_loop.h"
#include "core/pbr_timer.h"
#include "core/pbr_types.h"
#include "platform/icm.h"
#include "platform/qrv_hwil.h"
#include "platform/qrv_if.h"
#include "platform/sil_option.h"
#include "platform/sil_process.h"
#include "platform/sil_sem.h"
#include "platform/sil_task.h"
#include "rtmsg/pbr_rt_sock.h"
#include "store/pbr_if_entry.h"

namespace {

const char TEXT_INIT_FAILED[] = "pbrInit init failed.\n\r";
const char TEXT_NO_TIMER_LIST[] = "pbr failed to initiate timerList.\r"; // puts adds the newline
const char TEXT_NO_TASK[] = "pbrInit create task ERROR!\r";

constexpr uint32_t OPTION_CHARS = 127;
constexpr uint32_t MUTEX_OPTIONS = 9; // priority order, priority inheritance

struct OptionText {
    char text[OPTION_CHARS + 1]; // terminated; empty when the option is absent
};

OptionText optionGet(const char *key) {
    OptionText option = {};
    if (silOptRead(0, key, 0, 0, 1, option.text, OPTION_CHARS) <= 0) {
        return {};
    }
    return option;
}

// No range check and 0 for a text that is no number, as published; 0 stands for the default then.
uint32_t optionNumber(const char *key) {
    return static_cast<uint32_t>(atoi(optionGet(key).text));
}

void printInitFailed() {
    printf("%s", TEXT_INIT_FAILED);
    fflush(stdout);
}

uint32_t orDefault(uint32_t value, uint32_t byDefault) {
    return value != 0 ? value : byDefault;
}

// Start-up runs before the other tasks are made, and takes no mutex: LOCK_UNCHECKED here and in pbrInit.
void storeInit(uint32_t maxListNum, uint32_t maxNodeNum, uint32_t maxIfNum) LOCK_UNCHECKED {
    memset(static_cast<void *>(&gPbrInfo), 0, sizeof(gPbrInfo));
    gPbrInfo.maxListNum = orDefault(maxListNum, PBR_DEFAULT_MAX_LIST);
    gPbrInfo.maxNodeNum = orDefault(maxNodeNum, PBR_DEFAULT_MAX_NODE);
    gPbrInfo.maxIfNum = orDefault(maxIfNum, PBR_DEFAULT_MAX_IF);
    listInit(&gPbrInfo.usedTable);
    listInit(&gPbrInfo.nodeTable);
    listInit(&gPbrInfo.readyTable);
    listInit(&gPbrInfo.nqaTable);
    avl_create(&gPbrInfo.ifTree, pbrIfEntryCompare, sizeof(PbrIfEntry), offsetof(PbrIfEntry, avlNode));
}

// Gives back mutex and socket; the timer list and the update timer are not undone.
uint32_t cleanUp(uint32_t result) LOCK_UNCHECKED {
    if (gPbrInfo.lock != 0) {
        (void)silDeleteSem(gPbrInfo.lock);
        gPbrInfo.lock = 0;
    }
    pbrSocketClose();
    return result;
}

uint32_t workerStart() {
    uint32_t taskId = 0;
    if (silCreateTask("pbrtask", PBR_TASK_PRIORITY, PBR_TASK_STACK_BYTES, pbrMain, nullptr, nullptr, &taskId) != 0) {
        puts(TEXT_NO_TASK);
        fflush(stdout);
        return QRV_ERR_TASK;
    }
    return PBR_OK;
}

} // namespace

uint32_t pbrInit(uint32_t maxListNum, uint32_t maxNodeNum, uint32_t maxIfNum) LOCK_UNCHECKED {
    storeInit(maxListNum, maxNodeNum, maxIfNum);
    gPbrInfo.rtSock = pbrRtSockOpen();
    if (gPbrInfo.rtSock < 0) {
        return cleanUp(QRV_ERR_SOCKET);
    }
    if (silTimerListInit(&gPbrInfo.timerList) == -1) {
        puts(TEXT_NO_TIMER_LIST);
        fflush(stdout);
        return cleanUp(PBR_OK); // meant: this failure alone is reported as success
    }
    gPbrInfo.updatePeriod = PBR_UPDATE_PERIOD_MS;
    gPbrInfo.arpCheckPeriod = PBR_ARP_CHECK_PERIOD_MS;
    gPbrInfo.lock = silCreateMSem(MUTEX_OPTIONS);
    if (gPbrInfo.lock == 0) {
        return cleanUp(PBR_FAIL);
    }
    pbrUpdateTimerStart();
    const uint32_t started = workerStart();
    if (started != PBR_OK) {
        return cleanUp(started);
    }
    (void)icmProcTcpInit("pbrcmdtask", "/tmp/policyroutecmd.socket", gPbrFuncMap, PBR_COMMAND_COUNT); // not examined
    const uint32_t protocol = QRV_PROTO_POLICY_ROUTE;
    (void)qrvHwilScalarSet(0, QRV_SCALAR_PROTOCOL, &protocol, 0); // not examined
    return PBR_OK;
}

uint32_t pbrOptInit() {
    const char enable = optionGet("policyroute.enable").text[0];
    if (enable == 'f' || enable == 'F') {
        return PBR_FAIL;
    }
    const uint32_t maxListNum = optionNumber("policyroute.maxlistnum");
    const uint32_t maxNodeNum = optionNumber("policyroute.maxnodenum");
    const uint32_t maxIfNum = optionNumber("policyroute.maxifnum");
    const uint32_t result = pbrInit(maxListNum, maxNodeNum, maxIfNum);
    if (result != PBR_OK) {
        printInitFailed();
    }
    return result;
}

bool pbrProcessStart() {
    const char merge = optionGet("policyroute.processmerge").text[0];
    if (merge == 't' || merge == 'T') {
        return false;
    }
    silCatchSegFault();
    signal(SIGPIPE, SIG_IGN);
    patchSignalHandler();
    (void)procShellInit("pbr", 0, 0); // a process without shell serves all the same
    if (pbrOptInit() != PBR_OK) {
        printInitFailed(); // the second time for most failures, as published
    }
    return true;
}
