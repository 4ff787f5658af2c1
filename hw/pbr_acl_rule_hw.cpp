// Device rules of single ACL rules: see the header.
#include "hw/pbr_acl_rule_hw.h"

#include <cstring>

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "hw/pbr_dev_printf.h"
#include "hw/pbr_if_name.h"
#include "nexthop/pbr_address.h"
#include "platform/acl.h"
#include "platform/acl_dev_entry.h"
#include "platform/qrv_if.h"
#include "store/pbr_port_bit.h"

namespace {

#define HEADER(verb, direction, equals)                                                             \
    "Acl %d " verb " rule %d,interface %s " direction " policy route node to hardware:"             \
    "aclNum=%d,ipPri=%d,forwardFlag=%d,outIfUnit=%d,vrfid=%d,isEcmp=%d,policyRouteIpVer" equals     \
    "%d.\r\n"
constexpr char TEXT_ADD[] = HEADER("add", "add", " = ");
constexpr char TEXT_ADD_LOG[] = HEADER("add", "add", "=");
constexpr char TEXT_DEL[] = HEADER("delete", "del", " = ");
constexpr char TEXT_DEL_LOG[] = HEADER("delete", "del", "=");
#undef HEADER
constexpr char TEXT_NO_NEXT_HOP[] = "nextHop is not exist.\r\n";
constexpr char TEXT_IPV4[] = "%s nextHop%d=0x%x.\r\n";
constexpr char TEXT_IPV6[] = "%s ipv6 nextHop%d=%s\r\n";
constexpr char TEXT_NONE[] = "pbr acl rule hardware add none nexthop.\r\n";
// Of a removal too, with "add" in it: published, kept for those who parse it.
constexpr char TEXT_SETTINGS[] = "pbr acl rule hardware add ipPri=%d,outIfUnit=%d,vrfid=%d.\r\n";
constexpr char TEXT_RESULT[] = "%s return:%d.\r\n";

constexpr uint32_t RESULT_LOG_FLAGS = 1;
constexpr uint32_t HEADER_LOG_FLAGS = 2;
constexpr uint32_t DETAIL_LOG_FLAGS = 3;
constexpr uint32_t IPV4_BYTES = 4;
constexpr uint32_t IPV6_BYTES = 16;
// Match bits of the record that belong to the action and are cleared after the translation.
constexpr uint32_t ACTION_MATCH_BITS[] = {41, 42, 43};

// A text behind its debug bit and, the same, always in the log.
#define BOTH(flags, ...)                                                                            \
    do {                                                                                            \
        PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, __VA_ARGS__);                               \
        loggingLogOutput(PBR_LOG_HARDWARE, gPbrDebugPri[3], (flags), __VA_ARGS__);                  \
    } while (0)

bool isChosen(const PbrNextHopEntry *pHop) {
    return pHop->curSelected != 0;
}

bool isWritten(const PbrNextHopEntry *pHop) {
    return pHop->lastSelected != 0;
}

// What differs between writing and removing a rule.
struct RuleChange {
    const char *pPrefix;                             // opens its texts
    const char *pLaterPrefix;                        // of the IPv4 ECMP members after the first
    uint32_t type;                                   // of the descriptor
    bool (*isTaken)(const PbrNextHopEntry *pHop);    // which next hops it carries
    uint32_t (*ipv6Slot)(const uint8_t *pEntry, uint32_t taken); // slot of an IPv6 ECMP member
};

// The first of the IPv4 slots whose word is still 0; ACL_DEV_NEXT_HOP_SLOTS when all are taken.
uint32_t ipv4FreeSlot(const uint8_t *pEntry) {
    uint32_t slot = 0;
    while (slot < ACL_DEV_NEXT_HOP_SLOTS &&
           pbrLoadBe32(pEntry + ACL_DEV_IPV4_NEXT_HOPS + slot * IPV4_BYTES) != 0) {
        slot++;
    }
    return slot;
}

// The add tests, for every member but the first, words 284, 288 and 292 of the record: IPv4 words, which
// stay 0 here, so that every later member lands in slot 1 and slots 2 and 3 stay empty. Published
// behaviour, kept; the delete tests the IPv6 slots themselves.
uint32_t ipv6SlotOfAdd(const uint8_t *pEntry, uint32_t taken) {
    constexpr uint32_t TESTED[] = {284, 288, 292};
    if (taken == 0 && pbrLoadBe32(pEntry + ACL_DEV_IPV6_NEXT_HOPS) == 0) {
        return 0;
    }
    uint32_t slot = 1;
    for (uint32_t offset : TESTED) {
        if (pbrLoadBe32(pEntry + offset) == 0) {
            return slot;
        }
        slot++;
    }
    return ACL_DEV_NEXT_HOP_SLOTS;
}

