// Peer reports: decoding.
#include "rtmsg/pbr_hrd_msg.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "nexthop/pbr_nexthop_state.h"
#include "platform/qrv_rtm.h"

namespace {

const char TEXT_RECEIVE[] = "pbr receive QRV_RTM_HRD_XXX,nlmsg_type=%u,family=%u,vrId=%u.\r\n";
const char TEXT_SELF_LOG[] = "pbr receive hrd msg.(type=[%u], family=[%u], vrId=[%u], ip=[%s])\r\n";

constexpr uint32_t SELF_LOG_FLAGS = 284;
constexpr uint32_t FAMILY_IPV4 = 1;

void selfLog(uint32_t type, uint32_t family, uint32_t vrId, const uint8_t *pAddress) {
    char text[64] = {};
    (void)inet_ntop(family == FAMILY_IPV4 ? AF_INET : AF_INET6, pAddress, text, sizeof(text)); // has room
    loggingLogOutput(PBR_LOG_EVENT, gPbrDebugPri[2], SELF_LOG_FLAGS, TEXT_SELF_LOG, type, family, vrId, text);
}

} // namespace

bool pbrHrdMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t) {
    const uint32_t type = pbrLoadU16(pMessage + offsetof(RtMsgHeader, type));
    const uint8_t *pPayload = pMessage + QRV_RTM_HEADER_BYTES;
    const uint32_t family = pPayload[offsetof(HrdPeerMsg, family)];
    const uint32_t vrId = pbrLoadU32(pPayload + offsetof(HrdPeerMsg, vrId));
    memcpy(pRead->hrdAddress, pPayload + offsetof(HrdPeerMsg, address), family == FAMILY_IPV4 ? 4 : 16);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_RECEIVE, type, family, vrId);
    if (__atomic_load_n(&gPbrSelfLog, __ATOMIC_RELAXED) != 0) {
        selfLog(type, family, vrId, pRead->hrdAddress);
    }
    if (type == QRV_RTM_HRD_UP) {
        pbrNextHopStateUp(family, vrId, pRead->hrdAddress);
    } else if (type == QRV_RTM_HRD_DOWN) {
        pbrNextHopStateDown(family, vrId, pRead->hrdAddress);
    } else {
        pbrNextHopStateChange(family, vrId, pRead->hrdAddress);
    }
    return true;
}
