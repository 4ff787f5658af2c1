// Builds the request from options, and explains the answer.
#include "cli/raw.h"

#include <algorithm>
#include <cstdio>

#include "cli/errors.h"
#include "cli/numbers.h"
#include "client/result_text.h"

namespace cli {

namespace {

using client::Bytes;

struct CommandName {
    const char *pName; // as in api/pbr_keys.h
    uint32_t id;
};
constexpr CommandName COMMANDS[] = {
#define CLI_COMMAND_NAME(name, id) {#name, id},
    PBR_COMMANDS(CLI_COMMAND_NAME)
#undef CLI_COMMAND_NAME
};

uint16_t commandRead(const std::string &text) {
    if (const auto id = numberRead(text, 0, UINT16_MAX)) {
        return static_cast<uint16_t>(*id);
    }
    std::string name = text;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return c == '-' ? '_' : static_cast<char>(toupper(c)); });
    for (const CommandName &command : COMMANDS) {
        if (name == command.pName) {
            return static_cast<uint16_t>(command.id);
        }
    }
    throw Usage("'" + text + "' is no command: a number 0..65535 or a name such as node-get, list-set, "
                "if-get-first, scalar-get");
}

// Whether a get of this field yields bytes.
bool yieldsBytes(uint16_t command, uint32_t field) {
    switch (command) {
    case PBR_CMD_LIST_GET: return field == PBR_LIST_ROW;
    case PBR_CMD_NODE_GET: return field == PBR_NODE_ROW;
    case PBR_CMD_IF_GET: return field == PBR_IF_PBR_NAME || field == PBR_IF_EMPTY || field == PBR_IF_ROW;
    case PBR_CMD_NEXT_HOP_GET:
        return field == PBR_NEXT_HOP_ADDRESS || field == PBR_NEXT_HOP_NQA_ADMIN_NAME ||
               field == PBR_NEXT_HOP_NQA_TEST_NAME;
    case PBR_CMD_SCALAR_GET:
        return field == PBR_SCALAR_VERSION || field == PBR_SCALAR_PENDING || field == PBR_SCALAR_ROW;
    default: return false;
    }
}

bool isRow(uint16_t command, uint32_t field) {
    return (command == PBR_CMD_LIST_GET && field == PBR_LIST_ROW) ||
           (command == PBR_CMD_NODE_GET && field == PBR_NODE_ROW) ||
           (command == PBR_CMD_IF_GET && field == PBR_IF_ROW) ||
           (command == PBR_CMD_SCALAR_GET && field == PBR_SCALAR_ROW);
}

bool isGet(uint16_t command) {
    return command == PBR_CMD_LIST_GET || command == PBR_CMD_NODE_GET || command == PBR_CMD_IF_GET ||
           command == PBR_CMD_NEXT_HOP_GET || command == PBR_CMD_SCALAR_GET;
}

void valueFill(const RawOptions &options, client::CommandRequest &request) {
    const int given = options.number.has_value() + options.bytes.has_value() + options.text.has_value() +
                      options.capacity.has_value();
    if (given > 1) {
        throw Usage("give one of --number, --bytes, --text and --capacity");
    }
    if (options.number) {
        request.kind = COMMAND_VALUE_NUMBER;
        request.number = *options.number;
    } else if (options.bytes || options.text) {
        const auto bytes = options.bytes ? hexRead(*options.bytes) : Bytes(options.text->begin(), options.text->end());
        if (!bytes) {
            throw Usage("--bytes '" + *options.bytes + "' are no hex digits, two a byte");
        }
        request.kind = COMMAND_VALUE_BYTES;
        request.bytes = *bytes;
    } else if (options.capacity || yieldsBytes(request.commandId, options.field)) {
        request.kind = COMMAND_VALUE_BYTES;
        request.number = options.capacity.value_or(client::BYTES_CAPACITY);
    } else if (isGet(request.commandId)) {
        request.kind = COMMAND_VALUE_NUMBER;
    }
}

std::string keyText(const Bytes &key) {
    if (const auto unit = client::interfaceOfKey(key)) {
        return "if:" + std::to_string(*unit);
    }
    if (const auto list = client::listOfKey(key)) {
        return "list:" + *list;
    }
    if (const auto place = client::nodeOfKey(key)) {
        const std::string hop = std::to_string(place->nextHopIndex);
        return "node:" + place->list + "/" + std::to_string(place->nodeIndex) +
               (place->nextHopIndex == 0 ? std::string() : std::string("/") + hop);
    }
    return "";
}

std::string printable(const Bytes &bytes) {
    const bool isText = !bytes.empty() && std::all_of(bytes.begin(), bytes.end(),
                                                      [](uint8_t byte) { return byte >= 0x20 && byte < 0x7f; });
    return isText ? std::string(bytes.begin(), bytes.end()) : "";
}

std::string hexNumber(uint32_t number) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", number);
    return text;
}

