// The route socket: opened once at start-up and never again.
#ifndef RTMSG_PBR_RT_SOCK_H
#define RTMSG_PBR_RT_SOCK_H

#include <cstdint>

// Opens, binds and joins the five groups, sets the receive buffer and the owner. Failures are printed
// (not logged): start-up's texts. gPbrInfo.rtSock is not touched.
// Result: the descriptor, 0..1023, or -1 (nothing stays open). Lock: none
[[nodiscard]] int32_t pbrRtSockOpen();

// Closes gPbrInfo.rtSock unless it is -1, and makes it -1. Lock: none
void pbrSocketClose();

#endif
