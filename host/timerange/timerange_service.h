// Time ranges: numbered ranges, the schedules that they follow, their bindings, and the delivery of starts
// and stops.
//
// A range is active as a switch by hand says; without one as its schedule says at this moment; without a
// schedule it is inactive. Schedules are worked out again at their own next change and after every jump of
// the clock, from the time that it is then: nothing is counted on from an earlier state.
//
// What a binding was told and what its range is are compared, and the difference is delivered on the
// service's own thread, which holds no lock then: the callbacks take the daemon's mutex. So each change is
// told once; changes back and forth that pass while a callback waits for the mutex are one difference, or
// none. A binding and an unbinding come with that mutex held, so they never wait for a delivery. A binding
// that is removed while its callback waits for the mutex gets that one call late; whoever is bound under the
// same name by then is told its own state once more, so that the last word is always right.
//
//   told inactive --range active--> queued --start delivered--> told active   (and the reverse)
//   either --range removed--> queued --unbind delivered--> told inactive
//
// A removed range leaves its bindings registered, as a binding to a range that is not configured is: when
// the range is defined again they are told its start.
#ifndef HOST_TIMERANGE_TIMERANGE_SERVICE_H
#define HOST_TIMERANGE_TIMERANGE_SERVICE_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/timerange/schedule.h"
#include "host/timerange/timerange_clock.h"
#include "platform/timerange.h"

namespace host {

struct TimerangeCallbacks {
    TimerangeCallback start = nullptr;
    TimerangeCallback stop = nullptr;
    TimerangeCallback unbind = nullptr; // the range was removed
};

// A range that has a schedule, is switched by hand, or has bindings.
struct TimerangeRow {
    uint32_t id = 0;
    bool active = false;
    std::optional<Schedule> schedule;
    std::optional<bool> byHand;        // as which it is switched; none: it follows its schedule
    std::optional<int64_t> nextChange; // of `active`, an instant; none: it stays
    std::vector<std::string> names;    // of its bindings
};

using TimerangeSchedules = std::map<uint32_t, Schedule>;

class TimerangeService {
public:
    explicit TimerangeService(std::unique_ptr<TimerangeClock> pClock);

    // Waits for a callback that is under way: the daemon's mutex must not be held.
    ~TimerangeService();
    TimerangeService(const TimerangeService &) = delete;
    TimerangeService &operator=(const TimerangeService &) = delete;

    // A second binding of the same range and name replaces the first. An active range delivers its start
    // afterwards. Any thread. Lock: takes the service's own
    void bind(uint32_t id, const std::string &name, const TimerangeCallbacks &callbacks,
              std::vector<uint8_t> context);

    // An absent binding is removed already. Any thread. Lock: takes the service's own
    void unbind(uint32_t id, const std::string &name);

    // Switches a range by hand, or lets it follow its schedule again (none); its bindings are told.
    // Any thread. Lock: takes the service's own
    void set(uint32_t id, std::optional<bool> byHand);

    // Gives a range a schedule, also instead of another one. Any thread. Lock: takes the service's own
    void define(uint32_t id, Schedule schedule);

    // Removes a range with its schedule and its switch. Result: empty, or why not: it is not defined, or it
    // has bindings and the removal is not forced. Any thread. Lock: takes the service's own
    std::string remove(uint32_t id, bool isForced);

    // Makes exactly these ranges the defined ones; those that stay the same are not disturbed. Result: empty,
    // or why not (one that would go has bindings, not forced): nothing was changed then.
    // Any thread. Lock: takes the service's own
    std::string replaceAll(TimerangeSchedules schedules, bool isForced);

    // Ranges ascending, names in order. Any thread. Lock: takes the service's own
    std::vector<TimerangeRow> rows() const;

    // The clock that the ranges follow.
    const TimerangeClock &clock() const { return *pClock; }

    // Waits until everything queued has been delivered: the daemon's mutex must not be held.
    void drain();

private:
    // What is known of a range beside its bindings: a schedule, a switch, or both.
    struct Range {
        std::optional<Schedule> schedule;
        std::optional<bool> byHand;
        bool isScheduled = false;          // active by the schedule, as worked out last
        int64_t reckonedAt = 0;            // when that was
        std::optional<int64_t> nextChange; // of isScheduled
    };
    struct Binding {
        uint32_t id = 0;
        std::string name;
        TimerangeCallbacks callbacks;
        std::vector<uint8_t> context;
        bool told = false;      // active, as last delivered
        bool isQueued = false;
        bool isBound = true;
        bool repeat = false;    // deliver even when told agrees
        bool isRemoved = false; // its range was removed: unbind is to be delivered
    };
    using BindingPtr = std::shared_ptr<Binding>;
    using Key = std::pair<uint32_t, std::string>;

    void queue(const BindingPtr &binding);
    void drop(const Key &key);
    void run();
    void deliver(const BindingPtr &binding, std::unique_lock<std::mutex> &guard);
    TimerangeCallback callbackFor(Binding &binding) const;
    void retellName(const std::string &name);

    bool isActiveNow(uint32_t id) const;
    void tell(uint32_t id, bool isRemoved);
    void change(uint32_t id, const Range &after);
    void reckon(Range &range, int64_t now) const;
    void wake(bool isJump);
    void alarmUpdate();
    void removeRange(uint32_t id);
    std::string usersOf(uint32_t id) const;

    const std::unique_ptr<TimerangeClock> pClock;
    mutable std::mutex lock;
    std::condition_variable work;
    std::condition_variable idle;
    std::map<Key, BindingPtr> bindings;
    std::map<uint32_t, Range> ranges;
    std::deque<BindingPtr> queued;
    bool isDelivering = false;
    bool isEnding = false;
    std::thread thread;
};

// The process's service, on the machine's clock.
TimerangeService &timerangeService();

// Registers the operations of time ranges on the management socket. Lock: none
void timerangeMgmtRegister();

// Brings back the time ranges that the journal has. Lock: none
void timerangeRestore();

} // namespace host

#endif