uint32_t ipv6SlotOfDel(const uint8_t *pEntry, uint32_t) {
    uint32_t slot = 0;
    while (slot < ACL_DEV_NEXT_HOP_SLOTS &&
           pbrLoadBe32(pEntry + ACL_DEV_IPV6_NEXT_HOPS + slot * IPV6_BYTES) != 0) {
        slot++;
    }
    return slot;
}

constexpr RuleChange ADD = {"pbr acl rule hardware add", "pbr acl rule hardware add hardware add",
                            ACL_DEV_RULE_ADD, isChosen, ipv6SlotOfAdd};
constexpr RuleChange DEL = {"pbr acl rule hardware del", "pbr acl rule hardware del", ACL_DEV_RULE_DEL,
                            isWritten, ipv6SlotOfDel};

void actionSet(uint8_t *pEntry, uint32_t bit) PBR_LOCK_HELD {
    pbrPortBitSet(pEntry + ACL_DEV_ACTION, bit);
}

// ---- the next hops ----

void ipv4Write(uint8_t *pEntry, const PbrNodeEntry *pNode, const RuleChange &change,
               const PbrNextHopEntry *pHop, uint32_t taken) PBR_LOCK_HELD {
    const bool isEcmp = pbrNodeIsEcmpGet(pNode) != 0;
    const uint32_t slot = isEcmp ? ipv4FreeSlot(pEntry) : 0; // one next hop: the last one taken stays
    if (slot < ACL_DEV_NEXT_HOP_SLOTS) {
        memcpy(pEntry + ACL_DEV_IPV4_NEXT_HOPS + slot * IPV4_BYTES, pHop->nextHop, IPV4_BYTES);
    }
    BOTH(DETAIL_LOG_FLAGS, TEXT_IPV4, slot == 0 ? change.pPrefix : change.pLaterPrefix,
         static_cast<int32_t>(taken + 1), pbrLoadBe32(pHop->nextHop));
}

void ipv6Write(uint8_t *pEntry, const PbrNodeEntry *pNode, const RuleChange &change,
               const PbrNextHopEntry *pHop, uint32_t taken) PBR_LOCK_HELD {
    const uint32_t slot = pbrNodeIsEcmpGet(pNode) != 0 ? change.ipv6Slot(pEntry, taken) : 0;
    if (slot < ACL_DEV_NEXT_HOP_SLOTS) {
        memcpy(pEntry + ACL_DEV_IPV6_NEXT_HOPS + slot * IPV6_BYTES, pHop->nextHop, IPV6_BYTES);
    }
    const PbrAddressText address = pbrAddressPrint(PBR_IP_VERSION_6, pHop->nextHop);
    BOTH(DETAIL_LOG_FLAGS, TEXT_IPV6, change.pPrefix, static_cast<int32_t>(taken + 1), address.text);
}

// Result: how many next hops the record carries.
uint32_t nextHopsWrite(uint8_t *pEntry, const PbrNodeEntry *pNode, const RuleChange &change) {
    const bool isIpv4 = pNode->policyRouteIpVer == PBR_IP_VERSION_4;
    uint32_t taken = 0;
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (!change.isTaken(pHop)) {
            continue;
        }
        (isIpv4 ? ipv4Write : ipv6Write)(pEntry, pNode, change, pHop, taken);
        taken++;
    }
    return taken;
}

// Sets VRF, version and next hops. Result: how many next hops the record carries.
uint32_t redirectWrite(uint8_t *pEntry, const PbrNodeEntry *pNode, const RuleChange &change) PBR_LOCK_HELD {
    if (pNode->vrfid != 0) {
        actionSet(pEntry, ACL_DEV_ACTION_VRF);
        pbrStoreBe32(pEntry + ACL_DEV_VRF, pNode->vrfid);
    }
    if (pNode->policyRouteIpVer == PBR_IP_VERSION_4) {
        actionSet(pEntry, ACL_DEV_ACTION_IPV4); // also for a set: there is no bit of its own
        pEntry[ACL_DEV_IP_VER] = PBR_IP_VERSION_4;
        return nextHopsWrite(pEntry, pNode, change);
    }
    if (pNode->policyRouteIpVer == PBR_IP_VERSION_6) {
        actionSet(pEntry, pbrNodeIsEcmpGet(pNode) != 0 ? ACL_DEV_ACTION_IPV6_ECMP : ACL_DEV_ACTION_IPV6);
        return nextHopsWrite(pEntry, pNode, change);
    }
    return 0;
}

