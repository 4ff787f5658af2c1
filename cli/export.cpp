// Writes one line for each rule, probe, range, node and binding, so that a line that the reader refuses can
// be made a comment by itself.
#include "cli/export.h"

#include <algorithm>
#include <map>
#include <set>

#include "cli/errors.h"
#include "cli/numbers.h"
#include "cli/planner.h"
#include "cli/policy_file.h"
#include "cli/policy_file_reader.h"
#include "cli/running.h"
#include "schedule/schedule_text.h"

namespace cli {

namespace {

using Lines = std::vector<std::string>;

// Characters that mean themselves wherever text may stand; all others are quoted.
bool isPlainText(const std::string &text) {
    const auto isPlain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '/' ||
               c == '_' || c == '-' || c == ' ';
    };
    return !text.empty() && text.front() != ' ' && text.back() != ' ' && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), isPlain) && text != "null" && text != "Null" && text != "NULL";
}

std::string quoted(const std::string &text) {
    if (isPlainText(text)) {
        return text;
    }
    std::string all = "\"";
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        if (each == '"' || each == '\\') {
            all += std::string("\\") + each;
        } else if (byte < 0x20 || byte == 0x7f) {
            all += "\\x" + hexWrite({byte});
        } else {
            all += each;
        }
    }
    return all + "\"";
}

// "{a: 1, b: 2}"
std::string flow(const std::vector<std::pair<std::string, std::string>> &pairs) {
    std::string text;
    for (const auto &[key, value] : pairs) {
        text += (text.empty() ? "" : ", ") + key + ": " + value;
    }
    return "{" + text + "}";
}

void aclsWrite(const Policy &policy, Lines &lines) {
    for (const auto &[number, rules] : policy.acls) {
        lines.push_back("  " + std::to_string(number) + ":" + (rules.empty() ? " {}" : ""));
        for (const auto &[rule, text] : rules) {
            lines.push_back("    " + std::to_string(rule) + ": " + quoted(text.text));
        }
    }
}

std::string probeLine(const Probe &probe) {
    std::vector<std::pair<std::string, std::string>> pairs = {{probe.kind, quoted(probe.target)}};
    const auto give = [&pairs](bool isSaid, const char *pKey, const std::string &value) {
        if (isSaid) {
            pairs.push_back({pKey, value});
        }
    };
    const bool isHttp = probe.kind == "http";
    give(probe.port != (isHttp ? PROBE_HTTP_PORT : 0), "port", std::to_string(probe.port));
    give(probe.path != (isHttp ? PROBE_HTTP_PATH : ""), "path", quoted(probe.path));
    give(!probe.host.empty(), "host", quoted(probe.host));
    give(!probe.source.empty(), "source", quoted(probe.source));
    give(!probe.interface.empty(), "interface", quoted(probe.interface));
    give(probe.vrf != 0, "vrf", std::to_string(probe.vrf));
    give(!probe.via.empty(), "via", quoted(probe.via));
    give(true, "interval", durationWrite(probe.intervalMs));
    give(true, "timeout", durationWrite(probe.timeoutMs));
    give(true, "down-after", std::to_string(probe.downAfter));
    give(true, "up-after", std::to_string(probe.upAfter));
    return flow(pairs);
}

void probesWrite(const Policy &policy, Lines &lines) {
    for (const auto &[name, probe] : policy.probes) {
        lines.push_back("  " + quoted(name) + ": " + probeLine(probe));
    }
}

std::vector<std::pair<std::string, std::string>> periodPairs(const TimePeriod &period) {
    return {{"days", quoted(schedule::daysText(period.days))},
            {"from", quoted(schedule::timeOfDayText(period.from))},
            {"to", quoted(schedule::timeOfDayText(period.to))}};
}

