// Time ranges: who is told what when the clock runs or jumps, when a range is switched by hand or removed,
// and what happens when a binding goes while its callback is under way. The clock is the tests' own.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <random>

#include "schedule/schedule_text.h"
#include "host/timerange/timerange_service.h"

namespace {

using namespace host;
using namespace schedule;

// A clock that stands until it is moved, in a zone that is UTC until it is changed.
class VirtualClock final : public TimerangeClock {
public:
    int32_t offsetAt(int64_t) const override { return offset; }
    int64_t now() const override { return time; }
    void wakeSet(std::function<void(bool)> given) override { wake = std::move(given); }
    void alarmSet(std::optional<int64_t> instant) override { alarm = instant; }

    // Time passes: every alarm on the way comes at its moment.
    void runTo(int64_t until) {
        while (alarm && *alarm <= until) {
            time = std::max(time.load(), *alarm);
            alarms++;
            wake(false);
        }
        time = until;
    }
    // Somebody sets the clock, or the machine was asleep.
    void jumpTo(int64_t to) {
        time = to;
        wake(true);
    }
    void zoneSet(int32_t seconds) {
        offset = seconds;
        wake(true);
    }

    std::atomic<int64_t> time = 0;
    std::atomic<int32_t> offset = 0;
    std::optional<int64_t> alarm;
    int alarms = 0;

private:
    std::function<void(bool)> wake;
};

// A node as the daemon keeps it, under the daemon's mutex.
struct Node {
    std::mutex *pDaemon = nullptr;
    std::vector<std::string> calls;
    bool matched = false;
    std::mutex seenLock;
    std::condition_variable seen;
    int entered = 0; // callbacks that came as far as the mutex

    void waitEntered(int count) {
        std::unique_lock guard(seenLock);
        seen.wait(guard, [&] { return entered >= count; });
    }
};

// The context that is bound: the service copies these bytes.
struct Context {
    Node *pNode;
    uint8_t pad[20];
};

uint32_t called(void *pContext, const char *what, bool matched) {
    Context context;
    std::memcpy(&context, pContext, sizeof context);
    {
        const std::lock_guard guard(context.pNode->seenLock);
        context.pNode->entered++;
    }
    context.pNode->seen.notify_all();
    const std::lock_guard guard(*context.pNode->pDaemon);
    context.pNode->calls.push_back(what);
    context.pNode->matched = matched;
    return 0;
}

uint32_t onStart(void *pContext) { return called(pContext, "start", true); }
uint32_t onStop(void *pContext) { return called(pContext, "stop", false); }
uint32_t onUnbind(void *pContext) { return called(pContext, "unbind", false); }

using Calls = std::vector<std::string>;

class Timerange : public testing::Test {
protected:
    Timerange() { node.pDaemon = &daemon; }

    void bind(uint32_t id, const std::string &name, Node &to) {
        Context context{&to, {}};
        const auto *pBytes = reinterpret_cast<const uint8_t *>(&context);
        service.bind(id, name, {onStart, onStop, onUnbind}, {pBytes, pBytes + sizeof context});
    }
    Calls calls(Node &of) {
        service.drain();
        const std::lock_guard guard(daemon);
        return of.calls;
    }

    // "mon 08:00" in the week of 2026-11-23.
    static int64_t moment(const char *pDay, const char *pTime) {
        const uint8_t days = daysRead(pDay);
        int64_t day = 0;
        while ((days >> day & 1) == 0) {
            day++;
        }
        return localTimeRead("2026-11-23 00:00") + day * 86400 + timeOfDayRead(pTime, true);
    }
    static Schedule schedule(const char *pDays, const char *pFrom, const char *pTo) {
        return {{{daysRead(pDays), timeOfDayRead(pFrom, false), timeOfDayRead(pTo, true)}}, std::nullopt, std::nullopt};
    }
    TimerangeRow row(uint32_t id) {
        for (const TimerangeRow &each : service.rows()) {
            if (each.id == id) {
                return each;
            }
        }
        return {};
    }

    std::mutex daemon;
    Node node;
    VirtualClock *pClock = new VirtualClock; // the service's
    TimerangeService service{std::unique_ptr<TimerangeClock>(pClock)};
};

TEST_F(Timerange, ARangeThatNobodySetIsInactiveAndTellsNothing) {
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{});
}

