// A line card or slot came up (types 97 and 108): the entries of the lists on the ready table are
// written again. The messages' words are read from the message's start, over its header: published.
#ifndef RTMSG_PBR_CARD_MSG_H
#define RTMSG_PBR_CARD_MSG_H

#include "core/pbr_store_lock.h"
#include "rtmsg/pbr_rtm_walk.h"

// Handlers of the rows; the result is true always. Lock: held by caller
bool pbrCardUpMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;
bool pbrSlotUpMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;

#endif
