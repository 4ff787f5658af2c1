// See vrf_names.h.
#include "cli/vrf_names.h"

#include "cli/errors.h"
#include "cli/numbers.h"

namespace cli {

VrfNames vrfNamesRead(Daemon &daemon) {
    const auto answer = daemon.mgmtIfThere("vrfs");
    return answer ? answer->value("vrfs", VrfNames()) : VrfNames();
}

bool isVrfNumber(const std::string &text) {
    return text.empty() || (text[0] >= '0' && text[0] <= '9') || text[0] == '-' || text[0] == '+';
}

std::string vrfNamesText(const VrfNames &names) {
    std::string text;
    for (const auto &[name, table] : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text.empty() ? "none" : text;
}

uint32_t vrfOf(Daemon &daemon, const std::string &text) {
    if (isVrfNumber(text)) {
        const auto number = numberRead(text, 0, UINT32_MAX);
        if (!number) {
            throw Usage("--vrf '" + text + "' is no number 0 to " + std::to_string(UINT32_MAX) + " and no name");
        }
        return static_cast<uint32_t>(*number);
    }
    const VrfNames names = vrfNamesRead(daemon);
    const auto found = names.find(text);
    if (found == names.end()) {
        throw Refused("the daemon knows no VRF " + text + ". What to do: give the number of its table, or name it by "
                      "the daemon's option host.vrf." + text + " (named are: " + vrfNamesText(names) + ")");
    }
    return found->second;
}

} // namespace cli
