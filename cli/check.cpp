// The daemon compares; here its answer becomes words.
#include "cli/check.h"

#include "cli/errors.h"

namespace cli {

namespace {

using nlohmann::json;

constexpr int NUDGE_MS = 20;  // between two commands that make the daemon look at its policy
constexpr int NUDGES_MOST = 400;

std::string counted(uint64_t count, const char *pWhat, const char *pMany) {
    return std::to_string(count) + " " + (count == 1 ? pWhat : pMany);
}

std::string noticeText(const json &notice) {
    const std::string advice = notice.value("advice", "");
    return notice.value("text", "") + (advice.empty() ? "" : ". What to do: " + advice);
}

// The daemon looks at its policy at the end of each command, so some are sent while the answer is awaited.
json ask(Daemon &daemon) {
    daemon.mgmtSend("device.check");
    for (int i = 0; i < NUDGES_MOST; i++) {
        client::ScalarRow scalars;
        must(client::scalarsRead(daemon.command(), scalars), "read the scalars");
        if (std::optional<json> answer = daemon.mgmtAnswer(NUDGE_MS)) {
            answer->erase("ok");
            return *answer;
        }
    }
    throw Refused("the daemon does not answer. What to do: look whether it is busy, and check again.");
}

} // namespace

std::string checkOkText(const json &answer) {
    const std::string entries = counted(answer.value("entries", uint64_t{0}), "entry", "entries") + " on " +
                                counted(answer.value("interfaces", uint64_t{0}), "interface", "interfaces");
    if (!answer.value("compared", false)) {
        return "ok: the device in use steers no packets; there is no kernel to compare";
    }
    const uint64_t repairs = answer.value("repairs", uint64_t{0});
    return "ok: " + entries + ", kernel as installed" +
           (repairs == 0 ? "" : " (repaired " + counted(repairs, "time", "times") + " since the start)");
}

void warningsPrint(const json &answer, std::ostream &err) {
    for (const json &warning : answer.value("warnings", json::array())) {
        err << "warning: " << noticeText(warning) << "\n";
    }
}

void warningsShow(Daemon &daemon, std::ostream &err) {
    if (const auto answer = daemon.mgmtIfThere("device.warnings")) {
        warningsPrint(*answer, err);
    }
}

bool check(Daemon &daemon, bool asJson, std::ostream &out, std::ostream &err) {
    const json answer = ask(daemon);
    const json differences = answer.value("differences", json::array());
    if (asJson) {
        out << answer.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
        return differences.empty();
    }
    warningsPrint(answer, err);
    if (differences.empty()) {
        out << checkOkText(answer) << "\n";
        return true;
    }
    out << counted(differences.size(), "difference", "differences") << " between kernel, device and policy:\n";
    for (const json &difference : differences) {
        out << "  " << noticeText(difference) << "\n";
    }
    return false;
}

} // namespace cli