TEST_F(Timerange, TellsStartAndStopOncePerChange) {
    bind(7, "pbrwan-10", node);
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    service.set(7, false);
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    service.set(7, false);
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
}

TEST_F(Timerange, AnActiveRangeStartsABindingAfterItWasMade) {
    service.set(7, true);
    {
        const std::lock_guard guard(daemon); // as the daemon binds
        bind(7, "pbrwan-10", node);
        EXPECT_EQ(node.calls, Calls{});
    }
    EXPECT_EQ(calls(node), Calls{"start"});
}

TEST_F(Timerange, TellsOnlyBindingsOfThatRange) {
    Node other;
    other.pDaemon = &daemon;
    bind(7, "pbrwan-10", node);
    bind(8, "pbrwan-20", other);
    service.set(8, true);
    EXPECT_EQ(calls(node), Calls{});
    EXPECT_EQ(calls(other), Calls{"start"});
}

TEST_F(Timerange, OneRangeTellsEachOfItsBindings) {
    Node other;
    other.pDaemon = &daemon;
    bind(7, "pbrwan-10", node);
    bind(7, "pbrwan-20", other);
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(calls(other), Calls{"start"});
}

TEST_F(Timerange, ARemovedBindingIsNotTold) {
    bind(7, "pbrwan-10", node);
    service.unbind(7, "pbrwan-10");
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{});
}

TEST_F(Timerange, RemovingGoesByRangeAndName) {
    bind(7, "pbrwan-10", node);
    service.unbind(7, "pbrwan-1");
    service.unbind(8, "pbrwan-10");
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
}

TEST_F(Timerange, ASecondBindingOfTheSameKeyReplacesTheFirst) {
    Node first;
    first.pDaemon = &daemon;
    bind(7, "pbrwan-10", first);
    bind(7, "pbrwan-10", node);
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(calls(first), Calls{});
}

TEST_F(Timerange, QuickSwitchesEndWithTheLastState) {
    bind(7, "pbrwan-10", node);
    for (int i = 0; i < 1000; i++) {
        service.set(7, i % 2 == 0);
    }
    service.set(7, true);
    const Calls told = calls(node);
    EXPECT_EQ(told.empty() ? "" : told.back(), "start");
}

TEST_F(Timerange, ListsRangesThatAreActiveOrBound) {
    bind(9, "pbrwan-20", node);
    bind(9, "pbrwan-10", node);
    service.set(7, true);
    const auto rows = service.rows();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].id, 7u);
    EXPECT_TRUE(rows[0].active);
    EXPECT_TRUE(rows[0].names.empty());
    EXPECT_EQ(rows[1].id, 9u);
    EXPECT_FALSE(rows[1].active);
    EXPECT_EQ(rows[1].names, (std::vector<std::string>{"pbrwan-10", "pbrwan-20"}));
}

TEST_F(Timerange, RemovingABindingDoesNotWaitForItsCallback) {
    bind(7, "pbrwan-10", node);
    std::unique_lock guard(daemon);
    service.set(7, true);
    node.waitEntered(1); // the callback waits for the daemon's mutex, which we hold
    service.unbind(7, "pbrwan-10");
    guard.unlock();
    EXPECT_EQ(calls(node), Calls{"start"}); // with its own copy of the context
}

TEST_F(Timerange, ALateCallbackIsCorrectedForWhoeverHoldsTheNameThen) {
    bind(7, "pbrwan-10", node);
    std::unique_lock guard(daemon);
    service.set(7, true);
    node.waitEntered(1);
    // The operator takes range 7 off and puts range 8, which is inactive, on the same node.
    service.unbind(7, "pbrwan-10");
    node.matched = false;
    bind(8, "pbrwan-10", node);
    guard.unlock();
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    EXPECT_FALSE(node.matched);
}

// ---- schedules ----

