// Tests of `pbrctl apply` against a daemon in the test: whole or not at all, whichever change is refused.
#include <algorithm>
#include <csignal>
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
    EXPECT_EQ(daemon.store().probes.at("ops/a"),
              (nlohmann::json{{"kind", "icmp"}, {"target", "2001:db8::1"}, {"intervalMs", 1000}, {"timeoutMs", 500},
                              {"downAfter", 3}, {"upAfter", 1}}));
    EXPECT_EQ(daemon.store().timeRanges.at("7")["periods"],
              (nlohmann::json::array({{{"days", "mon-fri"}, {"from", "00:00"}, {"to", "24:00"}}})));
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

    EXPECT_TRUE(hasOut("~ list wan (bound to lan0)")) << daemon.out;
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
        ASSERT_TRUE(hasErr("policy.yaml:")) << daemon.err;
        ASSERT_TRUE(hasErr("\nNothing was changed")) << daemon.err;
    }
    EXPECT_GT(refused, 30); // every change of the plan was refused once
    EXPECT_EQ(daemon.store().interfaces.at(8), "v6");
}

// Steps that are done together are told apart: 100 ACLs and 100 nodes, each on a line of its own.
TEST_F(Apply, OfManyNodesAndAclsTheRefusedOneIsNamedAndNothingIsLeftOfThoseBehindIt) {
    std::string acls = "acls:\n", nodes = "lists:\n  wan:\n";
    for (int n = 1; n <= 100; n++) {
        acls += "  " + std::to_string(1500 + n) + ": {10: permit ip}\n";
        nodes += "    " + std::to_string(n) + ": {acl: " + std::to_string(1500 + n) + ", next-hops: [192.0.2.1]}\n";
    }
    const std::string text = acls + nodes;
    ASSERT_EQ(apply("acls:\n  1570: {10: deny ip}\n"), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    daemon.logClear();
    const int first = daemon.changes();
    ASSERT_EQ(apply(text), cli::EXIT_DONE) << daemon.err;
    std::vector<std::string> log = daemon.log();
    std::erase_if(log, [](const std::string &line) { return line.rfind("apply.", 0) == 0; }); // who changes, and that it ended
    ASSERT_EQ(log.size(), static_cast<size_t>(daemon.changes() - first));
    ASSERT_EQ(apply("acls:\n  1570: {10: deny ip}\n"), cli::EXIT_DONE) << daemon.err;

    const auto refusedAt = [&](const std::string &change, const std::string &line, const std::string &what) {
        const auto found = std::find(log.begin(), log.end(), change);
        ASSERT_NE(found, log.end()) << change;
        daemon.failChange(static_cast<int>(found - log.begin()) + 1);
        ASSERT_EQ(apply(text), cli::EXIT_REFUSED);
        daemon.failChange(0);
        EXPECT_TRUE(hasErr("policy.yaml:" + line + ": refused at step ")) << daemon.err;
        EXPECT_TRUE(hasErr(what)) << daemon.err;
        EXPECT_TRUE(daemon.store() == before) << daemon.err;
    };
    refusedAt("node wan/70 field 1 = 2", "173", "make node wan/70 ");
    refusedAt("node wan/70 field 4 = 1570", "173", "make node wan/70 ");
    refusedAt("node wan/3 field 1 = 1", "106", "make node wan/3 ");
    refusedAt(*std::find_if(log.begin(), log.end(), [](const std::string &line) { return line.find("1570") != std::string::npos; }),
              "71", "1570");
}

TEST_F(Apply, WheneverItIsInterruptedThePolicyIsAsBefore) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    int interrupted = 0;
    for (int n = 1; n < 200; n++) {
        SCOPED_TRACE("change " + std::to_string(n));
        daemon.signalAtChange(n, n % 2 == 0 ? SIGINT : SIGTERM);
        const int status = apply(SECOND);
        daemon.signalAtChange(0, 0);
        if (status == cli::EXIT_DONE) {
            break;
        }
        interrupted++;
        ASSERT_EQ(status, cli::EXIT_REFUSED) << daemon.err;
        ASSERT_TRUE(daemon.store() == before) << daemon.err;
        ASSERT_TRUE(hasErr(n % 2 == 0 ? "interrupted (SIGINT) before " : "interrupted (SIGTERM) before ")) << daemon.err;
        ASSERT_TRUE(hasErr("\nNothing was changed: what had been done (")) << daemon.err;
    }
    EXPECT_GT(interrupted, 30);
    EXPECT_EQ(daemon.store().interfaces.at(8), "v6");
}

