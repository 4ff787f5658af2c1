// The question from the command line, the daemon's answer, and with it what show next-hops says of the
// node that decides.
#include "cli/explain.h"

#include <sstream>

#include "aclrule/acl_rule_names.h"
#include "cli/errors.h"
#include "cli/numbers.h"
#include "cli/running.h"
#include "cli/show_rows.h"
#include "cli/table.h"

namespace cli {

namespace {

using nlohmann::json;

// A number, or a name that stands for one.
uint32_t numberOrName(const std::string &text, int named, const char *pOption) {
    if (named >= 0) {
        return static_cast<uint32_t>(named);
    }
    const auto number = wordRead(text);
    if (!number) {
        throw Usage(std::string(pOption) + " '" + text + "' is neither a number nor a name that ACL rules know");
    }
    return *number;
}

uint32_t flagsOf(const std::string &text) {
    uint32_t flags = 0;
    std::stringstream words(text == "none" ? "" : text);
    for (std::string word; std::getline(words, word, ',');) {
        const uint8_t bit = aclrule::aclFlagBit(word);
        if (bit == 0) {
            throw Usage("--flags '" + text + "': write none, or some of " + aclrule::aclFlagNames());
        }
        flags |= bit;
    }
    return flags;
}

bool isIpv6(const ExplainOptions &options) { return options.source.find(':') != std::string::npos; }

uint32_t protocolOf(const ExplainOptions &options) {
    const int icmp = isIpv6(options) ? aclrule::ACL_PROTOCOL_ICMP_6 : aclrule::ACL_PROTOCOL_ICMP;
    return numberOrName(options.protocol,
                        options.protocol == "icmp" ? icmp : aclrule::aclProtocolNumber(options.protocol), "--proto");
}

std::string nodeName(const json &node) {
    return "list " + cellText(node["list"]) + " node " + cellText(node["node"]);
}

void nodeWrite(const json &node, std::ostream &out) {
    out << nodeName(node) << " (ACL " << cellText(node["acl"]) << "): " << node["outcome"].get<std::string>();
    const std::string why = node.value("why", "");
    out << (why.empty() ? "" : ": " + why) << "\n";
    for (const json &rule : node["rules"]) {
        const std::string miss = rule.value("why", "");
        out << "  rule " << cellText(rule["rule"]) << " " << cellText(rule["text"]) << ": "
            << rule["answer"].get<std::string>() << (miss.empty() ? "" : ": " + miss) << "\n";
    }
}

std::string pathsText(const json &paths) {
    std::string text;
    for (const json &path : paths) {
        const std::string gateway = path.value("gateway", "");
        text += text.empty() ? "" : ", or ";
        text += gateway.empty() ? "out of " + cellText(path["interface"])
                                : "to " + gateway + " out of " + cellText(path["interface"]);
        if (path.value("weight", 1u) > 1) {
            text += " (weight " + std::to_string(path["weight"].get<uint32_t>()) + ")";
        }
    }
    return text;
}

// What the deciding node does with the packet.
std::string actionText(const json &answer) {
    const std::string why = answer.value("why", "");
    if (answer.contains("paths") && !answer["paths"].empty()) {
        return "sent " + pathsText(answer["paths"]) + " (table " + cellText(answer["table"]) + ")";
    }
    if (why.empty() && answer.value("action", "") == "next-hops") {
        return "sent to " + cellText(answer["nextHops"]); // of a device that knows no paths
    }
    if (why.empty() && answer.value("action", "") == "out-interface") {
        return "sent out of the node's interface";
    }
    return std::string(answer.value("dropping", false) ? "dropped" : "routed as usual") + (why.empty() ? std::string() : ": " + why);
}

void deciderWrite(const json &answer, std::ostream &out) {
    out << nodeName(answer) << ": ACL " << cellText(answer["acl"]) << " rule " << cellText(answer["rule"]) << ": "
        << cellText(answer["ruleText"]) << "\n";
    out << actionText(answer) << "\n";
    if (answer.value("priority", 0u) != 0) {
        out << "priority becomes " << cellText(answer["priority"]) << "\n";
    }
    for (const json &hop : answer.value("hops", json::array())) {
        const std::string why = hop.value("why", "");
        out << "next hop " << cellText(hop["index"]) << " " << cellText(hop["address"]) << ": "
            << (why.empty() ? "used" : "not used: " + why) << "\n";
    }
}

// Why a node is out of force, in the words of the policy.
void absentExplain(const Policy &policy, json &node) {
    const auto list = policy.lists.find(node["list"].get<std::string>());
    if (node["outcome"] != "left out" || list == policy.lists.end()) {
        return;
    }
    const auto found = list->second.nodes.find(node["node"].get<uint32_t>());
    const std::string why = node.value("why", "");
    if (found == list->second.nodes.end() || why.find("not in force") == std::string::npos) {
        return;
    }
    const Node &known = found->second;
    node["why"] = known.acl == 0 ? "the node has no ACL"
        : known.forwardFlag == 2 ? "forward flag 2: the node is not programmed"
        : known.timeRange        ? "time range " + std::to_string(*known.timeRange) + " is not active"
                                 : why;
}

json hopsOf(Daemon &daemon, const Running &running, const json &answer) {
    Surroundings around;
    around.peers = daemon.mgmt("peers").value("peers", json());
    around.device = daemon.mgmt("device.show");
    json hops = json::array();
    for (const json &row : nextHopRows(running, around)) {
        if (row["list"] == answer["list"] && row["node"] == answer["node"]) {
            hops.push_back(row);
        }
    }
    return hops;
}

std::string wordsOf(const json &texts) {
    std::string joined;
    for (const json &text : texts) {
        joined += (joined.empty() ? "" : ", ") + cellText(text);
    }
    return joined;
}

void costStepWrite(const json &step, bool isFlat, std::ostream &out) {
    const size_t rules = step["rules"].get<size_t>();
    if (isFlat && step["elements"] != 0) {
        out << "  " << cellText(step["kind"]) << " (" << wordsOf(step["fields"]) << "): " << counted(rules, "rule") << " in "
            << counted(step["elements"].get<size_t>(), "element") << "\n";
        return;
    }
    const std::string reason = cellText(step["reason"]);
    out << "  one by one: " << counted(rules, "rule") << (reason.empty() || reason == "-" ? "" : ": " + reason) << "\n";
    for (const json &place : step["first"]) {
        out << "    node " << cellText(place["node"]) << " rule " << cellText(place["rule"]) << ": " << cellText(place["text"]) << "\n";
    }
    if (step["first"].size() < rules && !step["first"].empty()) {
        out << "    and " << rules - step["first"].size() << " more\n";
    }
}

void explainCost(Daemon &daemon, const std::string &interface, bool asJson, std::ostream &out) {
    json request = json::object();
    if (!interface.empty()) {
        const std::optional<uint32_t> unit = interfacesOf(daemon).unitOf(interface);
        if (!unit) {
            throw Usage("interface '" + interface + "' does not exist");
        }
        request["unit"] = *unit;
    }
    json answer = daemon.mgmt("device.costs", request);
    answer.erase("ok");
    if (!interface.empty() && answer["costs"].empty() && !answer.contains("note")) {
        throw Refused("no list is bound to interface " + interface +
                      ", or none of its nodes asks anything: its packets are not compared with any. What to do: 'pbrctl show "
                      "bindings' tells which are bound");
    }
    if (asJson) {
        out << answer.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
    } else {
        out << costText(answer);
    }
}

} // namespace

std::string costText(const json &answer) {
    std::stringstream out;
    for (const json &cost : answer["costs"]) {
        const json &routing = cost["routingRules"];
        out << cellText(cost["interface"]) << ", IPv" << cellText(cost["ipVersion"]) << ", list " << wordsOf(cost["lists"]) << ": at most "
            << counted(cost["mostLookUps"].get<size_t>(), "look-up") << " and " << counted(cost["mostRules"].get<size_t>(), "rule")
            << " one by one\n";
        const std::string why = cost.value("why", "");
        out << (why.empty() ? "" : "  no maps: " + why + "\n");
        for (const json &step : cost["steps"]) {
            costStepWrite(step, cost["flat"].get<bool>(), out);
        }
        out << "  decisions: " << cellText(routing["decisions"]) << "; at most "
            << counted(routing["steered"].get<size_t>(), "routing rule") << " for a packet that is steered, "
            << cellText(routing["unsteered"]) << " for any other of this IP version, on any interface\n";
    }
    if (answer.contains("note")) {
        out << "note: " << answer["note"].get<std::string>() << "\n";
    } else if (answer["costs"].empty()) {
        out << "no list is bound to an interface\n";
    }
    return out.str();
}

json explainRequest(const ExplainOptions &options, uint32_t unit) {
    json request = {{"unit", unit}, {"source", options.source}, {"destination", options.destination}};
    const auto give = [&](const char *pName, const std::optional<uint32_t> &value) {
        if (value) {
            request[pName] = *value;
        }
    };
    const bool isIcmp = !options.type.empty() && options.protocol.empty();
    if (isIcmp) {
        request["protocol"] = isIpv6(options) ? aclrule::ACL_PROTOCOL_ICMP_6 : aclrule::ACL_PROTOCOL_ICMP;
    } else if (!options.protocol.empty()) {
        request["protocol"] = protocolOf(options);
    }
    give("sourcePort", options.sourcePort);
    give("destinationPort", options.destinationPort);
    if (!options.flags.empty()) {
        request["flags"] = flagsOf(options.flags);
    }
    if (!options.type.empty()) {
        request["type"] =
            numberOrName(options.type, aclrule::aclIcmpTypeNumber(isIpv6(options) ? 6 : 4, options.type), "--type");
    }
    give("code", options.code);
    if (!options.dscp.empty()) {
        request["dscp"] = numberOrName(options.dscp, aclrule::aclDscpNumber(options.dscp), "--dscp");
    }
    if (options.fragment) {
        request["fragment"] = true;
    }
    give("length", options.length);
    if (!options.sourceMac.empty()) {
        request["sourceMac"] = options.sourceMac;
    }
    if (!options.mark.empty()) {
        request["mark"] = numberOrName(options.mark, -1, "--mark");
    }
    return request;
}

std::string explainText(const json &answer, bool verbose) {
    std::stringstream out;
    if (verbose) {
        for (const json &node : answer["nodes"]) {
            nodeWrite(node, out);
        }
    }
    const std::string verdict = answer.value("verdict", ""), why = answer.value("why", "");
    if (verdict == "policy") {
        deciderWrite(answer, out);
    } else if (verdict == "unknown") {
        out << "it cannot be told: " << why << ": give it too\n";
    } else {
        out << (verdict == "normal" ? "routed as usual: " : "not policy, routed as usual: ") << why << "\n";
    }
    for (const json &note : answer.value("notes", json::array())) {
        out << "note: " << note.get<std::string>() << "\n";
    }
    return out.str();
}

void explain(Daemon &daemon, const ExplainOptions &options, bool asJson, std::ostream &out) {
    if (options.cost) {
        explainCost(daemon, options.costInterface, asJson, out);
        return;
    }
    if (!options.costInterface.empty()) {
        throw Usage("an interface without --in: write --cost " + options.costInterface + " to ask what it costs");
    }
    const std::pair<const char *, const std::string *> needed[] = {
        {"--in", &options.interface}, {"--src", &options.source}, {"--dst", &options.destination}};
    for (const auto &[pName, pText] : needed) {
        if (pText->empty()) {
            throw Usage(std::string(pName) + " is required");
        }
    }
    const std::optional<uint32_t> unit = interfacesOf(daemon).unitOf(options.interface);
    if (!unit) {
        throw Usage("interface '" + options.interface + "' does not exist");
    }
    json answer = daemon.mgmt("device.explain", explainRequest(options, *unit));
    answer.erase("ok");
    const Running running = runningRead(daemon);
    for (json &node : answer["nodes"]) {
        absentExplain(running.policy, node);
    }
    if (answer["verdict"] == "policy") {
        answer["hops"] = hopsOf(daemon, running, answer);
    }
    if (asJson) {
        out << answer.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
    } else {
        out << explainText(answer, options.verbose);
    }
}

} // namespace cli
