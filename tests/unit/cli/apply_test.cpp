// Tests of `pbrctl apply` against a daemon in the test: whole or not at all, whichever change is refused.
#include <fstream>

#include <gtest/gtest.h>

#include "cli/errors.h"
#include "cli/numbers.h"
#include "core/pbr_types.h"
#include "tests/unit/cli/fake_daemon.h"

namespace {

constexpr const char *FIRST = R"(acls:
  1501: {10: permit tcp to any port 443}
  1502: {10: permit udp}
lists:
  wan:
    10: {acl: 1501, next-hops: [192.0.2.1, 192.0.2.5]}
    20: {acl: 1502, interface: tun0, priority: 5}
bindings:
  lan0: wan
)";

// wan/10 changes, wan/20 goes, list v6 comes, lan1 comes, ACL 1502 goes, 1501 changes.
constexpr const char *SECOND = R"(acls:
  1501: {10: permit tcp to any port 80}
  3501: {10: permit ip}
time-ranges: {7: {days: mon-fri}}
probes: {ops/a: {icmp: 2001:db8::1}}
lists:
  wan:
    10: {acl: 1501, next-hops: [192.0.2.5], vrf: 3}
  v6:
    5: {acl: 3501, ecmp: true, next-hops: [{address: 2001:db8::1, probe: ops/a}, 2001:db8::2], time-range: 7}
bindings:
  lan0: wan
  lan1: v6
)";

struct Apply : testing::Test {
    FakeDaemon daemon;

    int apply(const std::string &text, std::vector<std::string> options = {}) {
        const std::string name = daemon.root() + "/policy.yaml";
        std::ofstream(name) << text;
        options.insert(options.begin(), {"apply", name});
        return daemon.pbrctl(options);
    }
    bool hasOut(const std::string &text) const { return daemon.out.find(text) != std::string::npos; }
    bool hasErr(const std::string &text) const { return daemon.err.find(text) != std::string::npos; }
};

TEST_F(Apply, MakesTheRunningPolicyEqualToTheFile) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;

    const FakeStore store = daemon.store();
    EXPECT_EQ(store.acls.at(1501).at(10), "permit tcp to any port 443");
    const FakeNode &node = store.lists.at("wan").nodes.at(10);
    EXPECT_EQ(node.fields.at(PBR_NODE_STATUS), PBR_ROW_ACTIVE);
    EXPECT_EQ(node.fields.at(PBR_NODE_ACL_NUM), 1501u);
    EXPECT_EQ(node.fields.at(PBR_NODE_IP_VERSION), PBR_IP_VERSION_4);
    EXPECT_EQ(node.nextHops.at(1).address, (client::Bytes{192, 0, 2, 1}));
    EXPECT_EQ(node.nextHops.at(2).status, PBR_ROW_ACTIVE);
    EXPECT_EQ(store.lists.at("wan").nodes.at(20).fields.at(PBR_NODE_OUT_IF_UNIT), 9u);
    EXPECT_EQ(store.lists.at("wan").nodes.at(20).fields.at(PBR_NODE_IP_PRI), 5u);
    EXPECT_EQ(store.interfaces, (std::map<uint32_t, std::string>{{7, "wan"}}));
}

TEST_F(Apply, AppliedAgainThereIsNothingToDo) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const int before = daemon.changes();

    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;

    EXPECT_EQ(daemon.out, "nothing to do\n");
    EXPECT_EQ(daemon.changes(), before);
}

TEST_F(Apply, EveryPropertyIsCarriedOver) {
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    const FakeNode node = daemon.store().lists.at("v6").nodes.at(5);
    EXPECT_EQ(node.fields.at(PBR_NODE_IS_ECMP), 1u);
    EXPECT_EQ(node.fields.at(PBR_NODE_TIME_RANGE_ID), 7u);
    EXPECT_EQ(node.fields.at(PBR_NODE_IP_VERSION), PBR_IP_VERSION_6);
    EXPECT_EQ(node.nextHops.at(1).admin, "ops");
    EXPECT_EQ(node.nextHops.at(1).test, "a");
    EXPECT_EQ(daemon.store().lists.at("wan").nodes.at(10).fields.at(PBR_NODE_VRF_ID), 3u);
    EXPECT_TRUE(hasErr("probes are read and checked, but not run"));
    EXPECT_TRUE(hasErr("time ranges are read and checked"));
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE);
    EXPECT_EQ(daemon.out, "nothing to do\n");
}

