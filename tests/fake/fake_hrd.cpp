// Host-route detection of the fake: registrations are recorded; tests send the reports themselves.
#include "platform/hrd.h"

#include "core/pbr_bytes.h"
#include "tests/fake/fake_state.h"

using namespace fake;

extern "C" int32_t hrdScalarSetApi(uint32_t unit, uint32_t object, HrdPeerDesc *pDesc) {
    const uint8_t *p = static_cast<const uint8_t *>(pDesc->pRecord);
    std::string line = text("hrdScalarSetApi(%u, %u,", unit, object);
    for (uint32_t i = 0; i + 4 <= pDesc->len; i += 4) {
        line += text(" %08x", pbrLoadBe32(p + i));
    }
    if (pDesc->len != HRD_PEER_IPV4_BYTES && pDesc->len != HRD_PEER_IPV6_BYTES) {
        misuse(line + "): length of the record");
    }
    return static_cast<int32_t>(call("hrdScalarSetApi", line + ")", 0));
}
