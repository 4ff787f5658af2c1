// When a time range is to be active, as a value. Shared by the host's time ranges and the operator's tool.
//
// A schedule has periods of the week, an absolute window, or both. It is active while the window holds and
// any of its periods does; without periods the window alone decides, without a window the periods alone.
// Local times are wall clock readings, counted as the seconds since the reading 1970-01-01 00:00:00.
#ifndef SCHEDULE_SCHEDULE_H
#define SCHEDULE_SCHEDULE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace schedule {

constexpr uint32_t SECONDS_A_DAY = 86400;
constexpr uint8_t DAYS_ALL = 0x7F;
constexpr size_t PERIODS_MAX = 64; // of one schedule

// A stretch of time on certain days of the week.
struct TimePeriod {
    uint8_t days = DAYS_ALL;     // bit 0 Monday ... bit 6 Sunday: days on which it begins; never none
    uint32_t from = 0;           // second of the day, 0..86399
    uint32_t to = SECONDS_A_DAY; // 0..86400, not included; not after `from`: of the next day
    bool operator==(const TimePeriod &) const = default;
};

struct Schedule {
    std::vector<TimePeriod> periods;
    std::optional<int64_t> start; // local time, included; none: since ever
    std::optional<int64_t> end;   // local time, not included, after start; none: for ever
    bool operator==(const Schedule &) const = default;
};

} // namespace schedule

#endif
