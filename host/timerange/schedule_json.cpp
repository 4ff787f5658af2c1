// See schedule_json.h.
#include "host/timerange/schedule_json.h"

#include <stdexcept>

#include "host/mgmt/mgmt_args.h"
#include "schedule/schedule_text.h"

namespace host {

namespace {

using nlohmann::json;
using schedule::daysRead;
using schedule::daysText;
using schedule::localTimeRead;
using schedule::localTimeText;
using schedule::PERIODS_MAX;
using schedule::timeOfDayRead;
using schedule::timeOfDayText;

// "mon-fri", or a list of such texts.
uint8_t daysMember(const json &members) {
    const json &value = members["days"];
    if (value.is_string()) {
        return daysRead(value.get<std::string>());
    }
    uint8_t days = 0;
    const bool isList = value.is_array() && !value.empty();
    for (const json &each : isList ? value : json::array({nullptr})) {
        if (!each.is_string()) {
            throw std::runtime_error("member \"days\" must be a text such as \"mon-fri\", or a list of such texts");
        }
        days |= daysRead(each.get<std::string>());
    }
    return days;
}

TimePeriod periodRead(const json &members) {
    TimePeriod period;
    if (members.contains("days")) {
        period.days = daysMember(members);
    }
    if (members.contains("from")) {
        period.from = timeOfDayRead(mgmtArgText(members, "from"), false);
    }
    if (members.contains("to")) {
        period.to = timeOfDayRead(mgmtArgText(members, "to"), true);
    }
    return period;
}

bool isPeriod(const json &members) {
    return members.contains("days") || members.contains("from") || members.contains("to");
}

std::vector<TimePeriod> periodsMember(const json &members) {
    const json &list = members["periods"];
    if (isPeriod(members)) {
        throw std::runtime_error("give either \"periods\" or days, from and to");
    }
    if (!list.is_array() || list.empty() || list.size() > PERIODS_MAX) {
        throw std::runtime_error("member \"periods\" must be a list of 1 to " + std::to_string(PERIODS_MAX) +
                                 " objects with days, from, to");
    }
    std::vector<TimePeriod> periods;
    for (const json &each : list) {
        if (!each.is_object() || each.empty()) {
            throw std::runtime_error("each of \"periods\" must be an object with days, from or to");
        }
        mgmtArgsOnly(each, {"days", "from", "to"});
        periods.push_back(periodRead(each));
    }
    return periods;
}

json periodMembers(const TimePeriod &period) {
    return {{"days", daysText(period.days)},
            {"from", timeOfDayText(period.from)},
            {"to", timeOfDayText(period.to)}};
}

} // namespace

Schedule scheduleRead(const json &members) {
    Schedule read;
    if (members.contains("periods")) {
        read.periods = periodsMember(members);
    } else if (isPeriod(members)) {
        read.periods.push_back(periodRead(members));
    }
    if (members.contains("start")) {
        read.start = localTimeRead(mgmtArgText(members, "start"), "start");
    }
    if (members.contains("end")) {
        read.end = localTimeRead(mgmtArgText(members, "end"), "end");
    }
    if (read == Schedule{}) {
        throw std::runtime_error("a time range needs days, from, to, start, end or periods");
    }
    schedule::windowCheck(read);
    return read;
}

void scheduleMembersOnly(const json &members) {
    mgmtArgsOnly(members, {"days", "from", "to", "start", "end", "periods"});
}

json scheduleMembers(const Schedule &schedule) {
    json members = json::object();
    if (schedule.periods.size() == 1) {
        members = periodMembers(schedule.periods[0]);
    } else if (!schedule.periods.empty()) {
        members["periods"] = json::array();
        for (const TimePeriod &period : schedule.periods) {
            members["periods"].push_back(periodMembers(period));
        }
    }
    if (schedule.start) {
        members["start"] = localTimeText(*schedule.start);
    }
    if (schedule.end) {
        members["end"] = localTimeText(*schedule.end);
    }
    return members;
}

} // namespace host
