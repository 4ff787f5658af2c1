// The hardware layer of the fake.
#include "platform/qrv_hwil.h"

#include "platform/icm.h"
#include "tests/fake/fake_state.h"

using namespace fake;

extern "C" uint32_t qrvHwilScalarSet(uint32_t unit, uint32_t scalar, const uint32_t *pValue, uint32_t flags) {
    return static_cast<uint32_t>(call(
        "qrvHwilScalarSet", text("qrvHwilScalarSet(%u, %u, %u, %u)", unit, scalar, *pValue, flags), 0));
}
extern "C" uint32_t qrvHwilScalarGet(uint32_t unit, uint32_t scalar, uint32_t *) {
    return static_cast<uint32_t>(call("qrvHwilScalarGet", text("qrvHwilScalarGet(%u, %u)", unit, scalar), 1));
}
extern "C" uint32_t qrvHwilSlotGet(const uint32_t *pKey, uint32_t attribute, uint32_t *) {
    return static_cast<uint32_t>(call(
        "qrvHwilSlotGet", text("qrvHwilSlotGet(%u %u %u, 0x%x)", pKey[0], pKey[1], pKey[2], attribute), 1));
}
extern "C" uint32_t qrvHwilCardGet(const uint32_t *pKey, uint32_t attribute, uint32_t *) {
    return static_cast<uint32_t>(call("qrvHwilCardGet", text("qrvHwilCardGet(%u %u %u %u, 0x%x)", pKey[0],
                                                             pKey[1], pKey[2], pKey[3], attribute), 1));
}
extern "C" uint32_t qrvSelfSysIndex(void) {
    return static_cast<uint32_t>(call("qrvSelfSysIndex", "qrvSelfSysIndex()", 1));
}

extern "C" uint32_t qrvHwilCmdSyncApi(const void *pKey, uint32_t commandCode, const PbrApiValue *pValue,
                                      const PbrSyncCtx *pCtx) {
    std::string line = "qrvHwilCmdSyncApi(" + key(pKey, pCtx->keyLen) +
                       text(", code=0x%08x flags=0x%x len=%u ", commandCode, pCtx->syncFlags, pCtx->valueLen);
    if ((pCtx->syncFlags & 0x80000000u) != 0) {
        line += "bytes=" + hex(reinterpret_cast<const void *>(pValue->word0), pValue->word1);
    } else {
        line += text("value=%u", static_cast<uint32_t>(pValue->word0));
    }
    line += ")";
    for (uint8_t byte : pCtx->reserved1) {
        if (byte != 0) {
            misuse(line + ": reserved bytes");
        }
    }
    for (uint8_t byte : pCtx->reserved2) {
        if (byte != 0) {
            misuse(line + ": reserved bytes");
        }
    }
    return static_cast<uint32_t>(fallible("qrvHwilCmdSyncApi", line, 0, FAULT_CODE));
}
