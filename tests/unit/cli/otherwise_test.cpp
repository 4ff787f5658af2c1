// What nodes do with nothing usable: reading, planning, exporting and switching it.
#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "cli/errors.h"
#include "cli/export.h"
#include "cli/planner.h"
#include "cli/policy_file.h"
#include "tests/unit/cli/fake_daemon.h"

namespace {

struct Applied : FakeDaemon {
    int applyText(const std::string &text) {
        const std::string name = root() + "/policy.yaml";
        std::ofstream(name) << text;
        return pbrctl({"apply", name});
    }
};

using Places = std::set<std::pair<std::string, uint32_t>>;

std::string fileOf(const std::string &first, const std::string &second = "") {
    return "acls:\n  1501: {10: permit udp}\n  1502: {10: permit tcp}\nlists:\n  wan:\n"
           "    10: {acl: 1501, next-hops: [192.0.2.1]" + first + "}\n"
           "    20: {acl: 1502, next-hops: [192.0.2.1]" + second + "}\nbindings:\n  lan0: wan\n";
}

cli::Policy read(const std::string &text) {
    const cli::PolicyFile file = cli::policyFileRead("test", text);
    EXPECT_TRUE(file.problems.empty()) << file.problems[0];
    return file.policy;
}

std::string problemOf(const std::string &text) {
    const cli::PolicyFile file = cli::policyFileRead("test", text);
    return file.problems.empty() ? "" : file.problems[0];
}

TEST(Otherwise, AFileNamesTheNodesThatDrop) {
    EXPECT_EQ(read(fileOf(", otherwise: drop")).otherwiseDrop, (Places{{"wan", 10}}));
    EXPECT_EQ(read(fileOf(", otherwise: normal", ", otherwise: drop")).otherwiseDrop, (Places{{"wan", 20}}));
    EXPECT_EQ(read(fileOf("")).otherwiseDrop, Places{});
}

TEST(Otherwise, OtherWordsAndNodesThatSendNowhereAreRefused) {
    EXPECT_NE(problemOf(fileOf(", otherwise: discard")).find("otherwise must be normal"), std::string::npos);
    EXPECT_NE(problemOf("acls: {1501: {10: permit udp}}\nlists: {wan: {10: {acl: 1501, priority: 5, otherwise: drop}}}\n")
                  .find("otherwise: drop needs next-hops or an interface"),
              std::string::npos);
}

TEST(Otherwise, ItIsSetBeforeANodeActsAndTakenBackAfterwardsAndTouchesNoNode) {
    cli::Policy before = read(fileOf(", otherwise: drop")), after = read(fileOf("", ", otherwise: drop"));
    before.bindings[0].unit = after.bindings[0].unit = 7;
    const cli::Plan plan = cli::planMake(before, after, {});
    ASSERT_EQ(plan.steps.size(), 2u);
    EXPECT_EQ(plan.steps[0].drops, (Places{{"wan", 10}, {"wan", 20}}));
    EXPECT_EQ(plan.steps[1].drops, (Places{{"wan", 20}}));
    EXPECT_EQ(cli::stepUndo(plan.steps[1]).drops, plan.steps[0].drops);
    EXPECT_EQ(cli::stepUndo(plan.steps[0]).drops, before.otherwiseDrop);
    EXPECT_EQ(plan.lines, (std::vector<std::string>{"- node wan/10: otherwise drop", "+ node wan/20: otherwise drop"}));
    EXPECT_EQ(plan.held, (std::set<std::string>{"wan"})) << "packets see one change";
    EXPECT_TRUE(cli::planMake(after, after, {}).steps.empty());
}

TEST(Otherwise, WhatWasLeftOfANodeThatIsGoneIsTakenAway) {
    cli::Policy running = read(fileOf(""));
    running.otherwiseDrop.insert({"old", 5});
    const cli::Plan plan = cli::planMake(running, read(fileOf("")), {});
    ASSERT_EQ(plan.steps.size(), 1u);
    EXPECT_EQ(plan.steps[0].drops, Places{});
}

TEST(Otherwise, AnExportSaysItAndReadsBackAsTheSame) {
    const cli::Policy policy = read(fileOf(", otherwise: drop"));
    const cli::Exported made = cli::exportText(policy);
    EXPECT_TRUE(made.unsaid.empty()) << made.unsaid[0];
    EXPECT_NE(made.text.find("otherwise: drop"), std::string::npos) << made.text;
    EXPECT_EQ(read(made.text).otherwiseDrop, policy.otherwiseDrop);
}

TEST(OtherwiseCommand, ApplySetsItAndARefusedStepBringsItBack) {
    Applied daemon;
    ASSERT_EQ(daemon.applyText(fileOf("")), cli::EXIT_DONE) << daemon.err;
    const FakeStore before = daemon.store();
    daemon.failChange(2);
    EXPECT_EQ(daemon.applyText(fileOf(", otherwise: drop, priority: 3")), cli::EXIT_REFUSED);
    EXPECT_TRUE(daemon.store() == before);
    ASSERT_EQ(daemon.applyText(fileOf(", otherwise: drop")), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.store().drops, (Places{{"wan", 10}}));
}

TEST(OtherwiseCommand, ANodeIsSwitchedByHandAndForgottenWithTheNode) {
    Applied daemon;
    ASSERT_EQ(daemon.applyText(fileOf("")), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(daemon.pbrctl({"node", "otherwise", "wan", "10", "drop"}), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.store().drops, (Places{{"wan", 10}}));
    ASSERT_EQ(daemon.pbrctl({"show", "lists"}), cli::EXIT_DONE);
    EXPECT_NE(daemon.out.find("otherwise drop"), std::string::npos) << daemon.out;
    ASSERT_EQ(daemon.pbrctl({"show", "next-hops"}), cli::EXIT_DONE);
    EXPECT_NE(daemon.out.find("OTHERWISE"), std::string::npos) << daemon.out;
    EXPECT_EQ(daemon.pbrctl({"node", "otherwise", "wan", "30", "drop"}), cli::EXIT_REFUSED);
    EXPECT_EQ(daemon.pbrctl({"node", "otherwise", "wan", "10", "maybe"}), cli::EXIT_USAGE);
    ASSERT_EQ(daemon.pbrctl({"unbind", "lan0"}), cli::EXIT_DONE) << daemon.err;
    ASSERT_EQ(daemon.pbrctl({"node", "del", "wan", "10"}), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.store().drops, Places{});
}

} // namespace
