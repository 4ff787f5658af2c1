// See shell.h.
#include "cli/shell.h"

#include "cli/errors.h"
#include "cli/numbers.h"

namespace cli {

namespace {

using nlohmann::json;

void printAnswer(json answer, std::ostream &out) {
    answer.erase("ok");
    out << answer.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

void listShow(Daemon &daemon, bool asJson, std::ostream &out) {
    const json answer = daemon.mgmt("shell.list");
    if (asJson) {
        return printAnswer(answer, out);
    }
    for (const auto &[pTitle, pKey] : {std::pair{"command", "commands"}, std::pair{"switch ", "switches"}}) {
        for (const auto &name : answer.value(pKey, json::array())) {
            out << pTitle << "  " << name.get<std::string>() << "\n";
        }
    }
}

// Bytes as the daemon printed them: JSON carries those that are no UTF-8 in hexadecimal.
std::string outputOf(const json &answer) {
    if (!answer.contains("outputHex")) {
        return answer.value("output", "");
    }
    const auto bytes = hexRead(answer["outputHex"].get<std::string>());
    if (!bytes) {
        throw NoDaemon("the daemon's answer is not understood: outputHex is no hexadecimal");
    }
    return std::string(bytes->begin(), bytes->end());
}

} // namespace

int32_t shellRun(Daemon &daemon, const std::string &name, const std::vector<std::string> &args, bool asJson,
                 std::ostream &out) {
    if (name.empty()) {
        listShow(daemon, asJson, out);
        return 0;
    }
    const json answer = daemon.mgmt("shell", {{"name", name}, {"args", args}});
    if (asJson) {
        printAnswer(answer, out);
    } else {
        out << outputOf(answer);
    }
    return answer.value("result", 0);
}

} // namespace cli
