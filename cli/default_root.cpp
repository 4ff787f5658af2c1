// Where the machine's own daemon is: the environment, then the daemon's option file.
#include "cli/default_root.h"

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace cli {
namespace {

constexpr const char *BLANKS = " \t\r";
constexpr const char *KEY = "host.root";

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(BLANKS);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

// The line up to a comment, as the daemon reads it: a # at its start, behind a blank, or right behind the = of its key.
std::string withoutComment(const std::string &line) {
    const size_t equals = line.find('=');
    for (size_t at = line.find('#'); at != std::string::npos; at = line.find('#', at + 1)) {
        if (at == 0 || at - 1 == equals || strchr(BLANKS, line[at - 1]) != nullptr) {
            return line.substr(0, at);
        }
    }
    return line;
}

} // namespace

std::string defaultRoot(const std::string &optionFile) {
    if (const char *pRoot = getenv(ROOT_ENVIRONMENT)) {
        return pRoot;
    }
    std::ifstream file(optionFile);
    std::string line;
    while (std::getline(file, line)) {
        const std::string text = withoutComment(line);
        const size_t equals = text.find('=');
        if (equals != std::string::npos && trimmed(text.substr(0, equals)) == KEY) {
            return trimmed(text.substr(equals + 1));
        }
    }
    return "";
}

} // namespace cli
