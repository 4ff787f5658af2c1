// Tests of the command line against a daemon in the test: single changes, reports, raw frames, statuses.
#include "cli/commands.h"

#include <sstream>

#include <gtest/gtest.h>

#include "cli/errors.h"
#include "core/pbr_types.h"
#include "tests/unit/cli/fake_daemon.h"

using nlohmann::json;

namespace {

struct Command : testing::Test {
    FakeDaemon daemon;

    void ok(const std::vector<std::string> &words) {
        ASSERT_EQ(daemon.pbrctl(words), cli::EXIT_DONE) << daemon.err;
    }
    // Refused with a text that tells `expected`; nothing is changed.
    void refused(const std::vector<std::string> &words, const std::string &expected) {
        const FakeStore before = daemon.store();
        EXPECT_EQ(daemon.pbrctl(words), cli::EXIT_REFUSED) << daemon.out;
        EXPECT_NE(daemon.err.find(expected), std::string::npos) << daemon.err;
        EXPECT_TRUE(daemon.store() == before);
    }
    void usage(const std::vector<std::string> &words) { EXPECT_EQ(daemon.pbrctl(words), cli::EXIT_USAGE) << words[0]; }
    void makeWan() {
        ok({"acl", "add", "1501", "10", "permit", "tcp", "to", "any", "port", "443"});
        ok({"list", "add", "wan"});
        ok({"node", "add", "wan", "10", "--acl", "1501"});
        ok({"next-hop", "add", "wan", "10", "192.0.2.1"});
        ok({"next-hop", "add", "wan", "10", "192.0.2.5"});
        ok({"bind", "lan0", "wan"});
    }
    json show(const std::string &what) {
        EXPECT_EQ(daemon.pbrctl({"show", what, "--json"}), cli::EXIT_DONE) << daemon.err;
        return json::parse(daemon.out);
    }
    json entry(std::vector<std::string> hops, const std::string &action = "next-hops", bool installed = true,
               const std::string &error = "") {
        return {{"list", "wan"}, {"node", 10}, {"interface", "lan0"}, {"ifUnit", 7}, {"acl", 1501},
                {"action", action}, {"ipVersion", 4}, {"ecmp", false}, {"nextHops", hops}, {"outInterface", ""},
                {"vrf", 0}, {"priority", 0}, {"installed", installed}, {"error", error}};
    }
    json peer(const std::string &address, const std::string &state, const std::string &reason = "") {
        return {{"vrf", 0}, {"version", 4}, {"address", address}, {"state", state}, {"reason", reason},
                {"interface", "upa"}, {"lladdr", "02:00:00:00:00:01"}};
    }
    std::string why(size_t hop) { return show("next-hops")[hop]["why"]; }
};

TEST_F(Command, EverySingleChangeAsksForTheRightToChangeThePolicy) {
    const std::vector<std::vector<std::string>> lines = {
        {"acl", "create", "1501"},
        {"acl", "add", "1501", "10", "permit", "tcp"},
        {"list", "add", "wan"},
        {"node", "add", "wan", "10", "--acl", "1501"},
        {"node", "set", "wan", "10", "--priority", "3"},
        {"next-hop", "add", "wan", "10", "192.0.2.1"},
        {"node", "otherwise", "wan", "10", "drop"},
        {"bind", "lan0", "wan"},
        {"unbind", "lan0"},
        {"next-hop", "del", "wan", "10", "1"},
        {"node", "clear", "wan", "10"},
        {"node", "del", "wan", "10"},
        {"list", "del", "wan"},
        {"acl", "del", "1501", "10"},
        {"acl", "destroy", "1501"},
        {"probe", "add", "ops/a", "icmp", "192.0.2.1"},
        {"probe", "del", "ops/a"},
        {"time-range", "add", "7", "--days", "mon-fri"},
        {"time-range", "del", "7"}};
    for (const auto &words : lines) {
        const bool isTopLevel = words[0] == "bind" || words[0] == "unbind";
        SCOPED_TRACE(words[0] + " " + words[1]);
        daemon.refusePid(4711, 1, "confirmation");
        refused(words, "process 4711 applies other.yaml");
        daemon.refusePid(4711, 2);
        daemon.logClear();
        const int status = daemon.pbrctl(words); // that the fake knows it is not asked here
        EXPECT_NE(status, cli::EXIT_USAGE) << daemon.err;
        EXPECT_EQ(daemon.err.find("process 4711"), std::string::npos) << daemon.err;
        ASSERT_FALSE(daemon.locks().empty());
        EXPECT_EQ(daemon.locks()[0],
                  "apply.lock {\"command\":\"" + (isTopLevel ? words[0] : words[0] + " " + words[1]) + "\"}");
        EXPECT_EQ(daemon.locks().back(), "apply.unlock {}");
    }
}

TEST_F(Command, WithoutAManagementSocketSingleChangesAreMadeAllTheSame) {
    daemon.offerNothing({"apply.lock", "apply.unlock"});
    ok({"list", "add", "wan"});
    EXPECT_EQ(daemon.store().lists.count("wan"), 1u);
}

TEST_F(Command, SingleChangesMakeAPolicy) {
    makeWan();
    const FakeStore store = daemon.store();
    const FakeNode &node = store.lists.at("wan").nodes.at(10);
    EXPECT_EQ(store.lists.at("wan").status, PBR_ROW_ACTIVE);
    EXPECT_EQ(node.fields.at(PBR_NODE_IP_VERSION), PBR_IP_VERSION_4);
    EXPECT_EQ(node.nextHops.size(), 2u);
    EXPECT_EQ(store.interfaces.at(7), "wan");
    EXPECT_EQ(store.acls.at(1501).at(10), "permit tcp to any port 443");
}

TEST_F(Command, SingleChangesUnmakeIt) {
    makeWan();
    ok({"unbind", "lan0"});
    ok({"next-hop", "del", "wan", "10", "192.0.2.5"});
    ok({"next-hop", "del", "wan", "10", "1"});
    ok({"node", "del", "wan", "10"});
    ok({"list", "del", "wan"});
    ok({"acl", "del", "1501", "10"});
    ok({"acl", "destroy", "1501"});
    EXPECT_TRUE(daemon.store() == FakeStore());
}

TEST_F(Command, ABoundListCannotBeChanged) {
    makeWan();
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"list", "del", "wan"}, {"node", "add", "wan", "20"}, {"node", "set", "wan", "10", "--vrf", "1"},
             {"node", "clear", "wan", "10"}, {"node", "del", "wan", "10"},
             {"next-hop", "add", "wan", "10", "192.0.2.9"}, {"next-hop", "del", "wan", "10", "1"}}) {
        refused(words, "list wan is bound to lan0 and cannot be changed meanwhile. What to do: pbrctl unbind lan0");
    }
}

