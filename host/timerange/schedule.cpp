// See schedule.h. Time is cut at the changes of the zone's offset; within a segment the wall clock runs
// evenly, so that the questions become sums on local time.
#include "host/timerange/schedule.h"

#include <algorithm>
#include <limits>

namespace host {

namespace {

constexpr int64_t HOUR = 3600;
constexpr int64_t DAY = schedule::SECONDS_A_DAY;
constexpr int64_t OFFSET_MOST = 26 * HOUR;
constexpr int64_t SEARCH_STEP = 3 * HOUR;
// A week's pattern that changes at all does so within a week of local time. One occurrence may fall into a
// time that is left out; the next one comes a week later.
constexpr int64_t SEARCH_MOST = 3 * 7 * DAY;

int64_t floorDiv(int64_t value, int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

// Seconds from `instant` with one offset, at most to `until`.
struct Segment {
    int64_t begin;
    int64_t end; // the offset changes here, or it is `until`
    int32_t offset;
};

Segment segmentAt(int64_t instant, int64_t until, const TimeZone &zone) {
    Segment segment{instant, until, zone.offsetAt(instant)};
    for (int64_t same = instant; same < until;) {
        const int64_t next = std::min(same + SEARCH_STEP, until);
        if (zone.offsetAt(next) == segment.offset) {
            same = next;
            continue;
        }
        int64_t other = next; // the change lies within (same, other]
        while (other - same > 1) {
            const int64_t middle = same + (other - same) / 2;
            (zone.offsetAt(middle) == segment.offset ? same : other) = middle;
        }
        segment.end = other;
        break;
    }
    return segment;
}

// The first instant at which the wall clock reads `local` or more.
int64_t windowBegin(int64_t local, const TimeZone &zone) {
    const int64_t until = local + OFFSET_MOST;
    for (int64_t at = local - OFFSET_MOST; at < until;) {
        const Segment segment = segmentAt(at, until, zone);
        const int64_t reached = std::max(segment.begin, local - segment.offset);
        if (reached < segment.end) {
            return reached;
        }
        at = segment.end;
    }
    return until;
}

// The first instant from which on the wall clock never reads less than `local`.
int64_t windowEnd(int64_t local, const TimeZone &zone) {
    const int64_t until = local + OFFSET_MOST;
    int64_t end = local - OFFSET_MOST;
    for (int64_t at = end; at < until;) {
        const Segment segment = segmentAt(at, until, zone);
        if (segment.begin + segment.offset < local) {
            end = std::min(segment.end, local - segment.offset);
        }
        at = segment.end;
    }
    return end;
}

bool periodHolds(const TimePeriod &period, int64_t local) {
    const int64_t day = floorDiv(local, DAY);
    const auto second = static_cast<uint32_t>(local - day * DAY);
    const auto weekday = static_cast<unsigned>(((day + 3) % 7 + 7) % 7); // 1970-01-01 was a Thursday
    const bool isToday = (period.days >> weekday & 1) != 0;
    if (period.from < period.to) {
        return isToday && second >= period.from && second < period.to;
    }
    const bool isYesterday = (period.days >> (weekday + 6) % 7 & 1) != 0;
    return (isToday && second >= period.from) || (isYesterday && second < period.to);
}

bool periodsHold(const Schedule &schedule, int64_t local) {
    return schedule.periods.empty() ||
           std::any_of(schedule.periods.begin(), schedule.periods.end(),
                       [local](const TimePeriod &period) { return periodHolds(period, local); });
}

// The first local time after this one, and within a week, at which the periods' answer is another one, on a
// wall clock that runs evenly.
std::optional<int64_t> periodsChange(const Schedule &schedule, int64_t local) {
    std::vector<int64_t> edges;
    const int64_t today = floorDiv(local, DAY) * DAY;
    for (int64_t day = today; day <= today + 8 * DAY; day += DAY) {
        for (const TimePeriod &period : schedule.periods) {
            edges.push_back(day + period.from);
            edges.push_back(day + period.to);
        }
        edges.push_back(day); // a period over midnight may end or begin with the day itself
    }
    std::sort(edges.begin(), edges.end());
    const bool holds = periodsHold(schedule, local);
    for (const int64_t edge : edges) {
        if (edge > local && periodsHold(schedule, edge) != holds) {
            return edge;
        }
    }
    return std::nullopt;
}

// The first instant after this one at which the periods' answer is another one.
std::optional<int64_t> periodsNext(const Schedule &schedule, int64_t instant, const TimeZone &zone) {
    if (schedule.periods.empty()) {
        return std::nullopt;
    }
    const int64_t until = instant + SEARCH_MOST;
    const bool holds = periodsHold(schedule, instant + zone.offsetAt(instant));
    for (int64_t at = instant; at < until;) {
        const Segment segment = segmentAt(at, until, zone);
        const auto change = periodsChange(schedule, at + segment.offset);
        if (change && *change - segment.offset < segment.end) {
            return *change - segment.offset;
        }
        at = segment.end;
        if (periodsHold(schedule, at + zone.offsetAt(at)) != holds) {
            return at;
        }
    }
    return std::nullopt;
}

struct Window {
    int64_t begin = std::numeric_limits<int64_t>::min();
    int64_t end = std::numeric_limits<int64_t>::max();
};

Window windowOf(const Schedule &schedule, const TimeZone &zone) {
    Window window;
    if (schedule.start) {
        window.begin = windowBegin(*schedule.start, zone);
    }
    if (schedule.end) {
        window.end = windowEnd(*schedule.end, zone);
    }
    return window;
}

// As windowOf, but the zone is asked only near the window's edges.
bool windowHolds(const Schedule &schedule, int64_t instant, const TimeZone &zone) {
    const bool isBefore = schedule.start && instant < *schedule.start + OFFSET_MOST &&
                          (instant < *schedule.start - OFFSET_MOST || instant < windowBegin(*schedule.start, zone));
    const bool isBehind = schedule.end && instant >= *schedule.end - OFFSET_MOST &&
                          (instant >= *schedule.end + OFFSET_MOST || instant >= windowEnd(*schedule.end, zone));
    return !isBefore && !isBehind;
}

} // namespace

bool isActive(const Schedule &schedule, int64_t instant, const TimeZone &zone) {
    return windowHolds(schedule, instant, zone) && periodsHold(schedule, instant + zone.offsetAt(instant));
}

std::optional<int64_t> nextChange(const Schedule &schedule, int64_t instant, const TimeZone &zone) {
    const Window window = windowOf(schedule, zone);
    if (instant < window.begin) {
        if (window.begin < window.end && periodsHold(schedule, window.begin + zone.offsetAt(window.begin))) {
            return window.begin;
        }
        instant = window.begin;
    }
    if (instant >= window.end) {
        return std::nullopt;
    }
    const bool holds = periodsHold(schedule, instant + zone.offsetAt(instant));
    const auto change = periodsNext(schedule, instant, zone);
    if (change && *change < window.end) {
        return change;
    }
    return holds && schedule.end ? std::optional(window.end) : std::nullopt;
}

} // namespace host
