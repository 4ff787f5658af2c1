// When a time range is active: two questions about its schedule. Pure: no clock is read.
//
// Periods and window are told in local time, as a clock on the wall shows it:
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

#include "schedule/schedule.h"

namespace host {

using schedule::Schedule;
using schedule::TimePeriod;

// A zone's rules: what the clocks on its walls show.
class TimeZone {
public:
    virtual ~TimeZone() = default;

    // Seconds that local time is ahead of UTC at that instant, -26 to 26 hours. Any thread. Lock: none
    virtual int32_t offsetAt(int64_t instant) const = 0;
};

// Whether the schedule is active at that instant. Lock: none
bool isActive(const Schedule &schedule, int64_t instant, const TimeZone &zone);

// The first instant after this one at which the answer of isActive is another one; none when it stays.
// Two changes of the zone's offset less than three hours apart that undo each other are not seen. Lock: none
std::optional<int64_t> nextChange(const Schedule &schedule, int64_t instant, const TimeZone &zone);

} // namespace host

#endif