TEST_F(Command, WhatDoesNotExistOrExistsIsRefused) {
    makeWan();
    ok({"unbind", "lan0"});
    refused({"list", "add", "wan"}, "exists already");
    refused({"list", "add", "0123456789abcdefg"}, "this one has 17");
    refused({"list", "add", ""}, "this one has 0");
    refused({"list", "add", "a/b"}, "no spaces, slashes or control characters");
    refused({"list", "add", "a b"}, "no spaces, slashes or control characters");
    refused({"list", "del", "lan"}, "list lan does not exist");
    refused({"node", "add", "lan", "10"}, "list lan does not exist");
    refused({"node", "add", "wan", "10"}, "exists already");
    refused({"node", "add", "wan", "0"}, "begins with 1");
    refused({"node", "set", "wan", "20", "--vrf", "1"}, "node wan/20 does not exist");
    refused({"next-hop", "add", "wan", "20", "192.0.2.1"}, "node wan/20 does not exist");
    refused({"next-hop", "del", "wan", "10", "192.0.2.77"}, "has no next hop 192.0.2.77");
    refused({"acl", "create", "1501"}, "exists already");
    refused({"bind", "lan0", "lan"}, "list lan does not exist");
    refused({"bind", "lan9", "wan"}, "interface lan9 does not exist");
    refused({"unbind", "lan1"}, "has no list bound");
    refused({"node", "add", "wan", "20", "--acl", "1999"}, "acl 1999 does not exist");
    refused({"node", "add", "wan", "20", "--acl", "1501"}, "already used by node wan/10");
    refused({"acl", "destroy", "1501"}, "acl 1501 is used by node wan/10");
}

