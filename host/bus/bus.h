// The route bus: a hub that carries route messages (platform/qrv_rtm.h) between the daemon's route
// socket, the host's services and other processes.
//
// The daemon's socket is the receiving end of a SOCK_SEQPACKET pair, one message per read. Members join
// groups by number. 2,500,000 bytes of waiting payload are kept for the daemon (or as many as it asks
// for); what is beyond is counted, logged and followed, when there is room again, by a call of the
// registered resynchronisation functions. What the daemon sends does not come back to the daemon.
#ifndef HOST_BUS_BUS_H
#define HOST_BUS_BUS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace host {

constexpr size_t BUS_MESSAGE_BYTES = 3840; // the most that the daemon reads at once

// Sends one whole route message (or a batch of them, each at a multiple of 4), at most BUS_MESSAGE_BYTES,
// to every member of the group. Bytes that are no messages are refused, logged and counted. Never blocks,
// never calls back synchronously. Any thread. Lock: none (takes the bus's own)
void busPublish(uint32_t group, const void *pMessage, size_t len);

// A header (type, length) and a payload as one message, padded to a multiple of 4.
std::vector<uint8_t> busMessage(uint16_t type, const void *pPayload, size_t payloadLen);

// Calls `handler(message bytes)` on the event thread for each message that the daemon or another
// process sends to `group` (not for those of busPublish). Before the first message. Lock: none
void busSubscribe(uint32_t group, std::function<void(const std::vector<uint8_t> &)> handler);

// Calls `resync` on the event thread after messages to the daemon were lost: a service then posts its
// whole present state again. Lock: none
void busOnLoss(std::function<void()> resync);

struct BusCounters {
    uint64_t published; // messages handed to busPublish or received from members
    uint64_t delivered; // messages written to the daemon's socket
    uint64_t lost;      // messages that found the daemon's room full
    uint64_t waitingBytes; // now waiting for the daemon
    uint64_t refused;   // packets and messages that were malformed or not permitted
    uint64_t dropped;   // other processes that were hung up on because they did not read
    uint32_t clients;   // other processes connected now
};
BusCounters busCounters();

// Opens the socket for other processes, optionPath("/tmp/policyroutebus.socket"); its packets are
// described in docs/route-bus.md. Result: empty, or why not. Lock: none
std::string busStart();

} // namespace host

#endif
