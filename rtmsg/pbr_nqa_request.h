// The one route message that the daemon sends: the request for the state of a probe test.
#ifndef RTMSG_PBR_NQA_REQUEST_H
#define RTMSG_PBR_NQA_REQUEST_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Sends the request to the probe group; the service answers with a status message. A failed send is
// logged and not retried. Result: the platform's, without meaning for callers. Lock: held by caller
int32_t pbrNqaStatusReqRtmsgSend(const PbrNqaEntry *pNqa) PBR_LOCK_HELD;

#endif