TEST_F(Command, ANextHopThatDoesNotFitIsRefused) {
    makeWan();
    ok({"unbind", "lan0"});
    refused({"next-hop", "add", "wan", "10", "2001:db8::1"}, "is of IPv4, the next hop of IPv6");
    refused({"next-hop", "add", "wan", "10", "192.0.2.1"}, "has next hop 1 already");
    refused({"next-hop", "add", "wan", "10", "192.0.2.9", "--index", "2"}, "has next hop 2 already");
    ok({"next-hop", "add", "wan", "10", "192.0.2.9", "--index", "200"});
    ok({"next-hop", "add", "wan", "10", "192.0.2.10"});
    EXPECT_EQ(daemon.store().lists.at("wan").nodes.at(10).nextHops.count(201), 1u);
    refused({"next-hop", "add", "wan", "10", "192.0.2.11"}, "has four next hops");
    ok({"node", "add", "wan", "20"});
    refused({"next-hop", "add", "wan", "20", "192.0.2.1"}, "has no IP version yet");
}

TEST_F(Command, NextHopOneCannotBeAddedBehindOthers) {
    makeWan();
    ok({"unbind", "lan0"});
    ok({"next-hop", "del", "wan", "10", "1"});
    refused({"next-hop", "add", "wan", "10", "192.0.2.9", "--index", "1"}, "(0x044B0001). What to do: choose a higher");
}

TEST_F(Command, AHalfMadeNodeIsRemovedAgainWhicheverSetIsRefused) {
    ok({"acl", "create", "1501"});
    ok({"list", "add", "wan"});
    const FakeStore before = daemon.store();
    const std::vector<std::string> words = {"node", "add", "wan", "10", "--acl", "1501", "--vrf", "3", "--priority",
                                            "5", "--ecmp", "--interface", "tun0", "--time-range", "7"};
    for (int n = 1;; n++) {
        ASSERT_LT(n, 30);
        daemon.failChange(n);
        if (daemon.pbrctl(words) == cli::EXIT_DONE) {
            EXPECT_GT(n, 8);
            break;
        }
        ASSERT_TRUE(daemon.store() == before) << n << ": " << daemon.err;
    }
}

TEST_F(Command, AHalfChangedNodeIsAsBeforeWhicheverSetIsRefused) {
    ok({"acl", "create", "1501"});
    ok({"acl", "create", "3501"});
    ok({"acl", "create", "5001"});
    ok({"list", "add", "wan"});
    // Without a version, so that the change must take its ACL off, set the version and put another on.
    ok({"node", "add", "wan", "10", "--acl", "5001", "--vrf", "2", "--time-range", "5"});
    const FakeStore before = daemon.store();
    const std::vector<std::string> words = {"node", "set", "wan", "10", "--acl", "3501", "--ip-version", "6", "--vrf",
                                            "3", "--priority", "5", "--interface", "tun0", "--time-range", "7"};
    for (int n = 1;; n++) {
        ASSERT_LT(n, 30);
        daemon.failChange(n);
        if (daemon.pbrctl(words) == cli::EXIT_DONE) {
            EXPECT_GT(n, 7);
            break;
        }
        ASSERT_TRUE(daemon.store() == before) << n << ": " << daemon.err;
    }
    const FakeNode node = daemon.store().lists.at("wan").nodes.at(10);
    EXPECT_EQ(node.fields.at(PBR_NODE_ACL_NUM), 3501u);
    EXPECT_EQ(node.fields.at(PBR_NODE_IP_VERSION), PBR_IP_VERSION_6);
    EXPECT_EQ(node.fields.at(PBR_NODE_TIME_RANGE_ID), 7u);
}