TEST_F(Apply, ANextHopIsNamedBeforeItIsActivatedAndTheTimeRangeComesLast) {
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    std::vector<std::string> steps;
    for (const std::string &line : daemon.log()) {
        if (line.find("v6/5") != std::string::npos) {
            steps.push_back(line);
        }
    }
    EXPECT_EQ(steps, (std::vector<std::string>{
                         "node v6/5 field 1 = 2", "node v6/5 field 10 = 2", "node v6/5 field 4 = 3501",
                         "node v6/5 field 9 = 1", "hop v6/5/1 field 1 = 2", "hop v6/5/1 field 2 = bytes",
                         "hop v6/5/1 field 4 = bytes", "hop v6/5/1 field 5 = bytes", "hop v6/5/1 field 1 = 1",
                         "hop v6/5/2 field 1 = 2", "hop v6/5/2 field 2 = bytes", "hop v6/5/2 field 1 = 1",
                         "node v6/5 field 1 = 1", "node v6/5 field 19 = 7"}));
}

TEST_F(Apply, ADryRunPrintsThePlanAndChangesNothing) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    const int changes = daemon.changes();

    ASSERT_EQ(apply(SECOND, {"--dry-run"}), cli::EXIT_DONE) << daemon.err;

    EXPECT_TRUE(hasOut("~ list wan (taken off lan0 and bound again around the change)")) << daemon.out;
    EXPECT_TRUE(hasOut("    - node 20: acl 1502, interface tun0, priority 5")) << daemon.out;
    EXPECT_TRUE(hasOut("+ list v6")) << daemon.out;
    EXPECT_TRUE(hasOut("+ binding lan1: v6")) << daemon.out;
    EXPECT_TRUE(hasOut("dry run: nothing was changed"));
    EXPECT_EQ(daemon.changes(), changes);
    EXPECT_EQ(daemon.store(), before);
}

TEST_F(Apply, WhicheverChangeIsRefusedThePolicyIsAsBefore) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    int refused = 0;
    for (int n = 1; n < 200; n++) {
        SCOPED_TRACE("change " + std::to_string(n));
        daemon.failChange(n);
        const int status = apply(SECOND);
        daemon.failChange(0);
        if (status == cli::EXIT_DONE) {
            break;
        }
        refused++;
        ASSERT_EQ(status, cli::EXIT_REFUSED) << daemon.err;
        ASSERT_TRUE(daemon.store() == before) << daemon.err;
        ASSERT_TRUE(hasErr("refused at step ")) << daemon.err;
        ASSERT_TRUE(hasErr("undone: the policy is as before") || hasErr("Nothing had been changed")) << daemon.err;
    }
    EXPECT_GT(refused, 30); // every change of the plan was refused once
    EXPECT_EQ(daemon.store().interfaces.at(8), "v6");
}

TEST_F(Apply, WhicheverChangeOfAFirstApplyIsRefusedNothingIsLeft) {
    for (int n = 1;; n++) {
        ASSERT_LT(n, 200);
        daemon.failChange(n);
        if (apply(FIRST) == cli::EXIT_DONE) {
            break;
        }
        ASSERT_TRUE(daemon.store() == FakeStore()) << n << ": " << daemon.err;
    }
}

TEST_F(Apply, ARefusalTellsWhatWhyAndWhatToDo) {
    daemon.failChange(4, PBR_ERR_NO_RECORD);
    ASSERT_EQ(apply(FIRST), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("no free record")) << daemon.err;
    EXPECT_TRUE(hasErr("(0x03E80001)")) << daemon.err;
    EXPECT_TRUE(hasErr("What to do: ")) << daemon.err;
}

