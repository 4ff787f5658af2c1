// See memory_record.h.
#include "host/device/memory/memory_record.h"

#include <algorithm>
#include <string>

#include "host/device/desired/desired_show.h"
#include "host/device/memory/record_text.h"
#include "host/ifnet/ifnet.h"
#include "platform/acl.h"

namespace host {

namespace {

using nlohmann::json;

const char *actionText(uint8_t action) {
    switch (action) {
    case PBR_HW_ACTION_NONE:
        return "none";
    case PBR_HW_ACTION_OUT_IF:
        return "out-interface";
    case PBR_HW_ACTION_IPV4:
        return "next-hop-ipv4";
    case PBR_HW_ACTION_IPV4_ECMP:
        return "ecmp-ipv4";
    case PBR_HW_ACTION_IPV6:
        return "next-hop-ipv6";
    case PBR_HW_ACTION_IPV6_ECMP:
        return "ecmp-ipv6";
    default:
        return "unknown";
    }
}

// The addresses up to the first empty slot.
json addresses(const uint8_t *pArea, uint8_t version) {
    const uint32_t bytes = version == 2 ? 16 : 4;
    json texts = json::array();
    for (uint32_t at = 0; at + bytes <= PBR_HW_ACL_NEXT_HOPS_BYTES; at += bytes) {
        IpAddress address{};
        std::copy_n(pArea + at, bytes, address.begin());
        if (address == IpAddress{}) {
            break;
        }
        texts.push_back(ipAddressText(version, address));
    }
    return texts;
}

// Every field of the record by its published name, in the record's order.
json fieldsOf(const uint8_t *pRecord) {
    const auto field = [](uint32_t offset, const char *pName, const json &value) {
        return json{{"offset", offset}, {"name", pName}, {"value", value}};
    };
    const auto number = [&](uint32_t offset, const char *pName) {
        return field(offset, pName, loadBe32(pRecord + offset));
    };
    const auto byte = [&](uint32_t offset, const char *pName) { return field(offset, pName, pRecord[offset]); };
    return {number(PBR_HW_ACL_IF_UNIT, "ifUnit"),
            number(PBR_HW_ACL_LST_INDEX, "lstIndex"),
            byte(PBR_HW_ACL_DIRECTION, "direction"),
            byte(PBR_HW_ACL_ACTION, "action"),
            byte(PBR_HW_ACL_NEW_IP_PRI, "newIpPri"),
            number(PBR_HW_ACL_VRF_ID, "vrfId"),
            field(PBR_HW_ACL_NEXT_HOPS, "nextHops",
                  hexText(pRecord + PBR_HW_ACL_NEXT_HOPS, PBR_HW_ACL_NEXT_HOPS_BYTES))};
}

} // namespace

json memoryRecordShow(const uint8_t *pRecord) {
    const uint8_t action = pRecord[PBR_HW_ACL_ACTION];
    const uint8_t *pArea = pRecord + PBR_HW_ACL_NEXT_HOPS;
    const uint32_t ifUnit = loadBe32(pRecord + PBR_HW_ACL_IF_UNIT);
    json shown = {{"ifUnit", ifUnit},
                  {"interface", ifnetName(ifUnit)},
                  {"acl", loadBe32(pRecord + PBR_HW_ACL_LST_INDEX)},
                  {"action", actionText(action)},
                  {"actionCode", action},
                  {"priority", pRecord[PBR_HW_ACL_NEW_IP_PRI]},
                  {"vrf", loadBe32(pRecord + PBR_HW_ACL_VRF_ID)},
                  {"fields", fieldsOf(pRecord)},
                  {"hex", hexText(pRecord, PBR_HW_ACL_CONTENT_BYTES)}};
    if (action == PBR_HW_ACTION_OUT_IF) {
        shown["outInterface"] = ifnetName(loadBe32(pArea));
    } else if (action == PBR_HW_ACTION_IPV4 || action == PBR_HW_ACTION_IPV4_ECMP) {
        shown["nextHops"] = addresses(pArea, 1);
    } else if (action == PBR_HW_ACTION_IPV6 || action == PBR_HW_ACTION_IPV6_ECMP) {
        shown["nextHops"] = addresses(pArea, 2);
    } else {
        shown["area"] = hexText(pArea, PBR_HW_ACL_NEXT_HOPS_BYTES);
    }
    return shown;
}

} // namespace host
