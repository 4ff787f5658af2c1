// The ranges of the service: schedules, switches by hand, and what the clock makes of them.
#include <algorithm>
#include <limits>

#include "host/mgmt/watch_feed.h"
#include "host/timerange/timerange_service.h"

namespace host {

// The lock is held.
bool TimerangeService::isActiveNow(uint32_t id) const {
    const auto found = ranges.find(id);
    if (found == ranges.end()) {
        return false;
    }
    const Range &range = found->second;
    return range.byHand ? *range.byHand : range.isScheduled;
}

// Works out what the schedule says at that moment.
void TimerangeService::reckon(Range &range, int64_t now) const {
    range.reckonedAt = now;
    range.isScheduled = range.schedule && isActive(*range.schedule, now, *pClock);
    range.nextChange = range.schedule ? host::nextChange(*range.schedule, now, *pClock) : std::nullopt;
}

// Makes a range what it is to be, and tells its bindings if that is a change. The lock is held.
void TimerangeService::change(uint32_t id, const Range &after) {
    const bool before = isActiveNow(id);
    if (after.schedule || after.byHand) {
        ranges[id] = after;
    } else {
        ranges.erase(id);
    }
    if (isActiveNow(id) != before) {
        watchTell("time-range", "time range " + std::to_string(id) + (before ? " is not active any more" : " is active"),
                  {{"id", id}, {"active", !before}});
        tell(id, false);
    }
}

// The clock's call: an alarm, or a jump. Any thread.
void TimerangeService::wake(bool isJump) {
    const std::lock_guard guard(lock);
    const int64_t now = pClock->now();
    for (const auto &[id, range] : ranges) {
        const bool isDue = range.nextChange && *range.nextChange <= now;
        if (range.schedule && (isJump || isDue || now < range.reckonedAt)) {
            Range after = range;
            reckon(after, now);
            change(id, after); // keeps the entry: it has a schedule
        }
    }
    alarmUpdate();
}

// Sets the alarm to the next change of any schedule. A schedule that does not change again keeps the clock
// watched: it does change when the time jumps. The lock is held.
void TimerangeService::alarmUpdate() {
    std::optional<int64_t> next;
    for (const auto &[id, range] : ranges) {
        if (range.schedule) {
            const int64_t at = range.nextChange.value_or(std::numeric_limits<int64_t>::max());
            next = std::min(next.value_or(at), at);
        }
    }
    pClock->alarmSet(next);
}

void TimerangeService::set(uint32_t id, std::optional<bool> byHand) {
    const std::lock_guard guard(lock);
    const auto found = ranges.find(id);
    Range after = found == ranges.end() ? Range{} : found->second;
    after.byHand = byHand;
    change(id, after);
}

void TimerangeService::define(uint32_t id, Schedule schedule) {
    const std::lock_guard guard(lock);
    const auto found = ranges.find(id);
    Range after = found == ranges.end() ? Range{} : found->second;
    after.schedule = std::move(schedule);
    reckon(after, pClock->now());
    change(id, after);
    alarmUpdate();
}

// "pbrwan-10, pbrwan-20 and 3 more"; empty without bindings. The lock is held.
std::string TimerangeService::usersOf(uint32_t id) const {
    constexpr size_t SHOWN = 4;
    std::string text;
    size_t count = 0;
    for (auto held = bindings.lower_bound({id, ""}); held != bindings.end() && held->first.first == id;
         ++held) {
        if (count++ < SHOWN) {
            text += (text.empty() ? "" : ", ") + held->first.second;
        }
    }
    return count > SHOWN ? text + " and " + std::to_string(count - SHOWN) + " more" : text;
}

// Removes a range; its bindings are told that it is gone. The lock is held.
void TimerangeService::removeRange(uint32_t id) {
    watchTell("time-range", "time range " + std::to_string(id) + " is removed", {{"id", id}, {"active", false}});
    ranges.erase(id);
    tell(id, true);
}

std::string TimerangeService::remove(uint32_t id, bool isForced) {
    const std::lock_guard guard(lock);
    const auto found = ranges.find(id);
    if (found == ranges.end() || !found->second.schedule) {
        return "time range " + std::to_string(id) + " is not defined";
    }
    const std::string users = usersOf(id);
    if (!users.empty() && !isForced) {
        return "time range " + std::to_string(id) + " is used by " + users +
               ": these nodes would not act any more. Take it off them first, or force its removal";
    }
    removeRange(id);
    alarmUpdate();
    return "";
}

std::string TimerangeService::replaceAll(TimerangeSchedules schedules, bool isForced) {
    const std::lock_guard guard(lock);
    std::vector<uint32_t> leaving;
    for (const auto &[id, range] : ranges) {
        if (!range.schedule || schedules.count(id) != 0) {
            continue;
        }
        const std::string users = usersOf(id);
        if (!users.empty() && !isForced) {
            return "time range " + std::to_string(id) + " is not among the new ones, and is used by " + users +
                   ": these nodes would not act any more. Take it off them first, or force its removal";
        }
        leaving.push_back(id);
    }
    std::for_each(leaving.begin(), leaving.end(), [this](uint32_t id) { removeRange(id); });
    const int64_t now = pClock->now();
    for (auto &[id, schedule] : schedules) {
        const auto found = ranges.find(id);
        Range after = found == ranges.end() ? Range{} : found->second;
        if (after.schedule == schedule) {
            continue;
        }
        after.schedule = std::move(schedule);
        reckon(after, now);
        change(id, after);
    }
    alarmUpdate();
    return "";
}

std::vector<TimerangeRow> TimerangeService::rows() const {
    const std::lock_guard guard(lock);
    std::map<uint32_t, TimerangeRow> rows;
    for (const auto &[id, range] : ranges) {
        TimerangeRow &row = rows[id];
        row.active = isActiveNow(id);
        row.schedule = range.schedule;
        row.byHand = range.byHand;
        row.nextChange = range.byHand ? std::nullopt : range.nextChange;
    }
    for (const auto &[key, binding] : bindings) {
        rows[key.first].names.push_back(key.second);
    }
    std::vector<TimerangeRow> list;
    for (auto &[id, row] : rows) {
        row.id = id;
        list.push_back(std::move(row));
    }
    return list;
}

} // namespace host
