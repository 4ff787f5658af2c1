// The debug dump of a device rule record: see the header.
#include "hw/pbr_dev_printf.h"

#include <cstdio>

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "platform/acl_dev_entry.h"

namespace {

#define DUMP(...) loggingDebugOutput(PBR_LOG_HARDWARE, PBR_TRACE_LEVEL, 0, __VA_ARGS__) // the bit is tested once

constexpr char TEXT_TITLE[] = "policyroute hardware dev content\n\r";
constexpr char TEXT_RULE[] = "---------------------------------------\n\r";
constexpr char TEXT_END[] = "-------------------end--------------------\n\r";
constexpr char TEXT_ACTION[] = "action=%x %x %x %x %x \r\n";
constexpr char TEXT_APP[] = "app=%d \n\r";
constexpr char TEXT_METER[] = "cir = %d ,pir = %d,cbs = %d,ebs = %d,pbs = %d \n\r";
constexpr uint32_t BITS_BYTES = 12;
constexpr uint32_t BITS_A_LINE = 8;
constexpr uint32_t LINE_SIZE = 128;
constexpr uint8_t IPV4 = 1;
constexpr uint16_t ICMP = 1;

int32_t word(const uint8_t *pEntry, uint32_t offset) {
    return static_cast<int32_t>(pbrLoadBe32(pEntry + offset));
}

int32_t half(const uint8_t *pEntry, uint32_t offset) {
    return pbrLoadBe16(pEntry + offset);
}

void actionDump(const uint8_t *pEntry) {
    const uint8_t *p = pEntry + ACL_DEV_ACTION;
    DUMP(TEXT_ACTION, p[0], p[1], p[2], p[3], p[4]);
}

// Eight bytes a line, the rest on a last one.
void bitsDump(const uint8_t *pEntry) {
    char line[LINE_SIZE] = {};
    uint32_t used = 0;
    for (uint32_t i = 0; i < BITS_BYTES; i++) {
        const char *pFormat = i == 0 ? "acl_dev->bits = %02x " : "%02x ";
        used += static_cast<uint32_t>(snprintf(line + used, LINE_SIZE - used, pFormat, pEntry[ACL_DEV_BITS + i]));
        if (i % BITS_A_LINE == BITS_A_LINE - 1) {
            DUMP("%s\n\r", line);
            line[0] = '\0';
            used = 0;
        }
    }
    if (used != 0) {
        DUMP("%s\n\r", line);
    }
}

void meterDump(const uint8_t *pEntry) {
    DUMP(TEXT_METER, word(pEntry, ACL_DEV_METER), word(pEntry, ACL_DEV_METER + 4),
         word(pEntry, ACL_DEV_METER + 8), word(pEntry, ACL_DEV_METER + 12), word(pEntry, ACL_DEV_METER + 16));
}

#define ADDRESS_ARGS(p) pbrLoadBe32(p), pbrLoadBe32((p) + 4), pbrLoadBe32((p) + 8), pbrLoadBe32((p) + 12)
#define MASK_TEXT "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x\n\r"
#define MASK_ARGS(p)                                                                                \
    (p)[0], (p)[1], (p)[2], (p)[3], (p)[4], (p)[5], (p)[6], (p)[7], (p)[8], (p)[9], (p)[10],        \
        (p)[11], (p)[12], (p)[13], (p)[14], (p)[15]

void addressesDump(const uint8_t *pEntry) {
    const uint8_t *pSource = pEntry + ACL_DEV_SRC_ADDR;
    const uint8_t *pDest = pEntry + ACL_DEV_DEST_ADDR;
    const uint8_t *pSourceMask = pEntry + ACL_DEV_SRC_STR_PREFIX;
    const uint8_t *pDestMask = pEntry + ACL_DEV_DEST_STR_PREFIX;
    DUMP("srcAddr=%08x:%08x:%08x:%08x srcPrefix=%d \n\r", ADDRESS_ARGS(pSource), pEntry[ACL_DEV_SRC_PREFIX]);
    DUMP("srcStrPrefix = " MASK_TEXT, MASK_ARGS(pSourceMask));
    DUMP("destAddr=%08x:%08x:%08x:%08x destPrefix=%d\n\r", ADDRESS_ARGS(pDest), pEntry[ACL_DEV_DEST_PREFIX]);
    DUMP("destStrPrefix = " MASK_TEXT, MASK_ARGS(pDestMask));
}

void portsDump(const uint8_t *pEntry, bool isLayer34) {
    const bool isIcmp = half(pEntry, ACL_DEV_PROTO_SUB_TYPE) == ICMP;
    if (isIcmp) {
        DUMP("icmp type=%d \n\r", half(pEntry, ACL_DEV_SRC_PORT));
    } else {
        DUMP("srcPort=%d \n\r", half(pEntry, ACL_DEV_SRC_PORT));
    }
    if (isLayer34) {
        DUMP("srcEndPort=%d \n\r", half(pEntry, ACL_DEV_SRC_END_PORT));
    }
    if (isIcmp) {
        DUMP("icmp code=%d \n\r", half(pEntry, ACL_DEV_DEST_PORT));
    } else {
        DUMP("destPort=%d \n\r", half(pEntry, ACL_DEV_DEST_PORT));
    }
    if (isLayer34) {
        DUMP("destEndPort=%d \n\r", half(pEntry, ACL_DEV_DEST_END_PORT));
    }
}

void layer34Dump(const uint8_t *pEntry) {
    if (pEntry[ACL_DEV_IP_VER] == IPV4) {
        DUMP("tosDscp=%d \n\r", pEntry[ACL_DEV_TOS_DSCP]);
        DUMP("ipOptions=%d \n\r", pEntry[ACL_DEV_IP_OPTIONS]);
        DUMP("ipFrag=%d \n\r", pEntry[ACL_DEV_IP_FRAG]);
        DUMP("ipTtl=%d \n\r", pEntry[ACL_DEV_IP_TTL]);
        return;
    }
    DUMP("trafficClass=%d \n\r", pEntry[ACL_DEV_TOS_DSCP]);
    DUMP("hopLimit=%d \n\r", pEntry[ACL_DEV_IP_TTL]);
    DUMP("nextHeader=%d \n\r", pEntry[ACL_DEV_NEXT_HEADER]);
    DUMP("flowLabel=%d \n\r", word(pEntry, ACL_DEV_FLOW_LABEL));
}

#define MAC_TEXT "%02x:%02x:%02x:%02x:%02x:%02x"
#define MAC_ARGS(p) (p)[0], (p)[1], (p)[2], (p)[3], (p)[4], (p)[5]

void layer2Dump(const uint8_t *pEntry) {
    const uint8_t *pSource = pEntry + ACL_DEV_SRC_MAC;
    const uint8_t *pDest = pEntry + ACL_DEV_DEST_MAC;
    const uint8_t *pSourceMask = pEntry + ACL_DEV_SRC_MAC_STR_PREFIX;
    const uint8_t *pDestMask = pEntry + ACL_DEV_DEST_MAC_STR_PREFIX;
    DUMP("srcMac=" MAC_TEXT "  srcMacPrefix=%d \n\r", MAC_ARGS(pSource), pEntry[ACL_DEV_SRC_MAC_PREFIX]);
    DUMP("srcMacStrPrefix=" MAC_TEXT " \n\r", MAC_ARGS(pSourceMask));
    DUMP("destMac=" MAC_TEXT "  dstMacPrefix=%d \n\r", MAC_ARGS(pDest), pEntry[ACL_DEV_DEST_MAC_PREFIX]);
    DUMP("dstMacStrPrefix=" MAC_TEXT " \n\r", MAC_ARGS(pDestMask));
    DUMP("dtag=%d innerDot1p=%d outerDot1p=%d \n\r", pEntry[ACL_DEV_DTAG], pEntry[ACL_DEV_INNER_DOT1P],
         pEntry[ACL_DEV_OUTER_DOT1P]);
    DUMP("outerVid=%d outerEndVid = %d,innerVid=%d,innerEndVid = %d \n\r", half(pEntry, ACL_DEV_OUTER_VID),
         half(pEntry, ACL_DEV_OUTER_END_VID), half(pEntry, ACL_DEV_INNER_VID),
         half(pEntry, ACL_DEV_INNER_END_VID));
    DUMP("ethType=%d \n\r", half(pEntry, ACL_DEV_ETH_TYPE));
}

void headDump(const uint8_t *pEntry) {
    DUMP("lstIdx=%d ruleIdx=%d\n\r", word(pEntry, ACL_DEV_LST_IDX), word(pEntry, ACL_DEV_RULE_IDX));
    DUMP("dir=%d,counterShared = %d,meterShared = %d,priority=%d \n\r", pEntry[ACL_DEV_DIR],
         pEntry[ACL_DEV_COUNTER_SHARED], pEntry[ACL_DEV_METER_SHARED], half(pEntry, ACL_DEV_PRIORITY));
    DUMP("aggIfIndex=%d(Only useful for phy quit agg)\n\r", word(pEntry, ACL_DEV_AGG_IF_INDEX));
    actionDump(pEntry);
    bitsDump(pEntry);
    DUMP("protoType=%x \n\r", static_cast<uint32_t>(half(pEntry, ACL_DEV_PROTO_TYPE)));
    DUMP("protoSubType=%d \n\r", half(pEntry, ACL_DEV_PROTO_SUB_TYPE));
    DUMP("encapType=%d \n\r", pEntry[ACL_DEV_ENCAP_TYPE]);
    DUMP("layerType=%d \n\r", pEntry[ACL_DEV_LAYER_TYPE]);
    DUMP("ipVer=%d \n\r", pEntry[ACL_DEV_IP_VER]);
    meterDump(pEntry);
}

void tailDump(const uint8_t *pEntry) {
    DUMP(TEXT_APP, half(pEntry, ACL_DEV_APP));
    DUMP("statusBit=%d \n\r", half(pEntry, ACL_DEV_STATUS_BIT));
    DUMP("statusBitMask=%d \n\r", half(pEntry, ACL_DEV_STATUS_BIT_MASK));
    DUMP("counterType = %d,counterColor = %d \n\r", pEntry[ACL_DEV_COUNTER_TYPE],
         pEntry[ACL_DEV_COUNTER_COLOR]);
    DUMP("meterType = %d ,meterMode= %d \n\r", pEntry[ACL_DEV_METER_TYPE], pEntry[ACL_DEV_METER_MODE]);
    // These three once more: published output, kept for those who parse it.
    meterDump(pEntry);
    DUMP(TEXT_APP, half(pEntry, ACL_DEV_APP));
    actionDump(pEntry);
    DUMP("outAction=%x %x \r\n", pEntry[ACL_DEV_OUT_ACTION], pEntry[ACL_DEV_OUT_ACTION + 1]);
    DUMP("priority=%d \r\n", half(pEntry, ACL_DEV_PRIORITY));
    DUMP("statusBit=%d statusBitMask=%d \n\r", half(pEntry, ACL_DEV_STATUS_BIT),
         half(pEntry, ACL_DEV_STATUS_BIT_MASK));
}

} // namespace

void pbrDevPrintf(const uint8_t *pEntry) {
    if ((gPbrInfo.debugFlags & PBR_DEBUG_DUMP) == 0) {
        return;
    }
    const bool isLayer34 = (pEntry[ACL_DEV_LAYER_TYPE] & ACL_DEV_LAYER_3_4) != 0;
    DUMP(TEXT_TITLE);
    DUMP(TEXT_RULE);
    headDump(pEntry);
    addressesDump(pEntry);
    DUMP("tcpFsm=%d \n\r", pEntry[ACL_DEV_TCP_FSM]);
    portsDump(pEntry, isLayer34);
    if (isLayer34) {
        layer34Dump(pEntry);
    }
    DUMP("userDataNum=%d \n\r", pEntry[ACL_DEV_USER_DATA_NUM]);
    DUMP("operators=%d \n\r", pEntry[ACL_DEV_OPERATORS]);
    layer2Dump(pEntry);
    tailDump(pEntry);
    DUMP(TEXT_END);
}
