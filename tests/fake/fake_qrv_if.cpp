// The interface layer of the fake.
#include "platform/qrv_if.h"

#include <cstdio>
#include <cstring>

#include "core/pbr_bytes.h"
#include "platform/acl_dev_entry.h"
#include "platform/qrv_if_agg.h"
#include "tests/fake/fake_state.h"

namespace fake {

void nameInterface(uint32_t unit, const std::string &name) {
    state().interfaceNames[unit] = name;
}

namespace {

std::string nameOf(uint32_t unit) {
    auto found = state().interfaceNames.find(unit);
    return found == state().interfaceNames.end() ? text("if%u", unit) : found->second;
}

// A device rule record: its words that are not zero, each behind its byte offset.
std::string ruleText(const PbrDevRuleDesc *pDesc) {
    std::string out = text("type=0x%08x", pDesc->type);
    const uint8_t *p = static_cast<const uint8_t *>(pDesc->pEntry);
    for (uint32_t offset = 0; offset < ACL_DEV_ENTRY_BYTES; offset += 4) {
        if (pbrLoadBe32(p + offset) != 0) {
            out += text(" %u:%08x", offset, pbrLoadBe32(p + offset));
        }
    }
    if (pDesc->len != ACL_DEV_ENTRY_BYTES || pDesc->zero != 0 || pDesc->reserved[0] != 0 ||
        pDesc->reserved[1] != 0) {
        misuse(out + ": length or reserved fields");
    }
    return out;
}

int32_t dispatchAsk(uint32_t ifUnit, AggDispatchReq *pRequest) {
    const std::string line = text("qrvIfGetApi(%u, 47, 0x%08x)", ifUnit, pRequest->function);
    AggDispatchReq zeroed = {};
    zeroed.function = pRequest->function;
    if (memcmp(&zeroed, pRequest, sizeof(zeroed)) != 0) {
        misuse(line + ": not zeroed");
    }
    pRequest->answer = static_cast<uint8_t>(quiet("aggAnswer", line, 0));
    return static_cast<int32_t>(call("qrvIfGetApi", line, 0));
}

} // namespace
} // namespace fake

using namespace fake;

extern "C" int32_t qrvIfGetApi(uint32_t ifUnit, uint32_t command, void *pValue) {
    if (command == QRV_IF_HWAPIFUNCDISPATCH) {
        return dispatchAsk(ifUnit, static_cast<AggDispatchReq *>(pValue));
    }
    return static_cast<int32_t>(call("qrvIfGetApi", text("qrvIfGetApi(%u, %u)", ifUnit, command), 0));
}

extern "C" int32_t qrvIfSetApi(uint32_t ifUnit, uint32_t command, void *pValue) {
    std::string line = text("qrvIfSetApi(%u, %u", ifUnit, command);
    if (command == QRV_IF_PROTO_ENABLE || command == QRV_IF_PROTO_DISABLE) {
        uint32_t protocol;
        memcpy(&protocol, pValue, sizeof(protocol));
        line += text(", %u", protocol);
    } else if (command == QRV_IF_RULE_DEVICE) {
        line += ", " + ruleText(static_cast<const PbrDevRuleDesc *>(pValue));
    }
    return static_cast<int32_t>(fallible("qrvIfSetApi", line + ")", 0, FAULT_CODE));
}

extern "C" char *qrvIfUnit2Name(uint32_t ifUnit, char *buffer, uint32_t size) {
    snprintf(buffer, size, "%s", nameOf(ifUnit).c_str());
    return buffer;
}

extern "C" char *qrvIfIndex2Name(uint32_t ifIndex, char *buffer, uint32_t size) {
    snprintf(buffer, size + 1, "%s", nameOf(ifIndex).c_str());
    return buffer;
}
