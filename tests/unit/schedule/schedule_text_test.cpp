// The words of a schedule: what is read, what is refused, and how it is written.
#include <gtest/gtest.h>

#include <stdexcept>

#include "schedule/schedule_text.h"

namespace {

using namespace schedule;

template <typename Call> std::string refusal(Call call) {
    try {
        call();
    } catch (const std::runtime_error &wrong) {
        return wrong.what();
    }
    return "";
}

TEST(Days, AreDaysRangesAndWords) {
    EXPECT_EQ(daysRead("mon"), 0x01);
    EXPECT_EQ(daysRead("sun"), 0x40);
    EXPECT_EQ(daysRead("mon-fri"), 0x1F);
    EXPECT_EQ(daysRead("Mon, WED ,sat-sun"), 0x65);
    EXPECT_EQ(daysRead("fri-mon"), 0x71); // over the end of the week
    EXPECT_EQ(daysRead("tue-tue"), 0x02);
    EXPECT_EQ(daysRead("weekend"), 0x60);
    EXPECT_EQ(daysRead("weekdays,sat"), 0x3F);
    EXPECT_EQ(daysRead("daily"), 0x7F);
    EXPECT_EQ(daysRead("tue-mon"), 0x7F);
}

TEST(Days, OtherWordsAreRefused) {
    for (const char *pText : {"", "monday", "mon-", "-fri", "mon--fri", "mon,", ",mon", "mon-fri-sun", "0", "daily-mon"}) {
        EXPECT_NE(refusal([&] { (void)daysRead(pText); }), "") << pText;
    }
    EXPECT_EQ(refusal([] { (void)daysRead("mo"); }),
              "days \"mo\": give days (mon tue wed thu fri sat sun) or ranges such as mon-fri, separated by commas; "
              "or daily, weekdays, weekend");
}

TEST(Days, EverySetIsReadAgainAsItWasWritten) {
    for (unsigned days = 1; days < 128; days++) {
        EXPECT_EQ(daysRead(daysText(static_cast<uint8_t>(days))), days) << daysText(static_cast<uint8_t>(days));
    }
    EXPECT_EQ(daysText(0x1F), "mon-fri");
    EXPECT_EQ(daysText(0x63), "mon,tue,sat,sun");
}

TEST(TimeOfDay, HasHoursMinutesAndPerhapsSeconds) {
    EXPECT_EQ(timeOfDayRead("00:00", false), 0u);
    EXPECT_EQ(timeOfDayRead("8:05", false), 29100u);
    EXPECT_EQ(timeOfDayRead("23:59:59", false), 86399u);
    EXPECT_EQ(timeOfDayRead("24:00", true), 86400u);
    EXPECT_EQ(timeOfDayText(29100), "08:05");
    EXPECT_EQ(timeOfDayText(86399), "23:59:59");
    EXPECT_EQ(timeOfDayText(86400), "24:00");
}

TEST(TimeOfDay, OtherTextsAreRefused) {
    for (const char *pText : {"", "8", "08", "08:", "08:0", "08:60", "08:00:", "08:00:60", "08:00:0", "24:01", "25:00",
                              "24:00:01", "008:00", "08:00 ", " 08:00", "-1:00", "08:00:00:00", "08.00"}) {
        EXPECT_NE(refusal([&] { (void)timeOfDayRead(pText, true); }), "") << pText;
    }
    EXPECT_EQ(refusal([] { (void)timeOfDayRead("24:00", false); }),
              "from \"24:00\": give HH:MM or HH:MM:SS, 00:00 to 23:59:59");
}

TEST(LocalTime, IsADateAndATime) {
    EXPECT_EQ(localTimeRead("1970-01-01 00:00"), 0);
    EXPECT_EQ(localTimeRead("2028-02-29 12:00:01"), 1835438401);
    EXPECT_EQ(localTimeRead("2028-02-29T12:00:01"), 1835438401);
    EXPECT_EQ(localTimeRead("1970-01-02"), 86400); // its first moment
    EXPECT_EQ(localTimeText(1835438401), "2028-02-29 12:00:01");
    EXPECT_EQ(localTimeText(localTimeRead("9999-12-31 23:59")), "9999-12-31 23:59");
}

TEST(LocalTime, OtherTextsAreRefused) {
    for (const char *pText : {"", "2026-12", "2026-12-24 ", "2026-12-24T", "2026-12-24 24:00", "2026-12-24t18:00", "26-12-24 18:00",
                              "2026-13-01 00:00", "2026-00-01 00:00", "2027-02-29 00:00", "2026-04-31 00:00",
                              "2026-1-1 00:00", "1969-12-31 23:59", "2026-12-24 18:00Z", "10000-01-01 00:00"}) {
        EXPECT_NE(refusal([&] { (void)localTimeRead(pText); }), "") << pText;
    }
    EXPECT_EQ(refusal([] { (void)localTimeRead("2027-02-29 08:00"); }),
              "date and time \"2027-02-29 08:00\": there is no such day");
    EXPECT_EQ(refusal([] { (void)localTimeRead("soon", "start"); }),
              "start \"soon\": give YYYY-MM-DD, \"YYYY-MM-DD HH:MM\" or \"YYYY-MM-DD HH:MM:SS\", local time, years "
              "1970 to 9999");
}

TEST(ScheduleText, NamesPeriodsAndWindow) {
    const int64_t start = localTimeRead("2026-12-24"), end = localTimeRead("2027-01-01 08:00");
    const TimePeriod week{0x1F, 28800, 64800}, sunday{0x40, 0, 86400};
    EXPECT_EQ(scheduleText({{week, sunday}, start, end}),
              "mon-fri 08:00-18:00; sun 00:00-24:00; from 2026-12-24 00:00 until 2027-01-01 08:00");
    EXPECT_EQ(scheduleText({{}, start, std::nullopt}), "from 2026-12-24 00:00");
    EXPECT_EQ(scheduleText({{}, std::nullopt, end}), "until 2027-01-01 08:00");
}

TEST(Window, EndsAfterItsStart) {
    const int64_t start = localTimeRead("2026-12-24");
    EXPECT_EQ(refusal([&] { windowCheck({{}, start, start + 1}); }), "");
    EXPECT_EQ(refusal([&] { windowCheck({{}, start, start}); }), "end 2026-12-24 00:00 is not after start 2026-12-24 00:00");
}

} // namespace
