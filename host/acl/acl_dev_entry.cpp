// See acl_dev_entry.h.
#include "host/acl/acl_dev_entry.h"

#include <cstring>

#include "host/acl/acl_rule_words.h"

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
    if (prefix.any) {
        return;
    }
    std::array<uint8_t, 16> mask;
    mask.fill(0xFF);
    aclPrefixTrim(mask, version, prefix.length);
    const size_t bytes = version == 4 ? 4 : 16;
    std::memcpy(pAddress, prefix.address.data(), bytes);
    std::memcpy(pMask, mask.data(), bytes);
    *pLength = prefix.length;
}

void fillPorts(const AclPorts &ports, uint8_t *pFirst, uint8_t *pLast) {
    storeBe16(pFirst, ports.any ? 0 : ports.first);
    storeBe16(pLast, ports.any ? 65535 : ports.last);
}

} // namespace

void aclDevEntryFill(uint32_t aclNum, uint32_t ruleNum, const AclRule &rule, uint8_t *pEntry) {
    const int version = aclRuleVersion(aclNum, rule);
    const bool hasPorts = rule.protocol == ACL_PROTOCOL_TCP || rule.protocol == ACL_PROTOCOL_UDP;
    const bool isIcmp = rule.protocol == (version == 6 ? ACL_PROTOCOL_ICMP_6 : ACL_PROTOCOL_ICMP);

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
    if (hasPorts) {
        fillPorts(rule.sourcePorts, pEntry + ACL_DEV_SRC_PORT, pEntry + ACL_DEV_SRC_END_PORT);
        fillPorts(rule.destinationPorts, pEntry + ACL_DEV_DEST_PORT, pEntry + ACL_DEV_DEST_END_PORT);
    }
    aclDevEntryName(aclNum, ruleNum, pEntry);
}

void aclDevEntryName(uint32_t aclNum, uint32_t ruleNum, uint8_t *pEntry) {
    storeBe32(pEntry + ACL_DEV_LST_IDX, aclNum);
    storeBe32(pEntry + ACL_DEV_RULE_IDX, ruleNum);
    storeBe16(pEntry + ACL_DEV_PRIORITY, ruleNum);
}

} // namespace host