// Adds the node's action. Result: whether the record says anything to do.
bool actionWrite(uint8_t *pEntry, const PbrNodeEntry *pNode, const RuleChange &change) PBR_LOCK_HELD {
    const bool hasPriority = pbrNodeIpPriGet(pNode) != PBR_IP_PRI_NONE;
    if (hasPriority) {
        actionSet(pEntry, ACL_DEV_ACTION_PRIORITY);
        pbrStoreBe32(pEntry + ACL_DEV_NEW_PRIORITY, pbrNodeIpPriGet(pNode));
    }
    if (hasPriority && listEmpty(&pNode->nextHopList) && pNode->outIfUnit == 0 && pNode->vrfid == 0) {
        return true;
    }
    if (pNode->outIfUnit != 0) {
        actionSet(pEntry, ACL_DEV_ACTION_OUT_IF);
        pbrStoreBe32(pEntry + ACL_DEV_IPV4_NEXT_HOPS, pNode->outIfUnit);
        return true;
    }
    return redirectWrite(pEntry, pNode, change) != 0;
}

// ---- the record ----

// The ACL module's match fields, with the parts that belong to the action cleared.
void translate(uint8_t *pEntry, uint32_t listNum, uint32_t ruleNum) PBR_LOCK_HELD {
    const uint32_t ruleKey[3] = {listNum, ruleNum, 0};
    (void)aclRuleDevTrans(ruleKey, pEntry); // its result is not looked at
    memset(pEntry + ACL_DEV_ACTION, 0, ACL_DEV_PARAMETERS_END - ACL_DEV_ACTION);
    memset(pEntry + ACL_DEV_OUT_ACTION, 0, 2);
    memset(pEntry + ACL_DEV_OWN_AREA, 0, ACL_DEV_OWN_AREA_END - ACL_DEV_OWN_AREA);
    for (uint32_t bit : ACTION_MATCH_BITS) {
        pbrPortBitClear(pEntry + ACL_DEV_BITS, bit);
    }
    pEntry[ACL_DEV_LAYER_TYPE] = ACL_DEV_LAYER_3_4;
}

// A removal names the rule and nothing of what it matches.
void ruleName(uint8_t *pEntry, const PbrNodeEntry *pNode, uint32_t listNum, uint32_t ruleNum) {
    pbrStoreBe32(pEntry + ACL_DEV_LST_IDX, listNum);
    pbrStoreBe32(pEntry + ACL_DEV_RULE_IDX, ruleNum);
    pbrStoreBe16(pEntry + ACL_DEV_PRIORITY, static_cast<uint16_t>(ruleNum));
    pEntry[ACL_DEV_LAYER_TYPE] = ACL_DEV_LAYER_3_4;
    const uint8_t version = pNode->policyRouteIpVer;
    pEntry[ACL_DEV_IP_VER] = version == PBR_IP_VERSION_4 || version == PBR_IP_VERSION_6 ? version : 0;
}

int32_t entrySend(const PbrIfNodeEntry *pLink, uint8_t *pEntry, const RuleChange &change) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    pEntry[ACL_DEV_DIR] = 0;
    pbrDevPrintf(pEntry);
    PbrDevRuleDesc desc = {change.type, pEntry, 0, ACL_DEV_ENTRY_BYTES, {0, 0}};
    const int32_t result = qrvIfSetApi(pLink->ifUnit, QRV_IF_RULE_DEVICE, &desc);
    if (pbrNodeIpPriGet(pNode) != PBR_IP_PRI_NONE || pNode->outIfUnit != 0 || pNode->vrfid != 0) {
        loggingLogOutput(PBR_LOG_HARDWARE, gPbrDebugPri[3], DETAIL_LOG_FLAGS, TEXT_SETTINGS,
                         static_cast<int32_t>(pbrNodeIpPriGet(pNode)),
                         static_cast<int32_t>(pNode->outIfUnit), static_cast<int32_t>(pNode->vrfid));
    }
    return result;
}

