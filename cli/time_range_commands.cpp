// Time ranges on the command line: the words go to the daemon, which reads them and says what is wrong.
#include "cli/time_range_commands.h"

#include "cli/errors.h"
#include "cli/numbers.h"
#include "cli/table.h"
#include "core/pbr_types.h"

namespace cli {

namespace {

using nlohmann::json;

// "mon-fri 08:00-18:00": either part may be missing; the last word with a colon is the times.
json periodMembers(const std::string &text) {
    const size_t space = text.rfind(' ');
    const std::string last = space == std::string::npos ? text : text.substr(space + 1);
    const bool hasTimes = last.find(':') != std::string::npos;
    const std::string days = hasTimes ? (space == std::string::npos ? "" : text.substr(0, space)) : text;
    json members = json::object();
    if (!days.empty()) {
        members["days"] = days;
    }
    if (hasTimes) {
        const size_t dash = last.find('-');
        if (dash == std::string::npos) {
            throw Usage("--period '" + text + "': give DAYS, FROM-TO or 'DAYS FROM-TO', such as 'sat 10:00-14:00'");
        }
        members["from"] = last.substr(0, dash);
        members["to"] = last.substr(dash + 1);
    }
    return members;
}

json optionMembers(const TimeRangeOptions &options) {
    json members = {{"id", options.id}};
    for (const auto &[pKey, text] : {std::pair{"days", options.days}, std::pair{"from", options.from},
                                     std::pair{"to", options.to}, std::pair{"start", options.start},
                                     std::pair{"end", options.end}}) {
        if (!text.empty()) {
            members[pKey] = text;
        }
    }
    for (const std::string &period : options.periods) {
        members["periods"].push_back(periodMembers(period));
    }
    return members;
}

} // namespace

void timeRangeDefine(Daemon &daemon, const TimeRangeOptions &options) {
    (void)daemon.mgmt("timerange.define", optionMembers(options));
}

void timeRangeRemove(Daemon &daemon, const TimeRangeOptions &options) {
    json request = {{"id", options.id}};
    if (options.force) {
        request["force"] = true;
    }
    (void)daemon.mgmt("timerange.remove", request);
}

void timeRangeSwitch(Daemon &daemon, const std::string &id, const std::string &state) {
    const auto number = numberRead(id, 1, PBR_TIME_RANGE_NONE - 1);
    if (!number || (state != "on" && state != "off" && state != "auto")) {
        throw Usage("time-range: give 'add ID ...', 'del ID', or 'ID on|off|auto' with an ID of 1.." +
                    std::to_string(PBR_TIME_RANGE_NONE - 1));
    }
    (void)daemon.mgmt("timerange.set", {{"id", *number}, {"active", state == "auto" ? json("auto") : json(state == "on")}});
}

void showTimeRanges(Daemon &daemon, bool asJson, std::ostream &out) {
    const json ranges = daemon.mgmt("timeranges").value("timeRanges", json::array());
    if (asJson) {
        out << ranges.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
    } else if (ranges.empty()) {
        out << "no time ranges\n";
    } else {
        out << tableText({{"ID", "id", true}, {"SCHEDULE", "text"}, {"ACTIVE", "active"}, {"BY HAND", "override"},
                          {"NEXT CHANGE", "nextChange"}, {"USED BY", "bindings"}},
                         ranges);
    }
}

} // namespace cli
