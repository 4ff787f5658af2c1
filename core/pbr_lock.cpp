// The mutex of the store.
#include "core/pbr_info.h"
#include "platform/dev_sync.h"
#include "platform/sil_sem.h"

// These two are the mutex; its handle is set before the other tasks are made.

int32_t pbrLock() LOCK_UNCHECKED {
    return silTakeSem(gPbrInfo.lock, -1);
}

int32_t pbrUnlock() LOCK_UNCHECKED {
    devSyncStore();
    return silGiveSem(gPbrInfo.lock);
}
