// The synchronisation service (platform/qrv_hwil.h): sees every set that the daemon accepted, before it
// is applied, and lets it proceed.
//
// A host alone has nobody to keep in step. This is the place where a journal of the configuration or a
// standby would take the key, the command code and the value; whatever returns a code other than 0 here
// keeps the set from being applied.
#include "platform/icm.h"
#include "platform/qrv_hwil.h"

uint32_t qrvHwilCmdSyncApi(const void *, uint32_t, const PbrApiValue *, const PbrSyncCtx *) {
    return QRV_OK;
}
