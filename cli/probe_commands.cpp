// Probes on the command line: the words go to the daemon, which reads them and says what is wrong.
#include "cli/probe_commands.h"

#include <cstdio>

#include "cli/errors.h"
#include "cli/numbers.h"
#include "cli/policy.h"
#include "cli/policy_probe.h"
#include "cli/table.h"
#include "cli/vrf_names.h"

namespace cli {

namespace {

using nlohmann::json;

// {"admin": ..., "test": ...}: the first slash ends the administrator.
json nameMembers(const std::string &name) {
    const size_t slash = name.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == name.size() || slash > MAX_PROBE_NAME ||
        name.size() - slash - 1 > MAX_PROBE_NAME) {
        throw Usage("probe " + name + ": give ADMINISTRATOR/TEST, each of 1 to 32 bytes");
    }
    return {{"admin", name.substr(0, slash)}, {"test", name.substr(slash + 1)}};
}

void durationPut(json &members, const char *pMember, const char *pOption, const std::string &text, uint32_t leastMs) {
    if (text.empty()) {
        return;
    }
    const auto duration = durationRead(text);
    if (!duration || *duration < leastMs || *duration > PROBE_INTERVAL_MOST_MS) {
        throw Usage(std::string(pOption) + " '" + text + "' is no duration from " + durationWrite(leastMs) + " to " +
                    durationWrite(PROBE_INTERVAL_MOST_MS) + ", such as 500ms, 1s or 2m");
    }
    members[pMember] = *duration;
}

// "icmp 198.51.100.1", "tcp 192.0.2.10 port 443", "http 192.0.2.10/health"
std::string whatText(const json &config) {
    const std::string kind = config.value("kind", "");
    std::string text = kind + " " + config.value("target", "");
    if (config.contains("port") && !(kind == "http" && config["port"] == PROBE_HTTP_PORT)) {
        text += " port " + std::to_string(config.value("port", 0));
    }
    return kind == "http" ? text + " " + config.value("path", "") : text;
}

std::string wayText(const json &config) {
    std::string text = config.contains("via") ? "via " + config.value("via", "") : "";
    for (const auto &[pName, value] : {std::pair{"dev", config.value("interface", "")},
                                       std::pair{"vrf", config.value("vrf", 0u) == 0 ? "" : std::to_string(config.value("vrf", 0u))},
                                       std::pair{"from", config.value("source", "")}}) {
        if (!value.empty()) {
            text += (text.empty() ? "" : " ") + std::string(pName) + " " + value;
        }
    }
    return text;
}

// Microseconds as "1.234"; null stays null.
json millisecondsOf(const json &microseconds) {
    if (!microseconds.is_number_unsigned()) {
        return json();
    }
    char text[32];
    snprintf(text, sizeof text, "%.3f", static_cast<double>(microseconds.get<uint64_t>()) / 1000);
    return text;
}

json rowOf(const json &probe) {
    json row = {{"probe", probe.value("admin", "") + "/" + probe.value("test", "")}, {"status", probe.value("status", "")}};
    if (!probe.contains("config") || !probe["config"].is_object()) {
        row["what"] = "(not configured)";
        return row;
    }
    const json statistics = probe.value("statistics", json::object());
    row["what"] = whatText(probe["config"]);
    row["way"] = wayText(probe["config"]);
    row["interval"] = durationWrite(probe["config"].value("intervalMs", 0u));
    row["sent"] = statistics.value("sent", json());
    row["loss"] = statistics.value("lossPercent", json());
    for (const auto &[pColumn, pMember] : {std::pair{"last", "lastUs"}, std::pair{"least", "leastUs"},
                                           std::pair{"mean", "meanUs"}, std::pair{"most", "mostUs"}}) {
        row[pColumn] = millisecondsOf(statistics.value(pMember, json()));
    }
    row["since"] = probe.value("since", "");
    row["error"] = probe.value("error", "");
    return row;
}

} // namespace

void probeDefine(Daemon &daemon, const ProbeOptions &options) {
    json members = nameMembers(options.name);
    for (const auto &[pKey, text] : {std::pair{"target", options.target}, std::pair{"source", options.source},
                                     std::pair{"via", options.via}}) {
        if (!text.empty() && !addressRead(text)) {
            throw Usage(std::string(pKey) + " '" + text + "' is no IPv4 or IPv6 address");
        }
    }
    if ((options.kind == "tcp" || options.kind == "udp") && !options.port) {
        throw Usage("a probe of kind " + options.kind + " needs --port");
    }
    for (const auto &[pKey, text] : {std::pair{"kind", options.kind}, std::pair{"target", options.target},
                                     std::pair{"path", options.path}, std::pair{"host", options.host},
                                     std::pair{"source", options.source}, std::pair{"interface", options.interface},
                                     std::pair{"via", options.via}}) {
        if (!text.empty()) {
            members[pKey] = text;
        }
    }
    for (const auto &[pKey, number] : {std::pair{"port", options.port}, std::pair{"downAfter", options.downAfter},
                                       std::pair{"upAfter", options.upAfter}}) {
        if (number) {
            members[pKey] = *number;
        }
    }
    if (!options.vrf.empty()) {
        members["vrf"] = vrfOf(daemon, options.vrf);
    }
    durationPut(members, "intervalMs", "--interval", options.interval, PROBE_INTERVAL_LEAST_MS);
    durationPut(members, "timeoutMs", "--timeout", options.timeout, 1);
    (void)daemon.mgmt("probe.set", members);
}

void probeRemove(Daemon &daemon, const std::string &name) {
    (void)daemon.mgmt("probe.del", nameMembers(name));
}

void probeClear(Daemon &daemon, const std::string &name) {
    (void)daemon.mgmt("probe.clear", name.empty() ? json::object() : nameMembers(name));
}

void showProbes(Daemon &daemon, bool asJson, std::ostream &out) {
    const json probes = daemon.mgmt("probes").value("probes", json::array());
    if (asJson) {
        out << probes.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
        return;
    }
    json rows = json::array();
    for (const json &probe : probes) {
        rows.push_back(rowOf(probe));
    }
    if (rows.empty()) {
        out << "no probes\n";
        return;
    }
    out << tableText({{"PROBE", "probe"}, {"STATUS", "status"}, {"ASKS", "what"}, {"WAY", "way"}, {"EVERY", "interval", true},
                      {"SENT", "sent", true}, {"LOSS %", "loss", true}, {"LAST MS", "last", true}, {"LEAST", "least", true},
                      {"MEAN", "mean", true}, {"MOST", "most", true}, {"SINCE", "since"}, {"LAST FAILURE", "error"}},
                     rows);
}

} // namespace cli
