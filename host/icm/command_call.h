// From a request frame to a handler's call to the answer frame (client/command_frame.h): no sockets.
//
// The handlers trust what they are given, so everything about a frame is checked before one runs: its
// lengths, its key's length, and above all that a byte string comes where the handler expects one, since
// a number there would be taken for an address.
#ifndef HOST_ICM_COMMAND_CALL_H
#define HOST_ICM_COMMAND_CALL_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/process/peer_rights.h"
#include "platform/icm.h"

namespace host {

// The commands of a server and how they are called.
struct CommandMap {
    const IcmCommand *pCommands;
    uint32_t count;
    const IcmCommandShape *pShapes; // indexed by command id
    uint32_t shapeCount;
};

// What stands at the start of received bytes.
enum class FrameTake {
    NeedMore, // not yet a whole frame
    Whole,    // a frame of *pFrameBytes bytes; its contents are not checked
    BadLength // a length that no frame has: where the next frame begins is unknown
};
FrameTake commandFrameTake(const uint8_t *pBytes, size_t count, size_t *pFrameBytes);

// Appends the answer to a whole frame of a peer with `right` to *pOut; calls the handler when everything
// about the frame is right. Result codes of our own: QRV_ERR_NOT_PERMITTED, QRV_ERR_BAD_ARGUMENT.
// Lock: none (handlers take the daemon's)
void commandAnswer(const CommandMap &map, PeerRight right, const uint8_t *pFrame, std::vector<uint8_t> *pOut);

// Appends the answer to bytes that are no frame: the ids of what was received, QRV_ERR_BAD_ARGUMENT.
void commandAnswerBadLength(const uint8_t *pBytes, size_t count, std::vector<uint8_t> *pOut);

} // namespace host

#endif
