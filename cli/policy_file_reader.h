// What the sections of a policy file's reader share: the file that is being filled, problems with their
// lines, and the readers of maps, texts and numbers. Called by policy_file.cpp and policy_file_services.cpp
// only.
#ifndef CLI_POLICY_FILE_READER_H
#define CLI_POLICY_FILE_READER_H

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <yaml-cpp/yaml.h>

#include "cli/policy_file_contents.h"

namespace cli {

constexpr size_t MAX_INTERFACE_NAME = 15; // characters of an interface name
constexpr const char *PROBE_NAME_FORM = "is no probe name: ADMINISTRATOR/TEST, each of 1 to 32 bytes";

struct Reader {
    explicit Reader(PolicyFile &policyFile, const VrfNames *pNames = nullptr) : file(policyFile), pVrfs(pNames) {}

    PolicyFile &file;
    const VrfNames *pVrfs; // null: not known yet
    VrfNames vrfsSeen;     // then: a number for each name
    std::vector<std::pair<int, std::string>> problems; // line, reason
    std::map<uint32_t, std::string> aclUsers;          // ACL -> the node that uses it
    std::set<std::string> probes;                      // defined ones, "admin/test", readable or not
    std::map<std::string, int> guards;                 // probes that go via their next hop -> line
    std::set<std::string> withVrf;                     // probes that name their VRF
    std::set<uint32_t> timeRanges;                     // defined ones, readable or not

    void problem(int line, const std::string &reason) { problems.push_back({line, reason}); }
    void problem(const YAML::Node &at, const std::string &reason) { problem(at.Mark().line + 1, reason); }
    void place(const std::string &what, const YAML::Node &at) { file.places[what] = at.Mark().line + 1; }
    void warning(const YAML::Node &at, const std::string &text) {
        file.warnings.push_back(file.name + ":" + std::to_string(at.Mark().line + 1) + ": " + text);
    }
};

using Entry = std::function<void(const std::string &key, const YAML::Node &keyNode, const YAML::Node &value)>;

// Calls `entry` for each pair of a map. Anything but a map is a problem; nothing at all ("acls:") is an
// empty map. A key that stands twice is a problem of its second place.
void mapRead(Reader &reader, const YAML::Node &map, const std::string &what, const Entry &entry);

// Plain text; none, and a problem, otherwise. Lock: none
std::optional<std::string> textRead(Reader &reader, const YAML::Node &node, const std::string &what);

// A number least..most; none, and a problem, otherwise. Lock: none
std::optional<uint32_t> numberOf(Reader &reader, const YAML::Node &node, const std::string &what, uint32_t least,
                                 uint32_t most);

// A VRF: a number 0..most, or a name; none, and a problem, otherwise. Lock: none
std::optional<uint32_t> vrfRead(Reader &reader, const YAML::Node &node, const std::string &what, uint32_t most);

// No spaces, slashes or control characters. Lock: none
bool isPlainName(const std::string &name);

// Whether it is text: a policy file is, names in the daemon may be any bytes.
bool isUtf8(const std::string &text);

// An address that a host can have: not zero, multicast or loopback. Lock: none
bool isHostAddress(const std::vector<uint8_t> &address);

// Splits "administrator/test" into the next hop's names; false when it is no name of a probe.
bool probeNameRead(const std::string &name, NextHop &nextHop);

// The sections probes and time-ranges; and, when the lists have been read, the next hops that probes with
// "via: next-hop" guard.
void probesSectionRead(Reader &reader, const YAML::Node &section);
void timeRangesSectionRead(Reader &reader, const YAML::Node &section);
void guardedHopsFind(Reader &reader);

} // namespace cli

#endif
