// Typed calls on the command socket. Rows are read in batches: all requests of a table are sent before
// the first answer is waited for.
#include "client/policy_calls.h"

#include "client/result_text.h"

namespace client {

namespace {

CommandRequest walkRequest(uint16_t command, const Bytes &key) {
    CommandRequest request;
    request.commandId = command;
    request.key = key;
    return request;
}

CommandRequest getRequest(uint16_t command, const Bytes &key, uint32_t field, bool bytes) {
    CommandRequest request;
    request.commandId = command;
    request.key = key;
    request.fieldId = field;
    request.kind = bytes ? COMMAND_VALUE_BYTES : COMMAND_VALUE_NUMBER;
    request.number = bytes ? BYTES_CAPACITY : 0;
    return request;
}

// Walks from the first row on. Each row's key is given to `take`, which says whether it could be read.
// The end of a walk is the daemon's PBR_FAIL.
template <typename Take>
CommandStatus walk(CommandClient &client, uint16_t first, const Bytes &firstKey, Take take) {
    CommandRequest request = walkRequest(first, firstKey);
    for (;;) {
        CommandAnswer answer;
        const CommandStatus status = commandCall(client, request, answer);
        if (status.outcome == COMMAND_REFUSED && status.code == PBR_FAIL) {
            return {};
        }
        if (!status.ok()) {
            return status;
        }
        if (answer.key == request.key && request.commandId != first) {
            return {COMMAND_NO_DAEMON, 0, "a walk of the daemon's rows does not advance"};
        }
        if (!take(answer.key)) {
            return {COMMAND_NO_DAEMON, 0, "the daemon's answer to a walk has no key of the right size"};
        }
        request = walkRequest(static_cast<uint16_t>(first + 1), answer.key);
    }
}

bool gone(const CommandAnswer &answer) {
    return answer.result == PBR_ERR_NO_ROW || answer.result == PBR_FAIL;
}

CommandStatus refused(const CommandAnswer &answer) {
    return {COMMAND_REFUSED, answer.result, resultDescribe(answer.result)};
}

CommandStatus cutRow() { return {COMMAND_NO_DAEMON, 0, "the daemon's answer ends within a row"}; }

std::string textOf(const Bytes &bytes) { return std::string(bytes.begin(), bytes.end()); }

uint32_t numberOf(const std::vector<RowField> &fields, uint32_t id) { return rowNumber(fields, id).value_or(0); }

void nodeRowFill(const std::vector<RowField> &fields, NodeRow &row) {
    row.status = numberOf(fields, PBR_NODE_STATUS);
    row.matchValue1 = numberOf(fields, PBR_NODE_MATCH_VALUE1);
    row.matchValue2 = numberOf(fields, PBR_NODE_MATCH_VALUE2);
    row.aclNum = numberOf(fields, PBR_NODE_ACL_NUM);
    row.ipVersion = numberOf(fields, PBR_NODE_IP_VERSION);
    row.ipPri = numberOf(fields, PBR_NODE_IP_PRI);
    row.outIfUnit = numberOf(fields, PBR_NODE_OUT_IF_UNIT);
    row.vrfId = numberOf(fields, PBR_NODE_VRF_ID);
    row.field7 = numberOf(fields, PBR_NODE_FIELD7);
    row.forwardFlag = numberOf(fields, PBR_NODE_FORWARD_FLAG);
    row.isEcmp = numberOf(fields, PBR_NODE_IS_ECMP);
}

// The next hops of many nodes: one walk a node, all of them one step at a time, each step pipelined.
CommandStatus nextHopsWalkAll(CommandClient &client, const std::vector<NodeRow> &nodes,
                              std::vector<NextHopRow> &rows) {
    std::vector<std::vector<uint8_t>> found(nodes.size());
    std::vector<size_t> walking; // nodes whose walk is not at its end
    std::vector<CommandRequest> requests;
    for (size_t i = 0; i < nodes.size(); i++) {
        walking.push_back(i);
        requests.push_back(walkRequest(PBR_CMD_NEXT_HOP_GET_FIRST,
                                       keyOfNode(nodes[i].list, nodes[i].index, 0,
                                                 PBR_KEY_LIST_FIXED | PBR_KEY_NODE_FIXED)));
    }
    while (!walking.empty()) {
        std::vector<CommandAnswer> answers;
        const CommandStatus status = commandCallMany(client, requests, answers);
        if (!status.ok()) {
            return status;
        }
        std::vector<size_t> further;
        requests.clear();
        for (size_t i = 0; i < answers.size(); i++) {
            const auto place = nodeOfKey(answers[i].key);
            std::vector<uint8_t> &indexes = found[walking[i]];
            if (answers[i].result == PBR_FAIL) {
                continue;
            }
            if (answers[i].result != PBR_OK) {
                return refused(answers[i]);
            }
            if (!place || (!indexes.empty() && place->nextHopIndex <= indexes.back())) {
                return {COMMAND_NO_DAEMON, 0, "a walk of the daemon's next hops does not advance"};
            }
            indexes.push_back(place->nextHopIndex);
            further.push_back(walking[i]);
            requests.push_back(walkRequest(PBR_CMD_NEXT_HOP_GET_NEXT, answers[i].key));
        }
        walking = further;
    }
    rows.clear();
    for (size_t i = 0; i < nodes.size(); i++) {
        for (const uint8_t index : found[i]) {
            NextHopRow row;
            row.list = nodes[i].list;
            row.nodeIndex = nodes[i].index;
            row.index = index;
            rows.push_back(row);
        }
    }
    return {};
}

} // namespace

CommandStatus numberGet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                        uint32_t &value) {
    CommandAnswer answer;
    const CommandStatus status = commandCall(client, getRequest(command, key, field, false), answer);
    if (status.ok()) {
        value = answer.number;
    }
    return status;
}