TEST_F(Command, AHalfMadeNextHopIsRemovedAgain) {
    makeWan();
    ok({"unbind", "lan0"});
    const FakeStore before = daemon.store();
    for (int n = 1;; n++) {
        ASSERT_LT(n, 10);
        daemon.failChange(n);
        if (daemon.pbrctl({"next-hop", "add", "wan", "10", "192.0.2.9", "--probe", "ops/a"}) == cli::EXIT_DONE) {
            EXPECT_EQ(n, 6);
            break;
        }
        ASSERT_TRUE(daemon.store() == before) << n << ": " << daemon.err;
    }
}

TEST_F(Command, AFailedBindLeavesNoEntryAndKeepsTheOldList) {
    makeWan();
    ok({"list", "add", "b"});
    const FakeStore before = daemon.store();
    for (const char *pInterface : {"lan0", "lan1"}) {
        for (const int n : {1, 2}) {
            daemon.failChange(n, PBR_ERR_BIND);
            EXPECT_EQ(daemon.pbrctl({"bind", pInterface, "b"}), cli::EXIT_REFUSED);
            EXPECT_TRUE(daemon.store() == before) << pInterface << " " << n << daemon.err;
        }
    }
    ok({"bind", "lan0", "b"});
    EXPECT_EQ(daemon.store().interfaces.at(7), "b");
}

TEST_F(Command, AListWhoseNodesAreNotCompleteCannotBeBound) {
    ok({"acl", "create", "1501"});
    ok({"list", "add", "wan"});
    ok({"node", "add", "wan", "10"});
    refused({"bind", "lan0", "wan"}, "node wan/10 has no ACL");
    ok({"node", "set", "wan", "10", "--acl", "1501"});
    refused({"bind", "lan0", "wan"}, "node wan/10 has no action");
    ok({"node", "set", "wan", "10", "--priority", "3"});
    ok({"bind", "lan0", "wan"});
}

TEST_F(Command, ABindingThatTheDeviceDoesNotTakeIsToldWithItsReason) {
    makeWan();
    ok({"unbind", "lan0"});
    const uint32_t lan0 = 7;
    daemon.entriesAre({{{"list", "wan"}, {"node", 10}, {"ifUnit", lan0}, {"error", "priority 12 cannot be set"}},
                       {{"list", "wan"}, {"node", 10}, {"ifUnit", lan0 + 1}, {"error", "elsewhere"}}});

    EXPECT_EQ(daemon.pbrctl({"bind", "lan0", "wan"}), cli::EXIT_REFUSED);

    EXPECT_NE(daemon.err.find("node wan/10: priority 12 cannot be set"), std::string::npos) << daemon.err;
    EXPECT_EQ(daemon.err.find("elsewhere"), std::string::npos);
}

TEST_F(Command, ASixteenthBindingOfAListIsRefused) {
    ok({"list", "add", "wan"});
    for (uint32_t unit = 101; unit <= 115; unit++) {
        ok({"bind", "unit:" + std::to_string(unit), "wan"});
    }
    refused({"bind", "unit:116", "wan"}, "bound to 15 interfaces");
    ok({"bind", "unit:101", "wan"}); // bound already
}

TEST_F(Command, BindingWarnsOfNodesBehindNextHops) {
    makeWan();
    ok({"unbind", "lan0"});
    ok({"acl", "create", "1502"});
    ok({"node", "add", "wan", "20", "--acl", "1502", "--priority", "3"});
    ok({"bind", "lan0", "wan"});
    EXPECT_NE(daemon.err.find("warning: node wan/20 has no next hop and stands behind node 10"), std::string::npos);
}

TEST_F(Command, AnIpVersionCannotBeChangedWithoutClearing) {
    makeWan();
    ok({"unbind", "lan0"});
    refused({"node", "set", "wan", "10", "--ip-version", "6"}, "clear the node");
    ok({"node", "clear", "wan", "10"});
    ok({"node", "set", "wan", "10", "--acl", "0"});
    ok({"node", "set", "wan", "10", "--ip-version", "6"});
}

