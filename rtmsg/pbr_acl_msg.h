// ACL events (types 250 and 251: a rule was added or removed; 248: an ACL is gone): the device rules of
// the nodes that match the ACL follow them.
//
// Two values live for one read, not for one message (PbrRtmRead): the node found last and the number of
// rule operations done. A later rule message of the same read sees them. Published behaviour.
#ifndef RTMSG_PBR_ACL_MSG_H
#define RTMSG_PBR_ACL_MSG_H

#include "core/pbr_store_lock.h"
#include "rtmsg/pbr_rtm_walk.h"

// Handlers of the rows; the result is true always. Lock: held by caller
bool pbrAclRuleAddMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;
bool pbrAclRuleDelMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;
bool pbrAclDelMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;

#endif
