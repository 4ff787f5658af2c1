// Host-route detection: watches peers and reports them up, down and changed on the route bus.
#ifndef PLATFORM_HRD_H
#define PLATFORM_HRD_H

#include "platform/platform_types.h"

constexpr uint32_t HRD_OBJECT_PEER = 6; // hrdScalarSetApi: the peer table

// The registration record: 16 bytes (IPv4) or 28 bytes (IPv6).
constexpr uint32_t HRD_PEER_OPERATION = 0; // u8: 1 add, 0 delete
constexpr uint32_t HRD_PEER_FAMILY = 1;    // u8: 1 IPv4, 2 IPv6
constexpr uint32_t HRD_PEER_KIND = 2;      // u8: always 7
constexpr uint32_t HRD_PEER_VRF = 4;       // u32, big-endian
constexpr uint32_t HRD_PEER_ADDRESS = 12;  // 4 or 16 bytes, network order
constexpr uint32_t HRD_PEER_IPV4_BYTES = 16;
constexpr uint32_t HRD_PEER_IPV6_BYTES = 28;

extern "C" {

// Two words: address of the record and its length in bytes.
struct HrdPeerDesc {
    const void *pRecord;
    uint32_t len;
};

// Adds or deletes a peer. Repeated adds of one peer are one registration; after every add, a repeated
// one too, the peer's present state is posted as HRD_UP or HRD_DOWN, never during the call.
// Result: 0 or failure, not used. Lock: held by caller; takes the service's own
int32_t hrdScalarSetApi(uint32_t unit, uint32_t object, HrdPeerDesc *pDesc);
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(HrdPeerDesc) == 8 && offsetof(HrdPeerDesc, len) == 4);
#endif

#endif