TEST_F(Command, WordsOfTheCommandLineMayBeNamesOfLists) {
    for (const char *pName : {"list", "add", "show", "bind", "wan"}) {
        ok({"list", "add", pName});
    }
    EXPECT_EQ(daemon.store().lists.size(), 5u);
}

TEST_F(Command, WrongCommandLinesHaveStatusTwo) {
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"frobnicate"}, {"show"}, {"show", "nothing"}, {"list", "add"}, {"node", "add", "wan", "ten"},
             {"node", "add", "wan", "1", "--priority", "9"}, {"node", "add", "wan", "1", "--ip-version", "5"},
             {"next-hop", "add", "wan", "1", "nowhere"}, {"debug", "set", "everything"},
             {"time-range", "7", "maybe"}, {"raw", "no-such"}, {"raw", "1", "--key", "xyz"},
             {"raw", "9", "--key", "list:a", "--number", "1", "--bytes", "00"}, {"raw", "10", "--number", "-1"}}) {
        // A list to look at, so that only the command line can be wrong.
        FakeStore store;
        store.lists["wan"];
        daemon.put(store);
        usage(words);
    }
}

TEST_F(Command, HelpAndVersionAreNoErrors) {
    ok({"--help"});
    EXPECT_NE(daemon.out.find("apply"), std::string::npos);
    ok({"--version"});
    EXPECT_EQ(daemon.out, "pbrctl 0.1.0\n");
    ok({"node", "add", "--help"});
}

TEST(CommandWithoutDaemon, HasStatusThreeAndNamesTheSocket) {
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{"show", "lists"}, {"show", "acls"}, {"show", "device"},
                                               {"device", "flush"}, {"list", "add", "wan"}, {"raw", "1"}}) {
        std::vector<std::string> line = {"--root", "/nonexistent"};
        line.insert(line.end(), words.begin(), words.end());
        std::ostringstream out, err;
        EXPECT_EQ(cli::pbrctlRun(line, out, err), cli::EXIT_NO_DAEMON);
        EXPECT_NE(err.str().find("/nonexistent/tmp/policyroute"), std::string::npos) << err.str();
    }
}

TEST_F(Command, DebugSetsTheFlagWord) {
    ok({"debug", "set", "hw,event,dump"});
    ok({"debug", "set", "off"});
    EXPECT_EQ(daemon.log(), (std::vector<std::string>{"scalar field 4 = 76", "scalar field 4 = 0"}));
}

TEST_F(Command, TimeRangesAreSwitchedByHand) {
    ok({"time-range", "7", "on"});
    EXPECT_EQ(daemon.log(), (std::vector<std::string>{"timerange.set {\"active\":true,\"id\":7}"}));
}

// ---- raw ----

TEST_F(Command, EventsCarryUnitsAndNumbers) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> expected = {
        {{"link", "lan0"}, R"({"event":"link-new","unit":7})"},
        {{"link", "lan0", "--joined", "lan1"}, R"({"aggregation":8,"event":"link-joined","unit":7})"},
        {{"link", "lan0", "--added", "lan1"}, R"({"event":"port-added","port":8,"unit":7})"},
        {{"link", "lan0", "--removed", "unit:99"}, R"({"event":"port-removed","port":99,"unit":7})"},
        {{"gone", "unit:99"}, R"({"event":"link-gone","unit":99})"},
        {{"port-reset", "lan1"}, R"({"event":"port-reset","unit":8})"},
        {{"card-up"}, R"({"card":0,"event":"card-up","slot":0,"type":0})"},
        {{"card-up", "--slot", "1", "--card", "2", "--type", "3"}, R"({"card":2,"event":"card-up","slot":1,"type":3})"},
        {{"slot-up", "--slot", "5", "--type", "6"}, R"({"event":"slot-up","slot":5,"type":6})"},
        {{"probe", "ops/http", "none"}, R"({"admin":"ops","event":"probe","status":"none","test":"http"})"}};
    for (const auto &[words, request] : expected) {
        std::vector<std::string> line = {"event"};
        line.insert(line.end(), words.begin(), words.end());
        ok(line);
        EXPECT_EQ(daemon.out, "published: type 7 to group 8, 2 bytes\n");
        EXPECT_EQ(daemon.log().back(), "event " + request);
    }
    ok({"--json", "event", "card-up"});
    EXPECT_EQ(json::parse(daemon.out), (json{{"type", 7}, {"group", 8}, {"message", "0102"}}));
}

