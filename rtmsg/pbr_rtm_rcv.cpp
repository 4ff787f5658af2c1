// Input of route messages: the read and the table of types.
//
// A message may be shorter than the payload that its type has; no length is tested for most types. So
// the buffer is longer than the read and zero behind it: a handler reads zeros, never beyond.
#include "rtmsg/pbr_rtm_rcv.h"

#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"
#include "rtmsg/pbr_acl_msg.h"
#include "rtmsg/pbr_card_msg.h"
#include "rtmsg/pbr_hrd_msg.h"
#include "rtmsg/pbr_link_msg.h"
#include "rtmsg/pbr_nqa_msg.h"
#include "rtmsg/pbr_rtm_walk.h"

namespace {

constexpr uint32_t PADDING_BYTES = 128;

// One row a type that the daemon handles.
const PbrRtmRow ROWS[] = {
    {QRV_RTM_NEWLINK, "NEWLINK", 0, pbrNewLinkMsgRcv},
    {QRV_RTM_DELLINK_FINAL, "DELLINK_FINAL", 0, pbrDelLinkMsgRcv},
    {QRV_RTM_CARD_UP, "CARD_UP", 0, pbrCardUpMsgRcv},
    {QRV_RTM_SLOT_UP, "SLOT_UP", 0, pbrSlotUpMsgRcv},
    {QRV_RTM_ACL_DELACL, "ACL_DELACL", 0, pbrAclDelMsgRcv},
    {QRV_RTM_ACL_ADDACLRULE, "ACL_ADDACLRULE", 0, pbrAclRuleAddMsgRcv},
    {QRV_RTM_ACL_DELACLRULE, "ACL_DELACLRULE", 0, pbrAclRuleDelMsgRcv},
    {QRV_RTM_HRD_UP, "HRD_UP", 0, pbrHrdMsgRcv},
    {QRV_RTM_HRD_DOWN, "HRD_DOWN", 0, pbrHrdMsgRcv},
    {QRV_RTM_HRD_CHANGE, "HRD_CHANGE", 0, pbrHrdMsgRcv},
    {QRV_RTM_RESETPORTCONFIG, "RESETPORTCONFIG", 0, pbrPortResetMsgRcv},
    {QRV_RTM_NQA, "NQA", 0, pbrNqaMsgRcv},
};

} // namespace

void pbrRtmRcv(int32_t fd) {
    alignas(QRV_RTM_ALIGN) uint8_t buffer[PBR_RTM_READ_BYTES + PADDING_BYTES] = {};
    QrvNetlinkAddr from = {};
    uint32_t fromLen = sizeof(from);
    const int32_t got = qrv_recvfrom(fd, buffer, PBR_RTM_READ_BYTES, 0, &from, &fromLen);
    if (got <= 0) {
        return;
    }
    pbrRtmWalk(ROWS, sizeof(ROWS) / sizeof(ROWS[0]), buffer, got);
}