void rangesWrite(const Policy &policy, Lines &lines) {
    for (const auto &[id, range] : policy.timeRanges) {
        std::vector<std::pair<std::string, std::string>> pairs;
        std::string periods;
        for (const TimePeriod &period : range.periods) {
            periods += (periods.empty() ? "" : ", ") + flow(periodPairs(period));
        }
        if (range.periods.size() == 1) {
            pairs = periodPairs(range.periods[0]);
        } else if (!range.periods.empty()) {
            pairs.push_back({"periods", "[" + periods + "]"});
        }
        for (const auto &[pKey, pInstant] : {std::pair("start", &range.start), std::pair("end", &range.end)}) {
            if (pInstant->has_value()) {
                pairs.push_back({pKey, quoted(schedule::localTimeText(**pInstant))});
            }
        }
        lines.push_back("  " + std::to_string(id) + ": " + flow(pairs));
    }
}

std::string hopText(const NextHop &nextHop) {
    const std::string address = quoted(addressWrite(nextHop.address));
    const std::string probe = probeNameOf(nextHop);
    return probe.empty() ? address : flow({{"address", address}, {"probe", quoted(probe)}});
}

std::string nodeLine(const Node &node, bool isDrop) {
    std::vector<std::pair<std::string, std::string>> pairs;
    const auto give = [&pairs](bool isSaid, const char *pKey, const std::string &value) {
        if (isSaid) {
            pairs.push_back({pKey, value});
        }
    };
    std::string hops;
    for (const NextHop &nextHop : node.nextHops) {
        hops += (hops.empty() ? "" : ", ") + hopText(nextHop);
    }
    give(node.acl != 0, "acl", std::to_string(node.acl));
    give(node.ecmp != 0, "ecmp", "true");
    give(!hops.empty(), "next-hops", "[" + hops + "]");
    give(node.outIfUnit != 0, "interface", quoted(node.outIfName));
    give(node.vrf != 0, "vrf", std::to_string(node.vrf));
    give(node.priority != 0, "priority", std::to_string(node.priority));
    give(isDrop, "otherwise", "drop");
    give(node.timeRange.has_value(), "time-range", std::to_string(node.timeRange.value_or(0)));
    return flow(pairs);
}

void listsWrite(const Policy &policy, Lines &lines) {
    for (const auto &[name, list] : policy.lists) {
        lines.push_back("  " + quoted(name) + ":" + (list.nodes.empty() ? " {}" : ""));
        for (const auto &[index, node] : list.nodes) {
            lines.push_back("    " + std::to_string(index) + ": " + nodeLine(node, policy.otherwiseDrop.count({name, index}) != 0));
        }
    }
}

void bindingsWrite(const Policy &policy, Lines &lines) {
    for (const Binding &binding : policy.bindings) {
        lines.push_back("  " + quoted(binding.interface) + ": " + quoted(binding.list));
    }
}

Lines linesOf(const Policy &policy) {
    Lines lines;
    const std::tuple<const char *, bool, void (*)(const Policy &, Lines &)> sections[] = {
        {"acls", policy.acls.empty(), aclsWrite},
        {"probes", policy.probes.empty(), probesWrite},
        {"time-ranges", policy.timeRanges.empty(), rangesWrite},
        {"lists", policy.lists.empty(), listsWrite},
        {"bindings", policy.bindings.empty(), bindingsWrite}};
    for (const auto &[pName, isEmpty, pWrite] : sections) {
        if (!isEmpty) {
            lines.push_back(std::string(pName) + ":");
            pWrite(policy, lines);
        }
    }
    if (lines.empty()) {
        lines.push_back("lists: {}"); // a file that says nothing is refused
    }
    return lines;
}

