// Tests of cli/policy_file.cpp: what a file says, and every refusal with its line.
#include "cli/policy_file.h"

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/numbers.h"
#include "tests/unit/cli/lines.h"

using namespace cli;

namespace {

constexpr const char *GOOD = R"(acls:
  1501:
    10: permit tcp from 10.1.0.0/16 to any port 443
    20: deny ip from 10.1.9.0/24 to any
  1502: {10: permit ip}
  1503: {10: permit ip}
probes:
  ops/isp-a: {icmp: 198.51.100.1, interval: 1s, timeout: 500ms, down-after: 3}
time-ranges:
  7: {days: mon-fri, from: "08:00", to: "18:00"}
lists:
  wan:
    10: {acl: 1501, next-hops: [{address: 192.0.2.1, probe: ops/isp-a}, 192.0.2.5]}
    20: {acl: 1502, ecmp: true, vrf: 10, next-hops: [192.0.2.9, 192.0.2.13], time-range: 7}
    30: {acl: 1503, interface: tun0, priority: 5}
bindings:
  lan0: wan
)";

// The file must have a problem that begins with "p.yaml:LINE: " and tells `expected`.
void expectProblem(const std::string &text, int line, const std::string &expected) {
    const PolicyFile file = policyFileRead("p.yaml", text);
    const std::string place = "p.yaml:" + std::to_string(line) + ": ";
    for (const std::string &problem : file.problems) {
        if (problem.rfind(place, 0) == 0 && problem.find(expected) != std::string::npos) {
            return;
        }
    }
    ADD_FAILURE() << "expected " << place << "..." << expected << "... in\n" << all(file.problems) << "of\n" << text;
}

// A file with one list `wan` whose node 10 stands on line 6.
std::string withNode(const std::string &node) {
    return "acls:\n  1501: {10: permit ip}\n  3501: {10: permit ip}\n  5001: {10: permit ip}\nlists:\n  wan: {10: " +
           node + "}\n";
}

TEST(PolicyFile, EverySectionIsRead) {
    const PolicyFile file = policyFileRead("p.yaml", GOOD);
    ASSERT_TRUE(file.problems.empty()) << all(file.problems);
    EXPECT_EQ(file.policy.acls.size(), 3u);
    EXPECT_EQ(file.policy.acls.at(1501).at(20).text, "deny ip from 10.1.9.0/24 to any");
    const List &wan = file.policy.lists.at("wan");
    ASSERT_EQ(wan.nodes.size(), 3u);
    const Node &first = wan.nodes.at(10), &second = wan.nodes.at(20), &third = wan.nodes.at(30);
    EXPECT_EQ(first.acl, 1501u);
    EXPECT_EQ(first.ipVersion, 4);
    ASSERT_EQ(first.nextHops.size(), 2u);
    EXPECT_EQ(first.nextHops[0].index, 1);
    EXPECT_EQ(first.nextHops[0].probeAdmin, "ops");
    EXPECT_EQ(first.nextHops[0].probeTest, "isp-a");
    EXPECT_EQ(addressWrite(first.nextHops[1].address), "192.0.2.5");
    EXPECT_EQ(first.nextHops[1].index, 2);
    EXPECT_EQ(second.ecmp, 1);
    EXPECT_EQ(second.vrf, 10u);
    EXPECT_EQ(second.timeRange, 7u);
    EXPECT_EQ(third.outIfName, "tun0");
    EXPECT_EQ(third.priority, 5u);
    ASSERT_EQ(file.policy.bindings.size(), 1u);
    EXPECT_EQ(file.policy.bindings[0].interface, "lan0");
    EXPECT_EQ(file.policy.bindings[0].list, "wan");
    EXPECT_EQ(file.interfaceLines.at("lan0"), 17);
    EXPECT_EQ(file.interfaceLines.at("tun0"), 15);
}

TEST(PolicyFile, WarnsOfWhatASwitchCannotDo) {
    const std::string warnings = all(policyFileRead("p.yaml", GOOD).warnings);
    EXPECT_NE(warnings.find("node wan/30 has no next hop and stands behind node 10"), std::string::npos) << warnings;
    EXPECT_NE(warnings.find("node wan/20: a switch's device does not follow the time range"), std::string::npos);
    const PolicyFile file = policyFileRead("p.yaml", "acls: {1501: {10: permit ip}}\nprobes: {a/b: {icmp: 192.0.2.1}}\n"
                                                     "lists: {wan: {10: {acl: 1501, ecmp: true, "
                                                     "next-hops: [{address: 192.0.2.1, probe: a/b}]}}}\n");
    EXPECT_NE(all(file.warnings).find("ECMP does not look at probes"), std::string::npos) << all(file.warnings);
}