TEST_F(Apply, AnInterruptThatThisProcessIsToldToIgnoreStopsNothing) {
    const auto before = std::signal(SIGINT, SIG_IGN);
    daemon.signalAtChange(3, SIGINT);
    EXPECT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    std::signal(SIGINT, before);
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

TEST_F(Apply, AListThatIsNotActiveComesBackAsItWas) {
    FakeStore before;
    before.lists["idle"] = {};
    ASSERT_NE(before.lists["idle"].status, PBR_ROW_ACTIVE);
    daemon.put(before);
    int refused = 0;
    for (int n = 1; n < 200; n++) {
        daemon.failChange(n);
        if (apply(FIRST) == cli::EXIT_DONE) {
            break;
        }
        refused++;
        ASSERT_TRUE(daemon.store() == before) << n << ": " << daemon.err;
    }
    EXPECT_GT(refused, 10);
    EXPECT_EQ(daemon.store().lists.count("idle"), 0u);
}

TEST_F(Apply, OfManyProblemsTheFirstTwentyAreTold) {
    std::string nodes;
    for (int node = 1; node <= 25; ++node) {
        nodes += "    " + std::to_string(node) + ": {acl: " + std::to_string(900 + node) + ", priority: 1}\n";
    }
    EXPECT_EQ(cli::EXIT_REFUSED, apply("lists:\n  wan:\n" + nodes));
    EXPECT_NE(daemon.err.find(":22: "), std::string::npos) << daemon.err; // the twentieth
    EXPECT_EQ(daemon.err.find(":23: "), std::string::npos);
    EXPECT_NE(daemon.err.find("\n... and 5 more\n"), std::string::npos);
}

TEST_F(Apply, APlaneThatRefusesAfterItsReleaseHasEverythingUndone) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    daemon.releaseAnswers({{{"list", "v6"}, {"node", 5}, {"interface", "lan1"}, {"error", "the kernel has no ECMP"}}});
    daemon.logClear();

    ASSERT_EQ(apply(SECOND), cli::EXIT_REFUSED);

    EXPECT_TRUE(hasErr("the forwarding plane refuses it:\n")) << daemon.err;
    EXPECT_TRUE(hasErr("policy.yaml:10: node v6/5: the kernel has no ECMP")) << daemon.err;
    EXPECT_TRUE(hasErr("\nNothing was changed")) << daemon.err;
    EXPECT_TRUE(daemon.store() == before);
    // The way back is one step for the plane too.
    const std::vector<std::string> log = daemon.log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "device.hold {\"lists\":[\"v6\",\"wan\"]}"), 2);
    EXPECT_EQ(std::count(log.begin(), log.end(), "device.release {}"), 2);
}

TEST_F(Apply, WhatThePlaneRefusesOnTrialIsUndoneBeforeItSeesAnything) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    daemon.trialAnswers({{{"list", "v6"}, {"node", 5}, {"interface", "lan1"}, {"error", "the kernel has no ECMP"}}});
    daemon.logClear();

    ASSERT_EQ(apply(SECOND), cli::EXIT_REFUSED);

    EXPECT_TRUE(hasErr("policy.yaml:10: node v6/5: the kernel has no ECMP")) << daemon.err;
    EXPECT_TRUE(daemon.store() == before);
    const std::vector<std::string> log = daemon.log();
    EXPECT_EQ(std::count(log.begin(), log.end(), "device.release {}"), 1);
    EXPECT_EQ(log[log.size() - 2], "device.release {}"); // then the lock goes
}

TEST_F(Apply, WhatThePlaneCouldNotDoBeforeIsNoReasonToRefuse) {
    daemon.entriesAre({{{"list", "wan"}, {"node", 20}, {"error", "tun0 is gone"}}});
    daemon.releaseAnswers({{{"list", "wan"}, {"node", 20}, {"interface", "lan0"}, {"error", "tun0 is gone"}}});
    EXPECT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
}

