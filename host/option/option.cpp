// The option store: the option file, the command line's overrides, the checks of both.
//
// A value is checked where it is given, so that a mistake is reported with its place and nobody finds
// out later that his setting was not taken. The daemon's own keys are not checked beyond their names:
// how it reads their values (any text, a number by its leading digits) is published behaviour.
#include "host/option/option.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include <sys/stat.h>
#include <unistd.h>

#include "platform/sil_option.h"

namespace host {
namespace {

constexpr const char *DEFAULT_FILE = "/etc/policyroute/policyroute.conf";
constexpr const char *BLANKS = " \t\r";
const std::string VRF_PREFIX = "host.vrf.";

struct Known {
    const char *key;
    const char *byDefault;
};
const Known HOST_KEYS[] = {
#define HOST_OPTION_ROW(key, byDefault, meaning) {key, byDefault},
    HOST_OPTIONS(HOST_OPTION_ROW)
#undef HOST_OPTION_ROW
};
const char *const DAEMON_KEYS[] = {"policyroute.processmerge", "policyroute.enable",
                                   "policyroute.maxlistnum", "policyroute.maxnodenum",
                                   "policyroute.maxifnum"};

// Keys whose value is a number, with the least and the greatest.
struct Range {
    const char *key;
    uint64_t least;
    uint64_t greatest;
};
const Range RANGES[] = {
    {"host.neighbour-probe-ms", 1, 3600000},
    {"host.mark-mask", 1, 0xFFFFFFFF},
    {"host.rule-preference", 1, 0xFFFFFFFE},
    {"host.table-base", 256, 0xFFFFFFFE},
    {"host.map-from", 0, 1000000},
    {"host.adopt-wait-ms", 0, 3600000},
    {"host.memory-capacity", 0, 0xFFFFFFFF},
};
constexpr Range VRF_RANGE = {"host.vrf", 1, 0xFFFFFFFE};

// Keys whose value is one of a few words.
struct Choice {
    const char *key;
    std::vector<std::string> words;
};
const Choice CHOICES[] = {
    {"host.device", {"kernel", "ebpf", "memory"}},
    {"host.ebpf-redirect", {"auto", "on", "off"}},
    {"host.next-hop-via-gateway", {"on", "off"}},
    {"host.defrag", {"on", "off"}},
    {"host.read-others", {"yes", "no"}},
    {"host.seccomp", {"on", "off"}},
    {"host.journal", {"on", "off"}},
    {"host.log", {"auto", "stderr", "syslog"}},
    {"host.memory-member-entries", {"on", "off"}},
};

// What was given; not changed after start-up. Never destroyed: when a start fails, the process ends beside an event
// thread that still reads it.
auto &gValues = *new std::map<std::string, std::string>;

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

// The line up to a comment: a # at its start, behind a blank, or right behind the = of its key, where a blank
// would change nothing.
std::string withoutComment(const std::string &line) {
    const size_t equals = line.find('=');
    for (size_t at = line.find('#'); at != std::string::npos; at = line.find('#', at + 1)) {
        if (at == 0 || at - 1 == equals || strchr(BLANKS, line[at - 1]) != nullptr) {
            return line.substr(0, at);
        }
    }
    return line;
}

// Decimal, or hexadecimal with 0x; the whole text, no sign, at most 64 bits.
std::optional<uint64_t> numberOf(const std::string &text) {
    const bool isHex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *pDigits = isHex ? "0123456789abcdefABCDEF" : "0123456789";
    const std::string digits = isHex ? text.substr(2) : text;
    if (digits.empty() || digits.find_first_not_of(pDigits) != std::string::npos) {
        return std::nullopt;
    }
    errno = 0;
    const uint64_t number = strtoull(digits.c_str(), nullptr, isHex ? 16 : 10);
    return errno == 0 ? std::optional<uint64_t>(number) : std::nullopt;
}

const Known *hostKey(const std::string &key) {
    const auto *pFound = std::find_if(std::begin(HOST_KEYS), std::end(HOST_KEYS),
                                      [&](const Known &known) { return key == known.key; });
    return pFound == std::end(HOST_KEYS) ? nullptr : pFound;
}

// A name of the kernel's has no blank; one in a file's key may hold a comment.
bool isVrfKey(const std::string &key) {
    return key.starts_with(VRF_PREFIX) && key.size() > VRF_PREFIX.size() && key.find_first_of(" \t\r\n\v\f") == std::string::npos;
}

bool isKnown(const std::string &key) {
    return hostKey(key) != nullptr || isVrfKey(key) ||
           std::find(std::begin(DAEMON_KEYS), std::end(DAEMON_KEYS), key) != std::end(DAEMON_KEYS);
}

std::string rangeCheck(const Range &range, const std::string &key, const std::string &value) {
    const std::optional<uint64_t> number = numberOf(value);
    if (number && *number >= range.least && *number <= range.greatest) {
        return "";
    }
    return "'" + value + "' is no value for " + key + ": a number from " + std::to_string(range.least) +
           " to " + std::to_string(range.greatest) + " is expected";
}

std::string choiceCheck(const Choice &choice, const std::string &value) {
    std::string all;
    for (const std::string &word : choice.words) {
        if (word == value) {
            return "";
        }
        all.append(all.empty() ? "" : ", ").append(word);
    }
    return "'" + value + "' is no value for " + choice.key + ": one of " + all + " is expected";
}

// Empty, or what is wrong with the value of a known key.
std::string valueCheck(const std::string &key, const std::string &value) {
    for (const Range &range : RANGES) {
        if (key == range.key) {
            return rangeCheck(range, key, value);
        }
    }
    for (const Choice &choice : CHOICES) {
        if (key == choice.key) {
            return choiceCheck(choice, value);
        }
    }
    if (isVrfKey(key)) {
        return rangeCheck(VRF_RANGE, key, value);
    }
    if (key == "host.root" && !value.empty() && value[0] != '/') {
        return "'" + value + "' is no value for host.root: an absolute path is expected";
    }
    return "";
}

// Splits and checks `key = value`. Result: empty, or what is wrong.
std::string entryParse(const std::string &text, std::string &key, std::string &value) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        return "'" + trimmed(text) + "' is not of the form key = value";
    }
    key = trimmed(text.substr(0, equals));
    value = trimmed(text.substr(equals + 1));
    if (text.find('\0') != std::string::npos) {
        return "a zero byte is not allowed";
    }
    if (!isKnown(key)) {
        return "unknown option '" + key + "'";
    }
    return valueCheck(key, value);
}

