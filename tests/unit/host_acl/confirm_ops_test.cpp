// The right to change the policy, confirmations, and what is held meanwhile, over the real socket.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "host/mgmt/confirm_ops.h"
#include "host/mgmt/hold_ops.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;
using hosttest::Client;
using nlohmann::json;

struct ConfirmOps : testing::Test {
    static void SetUpTestSuite() {
        confirmOpsRegister();
        holdOpsRegister();
        ASSERT_EQ(hosttest::mgmtOpen(), "");
    }
    // What one test leaves ends with its connections; the next one begins when the server has seen that.
    void SetUp() override {
        Client client(path());
        until([&] { return client.call({{"op", "confirm.show"}})["pending"] == false; });
        until([&] { return client.call({{"op", "apply.lock"}, {"pid", 1}, {"file", "none"}}).value("ok", false); });
        ok(client, {{"op", "apply.unlock"}});
        until([&] { return client.call({{"op", "device.hold"}, {"lists", json::array()}}).value("ok", false); });
        ok(client, {{"op", "device.release"}});
    }

    // Asks until it is so, which the server's next rounds bring about.
    static void until(const std::function<bool()> &isSo) {
        for (int i = 0; i < 100000; i++) {
            if (isSo()) {
                return;
            }
        }
        FAIL() << "it does not come about";
    }

    static std::string path() { return hosttest::root() + "/tmp/policyroutemgmt.socket"; }
    static json ok(Client &client, const json &request) {
        json answer = client.call(request);
        EXPECT_EQ(answer.value("ok", false), true) << request << " " << answer;
        return answer;
    }
    static std::string refused(Client &client, const json &request) {
        const json answer = client.call(request);
        EXPECT_EQ(answer.value("ok", true), false) << request << " " << answer;
        return answer.value("error", "");
    }
    static json lock(const char *pKind, const char *pWhat) { return {{"op", "apply.lock"}, {"pid", 4711}, {pKind, pWhat}}; }
    static json begin() { return {{"op", "confirm.begin"}, {"pid", 4712}, {"file", "p.yaml"}, {"seconds", 600}}; }
    static json wait(uint32_t milliseconds) { return {{"op", "confirm.wait"}, {"milliseconds", milliseconds}}; }
    // "confirm.wait" is answered later: what is asked behind it shows that it has been read.
    void waits(Client &client, uint32_t milliseconds) {
        client.send(wait(milliseconds).dump() + "\n");
        until([&] { return ok(other, {{"op", "confirm.show"}})["state"] == "waiting"; });
    }

    Client owner{path()}, other{path()};
};

TEST_F(ConfirmOps, OneClientHasTheRightToChangeThePolicy) {
    ok(owner, lock("file", "p.yaml"));
    ok(owner, lock("file", "q.yaml")); // its own again
    const json told = other.call(lock("file", "r.yaml"));
    EXPECT_EQ(told["ok"], false);
    EXPECT_EQ(told["holder"], "apply");
    EXPECT_EQ(told["who"], "process 4711 applies q.yaml");
    EXPECT_EQ(told["error"], "another change of the policy is under way: process 4711 applies q.yaml; try again when it has "
                             "ended. Nothing was changed");
    EXPECT_EQ(refused(other, {{"op", "apply.unlock"}}), "this connection has not the lock");
    ok(owner, {{"op", "apply.unlock"}});
    ok(other, lock("command", "node set"));
    const json single = owner.call(lock("file", "p.yaml"));
    EXPECT_EQ(single["holder"], "change");
    EXPECT_EQ(single["who"], "process 4711 runs 'pbrctl node set'");
}

TEST_F(ConfirmOps, TheRightEndsWithItsConnection) {
    auto pGone = std::make_unique<Client>(path());
    ok(*pGone, lock("file", "p.yaml"));
    pGone.reset();
    until([&] { return other.call(lock("file", "q.yaml")).value("ok", false); }); // until the server has seen the end
    ok(other, {{"op", "apply.unlock"}});
}

TEST_F(ConfirmOps, RequestsThatAreNotWholeAreRefused) {
    EXPECT_EQ(refused(owner, {{"op", "apply.lock"}, {"pid", 0}, {"file", "x"}}), "member \"pid\" must be a whole number 1 to 2147483647");
    EXPECT_EQ(refused(owner, {{"op", "apply.lock"}, {"pid", 1}}), "member \"file\" is missing: it must be a text");
    EXPECT_EQ(refused(owner, {{"op", "apply.lock"}, {"pid", 1}, {"file", "x"}, {"command", "y"}}), "give \"file\" or \"command\"");
    EXPECT_EQ(refused(owner, {{"op", "confirm.begin"}, {"pid", 1}, {"file", "x"}, {"seconds", 86401}}),
              "member \"seconds\" must be a whole number 1 to 86400");
    EXPECT_EQ(refused(owner, wait(1)), "this connection has begun nothing that could be confirmed");
    EXPECT_EQ(refused(owner, {{"op", "confirm"}}), "nothing waits for a confirmation");
    EXPECT_EQ(refused(owner, {{"op", "device.hold"}, {"lists", {1}}}), "member \"lists\" must be a list of names");
    EXPECT_EQ(refused(owner, {{"op", "device.release"}}), "nothing is held by this connection");
    EXPECT_EQ(ok(owner, {{"op", "confirm.show"}}), (json{{"ok", true}, {"pending", false}}));
}

