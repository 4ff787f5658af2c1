// From a request frame to a handler's call to the answer frame.
#include "host/icm/command_call.h"

#include <algorithm>
#include <cstring>

#include "client/command_frame.h"
#include "host/hwil/cmd_sync.h"

namespace host {
namespace {

constexpr uint32_t LENGTH_FIELD_BYTES = 4;
constexpr uint32_t LEAST_LENGTH = COMMAND_FRAME_HEADER_BYTES - LENGTH_FIELD_BYTES;
constexpr uint32_t MOST_VALUE_BYTES = COMMAND_FRAME_MAX_LENGTH - LEAST_LENGTH;
// Zeroed room behind every value: some handlers write a record that begins within the capacity whole, and
// some texts are printed up to a zero.
constexpr uint32_t SPARE_BYTES = 64;
constexpr uint32_t BYTE_FIELDS = 32; // fields that a shape's mask can name
constexpr size_t KEY_ROOM_WORDS = 32; // 256 bytes: a key length has 8 bits in a shape

// A request whose lengths are known to fit the received bytes.
struct Request {
    CommandFrameHeader header;
    const uint8_t *pKey;
    const uint8_t *pValue;
    uint32_t valueBytes; // bytes behind the key
    IcmHandler handler;
    IcmCommandShape shape;
};

struct Answer {
    uint32_t result = QRV_OK;
    uint8_t kind = COMMAND_VALUE_NONE;
    uint32_t number = 0;
    std::vector<uint8_t> key;
    std::vector<uint8_t> bytes;
};

void answerAppend(const CommandFrameHeader &request, const Answer &answer, std::vector<uint8_t> *pOut) {
    CommandFrameHeader header{};
    header.length = static_cast<uint32_t>(LEAST_LENGTH + answer.key.size() + answer.bytes.size());
    header.version = COMMAND_FRAME_VERSION;
    header.kind = answer.kind;
    header.commandId = request.commandId;
    header.requestId = request.requestId;
    header.fieldOrResult = answer.result;
    header.number = answer.number;
    header.keyLength = static_cast<uint16_t>(answer.key.size());
    uint8_t bytes[COMMAND_FRAME_HEADER_BYTES];
    commandFrameEncode(&header, bytes);
    pOut->insert(pOut->end(), bytes, bytes + sizeof(bytes));
    pOut->insert(pOut->end(), answer.key.begin(), answer.key.end());
    pOut->insert(pOut->end(), answer.bytes.begin(), answer.bytes.end());
}

bool commandFind(const CommandMap &map, uint32_t id, Request &request) {
    if (id >= map.shapeCount || map.pShapes[id].kind == ICM_SHAPE_NONE) {
        return false;
    }
    const IcmCommand *pEnd = map.pCommands + map.count;
    const IcmCommand *pFound = std::find_if(map.pCommands, pEnd,
                                            [id](const IcmCommand &command) { return command.id == id; });
    if (pFound == pEnd || pFound->handler == nullptr) {
        return false;
    }
    request.handler = pFound->handler;
    request.shape = map.pShapes[id];
    return true;
}

bool isWalk(const Request &request) {
    return request.shape.kind == ICM_SHAPE_FIRST || request.shape.kind == ICM_SHAPE_NEXT;
}

bool isByteField(const Request &request) {
    const uint32_t field = request.header.fieldOrResult;
    return field < BYTE_FIELDS && (request.shape.byteFields >> field & 1) != 0;
}

// Whether the value is of the kind that the handler reads or writes. A get may leave the kind open: the
// field tells it. A walk has no value; a number is passed over, it is never looked at.
bool isKindFitting(const Request &request) {
    const uint8_t kind = request.header.kind;
    if (isWalk(request)) {
        return kind != COMMAND_VALUE_BYTES;
    }
    if (kind == COMMAND_VALUE_NONE) {
        return request.shape.kind == ICM_SHAPE_GET;
    }
    return kind == (isByteField(request) ? COMMAND_VALUE_BYTES : COMMAND_VALUE_NUMBER);
}

// Whether the bytes behind the key are what the header says: those of a set, else none.
bool isLengthFitting(const Request &request) {
    const bool hasBytes = request.shape.kind == ICM_SHAPE_SET && request.header.kind == COMMAND_VALUE_BYTES;
    return request.valueBytes == (hasBytes ? request.header.number : 0);
}

bool isHeaderRight(const CommandFrameHeader &header) {
    return header.version == COMMAND_FRAME_VERSION && header.kind <= COMMAND_VALUE_BYTES &&
           header.reserved == 0 && header.keyLength <= header.length - LEAST_LENGTH;
}

// QRV_OK, or why the handler must not be called.
uint32_t requestCheck(const CommandMap &map, PeerRight right, Request &request) {
    if (right == PeerRight::None) {
        return QRV_ERR_NOT_PERMITTED;
    }
    if (!isHeaderRight(request.header) || !commandFind(map, request.header.commandId, request)) {
        return QRV_ERR_BAD_ARGUMENT;
    }
    request.pValue = request.pKey + request.header.keyLength;
    request.valueBytes = request.header.length - LEAST_LENGTH - request.header.keyLength;
    if (request.header.keyLength != request.shape.keyBytes || !isKindFitting(request) ||
        !isLengthFitting(request)) {
        return QRV_ERR_BAD_ARGUMENT;
    }
    if (request.shape.kind == ICM_SHAPE_SET && right != PeerRight::Write) {
        return QRV_ERR_NOT_PERMITTED;
    }
    return QRV_OK;
}

// A copy of a key that is aligned for its words.
struct KeyRoom {
    uint64_t words[KEY_ROOM_WORDS] = {};