CommandStatus numberSet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                        uint32_t value) {
    CommandRequest request = getRequest(command, key, field, false);
    request.number = value;
    CommandAnswer answer;
    return commandCall(client, request, answer);
}

CommandStatus bytesGet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                       Bytes &value) {
    CommandAnswer answer;
    const CommandStatus status = commandCall(client, getRequest(command, key, field, true), answer);
    if (status.ok()) {
        value = answer.bytes;
    }
    return status;
}

CommandStatus bytesSet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                       const Bytes &value) {
    CommandRequest request = getRequest(command, key, field, true);
    request.number = static_cast<uint32_t>(value.size());
    request.bytes = value;
    CommandAnswer answer;
    return commandCall(client, request, answer);
}

CommandStatus listsWalk(CommandClient &client, std::vector<std::string> &names) {
    return walk(client, PBR_CMD_LIST_GET_FIRST, keyOfList(""), [&names](const Bytes &key) {
        const auto name = listOfKey(key);
        if (name) {
            names.push_back(*name);
        }
        return name.has_value();
    });
}

CommandStatus nodesWalk(CommandClient &client, std::vector<NodePlace> &nodes) {
    return walk(client, PBR_CMD_NODE_GET_FIRST, keyOfNode("", 0), [&nodes](const Bytes &key) {
        const auto place = nodeOfKey(key);
        if (place) {
            nodes.push_back(*place);
        }
        return place.has_value();
    });
}

CommandStatus nextHopsWalk(CommandClient &client, const std::string &list, uint32_t nodeIndex,
                           std::vector<uint8_t> &indexes) {
    const Bytes key = keyOfNode(list, nodeIndex, 0, PBR_KEY_LIST_FIXED | PBR_KEY_NODE_FIXED);
    return walk(client, PBR_CMD_NEXT_HOP_GET_FIRST, key, [&indexes](const Bytes &found) {
        const auto place = nodeOfKey(found);
        if (place) {
            indexes.push_back(place->nextHopIndex);
        }
        return place.has_value();
    });
}

CommandStatus interfacesWalk(CommandClient &client, std::vector<uint32_t> &units) {
    return walk(client, PBR_CMD_IF_GET_FIRST, keyOfInterface(0), [&units](const Bytes &key) {
        const auto unit = interfaceOfKey(key);
        if (unit) {
            units.push_back(*unit);
        }
        return unit.has_value();
    });
}

CommandStatus listsRead(CommandClient &client, std::vector<ListRow> &rows) {
    std::vector<std::string> names;
    CommandStatus status = listsWalk(client, names);
    if (!status.ok()) {
        return status;
    }
    std::vector<CommandRequest> requests;
    for (const std::string &name : names) {
        requests.push_back(getRequest(PBR_CMD_LIST_GET, keyOfList(name), PBR_LIST_ROW, true));
    }
    std::vector<CommandAnswer> answers;
    status = commandCallMany(client, requests, answers);
    if (!status.ok()) {
        return status;
    }
    rows.clear();
    for (size_t i = 0; i < names.size(); i++) {
        std::vector<RowField> fields;
        if (gone(answers[i])) {
            continue;
        }
        if (answers[i].result != PBR_OK) {
            return refused(answers[i]);
        }
        if (!rowDecode(answers[i].bytes, fields)) {
            return cutRow();
        }
        rows.push_back({names[i], numberOf(fields, PBR_LIST_STATUS), numberOf(fields, PBR_LIST_REF_CNT)});
    }
    return {};
}

