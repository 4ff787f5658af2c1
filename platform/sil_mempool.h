// Pools of fixed-size slots. A pool takes all its memory when it is made and is one contiguous array.
#ifndef PLATFORM_SIL_MEMPOOL_H
#define PLATFORM_SIL_MEMPOOL_H

#include "platform/platform_types.h"

extern "C" {

// Platform's own words; all zero for a pool that was never made or was destroyed.
struct SilMemPool {
    uintptr_t word[8];
};

// Makes a pool of slotCount slots of slotBytes bytes each. name: for reports. flags: the daemon
// passes 0. Result: 0, or non-zero when the memory is not to be had (slotCount x slotBytes is
// computed without overflow); the pool is then as if never made. Lock: held by caller
[[nodiscard]] int32_t silMemPoolInit(SilMemPool *pPool, const char *name, uint32_t slotCount,
                                     uint32_t slotBytes, uint32_t flags);

// Takes a slot: all its bytes zero, aligned for a pointer. flags: the daemon passes 0.
// Result: the slot, or null when all are taken. It lives until it is freed or the pool destroyed.
// Lock: held by caller
[[nodiscard]] void *silMemPoolAlloc(SilMemPool *pPool, uint32_t flags);

// Gives a slot back. pSlot: one taken from this pool. Lock: held by caller
void silMemPoolFree(SilMemPool *pPool, void *pSlot);

// Frees the pool's memory with all its slots; safe on a pool that was never made. Lock: held by caller
void silMemPoolDestroy(SilMemPool *pPool);
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(SilMemPool) == 32);
#endif

#endif
