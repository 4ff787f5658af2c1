// The question to the interface layer whether a member of an aggregation needs entries of its own.
#ifndef PLATFORM_QRV_IF_AGG_H
#define PLATFORM_QRV_IF_AGG_H

#include "platform/platform_types.h"

constexpr uint32_t AGG_PORT_ADDED = 0x03E80135u;
constexpr uint32_t AGG_PORT_REMOVED = 0x03E80136u;
constexpr uint8_t AGG_MEMBER_ENTRIES = 0x01; // answer: the member port needs entries of its own

extern "C" {

// Record of qrvIfGetApi(aggregation, QRV_IF_HWAPIFUNCDISPATCH): 20 bytes, machine order, zeroed before use.
struct AggDispatchReq {
    uint32_t function;    // AGG_PORT_ADDED or AGG_PORT_REMOVED
    uint32_t reserved4;   // 0
    uint8_t answer;       // set by the interface layer
    uint8_t reserved9[11];// 0
};
}
static_assert(sizeof(AggDispatchReq) == 20 && offsetof(AggDispatchReq, answer) == 8);

#endif
