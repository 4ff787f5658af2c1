// The worker task's loop.
#include "core/pbr_loop.h"

#include "core/pbr_info.h"
#include "platform/qrv_socket.h"
#include "rtmsg/pbr_rtm_rcv.h"

namespace {

constexpr uint32_t IDLE_WAIT_SEC = 3;
constexpr uint32_t LEAST_REMAINDER_MS = 17; // deliberate: never less than this behind the whole seconds

bool fdFits(int32_t fd) {
    return fd >= 0 && static_cast<uint32_t>(fd) < QRV_FD_SET_WORDS * 32;
}

uint32_t &fdWord(QrvFdSet *pSet, int32_t fd) {
    return pSet->word[static_cast<uint32_t>(fd) / 32];
}

uint32_t fdBit(int32_t fd) {
    return 1u << (static_cast<uint32_t>(fd) % 32);
}

// How long to wait when the next timer is due in timeoutMs, -1: none is armed.
QrvTimeval waitTime(int32_t timeoutMs) {
    if (timeoutMs == -1) {
        return {IDLE_WAIT_SEC, 0};
    }
    const uint32_t ms = static_cast<uint32_t>(timeoutMs);
    const uint32_t remainder = ms % 1000 < LEAST_REMAINDER_MS ? LEAST_REMAINDER_MS : ms % 1000;
    return {ms / 1000, remainder * 1000};
}

// Opened before this task was made, and not changed while it runs: read without the mutex.
int32_t routeSocket() LOCK_UNCHECKED {
    return gPbrInfo.rtSock;
}

int32_t nextTimeout() {
    (void)pbrLock(); // waits without limit
    const int32_t timeoutMs = silTimerListNextTimeout(&gPbrInfo.timerList);
    (void)pbrUnlock();
    return timeoutMs;
}

} // namespace

void pbrMainPass(int32_t *pMaxFd) {
    QrvFdSet readSet = {};
    const int32_t fd = routeSocket();
    if (fdFits(fd)) {
        fdWord(&readSet, fd) |= fdBit(fd);
        *pMaxFd = fd > *pMaxFd ? fd : *pMaxFd;
    }
    const QrvTimeval timeout = waitTime(nextTimeout());
    const int32_t ready = qrv_select(*pMaxFd, &readSet, &timeout);
    if (ready > 0 && fdFits(fd) && (fdWord(&readSet, fd) & fdBit(fd)) != 0) {
        (void)pbrLock();
        pbrRtmRcv(fd);
        (void)pbrUnlock();
    }
    (void)pbrLock();
    silTimerListCheck(&gPbrInfo.timerList);
    (void)pbrUnlock();
}

void pbrMain(void *, void *) {
    int32_t maxFd = 0;
    for (;;) {
        pbrMainPass(&maxFd);
    }
}