TEST_F(ConfirmOps, AConfirmationAnswersTheOneThatWaits) {
    ok(owner, begin());
    EXPECT_EQ(ok(other, {{"op", "confirm.show"}}), (json{{"ok", true}, {"pending", true}, {"file", "p.yaml"}, {"pid", 4712},
                                                         {"state", "applying"}, {"secondsLeft", 600}}));
    waits(owner, 600000);
    EXPECT_EQ(ok(other, {{"op", "confirm"}})["file"], "p.yaml");
    EXPECT_EQ(owner.answer(), (json{{"ok", true}, {"confirmed", true}}));
    EXPECT_EQ(ok(other, {{"op", "confirm.show"}})["pending"], false);
}

TEST_F(ConfirmOps, ARollBackAnswersItTooAndLastsUntilItsConnectionEnds) {
    auto pWatcher = std::make_unique<Client>(path());
    ok(*pWatcher, begin());
    waits(*pWatcher, 600000);
    ok(other, {{"op", "confirm"}, {"rollback", true}});
    EXPECT_EQ(pWatcher->answer(), (json{{"ok", true}, {"confirmed", false}}));
    EXPECT_EQ(ok(other, {{"op", "confirm.show"}})["state"], "rolling back");
    EXPECT_EQ(refused(other, {{"op", "confirm"}}), "too late: p.yaml is being rolled back");
    EXPECT_EQ(other.call(lock("command", "bind"))["holder"], "apply");
    ok(*pWatcher, lock("file", "p.yaml (roll-back)")); // but not to itself
    pWatcher.reset();
    until([&] { return ok(other, {{"op", "confirm.show"}})["pending"] == false; });
    ok(other, lock("command", "bind"));
}

TEST_F(ConfirmOps, WithoutAWordItIsUndoneWhenItsTimeIsOver) {
    ok(owner, begin());
    EXPECT_EQ(owner.call(wait(0)), (json{{"ok", true}, {"confirmed", false}}));
    EXPECT_EQ(refused(owner, wait(0)), "this connection has waited already");
}

TEST_F(ConfirmOps, AWordDuringTheStepsIsKeptForTheirEnd) {
    for (const bool isRollBack : {false, true}) {
        Client watcher(path());
        until([&] { return watcher.call(begin()).value("ok", false); });
        ok(other, {{"op", "confirm"}, {"rollback", isRollBack}});
        EXPECT_EQ(watcher.call(wait(600000)), (json{{"ok", true}, {"confirmed", !isRollBack}}));
    }
}

TEST_F(ConfirmOps, WhileOneWaitsNobodyElseMayChangeOrBegin) {
    ok(owner, begin());
    waits(owner, 600000);
    const json told = other.call(lock("command", "list add"));
    EXPECT_EQ(told["holder"], "confirmation");
    EXPECT_NE(told["error"].get<std::string>().find("p.yaml was applied and waits for its confirmation, 600 s are left"), std::string::npos)
        << told;
    EXPECT_EQ(refused(other, begin()), "p.yaml waits for its confirmation already");
}

TEST_F(ConfirmOps, AGuardOfStepsHasNoTime) {
    ok(owner, {{"op", "confirm.begin"}, {"pid", 4712}, {"file", "p.yaml"}});
    EXPECT_EQ(ok(other, {{"op", "confirm.show"}})["secondsLeft"], 0);
    EXPECT_EQ(refused(other, {{"op", "confirm"}}), "nothing waits for a confirmation");
}

TEST_F(ConfirmOps, OneClientHolds) {
    ok(owner, {{"op", "device.hold"}, {"lists", {"a"}}});
    ok(owner, {{"op", "device.hold"}, {"lists", {"b"}}});
    EXPECT_EQ(refused(other, {{"op", "device.hold"}, {"lists", {"c"}}}),
              "another client changes the policy now; try again when it has finished");
    EXPECT_EQ(refused(other, {{"op", "device.release"}}), "nothing is held by this connection");
    const json released = ok(owner, {{"op", "device.release"}});
    EXPECT_EQ(released["errors"], json::array());
    ok(other, {{"op", "device.hold"}, {"lists", {"c"}}});
    ok(other, {{"op", "device.release"}});
}

TEST_F(ConfirmOps, WhatAHolderLeavesGoesToItsGuard) {
    ok(owner, begin());
    auto pHolder = std::make_unique<Client>(path());
    ok(*pHolder, {{"op", "device.hold"}, {"lists", {"a"}}});
    pHolder.reset();
    until([&] { return owner.call({{"op", "device.hold"}, {"lists", {"a"}}}).value("ok", false); }); // until its end was seen
    EXPECT_EQ(refused(other, {{"op", "device.hold"}, {"lists", {"c"}}}),
              "another client changes the policy now; try again when it has finished");
    ok(owner, {{"op", "device.release"}});
}

TEST_F(ConfirmOps, AGuardThatEndsLeavesNothingHeld) {
    auto pGuard = std::make_unique<Client>(path());
    ok(*pGuard, begin());
    auto pHolder = std::make_unique<Client>(path());
    ok(*pHolder, {{"op", "device.hold"}, {"lists", {"a"}}});
    pHolder.reset();
    pGuard.reset();
    until([&] { return other.call({{"op", "device.hold"}, {"lists", {"c"}}}).value("ok", false); });
    ok(other, {{"op", "device.release"}});
}

} // namespace