TEST_F(Command, WrongEventsAreRefused) {
    refused({"event", "gone", "lan9"}, "interface lan9 does not exist");
    refused({"event", "link", "lan0", "--added", "lan9"}, "interface lan9 does not exist");
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"event"}, {"event", "card-down"}, {"event", "link"}, {"event", "card-up", "--slot", "x"},
             {"event", "link", "lan0", "--added", "lan1", "--joined", "lan1"},
             {"event", "link", "lan0", "--added", "lan1", "--removed", "lan1"},
             {"event", "probe", "ops", "passing"}, {"event", "probe", "a/b", "perhaps"}}) {
        usage(words);
    }
}

TEST_F(Command, TheShellsOutputComesByteForByte) {
    ok({"shell", "report"});
    EXPECT_EQ(daemon.out, "\n\r one\r\n\ttwo[]");
    ok({"shell", "report", "=", "1"});
    EXPECT_EQ(daemon.out, "\n\r one\r\n\ttwo[\"=\",\"1\"]");
    ok({"shell", "bytes"});
    EXPECT_EQ(daemon.out, std::string("\0\xff\nA", 4));
    ok({"--json", "shell", "report"});
    EXPECT_EQ(json::parse(daemon.out), (json{{"result", 0}, {"output", "\n\r one\r\n\ttwo[]"}}));
}

TEST_F(Command, TheShellTellsWhatItHasAndWhatItRefuses) {
    ok({"shell"});
    EXPECT_EQ(daemon.out, "command  report\nswitch   level\n");
    refused({"shell", "nothing"}, "the shell has no \"nothing\"");
    EXPECT_EQ(daemon.pbrctl({"shell", "fails"}), cli::EXIT_REFUSED);
    EXPECT_EQ(daemon.out, "half");
    EXPECT_EQ(daemon.err, "pbrctl: fails returned -7\n");
}

TEST_F(Command, RawPrintsResultKeyAndValue) {
    makeWan();
    ok({"raw", "list-get-first", "--key", "list:"});
    EXPECT_NE(daemon.out.find("result 0x00000000 done\n"), std::string::npos) << daemon.out;
    EXPECT_NE(daemon.out.find("list:wan"), std::string::npos) << daemon.out;
    ok({"raw", "12", "--key", "node:wan/10", "--field", "4"});
    EXPECT_EQ(daemon.out, "result 0x00000000 done\nnumber 1501 0x000005DD\n");
    ok({"raw", "next-hop-get", "--key", "node:wan/10/2", "--field", "2"});
    EXPECT_EQ(daemon.out, "result 0x00000000 done\nbytes  4 c0000205\n");
    ok({"raw", "if-get", "--key", "if:lan0", "--field", "4"});
    EXPECT_NE(daemon.out.find("  field 1 = 1\n  field 2 = \"wan\"\n"), std::string::npos) << daemon.out;
}

TEST_F(Command, RawSetsNumbersBytesAndTexts) {
    makeWan();
    ok({"unbind", "lan0"});
    ok({"raw", "node-set", "--key", "node:wan/10", "--field", "11", "--number", "0x10"});
    ok({"raw", "next-hop-set", "--key", "node:wan/10/2", "--field", "2", "--bytes", "c0:00:02:07"});
    ok({"raw", "next-hop-set", "--key", "node:wan/10/2", "--field", "4", "--text", "ops"});
    const FakeNode node = daemon.store().lists.at("wan").nodes.at(10);
    EXPECT_EQ(node.fields.at(PBR_NODE_VRF_ID), 16u);
    EXPECT_EQ(node.nextHops.at(2).address, (client::Bytes{192, 0, 2, 7}));
    EXPECT_EQ(node.nextHops.at(2).admin, "ops");
}

