// See policy_range.h.
#include "cli/policy_range.h"

#include <stdexcept>
#include <string>

#include "schedule/schedule_text.h"

namespace cli {

namespace {

using nlohmann::json;

// What `read` makes of a member; what stands in `value` already when it is missing or no such word.
template <typename Value, typename Read> void memberTake(const json &config, const char *pName, Value &value, Read read) {
    const auto found = config.find(pName);
    if (found == config.end() || !found->is_string()) {
        return;
    }
    try {
        value = read(found->template get<std::string>());
    } catch (const std::runtime_error &) { // not one of our words
    }
}

TimePeriod periodOfJson(const json &config) {
    TimePeriod period;
    memberTake(config, "days", period.days, schedule::daysRead);
    memberTake(config, "from", period.from, [](const std::string &text) { return schedule::timeOfDayRead(text, false); });
    memberTake(config, "to", period.to, [](const std::string &text) { return schedule::timeOfDayRead(text, true); });
    return period;
}

} // namespace

json scheduleJson(const Schedule &schedule) {
    json config = json::object();
    for (const TimePeriod &period : schedule.periods) {
        config["periods"].push_back({{"days", schedule::daysText(period.days)},
                                     {"from", schedule::timeOfDayText(period.from)},
                                     {"to", schedule::timeOfDayText(period.to)}});
    }
    if (schedule.start) {
        config["start"] = schedule::localTimeText(*schedule.start);
    }
    if (schedule.end) {
        config["end"] = schedule::localTimeText(*schedule.end);
    }
    return config;
}

Schedule scheduleOfJson(const json &config) {
    const auto instantRead = [](const std::string &text) { return schedule::localTimeRead(text); };
    Schedule read;
    const auto periods = config.find("periods");
    if (periods != config.end() && periods->is_array()) {
        for (const json &period : *periods) {
            read.periods.push_back(periodOfJson(period));
        }
    }
    if (config.contains("days") || config.contains("from") || config.contains("to")) {
        read.periods.insert(read.periods.begin(), periodOfJson(config));
    }
    memberTake(config, "start", read.start, instantRead);
    memberTake(config, "end", read.end, instantRead);
    return read;
}

} // namespace cli