TEST_F(Apply, ADeviceThatCannotSettleHasEverythingUndone) {
    daemon.settleAnswers(true, "acl 1501 rule 10: the kernel refused it");
    ASSERT_EQ(apply(FIRST), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("the forwarding plane refuses it:\nacl 1501 rule 10")) << daemon.err;
    EXPECT_TRUE(daemon.store() == FakeStore());
}

TEST_F(Apply, ADeviceThatWasNotRightBeforeIsTold) {
    daemon.entriesAre({{{"list", "wan"}, {"node", 20}, {"error", "tun0 is gone"}}});
    daemon.settleAnswers(true, "node wan/20: tun0 is gone");
    ASSERT_EQ(apply(FIRST), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("the policy is applied, but the device is not right, as before: node wan/20")) << daemon.err;
    EXPECT_EQ(daemon.store().interfaces.at(7), "wan");
}

TEST_F(Apply, ThePlaneHoldsWhatChangesAroundAllSteps) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    daemon.logClear();
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    const std::vector<std::string> log = daemon.log();
    ASSERT_GT(log.size(), 4u);
    EXPECT_EQ(log[0].rfind("apply.lock {\"file\":", 0), 0u) << log[0];
    EXPECT_EQ(log[1], "device.hold {\"lists\":[\"v6\",\"wan\"]}");
    EXPECT_EQ(log[log.size() - 2], "device.release {}");
    EXPECT_EQ(log.back(), "apply.unlock {}");
}

TEST_F(Apply, WithoutHoldingEachStepActsByItself) {
    daemon.offerNothing({"device.hold", "device.release", "apply.lock", "apply.unlock", "acl.check"});
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.out, "nothing to do\n");
}

TEST_F(Apply, ADaemonThatRunsNoProbesRefusesFilesWithProbesOnly) {
    daemon.offerNothing({"probes", "timeranges", "probe.replaceAll", "timerange.replaceAll"});
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    ASSERT_EQ(apply(SECOND), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("policy.yaml:5: this daemon does not offer what is needed to set the probes")) << daemon.err;
    EXPECT_TRUE(hasErr("\nNothing was changed.")) << daemon.err;
    EXPECT_TRUE(daemon.store() == before);
}

TEST_F(Apply, AnotherChangeUnderWayIsWaitedForByTheOperator) {
    daemon.refusePid(4711);
    ASSERT_EQ(apply(FIRST), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("process 4711 applies other.yaml")) << daemon.err;
    EXPECT_EQ(daemon.changes(), 0);
    daemon.refusePid(4711);
    EXPECT_EQ(apply(FIRST, {"--dry-run"}), cli::EXIT_DONE) << daemon.err; // asks nobody
    daemon.refusePid(4711, 3, "change"); // a single change is over in a moment
    EXPECT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    EXPECT_TRUE(daemon.err.empty() || hasErr("warning: ")) << daemon.err;
}

TEST_F(Apply, ARuleThatTheDaemonCannotDoIsRefusedAtItsLineBeforeAnythingChanges) {
    ASSERT_EQ(apply("acls:\n  1501:\n    10: permit ip\n    20: permit tcp to any port 13\n"), cli::EXIT_REFUSED);
    EXPECT_TRUE(hasErr("policy.yaml:4: ACL 1501 rule 20: not here")) << daemon.err;
    EXPECT_TRUE(hasErr("Nothing was changed."));
    EXPECT_EQ(daemon.changes(), 0);
}

TEST_F(Apply, ADaemonThatDiesAtAnyStepAndServesAgainHasWhatWasBefore) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    int died = 0;
    for (int n = 1; n < 200; n++) {
        SCOPED_TRACE("change " + std::to_string(n));
        daemon.dieAtChange(n, FakeStore()); // it has forgotten everything
        const int status = apply(SECOND);
        daemon.dieAtChange(0, {});
        if (status == cli::EXIT_DONE) {
            break;
        }
        died++;
        ASSERT_EQ(status, cli::EXIT_REFUSED) << daemon.err;
        ASSERT_TRUE(hasErr("the daemon went away at step ")) << daemon.err;
        ASSERT_TRUE(hasErr("It serves again. Nothing was changed")) << daemon.err;
        ASSERT_TRUE(daemon.store() == before) << daemon.err;
    }
    EXPECT_GT(died, 30);
}