TEST_F(Command, RawHasStatusOneWhenTheDaemonRefuses) {
    EXPECT_EQ(daemon.pbrctl({"raw", "9", "--key", "list:nowhere", "--field", "3"}), cli::EXIT_REFUSED);
    EXPECT_EQ(daemon.out, "result 0x03E80002 it does not exist\n");
    EXPECT_EQ(daemon.pbrctl({"raw", "9", "--key", "list:nowhere", "--field", "3", "--json"}), cli::EXIT_REFUSED);
    EXPECT_EQ(json::parse(daemon.out)["result"], PBR_ERR_NO_ROW);
}

// ---- show ----

TEST_F(Command, ListsAreShownAlignedWithMatchAndAction) {
    makeWan();
    ok({"show", "lists"});
    EXPECT_EQ(daemon.out, "LIST  BOUND TO  NODE  MATCH     ACTION\n"
                          "wan   lan0        10  acl 1501  next hops 192.0.2.1, 192.0.2.5\n");
    const json lists = show("lists");
    EXPECT_EQ(lists[0]["nodes"][0]["nextHops"][1]["address"], "192.0.2.5");
    EXPECT_EQ(lists[0]["interfaces"], json::array({"lan0"}));
}

TEST_F(Command, EmptyReportsSaySo) {
    for (const auto &[pWhat, pExpected] : {std::pair{"lists", "no lists\n"}, std::pair{"bindings", "no bindings\n"},
                                           std::pair{"next-hops", "no next hops\n"}, std::pair{"acls", "no ACLs\n"}}) {
        ok({"show", pWhat});
        EXPECT_EQ(daemon.out, pExpected);
        EXPECT_EQ(show(pWhat), json::array());
    }
}

TEST_F(Command, BindingsTellHowMuchIsInTheDevice) {
    makeWan();
    daemon.entriesAre(json::array({entry({"192.0.2.1"}), entry({}, "inert", false)}));
    ok({"show", "bindings"});
    EXPECT_EQ(daemon.out, "INTERFACE  UNIT  UP   LIST  NODES  ENTRIES  INSTALLED  ERROR\n"
                          "lan0          7  yes  wan       1        1          1  -\n");
}

TEST_F(Command, AclsAndCountersAreShown) {
    makeWan();
    ok({"show", "acls"});
    EXPECT_EQ(daemon.out, " ACL  USERS  RULE  TEXT\n1501      0    10  permit tcp to any port 443\n");
    ok({"show", "counters"});
    EXPECT_NE(daemon.out.find("daemon.maxLists  64\n"), std::string::npos) << daemon.out;
    EXPECT_NE(daemon.out.find("bus.lost         0\n"), std::string::npos) << daemon.out;
}

TEST_F(Command, DeviceEntriesAreShown) {
    makeWan();
    daemon.entriesAre(json::array({entry({"192.0.2.1"}, "next-hops", false, "no such table")}));
    ok({"show", "device"});
    EXPECT_NE(daemon.out.find("wan     10  lan0       1501  next-hops  192.0.2.1    0         0  no         no such table"),
              std::string::npos)
        << daemon.out;
}

TEST_F(Command, AChosenNextHopNeedsNoReasonAndTheOtherNamesIt) {
    makeWan();
    daemon.peersAre(json::array({peer("192.0.2.1", "up"), peer("192.0.2.5", "up")}));
    daemon.entriesAre(json::array({entry({"192.0.2.1"})}));
    const json hops = show("next-hops");
    EXPECT_EQ(hops[0]["reachable"], "up");
    EXPECT_EQ(hops[0]["chosen"], true);
    EXPECT_EQ(hops[0]["installed"], true);
    EXPECT_EQ(hops[0]["why"], "");
    EXPECT_EQ(hops[1]["chosen"], false);
    EXPECT_EQ(hops[1]["why"], "another next hop is preferred: 192.0.2.1 comes first");
    ok({"show", "next-hops"});
    EXPECT_EQ(daemon.out,
              "LIST  NODE  HOP  ADDRESS    VRF  PROBE  REACHABLE  CHOSEN  IN DEVICE  WHY NOT\n"
              "wan     10    1  192.0.2.1    0  -      up         yes     yes        -\n"
              "              2  192.0.2.5    0  -      up         no      no         another next hop is preferred: "
              "192.0.2.1 comes first\n");
}

