// Tests of cli/vrf_names.cpp and of VRF names in policy files: they are the daemon's, and mean its numbers.
#include <fstream>

#include <gtest/gtest.h>

#include "api/pbr_keys.h"
#include "cli/errors.h"
#include "cli/policy_file.h"
#include "tests/unit/cli/fake_daemon.h"

using namespace cli;

namespace {

const char *const FILE_TEXT = "acls: {1501: {10: permit ip}, 1502: {10: permit ip}}\n"
                              "probes:\n  ops/a: {icmp: 192.0.2.10, vrf: red, via: next-hop}\n"
                              "lists:\n  wan:\n"
                              "    10: {acl: 1501, vrf: blue, next-hops: [{address: 192.0.2.1, probe: ops/a}]}\n"
                              "    20: {acl: 1502, vrf: 7, next-hops: [192.0.2.1]}\n";

struct VrfNamesUsed : testing::Test {
    FakeDaemon daemon;
    std::string file = daemon.root() + "/policy.yaml";

    int apply(const std::string &text, const char *pCommand = "apply") {
        std::ofstream(file) << text;
        return daemon.pbrctl({pCommand, file});
    }
    uint32_t vrfOfNode(uint32_t index) { return daemon.store().lists.at("wan").nodes.at(index).fields.at(PBR_NODE_VRF_ID); }
};

TEST_F(VrfNamesUsed, AreNumbersOnceTheyAreApplied) {
    ASSERT_EQ(apply(FILE_TEXT), EXIT_DONE) << daemon.err;
    EXPECT_EQ(vrfOfNode(10), 1077u);
    EXPECT_EQ(vrfOfNode(20), 7u);
    EXPECT_EQ(daemon.store().probes.at("ops/a")["vrf"], 1078);
    EXPECT_NE(daemon.out.find("acl 1501, next hop 192.0.2.1 (probe ops/a), vrf 1077"), std::string::npos) << daemon.out;
    EXPECT_EQ(apply(FILE_TEXT, "diff"), 0) << daemon.out;
}

TEST_F(VrfNamesUsed, AnUnknownOneIsToldWithItsLineAndNothingIsChanged) {
    std::string text = FILE_TEXT;
    text.replace(text.find("blue"), 4, "grey");
    EXPECT_EQ(apply(text), EXIT_REFUSED);
    EXPECT_NE(daemon.err.find("policy.yaml:6: node wan/10: vrf 'grey' is not known to the daemon: give the number of its "
                              "table, or name it by the daemon's option host.vrf.grey (named are: blue, red)"),
              std::string::npos)
        << daemon.err;
    EXPECT_EQ(daemon.err.find("policy.yaml:3"), std::string::npos) << daemon.err; // red is known
    EXPECT_TRUE(daemon.store() == FakeStore());
    daemon.offerNothing({"vrfs"});
    EXPECT_EQ(apply(FILE_TEXT), EXIT_REFUSED);
    EXPECT_NE(daemon.err.find("(named are: none)"), std::string::npos) << daemon.err;
}

TEST_F(VrfNamesUsed, AreTakenByCommandsToo) {
    ASSERT_EQ(daemon.pbrctl({"list", "add", "wan"}), EXIT_DONE);
    ASSERT_EQ(daemon.pbrctl({"node", "add", "wan", "10", "--vrf", "red"}), EXIT_DONE) << daemon.err;
    EXPECT_EQ(vrfOfNode(10), 1078u);
    ASSERT_EQ(daemon.pbrctl({"node", "set", "wan", "10", "--vrf", "blue"}), EXIT_DONE) << daemon.err;
    EXPECT_EQ(vrfOfNode(10), 1077u);
    daemon.logClear();
    ASSERT_EQ(daemon.pbrctl({"probe", "add", "ops/a", "icmp", "192.0.2.10", "--vrf", "red"}), EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.log().at(0), R"(probe.set {"admin":"ops","kind":"icmp","target":"192.0.2.10","test":"a","vrf":1078})");
    EXPECT_EQ(daemon.pbrctl({"node", "set", "wan", "10", "--vrf", "grey"}), EXIT_REFUSED);
    EXPECT_NE(daemon.err.find("the daemon knows no VRF grey"), std::string::npos) << daemon.err;
    for (const char *pWrong : {"-1", "4294967296", "7x", ""}) {
        EXPECT_EQ(daemon.pbrctl({"node", "set", "wan", "10", "--vrf", pWrong}), EXIT_USAGE) << pWrong << daemon.err;
    }
    EXPECT_EQ(vrfOfNode(10), 1077u);
}

TEST(VrfNamesOfAFile, StandForNumbersOfTheirOwnUntilTheyAreKnown) {
    const PolicyFile file = policyFileRead("p.yaml", FILE_TEXT);
    EXPECT_TRUE(file.problems.empty());
    EXPECT_TRUE(file.hasVrfNames);
    EXPECT_NE(file.policy.lists.at("wan").nodes.at(10).vrf, file.policy.probes.at("ops/a").vrf);
    EXPECT_FALSE(policyFileRead("p.yaml", "acls: {1501: {10: permit ip}}\nlists: {wan: {10: {acl: 1501, vrf: 7, "
                                          "next-hops: [192.0.2.1]}}}\n").hasVrfNames);
    for (const char *pWrong : {"-1", "7x", "4294967296", "\"\"", "[7]"}) {
        EXPECT_FALSE(policyFileRead("p.yaml", "acls: {1501: {10: permit ip}}\nlists: {wan: {10: {acl: 1501, vrf: " +
                                                  std::string(pWrong) + ", next-hops: [192.0.2.1]}}}\n").problems.empty());
    }
}

} // namespace
