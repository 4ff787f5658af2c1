// The update timer and the ARP-check timer.
#include "core/pbr_timer.h"

#include "core/pbr_info.h"
#include "nexthop/pbr_if_node_update.h"
#include "platform/qrv_hwil.h"

namespace {

int32_t timerArm(SilTimer *pTimer, uint32_t periodMs, SilTimerCallback callback) {
    return silTimerStart(&gPbrInfo.timerList, pTimer, 0, periodMs, callback, nullptr, 0, 0);
}

} // namespace

void pbrUpdateTimerStart() {
    pbrUpdateTimerStop();
    (void)timerArm(&gPbrInfo.updateTimer, gPbrInfo.updatePeriod, pbrUpdateTimerTimeOut); // not examined
}

void pbrUpdateTimerStop() {
    (void)silTimerStop(&gPbrInfo.timerList, &gPbrInfo.updateTimer); // harmless when it is not armed
}

int32_t pbrUpdateTimerTimeOut(void *) {
    (void)pbrIfNodeUpdate(); // 0 always
    return timerArm(&gPbrInfo.updateTimer, gPbrInfo.updatePeriod, pbrUpdateTimerTimeOut);
}

int32_t pbrArpCheckTimerTimeOut(void *) {
    (void)timerArm(&gPbrInfo.arpCheckTimer, gPbrInfo.arpCheckPeriod, pbrArpCheckTimerTimeOut);
    return static_cast<int32_t>(qrvHwilScalarGet(0, QRV_SCALAR_ARP_REFRESH, nullptr));
}
