// Texts and socket form of a time range.
#include "cli/policy_range.h"

#include <chrono>
#include <cstdio>

#include "cli/numbers.h"

namespace cli {

namespace {

constexpr const char *DAY_NAMES[7] = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};
constexpr uint8_t DAYS_WEEK = 0x1f, DAYS_WEEKEND = 0x60;

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts(1);
    for (const char each : text) {
        if (each == separator) {
            parts.emplace_back();
        } else {
            parts.back() += each;
        }
    }
    return parts;
}

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::optional<unsigned> dayRead(const std::string &name) {
    for (unsigned day = 0; day < 7; day++) {
        if (name == DAY_NAMES[day]) {
            return day;
        }
    }
    return std::nullopt;
}

// One word of a list of days.
std::optional<uint8_t> daysPartRead(const std::string &word) {
    if (word == "daily") {
        return DAYS_ALL;
    }
    if (word == "weekend" || word == "weekdays") {
        return word == "weekend" ? DAYS_WEEKEND : DAYS_WEEK;
    }
    const size_t dash = word.find('-');
    const auto first = dayRead(word.substr(0, dash));
    const auto last = dash == std::string::npos ? first : dayRead(word.substr(dash + 1));
    if (!first || !last) {
        return std::nullopt;
    }
    uint8_t days = static_cast<uint8_t>(1u << *last);
    for (unsigned day = *first; day != *last; day = (day + 1) % 7) { // sat-mon goes over the week's end
        days = static_cast<uint8_t>(days | 1u << day);
    }
    return days;
}

// Exactly `digits` digits.
std::optional<unsigned> digitsRead(const std::string &text, size_t digits, unsigned least, unsigned most) {
    const auto number = text.size() == digits ? numberRead(text, least, most) : std::nullopt;
    return number ? std::optional(static_cast<unsigned>(*number)) : std::nullopt;
}

bool isDate(const std::string &text) {
    const std::vector<std::string> parts = split(text, '-');
    if (parts.size() != 3) {
        return false;
    }
    const auto year = digitsRead(parts[0], 4, 1970, 9999);
    const auto month = digitsRead(parts[1], 2, 1, 12), day = digitsRead(parts[2], 2, 1, 31);
    using namespace std::chrono;
    return year && month && day &&
           year_month_day{std::chrono::year(static_cast<int>(*year)), std::chrono::month(*month),
                          std::chrono::day(*day)}.ok();
}

std::string clockText(uint32_t second, bool hasSeconds) {
    char text[16];
    const unsigned hours = second / 3600, minutes = second / 60 % 60, seconds = second % 60;
    if (hasSeconds) {
        snprintf(text, sizeof(text), "%02u:%02u:%02u", hours, minutes, seconds);
    } else {
        snprintf(text, sizeof(text), "%02u:%02u", hours, minutes);
    }
    return text;
}

std::string textOf(const nlohmann::json &config, const char *pName) {
    const auto found = config.find(pName);
    return found != config.end() && found->is_string() ? found->get<std::string>() : "";
}

Period periodOfJson(const nlohmann::json &config) {
    Period period;
    period.days = daysRead(textOf(config, "days")).value_or(DAYS_ALL);
    period.from = timeOfDayRead(textOf(config, "from")).value_or(0);
    period.to = timeOfDayRead(textOf(config, "to")).value_or(DAY_SECONDS);
    return period;
}

} // namespace

std::optional<uint8_t> daysRead(const std::string &text) {
    uint8_t days = 0;
    for (const std::string &word : split(text, ',')) {
        const auto part = daysPartRead(trimmed(word));
        if (!part) {
            return std::nullopt;
        }
        days = static_cast<uint8_t>(days | *part);
    }
    return days;
}

std::string daysWrite(uint8_t days) {
    if (days == DAYS_ALL) {
        return "daily";
    }
    std::string text;
    for (unsigned day = 0; day < 7; day++) {
        if ((days >> day & 1) == 0) {
            continue;
        }
        unsigned last = day;
        while (last < 6 && (days >> (last + 1) & 1) != 0) {
            last++;
        }
        text += (text.empty() ? "" : ",") + std::string(DAY_NAMES[day]);
        if (last > day) {
            text += std::string(last == day + 1 ? "," : "-") + DAY_NAMES[last];
        }
        day = last;
    }
    return text;
}

std::optional<uint32_t> timeOfDayRead(const std::string &text) {
    const std::vector<std::string> parts = split(text, ':');
    if (parts.size() != 2 && parts.size() != 3) {
        return std::nullopt;
    }
    const auto hours = digitsRead(parts[0], 2, 0, 24), minutes = digitsRead(parts[1], 2, 0, 59);
    const auto seconds = parts.size() == 3 ? digitsRead(parts[2], 2, 0, 59) : std::optional(0u);
    if (!hours || !minutes || !seconds) {
        return std::nullopt;
    }
    const uint32_t second = *hours * 3600 + *minutes * 60 + *seconds;
    return second <= DAY_SECONDS ? std::optional(second) : std::nullopt;
}

std::string timeOfDayWrite(uint32_t second) { return clockText(second, second % 60 != 0); }

std::optional<std::string> instantRead(const std::string &text) {
    const size_t space = text.find_first_of(" T");
    const std::string date = text.substr(0, space);
    const auto clock = space == std::string::npos ? std::optional(0u) : timeOfDayRead(text.substr(space + 1));
    if (!isDate(date) || !clock || *clock == DAY_SECONDS) {
        return std::nullopt;
    }
    return date + " " + clockText(*clock, true);
}

std::string instantWrite(const std::string &instant) {
    const bool isMinute = instant.size() > 3 && instant.compare(instant.size() - 3, 3, ":00") == 0;
    return isMinute ? instant.substr(0, instant.size() - 3) : instant;
}

std::string timeRangeText(const TimeRange &range) {
    std::string text;
    for (const Period &period : range.periods) {
        text += (text.empty() ? "" : "; ") + daysWrite(period.days) + " " + timeOfDayWrite(period.from) + "-" +
                timeOfDayWrite(period.to);
    }
    for (const auto &[pName, pInstant] : {std::pair("start ", &range.start), std::pair("end ", &range.end)}) {
        if (!pInstant->empty()) {
            text += (text.empty() ? "" : ", ") + std::string(pName) + instantWrite(*pInstant);
        }
    }
    return text;
}

nlohmann::json timeRangeJson(const TimeRange &range) {
    nlohmann::json config = nlohmann::json::object();
    for (const Period &period : range.periods) {
        config["periods"].push_back({{"days", daysWrite(period.days)},
                                     {"from", timeOfDayWrite(period.from)},
                                     {"to", timeOfDayWrite(period.to)}});
    }
    if (!range.start.empty()) {
        config["start"] = range.start;
    }
    if (!range.end.empty()) {
        config["end"] = range.end;
    }
    return config;
}

TimeRange timeRangeOfJson(const nlohmann::json &config) {
    TimeRange range;
    const auto periods = config.find("periods");
    if (periods != config.end() && periods->is_array()) {
        for (const nlohmann::json &period : *periods) {
            range.periods.push_back(periodOfJson(period));
        }
    }
    if (config.contains("days") || config.contains("from") || config.contains("to")) {
        range.periods.insert(range.periods.begin(), periodOfJson(config));
    }
    range.start = instantRead(textOf(config, "start")).value_or("");
    range.end = instantRead(textOf(config, "end")).value_or("");
    return range;
}

} // namespace cli
