// The operations of time ranges over the management socket, and the daemon's two calls.
#include <gtest/gtest.h>

#include "host/timerange/timerange_service.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;
using nlohmann::json;

uint32_t nothing(void *) { return 0; }

class TimerangeOperations : public testing::Test {
protected:
    static void SetUpTestSuite() {
        timerangeMgmtRegister();
        ASSERT_EQ(hosttest::mgmtOpen(), "");
    }
    void SetUp() override {
        ASSERT_TRUE(client.isConnected());
        for (const TimerangeRow &row : timerangeService().rows()) {
            for (const std::string &name : row.names) {
                timerangeService().unbind(row.id, name);
            }
            timerangeService().set(row.id, std::nullopt);
        }
        ASSERT_EQ(timerangeService().replaceAll({}, true), "");
    }

    void ok(const json &request) { EXPECT_EQ(client.call(request), (json{{"ok", true}})) << request; }
    std::string errorOf(const json &request) {
        const json answer = client.call(request);
        EXPECT_FALSE(answer.value("ok", true)) << request << answer;
        return answer.value("error", "");
    }
    json ranges() { return client.call({{"op", "timeranges"}})["timeRanges"]; }
    static void bind(uint32_t id, const char *pName) {
        timerangeService().bind(id, pName, {nothing, nothing, nothing}, {1});
    }

    hosttest::Client client{hosttest::root() + "/tmp/policyroutemgmt.socket"};
};

TEST_F(TimerangeOperations, ARangeIsSwitchedByHandAndListed) {
    bind(7, "pbrwan-10");
    EXPECT_EQ(ranges(), json::parse(R"([{"id": 7, "active": false, "override": null, "text": "", "schedule": null,
                                         "nextChange": null, "bindings": ["pbrwan-10"]}])"));
    ok({{"op", "timerange.set"}, {"id", 7}, {"active", true}});
    EXPECT_EQ(ranges()[0]["active"], true);
    EXPECT_EQ(ranges()[0]["override"], "on");
    ok({{"op", "timerange.set"}, {"id", 7}, {"active", false}});
    EXPECT_EQ(ranges()[0]["override"], "off");
    ok({{"op", "timerange.set"}, {"id", 7}, {"active", "auto"}});
    EXPECT_EQ(ranges()[0]["override"], json());
}

TEST_F(TimerangeOperations, ADefinedRangeIsListedWithItsSchedule) {
    ok({{"op", "timerange.define"}, {"id", 7}, {"days", "mon-fri"}, {"from", "08:00"}, {"to", "18:00"},
        {"start", "2100-01-01 00:00"}});
    EXPECT_EQ(ranges()[0]["text"], "mon-fri 08:00-18:00; from 2100-01-01 00:00");
    EXPECT_EQ(ranges()[0]["schedule"],
              json::parse(R"({"days": "mon-fri", "from": "08:00", "to": "18:00", "start": "2100-01-01 00:00"})"));
    EXPECT_EQ(ranges()[0]["active"], false);
    EXPECT_EQ(ranges()[0]["nextChange"].get<std::string>().substr(0, 19), "2100-01-01T08:00:00"); // a Friday

    ok({{"op", "timerange.define"}, {"id", 7}, {"end", "2100-01-01 00:00"}});
    EXPECT_EQ(ranges()[0]["text"], "until 2100-01-01 00:00");
    EXPECT_EQ(ranges()[0]["active"], true);
    ok({{"op", "timerange.remove"}, {"id", 7}});
    EXPECT_EQ(ranges(), json::array());
}

TEST_F(TimerangeOperations, TheListTellsTheServicesTime) {
    const std::string now = client.call({{"op", "timeranges"}})["now"];
    EXPECT_EQ(now.size(), std::string("2026-11-21T18:00:00+01:00").size()) << now;
    EXPECT_EQ(now[10], 'T');
}

