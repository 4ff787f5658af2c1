// Peer reports (types 305 up, 306 down, 307 change): decoded here, applied by nexthop/pbr_nexthop_state.
#ifndef RTMSG_PBR_HRD_MSG_H
#define RTMSG_PBR_HRD_MSG_H

#include "core/pbr_store_lock.h"
#include "rtmsg/pbr_rtm_walk.h"

// Handler of the three rows. Result: true always. Lock: held by caller
bool pbrHrdMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;

#endif