TEST(PolicyFile, WhereThingsStandIsKept) {
    const PolicyFile file = policyFileRead("p.yaml", GOOD);
    EXPECT_EQ(file.places.at("acl 1501"), 2);
    EXPECT_EQ(file.places.at("acl 1501 rule 20"), 4);
    EXPECT_EQ(file.places.at("probe ops/isp-a"), 8);
    EXPECT_EQ(file.places.at("time-range 7"), 10);
    EXPECT_EQ(file.places.at("list wan"), 12);
    EXPECT_EQ(file.places.at("node wan/20"), 14);
    EXPECT_EQ(file.places.at("binding lan0"), 17);
    EXPECT_EQ(file.places.at("bindings"), 16);
}

TEST(PolicyFile, ANodeWithoutNextHopsInFrontNeedsNoWarning) {
    const PolicyFile file = policyFileRead("p.yaml", "acls:\n  1501: {10: permit ip}\n  1502: {10: permit ip}\n"
                                                     "lists:\n  wan:\n    10: {acl: 1501, priority: 5}\n"
                                                     "    20: {acl: 1502, next-hops: [192.0.2.1]}\n");
    EXPECT_TRUE(file.problems.empty()) << all(file.problems);
    EXPECT_TRUE(file.warnings.empty()) << all(file.warnings);
}

TEST(PolicyFile, BothFamiliesAndBothNumberRangesFit) {
    const PolicyFile file = policyFileRead("p.yaml", withNode("{acl: 3501, next-hops: [2001:db8::1, \"2001:db8::2\"]}"));
    ASSERT_TRUE(file.problems.empty()) << all(file.problems);
    EXPECT_EQ(file.policy.lists.at("wan").nodes.at(10).ipVersion, 6);
    EXPECT_TRUE(policyFileRead("p.yaml", withNode("{acl: 5001, interface: tun0}")).problems.empty());
}

TEST(PolicyFile, UnknownKeysAreRefusedEverywhere) {
    expectProblem("acl: {}\n", 1, "unknown section 'acl'");
    expectProblem(withNode("{acl: 1501, nexthops: [192.0.2.1]}"), 6, "unknown key 'nexthops'");
    expectProblem(withNode("{acl: 1501, next-hops: [{address: 192.0.2.1, weight: 3}]}"), 6, "unknown key 'weight'");
    expectProblem("lists: {}\nprobes:\n  a/b: {icmp: 192.0.2.1, retries: 3}\n", 3, "unknown key 'retries'");
    expectProblem("lists: {}\ntime-ranges:\n  7: {day: mon}\n", 3, "unknown key 'day'");
}

TEST(PolicyFile, DuplicatesAreRefusedAtTheirSecondPlace) {
    expectProblem("lists: {}\nlists: {}\n", 2, "'lists' stands here for the second time");
    expectProblem("acls:\n  1501: {10: permit ip}\n  1501: {10: deny ip}\n", 3, "'1501' stands here for the second");
    expectProblem("acls:\n  1501:\n    10: permit ip\n    10: deny ip\n", 4, "'10' stands here for the second");
    expectProblem("acls: {1501: {10: permit ip}}\nlists:\n  wan: {}\n  wan: {}\n", 4, "'wan' stands");
    expectProblem("lists:\n  wan: {}\nbindings:\n  lan0: wan\n  lan0: wan\n", 5, "'lan0' stands");
    expectProblem(withNode("{acl: 1501, acl: 3501, next-hops: [192.0.2.1]}"), 6, "'acl' stands");
    expectProblem(withNode("{acl: 1501, next-hops: [192.0.2.1, 192.0.2.1]}"), 6, "for the second time");
    expectProblem(withNode("{acl: 3501, next-hops: [2001:db8::1, 2001:db8:0::1]}"), 6, "for the second time");
}

TEST(PolicyFile, AnAclServesOneNodeOnly) {
    expectProblem("acls: {1501: {10: permit ip}}\nlists:\n  a:\n    10: {acl: 1501, priority: 1}\n  b:\n"
                  "    20: {acl: 1501, priority: 1}\n",
                  6, "acl 1501 is already used by node a/10");
}

TEST(PolicyFile, AclNumbersThatCanNeverBeUsedAreRefused) {
    for (const char *pNumber : {"1", "1000", "2001", "2500", "3000", "4001", "5000"}) {
        expectProblem("acls:\n  " + std::string(pNumber) + ": {10: permit ip}\n", 2, "can never be used");
        expectProblem(withNode("{acl: " + std::string(pNumber) + ", priority: 1}"), 6, "can never be used");
    }
    expectProblem("acls:\n  0: {}\n", 2, "must be a number 1..4294967295, not '0'");
    expectProblem("acls:\n  web: {}\n", 2, "not 'web'");
    expectProblem("acls:\n  4294967296: {}\n", 2, "not '4294967296'");
}

