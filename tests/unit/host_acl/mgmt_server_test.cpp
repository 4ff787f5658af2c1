// The management socket over real connections: lines, limits, rights, and clients that misbehave.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>

#include "host/mgmt/mgmt_server.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;
using hosttest::Client;
using nlohmann::json;

// A server whose operations are: {"echo": x} answers x; {"hold": true} answers when released; {"big": n}
// answers n bytes.
class MgmtServerOf : public testing::Test {
protected:
    void start(MgmtLimits limits = {}, PeerRight right = PeerRight::Write) {
        path = hosttest::root() + "/m" + std::to_string(counter++) + ".socket";
        const auto dispatch = [this](const json &request, const MgmtCaller &caller, MgmtDone done) {
            seenRight = caller.right;
            seenClient = caller.client;
            if (requests == 0) {
                caller.client->onEnd([this] { ended.set_value(); });
            }
            requests++;
            if (request.contains("hold")) {
                const std::lock_guard guard(lock);
                held.push_back(done);
                holding.set_value();
            } else if (request.contains("big")) {
                done({{"ok", true}, {"text", std::string(request["big"].get<size_t>(), 'x')}});
            } else {
                done({{"ok", true}, {"echo", request.value("echo", json())}});
            }
        };
        pServer =
            std::make_unique<MgmtServer>(hostEventLoop(), limits, dispatch, [right](int) { return right; });
        ASSERT_EQ(pServer->start(path), "");
    }
    // Answers what is held.
    void release() {
        const std::lock_guard guard(lock);
        for (const auto &done : held) {
            hostEventLoop().post([done] { done({{"ok", true}, {"released", true}}); });
        }
        held.clear();
    }

    std::string path;
    std::promise<void> holding, ended; // outlive the server, whose end ends its clients
    std::unique_ptr<MgmtServer> pServer;
    std::atomic<PeerRight> seenRight{PeerRight::None};
    MgmtClientPtr seenClient; // of the latest request; it is answered by the time a test looks
    std::atomic<int> requests{0};
    std::mutex lock;
    std::vector<MgmtDone> held;
    static inline int counter = 0;
};

json echo(int n) {
    return {{"echo", n}};
}

TEST_F(MgmtServerOf, AnswersOneLineWithOneLine) {
    start();
    Client client(path);
    EXPECT_EQ(client.call(echo(7)), (json{{"ok", true}, {"echo", 7}}));
    EXPECT_EQ(client.call(echo(8)).value("echo", 0), 8);
    EXPECT_EQ(seenRight, PeerRight::Write);
}

TEST_F(MgmtServerOf, MakesTheSocketForOwnerAndGroupOnly) {
    start();
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660u);
}

TEST_F(MgmtServerOf, TakesALineInPieces) {
    start();
    Client client(path);
    for (const char byte : std::string("{\"echo\": 5}\n")) {
        client.send(std::string(1, byte));
    }
    EXPECT_EQ(client.answer().value().value("echo", 0), 5);
}

TEST_F(MgmtServerOf, AnswersPipelinedLinesInTheirOrder) {
    start();
    Client client(path);
    std::string lines;
    for (int i = 0; i < 2000; i++) {
        lines += echo(i).dump() + "\n";
    }
    std::thread writer([&] { client.send(lines); });
    for (int i = 0; i < 2000; i++) {
        const auto answer = client.answer();
        ASSERT_TRUE(answer) << i;
        ASSERT_EQ(answer->value("echo", -1), i);
    }
    writer.join();
}

TEST_F(MgmtServerOf, AnswersWhatCameBeforeTheEndOfInput) {
    start();
    Client client(path);
    client.send(echo(1).dump() + "\n" + echo(2).dump() + "\n");
    client.finish();
    EXPECT_EQ(client.answer().value().value("echo", 0), 1);
    EXPECT_EQ(client.answer().value().value("echo", 0), 2);
    EXPECT_TRUE(client.isClosed());
}

TEST_F(MgmtServerOf, DropsALineThatHasNoEnd) {
    start();
    Client client(path);
    client.send("{\"echo\": 1}");
    client.finish();
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(requests, 0);
}