void noNextHopLog(const PbrNodeEntry *pNode) PBR_LOCK_HELD {
    if (listEmpty(&pNode->nextHopList)) {
        BOTH(DETAIL_LOG_FLAGS, TEXT_NO_NEXT_HOP);
    }
}

#define HEADER_ARGS(pLink, listNum, ruleNum)                                                        \
    static_cast<int32_t>(listNum), static_cast<int32_t>(ruleNum), pbrIfNameGet((pLink)->ifUnit).text,  \
        static_cast<int32_t>((pLink)->pPbrNode->aclNum),                                            \
        static_cast<int32_t>(pbrNodeIpPriGet((pLink)->pPbrNode)),                                   \
        static_cast<int32_t>(pbrNodeForwardFlagGet((pLink)->pPbrNode)),                             \
        static_cast<int32_t>((pLink)->pPbrNode->outIfUnit),                                         \
        static_cast<int32_t>((pLink)->pPbrNode->vrfid),                                             \
        static_cast<int32_t>(pbrNodeIsEcmpGet((pLink)->pPbrNode)), (pLink)->pPbrNode->policyRouteIpVer

// Writes the header text, the debug form and the log form, and the text of a node without next hops.
void addHeader(const PbrIfNodeEntry *pLink, uint32_t listNum, uint32_t ruleNum) PBR_LOCK_HELD {
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_ADD, HEADER_ARGS(pLink, listNum, ruleNum));
    loggingLogOutput(PBR_LOG_HARDWARE, gPbrDebugPri[3], HEADER_LOG_FLAGS, TEXT_ADD_LOG,
                     HEADER_ARGS(pLink, listNum, ruleNum));
    noNextHopLog(pLink->pPbrNode);
}

void delHeader(const PbrIfNodeEntry *pLink, uint32_t listNum, uint32_t ruleNum) PBR_LOCK_HELD {
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_DEL, HEADER_ARGS(pLink, listNum, ruleNum));
    loggingLogOutput(PBR_LOG_HARDWARE, gPbrDebugPri[3], HEADER_LOG_FLAGS, TEXT_DEL_LOG,
                     HEADER_ARGS(pLink, listNum, ruleNum));
    noNextHopLog(pLink->pPbrNode);
}
#undef HEADER_ARGS

bool isForwardOnly(const PbrIfNodeEntry *pLink) {
    return pbrNodeForwardFlagGet(pLink->pPbrNode) == PBR_FORWARD_FLAG_NO_DEVICE;
}

void resultCount(const RuleChange &change, int32_t result, uint32_t *pDone, uint32_t *pFailed) PBR_LOCK_HELD {
    (result == 0 ? *pDone : *pFailed)++;
    BOTH(RESULT_LOG_FLAGS, TEXT_RESULT, change.pPrefix, result);
}

} // namespace

int32_t pbrAclRuleHwAdd(PbrIfNodeEntry *pLink, uint32_t listNum, uint32_t ruleNum) {
    alignas(4) uint8_t entry[ACL_DEV_ENTRY_BYTES] = {};
    addHeader(pLink, listNum, ruleNum);
    if (isForwardOnly(pLink)) {
        pbrIfNodeHwStatusSet(pLink, PBR_HW_PROGRAMMED);
        return 0;
    }
    translate(entry, listNum, ruleNum);
    if (!actionWrite(entry, pLink->pPbrNode, ADD)) {
        PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_NONE);
        return 0;
    }
    const int32_t result = entrySend(pLink, entry, ADD);
    resultCount(ADD, result, &gPbrInfo.hwAclAddCnt, &gPbrInfo.hwAclAddErr);
    return result;
}

int32_t pbrAclRuleHwDel(PbrIfNodeEntry *pLink, uint32_t listNum, uint32_t ruleNum) {
    alignas(4) uint8_t entry[ACL_DEV_ENTRY_BYTES] = {};
    delHeader(pLink, listNum, ruleNum);
    if (isForwardOnly(pLink)) {
        return 0; // hwStatus stays, unlike on an add
    }
    ruleName(entry, pLink->pPbrNode, listNum, ruleNum);
    (void)actionWrite(entry, pLink->pPbrNode, DEL); // sent in any case
    const int32_t result = entrySend(pLink, entry, DEL);
    resultCount(DEL, result, &gPbrInfo.hwAclDelCnt, &gPbrInfo.hwAclDelErr);
    return result;
}
