// A time range as a policy file says it and as the daemon's host follows it: a value that compares, with
// its texts and its form on the management socket. Times are local times of the machine.
#ifndef CLI_POLICY_RANGE_H
#define CLI_POLICY_RANGE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace cli {

constexpr uint8_t DAYS_ALL = 0x7f;
constexpr size_t MAX_PERIODS = 64;
constexpr uint32_t DAY_SECONDS = 24 * 3600;

struct Period {
    uint8_t days = DAYS_ALL; // bit 0 Monday .. bit 6 Sunday
    uint32_t from = 0;       // second of the day
    uint32_t to = DAY_SECONDS; // second of the day behind the last; not above `from`: over midnight
    bool operator==(const Period &) const = default;
};

struct TimeRange {
    std::vector<Period> periods; // active in any of them; none: the whole time from start to end
    std::string start;           // "YYYY-MM-DD HH:MM:SS"; empty: since ever
    std::string end;             // likewise; empty: for ever
    bool operator==(const TimeRange &) const = default;
};

// "mon-fri 08:00-18:00, start 2027-01-01 00:00": for the operator. Lock: none
std::string timeRangeText(const TimeRange &range);

// "mon-fri", "sat,sun", "weekend", "weekdays", "daily"; names of days have three letters. Lock: none
std::optional<uint8_t> daysRead(const std::string &text);
std::string daysWrite(uint8_t days);

// "HH:MM" or "HH:MM:SS", up to 24:00. Result: second of the day. Lock: none
std::optional<uint32_t> timeOfDayRead(const std::string &text);
std::string timeOfDayWrite(uint32_t second);

// "YYYY-MM-DD HH:MM[:SS]" of the calendar, with seconds in the result. Lock: none
std::optional<std::string> instantRead(const std::string &text);
std::string instantWrite(const std::string &instant); // without seconds that are zero

// The form of the management socket, whole; and back: what is missing there has its default.
nlohmann::json timeRangeJson(const TimeRange &range);
TimeRange timeRangeOfJson(const nlohmann::json &config);

} // namespace cli

#endif