TEST_F(Timerange, AScheduleStartsAndStopsItsBindingsAtItsTimes) {
    pClock->time = moment("mon", "07:00");
    bind(7, "pbrwan-10", node);
    service.define(7, schedule("mon-fri", "08:00", "18:00"));
    EXPECT_EQ(calls(node), Calls{});
    EXPECT_EQ(pClock->alarm, moment("mon", "08:00"));

    pClock->runTo(moment("mon", "08:00") - 1);
    EXPECT_EQ(calls(node), Calls{});
    pClock->runTo(moment("mon", "08:00"));
    EXPECT_EQ(calls(node), Calls{"start"});
    pClock->runTo(moment("mon", "18:00"));
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    EXPECT_EQ(pClock->alarm, moment("tue", "08:00"));
}

TEST_F(Timerange, EachChangeOfAWeekIsToldOnce) {
    pClock->time = moment("mon", "00:00");
    service.define(7, schedule("mon-fri", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    Calls expected;
    for (const char *pDay : {"mon", "tue", "wed", "thu", "fri"}) {
        pClock->runTo(moment(pDay, "12:00"));
        expected.push_back("start");
        EXPECT_EQ(calls(node), expected);
        pClock->runTo(moment(pDay, "20:00"));
        expected.push_back("stop");
        EXPECT_EQ(calls(node), expected);
    }
    EXPECT_EQ(pClock->alarms, 10);
}

TEST_F(Timerange, ABindingWhileTheScheduleHoldsIsStartedAfterwards) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    {
        const std::lock_guard guard(daemon); // as the daemon binds
        bind(7, "pbrwan-10", node);
        EXPECT_EQ(node.calls, Calls{});
    }
    EXPECT_EQ(calls(node), Calls{"start"});
}

TEST_F(Timerange, TheAlarmIsTheFirstChangeOfAnyRange) {
    pClock->time = moment("mon", "07:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    service.define(8, schedule("mon", "07:30", "07:40"));
    EXPECT_EQ(pClock->alarm, moment("mon", "07:30"));
    EXPECT_EQ(service.remove(8, false), "");
    EXPECT_EQ(pClock->alarm, moment("mon", "08:00"));
    EXPECT_EQ(service.remove(7, false), "");
    EXPECT_EQ(pClock->alarm, std::nullopt);
}

TEST_F(Timerange, AJumpForwardOverABeginOrAnEndIsFollowedAtOnce) {
    pClock->time = moment("mon", "07:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    pClock->jumpTo(moment("mon", "12:00"));
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(pClock->alarm, moment("mon", "18:00"));
    pClock->jumpTo(moment("tue", "12:00"));
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
}

TEST_F(Timerange, AJumpBackIsFollowedAtOnce) {
    pClock->time = moment("mon", "08:30");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{"start"});
    pClock->jumpTo(moment("mon", "07:59"));
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    EXPECT_EQ(pClock->alarm, moment("mon", "08:00"));
    pClock->runTo(moment("mon", "08:00"));
    EXPECT_EQ(calls(node), (Calls{"start", "stop", "start"}));
}

TEST_F(Timerange, AJumpOverAWholePeriodTellsNothing) {
    pClock->time = moment("mon", "07:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    pClock->jumpTo(moment("mon", "19:00"));
    EXPECT_EQ(calls(node), Calls{});
}

TEST_F(Timerange, AClockThatWentBackUnnoticedIsFollowedAtTheNextWake) {
    pClock->time = moment("mon", "08:30");
    service.define(7, schedule("mon", "08:00", "18:00"));
    service.define(8, schedule("mon", "06:00", "07:30")); // brings an alarm soon after
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{"start"});
    pClock->alarm = moment("mon", "07:10");
    pClock->time = moment("mon", "07:00");
    pClock->runTo(moment("mon", "07:10"));
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    EXPECT_TRUE(row(8).active);
}

TEST_F(Timerange, ALateAlarmFindsWhatIsSoByThen) {
    pClock->time = moment("mon", "07:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    pClock->time = moment("mon", "20:00"); // the machine was busy all day
    pClock->runTo(moment("mon", "20:00"));
    EXPECT_EQ(calls(node), Calls{});
    EXPECT_EQ(row(7).nextChange, moment("mon", "08:00") + 7 * 86400);
}

TEST_F(Timerange, AnotherZoneIsFollowedAtOnce) {
    pClock->time = moment("mon", "07:30");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    pClock->zoneSet(3600);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(pClock->alarm, moment("mon", "17:00"));
}

TEST_F(Timerange, AnotherScheduleThatHoldsTooDisturbsNobody) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{"start"});
    service.define(7, schedule("mon", "07:00", "10:00"));
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(pClock->alarm, moment("mon", "10:00"));
    service.define(7, schedule("tue", "07:00", "10:00"));
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
}

// ---- by hand ----

TEST_F(Timerange, AHandOverridesTheScheduleUntilItIsTakenAway) {
    pClock->time = moment("mon", "07:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(row(7).byHand, true);
    EXPECT_EQ(row(7).nextChange, std::nullopt); // nothing changes it but a hand
    pClock->runTo(moment("mon", "20:00"));
    EXPECT_EQ(calls(node), Calls{"start"});

    service.set(7, std::nullopt);
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    EXPECT_EQ(row(7).nextChange, moment("mon", "08:00") + 7 * 86400);
}

TEST_F(Timerange, AHandMayHoldARangeOff) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    service.set(7, false);
    service.set(7, std::nullopt);
    service.drain();
    const Calls told = calls(node);
    EXPECT_EQ(told.back(), "start");
    service.set(7, false);
    EXPECT_EQ(calls(node).back(), "stop");
    service.define(7, schedule("mon", "07:00", "18:00")); // the hand stays
    EXPECT_FALSE(row(7).active);
    EXPECT_EQ(row(7).byHand, false);
}

TEST_F(Timerange, AutomaticWithoutScheduleIsForgotten) {
    service.set(7, true);
    service.set(7, std::nullopt);
    EXPECT_TRUE(service.rows().empty());
}

// ---- removal ----

TEST_F(Timerange, ARangeInUseIsNotRemoved) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    for (const char *pName : {"pbra-1", "pbra-2", "pbra-3", "pbra-4", "pbra-5", "pbra-6"}) {
        bind(7, pName, node);
    }
    EXPECT_EQ(service.remove(7, false),
              "time range 7 is used by pbra-1, pbra-2, pbra-3, pbra-4 and 2 more: these nodes would not act any more. "
              "Take it off them first, or force its removal");
    EXPECT_TRUE(row(7).schedule.has_value());
    EXPECT_TRUE(row(7).active);
}