TEST(PolicyFile, MissingAclsListsProbesAndRangesAreRefused) {
    expectProblem(withNode("{acl: 1999, priority: 1}"), 6, "acl 1999 is not defined under acls");
    expectProblem("lists: {}\nbindings:\n  lan0: wan\n", 3, "list 'wan' is not defined under lists");
    expectProblem(withNode("{acl: 1501, next-hops: [{address: 192.0.2.1, probe: a/b}]}"), 6, "probe a/b is not defined");
    expectProblem(withNode("{acl: 1501, next-hops: [192.0.2.1], time-range: 7}"), 6, "time range 7 is not defined");
}

TEST(PolicyFile, AddressesOfTheWrongFamilyAreRefused) {
    expectProblem(withNode("{acl: 1501, next-hops: [2001:db8::1]}"), 6, "acl 1501 is of IPv4, its next hops are of IPv6");
    expectProblem(withNode("{acl: 3501, next-hops: [192.0.2.1]}"), 6, "acl 3501 is of IPv6, its next hops are of IPv4");
    expectProblem(withNode("{acl: 1501, next-hops: [192.0.2.1, 2001:db8::1]}"), 6, "another IP version");
    expectProblem(withNode("{acl: 5001, next-hops: [192.0.2.1]}"), 6, "acl 5001 is of either IP version");
    expectProblem("acls:\n  1501: {10: permit ip from 2001:db8::/32}\n", 2, "acl 1501 rule 10: ");
}

TEST(PolicyFile, AddressesThatAreNoNextHopsAreRefused) {
    for (const char *pAddress : {"0.0.0.0", "127.0.0.1", "224.0.0.1", "255.255.255.255", "192.0.2", "192.0.2.1/24",
                                 "router", "\"\""}) {
        expectProblem(withNode("{acl: 1501, next-hops: [" + std::string(pAddress) + "]}"), 6, "no address of a next hop");
    }
    for (const char *pAddress : {"\"::\"", "\"::1\"", "ff02::1", "2001:db8::g"}) {
        expectProblem(withNode("{acl: 3501, next-hops: [" + std::string(pAddress) + "]}"), 6, "no address of a next hop");
    }
    for (const char *pNone : {"192.0.2.1, , 192.0.2.5", "~", "{}", "{probe: ops/isp-a}"}) {
        expectProblem(withNode("{acl: 1501, next-hops: [" + std::string(pNone) + "]}"), 6, "a next hop has no address");
    }
}

TEST(PolicyFile, FourNextHopsAreTakenAndAFifthIsRefused) {
    const std::string four = "192.0.2.1, 192.0.2.2, 192.0.2.3, 192.0.2.4";
    EXPECT_TRUE(policyFileRead("p.yaml", withNode("{acl: 1501, next-hops: [" + four + "]}")).problems.empty());
    expectProblem(withNode("{acl: 1501, next-hops: [" + four + ", 192.0.2.5]}"), 6, "at most four next hops");
}

TEST(PolicyFile, FifteenInterfacesOfAListAreTakenAndASixteenthIsRefused) {
    std::string text = "lists:\n  wan: {}\nbindings:\n";
    for (int i = 1; i <= 15; i++) {
        text += "  eth" + std::to_string(i) + ": wan\n";
    }
    EXPECT_TRUE(policyFileRead("p.yaml", text).problems.empty());
    expectProblem(text + "  eth16: wan\n", 19, "list wan is bound to 15 interfaces already");
}

TEST(PolicyFile, ListNamesHaveOneToSixteenBytes) {
    EXPECT_TRUE(policyFileRead("p.yaml", "lists:\n  0123456789abcdef: {}\n").problems.empty());
    expectProblem("lists:\n  0123456789abcdefg: {}\n", 2, "1 to 16 bytes, this one has 17");
    expectProblem("lists:\n  \"\": {}\n", 2, "this one has 0");
    expectProblem("lists:\n  ääääääääa: {}\n", 2, "this one has 17");
    expectProblem("lists:\n  \"a b\": {}\n", 2, "no spaces");
    expectProblem("lists:\n  \"a\\nb\": {}\n", 2, "control characters");
}

TEST(PolicyFile, NodesThatMatchOrDoNothingAreRefused) {
    expectProblem(withNode("{next-hops: [192.0.2.1]}"), 6, "has no acl");
    expectProblem(withNode("{acl: 1501}"), 6, "has no action");
    expectProblem(withNode("{acl: 1501, ecmp: true, priority: 1}"), 6, "ecmp needs next hops");
    expectProblem(withNode("{acl: 1501, interface: tun0, next-hops: [192.0.2.1]}"), 6, "not both");
    expectProblem(withNode("[]"), 6, "must be a map");
    expectProblem("lists:\n  wan:\n    10:\n", 3, "must be a map");
}

