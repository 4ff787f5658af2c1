// One function a report: read, make rows, print.
#include "cli/show.h"

#include <algorithm>
#include <cstdio>

#include "cli/errors.h"
#include "cli/running.h"
#include "cli/show_rows.h"
#include "cli/table.h"
#include "core/pbr_types.h"

namespace cli {

namespace {

using nlohmann::json;

Surroundings surroundingsRead(Daemon &daemon) {
    Surroundings around;
    if (const auto answer = daemon.mgmtIfThere("peers")) {
        around.peers = answer->value("peers", json());
    }
    if (const auto answer = daemon.mgmtIfThere("device.show")) {
        // The report stands beside "ok" or under a member of its own.
        around.device = answer->contains("device") ? (*answer)["device"] : *answer;
        around.device.erase("ok");
    }
    return around;
}

void printJson(const json &value, std::ostream &out) {
    out << value.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

void printTable(const std::vector<Column> &columns, const json &rows, size_t merged, const char *pEmpty,
                std::ostream &out) {
    if (rows.empty()) {
        out << pEmpty << "\n";
    } else {
        out << tableText(columns, rows, merged);
    }
}

// The column is there where some node does something else than usual.
std::vector<Column> withOtherwise(std::vector<Column> columns, const json &rows, size_t at) {
    const bool isSaid = std::any_of(rows.begin(), rows.end(),
                                    [](const json &row) { return row.value("otherwise", "").compare(0, 4, "drop") == 0; });
    if (isSaid) {
        columns.insert(columns.begin() + static_cast<ptrdiff_t>(at), {"OTHERWISE", "otherwise"});
    }
    return columns;
}

// What a device entry does, in words.
std::string targetText(const json &entry) {
    const std::string action = entry.value("action", "");
    if (action == "next-hops") {
        return std::string(entry.value("ecmp", false) ? "ecmp " : "") + cellText(entry.value("nextHops", json()));
    }
    if (action == "out-interface") {
        return cellText(entry.value("outInterface", json()));
    }
    return "";
}

// {"a": {"b": 1}} -> rows ("a.b", 1)
void flatten(const std::string &prefix, const json &value, json &rows) {
    if (!value.is_object()) {
        rows.push_back({{"name", prefix}, {"value", value}});
        return;
    }
    for (const auto &[key, each] : value.items()) {
        flatten(prefix.empty() ? key : prefix + "." + key, each, rows);
    }
}

// Whether a field tells nothing: 0, no bits, only zero digits, the zero address.
bool isZero(const json &value) {
    if (value.is_number()) {
        return value == 0;
    }
    return value.empty() || (value.is_string() && value.get<std::string>().find_first_not_of("0.:") == std::string::npos);
}

// A title, the fields that are not zero, and all bytes, 32 a line with their offset.
void recordPrint(const std::string &what, const json &record, std::ostream &out) {
    const auto number = [&](const char *pKey) { return cellText(record.value(pKey, json())); };
    out << what << ": interface " << cellText(record.value("interface", json())) << " (unit " << number("ifUnit")
        << "), acl " << number("acl") << (record.contains("rule") ? ", rule " + number("rule") : "")
        << (record.value("member", false) ? ", of a member port" : "") << ", action "
        << cellText(record.value(record.contains("actions") ? "actions" : "action", json())) << "\n";
    for (const auto &field : record.value("fields", json::array())) {
        if (!isZero(field["value"])) {
            const std::string name = field["name"].get<std::string>();
            out << "  " << name << std::string(name.size() < 16 ? 16 - name.size() : 1, ' ')
                << cellText(field["value"]) << "\n";
        }
    }
    const std::string hex = record.value("hex", "");
    for (size_t at = 0; at < hex.size(); at += 64) {
        char offset[32];
        snprintf(offset, sizeof(offset), "  %03zx  ", at / 2);
        out << offset << hex.substr(at, 64) << "\n";
    }
}

std::string debugText(uint32_t flags) {
    std::string text;
    for (const auto &[bit, pName] : {std::pair{PBR_DEBUG_HARDWARE, "hw"}, std::pair{PBR_DEBUG_DUMP, "dump"},
                                     std::pair{PBR_DEBUG_GENERAL, "event"}}) {
        if ((flags & bit) != 0) {
            text += text.empty() ? "" : ",";
            text += pName;
        }
    }
    return text.empty() ? "off" : text;
}

} // namespace

void showLists(Daemon &daemon, bool asJson, std::ostream &out) {
    const json lists = listRows(runningRead(daemon));
    if (asJson) {
        return printJson(lists, out);
    }
    json rows = json::array();
    for (const auto &list : lists) {
        const json head = {{"list", list["list"]}, {"interfaces", list["interfaces"]}};
        for (const auto &node : list["nodes"]) {
            json row = head;
            row.update(node);
            rows.push_back(row);
        }
        if (list["nodes"].empty()) {
            json row = head;
            row["match"] = "(no nodes)";
            rows.push_back(row);
        }
    }
    printTable({{"LIST", "list"}, {"BOUND TO", "interfaces"}, {"NODE", "node", true}, {"MATCH", "match"},
                {"ACTION", "action"}},
               rows, 2, "no lists", out);
}

void showBindings(Daemon &daemon, bool asJson, std::ostream &out) {
    const json rows = bindingRows(runningRead(daemon), surroundingsRead(daemon));
    if (asJson) {
        return printJson(rows, out);
    }
    printTable({{"INTERFACE", "interface"}, {"UNIT", "unit", true}, {"UP", "up"}, {"LIST", "list"},
                {"NODES", "nodes", true}, {"ENTRIES", "entries", true}, {"INSTALLED", "installed", true},
                {"ERROR", "error"}},
               rows, 0, "no bindings", out);
}

void showNextHops(Daemon &daemon, bool asJson, std::ostream &out) {
    const json rows = nextHopRows(runningRead(daemon), surroundingsRead(daemon));
    if (asJson) {
        return printJson(rows, out);
    }
    const std::vector<Column> columns = {
        {"LIST", "list"}, {"NODE", "node", true}, {"HOP", "index", true}, {"ADDRESS", "address"},
        {"VRF", "vrf", true}, {"PROBE", "probe"}, {"REACHABLE", "reachable"}, {"CHOSEN", "chosen"},
        {"IN DEVICE", "installed"}, {"WHY NOT", "why"}};
    printTable(withOtherwise(columns, rows, columns.size() - 1), rows, 2, "no next hops", out);
}

void showAcls(Daemon &daemon, uint32_t acl, bool asJson, std::ostream &out) {
    json request = json::object();
    if (acl != 0) {
        request["acl"] = acl;
    }
    const json acls = daemon.mgmt("acl.show", request).value("acls", json::array());
    if (asJson) {
        return printJson(acls, out);
    }
    json rows = json::array();
    for (const auto &each : acls) {
        const json head = {{"acl", each["acl"]}, {"users", each.value("users", 0)}};
        for (const auto &rule : each["rules"]) {
            json row = head;
            row.update(rule);
            rows.push_back(row);
        }
        if (each["rules"].empty()) {
            json row = head;
            row["text"] = "(no rules: matches nothing)";
            rows.push_back(row);
        }
    }
    printTable({{"ACL", "acl", true}, {"USERS", "users", true}, {"RULE", "rule", true}, {"TEXT", "text"}}, rows, 2,
               "no ACLs", out);
}

void showDevice(Daemon &daemon, bool asJson, std::ostream &out) {
    (void)daemon.command(); // tells at once when no daemon runs
    json device = surroundingsRead(daemon).device;
    if (!device.is_object()) {
        throw Refused("the daemon's platform does not tell what its device holds");
    }
    if (asJson) {
        return printJson(device, out);
    }
    json rows = device.value("entries", json::array());
    for (auto &row : rows) {
        row["target"] = targetText(row);
        row["otherwise"] = row.value("dropping", false) ? "drop (now)" : row.value("otherwise", "");
    }
    device.erase("entries");
    for (auto &[key, value] : device.items()) {
        if (value.is_array() && !value.empty() && value[0].is_object()) {
            value = std::to_string(value.size()) + " (shown with --json)";
        }
    }
    if (device.contains("markMask") && device["markMask"].is_number_unsigned()) {
        char text[16];
        snprintf(text, sizeof(text), "0x%08x", device["markMask"].get<uint32_t>()); // a mask reads in hex
        device["markMask"] = text;
    }
    json head = json::array();
    flatten("", device, head);
    out << tableText({{"DEVICE", "name"}, {"", "value"}}, head) << "\n";
    const std::vector<Column> columns = {
        {"LIST", "list"}, {"NODE", "node", true}, {"INTERFACE", "interface"}, {"ACL", "acl", true},
        {"ACTION", "action"}, {"TARGET", "target"}, {"VRF", "vrf", true}, {"PRIORITY", "priority", true},
        {"INSTALLED", "installed"}, {"ERROR", "error"}};
    printTable(withOtherwise(columns, rows, columns.size() - 2), rows, 2, "no entries", out);
}

void showRecords(Daemon &daemon, bool asJson, std::ostream &out) {
    json answer = daemon.mgmt("device.records");
    answer.erase("ok");
    if (asJson) {
        return printJson(answer, out);
    }
    if (answer.contains("note")) {
        out << answer["note"].get<std::string>() << "\n";
        return;
    }
    for (const auto &[pKey, pWhat] : {std::pair{"records", "record"}, std::pair{"ruleRecords", "rule record"}}) {
        for (const auto &record : answer.value(pKey, json::array())) {
            recordPrint(pWhat, record, out);
        }
    }
    if (answer["records"].empty() && answer["ruleRecords"].empty()) {
        out << "no records\n";
    }
}

void showCounters(Daemon &daemon, bool asJson, std::ostream &out) {
    client::ScalarRow scalars;
    must(client::scalarsRead(daemon.command(), scalars), "read the scalars");
    json counters = {{"daemon",
                      {{"version", scalars.version},
                       {"lists", scalars.listCount},
                       {"maxLists", scalars.maxListNum},
                       {"maxNodes", scalars.maxNodeNum},
                       {"debug", debugText(scalars.debugFlags)}}}};
    if (auto answer = daemon.mgmtIfThere("counters")) {
        answer->erase("ok");
        counters.update(answer->contains("counters") ? (*answer)["counters"] : *answer);
    }
    if (asJson) {
        return printJson(counters, out);
    }
    json rows = json::array();
    flatten("", counters, rows);
    out << tableText({{"COUNTER", "name"}, {"VALUE", "value"}}, rows);
}

void showPolicyCounters(Daemon &daemon, bool asJson, std::ostream &out) {
    json answer = daemon.mgmt("device.counters");
    answer.erase("ok");
    if (asJson) {
        return printJson(answer, out);
    }
    if (answer.contains("note")) {
        out << answer["note"].get<std::string>() << "\n";
        return;
    }
    json rows = json::array();
    for (const json &node : answer["counters"]) {
        json row = node;
        row["text"] = "(all that the node decided)";
        rows.push_back(row);
        for (const json &rule : node["rules"]) {
            json ruleRow = rule;
            for (const char *pKey : {"list", "node", "ipVersion", "acl"}) {
                ruleRow[pKey] = node[pKey];
            }
            rows.push_back(ruleRow);
        }
    }
    printTable({{"LIST", "list"}, {"NODE", "node", true}, {"IP", "ipVersion", true}, {"ACL", "acl", true},
                {"RULE", "rule", true}, {"TEXT", "text"}, {"PACKETS", "packets", true}, {"BYTES", "bytes", true}},
               rows, 4, "no entries", out);
}

} // namespace cli
