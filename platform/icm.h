// The command server: owns the command socket, its framing and its task, and calls the handlers of
// the program's command map.
#ifndef PLATFORM_ICM_H
#define PLATFORM_ICM_H

#include "platform/platform_types.h"

extern "C" {

// The value argument of a handler.
// Number: word0 is the value (a set reads it, a get writes it).
// Byte string: word0 is the address of the buffer and word1 its length: of the data on a set; the
// capacity on entry and the bytes produced on return of a get.
struct PbrApiValue {
    uintptr_t word0;
    uint32_t word1;
};

// A command: its id and its handler, cast to a common type; null for an id without handler. The
// server casts it back to the type that the command's shape names.
typedef void (*IcmHandler)(void);
struct IcmCommand {
    uint32_t id;
    IcmHandler handler;
};

typedef uint32_t (*IcmFirstHandler)(void *pKey);
typedef uint32_t (*IcmNextHandler)(const void *pInKey, void *pOutKey);
typedef uint32_t (*IcmFieldHandler)(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// Starts the server's task `taskName` on the socket `path` with `count` commands, which stay valid for
// the life of the process. Handlers are called on that task with keys that are never null where the
// shape has key bytes, and values that are never null. A byte buffer of a get has at least 64 bytes
// more than the capacity that it states; what exceeds the caller's capacity is cut on the wire.
// Result: 0, or non-zero when the socket could not be opened. Lock: none
int32_t icmProcTcpInit(const char *taskName, const char *path, const IcmCommand *pCommands,
                       uint32_t count);
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(PbrApiValue) == 8 && offsetof(PbrApiValue, word1) == 4);
#endif

// How a command is called.
enum IcmShapeKind : uint8_t {
    ICM_SHAPE_NONE,  // no handler
    ICM_SHAPE_FIRST, // IcmFirstHandler: key in and out
    ICM_SHAPE_NEXT,  // IcmNextHandler
    ICM_SHAPE_GET,   // IcmFieldHandler, reads
    ICM_SHAPE_SET,   // IcmFieldHandler, writes
};

// What the server must know of a command to call it safely.
struct IcmCommandShape {
    uint8_t kind;        // IcmShapeKind
    uint8_t keyBytes;    // bytes of its key, 0 none
    uint32_t byteFields; // bit n set: the value of field n is a byte string (n < 32)
};

// The shapes, indexed by command id, beside the command map: defined by the program.
extern const IcmCommandShape gIcmCommandShapes[];
extern const uint32_t gIcmCommandShapeCount;

#endif
