// Time ranges: who is told what, and what happens when a binding goes while its callback is under way.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <random>

#include "host/timerange/timerange_service.h"

namespace {

using namespace host;

// A node as the daemon keeps it, under the daemon's mutex.
struct Node {
    std::mutex *pDaemon = nullptr;
    std::vector<std::string> calls;
    bool matched = false;
    std::mutex seenLock;
    std::condition_variable seen;
    int entered = 0; // callbacks that came as far as the mutex

    void waitEntered(int count) {
        std::unique_lock guard(seenLock);
        seen.wait(guard, [&] { return entered >= count; });
    }
};

// The context that is bound: the service copies these bytes.
struct Context {
    Node *pNode;
    uint8_t pad[20];
};

uint32_t called(void *pContext, const char *what, bool matched) {
    Context context;
    std::memcpy(&context, pContext, sizeof context);
    {
        const std::lock_guard guard(context.pNode->seenLock);
        context.pNode->entered++;
    }
    context.pNode->seen.notify_all();
    const std::lock_guard guard(*context.pNode->pDaemon);
    context.pNode->calls.push_back(what);
    context.pNode->matched = matched;
    return 0;
}

uint32_t onStart(void *pContext) { return called(pContext, "start", true); }
uint32_t onStop(void *pContext) { return called(pContext, "stop", false); }
uint32_t onUnbind(void *pContext) { return called(pContext, "unbind", false); }

using Calls = std::vector<std::string>;

class Timerange : public testing::Test {
protected:
    Timerange() { node.pDaemon = &daemon; }

    void bind(uint32_t id, const std::string &name, Node &to) {
        Context context{&to, {}};
        const auto *pBytes = reinterpret_cast<const uint8_t *>(&context);
        service.bind(id, name, {onStart, onStop, onUnbind}, {pBytes, pBytes + sizeof context});
    }
    Calls calls(Node &of) {
        service.drain();
        const std::lock_guard guard(daemon);
        return of.calls;
    }

    std::mutex daemon;
    Node node;
    TimerangeService service;
};

TEST_F(Timerange, ARangeThatNobodySetIsInactiveAndTellsNothing) {
    bind(7, "pbrwan-10", node);
    EXPECT_EQ(calls(node), Calls{});
}

TEST_F(Timerange, TellsStartAndStopOncePerChange) {
    bind(7, "pbrwan-10", node);
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    service.set(7, false);
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    service.set(7, false);
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
}

TEST_F(Timerange, AnActiveRangeStartsABindingAfterItWasMade) {
    service.set(7, true);
    {
        const std::lock_guard guard(daemon); // as the daemon binds
        bind(7, "pbrwan-10", node);
        EXPECT_EQ(node.calls, Calls{});
    }
    EXPECT_EQ(calls(node), Calls{"start"});
}

TEST_F(Timerange, TellsOnlyBindingsOfThatRange) {
    Node other;
    other.pDaemon = &daemon;
    bind(7, "pbrwan-10", node);
    bind(8, "pbrwan-20", other);
    service.set(8, true);
    EXPECT_EQ(calls(node), Calls{});
    EXPECT_EQ(calls(other), Calls{"start"});
}

TEST_F(Timerange, OneRangeTellsEachOfItsBindings) {
    Node other;
    other.pDaemon = &daemon;
    bind(7, "pbrwan-10", node);
    bind(7, "pbrwan-20", other);
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(calls(other), Calls{"start"});
}

TEST_F(Timerange, ARemovedBindingIsNotTold) {
    bind(7, "pbrwan-10", node);
    service.unbind(7, "pbrwan-10");
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{});
}

TEST_F(Timerange, RemovingGoesByRangeAndName) {
    bind(7, "pbrwan-10", node);
    service.unbind(7, "pbrwan-1");
    service.unbind(8, "pbrwan-10");
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
}

TEST_F(Timerange, ASecondBindingOfTheSameKeyReplacesTheFirst) {
    Node first;
    first.pDaemon = &daemon;
    bind(7, "pbrwan-10", first);
    bind(7, "pbrwan-10", node);
    service.set(7, true);
    EXPECT_EQ(calls(node), Calls{"start"});
    EXPECT_EQ(calls(first), Calls{});
}

