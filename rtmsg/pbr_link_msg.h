// Link and aggregation events (types 32, 34 and 324): bindings and member entries follow them.
#ifndef RTMSG_PBR_LINK_MSG_H
#define RTMSG_PBR_LINK_MSG_H

#include "core/pbr_store_lock.h"
#include "rtmsg/pbr_rtm_walk.h"

// New link: applies the attributes 52 (a port joined an aggregation: its own binding goes), 66 and 67 (a
// port was added to or removed from an aggregation: its member entries come or go). pMessage: the whole
// message. payloadLen: below 24 nothing is done. Lock: held by caller
void pbrNewLinkProcess(const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;

// The interface is gone for good: its binding and its entry go; an entry whose unbind fails stays.
// Result: of the last call made. Lock: held by caller
uint32_t pbrDelLinkProcess(const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;

// Handlers of the rows. The reset of a port's configuration alone drops the rest of the read when the
// interface has no entry or its unbind fails. Lock: held by caller
bool pbrNewLinkMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;
bool pbrDelLinkMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;
bool pbrPortResetMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen) PBR_LOCK_HELD;

#endif
