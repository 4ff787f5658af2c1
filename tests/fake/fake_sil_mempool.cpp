// Pools of the fake: slots are filled with a pattern while free, so that a stale read shows.
#include "platform/sil_mempool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tests/fake/fake_state.h"

namespace fake {
namespace {

// Bytes from slot to slot: no further apart than the machine's alignment asks for.
uint64_t strideOf(uint64_t slotBytes) {
    constexpr uint64_t ALIGNMENT = alignof(max_align_t);
    return (slotBytes + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
}

const Pool *poolNamed(const std::string &name) {
    for (const auto &[pObject, pool] : state().pools) {
        if (pool.name == name) {
            return &pool;
        }
    }
    return nullptr;
}

// The slot's number, or -1 when the address is no slot of the pool.
int64_t slotOf(const Pool &pool, const void *pSlot) {
    const uint8_t *p = static_cast<const uint8_t *>(pSlot);
    if (pool.pMemory == nullptr || p < pool.pMemory || p >= pool.pMemory + pool.stride * pool.taken.size()) {
        return -1;
    }
    const size_t offset = static_cast<size_t>(p - pool.pMemory);
    return offset % pool.stride == 0 ? static_cast<int64_t>(offset / pool.stride) : -1;
}

} // namespace

bool poolExists(const std::string &name) {
    return poolNamed(name) != nullptr;
}
uint32_t poolSlots(const std::string &name) {
    const Pool *pPool = poolNamed(name);
    return pPool == nullptr ? 0 : static_cast<uint32_t>(pPool->taken.size());
}
uint32_t poolSlotBytes(const std::string &name) {
    const Pool *pPool = poolNamed(name);
    return pPool == nullptr ? 0 : pPool->slotBytes;
}
uint32_t slotsTaken(const std::string &name) {
    const Pool *pPool = poolNamed(name);
    return pPool == nullptr ? 0 : pPool->takenCount;
}
std::string poolOf(const void *pSlot) {
    for (const auto &[pObject, pool] : state().pools) {
        const int64_t slot = slotOf(pool, pSlot);
        if (slot >= 0 && pool.taken[static_cast<size_t>(slot)]) {
            return pool.name;
        }
    }
    return "";
}

} // namespace fake

using namespace fake;

extern "C" int32_t silMemPoolInit(SilMemPool *pPool, const char *name, uint32_t slotCount,
                                  uint32_t slotBytes, uint32_t flags) {
    const std::string line = text("silMemPoolInit(\"%s\", %u)", name, slotCount);
    if (flags != 0 || state().pools.count(pPool) != 0) {
        misuse(line + ": flags, or made twice");
    }
    // A pool of more than this is refused, as a machine without the memory would.
    const uint64_t total = static_cast<uint64_t>(slotCount) * strideOf(slotBytes);
    const int64_t rc = fallible("silMemPoolInit", line, total > (1u << 28) ? -1 : 0, -1);
    if (rc != 0) {
        return static_cast<int32_t>(rc);
    }
    Pool pool;
    pool.name = name;
    pool.slotBytes = slotBytes;
    pool.stride = strideOf(slotBytes);
    pool.taken.assign(slotCount, false);
    pool.pMemory = static_cast<uint8_t *>(malloc(total + 1));
    memset(pool.pMemory, 0xDD, total);
    pPool->word[0] = reinterpret_cast<uintptr_t>(pool.pMemory);
    state().pools[pPool] = pool;
    return 0;
}

extern "C" void *silMemPoolAlloc(SilMemPool *pPool, uint32_t flags) {
    auto found = state().pools.find(pPool);
    if (found == state().pools.end() || flags != 0) {
        misuse("silMemPoolAlloc from a pool that does not exist, or with flags");
        return nullptr;
    }
    Pool &pool = found->second;
    if (quietFallible("silMemPoolAlloc", pool.name, 1, 0) == 0) {
        return nullptr;
    }
    for (size_t i = pool.firstFree; i < pool.taken.size(); ++i) {
        if (!pool.taken[i]) {
            pool.taken[i] = true;
            pool.takenCount += 1;
            pool.firstFree = i + 1;
            return memset(pool.pMemory + i * pool.stride, 0, pool.slotBytes);
        }
    }
    return nullptr;
}

extern "C" void silMemPoolFree(SilMemPool *pPool, void *pSlot) {
    auto found = state().pools.find(pPool);
    const int64_t slot = found == state().pools.end() ? -1 : slotOf(found->second, pSlot);
    if (slot < 0 || !found->second.taken[static_cast<size_t>(slot)]) {
        misuse("silMemPoolFree of something that is not a taken slot of that pool");
        return;
    }
    found->second.taken[static_cast<size_t>(slot)] = false;
    found->second.takenCount -= 1;
    found->second.firstFree = std::min(found->second.firstFree, static_cast<size_t>(slot));
    memset(pSlot, 0xDD, found->second.slotBytes);
}

extern "C" void silMemPoolDestroy(SilMemPool *pPool) {
    auto found = state().pools.find(pPool);
    if (found == state().pools.end()) {
        record("silMemPoolDestroy(none)");
    } else {
        record(text("silMemPoolDestroy(\"%s\")", found->second.name.c_str()));
        free(found->second.pMemory);
        state().pools.erase(found);
    }
    memset(pPool, 0, sizeof(*pPool));
}