std::string fileRead(std::ifstream &input, const std::string &name,
                     std::map<std::string, std::string> &values) {
    std::map<std::string, int> lineOf;
    std::string line;
    for (int number = 1; std::getline(input, line); ++number) {
        const std::string text = trimmed(withoutComment(line));
        if (text.empty()) {
            continue;
        }
        const std::string place = name + ":" + std::to_string(number) + ": ";
        std::string key, value;
        const std::string error = entryParse(text, key, value);
        if (!error.empty()) {
            return place + error;
        }
        if (lineOf.contains(key)) {
            return place + "option '" + key + "' was given in line " + std::to_string(lineOf[key]);
        }
        lineOf[key] = number;
        values[key] = value;
    }
    return input.bad() ? name + ": " + strerror(errno) : "";
}

// Reads the file that was named, or the default file, which may be absent.
std::string fileLoad(const std::string &file, std::map<std::string, std::string> &values) {
    const std::string name = file.empty() ? DEFAULT_FILE : file;
    struct stat status {};
    if (stat(name.c_str(), &status) != 0) {
        return file.empty() && errno == ENOENT ? "" : name + ": " + strerror(errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return name + ": " + strerror(EISDIR);
    }
    std::ifstream input(name);
    if (!input) {
        return name + ": " + strerror(errno);
    }
    return fileRead(input, name, values);
}

// A link that somebody else put there: nothing is made where it leads.
bool isLinkOfAnother(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && status.st_uid != 0 &&
           status.st_uid != geteuid();
}

// Makes what is missing of the folders of a path, those of `root` without looking whose they are.
void foldersMake(const std::string &root, const std::string &path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        if (slash > root.size() && !root.empty() && isLinkOfAnother(folder)) {
            return; // whoever opens the file tells it
        }
        // Failing here shows when the file itself is opened, with a better text.
        (void)mkdir(folder.c_str(), 0755);
    }
}

} // namespace

std::optional<std::string> optionGet(const std::string &key) {
    const auto found = gValues.find(key);
    if (found != gValues.end()) {
        return found->second;
    }
    const Known *pKnown = hostKey(key);
    return pKnown != nullptr ? std::optional<std::string>(pKnown->byDefault) : std::nullopt;
}

uint64_t optionNumber(const std::string &key) {
    const std::optional<uint64_t> given = numberOf(optionGet(key).value_or(""));
    if (given) {
        return *given;
    }
    const Known *pKnown = hostKey(key);
    return numberOf(pKnown != nullptr ? pKnown->byDefault : "").value_or(0);
}

std::vector<std::pair<std::string, std::string>> optionFamily(const std::string &prefix) {
    std::vector<std::pair<std::string, std::string>> found;
    for (const auto &[key, value] : gValues) {
        if (key.starts_with(prefix + ".")) {
            found.emplace_back(key.substr(prefix.size() + 1), value);
        }
    }
    return found;
}

std::string optionPath(const std::string &path) {
    std::string root = optionGet("host.root").value_or("");
    while (!root.empty() && root.back() == '/') {
        root.pop_back();
    }
    const std::string whole = root + path;
    foldersMake(root, whole);
    return whole;
}

std::string optionLoad(const std::vector<std::string> &overrides, const std::string &file) {
    std::map<std::string, std::string> values;
    std::string error = fileLoad(file, values);
    if (!error.empty()) {
        return error;
    }
    for (const std::string &text : overrides) {
        std::string key, value;
        error = entryParse(text, key, value);
        if (!error.empty()) {
            return "--option " + text + ": " + error;
        }
        values[key] = value;
    }
    gValues = std::move(values);
    return "";
}

} // namespace host

int32_t silOptRead(uint32_t, const char *key, uint32_t, uint32_t, uint32_t, char *buffer,
                   uint32_t maxLen) {
    if (key == nullptr || buffer == nullptr) {
        return -1;
    }
    const std::optional<std::string> value = host::optionGet(key);
    if (!value) {
        return -1;
    }
    const size_t len = std::min<size_t>(value->size(), maxLen);
    memcpy(buffer, value->data(), len);
    return static_cast<int32_t>(len);
}
