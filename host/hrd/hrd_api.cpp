// hrdScalarSetApi: the daemon's registrations, checked and posted to the event thread.
//
// Called with the daemon's mutex held: nothing here waits, takes the service's lock or answers.
#include <algorithm>
#include <cstring>

#include "host/event/event_loop.h"
#include "host/hrd/hrd_peers.h"
#include "host/logging/host_log.h"
#include "platform/hrd.h"

namespace {

constexpr uint8_t OPERATION_ADD = 1;
constexpr uint8_t OPERATION_DEL = 0;
constexpr uint8_t KIND = 7;
constexpr uint8_t FAMILY_4 = 1;
constexpr uint8_t FAMILY_6 = 2;

uint32_t loadBe32(const uint8_t *pBytes) {
    return static_cast<uint32_t>(pBytes[0]) << 24 | static_cast<uint32_t>(pBytes[1]) << 16 |
           static_cast<uint32_t>(pBytes[2]) << 8 | pBytes[3];
}

// Why the record is refused, or null.
const char *refusal(uint32_t object, const HrdPeerDesc *pDesc) {
    if (object != HRD_OBJECT_PEER) {
        return "unknown object";
    }
    if (pDesc == nullptr || pDesc->pRecord == nullptr || pDesc->len < HRD_PEER_IPV4_BYTES) {
        return "no record, or a short one";
    }
    const uint8_t *pRecord = static_cast<const uint8_t *>(pDesc->pRecord);
    const uint8_t family = pRecord[HRD_PEER_FAMILY];
    if (family != FAMILY_4 && family != FAMILY_6) {
        return "unknown family";
    }
    if (pDesc->len != (family == FAMILY_4 ? HRD_PEER_IPV4_BYTES : HRD_PEER_IPV6_BYTES)) {
        return "length and family disagree";
    }
    if (pRecord[HRD_PEER_OPERATION] != OPERATION_ADD && pRecord[HRD_PEER_OPERATION] != OPERATION_DEL) {
        return "unknown operation";
    }
    return pRecord[HRD_PEER_KIND] == KIND ? nullptr : "unknown kind of peer";
}

} // namespace

extern "C" int32_t hrdScalarSetApi(uint32_t /*unit*/, uint32_t object, HrdPeerDesc *pDesc) {
    const char *pRefusal = host::hrdRunning() ? refusal(object, pDesc) : "the service does not run";
    if (pRefusal != nullptr) {
        host::hostLog(host::LOG_LEVEL_ERROR, "hrd", "peer registration refused: %s", pRefusal);
        return -1;
    }
    const uint8_t *pRecord = static_cast<const uint8_t *>(pDesc->pRecord);
    host::HrdPeerKey key;
    key.vrfid = loadBe32(pRecord + HRD_PEER_VRF);
    key.version = pRecord[HRD_PEER_FAMILY] == FAMILY_4 ? 4 : 6;
    std::memcpy(key.address.data(), pRecord + HRD_PEER_ADDRESS, key.version == 4 ? 4 : 16);
    if (pRecord[HRD_PEER_OPERATION] == OPERATION_ADD) {
        host::hostEventLoop().post([key] { host::hrdPeerAdd(key); });
    } else {
        host::hostEventLoop().post([key] { host::hrdPeerDel(key); });
    }
    return 0;
}
