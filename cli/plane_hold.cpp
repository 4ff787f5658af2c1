// See plane_hold.h.
#include "cli/plane_hold.h"

#include "cli/errors.h"

namespace cli {

namespace {

using nlohmann::json;

std::string textOf(const json &row, const char *pName) {
    const auto found = row.find(pName);
    return found != row.end() && found->is_string() ? found->get<std::string>() : "";
}

std::set<PlaneError> planeErrorsOf(const json &rows) {
    std::set<PlaneError> errors;
    for (const json &row : rows) {
        const std::string error = textOf(row, "error");
        if (!error.empty()) {
            errors.insert({textOf(row, "list"), row.value("node", 0u), error});
        }
    }
    return errors;
}

} // namespace

PlaneHold::PlaneHold(Daemon &daemon) : daemon_(daemon) {
    const auto shown = daemon_.mgmtIfThere("device.show");
    if (shown && shown->contains("entries")) {
        known_ = planeErrorsOf((*shown)["entries"]);
    }
}

void PlaneHold::hold(const std::set<std::string> &lists) {
    if (lists.empty()) {
        return;
    }
    try {
        (void)daemon_.mgmt("device.hold", {{"lists", lists}});
        isHeld_ = true;
    } catch (const NotOffered &) {
        isHeld_ = false;
    }
}

std::vector<PlaneError> PlaneHold::trial() {
    try {
        return isHeld_ ? freshOf(daemon_.mgmt("device.trial")) : std::vector<PlaneError>();
    } catch (const NotOffered &) {
        return {}; // the release tells
    }
}

std::vector<PlaneError> PlaneHold::release() {
    if (!isHeld_) {
        return {};
    }
    isHeld_ = false;
    return freshOf(daemon_.mgmt("device.release"));
}

std::vector<PlaneError> PlaneHold::freshOf(const json &answer) const {
    std::vector<PlaneError> fresh;
    for (const PlaneError &error : planeErrorsOf(answer.value("errors", json::array()))) {
        if (known_.count(error) == 0) {
            fresh.push_back(error);
        }
    }
    return fresh;
}

} // namespace cli
