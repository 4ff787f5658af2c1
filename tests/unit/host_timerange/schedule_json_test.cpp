// A schedule as members of a management request and answer, and the instants that reports show.
#include <gtest/gtest.h>

#include "host/timerange/iso_text.h"
#include "host/timerange/schedule_json.h"
#include "schedule/schedule_text.h"
#include "tests/unit/host_timerange/posix_zone.h"

namespace {

using namespace host;
using nlohmann::json;
using schedule::scheduleText;

template <typename Call> std::string refusal(Call call) {
    try {
        call();
    } catch (const std::runtime_error &wrong) {
        return wrong.what();
    }
    return "";
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
        {R"({"from": "24:00"})", "from \"24:00\": give HH:MM or HH:MM:SS, 00:00 to 23:59:59"},
        {R"({"periods": [{"days": "mon"}], "to": "06:00"})", "give either \"periods\" or days, from and to"},
        {R"({"periods": []})", "member \"periods\" must be a list of 1 to 64 objects with days, from, to"},
        {R"({"periods": [{}]})", "each of \"periods\" must be an object with days, from or to"},
        {R"({"periods": [{"day": "mon"}]})", "unknown member \"day\"; this operation takes days, from, to"},
        {R"({"start": "2026-12-24 00:00", "end": "2026-12-24 00:00"})",
         "end 2026-12-24 00:00 is not after start 2026-12-24 00:00"},
        {R"({"end": "2027-02-29 08:00"})", "end \"2027-02-29 08:00\": there is no such day"},
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
