// Tests of cli/policy_file_services.cpp and the values behind it: probes and time ranges of a file.
#include <gtest/gtest.h>

#include "cli/policy_file.h"
#include "schedule/schedule_text.h"
#include "tests/unit/cli/lines.h"

using namespace cli;
using schedule::localTimeRead;

namespace {

PolicyFile withProbe(const std::string &probe) {
    return policyFileRead("p.yaml", "lists: {}\nprobes:\n  ops/a: {" + probe + "}\n");
}
PolicyFile withRange(const std::string &range) {
    return policyFileRead("p.yaml", "lists: {}\ntime-ranges:\n  7: {" + range + "}\n");
}

Probe probe(const std::string &text) {
    const PolicyFile file = withProbe(text);
    EXPECT_TRUE(file.problems.empty()) << text << "\n" << all(file.problems);
    return file.policy.probes.at("ops/a");
}
Schedule range(const std::string &text) {
    const PolicyFile file = withRange(text);
    EXPECT_TRUE(file.problems.empty()) << text << "\n" << all(file.problems);
    return file.policy.timeRanges.at(7);
}

// The only entry stands on line 3.
void expectRefused(const PolicyFile &file, const std::string &expected) {
    for (const std::string &problem : file.problems) {
        if (problem.rfind("p.yaml:3: ", 0) == 0 && problem.find(expected) != std::string::npos) {
            return;
        }
    }
    ADD_FAILURE() << "expected ..." << expected << "... in\n" << all(file.problems);
}

TEST(PolicyProbe, EveryKindHasItsDefaults) {
    const Probe icmp = probe("icmp: 198.51.100.1");
    EXPECT_EQ(icmp, (Probe{"icmp", "198.51.100.1"}));
    EXPECT_EQ(icmp.intervalMs, 1000u);
    EXPECT_EQ(icmp.timeoutMs, 500u);
    EXPECT_EQ(icmp.downAfter, 3u);
    EXPECT_EQ(icmp.upAfter, 1u);
    EXPECT_EQ(probe("tcp: \"2001:DB8::0:1\", port: 53").target, "2001:db8::1");
    const Probe http = probe("http: 198.51.100.1");
    EXPECT_EQ(http.port, 80u);
    EXPECT_EQ(http.path, "/");
}

TEST(PolicyProbe, EveryKeyIsRead) {
    const Probe read = probe("http: 198.51.100.1, port: 8080, path: /alive, host: www.example.org, source: 10.0.0.1, "
                             "interface: wan0, vrf: 10, via: 192.0.2.1, interval: 2m, timeout: 1s, down-after: 5, "
                             "up-after: 2");
    Probe expected{"http", "198.51.100.1", 8080, "/alive", "www.example.org", "10.0.0.1", "wan0", 10, "192.0.2.1",
                   120000, 1000, 5, 2};
    EXPECT_EQ(read, expected);
    EXPECT_EQ(probeOfJson(probeJson(expected)), expected);
    EXPECT_EQ(probeOfJson(probeJson(probe("icmp: \"2001:db8::1\""))), probe("icmp: \"2001:db8::1\""));
}

TEST(PolicyProbe, AShortIntervalShortensTheTimeoutThatNobodyGave) {
    EXPECT_EQ(probe("icmp: 198.51.100.1, interval: 50ms").timeoutMs, 50u);
}

TEST(PolicyProbe, DurationsHaveAUnit) {
    EXPECT_EQ(durationRead("50ms"), 50u);
    EXPECT_EQ(durationRead("1s"), 1000u);
    EXPECT_EQ(durationRead("2m"), 120000u);
    for (const char *pWrong : {"", "50", "ms", "-1s", "1 s", "1h", "0.5s", "71583m", "99999999999999999999ms"}) {
        EXPECT_EQ(durationRead(pWrong), std::nullopt) << pWrong;
    }
    for (const uint32_t milliseconds : {0u, 1u, 50u, 1000u, 1500u, 60000u, 90000u, 3600000u}) {
        EXPECT_EQ(durationRead(durationWrite(milliseconds)), milliseconds);
    }
}

TEST(PolicyProbe, WhatCannotBeRunIsRefused) {
    expectRefused(withProbe("interval: 1s"), "it has nothing to do");
    expectRefused(withProbe("icmp: 198.51.100.1, tcp: 198.51.100.1"), "this one is icmp already");
    expectRefused(withProbe("icmp: www.example.org"), "is no address of a host");
    expectRefused(withProbe("icmp: 224.0.0.1"), "is no address of a host");
    expectRefused(withProbe("tcp: 198.51.100.1"), "tcp needs a port");
    expectRefused(withProbe("icmp: 198.51.100.1, port: 7"), "icmp has no port");
    expectRefused(withProbe("tcp: 198.51.100.1, port: 65536"), "port must be a number 1..65535");
    expectRefused(withProbe("icmp: 198.51.100.1, path: /"), "path and host are for http");
    expectRefused(withProbe("http: 198.51.100.1, path: alive"), "path must begin with /");
    expectRefused(withProbe("http: 198.51.100.1, path: \"/a b\""), "without spaces");
    expectRefused(withProbe("icmp: 198.51.100.1, interval: 49ms"), "no duration from 50ms to 60m");
    expectRefused(withProbe("icmp: 198.51.100.1, interval: 1000"), "no duration");
    expectRefused(withProbe("icmp: 198.51.100.1, timeout: 2s"), "timeout 2s is longer than the interval 1s");
    expectRefused(withProbe("icmp: 198.51.100.1, down-after: 0"), "down-after must be a number 1..1000");
    expectRefused(withProbe("icmp: 198.51.100.1, source: \"2001:db8::1\""), "of another IP version");
    expectRefused(withProbe("icmp: 198.51.100.1, via: \"2001:db8::1\""), "of another IP version");
    expectRefused(withProbe("icmp: \"fe80::1\""), "a link-local address needs an interface");
    expectRefused(withProbe("icmp: 198.51.100.1, retries: 3"), "unknown key 'retries'");
}

// A file with a probe via its next hop, on line 5, and these nodes.
PolicyFile guarding(const std::string &nodes) {
    return policyFileRead("p.yaml", "acls:\n  1501: {10: permit ip}\n  1502: {10: permit ip}\nprobes:\n"
                                    "  ops/a: {icmp: 198.51.100.9, via: next-hop}\nlists:\n  wan:\n" + nodes);
}

TEST(PolicyProbe, ViaNextHopIsTheOneThatNamesTheProbe) {
    const PolicyFile file = guarding("    10: {acl: 1501, vrf: 3, next-hops: [192.0.2.5, {address: 192.0.2.1, probe: ops/a}]}\n"
                                     "    20: {acl: 1502, vrf: 3, next-hops: [{address: 192.0.2.1, probe: ops/a}]}\n");
    ASSERT_TRUE(file.problems.empty()) << all(file.problems);
    EXPECT_EQ(file.policy.probes.at("ops/a").via, "192.0.2.1");
    EXPECT_EQ(file.policy.probes.at("ops/a").vrf, 3u);
}

TEST(PolicyProbe, ViaNextHopNeedsExactlyOne) {
    const auto expect = [](const PolicyFile &file, const std::string &text) {
        EXPECT_NE(all(file.problems).find("p.yaml:5: probe ops/a: via: next-hop: " + text), std::string::npos)
            << all(file.problems);
    };
    expect(guarding("    10: {acl: 1501, next-hops: [192.0.2.5]}\n"), "no next hop names this probe");
    expect(guarding("    10: {acl: 1501, next-hops: [{address: 192.0.2.1, probe: ops/a}]}\n"
                    "    20: {acl: 1502, next-hops: [{address: 192.0.2.5, probe: ops/a}]}\n"),
           "next hops 192.0.2.1 (node wan/10) and 192.0.2.5 (node wan/20) name it");
    expect(guarding("    10: {acl: 1501, next-hops: [{address: 192.0.2.1, probe: ops/a}]}\n"
                    "    20: {acl: 1502, vrf: 3, next-hops: [{address: 192.0.2.1, probe: ops/a}]}\n"),
           "next hops 192.0.2.1 (node wan/10) and 192.0.2.1 (node wan/20) name it");
}

TEST(PolicyRange, KeysOfOnePeriodAndListsOfThem) {
    EXPECT_EQ(range("days: mon-fri, from: \"08:00\", to: 18:00:30"), (Schedule{{{0x1f, 28800, 64830}}, {}, {}}));
    EXPECT_EQ(range("days: [sat, sun-mon]"), (Schedule{{{0x61, 0, 86400}}, {}, {}}));
    EXPECT_EQ(range("from: \"22:00\", to: \"06:00\""), (Schedule{{{0x7f, 79200, 21600}}, {}, {}}));
    EXPECT_EQ(range("periods: [{days: mon, to: \"12:00\"}, {days: weekend}], start: 2027-01-01 00:00, end: 2027-12-31"),
              (Schedule{{{0x01, 0, 43200}, {0x60, 0, 86400}}, localTimeRead("2027-01-01"), localTimeRead("2027-12-31")}));
    EXPECT_EQ(range("start: 2028-02-29 08:00"), (Schedule{{}, localTimeRead("2028-02-29 08:00"), std::nullopt}));
}

TEST(PolicyRange, ItsSocketFormIsReadBack) {
    for (const char *pText : {"days: fri-mon", "from: \"08:00:01\"", "start: 2027-01-01 00:00:07",
                              "periods: [{days: mon}, {to: \"24:00\"}], end: 2027-01-01 00:00"}) {
        EXPECT_EQ(scheduleOfJson(scheduleJson(range(pText))), range(pText)) << pText;
    }
    EXPECT_EQ(scheduleOfJson({{"days", "mon-fri"}, {"from", "08:00"}, {"to", "18:00"}}),
              range("days: mon-fri, from: \"08:00\", to: \"18:00\""));
}

TEST(PolicyRange, WhatIsNoTimeIsRefused) {
    expectRefused(withRange(""), "it says no time");
    expectRefused(withRange("days: monday"), "days \"monday\": give days (mon");
    expectRefused(withRange("days: \"\""), "days \"\": give");
    expectRefused(withRange("from: \"8\""), "from \"8\": give HH:MM or HH:MM:SS, 00:00 to 23:59:59");
    expectRefused(withRange("from: \"24:00\""), "00:00 to 23:59:59");
    expectRefused(withRange("to: \"24:01\""), "to \"24:01\": give HH:MM or HH:MM:SS, 00:00 to 24:00");
    expectRefused(withRange("start: 2027-02-29 00:00"), "start \"2027-02-29 00:00\": there is no such day");
    expectRefused(withRange("start: 2027-01-01 24:00"), "start \"2027-01-01 24:00\": give YYYY-MM-DD");
    expectRefused(withRange("start: 2027-01-02 00:00, end: 2027-01-02 00:00"), "end 2027-01-02 00:00 is not after start 2027-01-02 00:00");
    expectRefused(withRange("days: mon, periods: [{days: tue}]"), "give either");
    expectRefused(withRange("periods: []"), "must be a list of 1 to 64");
    expectRefused(withRange("periods: [{day: mon}]"), "unknown key 'day' of a period");
    expectRefused(withRange("day: mon"), "unknown key 'day'");
}

} // namespace