TEST_F(Apply, WhatCannotBeUndoneIsToldExactly) {
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    // Nothing can be bound any more: the list that was taken off stays off.
    daemon.failFrom("if 7", PBR_ERR_BIND);
    ASSERT_EQ(apply(SECOND), cli::EXIT_REFUSED);
    daemon.failFrom("", 0);
    EXPECT_TRUE(hasErr("Not everything could be undone. To be as before, the policy lacks:\n  + binding lan0: wan\nbecause:\n"
                       "  could not bind lan0: wan: ")) << daemon.err;
    EXPECT_TRUE(hasErr("What to do: ")) << daemon.err;
    FakeStore store = daemon.store();
    EXPECT_EQ(store.interfaces.size(), 0u);
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
}

TEST_F(Apply, DifferencesAreToldByTheExitStatus) {
    const auto diff = [this](const std::string &text) {
        const std::string name = daemon.root() + "/other.yaml";
        std::ofstream(name) << text;
        return daemon.pbrctl({"diff", name});
    };
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    const int changes = daemon.changes();
    EXPECT_EQ(diff(FIRST), 0);
    EXPECT_EQ(daemon.out, "");
    EXPECT_EQ(diff(SECOND), 1);
    EXPECT_TRUE(hasOut("+ probe ops/a: icmp 2001:db8::1, interval 1s")) << daemon.out;
    EXPECT_TRUE(hasOut("+ time-range 7: mon-fri 00:00-24:00")) << daemon.out;
    EXPECT_TRUE(hasOut("+ binding lan1: v6")) << daemon.out;
    EXPECT_EQ(diff("lists: {wan: {10: {acl: 99}}}\n"), 2);
    EXPECT_TRUE(hasErr("other.yaml:1: ACL 99")) << daemon.err;
    EXPECT_EQ(daemon.pbrctl({"diff", daemon.root() + "/nowhere.yaml"}), 2);
    EXPECT_EQ(daemon.pbrctl({"--root", "/nowhere", "diff", daemon.root() + "/other.yaml"}), cli::EXIT_USAGE);
    EXPECT_EQ(daemon.changes(), changes);
}

TEST_F(Apply, WhatIsExportedIsAppliedWithoutAStep) {
    ASSERT_EQ(apply(SECOND), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(daemon.pbrctl({"export"}), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.err, "");
    const std::string exported = daemon.out;
    ASSERT_EQ(apply(exported), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.out, "nothing to do\n");
    ASSERT_EQ(apply(FIRST), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(apply(exported), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(daemon.pbrctl({"export"}), cli::EXIT_DONE);
    EXPECT_EQ(daemon.out, exported);
}

TEST_F(Apply, AConfirmationNeedsADaemonThatCanWait) {
    EXPECT_EQ(apply(FIRST, {"--confirm", "0"}), cli::EXIT_USAGE);
    EXPECT_EQ(apply(FIRST, {"--confirm", "5", "--dry-run"}), cli::EXIT_USAGE);
    const FakeStore before = daemon.store();
    EXPECT_EQ(apply(FIRST, {"--confirm", "5"}), cli::EXIT_REFUSED); // the fake cannot
    EXPECT_TRUE(hasErr("cannot start a watcher that would roll back: unknown operation confirm.begin")) << daemon.err;
    EXPECT_TRUE(hasErr("\nNothing was changed.")) << daemon.err;
    EXPECT_TRUE(daemon.store() == before);
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
    EXPECT_EQ(json["warnings"].size(), 1u); // of node 20, which has no next hop
}

TEST_F(Apply, AMissingFileIsAnErrorOfTheCommandLine) {
    EXPECT_EQ(daemon.pbrctl({"apply", daemon.root() + "/nowhere.yaml"}), cli::EXIT_USAGE);
    EXPECT_TRUE(hasErr("nowhere.yaml: cannot be read")) << daemon.err;
}

} // namespace
