// The clock that time ranges follow: the time of day, the zone, and an alarm.
//
// The service asks for the time and sets one alarm; the clock calls back at the alarm and whenever the time
// of day made a jump or the zone's rules became others. Tests bring a clock of their own.
#ifndef HOST_TIMERANGE_TIMERANGE_CLOCK_H
#define HOST_TIMERANGE_TIMERANGE_CLOCK_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "host/timerange/schedule.h"

namespace host {

class TimerangeClock : public TimeZone {
public:
    // Seconds since 1970-01-01 00:00:00 UTC, rounded down. Any thread. Lock: none
    virtual int64_t now() const = 0;

    // From now on calls `wake` at each alarm (false), and after a jump of the time or a change of the zone
    // (true): all that was computed before is void then. An empty function ends that; no call is under way
    // when this returns. Lock: none held that `wake` takes
    virtual void wakeSet(std::function<void(bool isJump)> wake) = 0;

    // Sets the alarm to an instant, at which it is due also when that is past; none: no alarm, and jumps
    // need not be told. Calls nothing back before it returns. Any thread. Lock: none
    virtual void alarmSet(std::optional<int64_t> instant) = 0;
};

// The machine's clock and zone (TZ, else /etc/localtime), driven by the host's event loop.
std::unique_ptr<TimerangeClock> systemClock();

} // namespace host

#endif