std::string textOf(const Lines &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

size_t indentOf(const std::string &line) { return std::min(line.find_first_not_of(' '), line.size()); }

bool isComment(const std::string &line) { return line.find_first_not_of(' ') == line.find('#'); }

// The bytes of a comment that are no text are written as question marks.
std::string printable(const std::string &text) {
    std::string all = text;
    std::replace_if(all.begin(), all.end(), [](unsigned char c) { return c < 0x20 || c >= 0x7f; }, '?');
    return all;
}

// Makes a line, and what belongs to it, comments.
void lineTakeOut(Lines &lines, size_t at, const std::string &reason, std::vector<std::string> &unsaid) {
    const size_t indent = indentOf(lines[at]);
    unsaid.push_back(printable(reason));
    size_t end = at + 1;
    while (end < lines.size() && (indentOf(lines[end]) > indent || isComment(lines[end]))) {
        end++;
    }
    for (size_t i = at; i < end; i++) {
        lines[i] = isComment(lines[i]) ? lines[i] : "# " + printable(lines[i]) + (i == at ? "   # " + printable(reason) : "");
    }
}

// A file is text; names may be any bytes.
void bytesTakeOut(Lines &lines, std::vector<std::string> &unsaid) {
    for (size_t i = 0; i < lines.size(); i++) {
        if (!isComment(lines[i]) && !isUtf8(lines[i])) {
            lineTakeOut(lines, i, lines[i].substr(indentOf(lines[i])) + " is no text in UTF-8", unsaid);
        }
    }
}

// Takes out what the reader refuses, until it refuses nothing: what was taken out may be missed elsewhere.
PolicyFile refusedTakeOut(Lines &lines, std::vector<std::string> &unsaid) {
    for (;;) {
        PolicyFile file = policyFileRead("export", textOf(lines));
        std::set<size_t> taken;
        for (const auto &[line, reason] : file.problemLines) {
            const size_t at = static_cast<size_t>(line) - 1;
            if (at < lines.size() && !isComment(lines[at]) && taken.insert(at).second) {
                lineTakeOut(lines, at, reason, unsaid);
            }
        }
        if (std::all_of(lines.begin(), lines.end(), isComment)) {
            lines.push_back("lists: {}");
        }
        if (taken.empty()) {
            return file;
        }
    }
}

// What is read back is compared as the running policy is: units stand for names.
Policy withUnitsOf(Policy policy, const Policy &from) {
    std::map<std::string, uint32_t> units;
    for (const Binding &binding : from.bindings) {
        units[binding.interface] = binding.unit;
    }
    for (const auto &[name, list] : from.lists) {
        for (const auto &[index, node] : list.nodes) {
            units[node.outIfName] = node.outIfUnit;
        }
    }
    for (Binding &binding : policy.bindings) {
        binding.unit = units[binding.interface];
    }
    for (auto &[name, list] : policy.lists) {
        for (auto &[index, node] : list.nodes) {
            node.outIfUnit = node.outIfName.empty() ? 0 : units[node.outIfName];
        }
    }
    return policy;
}

// What no comparison tells: rows that are not active.
void inactiveTell(const Policy &policy, std::vector<std::string> &unsaid) {
    for (const auto &[name, list] : policy.lists) {
        if (!list.active) {
            unsaid.push_back(printable("list " + name) + " is not active");
        }
        for (const auto &[index, node] : list.nodes) {
            if (!node.active) {
                unsaid.push_back(printable("node " + name + "/" + std::to_string(index)) + " is not active");
            }
        }
    }
}

} // namespace

Exported exportText(const Policy &policy) {
    Lines lines = linesOf(policy);
    Exported made;
    bytesTakeOut(lines, made.unsaid);
    const PolicyFile file = refusedTakeOut(lines, made.unsaid);
    inactiveTell(policy, made.unsaid);
    const std::vector<std::string> lost = planMake(policy, withUnitsOf(file.policy, policy), {}).lines;
    if (!made.unsaid.empty() || !lost.empty()) {
        Lines head = {"# This file does not say all that runs. It cannot say:"};
        for (const std::string &each : made.unsaid) {
            head.push_back("#   " + each);
        }
        head.push_back("# Applied where this runs, it would change:");
        for (const std::string &each : lost) {
            head.push_back("#   " + printable(each));
        }
        lines.insert(lines.begin(), head.begin(), head.end());
    }
    if (made.unsaid.empty() && !lost.empty()) {
        made.unsaid = lost;
    }
    made.text = textOf(lines);
    return made;
}

void exportPolicy(Daemon &daemon, std::ostream &out, std::ostream &err) {
    const Running running = runningRead(daemon);
    if (!running.aclsKnown) {
        throw Refused("the daemon's platform does not offer ACLs to pbrctl (no management socket): there is no policy "
                      "file that could be applied here");
    }
    const Exported made = exportText(running.policy);
    for (const std::string &each : made.unsaid) {
        err << "warning: a policy file cannot say: " << each << "\n";
    }
    out << made.text;
}

} // namespace cli
