// The name of the store's mutex (gPbrInfo.lock) in contracts that clang's analysis checks.
//
// pbrLock and pbrUnlock (core/pbr_info.h) take it and give it back; whatever touches gPbrInfo holds it, or says why not.
#ifndef CORE_PBR_STORE_LOCK_H
#define CORE_PBR_STORE_LOCK_H

#include "platform/thread_safety.h"

// What the analysis follows in the place of the mutex's handle; there is no object of it.
struct LOCK_TYPE("the daemon's mutex") PbrStoreLock {};
extern PbrStoreLock gPbrStoreLock;

// Behind a function's parameters: Lock: held by caller.
#define PBR_LOCK_HELD LOCK_HELD(gPbrStoreLock)

#endif
