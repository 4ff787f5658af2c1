// Pools of fixed-size slots (platform/sil_mempool.h).
//
// One zeroed array of slots and one array of slot states, both taken when the pool is made and touched
// only as slots are used. The free list runs through the states, not through the slots: what a freed slot
// held stays as it was until the slot is taken again, so a stale read finds old values and no wild link.
//
// State of a slot: TAKEN, or the number (index + 1) of the next free slot, 0 at the end of the free list
// and for a slot that was never taken. Slots from word FRESH on were never taken.
#include "platform/sil_mempool.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/logging/host_log.h"

namespace {

enum PoolWord { SLOTS, STATES, SLOT_BYTES, SLOT_COUNT, FRESH, FREE_FIRST, NAME };

constexpr uint32_t TAKEN = 0xFFFFFFFFu;
constexpr uint32_t MAX_SLOTS = TAKEN - 2; // index + 1 of every slot differs from TAKEN

uint8_t *slotsOf(const SilMemPool *pPool) {
    return reinterpret_cast<uint8_t *>(pPool->word[SLOTS]);
}

uint32_t *statesOf(const SilMemPool *pPool) {
    return reinterpret_cast<uint32_t *>(pPool->word[STATES]);
}

const char *nameOf(const SilMemPool *pPool) {
    return pPool->word[NAME] != 0 ? reinterpret_cast<const char *>(pPool->word[NAME]) : "?";
}

// Bytes from slot to slot: a multiple of a pointer's size, so that every slot is aligned for one.
uint64_t strideFor(uint32_t slotBytes) {
    return (static_cast<uint64_t>(slotBytes) + sizeof(void *) - 1) / sizeof(void *) * sizeof(void *);
}

// The index of a slot that is taken from this pool; the pool's slot count for anything else.
uintptr_t takenIndex(const SilMemPool *pPool, const void *pSlot) {
    const uintptr_t offset = reinterpret_cast<uintptr_t>(pSlot) - pPool->word[SLOTS];
    const uintptr_t stride = pPool->word[SLOT_BYTES];
    if (pPool->word[SLOTS] == 0 || offset % stride != 0 || offset / stride >= pPool->word[FRESH]) {
        return pPool->word[SLOT_COUNT];
    }
    return statesOf(pPool)[offset / stride] == TAKEN ? offset / stride : pPool->word[SLOT_COUNT];
}

} // namespace

int32_t silMemPoolInit(SilMemPool *pPool, const char *name, uint32_t slotCount, uint32_t slotBytes,
                       uint32_t) {
    if (pPool == nullptr) {
        return -1;
    }
    *pPool = SilMemPool{};
    const uint64_t stride = strideFor(slotBytes);
    if (slotBytes == 0 || slotCount > MAX_SLOTS || stride * slotCount > SIZE_MAX / 2) {
        errno = ENOMEM;
        return -1;
    }
    // One more than asked for, so that a pool without slots is a pool too.
    void *pSlots = calloc(static_cast<size_t>(slotCount) + 1, static_cast<size_t>(stride));
    void *pStates = calloc(static_cast<size_t>(slotCount) + 1, sizeof(uint32_t));
    if (pSlots == nullptr || pStates == nullptr) {
        free(pSlots);
        free(pStates);
        errno = ENOMEM;
        return -1;
    }
    pPool->word[SLOTS] = reinterpret_cast<uintptr_t>(pSlots);
    pPool->word[STATES] = reinterpret_cast<uintptr_t>(pStates);
    pPool->word[SLOT_BYTES] = static_cast<uintptr_t>(stride);
    pPool->word[SLOT_COUNT] = slotCount;
    pPool->word[NAME] = reinterpret_cast<uintptr_t>(name);
    return 0;
}

void *silMemPoolAlloc(SilMemPool *pPool, uint32_t) {
    if (pPool == nullptr || pPool->word[SLOTS] == 0) {
        return nullptr;
    }
    uint32_t *pStates = statesOf(pPool);
    uintptr_t index = pPool->word[FRESH];
    if (pPool->word[FREE_FIRST] != 0) {
        index = pPool->word[FREE_FIRST] - 1;
        pPool->word[FREE_FIRST] = pStates[index];
    } else if (index < pPool->word[SLOT_COUNT]) {
        ++pPool->word[FRESH];
    } else {
        return nullptr;
    }
    pStates[index] = TAKEN;
    return memset(slotsOf(pPool) + index * pPool->word[SLOT_BYTES], 0, pPool->word[SLOT_BYTES]);
}

void silMemPoolFree(SilMemPool *pPool, void *pSlot) {
    if (pPool == nullptr || pSlot == nullptr) {
        return;
    }
    const uintptr_t index = takenIndex(pPool, pSlot);
    if (index == pPool->word[SLOT_COUNT]) {
        host::hostLog(host::LOG_LEVEL_ERROR, "sil", "pool %s: %p is not a slot in use; nothing is freed",
                      nameOf(pPool), pSlot);
        return;
    }
    statesOf(pPool)[index] = static_cast<uint32_t>(pPool->word[FREE_FIRST]);
    pPool->word[FREE_FIRST] = index + 1;
}

void silMemPoolDestroy(SilMemPool *pPool) {
    if (pPool == nullptr) {
        return;
    }
    free(slotsOf(pPool));
    free(statesOf(pPool));
    *pPool = SilMemPool{};
}