struct Malformed {
    const char *name;
    std::string line;
    const char *part; // of the error
};
class MgmtServerMalformed : public MgmtServerOf, public testing::WithParamInterface<Malformed> {};

TEST_P(MgmtServerMalformed, IsAnsweredWithAnErrorAndClosed) {
    start();
    Client client(path), other(path);
    client.send(GetParam().line + "\n" + echo(1).dump() + "\n");
    const json answer = client.answer().value();
    EXPECT_EQ(answer.value("ok", true), false);
    EXPECT_NE(answer.value("error", "").find(GetParam().part), std::string::npos) << answer;
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(requests, 0);
    EXPECT_EQ(other.call(echo(3)).value("echo", 0), 3);
}

const Malformed MALFORMED[] = {
    {"empty", "", "not valid JSON"},
    {"words", "acl.show", "not valid JSON"},
    {"half", "{\"op\": ", "not valid JSON"},
    {"two", "{} {}", "not valid JSON"},
    {"array", "[1, 2]", "one JSON object"},
    {"number", "17", "one JSON object"},
    {"null", "null", "one JSON object"},
    {"twice", R"({"op": "a", "op": "b"})", "\"op\" is there twice"},
    {"twiceinside", R"({"rules": {"10": "a", "10": "b"}})", "\"10\" is there twice"},
    {"binary", std::string("\0\xff\xfe", 3), "not valid JSON"},
    {"utf8", "{\"op\": \"\xff\"}", "not valid JSON"},
    {"deep", std::string(100000, '['), "nested deeper"},
    {"deepobjects",
     "{\"a\":" +
         [] {
             std::string s;
             for (int i = 0; i < 20; i++)
                 s += "{\"a\":";
             return s;
         }(),
     "nested deeper"},
};
INSTANTIATE_TEST_SUITE_P(Each, MgmtServerMalformed, testing::ValuesIn(MALFORMED),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_F(MgmtServerOf, TakesTheLongestLineAndRefusesOneMoreByte) {
    MgmtLimits limits;
    limits.lineBytes = 200000;
    start(limits);
    const std::string head = "{\"echo\": \"", tail = "\"}";
    Client good(path), bad(path);
    good.send(head + std::string(200000 - head.size() - tail.size(), 'x') + tail + "\n");
    EXPECT_EQ(good.answer().value().value("ok", false), true);
    bad.send(head + std::string(200001 - head.size() - tail.size(), 'x') + tail + "\n");
    EXPECT_EQ(bad.answer().value().value("error", ""), "the line is longer than 200000 bytes");
    EXPECT_TRUE(bad.isClosed());
    EXPECT_EQ(requests, 1);
}

TEST_F(MgmtServerOf, RefusesAnEndlessLineWithoutWaitingForItsEnd) {
    start();
    Client client(path);
    std::thread writer([&] { client.send(std::string(8 << 20, ' ')); });
    const auto answer = client.answer();
    writer.join();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->value("error", ""), "the line is longer than 1048576 bytes");
}

TEST_F(MgmtServerOf, ServesOthersWhileOneHoldsHalfALine) {
    start();
    Client slow(path), other(path);
    slow.send("{\"echo\": ");
    EXPECT_EQ(other.call(echo(2)).value("echo", 0), 2);
    slow.send("1}\n");
    EXPECT_EQ(slow.answer().value().value("echo", 0), 1);
}

TEST_F(MgmtServerOf, ServesOthersWhileOneDoesNotReadItsAnswers) {
    start();
    Client deaf(path), other(path);
    const std::string request = json{{"big", 500000}}.dump() + "\n";
    for (int i = 0; i < 5; i++) {
        deaf.sendSome(request);
    }
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(other.call(echo(i)).value("echo", -1), i);
    }
    EXPECT_LT(requests, 50 + 5); // the deaf one's next request waits for its answer to leave
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(deaf.answer().value().value("text", "").size(), 500000u);
    }
}

TEST_F(MgmtServerOf, ServesOthersWhileOneRequestTakesLong) {
    start();
    Client patient(path), other(path);
    patient.send("{\"hold\": true}\n" + echo(9).dump() + "\n");
    holding.get_future().wait();
    EXPECT_EQ(other.call(echo(2)).value("echo", 0), 2);
    release();
    EXPECT_EQ(patient.answer().value().value("released", false), true);
    EXPECT_EQ(patient.answer().value().value("echo", 0), 9);
}

