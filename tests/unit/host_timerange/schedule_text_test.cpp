// The words of a schedule: what is read, what is refused, and how it is written.
#include <gtest/gtest.h>

#include "host/timerange/schedule_json.h"
#include "tests/unit/host_timerange/posix_zone.h"

namespace {

using namespace host;
using nlohmann::json;

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
              "time \"24:00\": give HH:MM or HH:MM:SS, 00:00 to 23:59:59");
}

TEST(LocalTime, IsADateAndATime) {
    EXPECT_EQ(localTimeRead("1970-01-01 00:00"), 0);
    EXPECT_EQ(localTimeRead("2028-02-29 12:00:01"), 1835438401);
    EXPECT_EQ(localTimeText(1835438401), "2028-02-29 12:00:01");
    EXPECT_EQ(localTimeText(localTimeRead("9999-12-31 23:59")), "9999-12-31 23:59");
}

TEST(LocalTime, OtherTextsAreRefused) {
    for (const char *pText : {"", "2026-12-24", "2026-12-24 ", "2026-12-24 24:00", "2026-12-24T18:00", "26-12-24 18:00",
                              "2026-13-01 00:00", "2026-00-01 00:00", "2027-02-29 00:00", "2026-04-31 00:00",
                              "2026-1-1 00:00", "1969-12-31 23:59", "2026-12-24 18:00Z", "10000-01-01 00:00"}) {
        EXPECT_NE(refusal([&] { (void)localTimeRead(pText); }), "") << pText;
    }
    EXPECT_EQ(refusal([] { (void)localTimeRead("2027-02-29 08:00"); }),
              "date and time \"2027-02-29 08:00\": there is no such day");
}

TEST(ScheduleMembers, AreReadAndWrittenAgain) {
    const std::pair<const char *, const char *> rows[] = {
        {R"({"days": "mon-fri", "from": "08:00", "to": "18:00"})", "mon-fri 08:00-18:00"},
        {R"({"days": "sat"})", "sat 00:00-24:00"},
        {R"({"days": ["mon", "wed-fri"]})", "mon,wed-fri 00:00-24:00"},
        {R"({"to": "06:00:30"})", "daily 00:00-06:00:30"},
        {R"({"start": "2026-12-24 00:00"})", "from 2026-12-24 00:00"},
        {R"({"end": "2026-12-24 00:00"})", "until 2026-12-24 00:00"},
        {R"({"periods": [{"days": "sun"}, {"from": "22:00", "to": "06:00"}], "start": "2026-12-24 00:00",
             "end": "2027-01-02 00:00"})",
         "sun 00:00-24:00; daily 22:00-06:00; from 2026-12-24 00:00 until 2027-01-02 00:00"},
    };
    for (const auto &[pMembers, pText] : rows) {
        const Schedule schedule = scheduleRead(json::parse(pMembers));
        EXPECT_EQ(scheduleText(schedule), pText);
        EXPECT_EQ(scheduleRead(scheduleMembers(schedule)), schedule) << pText;
    }
}

TEST(ScheduleMembers, WrongOnesAreRefusedWithAReason) {
    const std::pair<const char *, const char *> rows[] = {
        {R"({})", "a time range needs days, from, to, start, end or periods"},
        {R"({"days": 5})", "member \"days\" must be a text such as \"mon-fri\", or a list of such texts"},
        {R"({"days": []})", "member \"days\" must be a text such as \"mon-fri\", or a list of such texts"},
        {R"({"days": ["mon", 2]})", "member \"days\" must be a text such as \"mon-fri\", or a list of such texts"},
        {R"({"from": 800})", "member \"from\" must be a text"},
        {R"({"from": "24:00"})", "time \"24:00\": give HH:MM or HH:MM:SS, 00:00 to 23:59:59"},
        {R"({"periods": [{"days": "mon"}], "to": "06:00"})", "give either \"periods\" or days, from and to"},
        {R"({"periods": []})", "member \"periods\" must be a list of 1 to 64 objects with days, from, to"},
        {R"({"periods": [{}]})", "each of \"periods\" must be an object with days, from or to"},
        {R"({"periods": [{"day": "mon"}]})", "unknown member \"day\"; this operation takes days, from, to"},
        {R"({"start": "2026-12-24 00:00", "end": "2026-12-24 00:00"})",
         "end 2026-12-24 00:00 is not after start 2026-12-24 00:00"},
    };
    for (const auto &[pMembers, pReason] : rows) {
        EXPECT_EQ(refusal([&, pText = pMembers] { (void)scheduleRead(json::parse(pText)); }), pReason) << pMembers;
    }
}

TEST(IsoTime, HasTheOffsetOfThatMoment) {
    {
        const timetest::PosixZone berlin(timetest::BERLIN);
        EXPECT_EQ(isoText(timetest::at("2027-07-01 08:00", 2), berlin), "2027-07-01T08:00:00+02:00");
        EXPECT_EQ(isoText(timetest::at("2027-12-01 08:00:09", 1), berlin), "2027-12-01T08:00:09+01:00");
    }
    const timetest::PosixZone island("<-0330>3:30");
    EXPECT_EQ(isoText(0, island), "1969-12-31T20:30:00-03:30");
}

} // namespace