TEST_F(Command, EveryReasonWhyANextHopIsNotUsedIsTold) {
    makeWan();
    daemon.entriesAre(json::array({entry({}, "inert", false)}));
    daemon.peersAre(json::array({peer("192.0.2.1", "down", "no neighbour on upa"), peer("192.0.2.5", "unknown")}));
    EXPECT_EQ(why(0), "unreachable: no neighbour on upa");
    EXPECT_EQ(why(1), "not resolved yet");

    daemon.peersAre(json::array({peer("192.0.2.1", "up"), peer("192.0.2.5", "up")}));
    EXPECT_EQ(why(0), "not taken over yet");
    daemon.entriesAre(json::array({entry({"192.0.2.1"}, "next-hops", false, "table full")}));
    EXPECT_EQ(why(0), "device: table full");
    daemon.entriesAre(json::array({entry({"192.0.2.1"}, "next-hops", false)}));
    EXPECT_EQ(why(0), "not in the device yet");

    FakeStore store = daemon.store();
    FakeNode &node = store.lists["wan"].nodes[10];
    node.nextHops[1].admin = "ops";
    node.nextHops[1].test = "a";
    daemon.put(store);
    daemon.entriesAre(json::array({entry({"192.0.2.5"})}));
    EXPECT_EQ(why(0), "probe ops/a is not passing");
    EXPECT_EQ(why(1), "");

    node.fields[PBR_NODE_TIME_RANGE_ID] = 7;
    daemon.put(store);
    daemon.entriesAre(json::array({entry({}, "absent", false)}));
    EXPECT_EQ(why(1), "time range 7 is not active");

    node.fields[PBR_NODE_FORWARD_FLAG] = 2;
    daemon.put(store);
    EXPECT_EQ(why(1), "forward flag 2: the node is not programmed");
    node.nextHops[2].address.clear();
    node.fields[PBR_NODE_FORWARD_FLAG] = 0;
    daemon.put(store);
    EXPECT_EQ(why(1), "it has no address");
    node.fields[PBR_NODE_ACL_NUM] = 0;
    daemon.put(store);
    EXPECT_EQ(why(1), "the node has no ACL");
    store.interfaces.clear();
    daemon.put(store);
    EXPECT_EQ(why(1), "the list is not bound to an interface");
}

TEST_F(Command, EcmpMembersAreAllChosen) {
    makeWan();
    json both = entry({"192.0.2.1", "192.0.2.5"});
    daemon.peersAre(json::array({peer("192.0.2.1", "up"), peer("192.0.2.5", "up")}));
    daemon.entriesAre(json::array({both}));
    EXPECT_EQ(why(0), "");
    EXPECT_EQ(why(1), "");
}

TEST_F(Command, ANextHopIsInTheDeviceOnlyWhenEveryInterfaceHasIt) {
    makeWan();
    ok({"bind", "lan1", "wan"});
    daemon.peersAre(json::array({peer("192.0.2.1", "up")}));
    json second = entry({"192.0.2.1"}, "next-hops", false, "table full");
    second["ifUnit"] = 8;
    daemon.entriesAre(json::array({entry({"192.0.2.1"}), second}));
    const json hops = show("next-hops");
    EXPECT_EQ(hops[0]["chosen"], true);
    EXPECT_EQ(hops[0]["installed"], false);
    EXPECT_EQ(hops[0]["why"], "device: table full");
}

TEST_F(Command, PeersOfAnotherVrfAreOthers) {
    makeWan();
    json other = peer("192.0.2.1", "up");
    other["vrf"] = 3;
    daemon.peersAre(json::array({other}));
    EXPECT_EQ(show("next-hops")[0]["reachable"], json());
}

} // namespace