nlohmann::json rowJson(const Bytes &bytes) {
    std::vector<client::RowField> fields;
    const bool whole = client::rowDecode(bytes, fields);
    nlohmann::json rows = nlohmann::json::array();
    for (const client::RowField &field : fields) {
        const auto number = client::rowNumber({field}, field.id);
        nlohmann::json value = number ? nlohmann::json(*number) : nlohmann::json(printable(field.value));
        rows.push_back({{"field", field.id}, {"value", value}, {"bytes", hexWrite(field.value)}});
    }
    if (!whole) {
        rows.push_back({{"cut", true}});
    }
    return rows;
}

nlohmann::json answerJson(const client::CommandRequest &request, const client::CommandAnswer &answer) {
    nlohmann::json shown = {{"result", answer.result}, {"text", client::resultDescribe(answer.result)}};
    if (!answer.key.empty()) {
        shown["key"] = hexWrite(answer.key);
        shown["keyText"] = keyText(answer.key);
    }
    if (answer.kind == COMMAND_VALUE_NUMBER) {
        shown["number"] = answer.number;
    } else if (answer.kind == COMMAND_VALUE_BYTES) {
        shown["bytes"] = hexWrite(answer.bytes);
        if (isRow(request.commandId, request.fieldId)) {
            shown["row"] = rowJson(answer.bytes);
        }
    }
    return shown;
}

void answerPrint(const client::CommandRequest &request, const client::CommandAnswer &answer, std::ostream &out) {
    const client::ResultText *pText = client::resultTextGet(answer.result);
    out << "result " << hexNumber(answer.result) << " " << (pText != nullptr ? pText->pMeaning : "(not published)")
        << "\n";
    if (!answer.key.empty()) {
        out << "key    " << hexWrite(answer.key) << " " << keyText(answer.key) << "\n";
    }
    if (answer.kind == COMMAND_VALUE_NUMBER) {
        out << "number " << answer.number << " " << hexNumber(answer.number) << "\n";
    } else if (answer.kind == COMMAND_VALUE_BYTES) {
        out << "bytes  " << answer.bytes.size() << " " << hexWrite(answer.bytes);
        const std::string text = printable(answer.bytes);
        out << (text.empty() ? "" : " \"" + text + "\"") << "\n";
        if (isRow(request.commandId, request.fieldId)) {
            for (const auto &field : rowJson(answer.bytes)) {
                out << (field.contains("cut") ? "  (cut)" : "  field " + field["field"].dump() + " = " +
                                                               field["value"].dump())
                    << "\n";
            }
        }
    }
}

} // namespace

Bytes rawKey(Daemon &daemon, const std::string &text, uint8_t mask) {
    const size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon == std::string::npos ? 0 : colon);
    const std::string rest = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (kind == "list") {
        return client::keyOfList(rest);
    }
    if (kind == "if") {
        const auto number = numberRead(rest, 0, UINT32_MAX);
        const auto unit = number ? std::optional<uint32_t>(static_cast<uint32_t>(*number))
                                 : interfacesOf(daemon).unitOf(rest);
        if (!unit) {
            throw Usage("--key " + text + ": there is no such interface");
        }
        return client::keyOfInterface(*unit);
    }
    if (kind == "node") {
        // LIST/INDEX[/HOP]
        std::vector<std::string> parts;
        for (size_t at = 0; at <= rest.size();) {
            const size_t slash = std::min(rest.find('/', at), rest.size());
            parts.push_back(rest.substr(at, slash - at));
            at = slash + 1;
        }
        const auto index = parts.size() > 1 ? numberRead(parts[1], 0, UINT32_MAX) : 0;
        const auto hop = parts.size() > 2 ? numberRead(parts[2], 0, UINT8_MAX) : 0;
        if (parts.size() > 3 || !index || !hop) {
            throw Usage("--key " + text + ": the form is node:LIST/INDEX or node:LIST/INDEX/HOP");
        }
        return client::keyOfNode(parts[0], static_cast<uint32_t>(*index), static_cast<uint8_t>(*hop), mask);
    }
    const auto bytes = hexRead(text);
    if (!bytes) {
        throw Usage("--key " + text + ": give hex digits, list:NAME, node:LIST/INDEX[/HOP] or if:NAME");
    }
    return *bytes;
}

uint32_t raw(Daemon &daemon, const RawOptions &options, std::ostream &out) {
    client::CommandRequest request;
    request.commandId = commandRead(options.command);
    request.fieldId = options.field;
    if (options.key) {
        request.key = rawKey(daemon, *options.key, static_cast<uint8_t>(options.mask));
    }
    valueFill(options, request);
    client::CommandAnswer answer;
    const client::CommandStatus status = client::commandCall(daemon.command(), request, answer);
    if (status.outcome == client::COMMAND_NO_DAEMON) {
        throw NoDaemon(status.text);
    }
    if (status.outcome == client::COMMAND_REFUSED && answer.requestId == 0) {
        throw Usage(status.text); // never sent
    }
    if (options.json) {
        out << answerJson(request, answer).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    } else {
        answerPrint(request, answer, out);
    }
    return answer.result;
}

} // namespace cli