TEST_F(Apply, AnInterfaceThatDoesNotExistIsRefusedWithItsLine) {
    ASSERT_EQ(apply("lists:\n  wan: {}\nbindings:\n  lan9: wan\n"), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("policy.yaml:4: interface lan9 does not exist")) << daemon.err;
    EXPECT_EQ(daemon.changes(), 0);
}

TEST_F(Apply, TwoNamesOfOneInterfaceAreRefused) {
    ASSERT_EQ(apply("lists:\n  wan: {}\nbindings:\n  lan0: wan\n  \"unit:7\": wan\n"), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("policy.yaml:5: interface unit:7 is the same as lan0")) << daemon.err;
}

TEST_F(Apply, AFileWithProblemsIsRefusedBeforeAnythingIsAsked) {
    ASSERT_EQ(apply("lists: {wan: {10: {acl: 99}}}\n"), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("policy.yaml:1: ACL 99 can never be used")) << daemon.err;
    EXPECT_TRUE(hasErr("Nothing was changed."));
    EXPECT_EQ(daemon.changes(), 0);
}

TEST_F(Apply, AnEmptyPolicyRemovesEverything) {
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(apply("lists: {}\n"), cli::EXIT_DONE) << daemon.err;
    EXPECT_TRUE(daemon.store() == FakeStore());
}

TEST_F(Apply, TimeRangesAreReleasedBeforeTheirNodeGoes) {
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    daemon.logClear();
    ASSERT_EQ(apply("lists: {}\n"), cli::EXIT_DONE) << daemon.err;
    const std::vector<std::string> log = daemon.log();
    const auto released = std::find(log.begin(), log.end(), "node v6/5 field 19 = 4294967295");
    const auto removed = std::find(log.begin(), log.end(), "node v6/5 field 1 = 4");
    ASSERT_NE(released, log.end());
    EXPECT_LT(released, removed);
}

TEST_F(Apply, PropertiesOfOtherManagementPlanesSurviveAnUndo) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    FakeStore store = daemon.store();
    store.lists["wan"].nodes[10].fields[PBR_NODE_MATCH_VALUE1] = 4;
    store.lists["wan"].nodes[10].fields[PBR_NODE_FIELD7] = 6;
    store.lists["wan"].nodes[10].fields[PBR_NODE_FORWARD_FLAG] = 1;
    daemon.put(store);
    daemon.failChange(12);
    ASSERT_EQ(apply(FIRST), cli::EXIT_REFUSED);
    EXPECT_TRUE(daemon.store() == store) << daemon.err;
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.store().lists.at("wan").nodes.at(10).fields.at(PBR_NODE_MATCH_VALUE1), 0u);
}

TEST_F(Apply, ADeviceThatIsNotRightIsTold) {
    daemon.settleAnswers(true, "acl 1501 rule 10: the kernel refused it");
    ASSERT_EQ(apply(FIRST), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("the policy is applied, but the device is not right yet: acl 1501 rule 10"));
    EXPECT_EQ(daemon.store().interfaces.at(7), "wan");
}

TEST_F(Apply, NextHopsWhoseStateIsNotKnownYetAreAWarning) {
    daemon.settleAnswers(false);
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE);
    EXPECT_TRUE(hasErr("warning: the state of some next hops is not known yet")) << daemon.err;
}

TEST_F(Apply, JsonHoldsPlanAndWarnings) {
    ASSERT_EQ(apply(FIRST, {"--json"}), cli::EXIT_DONE) << daemon.err;
    const auto json = nlohmann::json::parse(daemon.out);
    EXPECT_EQ(json["done"], true);
    EXPECT_EQ(json["plan"][0], "+ acl 1501");
    EXPECT_EQ(json["warnings"].size(), 1u);
}

TEST_F(Apply, AMissingFileIsAnErrorOfTheCommandLine) {
    EXPECT_EQ(daemon.pbrctl({"apply", daemon.root() + "/nowhere.yaml"}), cli::EXIT_USAGE);
    EXPECT_TRUE(hasErr("nowhere.yaml: cannot be read")) << daemon.err;
}

} // namespace
