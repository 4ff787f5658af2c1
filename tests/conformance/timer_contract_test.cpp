// The contract of platform/sil_timer.h, on a clock that the tests move.
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/sil_timer.h"
#include "tests/conformance/platform_under_test.h"

namespace {

using conformance::passMs;

class Timers;
Timers *gTest;

class Timers : public testing::Test {
protected:
    // A timer that notes its letter when it fires and then does what it is told. As those of the daemon it
    // has a callback of its own and passes no argument.
    struct Noting {
        char letter;
        SilTimerCallback fired;
        SilTimer timer{};
        std::function<void()> then = [] {};
    };

    Timers() {
        gTest = this;
        conformance::platformReset();
        EXPECT_EQ(0, silTimerListInit(&list));
    }

    int32_t note(Noting &noting) {
        notes += noting.letter;
        noting.then();
        return 0;
    }
    void start(Noting &noting, uint32_t ms) {
        ASSERT_EQ(0, silTimerStart(&list, &noting.timer, 0, ms, noting.fired, nullptr, 0, 0));
    }
    void stop(Noting &noting) { ASSERT_EQ(0, silTimerStop(&list, &noting.timer)); }
    int32_t next() { return silTimerListNextTimeout(&list); }
    // What fires in a check now.
    std::string check() {
        notes.clear();
        silTimerListCheck(&list);
        return notes;
    }

    SilTimerList list{};
    Noting a{'a', [](void *) { return gTest->note(gTest->a); }};
    Noting b{'b', [](void *) { return gTest->note(gTest->b); }};
    Noting c{'c', [](void *) { return gTest->note(gTest->c); }};
    std::string notes;
};

TEST_F(Timers, WithNothingArmedThereIsNoNextTime) {
    EXPECT_EQ(-1, next());
    EXPECT_EQ("", check());
}

TEST_F(Timers, ATimerFiresOnceWhenItIsDueAndNotBefore) {
    start(a, 100);
    EXPECT_EQ(100, next());
    passMs(99);
    EXPECT_EQ(1, next());
    EXPECT_EQ("", check());
    passMs(1);
    EXPECT_EQ(0, next());
    EXPECT_EQ("a", check());
    EXPECT_EQ(-1, next());
    passMs(1000);
    EXPECT_EQ("", check());
}

TEST_F(Timers, AnOverdueTimerIsDueNow) {
    start(a, 10);
    passMs(500);
    EXPECT_EQ(0, next());
    EXPECT_EQ("a", check());
}

TEST_F(Timers, DueTimersFireInTheOrderOfTheirTimes) {
    start(c, 30);
    start(a, 10);
    start(b, 20);
    passMs(30);
    EXPECT_EQ("abc", check());
}

TEST_F(Timers, EqualTimesFireInTheOrderOfArming) {
    start(b, 10);
    start(a, 10);
    start(c, 10);
    passMs(10);
    EXPECT_EQ("bac", check());
}

TEST_F(Timers, ArmingAnArmedTimerReplacesItsTime) {
    start(a, 10);
    start(b, 20);
    start(a, 30);
    EXPECT_EQ(20, next());
    passMs(20);
    EXPECT_EQ("b", check());
    passMs(10);
    EXPECT_EQ("a", check());
}

TEST_F(Timers, StoppingIsHarmlessWhenNothingIsArmed) {
    stop(a);
    start(a, 10);
    stop(a);
    stop(a);
    EXPECT_EQ(-1, next());
    passMs(10);
    EXPECT_EQ("", check());
}

TEST_F(Timers, ATimerArmedAgainByItsOwnCallbackWaitsForTheNextCheck) {
    a.then = [&] { start(a, 0); };
    start(a, 10);
    start(b, 10);
    passMs(10);
    EXPECT_EQ("ab", check());
    EXPECT_EQ(0, next());
    EXPECT_EQ("a", check());
    EXPECT_EQ("a", check());
}

TEST_F(Timers, ATimerArmedByAnotherCallbackWaitsForTheNextCheckToo) {
    a.then = [&] { start(c, 0); };
    start(a, 10);
    passMs(10);
    EXPECT_EQ("a", check());
    EXPECT_EQ("c", check());
}

TEST_F(Timers, ACallbackCanStopADueTimer) {
    a.then = [&] { stop(b); };
    start(a, 10);
    start(b, 10);
    start(c, 10);
    passMs(10);
    EXPECT_EQ("ac", check());
    EXPECT_EQ(-1, next());
}

TEST_F(Timers, ACallbackCanPutOffADueTimer) {
    a.then = [&] { start(b, 5); };
    start(a, 10);
    start(b, 10);
    passMs(10);
    EXPECT_EQ("a", check());
    EXPECT_EQ(5, next());
    passMs(5);
    EXPECT_EQ("b", check());
}

TEST_F(Timers, ATimerIsDisarmedWhileItsCallbackRuns) {
    int32_t seen = 0;
    a.then = [&] {
        stop(a);
        seen = next();
    };
    start(a, 10);
    passMs(10);
    EXPECT_EQ("a", check());
    EXPECT_EQ(-1, seen);
}

TEST_F(Timers, TheLongestPeriodNeitherWrapsNorFiresEarly) {
    start(a, 0xFFFFFFFFu);
    start(b, 50);
    EXPECT_EQ(50, next());
    passMs(50);
    EXPECT_EQ("b", check());
    EXPECT_EQ(INT32_MAX, next());
    passMs(0xFFFFFFFFu - 51);
    EXPECT_EQ("", check());
    EXPECT_EQ(1, next());
    passMs(1);
    EXPECT_EQ("a", check());
}

TEST_F(Timers, TheClockPassingThirtyTwoBitsChangesNothing) {
    passMs(0xFFFFFFFFu - 1000 - 5); // the next milliseconds cross the border
    start(b, 20);
    start(a, 3);
    EXPECT_EQ(3, next());
    passMs(3);
    EXPECT_EQ("a", check());
    EXPECT_EQ(17, next());
    passMs(16);
    EXPECT_EQ("", check());
    passMs(1);
    EXPECT_EQ("b", check());
}

TEST_F(Timers, ObjectsHaveTheirPublishedSizes) {
    EXPECT_EQ(2 * sizeof(void *), sizeof(SilTimerList));
    EXPECT_EQ(8 * sizeof(void *), sizeof(SilTimer));
}

} // namespace
