// The mutex of the store.
#include "core/pbr_info.h"
#include "platform/dev_sync.h"
#include "platform/sil_sem.h"

int32_t pbrLock() {
    return silTakeSem(gPbrInfo.lock, -1);
}

int32_t pbrUnlock() {
    devSyncStore();
    return silGiveSem(gPbrInfo.lock);
}
