// The six record pools.
//
// Making them is one list of rows; a row that fails undoes all. The sizes follow from three limits
// that operators set without upper bound, so slots are counted in 64 bits.
#include "core/pbr_mem.h"

#include "core/pbr_trace.h"
#include "store/pbr_records.h"

namespace {

const char TEXT_ALLOCATED[] = "pbr allocate  memory success.\r\n"; // two blanks, as published
const char TEXT_FREED[] = "pbr free memory success.\r\n";

constexpr uint64_t POOL_SHARE = 4; // next hops, and probe tests, to a node

int32_t poolInit(SilMemPool *pPool, const char *name, uint64_t slotCount, size_t slotBytes) {
    if (slotCount > UINT32_MAX) {
        return -1;
    }
    return silMemPoolInit(pPool, name, static_cast<uint32_t>(slotCount), static_cast<uint32_t>(slotBytes), 0);
}

void poolsDestroy() PBR_LOCK_HELD {
    silMemPoolDestroy(&gPbrInfo.ifPool);
    silMemPoolDestroy(&gPbrInfo.listPool);
    silMemPoolDestroy(&gPbrInfo.nodePool);
    silMemPoolDestroy(&gPbrInfo.nextHopPool);
    silMemPoolDestroy(&gPbrInfo.ifNodePool);
    silMemPoolDestroy(&gPbrInfo.nqaPool);
    gPbrInfo.memAllocated = 0;
}

// The pools behind "pbr_if"; stops at the first failure.
int32_t poolsInitRest() PBR_LOCK_HELD {
    const uint64_t nodes = gPbrInfo.maxNodeNum;
    if (poolInit(&gPbrInfo.listPool, "pbr_list", gPbrInfo.maxListNum, sizeof(PbrListEntry)) != 0 ||
        poolInit(&gPbrInfo.nodePool, "pbr_node", nodes, sizeof(PbrNodeEntry)) != 0 ||
        poolInit(&gPbrInfo.nextHopPool, "pbr_nexthop", POOL_SHARE * nodes, sizeof(PbrNextHopEntry)) != 0 ||
        poolInit(&gPbrInfo.ifNodePool, "pbr_ifnode", gPbrInfo.maxIfNum * nodes, sizeof(PbrIfNodeEntry)) != 0 ||
        poolInit(&gPbrInfo.nqaPool, "pbr_nqa", POOL_SHARE * nodes, sizeof(PbrNqaEntry)) != 0) {
        return -1;
    }
    return 0;
}

} // namespace

int32_t pbrMemAlloc() {
    if (gPbrInfo.memAllocated != 0) {
        return 0;
    }
    if (poolInit(&gPbrInfo.ifPool, "pbr_if", gPbrInfo.maxIfNum, sizeof(PbrIfEntry)) != 0) {
        return -1;
    }
    if (poolsInitRest() != 0) {
        poolsDestroy();
        return -1;
    }
    gPbrInfo.memAllocated = 1;
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_ALLOCATED);
    return 0;
}

int32_t pbrMemFree() {
    poolsDestroy();
    // A renamed test leaves its record behind; its slot is gone now.
    listInit(&gPbrInfo.nqaTable);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_FREED);
    return 0;
}
