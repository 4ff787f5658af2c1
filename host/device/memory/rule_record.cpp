// See rule_record.h.
#include "host/device/memory/rule_record.h"

#include <algorithm>
#include <string>

#include "host/device/desired/desired_show.h"
#include "host/device/memory/record_text.h"
#include "host/ifnet/ifnet.h"
#include "platform/acl_dev_entry.h"

namespace host {

namespace {

using nlohmann::json;

constexpr uint8_t IPV4 = 1;
constexpr uint8_t IPV6 = 2;

enum class Kind {
    Number,   // 1, 2 or 4 bytes
    Bytes,    // hexadecimal
    Address,  // of the record's IP version
    Ipv4,     // address, whatever the version
    Ipv6,
    Bits,     // numbered from the most significant bit of the first byte
};

// One row a published field. The other names are used for an ICMP record and for an IPv6 one.
struct Field {
    uint32_t offset;
    uint32_t bytes;
    Kind kind;
    const char *pName;
    const char *pIcmpName;
    const char *pIpv6Name;
};

const Field FIELDS[] = {
    {ACL_DEV_PROTO_TYPE, 2, Kind::Number, "protoType", nullptr, nullptr},
    {ACL_DEV_PROTO_SUB_TYPE, 2, Kind::Number, "protoSubType", nullptr, nullptr},
    {ACL_DEV_SRC_ADDR, 16, Kind::Address, "srcAddr", nullptr, nullptr},
    {ACL_DEV_DEST_ADDR, 16, Kind::Address, "destAddr", nullptr, nullptr},
    {ACL_DEV_SRC_STR_PREFIX, 16, Kind::Bytes, "srcStrPrefix", nullptr, nullptr},
    {ACL_DEV_DEST_STR_PREFIX, 16, Kind::Bytes, "destStrPrefix", nullptr, nullptr},
    {ACL_DEV_SRC_PREFIX, 1, Kind::Number, "srcPrefix", nullptr, nullptr},
    {ACL_DEV_DEST_PREFIX, 1, Kind::Number, "destPrefix", nullptr, nullptr},
    {ACL_DEV_ENCAP_TYPE, 1, Kind::Number, "encapType", nullptr, nullptr},
    {ACL_DEV_LAYER_TYPE, 1, Kind::Number, "layerType", nullptr, nullptr},
    {ACL_DEV_IP_VER, 1, Kind::Number, "ipVer", nullptr, nullptr},
    {ACL_DEV_TCP_FSM, 1, Kind::Number, "tcpFsm", nullptr, nullptr},
    {ACL_DEV_SRC_PORT, 2, Kind::Number, "srcPort", "icmpType", nullptr},
    {ACL_DEV_SRC_END_PORT, 2, Kind::Number, "srcEndPort", nullptr, nullptr},
    {ACL_DEV_DEST_PORT, 2, Kind::Number, "destPort", "icmpCode", nullptr},
    {ACL_DEV_DEST_END_PORT, 2, Kind::Number, "destEndPort", nullptr, nullptr},
    {ACL_DEV_IP_TTL, 1, Kind::Number, "ipTtl", nullptr, "hopLimit"},
    {ACL_DEV_TOS_DSCP, 1, Kind::Number, "tosDscp", nullptr, "trafficClass"},
    {ACL_DEV_IP_OPTIONS, 1, Kind::Number, "ipOptions", nullptr, nullptr},
    {ACL_DEV_IP_FRAG, 1, Kind::Number, "ipFrag", nullptr, nullptr},
    {ACL_DEV_FLOW_LABEL, 4, Kind::Number, "flowLabel", nullptr, nullptr},
    {ACL_DEV_NEXT_HEADER, 1, Kind::Number, "nextHeader", nullptr, nullptr},
    {ACL_DEV_USER_DATA_NUM, 1, Kind::Number, "userDataNum", nullptr, nullptr},
    {ACL_DEV_OPERATORS, 1, Kind::Number, "operators", nullptr, nullptr},
    {ACL_DEV_SRC_MAC, 6, Kind::Bytes, "srcMac", nullptr, nullptr},
    {ACL_DEV_SRC_MAC_PREFIX, 1, Kind::Number, "srcMacPrefix", nullptr, nullptr},
    {ACL_DEV_DEST_MAC, 6, Kind::Bytes, "destMac", nullptr, nullptr},
    {ACL_DEV_DEST_MAC_PREFIX, 1, Kind::Number, "dstMacPrefix", nullptr, nullptr},
    {ACL_DEV_DTAG, 1, Kind::Number, "dtag", nullptr, nullptr},
    {ACL_DEV_INNER_DOT1P, 1, Kind::Number, "innerDot1p", nullptr, nullptr},
    {ACL_DEV_OUTER_DOT1P, 1, Kind::Number, "outerDot1p", nullptr, nullptr},
    {ACL_DEV_SRC_MAC_STR_PREFIX, 6, Kind::Bytes, "srcMacStrPrefix", nullptr, nullptr},
    {ACL_DEV_DEST_MAC_STR_PREFIX, 6, Kind::Bytes, "dstMacStrPrefix", nullptr, nullptr},
    {ACL_DEV_OUTER_VID, 2, Kind::Number, "outerVid", nullptr, nullptr},
    {ACL_DEV_OUTER_END_VID, 2, Kind::Number, "outerEndVid", nullptr, nullptr},
    {ACL_DEV_INNER_VID, 2, Kind::Number, "innerVid", nullptr, nullptr},
    {ACL_DEV_INNER_END_VID, 2, Kind::Number, "innerEndVid", nullptr, nullptr},
    {ACL_DEV_ETH_TYPE, 2, Kind::Number, "ethType", nullptr, nullptr},
    {ACL_DEV_APP, 2, Kind::Number, "app", nullptr, nullptr},
    {ACL_DEV_STATUS_BIT, 2, Kind::Number, "statusBit", nullptr, nullptr},
    {ACL_DEV_STATUS_BIT_MASK, 2, Kind::Number, "statusBitMask", nullptr, nullptr},
    {ACL_DEV_BITS, 12, Kind::Bits, "bits", nullptr, nullptr},
    {ACL_DEV_ACTION, 8, Kind::Bits, "action", nullptr, nullptr},
    {ACL_DEV_NEW_PRIORITY, 4, Kind::Number, "newPriority", nullptr, nullptr},
    {ACL_DEV_IPV4_NEXT_HOPS, 4, Kind::Ipv4, "ipv4NextHop1", nullptr, nullptr},
    {ACL_DEV_IPV4_NEXT_HOPS + 4, 4, Kind::Ipv4, "ipv4NextHop2", nullptr, nullptr},
    {ACL_DEV_IPV4_NEXT_HOPS + 8, 4, Kind::Ipv4, "ipv4NextHop3", nullptr, nullptr},
    {ACL_DEV_IPV4_NEXT_HOPS + 12, 4, Kind::Ipv4, "ipv4NextHop4", nullptr, nullptr},
    {ACL_DEV_VRF, 4, Kind::Number, "vrf", nullptr, nullptr},
    {ACL_DEV_IPV6_NEXT_HOPS, 16, Kind::Ipv6, "ipv6NextHop1", nullptr, nullptr},
    {ACL_DEV_IPV6_NEXT_HOPS + 16, 16, Kind::Ipv6, "ipv6NextHop2", nullptr, nullptr},
    {ACL_DEV_IPV6_NEXT_HOPS + 32, 16, Kind::Ipv6, "ipv6NextHop3", nullptr, nullptr},
    {ACL_DEV_IPV6_NEXT_HOPS + 48, 16, Kind::Ipv6, "ipv6NextHop4", nullptr, nullptr},
    {ACL_DEV_OUT_ACTION, 2, Kind::Bits, "outAction", nullptr, nullptr},
    {ACL_DEV_COUNTER_SHARED, 1, Kind::Number, "counterShared", nullptr, nullptr},
    {ACL_DEV_COUNTER_TYPE, 1, Kind::Number, "counterType", nullptr, nullptr},
    {ACL_DEV_COUNTER_COLOR, 1, Kind::Number, "counterColor", nullptr, nullptr},
    {ACL_DEV_METER_SHARED, 1, Kind::Number, "meterShared", nullptr, nullptr},
    {ACL_DEV_METER, 4, Kind::Number, "cir", nullptr, nullptr},
    {ACL_DEV_METER + 4, 4, Kind::Number, "pir", nullptr, nullptr},
    {ACL_DEV_METER + 8, 4, Kind::Number, "cbs", nullptr, nullptr},
    {ACL_DEV_METER + 12, 4, Kind::Number, "ebs", nullptr, nullptr},
    {ACL_DEV_METER + 16, 4, Kind::Number, "pbs", nullptr, nullptr},
    {ACL_DEV_METER_TYPE, 1, Kind::Number, "meterType", nullptr, nullptr},
    {ACL_DEV_METER_MODE, 1, Kind::Number, "meterMode", nullptr, nullptr},
    {ACL_DEV_DIR, 1, Kind::Number, "dir", nullptr, nullptr},
    {ACL_DEV_LST_IDX, 4, Kind::Number, "lstIdx", nullptr, nullptr},
    {ACL_DEV_RULE_IDX, 4, Kind::Number, "ruleIdx", nullptr, nullptr},
    {ACL_DEV_PRIORITY, 2, Kind::Number, "priority", nullptr, nullptr},
    {ACL_DEV_AGG_IF_INDEX, 4, Kind::Number, "aggIfIndex", nullptr, nullptr},
};

bool bitGet(const uint8_t *pSet, uint32_t bit) {
    return (pSet[bit / 8] & 0x80u >> bit % 8) != 0;
}

json bits(const uint8_t *pSet, uint32_t bytes) {
    json found = json::array();
    for (uint32_t bit = 0; bit < bytes * 8; bit++) {
        if (bitGet(pSet, bit)) {
            found.push_back(bit);
        }
    }
    return found;
}

json addressShow(const uint8_t *pBytes, uint8_t version) {
    IpAddress address{};
    std::copy_n(pBytes, version == IPV4 ? 4 : 16, address.begin());
    return ipAddressText(version, address);
}

uint32_t numberGet(const uint8_t *pBytes, uint32_t bytes) {
    return bytes == 1 ? pBytes[0] : bytes == 2 ? loadBe16(pBytes) : loadBe32(pBytes);
}

json valueShow(const Field &field, const uint8_t *pBytes, uint8_t version) {
    switch (field.kind) {
    case Kind::Number:
        return numberGet(pBytes, field.bytes);
    case Kind::Bits:
        return bits(pBytes, field.bytes);
    case Kind::Ipv4:
        return addressShow(pBytes, IPV4);
    case Kind::Ipv6:
        return addressShow(pBytes, IPV6);
    case Kind::Address:
        if (version == IPV4 || version == IPV6) {
            return addressShow(pBytes, version);
        }
        break; // without a version the bytes tell no address
    case Kind::Bytes:
        break;
    }
    return hexText(pBytes, field.bytes);
}

const char *nameOf(const Field &field, const uint8_t *pEntry) {
    const bool isIcmp = loadBe16(pEntry + ACL_DEV_PROTO_SUB_TYPE) == 1;
    if (isIcmp && field.pIcmpName != nullptr) {
        return field.pIcmpName;
    }
    const bool isIpv6 = pEntry[ACL_DEV_IP_VER] == IPV6;
    return isIpv6 && field.pIpv6Name != nullptr ? field.pIpv6Name : field.pName;
}

json actions(const uint8_t *pEntry) {
    const std::pair<uint32_t, const char *> named[] = {{ACL_DEV_ACTION_OUT_IF, "out-interface"},
                                                       {ACL_DEV_ACTION_IPV4, "next-hops-ipv4"},
                                                       {ACL_DEV_ACTION_PRIORITY, "priority"},
                                                       {ACL_DEV_ACTION_VRF, "vrf"},
                                                       {ACL_DEV_ACTION_IPV6, "next-hop-ipv6"},
                                                       {ACL_DEV_ACTION_IPV6_ECMP, "ecmp-ipv6"}};
    json texts = json::array();
    for (const auto &[bit, pText] : named) {
        if (bitGet(pEntry + ACL_DEV_ACTION, bit)) {
            texts.push_back(pText);
        }
    }
    return texts;
}

// Slot 0 is an interface when the action says so.
bool isOutInterface(const Field &field, const uint8_t *pEntry) {
    return field.offset == ACL_DEV_IPV4_NEXT_HOPS && bitGet(pEntry + ACL_DEV_ACTION, ACL_DEV_ACTION_OUT_IF);
}

} // namespace

json ruleRecordShow(uint32_t ifUnit, const uint8_t *pEntry) {
    json fields = json::array();
    for (const Field &field : FIELDS) {
        const uint8_t *pBytes = pEntry + field.offset;
        const bool isOutIf = isOutInterface(field, pEntry);
        fields.push_back({{"offset", field.offset},
                          {"name", isOutIf ? "outIfUnit" : nameOf(field, pEntry)},
                          {"value", isOutIf ? json(loadBe32(pBytes))
                                            : valueShow(field, pBytes, pEntry[ACL_DEV_IP_VER])}});
    }
    return {{"ifUnit", ifUnit},
            {"interface", ifnetName(ifUnit)},
            {"acl", loadBe32(pEntry + ACL_DEV_LST_IDX)},
            {"rule", loadBe32(pEntry + ACL_DEV_RULE_IDX)},
            {"actions", actions(pEntry)},
            {"fields", std::move(fields)},
            {"hex", hexText(pEntry, ACL_DEV_ENTRY_BYTES)}};
}

} // namespace host
