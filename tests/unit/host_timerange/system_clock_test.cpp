// The machine's clock: real time and the real event thread, but nothing waits for time to pass.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>

#include "host/event/event_loop.h"
#include "host/timerange/timerange_clock.h"
#include "tests/unit/host_timerange/posix_zone.h"

namespace {

using namespace host;

TEST(SystemClock, TellsTheTimeOfDay) {
    const auto pClock = systemClock();
    const auto before = static_cast<int64_t>(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    const int64_t now = pClock->now();
    EXPECT_GE(now, before);
    EXPECT_LE(now, before + 5);
}

TEST(SystemClock, ReadsTheZoneOfTheProcess) {
    setenv("TZ", timetest::LORD_HOWE, 1);
    const auto pClock = systemClock();
    EXPECT_EQ(pClock->offsetAt(timetest::at("2027-01-15 00:00", 11)), 11 * 3600);
    EXPECT_EQ(pClock->offsetAt(timetest::at("2027-07-15 00:00", 10.5)), 10 * 3600 + 1800);
    unsetenv("TZ");
    tzset();
}

TEST(SystemClock, AnAlarmThatIsDueComes) {
    const auto pClock = systemClock();
    std::promise<bool> woken;
    pClock->wakeSet([&](bool isJump) {
        pClock->alarmSet(std::nullopt);
        woken.set_value(isJump);
    });
    pClock->alarmSet(pClock->now()); // the second has begun
    auto future = woken.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_FALSE(future.get());
}

TEST(SystemClock, AnAlarmFarInThePastComesToo) {
    const auto pClock = systemClock();
    std::promise<void> woken;
    pClock->wakeSet([&](bool) {
        pClock->alarmSet(std::nullopt);
        woken.set_value();
    });
    pClock->alarmSet(-1000000);
    EXPECT_EQ(woken.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST(SystemClock, AnAlarmThatWasTakenBackDoesNotCome) {
    const auto pClock = systemClock();
    std::atomic<int> wakes = 0;
    pClock->wakeSet([&](bool) { wakes++; });
    std::promise<void> passed;
    // On the event thread, so that nothing runs between the two; then one more round of the loop.
    hostEventLoop().post([&] {
        pClock->alarmSet(pClock->now());
        pClock->alarmSet(std::nullopt);
        hostEventLoop().post([&] { passed.set_value(); });
    });
    passed.get_future().wait();
    EXPECT_EQ(wakes, 0);
}

} // namespace
