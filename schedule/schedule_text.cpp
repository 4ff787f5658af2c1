// See schedule_text.h.
#include "schedule/schedule_text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <optional>
#include <stdexcept>

namespace schedule {

namespace {

constexpr std::array<const char *, 7> DAY_NAMES = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};
constexpr uint8_t DAYS_WEEKDAYS = 0x1F;
constexpr uint8_t DAYS_WEEKEND = 0x60;

std::string quoted(const std::string &text) {
    return "\"" + text.substr(0, 64) + "\"";
}

[[noreturn]] void daysWrong(const std::string &text) {
    throw std::runtime_error("days " + quoted(text) + ": give days (mon tue wed thu fri sat sun) or ranges such "
                             "as mon-fri, separated by commas; or daily, weekdays, weekend");
}

std::optional<unsigned> dayRead(const std::string &text) {
    for (unsigned day = 0; day < DAY_NAMES.size(); day++) {
        if (text == DAY_NAMES[day]) {
            return day;
        }
    }
    return std::nullopt;
}

// One part between commas; 0: none of the words.
uint8_t daysPartRead(const std::string &text) {
    if (text == "daily") {
        return DAYS_ALL;
    }
    if (text == "weekdays") {
        return DAYS_WEEKDAYS;
    }
    if (text == "weekend") {
        return DAYS_WEEKEND;
    }
    const size_t dash = text.find('-');
    const auto first = dayRead(text.substr(0, dash));
    const auto last = dash == std::string::npos ? first : dayRead(text.substr(dash + 1));
    if (!first || !last) {
        return 0;
    }
    uint8_t days = 0;
    for (unsigned day = *first;; day = (day + 1) % 7) {
        days = static_cast<uint8_t>(days | 1u << day);
        if (day == *last) {
            return days;
        }
    }
}

// Digits least..most of them from `at` on, which moves behind them; none when there are fewer.
std::optional<uint32_t> digitsRead(const std::string &text, size_t &at, size_t least, size_t most) {
    uint32_t value = 0;
    size_t count = 0;
    while (count < most && at < text.size() && text[at] >= '0' && text[at] <= '9') {
        value = value * 10 + static_cast<uint32_t>(text[at++] - '0');
        count++;
    }
    return count < least ? std::nullopt : std::optional(value);
}

bool charRead(const std::string &text, size_t &at, char expected) {
    if (at >= text.size() || text[at] != expected) {
        return false;
    }
    at++;
    return true;
}

// HH:MM or HH:MM:SS up to the end of the text; 24:00 is 86400. None when it is no such time.
std::optional<uint32_t> clockRead(const std::string &text, size_t at) {
    const auto hour = digitsRead(text, at, 1, 2);
    if (!hour || !charRead(text, at, ':')) {
        return std::nullopt;
    }
    const auto minute = digitsRead(text, at, 2, 2);
    std::optional<uint32_t> second = 0;
    if (at < text.size()) {
        second = charRead(text, at, ':') ? digitsRead(text, at, 2, 2) : std::nullopt;
    }
    if (!minute || !second || at != text.size() || *minute > 59 || *second > 59) {
        return std::nullopt;
    }
    const uint32_t value = *hour * 3600 + *minute * 60 + *second;
    return value > SECONDS_A_DAY ? std::nullopt : std::optional(value);
}

} // namespace

uint8_t daysRead(const std::string &text) {
    uint8_t days = 0;
    for (size_t at = 0; at <= text.size();) {
        const size_t comma = std::min(text.find(',', at), text.size());
        std::string part;
        for (const char each : text.substr(at, comma - at)) {
            if (each != ' ') {
                part += static_cast<char>(std::tolower(static_cast<unsigned char>(each)));
            }
        }
        const uint8_t read = daysPartRead(part);
        if (read == 0) {
            daysWrong(text);
        }
        days |= read;
        at = comma + 1;
    }
    return days;
}

std::string daysText(uint8_t days) {
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
        if (last >= day + 2) { // two days stand each for themselves
            text += "-" + std::string(DAY_NAMES[last]);
            day = last;
        }
    }
    return text;
}

uint32_t timeOfDayRead(const std::string &text, bool isEnd) {
    const auto second = clockRead(text, 0);
    if (!second || (!isEnd && *second == SECONDS_A_DAY)) {
        throw std::runtime_error((isEnd ? "to " : "from ") + quoted(text) + ": give HH:MM or HH:MM:SS, 00:00 to " +
                                 (isEnd ? "24:00" : "23:59:59"));
    }
    return *second;
}

std::string timeOfDayText(uint32_t second) {
    char text[40];
    const int len = snprintf(text, sizeof text, "%02u:%02u", second / 3600, second / 60 % 60);
    if (second % 60 != 0) {
        snprintf(text + len, sizeof text - static_cast<size_t>(len), ":%02u", second % 60);
    }
    return text;
}

int64_t localTimeRead(const std::string &text, const char *pName) {
    using namespace std::chrono;
    const std::string what = pName + (" " + quoted(text));
    size_t at = 0;
    const auto year = digitsRead(text, at, 4, 4);
    const bool isYear = charRead(text, at, '-');
    const auto month = digitsRead(text, at, 2, 2);
    const bool isMonth = charRead(text, at, '-');
    const auto day = digitsRead(text, at, 2, 2);
    const bool isDateAlone = at == text.size();
    const bool isDay = isDateAlone || charRead(text, at, ' ') || charRead(text, at, 'T');
    const auto clock = isDateAlone ? std::optional(uint32_t{0}) : clockRead(text, at);
    if (!year || !isYear || !month || !isMonth || !day || !isDay || !clock || *clock == SECONDS_A_DAY ||
        *year < 1970) {
        throw std::runtime_error(what + ": give YYYY-MM-DD, \"YYYY-MM-DD HH:MM\" or \"YYYY-MM-DD HH:MM:SS\", "
                                        "local time, years 1970 to 9999");
    }
    const year_month_day date{std::chrono::year(static_cast<int>(*year)), std::chrono::month(*month),
                              std::chrono::day(*day)};
    if (!date.ok()) {
        throw std::runtime_error(what + ": there is no such day");
    }
    return int64_t{sys_days(date).time_since_epoch().count()} * SECONDS_A_DAY + *clock;
}

std::string localTimeText(int64_t local) {
    using namespace std::chrono;
    const auto day = floor<days>(sys_seconds(seconds(local)));
    const year_month_day date{day};
    char text[64];
    snprintf(text, sizeof text, "%04d-%02u-%02u ", static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
             static_cast<unsigned>(date.day()));
    return text + timeOfDayText(static_cast<uint32_t>(local - day.time_since_epoch().count() * int64_t{SECONDS_A_DAY}));
}

void windowCheck(const Schedule &schedule) {
    if (schedule.start && schedule.end && *schedule.end <= *schedule.start) {
        throw std::runtime_error("end " + localTimeText(*schedule.end) + " is not after start " +
                                 localTimeText(*schedule.start));
    }
}

std::string scheduleText(const Schedule &schedule) {
    std::string text;
    for (const TimePeriod &period : schedule.periods) {
        text += (text.empty() ? "" : "; ") + daysText(period.days) + " " + timeOfDayText(period.from) + "-" +
                timeOfDayText(period.to);
    }
    std::string window;
    if (schedule.start) {
        window = "from " + localTimeText(*schedule.start);
    }
    if (schedule.end) {
        window += (window.empty() ? "until " : " until ") + localTimeText(*schedule.end);
    }
    return text + (text.empty() || window.empty() ? "" : "; ") + window;
}

} // namespace schedule
