// `pbrctl check`, and the warnings that come with a bind and an apply, against a daemon in the test.
#include <gtest/gtest.h>

#include "cli/check.h"
#include "cli/errors.h"
#include "tests/unit/cli/fake_daemon.h"

using nlohmann::json;

namespace {

json notice(const std::string &text) { return {{"code", "kernel"}, {"text", text}, {"advice", "mend it"}}; }

json answer(uint64_t entries, uint64_t interfaces, uint64_t repairs = 0) {
    return {{"compared", true}, {"entries", entries}, {"interfaces", interfaces}, {"repairs", repairs},
            {"differences", json::array()}, {"warnings", json::array()}};
}

TEST(CheckText, TheLineCountsEntriesInterfacesAndRepairs) {
    EXPECT_EQ(cli::checkOkText(answer(12, 3)), "ok: 12 entries on 3 interfaces, kernel as installed");
    EXPECT_EQ(cli::checkOkText(answer(1, 1, 1)),
              "ok: 1 entry on 1 interface, kernel as installed (repaired 1 time since the start)");
    EXPECT_EQ(cli::checkOkText({{"compared", false}}),
              "ok: the device in use steers no packets; there is no kernel to compare");
}

TEST(CheckCommand, AgreementIsOneLineAndSuccess) {
    FakeDaemon daemon;
    daemon.checkAnswers(answer(2, 1));
    EXPECT_EQ(daemon.pbrctl({"check"}), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.out, "ok: 2 entries on 1 interface, kernel as installed\n");
    EXPECT_EQ(daemon.err, "");
}

TEST(CheckCommand, DifferencesAreListedAndWarningsAloneAreNoFailure) {
    FakeDaemon daemon;
    json given = answer(2, 1);
    given["warnings"] = {notice("forwarding is off")};
    daemon.checkAnswers(given);
    EXPECT_EQ(daemon.pbrctl({"check"}), cli::EXIT_DONE);
    EXPECT_EQ(daemon.err, "warning: forwarding is off. What to do: mend it\n");
    given["differences"] = {notice("IPv4 rule 15000 is missing"), notice("chain prerouting holds other rules")};
    daemon.checkAnswers(given);
    EXPECT_EQ(daemon.pbrctl({"check"}), cli::EXIT_REFUSED);
    EXPECT_EQ(daemon.out, "2 differences between kernel, device and policy:\n"
                          "  IPv4 rule 15000 is missing. What to do: mend it\n"
                          "  chain prerouting holds other rules. What to do: mend it\n");
    EXPECT_EQ(daemon.pbrctl({"check", "--json"}), cli::EXIT_REFUSED);
    EXPECT_EQ(json::parse(daemon.out), given);
}

TEST(CheckCommand, ADaemonThatCannotCheckIsNamedAsTheReason) {
    FakeDaemon daemon;
    daemon.offerNothing({"device.check"});
    EXPECT_EQ(daemon.pbrctl({"check"}), cli::EXIT_REFUSED);
    EXPECT_NE(daemon.err, "");
}

TEST(BindCommand, WhatBreaksForwardingIsToldWithTheBinding) {
    FakeDaemon daemon;
    json given = answer(0, 0);
    given["warnings"] = {notice("this machine forwards no IPv4 packets")};
    daemon.checkAnswers(given);
    ASSERT_EQ(daemon.pbrctl({"list", "add", "wan"}), cli::EXIT_DONE) << daemon.err;
    EXPECT_EQ(daemon.pbrctl({"bind", "lan0", "wan"}), cli::EXIT_DONE) << daemon.err;
    EXPECT_NE(daemon.err.find("warning: this machine forwards no IPv4 packets. What to do: mend it\n"), std::string::npos)
        << daemon.err;
}

} // namespace