TEST(PolicyFile, ValuesOutOfRangeAreRefused) {
    for (const char *pPriority : {"0", "16", "-1", "high", "[1]"}) {
        expectProblem(withNode("{acl: 1501, priority: " + std::string(pPriority) + "}"), 6, "priority must be a number 1..15");
    }
    expectProblem(withNode("{acl: 1501, priority: 9}"), 6, "priority 9 cannot be asked for");
    expectProblem(withNode("{acl: 1501, next-hops: [192.0.2.1], ecmp: perhaps}"), 6, "true or false");
    expectProblem(withNode("{acl: 1501, next-hops: [192.0.2.1], vrf: 7red}"), 6, "vrf must be a number");
    expectProblem(withNode("{acl: 1501, next-hops: [192.0.2.1], vrf: 4294967296}"), 6, "vrf must be a number");
    expectProblem(withNode("{acl: 1501, next-hops: []}"), 6, "must be a list of addresses");
    expectProblem(withNode("{acl: 1501, next-hops: 192.0.2.1}"), 6, "must be a list of addresses");
    expectProblem(withNode("{acl: 1501, next-hops: [{probe: a/b}]}"), 6, "no address");
    expectProblem(withNode("{acl: 1501, interface: much-too-long-interface}"), 6, "name of an interface");
    expectProblem("lists:\n  wan:\n    0: {acl: 1501, priority: 1}\n", 3, "must be a number 1..");
    expectProblem("acls:\n  1501: {0: permit ip}\n", 2, "a rule number must be a number 1..");
    expectProblem("lists: {}\nprobes:\n  nameless: {icmp: 192.0.2.1}\n", 3, "is no probe name");
    expectProblem("lists: {}\nprobes:\n  a/" + std::string(33, 'b') + ": {icmp: 192.0.2.1}\n", 3, "is no probe name");
    expectProblem("lists: {}\ntime-ranges:\n  4294967295: {days: mon}\n", 3, "a time range's number");
}

TEST(PolicyFile, ARuleThatCannotBeReadIsRefusedAtItsLine) {
    expectProblem("acls:\n  1501:\n    10: permit ip\n    20: permit tcp to any port http\n", 4,
                  "acl 1501 rule 20: ");
    expectProblem("acls:\n  1501:\n    10: [permit, ip]\n", 3, "must be plain text");
    expectProblem("acls:\n  1501: permit ip\n", 2, "must be a map");
}

TEST(PolicyFile, AllProblemsAreToldAtOnceInLineOrder) {
    const PolicyFile file = policyFileRead("p.yaml", "bindings:\n  lan0: nowhere\nacls:\n  17: {}\n");
    ASSERT_EQ(file.problems.size(), 2u) << all(file.problems);
    EXPECT_EQ(file.problems[0].rfind("p.yaml:2: ", 0), 0u);
    EXPECT_EQ(file.problems[1].rfind("p.yaml:4: ", 0), 0u);
}

TEST(PolicyFile, TextThatIsNoPolicyIsRefused) {
    expectProblem("", 1, "must be a map with the sections");
    expectProblem("- a\n- b\n", 1, "must be a map with the sections");
    expectProblem("lists: {\n", 2, "");
    expectProblem("lists: {}\n---\nlists: {}\n", 3, "one document");
    expectProblem("lists: {}\n---\n# nothing\n\n...\n", 5, "one document");
    expectProblem(", 192.0.2.4]}\n    10: {acl: 9999}\n", 1, "one document"); // so the library takes what is behind a comma
    expectProblem("lists: {}\n? [a, b]\n: c\n", 2, "a key must be plain text");
    expectProblem("lists: {wan: {}}\nbindings:\n  lan\xaa: wan\n", 3, "bindings: a key is no text in UTF-8");
    expectProblem("lists: {wan: {}}\nbindings:\n  lan0: w\xc3\n", 3, "is no text in UTF-8");
    EXPECT_TRUE(policyFileRead("p.yaml", "lists: {w\xc3\xa4: {}} # \xe4, in a comment\n").problems.empty());
}

TEST(PolicyFile, RemovingEverythingMustBeSaid) {
    EXPECT_TRUE(policyFileRead("p.yaml", "lists: {}\n").problems.empty());
    EXPECT_TRUE(policyFileRead("p.yaml", "lists:\nacls:\n").problems.empty());
}

} // namespace
