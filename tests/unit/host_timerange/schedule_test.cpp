// When a schedule is active and when that changes, in zones with and without changes of the clocks.
#include <gtest/gtest.h>

#include <random>

#include "host/timerange/iso_text.h"
#include "host/timerange/schedule.h"
#include "schedule/schedule_text.h"
#include "tests/unit/host_timerange/posix_zone.h"

namespace {

using namespace host;
using namespace schedule;
using timetest::at;
using timetest::PosixZone;

constexpr int64_t MINUTE = 60;
constexpr int64_t HOUR = 3600;
constexpr int64_t DAY = 86400;

TimePeriod period(const char *pDays, const char *pFrom, const char *pTo) {
    return {daysRead(pDays), timeOfDayRead(pFrom, false), timeOfDayRead(pTo, true)};
}

Schedule periodic(const char *pDays, const char *pFrom, const char *pTo) {
    return {{period(pDays, pFrom, pTo)}, std::nullopt, std::nullopt};
}

Schedule window(const char *pStart, const char *pEnd) {
    Schedule schedule;
    if (pStart != nullptr) {
        schedule.start = localTimeRead(pStart);
    }
    if (pEnd != nullptr) {
        schedule.end = localTimeRead(pEnd);
    }
    return schedule;
}

// The changes in [from, until), as local times with offset.
std::vector<std::string> changes(const Schedule &schedule, int64_t from, int64_t until, const TimeZone &zone) {
    std::vector<std::string> texts;
    auto next = nextChange(schedule, from - 1, zone);
    for (; next && *next < until; next = nextChange(schedule, *next, zone)) {
        EXPECT_NE(isActive(schedule, *next, zone), isActive(schedule, *next - 1, zone)) << *next;
        texts.push_back((isActive(schedule, *next, zone) ? "+" : "-") + isoText(*next, zone));
    }
    return texts;
}

using Texts = std::vector<std::string>;

TEST(Schedule, APeriodHoldsFromItsFirstSecondToTheOneBeforeItsEnd) {
    PosixZone zone(timetest::UTC);
    const Schedule office = periodic("mon-fri", "08:00", "18:00:30");
    const int64_t monday = at("2026-11-23 00:00", 0);

    EXPECT_FALSE(isActive(office, monday + 8 * HOUR - 1, zone));
    EXPECT_TRUE(isActive(office, monday + 8 * HOUR, zone));
    EXPECT_TRUE(isActive(office, monday + 18 * HOUR + 29, zone));
    EXPECT_FALSE(isActive(office, monday + 18 * HOUR + 30, zone));
    EXPECT_TRUE(isActive(office, monday + 4 * DAY + 9 * HOUR, zone));
    EXPECT_FALSE(isActive(office, monday + 5 * DAY + 9 * HOUR, zone));
    EXPECT_FALSE(isActive(office, monday + 6 * DAY + 9 * HOUR, zone));
}

TEST(Schedule, AnEndNotAfterTheBeginIsOfTheNextDay) {
    PosixZone zone(timetest::UTC);
    const Schedule night = periodic("fri,sun", "22:00", "06:00");
    const int64_t friday = at("2026-11-27 00:00", 0);

    EXPECT_FALSE(isActive(night, friday + 5 * HOUR, zone)); // Thursday is not meant
    EXPECT_EQ(changes(night, friday, friday + 7 * DAY, zone),
              (Texts{"+2026-11-27T22:00:00+00:00", "-2026-11-28T06:00:00+00:00", "+2026-11-29T22:00:00+00:00",
                     "-2026-11-30T06:00:00+00:00"}));
}

TEST(Schedule, EqualTimesAreAWholeDayFromThere) {
    PosixZone zone(timetest::UTC);
    const int64_t monday = at("2026-11-23 00:00", 0);
    EXPECT_EQ(changes(periodic("tue", "08:00", "08:00"), monday, monday + 7 * DAY, zone),
              (Texts{"+2026-11-24T08:00:00+00:00", "-2026-11-25T08:00:00+00:00"}));
    EXPECT_EQ(changes(periodic("tue", "00:00", "00:00"), monday, monday + 7 * DAY, zone),
              (Texts{"+2026-11-24T00:00:00+00:00", "-2026-11-25T00:00:00+00:00"}));
}

TEST(Schedule, DaysThatMeetAtMidnightAreOneStretch) {
    PosixZone zone(timetest::UTC);
    const int64_t tuesday = at("2026-11-24 00:00", 0);
    EXPECT_EQ(changes(periodic("weekend", "00:00", "24:00"), tuesday, tuesday + 14 * DAY, zone),
              (Texts{"+2026-11-28T00:00:00+00:00", "-2026-11-30T00:00:00+00:00", "+2026-12-05T00:00:00+00:00",
                     "-2026-12-07T00:00:00+00:00"}));
}

TEST(Schedule, ARangeThatAlwaysHoldsNeverChanges) {
    PosixZone zone(timetest::BERLIN);
    EXPECT_TRUE(isActive(periodic("daily", "00:00", "24:00"), 0, zone));
    EXPECT_EQ(nextChange(periodic("daily", "00:00", "24:00"), 0, zone), std::nullopt);
    EXPECT_EQ(nextChange(periodic("daily", "09:00", "09:00"), at("2026-03-28 12:00", 1), zone), std::nullopt);
}

TEST(Schedule, SeveralPeriodsHoldWhenOneDoes) {
    PosixZone zone(timetest::UTC);
    Schedule shop = periodic("mon-fri", "08:00", "18:00");
    shop.periods.push_back(period("sat", "10:00", "14:00"));
    shop.periods.push_back(period("fri", "17:00", "20:00"));
    const int64_t friday = at("2026-11-27 00:00", 0);
    EXPECT_EQ(changes(shop, friday, friday + 3 * DAY, zone),
              (Texts{"+2026-11-27T08:00:00+00:00", "-2026-11-27T20:00:00+00:00", "+2026-11-28T10:00:00+00:00",
                     "-2026-11-28T14:00:00+00:00"}));
}

TEST(Schedule, AWindowMayLackEitherEdge) {
    PosixZone zone(timetest::BERLIN);
    const int64_t start = at("2026-12-24 18:00:05", 1);
    const Schedule from = window("2026-12-24 18:00:05", nullptr);
    EXPECT_FALSE(isActive(from, start - 1, zone));
    EXPECT_TRUE(isActive(from, start, zone));
    EXPECT_EQ(nextChange(from, 0, zone), start);
    EXPECT_EQ(nextChange(from, start, zone), std::nullopt);
    const Schedule until = window(nullptr, "2026-12-24 18:00:05");
    EXPECT_TRUE(isActive(until, 0, zone));
    EXPECT_EQ(nextChange(until, 0, zone), start);
    EXPECT_FALSE(isActive(until, start, zone));
    EXPECT_EQ(nextChange(until, start, zone), std::nullopt);
}

TEST(Schedule, PeriodsHoldOnlyWithinTheWindow) {
    PosixZone zone(timetest::UTC);
    Schedule both = window("2026-11-24 12:00", "2026-11-26 09:00");
    both.periods = {period("daily", "08:00", "18:00")};
    EXPECT_EQ(changes(both, at("2026-01-01 00:00", 0), at("2030-01-01 00:00", 0), zone),
              (Texts{"+2026-11-24T12:00:00+00:00", "-2026-11-24T18:00:00+00:00", "+2026-11-25T08:00:00+00:00",
                     "-2026-11-25T18:00:00+00:00", "+2026-11-26T08:00:00+00:00", "-2026-11-26T09:00:00+00:00"}));

    both.start = localTimeRead("2026-11-23 20:00"); // begins between two periods
    EXPECT_EQ(nextChange(both, 0, zone), at("2026-11-24 08:00", 0));
    both.end = localTimeRead("2026-11-24 08:00"); // ends before the first
    EXPECT_EQ(nextChange(both, 0, zone), std::nullopt);
}

TEST(Schedule, LeapDaysAndYearEndsAreDaysLikeOthers) {
    PosixZone zone(timetest::BERLIN);
    EXPECT_EQ(changes(window("2028-02-29 00:00", "2028-03-01 00:00"), 0, at("2100-01-01 00:00", 1), zone),
              (Texts{"+2028-02-29T00:00:00+01:00", "-2028-03-01T00:00:00+01:00"}));
    // 2027-12-31 is a Friday.
    EXPECT_EQ(changes(periodic("fri", "23:00", "01:00"), at("2027-12-31 12:00", 1), at("2028-01-01 12:00", 1), zone),
              (Texts{"+2027-12-31T23:00:00+01:00", "-2028-01-01T01:00:00+01:00"}));
    EXPECT_EQ(changes(periodic("tue", "00:00", "24:00"), at("2028-02-28 00:00", 1), at("2028-03-02 00:00", 1), zone),
              (Texts{"+2028-02-29T00:00:00+01:00", "-2028-03-01T00:00:00+01:00"}));
}

TEST(Schedule, InstantsBefore1970HaveTheirDayOfTheWeekToo) {
    PosixZone zone(timetest::UTC);
    EXPECT_TRUE(isActive(periodic("wed", "23:59:59", "24:00"), -1, zone)); // 1969-12-31
    EXPECT_EQ(nextChange(periodic("wed", "23:59:59", "24:00"), -1, zone), 0);
}

// ---- the clocks go forward: Berlin 2027-03-28, 02:00 is 03:00 ----

Texts forward(const Schedule &schedule) {
    PosixZone zone(timetest::BERLIN);
    return changes(schedule, at("2027-03-28 00:30", 1), at("2027-03-28 12:00", 2), zone);
}

TEST(ClocksForward, APeriodKeepsItsReadings) {
    EXPECT_EQ(forward(periodic("daily", "01:00", "04:00")),
              (Texts{"+2027-03-28T01:00:00+01:00", "-2027-03-28T04:00:00+02:00"})); // two hours long
}

TEST(ClocksForward, ABeginThatIsLeftOutIsTheChange) {
    EXPECT_EQ(forward(periodic("daily", "02:30", "03:30")),
              (Texts{"+2027-03-28T03:00:00+02:00", "-2027-03-28T03:30:00+02:00"}));
    EXPECT_EQ(forward(window("2027-03-28 02:30", "2027-03-28 03:30")),
              (Texts{"+2027-03-28T03:00:00+02:00", "-2027-03-28T03:30:00+02:00"}));
}

TEST(ClocksForward, AnEndThatIsLeftOutIsTheChange) {
    EXPECT_EQ(forward(periodic("daily", "01:30", "02:30")),
              (Texts{"+2027-03-28T01:30:00+01:00", "-2027-03-28T03:00:00+02:00"}));
    EXPECT_EQ(forward(window("2027-03-28 01:30", "2027-03-28 02:30")),
              (Texts{"+2027-03-28T01:30:00+01:00", "-2027-03-28T03:00:00+02:00"}));
}

TEST(ClocksForward, APeriodThatIsLeftOutDoesNotCome) {
    EXPECT_EQ(forward(periodic("daily", "02:10", "02:50")), Texts{});
    EXPECT_EQ(forward(window("2027-03-28 02:10", "2027-03-28 02:50")), Texts{});
    PosixZone zone(timetest::BERLIN);
    EXPECT_EQ(nextChange(periodic("sun", "02:10", "02:50"), at("2027-03-27 12:00", 1), zone),
              at("2027-04-04 02:10", 2));
}

// ---- the clocks go back: Berlin 2027-10-31, 03:00 is 02:00 ----

Texts back(const Schedule &schedule) {
    PosixZone zone(timetest::BERLIN);
    return changes(schedule, at("2027-10-31 00:30", 2), at("2027-10-31 12:00", 1), zone);
}

TEST(ClocksBack, APeriodKeepsItsReadings) {
    EXPECT_EQ(back(periodic("daily", "01:00", "04:00")),
              (Texts{"+2027-10-31T01:00:00+02:00", "-2027-10-31T04:00:00+01:00"})); // four hours long
    EXPECT_EQ(back(periodic("daily", "02:00", "03:00")),
              (Texts{"+2027-10-31T02:00:00+02:00", "-2027-10-31T03:00:00+01:00"})); // both times, two hours
}

TEST(ClocksBack, APeriodWithinTheTimeThatComesTwiceHoldsTwice) {
    EXPECT_EQ(back(periodic("daily", "02:10", "02:50")),
              (Texts{"+2027-10-31T02:10:00+02:00", "-2027-10-31T02:50:00+02:00", "+2027-10-31T02:10:00+01:00",
                     "-2027-10-31T02:50:00+01:00"}));
    EXPECT_EQ(back(periodic("daily", "01:30", "02:30")),
              (Texts{"+2027-10-31T01:30:00+02:00", "-2027-10-31T02:30:00+02:00", "+2027-10-31T02:00:00+01:00",
                     "-2027-10-31T02:30:00+01:00"}));
    EXPECT_EQ(back(periodic("daily", "02:30", "03:30")),
              (Texts{"+2027-10-31T02:30:00+02:00", "-2027-10-31T02:00:00+01:00", "+2027-10-31T02:30:00+01:00",
                     "-2027-10-31T03:30:00+01:00"}));
}

TEST(ClocksBack, AWindowIsOneStretchAroundAllThatItNames) {
    EXPECT_EQ(back(window("2027-10-31 02:10", "2027-10-31 02:50")),
              (Texts{"+2027-10-31T02:10:00+02:00", "-2027-10-31T02:50:00+01:00"}));
    EXPECT_EQ(back(window("2027-10-31 01:30", "2027-10-31 02:30")),
              (Texts{"+2027-10-31T01:30:00+02:00", "-2027-10-31T02:30:00+01:00"}));
    EXPECT_EQ(back(window("2027-10-31 02:30", "2027-10-31 03:30")),
              (Texts{"+2027-10-31T02:30:00+02:00", "-2027-10-31T03:30:00+01:00"}));
    EXPECT_EQ(back(window("2027-10-31 03:00", "2027-10-31 04:00")),
              (Texts{"+2027-10-31T03:00:00+01:00", "-2027-10-31T04:00:00+01:00"}));
}

TEST(ClocksBack, HalfAnHourIsEnough) {
    PosixZone zone(timetest::LORD_HOWE); // 2027-04-04, 02:00 is 01:30
    EXPECT_EQ(changes(periodic("sun", "01:40", "01:50"), at("2027-04-04 00:00", 11), at("2027-04-04 12:00", 10.5), zone),
              (Texts{"+2027-04-04T01:40:00+11:00", "-2027-04-04T01:50:00+11:00", "+2027-04-04T01:40:00+10:30",
                     "-2027-04-04T01:50:00+10:30"}));
    // 2027-10-03, 02:00 is 02:30
    EXPECT_EQ(changes(periodic("sun", "02:10", "02:40"), at("2027-10-03 00:00", 10.5), at("2027-10-03 12:00", 11), zone),
              (Texts{"+2027-10-03T02:30:00+11:00", "-2027-10-03T02:40:00+11:00"}));
}

TEST(ClocksBack, ADayMayBeginTwiceOrLate) {
    PosixZone zone(timetest::HAVANA); // 2027-03-14, 00:00 is 01:00; 2027-11-07, 01:00 is 00:00
    EXPECT_EQ(changes(periodic("sun", "00:00", "24:00"), at("2027-03-13 12:00", -5), at("2027-03-15 12:00", -4), zone),
              (Texts{"+2027-03-14T01:00:00-04:00", "-2027-03-15T00:00:00-04:00"}));
    EXPECT_EQ(changes(periodic("sun", "00:00", "24:00"), at("2027-11-06 12:00", -4), at("2027-11-08 12:00", -5), zone),
              (Texts{"+2027-11-07T00:00:00-04:00", "-2027-11-08T00:00:00-05:00"}));
}

// A zone that leaves out a whole day: it moves over the date line.
class DateLineZone : public TimeZone {
public:
    int32_t offsetAt(int64_t instant) const override { return instant < at("2011-12-30 00:00", -10) ? -36000 : 50400; }
};

TEST(ClocksForward, ADayMayBeLeftOut) {
    const DateLineZone zone; // 2011-12-30, a Friday
    EXPECT_EQ(changes(periodic("fri", "08:00", "09:00"), at("2011-12-28 00:00", -10), at("2012-01-07 00:00", 14), zone),
              (Texts{"+2012-01-06T08:00:00+14:00", "-2012-01-06T09:00:00+14:00"}));
    EXPECT_EQ(changes(window("2011-12-29 12:00", "2011-12-30 12:00"), 0, at("2012-01-07 00:00", 14), zone),
              (Texts{"+2011-12-29T12:00:00-10:00", "-2011-12-31T00:00:00+14:00"}));
}

// ---- nextChange is what a scan of isActive finds ----

Schedule randomSchedule(std::mt19937 &random) {
    Schedule schedule;
    const auto minuteOfDay = [&random] { return static_cast<uint32_t>(random() % 1440 * 60); };
    for (unsigned n = random() % 3; n > 0; n--) {
        schedule.periods.push_back({static_cast<uint8_t>(1 + random() % 127), minuteOfDay(), minuteOfDay()});
    }
    const int64_t origin = localTimeRead("2027-01-01 00:00");
    if (random() % 3 == 0 || schedule.periods.empty()) {
        schedule.start = origin + static_cast<int64_t>(random() % (300 * 1440)) * MINUTE;
    }
    if (random() % 3 == 0) {
        schedule.end = schedule.start.value_or(origin) + static_cast<int64_t>(1 + random() % (200 * 1440)) * MINUTE;
    }
    return schedule;
}

// Walks from change to change and compares with every minute between.
void compareWithScan(const Schedule &schedule, int64_t from, int64_t until, const TimeZone &zone) {
    auto next = nextChange(schedule, from, zone);
    bool active = isActive(schedule, from, zone);
    for (int64_t minute = from + MINUTE; minute < until; minute += MINUTE) {
        const bool now = isActive(schedule, minute, zone);
        const bool isDue = next == minute;
        ASSERT_EQ(isDue, now != active) << isoText(minute, zone) << ": " << scheduleText(schedule);
        if (isDue) {
            next = nextChange(schedule, minute, zone);
            ASSERT_TRUE(!next || *next > minute);
        }
        active = now;
    }
}

class Zones : public testing::TestWithParam<const char *> {};

TEST_P(Zones, TheWalkFindsEveryChangeOfTwoYears) {
    PosixZone zone(GetParam());
    const int64_t from = localTimeRead("2027-01-01 00:00");
    const int64_t until = localTimeRead("2029-01-01 00:00"); // a leap year among them
    compareWithScan(periodic("daily", "02:30", "03:30"), from, until, zone);
    Schedule nights = periodic("mon-fri", "22:00", "01:45");
    nights.periods.push_back(period("weekend", "01:40", "02:20"));
    compareWithScan(nights, from, until, zone);
}

TEST_P(Zones, TheWalkFindsEveryChangeOfRandomSchedules) {
    PosixZone zone(GetParam());
    std::mt19937 random{7};
    for (int n = 0; n < 8; n++) {
        compareWithScan(randomSchedule(random), localTimeRead("2027-01-01 00:00"), localTimeRead("2027-12-01 00:00"),
                        zone);
    }
}

TEST_P(Zones, WindowsAroundEachChangeOfTheClocksAreOneStretch) {
    PosixZone zone(GetParam());
    int32_t offset = zone.offsetAt(at("2027-01-01 00:00", 0));
    for (int64_t instant = at("2027-01-01 00:00", 0); instant < at("2028-01-01 00:00", 0); instant += 900) {
        if (zone.offsetAt(instant) == offset) {
            continue;
        }
        offset = zone.offsetAt(instant);
        // Every window with edges on the quarters around the change.
        for (int64_t start = -8; start <= 8; start++) {
            for (int64_t end = start + 1; end <= 9; end++) {
                Schedule schedule;
                schedule.start = instant + offset + start * 900;
                schedule.end = instant + offset + end * 900;
                compareWithScan(schedule, instant - 6 * HOUR, instant + 6 * HOUR, zone);
                ASSERT_LE(changes(schedule, instant - 6 * HOUR, instant + 6 * HOUR, zone).size(), 2u);
                // Whenever the wall clock reads a time within the window, the window holds.
                for (int64_t minute = instant - 6 * HOUR; minute < instant + 6 * HOUR; minute += MINUTE) {
                    const int64_t local = minute + zone.offsetAt(minute);
                    if (local >= *schedule.start && local < *schedule.end) {
                        ASSERT_TRUE(isActive(schedule, minute, zone)) << isoText(minute, zone);
                    }
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Zones,
                         testing::Values(timetest::UTC, timetest::BERLIN, timetest::NEW_YORK, timetest::LORD_HOWE,
                                         timetest::HAVANA));

} // namespace
