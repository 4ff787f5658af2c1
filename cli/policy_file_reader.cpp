// Readers that all sections of a policy file share.
#include "cli/policy_file_reader.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "cli/numbers.h"
#include "cli/vrf_names.h"

namespace cli {

void mapRead(Reader &reader, const YAML::Node &map, const std::string &what, const Entry &entry) {
    if (map.IsNull()) {
        return;
    }
    if (!map.IsMap()) {
        return reader.problem(map, what + " must be a map of KEY: VALUE");
    }
    std::set<std::string> seen;
    for (const auto &pair : map) {
        if (!pair.first.IsScalar()) {
            reader.problem(pair.first, what + ": a key must be plain text");
        } else if (!isUtf8(pair.first.Scalar())) {
            reader.problem(pair.first, what + ": a key is no text in UTF-8");
        } else if (!seen.insert(pair.first.Scalar()).second) {
            reader.problem(pair.first, what + ": '" + pair.first.Scalar() + "' stands here for the second time");
        } else {
            entry(pair.first.Scalar(), pair.first, pair.second);
        }
    }
}

std::optional<std::string> textRead(Reader &reader, const YAML::Node &node, const std::string &what) {
    if (!node.IsScalar()) {
        reader.problem(node, what + " must be plain text");
        return std::nullopt;
    }
    if (!isUtf8(node.Scalar())) {
        reader.problem(node, what + " is no text in UTF-8");
        return std::nullopt;
    }
    return node.Scalar();
}

std::optional<uint32_t> numberOf(Reader &reader, const YAML::Node &node, const std::string &what, uint32_t least,
                                 uint32_t most) {
    const auto value = node.IsScalar() ? numberRead(node.Scalar(), least, most) : std::nullopt;
    if (!value) {
        reader.problem(node, what + " must be a number " + std::to_string(least) + ".." + std::to_string(most) +
                                 (node.IsScalar() ? ", not '" + node.Scalar() + "'" : ""));
        return std::nullopt;
    }
    return static_cast<uint32_t>(*value);
}

std::optional<uint32_t> vrfRead(Reader &reader, const YAML::Node &node, const std::string &what, uint32_t most) {
    if (!node.IsScalar() || isVrfNumber(node.Scalar())) {
        return numberOf(reader, node, what, 0, most);
    }
    const std::string &name = node.Scalar();
    reader.file.hasVrfNames = true;
    if (reader.pVrfs == nullptr) {
        return reader.vrfsSeen.insert({name, UINT32_MAX - 2 - static_cast<uint32_t>(reader.vrfsSeen.size())}).first->second;
    }
    const auto found = reader.pVrfs->find(name);
    if (found == reader.pVrfs->end()) {
        reader.problem(node, what + " '" + name + "' is not known to the daemon: give the number of its table, or name it "
                             "by the daemon's option host.vrf." + name + " (named are: " + vrfNamesText(*reader.pVrfs) + ")");
        return std::nullopt;
    }
    return found->second;
}

bool isPlainName(const std::string &name) {
    return std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x21 || c == 0x7f || c == '/'; });
}

bool isUtf8(const std::string &text) {
    try {
        (void)nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::exception &) {
        return false;
    }
}

bool isHostAddress(const std::vector<uint8_t> &address) {
    const bool zero = std::all_of(address.begin(), address.end(), [](uint8_t byte) { return byte == 0; });
    const bool multicast = address.size() == 4 ? address[0] >= 224 : address[0] == 0xff;
    const bool loopback = address.size() == 4
                              ? address[0] == 127
                              : address.back() == 1 && std::all_of(address.begin(), address.end() - 1,
                                                                   [](uint8_t byte) { return byte == 0; });
    return !zero && !multicast && !loopback;
}

bool probeNameRead(const std::string &name, NextHop &nextHop) {
    const size_t slash = name.find('/');
    if (slash == std::string::npos) {
        return false;
    }
    nextHop.probeAdmin = name.substr(0, slash);
    nextHop.probeTest = name.substr(slash + 1);
    return !nextHop.probeAdmin.empty() && !nextHop.probeTest.empty() &&
           nextHop.probeAdmin.size() <= MAX_PROBE_NAME && nextHop.probeTest.size() <= MAX_PROBE_NAME &&
           isPlainName(nextHop.probeAdmin) && isPlainName(nextHop.probeTest);
}

} // namespace cli
