// Texts and socket form of a probe.
#include "cli/policy_probe.h"

#include <algorithm>

#include "cli/numbers.h"

namespace cli {

namespace {

constexpr uint32_t SECOND_MS = 1000, MINUTE_MS = 60 * SECOND_MS;

// One spelling of an address; what is no address stays as it is.
std::string addressSame(const std::string &text) {
    const auto address = addressRead(text);
    return address ? addressWrite(*address) : text;
}

std::string textOf(const nlohmann::json &config, const char *pName) {
    const auto found = config.find(pName);
    return found != config.end() && found->is_string() ? found->get<std::string>() : "";
}

uint32_t numberOf(const nlohmann::json &config, const char *pName, uint32_t absent) {
    const auto found = config.find(pName);
    return found != config.end() && found->is_number_unsigned() ? found->get<uint32_t>() : absent;
}

} // namespace

std::optional<uint32_t> durationRead(const std::string &text) {
    const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::string unit = text.substr(digits);
    const uint32_t factor = unit == "ms" ? 1 : unit == "s" ? SECOND_MS : unit == "m" ? MINUTE_MS : 0;
    const auto count = numberRead(text.substr(0, digits), 0, factor == 0 ? 0 : UINT32_MAX / factor);
    return factor == 0 || !count ? std::nullopt : std::optional(static_cast<uint32_t>(*count) * factor);
}

std::string durationWrite(uint32_t milliseconds) {
    if (milliseconds % SECOND_MS != 0 || milliseconds == 0) {
        return std::to_string(milliseconds) + "ms";
    }
    return milliseconds % MINUTE_MS != 0 ? std::to_string(milliseconds / SECOND_MS) + "s"
                                         : std::to_string(milliseconds / MINUTE_MS) + "m";
}

std::string probeText(const Probe &probe) {
    std::string text = probe.kind + " " + probe.target;
    const auto give = [&text](bool isSaid, const char *pName, const std::string &value) {
        if (isSaid) {
            text += std::string(", ") + pName + " " + value;
        }
    };
    give(probe.port != 0, "port", std::to_string(probe.port));
    give(!probe.path.empty(), "path", probe.path);
    give(!probe.host.empty(), "host", probe.host);
    give(!probe.source.empty(), "source", probe.source);
    give(!probe.interface.empty(), "interface", probe.interface);
    give(probe.vrf != 0, "vrf", std::to_string(probe.vrf));
    give(!probe.via.empty(), "via", probe.via);
    give(true, "interval", durationWrite(probe.intervalMs));
    give(true, "timeout", durationWrite(probe.timeoutMs));
    give(true, "down-after", std::to_string(probe.downAfter));
    give(true, "up-after", std::to_string(probe.upAfter));
    return text;
}

nlohmann::json probeJson(const Probe &probe) {
    nlohmann::json config = {{"kind", probe.kind},           {"target", probe.target},
                             {"intervalMs", probe.intervalMs}, {"timeoutMs", probe.timeoutMs},
                             {"downAfter", probe.downAfter}, {"upAfter", probe.upAfter}};
    const std::pair<const char *, const std::string *> texts[] = {{"path", &probe.path},
                                                                  {"host", &probe.host},
                                                                  {"source", &probe.source},
                                                                  {"interface", &probe.interface},
                                                                  {"via", &probe.via}};
    for (const auto &[pName, pText] : texts) {
        if (!pText->empty()) {
            config[pName] = *pText;
        }
    }
    if (probe.port != 0) {
        config["port"] = probe.port;
    }
    if (probe.vrf != 0) {
        config["vrf"] = probe.vrf;
    }
    return config;
}

Probe probeOfJson(const nlohmann::json &config) {
    Probe probe;
    probe.kind = textOf(config, "kind");
    const bool isHttp = probe.kind == "http";
    probe.target = addressSame(textOf(config, "target"));
    probe.port = numberOf(config, "port", isHttp ? PROBE_HTTP_PORT : 0);
    probe.path = textOf(config, "path");
    if (isHttp && probe.path.empty()) {
        probe.path = PROBE_HTTP_PATH;
    }
    probe.host = textOf(config, "host");
    probe.source = addressSame(textOf(config, "source"));
    probe.interface = textOf(config, "interface");
    probe.vrf = numberOf(config, "vrf", 0);
    probe.via = addressSame(textOf(config, "via"));
    probe.intervalMs = numberOf(config, "intervalMs", PROBE_INTERVAL_MS);
    probe.timeoutMs = numberOf(config, "timeoutMs", std::min(probe.intervalMs, PROBE_TIMEOUT_MS));
    probe.downAfter = numberOf(config, "downAfter", PROBE_DOWN_AFTER);
    probe.upAfter = numberOf(config, "upAfter", PROBE_UP_AFTER);
    return probe;
}

} // namespace cli