TEST_F(Timerange, QuickSwitchesEndWithTheLastState) {
    bind(7, "pbrwan-10", node);
    for (int i = 0; i < 1000; i++) {
        service.set(7, i % 2 == 0);
    }
    service.set(7, true);
    const Calls told = calls(node);
    EXPECT_EQ(told.empty() ? "" : told.back(), "start");
}

TEST_F(Timerange, ListsRangesThatAreActiveOrBound) {
    bind(9, "pbrwan-20", node);
    bind(9, "pbrwan-10", node);
    service.set(7, true);
    const auto rows = service.rows();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].id, 7u);
    EXPECT_TRUE(rows[0].active);
    EXPECT_TRUE(rows[0].names.empty());
    EXPECT_EQ(rows[1].id, 9u);
    EXPECT_FALSE(rows[1].active);
    EXPECT_EQ(rows[1].names, (std::vector<std::string>{"pbrwan-10", "pbrwan-20"}));
}

TEST_F(Timerange, RemovingABindingDoesNotWaitForItsCallback) {
    bind(7, "pbrwan-10", node);
    std::unique_lock guard(daemon);
    service.set(7, true);
    node.waitEntered(1); // the callback waits for the daemon's mutex, which we hold
    service.unbind(7, "pbrwan-10");
    guard.unlock();
    EXPECT_EQ(calls(node), Calls{"start"}); // with its own copy of the context
}

TEST_F(Timerange, ALateCallbackIsCorrectedForWhoeverHoldsTheNameThen) {
    bind(7, "pbrwan-10", node);
    std::unique_lock guard(daemon);
    service.set(7, true);
    node.waitEntered(1);
    // The operator takes range 7 off and puts range 8, which is inactive, on the same node.
    service.unbind(7, "pbrwan-10");
    node.matched = false;
    bind(8, "pbrwan-10", node);
    guard.unlock();
    EXPECT_EQ(calls(node), (Calls{"start", "stop"}));
    EXPECT_FALSE(node.matched);
}

// Nodes are bound to ranges at random under the daemon's mutex while ranges are switched at random: in the
// end each node matches exactly when its range is active.
TEST_F(Timerange, EveryNodeEndsWithTheStateOfItsRange) {
    constexpr int NODES = 8;
    std::vector<Node> nodes(NODES);
    std::vector<uint32_t> ranges(NODES, 0);
    for (Node &each : nodes) {
        each.pDaemon = &daemon;
    }
    std::thread switcher([&] {
        std::mt19937 random{1};
        for (int i = 0; i < 20000; i++) {
            service.set(1 + random() % 3, random() % 2 == 0);
        }
    });
    std::mt19937 random{2};
    for (int i = 0; i < 20000; i++) {
        const std::lock_guard guard(daemon);
        const size_t n = random() % NODES;
        const std::string name = "pbrl-" + std::to_string(n);
        service.unbind(ranges[n], name);
        ranges[n] = 1 + random() % 3;
        bind(ranges[n], name, nodes[n]);
        nodes[n].matched = false;
    }
    switcher.join();
    service.drain();
    std::map<uint32_t, bool> active;
    for (const auto &row : service.rows()) {
        active[row.id] = row.active;
    }
    for (size_t n = 0; n < NODES; n++) {
        EXPECT_EQ(nodes[n].matched, active[ranges[n]]) << n;
    }
}

TEST(TimerangeApi, RefusesBadArgumentsAndTakesAnyRange) {
    const uint8_t context[28] = {};
    EXPECT_EQ(timerangeBind(4000000000u, "pbra-1", 6, onStart, onStop, onUnbind, context, 28), QRV_OK);
    EXPECT_EQ(timerangeUnbind(4000000000u, "pbra-1", 6, 1), QRV_OK);
    EXPECT_EQ(timerangeBind(1, nullptr, 6, onStart, onStop, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 0, onStart, onStop, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, nullptr, onStop, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, onStart, nullptr, onUnbind, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, onStart, onStop, nullptr, context, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeBind(1, "x", 1, onStart, onStop, onUnbind, nullptr, 28), QRV_ERR_BAD_ARGUMENT);
    EXPECT_EQ(timerangeUnbind(1, nullptr, 1, 1), QRV_ERR_BAD_ARGUMENT);
}

TEST(TimerangeApi, RemovingAnAbsentBindingIsDone) {
    // A node without range is unbound too: the daemon passes all ones then.
    EXPECT_EQ(timerangeUnbind(0xFFFFFFFFu, "pbra-1", 6, 1), QRV_OK);
}

} // namespace
