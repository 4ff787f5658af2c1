// The ACL module: access lists, their use counts, and the redirect records of interfaces.
#ifndef PLATFORM_ACL_H
#define PLATFORM_ACL_H

#include "platform/platform_types.h"

constexpr uint32_t ACL_LST_USERS = 2;     // aclLstSyncApi: one user more (+1) or less (-1)
constexpr uint32_t ACL_LST_READ = 4;      // aclLstGetApi: does the ACL exist
constexpr uint32_t PBR_HW_ACL_ADD = 20;   // aclIfSetApi: write the record of (interface, ACL)
constexpr uint32_t PBR_HW_ACL_DEL = 21;   // aclIfSetApi: remove it

// The redirect record of one (interface, ACL): 80 bytes, big-endian, zero where not set.
constexpr uint32_t PBR_HW_ACL_CONTENT_BYTES = 80;
constexpr uint32_t PBR_HW_ACL_IF_UNIT = 0;    // u32 interface unit
constexpr uint32_t PBR_HW_ACL_LST_INDEX = 4;  // u32 ACL number
constexpr uint32_t PBR_HW_ACL_DIRECTION = 8;  // u8, always 0: inbound
constexpr uint32_t PBR_HW_ACL_ACTION = 9;     // u8, PbrHwAction
constexpr uint32_t PBR_HW_ACL_NEW_IP_PRI = 10;// u8 new priority, 0 unchanged
constexpr uint32_t PBR_HW_ACL_VRF_ID = 12;    // u32
constexpr uint32_t PBR_HW_ACL_NEXT_HOPS = 16; // 64 bytes: addresses, or the out interface as u32
constexpr uint32_t PBR_HW_ACL_NEXT_HOPS_BYTES = 64;

enum PbrHwAction : uint8_t {
    PBR_HW_ACTION_NONE = 0,       // no action chosen; see the redirect view
    PBR_HW_ACTION_OUT_IF = 4,     // out of an interface
    PBR_HW_ACTION_IPV4 = 7,       // one IPv4 next hop
    PBR_HW_ACTION_IPV4_ECMP = 8,  // IPv4 set
    PBR_HW_ACTION_IPV6 = 46,      // one IPv6 next hop
    PBR_HW_ACTION_IPV6_ECMP = 50, // IPv6 set
};

extern "C" {

// Carries a redirect record; 8 bytes where pointers have 4.
struct PbrHwAclDesc {
    const void *pContent; // PBR_HW_ACL_CONTENT_BYTES bytes
    uint32_t len;         // always PBR_HW_ACL_CONTENT_BYTES
};

// Writes (PBR_HW_ACL_ADD: inserts or replaces) or removes (PBR_HW_ACL_DEL: by key, an absent key is 0)
// the redirect of (ifUnit, ACL). The record is read during the call. Result: 0 done, else why not;
// passed back to the caller's callers unchanged. Lock: held by caller; takes the module's own
[[nodiscard]] int32_t aclIfSetApi(uint32_t ifUnit, uint32_t command, PbrHwAclDesc *pDesc);

// ACL_LST_USERS: tells that an ACL has one user more or less; *pDelta is +1 or -1.
// Result: 0 or failure, not used. Lock: held by caller; takes the module's own
int32_t aclLstSyncApi(uint32_t aclNum, uint32_t command, int32_t *pDelta);

// ACL_LST_READ: 0 when the ACL exists (its rule count is stored in *pValue), else non-zero.
// Lock: held by caller; takes the module's own
[[nodiscard]] int32_t aclLstGetApi(uint32_t aclNum, uint32_t command, uint32_t *pValue);

// Translates one rule into a device rule record (508 bytes, zeroed). pRuleKey: three u32, machine
// order: ACL number, rule number, 0. Result: 0 or failure, not used. Lock: held by caller
int32_t aclRuleDevTrans(const uint32_t *pRuleKey, void *pEntry);
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(PbrHwAclDesc) == 8 && offsetof(PbrHwAclDesc, len) == 4);
#endif

#endif