TEST_F(Timerange, AForcedRemovalTellsUnbindOnce) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(service.remove(7, true), "");
    EXPECT_EQ(calls(node), (Calls{"start", "unbind"}));
    EXPECT_EQ(service.remove(7, true), "time range 7 is not defined");
    pClock->runTo(moment("tue", "09:00"));
    EXPECT_EQ(calls(node), (Calls{"start", "unbind"}));
}

TEST_F(Timerange, AnInactiveRangesRemovalIsToldToo) {
    service.define(7, schedule("fri", "08:00", "18:00"));
    pClock->jumpTo(moment("mon", "09:00"));
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(service.remove(7, true), "");
    EXPECT_EQ(calls(node), Calls{"unbind"});
}

TEST_F(Timerange, ARangeThatIsDefinedAgainStartsWhoIsStillBound) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{"start"});
    {
        const std::lock_guard guard(daemon); // nothing is delivered meanwhile
        EXPECT_EQ(service.remove(7, true), "");
        service.define(7, schedule("mon", "08:30", "18:00"));
    }
    EXPECT_EQ(calls(node), (Calls{"start", "unbind", "start"}));
}

TEST_F(Timerange, RemovalTakesTheHandAwayToo) {
    service.define(7, schedule("mon", "08:00", "18:00"));
    service.set(7, true);
    EXPECT_EQ(service.remove(7, false), "");
    EXPECT_TRUE(service.rows().empty());
    service.set(8, true);
    EXPECT_EQ(service.remove(8, false), "time range 8 is not defined");
    EXPECT_TRUE(row(8).active);
}

// ---- all at once ----

