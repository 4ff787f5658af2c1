// Frames of the command socket: one header layout for requests and answers. Shared by the host's
// command server and the client library. Header fields are in network order; keys and values are
// machine order (both ends are on one machine).
#ifndef CLIENT_COMMAND_FRAME_H
#define CLIENT_COMMAND_FRAME_H

#include <cstddef>
#include <cstdint>
#include <cstring>

constexpr uint32_t COMMAND_FRAME_HEADER_BYTES = 24;
constexpr uint32_t COMMAND_FRAME_MAX_LENGTH = 65536; // of the length field: bytes after it
constexpr uint8_t COMMAND_FRAME_VERSION = 1;

enum CommandValueKind : uint8_t {
    COMMAND_VALUE_NONE = 0,
    COMMAND_VALUE_NUMBER = 1,
    COMMAND_VALUE_BYTES = 2,
};

// offset 0 u32 length | 4 u8 version | 5 u8 kind | 6 u16 command | 8 u32 request id |
// 12 u32 field (answer: result) | 16 u32 number, byte count or capacity | 20 u16 key length | 22 u16 0
struct CommandFrameHeader {
    uint32_t length;        // bytes after the length field: 20 + keyLength + bytes
    uint8_t version;        // COMMAND_FRAME_VERSION
    uint8_t kind;           // CommandValueKind
    uint16_t commandId;
    uint32_t requestId;     // any; the answer repeats it
    uint32_t fieldOrResult; // request: field id; answer: result code
    uint32_t number;        // number; byte count of a set; capacity of a get; byte count of an answer
    uint16_t keyLength;
    uint16_t reserved;      // 0
};

inline void commandFrameStore16(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline void commandFrameStore32(uint8_t *p, uint32_t v) {
    commandFrameStore16(p, v >> 16);
    commandFrameStore16(p + 2, v);
}
inline uint16_t commandFrameLoad16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t commandFrameLoad32(const uint8_t *p) {
    return static_cast<uint32_t>(commandFrameLoad16(p)) << 16 | commandFrameLoad16(p + 2);
}

// Writes the 24 header bytes. Lock: none
inline void commandFrameEncode(const CommandFrameHeader *pHeader, uint8_t *pBytes) {
    commandFrameStore32(pBytes, pHeader->length);
    pBytes[4] = pHeader->version;
    pBytes[5] = pHeader->kind;
    commandFrameStore16(pBytes + 6, pHeader->commandId);
    commandFrameStore32(pBytes + 8, pHeader->requestId);
    commandFrameStore32(pBytes + 12, pHeader->fieldOrResult);
    commandFrameStore32(pBytes + 16, pHeader->number);
    commandFrameStore16(pBytes + 20, pHeader->keyLength);
    commandFrameStore16(pBytes + 22, pHeader->reserved);
}

// Reads the 24 header bytes; checks nothing. Lock: none
inline void commandFrameDecode(const uint8_t *pBytes, CommandFrameHeader *pHeader) {
    pHeader->length = commandFrameLoad32(pBytes);
    pHeader->version = pBytes[4];
    pHeader->kind = pBytes[5];
    pHeader->commandId = commandFrameLoad16(pBytes + 6);
    pHeader->requestId = commandFrameLoad32(pBytes + 8);
    pHeader->fieldOrResult = commandFrameLoad32(pBytes + 12);
    pHeader->number = commandFrameLoad32(pBytes + 16);
    pHeader->keyLength = commandFrameLoad16(pBytes + 20);
    pHeader->reserved = commandFrameLoad16(pBytes + 22);
}

#endif
