// The synchronisation service (platform/qrv_hwil.h): hands every set that the daemon accepted to the
// keeper, before it is applied. What the keeper answers other than 0 keeps the set from being applied.
#include "host/hwil/cmd_sync.h"

#include "platform/platform_types.h"

namespace host {

namespace {

CommandKeeper *gKeeper = nullptr; // not changed once the daemon's tasks run

} // namespace

void commandKeeperSet(CommandKeeper *pKeeper) {
    gKeeper = pKeeper;
}

CommandKeeper *commandKeeper() {
    return gKeeper;
}

} // namespace host

uint32_t qrvHwilCmdSyncApi(const void *pKey, uint32_t commandCode, const PbrApiValue *pValue,
                           const PbrSyncCtx *pCtx) {
    host::CommandKeeper *pKeeper = host::commandKeeper();
    return pKeeper == nullptr ? QRV_OK : pKeeper->accepted(pKey, commandCode, pValue, pCtx);
}