TEST_F(Timerange, ReplacingAllLeavesWhatStaysTheSameAlone) {
    pClock->time = moment("mon", "09:00");
    Node other, gone;
    other.pDaemon = gone.pDaemon = &daemon;
    service.define(7, schedule("mon", "08:00", "18:00"));
    service.define(8, schedule("mon", "08:00", "18:00"));
    service.define(9, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    bind(8, "pbrwan-20", other);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(service.replaceAll({{7, schedule("mon", "08:00", "18:00")},
                                  {8, schedule("tue", "08:00", "18:00")},
                                  {10, schedule("mon", "09:30", "18:00")}},
                                 false),
              "");
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(calls(other), (Calls{"start", "stop"}));
    ASSERT_EQ(service.rows().size(), 3u);
    EXPECT_EQ(service.rows()[2].id, 10u);
    EXPECT_EQ(pClock->alarm, moment("mon", "09:30"));
}

TEST_F(Timerange, ReplacingAllIsRefusedWholeWhenOneThatGoesIsInUse) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    service.define(6, schedule("mon", "08:00", "18:00"));
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{"start"});
    const TimerangeSchedules after = {{8, schedule("mon", "08:00", "18:00")}};
    EXPECT_EQ(service.replaceAll(after, false),
              "time range 7 is not among the new ones, and is used by pbrwan-10: these nodes would not act any more. "
              "Take it off them first, or force its removal");
    EXPECT_EQ(service.rows().size(), 2u);
    EXPECT_EQ(service.replaceAll(after, true), "");
    EXPECT_EQ(calls(node), (Calls{"start", "unbind"}));
}

TEST_F(Timerange, ReplacingAllKeepsWhatWasSwitchedByHand) {
    pClock->time = moment("mon", "09:00");
    service.define(7, schedule("mon", "08:00", "18:00"));
    service.set(7, false);
    service.set(5, true); // never defined
    EXPECT_EQ(service.replaceAll({{7, schedule("mon", "07:00", "18:00")}}, false), "");
    EXPECT_EQ(row(7).byHand, false);
    EXPECT_EQ(row(5).byHand, true);
}

// Nodes are bound to ranges at random under the daemon's mutex while ranges are switched at random: in the
// end each node matches exactly when its range is active.
TEST_F(Timerange, EveryNodeEndsWithTheStateOfItsRange) {
    constexpr int NODES = 8;
    std::vector<Node> nodes(NODES);
    std::vector<uint32_t> ranges(NODES, 0);
    for (Node &each : nodes) {
        each.pDaemon = &daemon;
    }
    std::thread switcher([&] {
        std::mt19937 random{1};
        for (int i = 0; i < 20000; i++) {
            service.set(1 + random() % 3, random() % 2 == 0);
        }
    });
    std::mt19937 random{2};
    for (int i = 0; i < 20000; i++) {
        const std::lock_guard guard(daemon);
        const size_t n = random() % NODES;
        const std::string name = "pbrl-" + std::to_string(n);
        service.unbind(ranges[n], name);
        ranges[n] = 1 + random() % 3;
        bind(ranges[n], name, nodes[n]);
        nodes[n].matched = false;
    }
    switcher.join();
    service.drain();
    std::map<uint32_t, bool> active;
    for (const auto &row : service.rows()) {
        active[row.id] = row.active;
    }
    for (size_t n = 0; n < NODES; n++) {
        EXPECT_EQ(nodes[n].matched, active[ranges[n]]) << n;
    }
}

TEST(TimerangeApi, RefusesBadArgumentsAndTakesAnyRange) {
    const uint8_t context[28] = {};
    EXPECT_EQ(timerangeBind(4000000000u, "pbra-1", 6, onStart, onStop, onUnbind, context, 28), QRV_OK);
    EXPECT_EQ(timerangeUnbind(4000000000u, "pbra-1", 6, 1), QRV_OK);
    EXPECT_EQ(timerangeBind(1, nullptr, 6, onStart, onStop, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 0, onStart, onStop, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, nullptr, onStop, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, onStart, nullptr, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, onStart, onStop, nullptr, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, onStart, onStop, onUnbind, nullptr, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeUnbind(1, nullptr, 1, 1), QRV_ERR_BAD_ARGUMENT);
}

TEST(TimerangeApi, RemovingAnAbsentBindingIsDone) {
    // A node without range is unbound too: the daemon passes all ones then.
    EXPECT_EQ(timerangeUnbind(0xFFFFFFFFu, "pbra-1", 6, 1), QRV_OK);
}

} // namespace