CommandStatus nodesRead(CommandClient &client, std::vector<NodeRow> &rows) {
    std::vector<NodePlace> places;
    CommandStatus status = nodesWalk(client, places);
    if (!status.ok()) {
        return status;
    }
    std::vector<CommandRequest> requests;
    for (const NodePlace &place : places) {
        const Bytes key = keyOfNode(place.list, place.nodeIndex);
        requests.push_back(getRequest(PBR_CMD_NODE_GET, key, PBR_NODE_ROW, true));
        // The time range is not among the fields of the row.
        requests.push_back(getRequest(PBR_CMD_NODE_GET, key, PBR_NODE_TIME_RANGE_ID, false));
    }
    std::vector<CommandAnswer> answers;
    status = commandCallMany(client, requests, answers);
    if (!status.ok()) {
        return status;
    }
    rows.clear();
    for (size_t i = 0; i < places.size(); i++) {
        const CommandAnswer &rowAnswer = answers[2 * i], &rangeAnswer = answers[2 * i + 1];
        if (gone(rowAnswer) || gone(rangeAnswer)) {
            continue;
        }
        if (rowAnswer.result != PBR_OK) {
            return refused(rowAnswer);
        }
        std::vector<RowField> fields;
        if (!rowDecode(rowAnswer.bytes, fields)) {
            return cutRow();
        }
        NodeRow row;
        row.list = places[i].list;
        row.index = places[i].nodeIndex;
        nodeRowFill(fields, row);
        row.timeRangeId = rangeAnswer.number;
        rows.push_back(row);
    }
    return {};
}

CommandStatus nextHopsRead(CommandClient &client, const std::vector<NodeRow> &nodes,
                           std::vector<NextHopRow> &rows) {
    constexpr uint32_t FIELDS[] = {PBR_NEXT_HOP_STATUS, PBR_NEXT_HOP_ADDRESS, PBR_NEXT_HOP_NQA_ADMIN_NAME,
                                   PBR_NEXT_HOP_NQA_TEST_NAME};
    constexpr size_t FIELD_COUNT = sizeof(FIELDS) / sizeof(FIELDS[0]);
    CommandStatus status = nextHopsWalkAll(client, nodes, rows);
    if (!status.ok()) {
        return status;
    }
    std::vector<CommandRequest> requests;
    for (const NextHopRow &row : rows) {
        for (const uint32_t field : FIELDS) {
            requests.push_back(getRequest(PBR_CMD_NEXT_HOP_GET, keyOfNode(row.list, row.nodeIndex, row.index),
                                          field, field != PBR_NEXT_HOP_STATUS));
        }
    }
    std::vector<CommandAnswer> answers;
    status = commandCallMany(client, requests, answers);
    if (!status.ok()) {
        return status;
    }
    std::vector<NextHopRow> present;
    for (size_t i = 0; i < rows.size(); i++) {
        const CommandAnswer *pAnswers = &answers[FIELD_COUNT * i];
        if (gone(pAnswers[0])) {
            continue;
        }
        rows[i].status = pAnswers[0].number;
        rows[i].address = pAnswers[1].bytes;
        rows[i].nqaAdmin = textOf(pAnswers[2].bytes);
        rows[i].nqaTest = textOf(pAnswers[3].bytes);
        present.push_back(rows[i]);
    }
    rows = std::move(present);
    return {};
}

CommandStatus interfacesRead(CommandClient &client, std::vector<InterfaceRow> &rows) {
    std::vector<uint32_t> units;
    CommandStatus status = interfacesWalk(client, units);
    if (!status.ok()) {
        return status;
    }
    std::vector<CommandRequest> requests;
    for (const uint32_t unit : units) {
        requests.push_back(getRequest(PBR_CMD_IF_GET, keyOfInterface(unit), PBR_IF_ROW, true));
    }
    std::vector<CommandAnswer> answers;
    status = commandCallMany(client, requests, answers);
    if (!status.ok()) {
        return status;
    }
    rows.clear();
    for (size_t i = 0; i < units.size(); i++) {
        if (gone(answers[i])) {
            continue;
        }
        if (answers[i].result != PBR_OK) {
            return refused(answers[i]);
        }
        std::vector<RowField> fields;
        if (!rowDecode(answers[i].bytes, fields)) {
            return cutRow();
        }
        rows.push_back({units[i], numberOf(fields, PBR_IF_STATUS),
                        textOf(rowBytes(fields, PBR_IF_PBR_NAME).value_or(Bytes()))});
    }
    return {};
}

CommandStatus scalarsRead(CommandClient &client, ScalarRow &row) {
    Bytes bytes;
    const CommandStatus status = bytesGet(client, PBR_CMD_SCALAR_GET, {}, PBR_SCALAR_ROW, bytes);
    if (!status.ok()) {
        return status;
    }
    std::vector<RowField> fields;
    if (!rowDecode(bytes, fields)) {
        return cutRow();
    }
    row.maxListNum = numberOf(fields, PBR_SCALAR_MAX_LIST_NUM);
    row.maxNodeNum = numberOf(fields, PBR_SCALAR_MAX_NODE_NUM);
    row.listCount = numberOf(fields, PBR_SCALAR_LIST_COUNT);
    row.debugFlags = numberOf(fields, PBR_SCALAR_DEBUG_FLAGS);
    row.version = textOf(rowBytes(fields, PBR_SCALAR_VERSION).value_or(Bytes()));
    return {};
}

} // namespace client
