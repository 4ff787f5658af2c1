// The daemon's end of the bus: a socket pair and, beyond what the kernel takes, a queue of our own.
//
// Invariant: while the queue holds something, the kernel's side does too, so the reader is always awake
// as long as anything waits; reading makes room, and whoever reads tops the kernel's side up again.
#ifndef HOST_BUS_ROUTE_SOCKET_H
#define HOST_BUS_ROUTE_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <vector>

namespace host {

constexpr uint64_t ROUTE_SOCKET_BYTES = 2500000; // of waiting payload that are kept, unless asked otherwise

struct RouteSocket {
    int readFd = -1;               // the daemon's end
    int writeFd = -1;              // the bus's end, non-blocking
    std::set<uint32_t> groups;     // joined
    uint64_t limit = ROUTE_SOCKET_BYTES;
    uint64_t waiting = 0;          // payload bytes not read yet, in the kernel and in the queue
    std::deque<std::vector<uint8_t>> queue; // what the kernel did not take, oldest first
    bool isLosing = false;         // messages were lost and the members do not know yet
    uint32_t owner = 0;            // protocol id
};

// Makes the pair. Result: whether it was made; errno says why not. Lock: none
bool routeSocketOpen(RouteSocket &socket);

// Closes both ends and forgets what waits. Lock: held by caller (the bus's)
void routeSocketClose(RouteSocket &socket);

// Keeps a message for the reader. Result: false when its room is full; nothing is kept then.
// Lock: held by caller (the bus's)
bool routeSocketKeep(RouteSocket &socket, const void *pMessage, size_t len);

// The reader has read a message of len bytes. Result: true once after a loss, when there is room again.
// Lock: held by caller (the bus's)
bool routeSocketTook(RouteSocket &socket, size_t len);

} // namespace host

#endif
