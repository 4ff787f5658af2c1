// Frames, rows and keys of the command socket; see the header.
#include "client/command_codec.h"

#include <algorithm>
#include <cstring>

namespace client {

namespace {

constexpr size_t LENGTH_FIELD_BYTES = 4;
constexpr size_t HEADER_AFTER_LENGTH = COMMAND_FRAME_HEADER_BYTES - LENGTH_FIELD_BYTES;
constexpr size_t ROW_HEAD_BYTES = 8; // u32 field id, u32 length

template <typename Key> Bytes bytesOf(const Key &key) {
    Bytes bytes(sizeof(key));
    memcpy(bytes.data(), &key, sizeof(key));
    return bytes;
}

template <typename Key> std::optional<Key> keyFrom(const Bytes &bytes) {
    Key key;
    if (bytes.size() != sizeof(key)) {
        return std::nullopt;
    }
    memcpy(&key, bytes.data(), sizeof(key));
    return key;
}

void nameInto(const std::string &name, uint8_t *pName, uint16_t &nameLen) {
    memcpy(pName, name.data(), std::min<size_t>(name.size(), sizeof(PbrListKey::listName)));
    nameLen = static_cast<uint16_t>(std::min<size_t>(name.size(), UINT16_MAX));
}

std::string nameFrom(const uint8_t *pName, uint16_t nameLen) {
    const size_t len = std::min<size_t>(nameLen, sizeof(PbrListKey::listName));
    return std::string(reinterpret_cast<const char *>(pName), len);
}

} // namespace

std::optional<Bytes> commandFrameMake(const CommandRequest &request, uint32_t requestId) {
    const size_t length = HEADER_AFTER_LENGTH + request.key.size() + request.bytes.size();
    if (request.key.size() > UINT16_MAX || length > COMMAND_FRAME_MAX_LENGTH) {
        return std::nullopt;
    }
    CommandFrameHeader header{};
    header.length = static_cast<uint32_t>(length);
    header.version = COMMAND_FRAME_VERSION;
    header.kind = request.kind;
    header.commandId = request.commandId;
    header.requestId = requestId;
    header.fieldOrResult = request.fieldId;
    header.number = request.bytes.empty() ? request.number : static_cast<uint32_t>(request.bytes.size());
    header.keyLength = static_cast<uint16_t>(request.key.size());
    Bytes frame(COMMAND_FRAME_HEADER_BYTES);
    commandFrameEncode(&header, frame.data());
    frame.insert(frame.end(), request.key.begin(), request.key.end());
    frame.insert(frame.end(), request.bytes.begin(), request.bytes.end());
    return frame;
}

CommandTake commandAnswerTake(const uint8_t *pBytes, size_t size, CommandAnswer &answer, size_t &used) {
    if (size < LENGTH_FIELD_BYTES) {
        return COMMAND_TAKE_NEED_MORE;
    }
    const uint32_t length = commandFrameLoad32(pBytes);
    if (length < HEADER_AFTER_LENGTH || length > COMMAND_FRAME_MAX_LENGTH) {
        return COMMAND_TAKE_BAD;
    }
    if (size < LENGTH_FIELD_BYTES + length) {
        return COMMAND_TAKE_NEED_MORE;
    }
    CommandFrameHeader header;
    commandFrameDecode(pBytes, &header);
    const size_t payload = length - HEADER_AFTER_LENGTH;
    const bool hasBytes = header.kind == COMMAND_VALUE_BYTES;
    if (header.version != COMMAND_FRAME_VERSION || header.kind > COMMAND_VALUE_BYTES ||
        header.keyLength > payload || (hasBytes && header.number != payload - header.keyLength)) {
        return COMMAND_TAKE_BAD;
    }
    const uint8_t *pKey = pBytes + COMMAND_FRAME_HEADER_BYTES;
    answer.commandId = header.commandId;
    answer.requestId = header.requestId;
    answer.result = header.fieldOrResult;
    answer.kind = header.kind;
    answer.number = header.number;
    answer.key.assign(pKey, pKey + header.keyLength);
    answer.bytes.assign(pKey + header.keyLength, pKey + payload);
    used = LENGTH_FIELD_BYTES + length;
    return COMMAND_TAKE_DONE;
}

bool rowDecode(const Bytes &bytes, std::vector<RowField> &rows) {
    size_t at = 0;
    while (bytes.size() - at >= ROW_HEAD_BYTES) {
        const uint32_t id = commandFrameLoad32(bytes.data() + at);
        const uint32_t length = commandFrameLoad32(bytes.data() + at + 4);
        if (length > bytes.size() - at - ROW_HEAD_BYTES) {
            return false;
        }
        const uint8_t *pValue = bytes.data() + at + ROW_HEAD_BYTES;
        rows.push_back({id, Bytes(pValue, pValue + length)});
        at += ROW_HEAD_BYTES + length;
    }
    return at == bytes.size();
}

std::optional<Bytes> rowBytes(const std::vector<RowField> &rows, uint32_t fieldId) {
    for (const RowField &field : rows) {
        if (field.id == fieldId) {
            return field.value;
        }
    }
    return std::nullopt;
}

std::optional<uint32_t> rowNumber(const std::vector<RowField> &rows, uint32_t fieldId) {
    const std::optional<Bytes> value = rowBytes(rows, fieldId);
    if (!value || value->size() != 4) {
        return std::nullopt;
    }
    return commandFrameLoad32(value->data());
}

Bytes keyOfList(const std::string &name) {
    PbrListKey key{};
    nameInto(name, key.listName, key.listNameLen);
    return bytesOf(key);
}

Bytes keyOfNode(const std::string &list, uint32_t nodeIndex, uint8_t nextHopIndex, uint8_t mask) {
    PbrNodeKey key{};
    nameInto(list, key.listName, key.listNameLen);
    key.nodeIndex = nodeIndex;
    key.nextHopIndex = nextHopIndex;
    key.keyMask = mask;
    return bytesOf(key);
}

Bytes keyOfInterface(uint32_t unit) { return bytesOf(unit); }

std::optional<std::string> listOfKey(const Bytes &key) {
    const auto listKey = keyFrom<PbrListKey>(key);
    if (!listKey) {
        return std::nullopt;
    }
    return nameFrom(listKey->listName, listKey->listNameLen);
}

std::optional<NodePlace> nodeOfKey(const Bytes &key) {
    const auto nodeKey = keyFrom<PbrNodeKey>(key);
    if (!nodeKey) {
        return std::nullopt;
    }
    return NodePlace{nameFrom(nodeKey->listName, nodeKey->listNameLen), nodeKey->nodeIndex,
                     nodeKey->nextHopIndex};
}

std::optional<uint32_t> interfaceOfKey(const Bytes &key) { return keyFrom<uint32_t>(key); }

} // namespace client
