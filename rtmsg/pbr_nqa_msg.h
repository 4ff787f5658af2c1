// Probe status (type 349): stored in the test's record; the lists that use it are queued.
#ifndef RTMSG_PBR_NQA_MSG_H
#define RTMSG_PBR_NQA_MSG_H

#include "core/pbr_store_lock.h"
#include "rtmsg/pbr_rtm_walk.h"

// Handler of the row; the result is true always. Lock: held by caller
bool pbrNqaMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;

#endif