    uint8_t *bytes() { return reinterpret_cast<uint8_t *>(words); }
};

void callWalk(const Request &request, Answer &answer) {
    const uint32_t keyBytes = request.shape.keyBytes;
    KeyRoom in, out;
    memcpy(in.bytes(), request.pKey, keyBytes);
    if (request.shape.kind == ICM_SHAPE_FIRST) {
        memcpy(out.bytes(), request.pKey, keyBytes);
        answer.result = reinterpret_cast<IcmFirstHandler>(request.handler)(out.bytes());
    } else {
        answer.result = reinterpret_cast<IcmNextHandler>(request.handler)(in.bytes(), out.bytes());
    }
    if (answer.result == QRV_OK) {
        answer.key.assign(out.bytes(), out.bytes() + keyBytes);
    }
}

uint32_t callField(const Request &request, PbrApiValue &value) {
    KeyRoom key;
    memcpy(key.bytes(), request.pKey, request.shape.keyBytes);
    const void *pKey = request.shape.keyBytes != 0 ? key.bytes() : nullptr;
    return reinterpret_cast<IcmFieldHandler>(request.handler)(pKey, request.header.fieldOrResult, &value);
}

// A zeroed buffer of count bytes and the spare ones, aligned for words.
std::vector<uint64_t> bufferMake(uint32_t count) {
    return std::vector<uint64_t>((static_cast<size_t>(count) + SPARE_BYTES) / sizeof(uint64_t) + 1);
}

// Before the answer can leave.
void tellKeeper(const Request &request, uint32_t result) {
    CommandKeeper *pKeeper = commandKeeper();
    if (pKeeper == nullptr) {
        return;
    }
    KeyRoom key;
    memcpy(key.bytes(), request.pKey, request.shape.keyBytes);
    const void *pKey = request.shape.keyBytes != 0 ? key.bytes() : nullptr;
    pKeeper->answered({request.header.commandId, pKey, request.shape.keyBytes, request.header.fieldOrResult,
                       request.header.number},
                      result);
}

void callSet(const Request &request, Answer &answer) {
    PbrApiValue value{request.header.number, 0};
    std::vector<uint64_t> buffer;
    if (request.header.kind == COMMAND_VALUE_BYTES) {
        buffer = bufferMake(request.valueBytes);
        memcpy(buffer.data(), request.pValue, request.valueBytes);
        value = {reinterpret_cast<uintptr_t>(buffer.data()), request.valueBytes};
    }
    answer.result = callField(request, value);
    tellKeeper(request, answer.result);
}

void callGetNumber(const Request &request, Answer &answer) {
    PbrApiValue value{0, 0};
    answer.result = callField(request, value);
    if (answer.result == QRV_OK) {
        answer.kind = COMMAND_VALUE_NUMBER;
        answer.number = static_cast<uint32_t>(value.word0);
    }
}

void callGetBytes(const Request &request, Answer &answer) {
    const uint32_t capacity = std::min(request.header.number, MOST_VALUE_BYTES);
    std::vector<uint64_t> buffer = bufferMake(capacity);
    PbrApiValue value{reinterpret_cast<uintptr_t>(buffer.data()), capacity};
    answer.result = callField(request, value);
    if (answer.result == QRV_OK) {
        const auto *pBytes = reinterpret_cast<const uint8_t *>(buffer.data());
        answer.kind = COMMAND_VALUE_BYTES;
        answer.number = std::min(value.word1, capacity);
        answer.bytes.assign(pBytes, pBytes + answer.number);
    }
}

Answer callHandler(const Request &request) {
    Answer answer;
    if (isWalk(request)) {
        callWalk(request, answer);
    } else if (request.shape.kind == ICM_SHAPE_SET) {
        callSet(request, answer);
    } else if (isByteField(request)) {
        callGetBytes(request, answer);
    } else {
        callGetNumber(request, answer);
    }
    return answer;
}

} // namespace

FrameTake commandFrameTake(const uint8_t *pBytes, size_t count, size_t *pFrameBytes) {
    if (count < LENGTH_FIELD_BYTES) {
        return FrameTake::NeedMore;
    }
    const uint32_t length = commandFrameLoad32(pBytes);
    if (length < LEAST_LENGTH || length > COMMAND_FRAME_MAX_LENGTH) {
        return FrameTake::BadLength;
    }
    if (count < LENGTH_FIELD_BYTES + static_cast<size_t>(length)) {
        return FrameTake::NeedMore;
    }
    *pFrameBytes = LENGTH_FIELD_BYTES + static_cast<size_t>(length);
    return FrameTake::Whole;
}

void commandAnswer(const CommandMap &map, PeerRight right, const uint8_t *pFrame, std::vector<uint8_t> *pOut) {
    Request request{};
    commandFrameDecode(pFrame, &request.header);
    request.pKey = pFrame + COMMAND_FRAME_HEADER_BYTES;
    Answer answer;
    answer.result = requestCheck(map, right, request);
    if (answer.result == QRV_OK) {
        answer = callHandler(request);
    }
    answerAppend(request.header, answer, pOut);
}

void commandAnswerBadLength(const uint8_t *pBytes, size_t count, std::vector<uint8_t> *pOut) {
    uint8_t bytes[COMMAND_FRAME_HEADER_BYTES] = {};
    memcpy(bytes, pBytes, std::min(count, sizeof(bytes)));
    CommandFrameHeader header;
    commandFrameDecode(bytes, &header);
    Answer answer;
    answer.result = QRV_ERR_BAD_ARGUMENT;
    answerAppend(header, answer, pOut);
}

} // namespace host
