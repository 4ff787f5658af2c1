// The sections of a policy file for what watches beside the lists: probes and time ranges.
#include <algorithm>
#include <stdexcept>

#include "cli/numbers.h"
#include "cli/policy_file_reader.h"
#include "schedule/schedule_text.h"

namespace cli {

namespace {

constexpr const char *VIA_NEXT_HOP = "next-hop";

// ---- probes ----

struct ProbeReader {
    Reader &reader;
    std::string name;
    Probe probe;
    bool hasTimeout = false;
    bool hasVrf = false;
    bool isGuard = false; // via its next hop
    bool complete = true;

    std::string what() const { return "probe " + name; }
    void problem(const YAML::Node &at, const std::string &reason) {
        complete = false;
        reader.problem(at, what() + ": " + reason);
    }
    std::string text(const YAML::Node &value, const std::string &key) {
        const auto read = textRead(reader, value, what() + ": " + key);
        complete = complete && read;
        return read.value_or("");
    }
    uint32_t number(const YAML::Node &value, const std::string &key, uint32_t least, uint32_t most) {
        const auto read = numberOf(reader, value, what() + ": " + key, least, most);
        complete = complete && read;
        return read.value_or(0);
    }
};

// A probe may ask the machine itself.
bool isProbeAddress(const std::vector<uint8_t> &address) {
    const bool isZero = std::all_of(address.begin(), address.end(), [](uint8_t byte) { return byte == 0; });
    const bool isGroup = address.size() == 4 ? address[0] == 0 || address[0] >= 224 : address[0] == 0xff;
    return !isZero && !isGroup;
}

bool isLinkLocal(const std::string &text) {
    const auto address = addressRead(text);
    return address && address->size() == 16 && (*address)[0] == 0xfe && ((*address)[1] & 0xc0) == 0x80;
}

std::string probeAddressRead(ProbeReader &of, const YAML::Node &value, const std::string &key) {
    const std::string text = of.text(value, key);
    const auto address = addressRead(text);
    if (!address || !isProbeAddress(*address)) {
        of.problem(value, key + " '" + text + "' is no address of a host: one IPv4 or IPv6 address");
        return "";
    }
    return addressWrite(*address);
}

uint32_t probeDurationRead(ProbeReader &of, const YAML::Node &value, const std::string &key, uint32_t leastMs) {
    const std::string text = of.text(value, key);
    const auto duration = durationRead(text);
    if (!duration || *duration < leastMs || *duration > PROBE_INTERVAL_MOST_MS) {
        of.problem(value, key + " '" + text + "' is no duration from " + durationWrite(leastMs) + " to " +
                              durationWrite(PROBE_INTERVAL_MOST_MS) + ", such as 500ms, 1s or 2m");
    }
    return duration.value_or(leastMs);
}

// Text that goes into a request as it is: printable, without spaces.
std::string probeWordRead(ProbeReader &of, const YAML::Node &value, const std::string &key, size_t most) {
    const std::string text = of.text(value, key);
    const auto isOdd = [](unsigned char c) { return c <= ' ' || c >= 0x7f; };
    if (text.empty() || text.size() > most || std::any_of(text.begin(), text.end(), isOdd)) {
        of.problem(value, key + " must be 1 to " + std::to_string(most) + " printable characters without spaces");
    }
    return text;
}

void probeInterfaceRead(ProbeReader &of, const YAML::Node &value) {
    of.probe.interface = of.text(value, "interface");
    if (of.probe.interface.empty() || of.probe.interface.size() > MAX_INTERFACE_NAME ||
        !isPlainName(of.probe.interface)) {
        of.problem(value, "interface must be the name of an interface");
    }
}

void probeKindRead(ProbeReader &of, const std::string &kind, const YAML::Node &key, const YAML::Node &value) {
    if (!of.probe.kind.empty()) {
        return of.problem(key, "a probe is one of icmp, tcp, udp and http, this one is " + of.probe.kind + " already");
    }
    of.probe.kind = kind;
    of.probe.target = probeAddressRead(of, value, kind);
}

void probeViaRead(ProbeReader &of, const YAML::Node &value) {
    of.isGuard = value.IsScalar() && value.Scalar() == VIA_NEXT_HOP;
    if (of.isGuard) {
        of.reader.guards[of.name] = value.Mark().line + 1;
    } else {
        of.probe.via = probeAddressRead(of, value, "via");
    }
}

void probeKeyRead(ProbeReader &of, const std::string &key, const YAML::Node &keyNode, const YAML::Node &value) {
    Probe &probe = of.probe;
    if (key == "icmp" || key == "tcp" || key == "udp" || key == "http") {
        probeKindRead(of, key, keyNode, value);
    } else if (key == "port") {
        probe.port = of.number(value, key, 1, 65535);
    } else if (key == "path") {
        probe.path = probeWordRead(of, value, key, PROBE_PATH_MOST);
    } else if (key == "host") {
        probe.host = probeWordRead(of, value, key, PROBE_HOST_MOST);
    } else if (key == "source") {
        probe.source = probeAddressRead(of, value, key);
    } else if (key == "interface") {
        probeInterfaceRead(of, value);
    } else if (key == "vrf") {
        of.hasVrf = true;
        const auto vrf = vrfRead(of.reader, value, of.what() + ": vrf", UINT32_MAX - 1);
        of.complete = of.complete && vrf;
        probe.vrf = vrf.value_or(0);
    } else if (key == "via") {
        probeViaRead(of, value);
    } else if (key == "interval") {
        probe.intervalMs = probeDurationRead(of, value, key, PROBE_INTERVAL_LEAST_MS);
    } else if (key == "timeout") {
        of.hasTimeout = true;
        probe.timeoutMs = probeDurationRead(of, value, key, 1);
    } else if (key == "down-after") {
        probe.downAfter = of.number(value, key, 1, PROBE_COUNT_MOST);
    } else if (key == "up-after") {
        probe.upAfter = of.number(value, key, 1, PROBE_COUNT_MOST);
    } else {
        of.problem(keyNode, "unknown key '" + key + "'; known are down-after, host, http, icmp, interface, interval, "
                            "path, port, source, tcp, timeout, udp, up-after, via, vrf");
    }
}

// What the keys of a probe mean together.
void probeCheck(ProbeReader &of, const YAML::Node &at) {
    Probe &probe = of.probe;
    const bool isHttp = probe.kind == "http";
    if (probe.kind.empty()) {
        return of.problem(at, "it has nothing to do: give it icmp, tcp, udp or http with an address");
    }
    if ((probe.kind == "tcp" || probe.kind == "udp") && probe.port == 0) {
        of.problem(at, probe.kind + " needs a port");
    }
    if (probe.kind == "icmp" && probe.port != 0) {
        of.problem(at, "icmp has no port");
    }
    if (!isHttp && !(probe.path.empty() && probe.host.empty())) {
        of.problem(at, "path and host are for http");
    }
    if (isHttp && !probe.path.empty() && probe.path[0] != '/') {
        of.problem(at, "path must begin with /");
    }
    for (const auto &[pName, pAddress] : {std::pair("source", &probe.source), std::pair("via", &probe.via)}) {
        if (!pAddress->empty() && addressRead(*pAddress)->size() != addressRead(probe.target)->size()) {
            of.problem(at, std::string(pName) + " " + *pAddress + " is of another IP version than " + probe.target);
        }
    }
    if (probe.interface.empty() && (isLinkLocal(probe.target) || isLinkLocal(probe.via))) {
        of.problem(at, "a link-local address needs an interface");
    }
    if (of.hasTimeout && probe.timeoutMs > probe.intervalMs) {
        of.problem(at, "timeout " + durationWrite(probe.timeoutMs) + " is longer than the interval " +
                           durationWrite(probe.intervalMs));
    }
    if (!of.hasTimeout) {
        probe.timeoutMs = std::min(probe.intervalMs, PROBE_TIMEOUT_MS);
    }
    if (isHttp) {
        probe.port = probe.port == 0 ? PROBE_HTTP_PORT : probe.port;
        probe.path = probe.path.empty() ? PROBE_HTTP_PATH : probe.path;
    }
}

// The next hops that name a probe: "192.0.2.1" or "192.0.2.1 in vrf 10", each with a node that has it.
struct Guarded {
    std::string address;
    uint32_t vrf = 0;
    std::string place;
};
std::vector<Guarded> guardedBy(const Policy &policy, const std::string &probe) {
    std::vector<Guarded> found;
    for (const auto &[listName, list] : policy.lists) {
        for (const auto &[index, node] : list.nodes) {
            for (const NextHop &nextHop : node.nextHops) {
                const Guarded hop{addressWrite(nextHop.address), node.vrf, "node " + listName + "/" + std::to_string(index)};
                const bool isNew = std::none_of(found.begin(), found.end(), [&hop](const Guarded &other) {
                    return other.address == hop.address && other.vrf == hop.vrf;
                });
                if (probeNameOf(nextHop) == probe && isNew) {
                    found.push_back(hop);
                }
            }
        }
    }
    return found;
}

// ---- time ranges ----

struct RangeReader {
    Reader &reader;
    std::string what; // "time-range 7"
    bool complete = true;

