// Frames of the command socket as values: a request to bytes, bytes to an answer, and the field records
// of a whole-row read. Pure functions without a socket, for clients in any event loop.
#ifndef CLIENT_COMMAND_CODEC_H
#define CLIENT_COMMAND_CODEC_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "api/pbr_keys.h"
#include "client/command_frame.h"

namespace client {

using Bytes = std::vector<uint8_t>;

// One command to the daemon.
struct CommandRequest {
    uint16_t commandId = 0;             // PbrCommandId
    uint8_t kind = COMMAND_VALUE_NONE;  // CommandValueKind of the value
    uint32_t fieldId = 0;               // field of a get or set; 0 for walks
    uint32_t number = 0;                // number of a set; capacity in bytes of a get of bytes
    Bytes key;                          // machine order, empty for scalars
    Bytes bytes;                        // the data of a set of bytes
};

// What the daemon answered.
struct CommandAnswer {
    uint16_t commandId = 0;
    uint32_t requestId = 0;
    uint32_t result = 0;               // result code of the handler, 0 done
    uint8_t kind = COMMAND_VALUE_NONE; // kind of the value
    uint32_t number = 0;               // number; byte count
    Bytes key;                         // walks: the row found
    Bytes bytes;                       // gets of bytes
};

// Writes a request as one frame. requestId: any, repeated by the answer.
// Result: the frame; none when key or bytes are longer than a frame can carry. Lock: none
std::optional<Bytes> commandFrameMake(const CommandRequest &request, uint32_t requestId);

enum CommandTake {
    COMMAND_TAKE_DONE,      // one answer was taken
    COMMAND_TAKE_NEED_MORE, // the frame is not complete yet
    COMMAND_TAKE_BAD,       // not a frame of this protocol: the connection is of no more use
};

// Reads one answer from the front of `size` bytes. answer and used (bytes taken) are written on
// COMMAND_TAKE_DONE only. Lock: none
CommandTake commandAnswerTake(const uint8_t *pBytes, size_t size, CommandAnswer &answer, size_t &used);

// One field record of a whole-row read.
struct RowField {
    uint32_t id = 0; // field id
    Bytes value;     // as sent; a number is four bytes in network order
};

// Splits the bytes of a whole-row read. rows: every complete record, in order, also on failure.
// Result: true when the bytes end with a record's end. Lock: none
bool rowDecode(const Bytes &bytes, std::vector<RowField> &rows);

// Number of a row's field; none when the row lacks the field or its value has not four bytes. Lock: none
std::optional<uint32_t> rowNumber(const std::vector<RowField> &rows, uint32_t fieldId);

// Bytes of a row's field; none when the row lacks it. Lock: none
std::optional<Bytes> rowBytes(const std::vector<RowField> &rows, uint32_t fieldId);

// Keys. A name longer than 16 bytes keeps its true length in the key (as far as 16 bits say it) and its
// first 16 bytes, so that the daemon refuses it. Lock: none
Bytes keyOfList(const std::string &name);
Bytes keyOfNode(const std::string &list, uint32_t nodeIndex, uint8_t nextHopIndex = 0, uint8_t mask = 0);
Bytes keyOfInterface(uint32_t unit);

// The parts of a key that a walk returned; none when it has not the size of such a key. Lock: none
std::optional<std::string> listOfKey(const Bytes &key);
struct NodePlace {
    std::string list;
    uint32_t nodeIndex = 0;
    uint8_t nextHopIndex = 0;
};
std::optional<NodePlace> nodeOfKey(const Bytes &key);
std::optional<uint32_t> interfaceOfKey(const Bytes &key);

} // namespace client

#endif
