// See acl_dev_entry.h.
#include "host/acl/acl_dev_entry.h"

#include <cstring>

#include "aclrule/acl_rule_names.h"

namespace host {

namespace {

void storeBe16(uint8_t *p, uint32_t value) {
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

void storeBe32(uint8_t *p, uint32_t value) {
    storeBe16(p, value >> 16);
    storeBe16(p + 2, value);
}

void fillPrefix(const AclPrefix &prefix, int version, uint8_t *pAddress, uint8_t *pMask, uint8_t *pLength) {
    const AclAddress mask = aclPrefixMask(prefix, version);
    const size_t bytes = version == 4 ? 4 : 16;
    std::memcpy(pAddress, prefix.address.data(), bytes);
    std::memcpy(pMask, mask.data(), bytes);
    *pLength = prefix.length;
}

void fillPorts(const AclPorts &ports, uint8_t *pFirst, uint8_t *pLast) {
    storeBe16(pFirst, ports.any ? 0 : ports.first);
    storeBe16(pLast, ports.any ? 65535 : ports.last);
}

void fillFlags(const AclRule &rule, uint8_t *pEntry) {
    pEntry[ACL_DEV_TCP_FSM] = rule.flagsSet;
    pEntry[ACL_DEV_HOST_FLAGS_MASK] = rule.flagsSet | rule.flagsClear;
    pEntry[ACL_DEV_HOST_FLAGS_SOME] =
        rule.established ? uint8_t{aclrule::ACL_FLAG_ACK | aclrule::ACL_FLAG_RST} : uint8_t{0};
}

void fillIcmp(const AclRule &rule, uint8_t *pEntry) {
    if (rule.icmpType >= 0) {
        pEntry[ACL_DEV_HOST_PRESENT] |= ACL_DEV_HOST_HAS_TYPE;
        storeBe16(pEntry + ACL_DEV_SRC_PORT, static_cast<uint32_t>(rule.icmpType));
        storeBe16(pEntry + ACL_DEV_SRC_END_PORT, static_cast<uint32_t>(rule.icmpType));
    }
    if (rule.icmpCode >= 0) {
        pEntry[ACL_DEV_HOST_PRESENT] |= ACL_DEV_HOST_HAS_CODE;
        storeBe16(pEntry + ACL_DEV_DEST_PORT, static_cast<uint32_t>(rule.icmpCode));
        storeBe16(pEntry + ACL_DEV_DEST_END_PORT, static_cast<uint32_t>(rule.icmpCode));
    }
}

void fillTraffic(const AclRule &rule, uint8_t *pEntry) {
    if (rule.dscp >= 0) {
        pEntry[ACL_DEV_TOS_DSCP] = static_cast<uint8_t>(rule.dscp << 2);
        pEntry[ACL_DEV_HOST_TOS_MASK] = 0xFC;
    }
    if (rule.precedence >= 0) {
        pEntry[ACL_DEV_TOS_DSCP] = static_cast<uint8_t>(rule.precedence << 5);
        pEntry[ACL_DEV_HOST_TOS_MASK] = 0xE0;
    }
    pEntry[ACL_DEV_IP_FRAG] = rule.fragments ? 1 : 0;
    if (!rule.length.any) {
        storeBe32(pEntry + ACL_DEV_HOST_LENGTH_FIRST, rule.length.first);
        storeBe32(pEntry + ACL_DEV_HOST_LENGTH_LAST, rule.length.last);
    }
}

void fillMac(const AclRule &rule, uint8_t *pEntry) {
    if (rule.sourceMac) {
        std::memcpy(pEntry + ACL_DEV_SRC_MAC, rule.sourceMac->data(), rule.sourceMac->size());
        std::memset(pEntry + ACL_DEV_SRC_MAC_STR_PREFIX, 0xFF, rule.sourceMac->size());
        pEntry[ACL_DEV_SRC_MAC_PREFIX] = 48;
    }
}

} // namespace

void aclDevEntryFill(uint32_t aclNum, uint32_t ruleNum, const AclRule &rule, uint8_t *pEntry) {
    const int version = aclRuleVersion(aclNum, rule);
    const bool isIcmp =
        rule.protocol == (version == 6 ? aclrule::ACL_PROTOCOL_ICMP_6 : aclrule::ACL_PROTOCOL_ICMP);

    storeBe16(pEntry + ACL_DEV_PROTO_TYPE, rule.protocol < 0 ? 0 : static_cast<uint32_t>(rule.protocol));
    storeBe16(pEntry + ACL_DEV_PROTO_SUB_TYPE, isIcmp ? 1 : 0);
    pEntry[ACL_DEV_LAYER_TYPE] = 2;
    pEntry[ACL_DEV_IP_VER] = version == 4 ? 1 : version == 6 ? 2 : 0;
    pEntry[ACL_DEV_NEXT_HEADER] =
        version == 6 && rule.protocol > 0 ? static_cast<uint8_t>(rule.protocol) : 0;
    fillPrefix(rule.source, version, pEntry + ACL_DEV_SRC_ADDR, pEntry + ACL_DEV_SRC_STR_PREFIX,
               pEntry + ACL_DEV_SRC_PREFIX);
    fillPrefix(rule.destination, version, pEntry + ACL_DEV_DEST_ADDR, pEntry + ACL_DEV_DEST_STR_PREFIX,
               pEntry + ACL_DEV_DEST_PREFIX);
    if (aclrule::aclProtocolHasPorts(rule.protocol)) {
        fillPorts(rule.sourcePorts, pEntry + ACL_DEV_SRC_PORT, pEntry + ACL_DEV_SRC_END_PORT);
        fillPorts(rule.destinationPorts, pEntry + ACL_DEV_DEST_PORT, pEntry + ACL_DEV_DEST_END_PORT);
    }
    fillFlags(rule, pEntry);
    fillIcmp(rule, pEntry);
    fillTraffic(rule, pEntry);
    fillMac(rule, pEntry);
    aclDevEntryName(aclNum, ruleNum, pEntry);
}

void aclDevEntryName(uint32_t aclNum, uint32_t ruleNum, uint8_t *pEntry) {
    storeBe32(pEntry + ACL_DEV_LST_IDX, aclNum);
    storeBe32(pEntry + ACL_DEV_RULE_IDX, ruleNum);
    storeBe16(pEntry + ACL_DEV_PRIORITY, ruleNum);
}

} // namespace host
