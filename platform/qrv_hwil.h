// The hardware layer: scalars, slots, cards, and the synchronisation of accepted commands.
#ifndef PLATFORM_QRV_HWIL_H
#define PLATFORM_QRV_HWIL_H

#include "platform/platform_types.h"

constexpr uint32_t QRV_SCALAR_ARP_REFRESH = 55; // get: refreshes neighbour state; non-zero when ready
constexpr uint32_t QRV_SCALAR_READY = 46;       // get: non-zero when ready
constexpr uint32_t QRV_SCALAR_PROTOCOL = 499;   // set: protocol id of this daemon

struct PbrApiValue;

extern "C" {

// What is handed on with every accepted set; 64 bytes, machine order.
struct PbrSyncCtx {
    uint32_t syncFlags;   // 3 from a set, 1 from a sync; +0x10000000 interface; +0x80000000 byte string
    uint32_t keyLen;      // bytes of the key: 18 list, 28 node and next hop, 4 interface, 0 scalar
    uint8_t reserved1[8]; // 0
    uint32_t valueLen;    // 4 for a number, else bytes of the string
    uint8_t reserved2[44];// 0
};

// Reads or writes a system-wide scalar. unit: 0. pValue: u32, or null (get). Result: the scalar's
// value for a get, 0 for a set that was done. Lock: none
uint32_t qrvHwilScalarSet(uint32_t unit, uint32_t scalar, const uint32_t *pValue, uint32_t flags);
uint32_t qrvHwilScalarGet(uint32_t unit, uint32_t scalar, uint32_t *pValue);

// An attribute of a slot (key of 3 u32) or card (key of 4 u32): non-zero when ready for programming.
uint32_t qrvHwilSlotGet(const uint32_t *pKey, uint32_t attribute, uint32_t *pValue);
uint32_t qrvHwilCardGet(const uint32_t *pKey, uint32_t attribute, uint32_t *pValue);

// This system's index. Lock: none
uint32_t qrvSelfSysIndex(void);

// Receives every accepted set before it is applied. pKey: pCtx->keyLen bytes, null for scalars.
// commandCode: table base plus field. pValue: the caller's value. Nothing is kept after the call.
// Result: 0 to let the set proceed, else the code that the caller of the set receives.
// Lock: held by caller
[[nodiscard]] uint32_t qrvHwilCmdSyncApi(const void *pKey, uint32_t commandCode,
                                         const PbrApiValue *pValue, const PbrSyncCtx *pCtx);
}
static_assert(sizeof(PbrSyncCtx) == 64);

#endif