    void problem(const YAML::Node &at, const std::string &reason) {
        complete = false;
        reader.problem(at, what + ": " + reason);
    }
    std::string text(const YAML::Node &value, const std::string &key) {
        const auto read = textRead(reader, value, what + ": " + key);
        complete = complete && read;
        return read.value_or("");
    }
    // Reads words, which say what is wrong with them.
    template <typename Read> void wordRead(const YAML::Node &at, Read read) {
        try {
            read();
        } catch (const std::runtime_error &wrong) {
            problem(at, wrong.what());
        }
    }
};

void periodDaysRead(RangeReader &of, const YAML::Node &value, TimePeriod &period) {
    std::string text;
    if (value.IsSequence()) {
        for (const YAML::Node &each : value) {
            text += (text.empty() ? "" : ",") + of.text(each, "days");
        }
    } else {
        text = of.text(value, "days");
    }
    of.wordRead(value, [&] { period.days = schedule::daysRead(text); });
}

void periodTimeRead(RangeReader &of, const YAML::Node &value, bool isEnd, uint32_t &second) {
    const std::string text = of.text(value, isEnd ? "to" : "from");
    of.wordRead(value, [&] { second = schedule::timeOfDayRead(text, isEnd); });
}

bool isPeriodKey(const std::string &key) { return key == "days" || key == "from" || key == "to"; }

void periodKeyRead(RangeReader &of, const std::string &key, const YAML::Node &value, TimePeriod &period) {
    if (key == "days") {
        periodDaysRead(of, value, period);
    } else {
        periodTimeRead(of, value, key == "to", key == "to" ? period.to : period.from);
    }
}

void periodsRead(RangeReader &of, const YAML::Node &value, Schedule &range) {
    if (!value.IsSequence() || value.size() == 0 || value.size() > schedule::PERIODS_MAX) {
        return of.problem(value, "periods must be a list of 1 to 64 such as [{days: mon-fri, from: \"08:00\", to: \"18:00\"}]");
    }
    for (const YAML::Node &each : value) {
        TimePeriod period;
        if (!each.IsMap() || each.size() == 0) {
            of.problem(each, "a period must be a map of days, from, to");
            continue;
        }
        mapRead(of.reader, each, of.what, [&](const std::string &key, const YAML::Node &keyNode, const YAML::Node &of2) {
            if (isPeriodKey(key)) {
                periodKeyRead(of, key, of2, period);
            } else {
                of.problem(keyNode, "unknown key '" + key + "' of a period; known are days, from, to");
            }
        });
        range.periods.push_back(period);
    }
}

void instantKeyRead(RangeReader &of, const YAML::Node &value, const std::string &key, std::optional<int64_t> &instant) {
    const std::string text = of.text(value, key);
    of.wordRead(value, [&] { instant = schedule::localTimeRead(text, key.c_str()); });
}

void rangeRead(RangeReader &of, const YAML::Node &value, Schedule &range) {
    TimePeriod period;
    bool hasPeriod = false;
    mapRead(of.reader, value, of.what, [&](const std::string &key, const YAML::Node &keyNode, const YAML::Node &each) {
        if (isPeriodKey(key)) {
            hasPeriod = true;
            periodKeyRead(of, key, each, period);
        } else if (key == "periods") {
            periodsRead(of, each, range);
        } else if (key == "start" || key == "end") {
            instantKeyRead(of, each, key, key == "start" ? range.start : range.end);
        } else {
            of.problem(keyNode, "unknown key '" + key + "'; known are days, end, from, periods, start, to");
        }
    });
    if (hasPeriod && !range.periods.empty()) {
        of.problem(value, "give either days, from and to, or periods");
    }
    if (hasPeriod) {
        range.periods.push_back(period);
    }
    if (of.complete && range == Schedule()) {
        of.problem(value, "it says no time: give it days, from, to, periods, start or end");
    }
    of.wordRead(value, [&] { schedule::windowCheck(range); });
}

} // namespace

void probesSectionRead(Reader &reader, const YAML::Node &section) {
    mapRead(reader, section, "probes", [&](const std::string &name, const YAML::Node &key, const YAML::Node &value) {
        NextHop named;
        if (!probeNameRead(name, named)) {
            return reader.problem(key, "'" + name + "' " + PROBE_NAME_FORM);
        }
        reader.probes.insert(name);
        ProbeReader of{reader, name, {}};
        reader.place(of.what(), key);
        mapRead(reader, value, of.what(), [&](const std::string &each, const YAML::Node &keyNode, const YAML::Node &of2) {
            probeKeyRead(of, each, keyNode, of2);
        });
        if (of.complete) {
            probeCheck(of, key);
        }
        if (of.hasVrf) {
            reader.withVrf.insert(name);
        }
        reader.file.policy.probes[name] = of.probe;
    });
}

void guardedHopsFind(Reader &reader) {
    Policy &policy = reader.file.policy;
    for (const auto &[name, line] : reader.guards) {
        const std::vector<Guarded> hops = guardedBy(policy, name);
        Probe &probe = policy.probes[name];
        const std::string what = "probe " + name + ": via: next-hop: ";
        if (hops.empty()) {
            reader.problem(line, what + "no next hop names this probe");
        } else if (hops.size() > 1) {
            reader.problem(line, what + "next hops " + hops[0].address + " (" + hops[0].place + ") and " +
                                     hops[1].address + " (" + hops[1].place +
                                     ") name it; give each a probe of its own, or an address");
        } else if (addressRead(probe.target) && addressRead(probe.target)->size() != addressRead(hops[0].address)->size()) {
            reader.problem(line, what + hops[0].address + " is of another IP version than " + probe.target);
        } else {
            probe.via = hops[0].address;
            probe.vrf = reader.withVrf.count(name) != 0 ? probe.vrf : hops[0].vrf;
        }
    }
}

void timeRangesSectionRead(Reader &reader, const YAML::Node &section) {
    mapRead(reader, section, "time-ranges", [&](const std::string &, const YAML::Node &key, const YAML::Node &value) {
        const auto id = numberOf(reader, key, "a time range's number", 1, UINT32_MAX - 1);
        if (!id) {
            return;
        }
        reader.timeRanges.insert(*id);
        RangeReader of{reader, "time-range " + std::to_string(*id)};
        reader.place(of.what, key);
        Schedule &range = reader.file.policy.timeRanges[*id];
        if (value.IsNull()) {
            return of.problem(key, "it says no time: give it days, from, to, periods, start or end");
        }
        rangeRead(of, value, range);
    });
}

} // namespace cli