TEST_F(TimerangeOperations, AllRangesAreReplacedAtOnce) {
    ok({{"op", "timerange.define"}, {"id", 6}, {"days", "sat"}});
    const json members = json::parse(R"({"7": {"days": "daily"}, "4294967294": {"from": "22:00", "to": "06:00"}})");
    ok({{"op", "timerange.replaceAll"}, {"timeRanges", members}});
    ASSERT_EQ(ranges().size(), 2u);
    EXPECT_EQ(ranges()[0]["id"], 7);
    EXPECT_EQ(ranges()[0]["active"], true);
    EXPECT_EQ(ranges()[1]["id"], 4294967294u);

    // What it lists makes the same again.
    json same = json::object();
    for (const json &row : ranges()) {
        same[std::to_string(row["id"].get<uint32_t>())] = row["schedule"];
    }
    const json before = ranges();
    ok({{"op", "timerange.replaceAll"}, {"timeRanges", same}});
    EXPECT_EQ(ranges(), before);
}

TEST_F(TimerangeOperations, OneWrongRangeRefusesAll) {
    ok({{"op", "timerange.define"}, {"id", 6}, {"days", "sat"}});
    const json before = ranges();
    const std::pair<const char *, const char *> rows[] = {
        {R"({"7": {"days": "sun"}, "8": {"days": "someday"}})",
         "time range 8: days \"someday\": give days (mon tue wed thu fri sat sun) or ranges such as mon-fri, separated "
         "by commas; or daily, weekdays, weekend"},
        {R"({"0": {"days": "sun"}})", "time range \"0\" must be a whole number 1 to 4294967294"},
        {R"({"7": {"day": "sun"}})",
         "time range 7: unknown member \"day\"; this operation takes days, from, to, start, end, periods"},
        {R"({"7": {"id": 7, "days": "sun"}})",
         "time range 7: unknown member \"id\"; this operation takes days, from, to, start, end, periods"},
        {R"({"7": "daily"})", "time range 7: member \"7\" must be an object"},
        {R"({"7": {}})", "time range 7: a time range needs days, from, to, start, end or periods"},
    };
    for (const auto &[pMembers, pReason] : rows) {
        EXPECT_EQ(errorOf({{"op", "timerange.replaceAll"}, {"timeRanges", json::parse(pMembers)}}), pReason);
        EXPECT_EQ(ranges(), before);
    }
}

TEST_F(TimerangeOperations, ARangeInUseGoesByForceOnly) {
    ok({{"op", "timerange.define"}, {"id", 7}, {"days", "daily"}});
    bind(7, "pbrwan-10");
    const std::string why = ": these nodes would not act any more. Take it off them first, or force its removal";
    EXPECT_EQ(errorOf({{"op", "timerange.remove"}, {"id", 7}}), "time range 7 is used by pbrwan-10" + why);
    EXPECT_EQ(errorOf({{"op", "timerange.replaceAll"}, {"timeRanges", json::object()}}),
              "time range 7 is not among the new ones, and is used by pbrwan-10" + why);
    EXPECT_EQ(ranges()[0]["active"], true);
    ok({{"op", "timerange.remove"}, {"id", 7}, {"force", true}});
    EXPECT_EQ(ranges()[0]["active"], false);
    EXPECT_EQ(ranges()[0]["schedule"], json());
}

TEST_F(TimerangeOperations, WrongArgumentsAreRefused) {
    EXPECT_EQ(errorOf({{"op", "timerange.set"}, {"id", 7}}),
              "member \"active\" is missing: it must be true, false or \"auto\"");
    EXPECT_EQ(errorOf({{"op", "timerange.set"}, {"id", 7}, {"active", 1}}),
              "member \"active\" must be true, false or \"auto\"");
    for (const json &request : {json{{"op", "timerange.set"}, {"id", 4294967295u}, {"active", true}},
                                json{{"op", "timerange.define"}, {"id", 0}, {"days", "mon"}},
                                json{{"op", "timerange.remove"}, {"id", "7"}}}) {
        EXPECT_EQ(errorOf(request), "member \"id\" must be a whole number 1 to 4294967294");
    }
    EXPECT_EQ(errorOf({{"op", "timerange.define"}, {"id", 7}, {"day", "mon"}}),
              "unknown member \"day\"; this operation takes id, days, from, to, start, end, periods");
    EXPECT_EQ(errorOf({{"op", "timerange.define"}, {"id", 7}}),
              "a time range needs days, from, to, start, end or periods");
    EXPECT_EQ(errorOf({{"op", "timerange.remove"}, {"id", 7}}), "time range 7 is not defined");
    EXPECT_EQ(ranges(), json::array());
}

} // namespace
