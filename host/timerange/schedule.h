// When a time range is active: a schedule as a value, and two questions about it. Pure: no clock is read.
//
// A schedule has periods of the week, an absolute window, or both. It is active while the window holds and
// any of its periods does; without periods the window alone decides, without a window the periods alone.
// Both are told in local time, as a clock on the wall shows it:
// - A period holds whenever the wall clock reads a time within it. A time that a change of the clocks leaves
//   out never comes; a time that comes twice counts twice.
// - A window is one stretch. It begins when the wall clock first reads its start or more, and ends when the
//   wall clock reads less than its end for the last time. So it holds at every moment whose reading lies
//   within it, and a start or an end that is left out is the moment of the change.
//
// Instants are seconds since 1970-01-01 00:00:00 UTC. Local times are wall clock readings, counted as the
// seconds since the reading 1970-01-01 00:00:00: instant + offset.
#ifndef HOST_TIMERANGE_SCHEDULE_H
#define HOST_TIMERANGE_SCHEDULE_H

#include <cstdint>
#include <optional>
#include <vector>

namespace host {

// A zone's rules: what the clocks on its walls show.
class TimeZone {
public:
    virtual ~TimeZone() = default;

    // Seconds that local time is ahead of UTC at that instant, -26 to 26 hours. Any thread. Lock: none
    virtual int32_t offsetAt(int64_t instant) const = 0;
};

constexpr uint32_t SECONDS_A_DAY = 86400;
constexpr uint8_t DAYS_ALL = 0x7F;

// A stretch of time on certain days of the week.
struct TimePeriod {
    uint8_t days = DAYS_ALL;     // bit 0 Monday ... bit 6 Sunday: days on which it begins
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

// Whether the schedule is active at that instant. Lock: none
bool isActive(const Schedule &schedule, int64_t instant, const TimeZone &zone);

// The first instant after this one at which the answer of isActive is another one; none when it stays.
// Two changes of the zone's offset less than three hours apart that undo each other are not seen. Lock: none
std::optional<int64_t> nextChange(const Schedule &schedule, int64_t instant, const TimeZone &zone);

} // namespace host

#endif
