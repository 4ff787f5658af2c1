// Input of route messages: one read of the route socket, walked and dispatched.
#ifndef RTMSG_PBR_RTM_RCV_H
#define RTMSG_PBR_RTM_RCV_H

#include <cstdint>

#include "core/pbr_store_lock.h"

// Bytes that one read takes at most; what else waits is taken in the next pass of the loop.
constexpr uint32_t PBR_RTM_READ_BYTES = 3840;

// Reads once from fd and handles every whole message of it; nothing read: nothing done. Called by the
// loop when fd can be read. Lock: held by caller
void pbrRtmRcv(int32_t fd) PBR_LOCK_HELD;

#endif
