// The request for the state of a probe test.
#include "rtmsg/pbr_nqa_request.h"

#include <cstring>

#include "core/pbr_trace.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"
#include "platform/sil_process.h"

namespace {

const char TEXT_ERROR[] = "pbr send QRV_RTM_NQA_STATEREQ ERROR %d!\r\n";
const char TEXT_OK[] = "pbr send QRV_RTM_NQA_STATEREQ OK!\r\n";

constexpr uint32_t MESSAGE_BYTES = QRV_RTM_HEADER_BYTES + sizeof(NqaStatusMsg);
static_assert(MESSAGE_BYTES == 92);

uint8_t nameLen(uint16_t len) {
    return static_cast<uint8_t>(len) <= NQA_NAME_BYTES ? static_cast<uint8_t>(len) : NQA_NAME_BYTES;
}

} // namespace

int32_t pbrNqaStatusReqRtmsgSend(const PbrNqaEntry *pNqa) {
    RtMsgHeader header = {};
    header.length = MESSAGE_BYTES;
    header.type = QRV_RTM_NQA_STATEREQ;
    NqaStatusMsg request = {};
    request.adminNameLen = nameLen(pNqa->adminNameLen);
    memcpy(request.adminName, pNqa->adminName, request.adminNameLen);
    request.testNameLen = nameLen(pNqa->testNameLen);
    memcpy(request.testName, pNqa->testName, request.testNameLen);

    alignas(QRV_RTM_ALIGN) uint8_t message[256] = {};
    memcpy(message, &header, sizeof(header));
    memcpy(message + QRV_RTM_HEADER_BYTES, &request, sizeof(request));
    const int32_t sent = qrvNetlinkSGrpSend(QRV_RTNLGRP_NQA, 0, message, MESSAGE_BYTES);
    if (sent < 0) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_ERROR, errnoGet());
    }
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_OK); // meant: also behind the error
    return sent;
}