// Calls `work` with the connection on the event thread.
void onLoop(const std::function<void()> &work) {
    std::promise<void> done;
    hostEventLoop().post([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

TEST_F(MgmtServerOf, PushesLinesBehindTheAnswersAndStillAnswers) {
    start();
    Client client(path);
    client.call(echo(1));
    bool isPushed = false;
    onLoop([&] { isPushed = seenClient->push({{"event", "first"}}) && seenClient->push({{"event", "second"}}); });
    EXPECT_TRUE(isPushed);
    EXPECT_EQ(client.answer().value().value("event", ""), "first");
    EXPECT_EQ(client.answer().value().value("event", ""), "second");
    EXPECT_EQ(client.call(echo(2)).value("echo", 0), 2);
}

TEST_F(MgmtServerOf, AClientThatDoesNotReadItsPushedLinesKeepsItsConnectionAndBoundsTheirNumber) {
    MgmtLimits limits;
    limits.pushBytes = 100000;
    limits.stall = std::chrono::milliseconds(50);
    start(limits);
    Client client(path), other(path);
    client.call(echo(1));
    const MgmtClientPtr watcher = seenClient;
    int pushed = 0, rooms = 0;
    bool isRefused = false;
    onLoop([&] {
        watcher->onRoom([&] { rooms++; });
        while (!isRefused && pushed < 100000) {
            isRefused = !watcher->push({{"event", std::string(1000, 'x')}});
            pushed += isRefused ? 0 : 1;
        }
    });
    EXPECT_TRUE(isRefused);
    // Longer than the time limit for answers, as the loop counts it.
    std::promise<void> waited;
    onLoop([&] { hostEventLoop().timerStart(std::chrono::milliseconds(200), [&] { waited.set_value(); }); });
    waited.get_future().wait();
    EXPECT_EQ(other.call(echo(3)).value("echo", 0), 3);
    for (int i = 0; i < pushed; i++) {
        ASSERT_EQ(client.answer().value().value("event", "").size(), 1000u) << i;
    }
    bool isPushed = false;
    onLoop([&] { isPushed = watcher->push({{"event", "after"}}); });
    EXPECT_TRUE(isPushed);
    EXPECT_EQ(client.answer().value().value("event", ""), "after");
    EXPECT_GE(rooms, 1);
}

TEST_F(MgmtServerOf, PushesNothingToAClientThatHasGone) {
    start();
    std::future<void> end = ended.get_future();
    {
        Client client(path);
        client.call(echo(1));
    }
    end.wait();
    bool isPushed = true;
    onLoop([&] { isPushed = seenClient->push({{"event", "late"}}); });
    EXPECT_FALSE(isPushed);
}

TEST_F(MgmtServerOf, WhatAClientLeavesBehindIsToldWhenItGoesAwayIdle) {
    start();
    std::future<void> end = ended.get_future();
    {
        Client client(path);
        EXPECT_EQ(client.call(echo(1)).value("echo", 0), 1);
        EXPECT_NE(end.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    }
    EXPECT_EQ(end.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST_F(MgmtServerOf, WhatAClientLeavesBehindIsToldWhenItGoesAwayInTheMiddle) {
    start();
    std::future<void> end = ended.get_future();
    {
        Client client(path);
        client.send("{\"hold\": true}\n");
        holding.get_future().wait();
    }
    EXPECT_EQ(end.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    release();
}

TEST_F(MgmtServerOf, AnAnswerForAClientThatHasGoneIsDropped) {
    start();
    {
        Client gone(path);
        gone.send("{\"hold\": true}\n");
        holding.get_future().wait();
    }
    release();
    Client other(path);
    EXPECT_EQ(other.call(echo(2)).value("echo", 0), 2);
}

TEST_F(MgmtServerOf, ClosesALineThatIsNotFinishedInTime) {
    MgmtLimits limits;
    limits.stall = std::chrono::milliseconds(20);
    start(limits);
    Client slow(path), idle(path);
    ASSERT_EQ(idle.call(echo(1)).value("echo", 0), 1);
    slow.send("{");
    EXPECT_EQ(slow.answer().value().value("error", ""), "the line was not finished in time");
    EXPECT_TRUE(slow.isClosed());
    EXPECT_EQ(idle.call(echo(2)).value("echo", 0), 2); // a quiet connection may stay
}

TEST_F(MgmtServerOf, ClosesAClientThatDoesNotFetchItsAnswerInTime) {
    MgmtLimits limits;
    limits.stall = std::chrono::milliseconds(20);
    limits.clients = 1;
    start(limits);
    Client deaf(path);
    deaf.send("{\"big\": 4000000}\n");
    // Its place is free again once it was closed.
    for (;;) {
        Client next(path);
        const json answer = next.call(echo(1));
        if (answer.value("ok", false)) {
            break;
        }
        ASSERT_NE(answer.value("error", "").find("too many clients"), std::string::npos) << answer;
    }
    EXPECT_FALSE(deaf.line());
}

TEST_F(MgmtServerOf, LimitsTheNumberOfClients) {
    MgmtLimits limits;
    limits.clients = 3;
    start(limits);
    auto a = std::make_unique<Client>(path);
    Client b(path), c(path);
    ASSERT_EQ(a->call(echo(1)).value("echo", 0), 1);
    ASSERT_EQ(b.call(echo(2)).value("echo", 0), 2);
    ASSERT_EQ(c.call(echo(3)).value("echo", 0), 3);
    Client d(path);
    EXPECT_NE(d.answer().value().value("error", "").find("too many clients: at most 3"), std::string::npos);
    EXPECT_TRUE(d.isClosed());
    EXPECT_EQ(b.call(echo(4)).value("echo", 0), 4);
}

TEST_F(MgmtServerOf, LeavesRoomForWritersWhenReadersAreMany) {
    MgmtLimits limits;
    limits.readers = 2;
    start(limits, PeerRight::Read);
    Client a(path), b(path);
    ASSERT_EQ(a.call(echo(1)).value("echo", 0), 1);
    ASSERT_EQ(b.call(echo(2)).value("echo", 0), 2);
    EXPECT_EQ(seenRight, PeerRight::Read);
    Client c(path);
    EXPECT_NE(c.answer().value().value("error", "").find("of which 2 that may only read"), std::string::npos);
}

TEST_F(MgmtServerOf, RefusesAClientWithoutRights) {
    start({}, PeerRight::None);
    Client client(path);
    EXPECT_EQ(client.answer().value().value("error", ""), mgmtRefusal());
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(requests, 0);
}

TEST_F(MgmtServerOf, ServesManyClientsAtOnce) {
    start();
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 32; t++) {
        threads.emplace_back([&, t] {
            Client client(path);
            for (int i = 0; i < 50; i++) {
                good += client.call(echo(t * 100 + i)).value("echo", -1) == t * 100 + i ? 1 : 0;
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 32 * 50);
}

TEST_F(MgmtServerOf, RefusesASocketThatAnotherServes) {
    start();
    MgmtServer second(hostEventLoop(), {}, [](const json &, const MgmtCaller &, const MgmtDone &) {});
    EXPECT_NE(second.start(path).find("is served by another process"), std::string::npos);
    Client client(path);
    EXPECT_EQ(client.call(echo(1)).value("echo", 0), 1);
}

TEST_F(MgmtServerOf, ClosesItsClientsWhenItStops) {
    start();
    Client client(path);
    ASSERT_EQ(client.call(echo(1)).value("echo", 0), 1);
    pServer->stop();
    EXPECT_TRUE(client.isClosed());
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_FALSE(Client(path).isConnected());
}

TEST_F(MgmtServerOf, WritesNamesThatAreNotUtf8) {
    path = hosttest::root() + "/utf8.socket";
    pServer = std::make_unique<MgmtServer>(
        hostEventLoop(), MgmtLimits{},
        [](const json &, const MgmtCaller &, const MgmtDone &done) {
            done({{"ok", true}, {"name", "a\xff"}});
        },
        [](int) { return PeerRight::Write; });
    ASSERT_EQ(pServer->start(path), "");
    EXPECT_EQ(Client(path).call(json::object()).value("name", ""), "a\xef\xbf\xbd");
}

} // namespace
