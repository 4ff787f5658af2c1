// The diagnostic shell: what its commands print is taken whole and from them only, one command at a time.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <memory>
#include <thread>

#include <unistd.h>

#include "host/shell/shell_mgmt.h"
#include "host/shell/shell_task.h"
#include "host/shell/stdout_capture.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;
using nlohmann::json;

std::promise<void> *pGate;      // the command "waits" goes on when it is set
std::promise<void> *pEntered;   // and says that it is there
std::atomic<int> running{0};    // commands at work now
std::atomic<int> mostRunning{0};
uint32_t level = 3;

int32_t greet() {
    printf("%s", "\n\r hello ");
    puts("\r");
    // cppcheck-suppress invalidFunctionArg ; a byte that is no character, as a report may have it
    putchar('\xff');
    fputs("end", stdout);
    return 0;
}

int32_t fail() {
    printf("half");
    return -7;
}

int32_t printMuch() {
    for (int i = 0; i < 20000; i++) {
        printf("%-50d", i);
    }
    return 0;
}

int32_t wait() {
    mostRunning = std::max(mostRunning.load(), ++running);
    printf("before ");
    pEntered->set_value();
    pGate->get_future().wait();
    printf("after");
    --running;
    return 0;
}

int32_t note() {
    mostRunning = std::max(mostRunning.load(), ++running);
    printf("noted");
    --running;
    return 0;
}

const ProcShellCommand COMMANDS[] = {
    {"greet", greet}, {"fail", fail}, {"much", printMuch}, {"waits", wait}, {"note", note}};
const ProcShellVariable VARIABLES[] = {{"level", &level}};
const ShellTable TABLE{COMMANDS, 5, VARIABLES, 1};

class Shell : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(stdoutCaptureInstall(), "");
        pGate = &gate;
        pEntered = &entered;
        mostRunning = 0;
        level = 3;
    }
    // A task of its own; tasks live as long as the process, and so does what keeps them.
    static ShellTask &make(size_t mostWaiting = 4, size_t mostBytes = 2 << 20) {
        static auto *pTasks = new std::vector<std::unique_ptr<ShellTask>>;
        return *pTasks->emplace_back(std::make_unique<ShellTask>(TABLE, mostWaiting, mostBytes));
    }
    static std::future<ShellAnswer> start(ShellTask &shell, const std::string &name,
                                          const std::vector<std::string> &args = {}) {
        auto pAnswer = std::make_shared<std::promise<ShellAnswer>>();
        shell.run(name, args, [pAnswer](ShellAnswer answer) { pAnswer->set_value(std::move(answer)); });
        return pAnswer->get_future();
    }
    static ShellAnswer run(ShellTask &shell, const std::string &name, const std::vector<std::string> &args = {}) {
        return start(shell, name, args).get();
    }

    std::promise<void> gate, entered;
};

TEST_F(Shell, ACommandsOutputAndResultComeBackExactly) {
    ShellTask &shell = make();
    EXPECT_EQ(run(shell, "greet").output, "\n\r hello \r\n\xff" "end");
    const ShellAnswer answer = run(shell, "fail");
    EXPECT_EQ(answer.error, "");
    EXPECT_EQ(answer.result, -7);
    EXPECT_EQ(answer.output, "half");
}

TEST_F(Shell, LongOutputComesWholeAndTooLongIsRefused) {
    EXPECT_EQ(run(make(), "much").output.size(), 1000000u);
    EXPECT_EQ(run(make(4, 1000000), "much").output.size(), 1000000u);
    const ShellAnswer answer = run(make(4, 999999), "much");
    EXPECT_EQ(answer.error, "much printed more than 999999 bytes; ask for parts of it (pbrctl show)");
    EXPECT_EQ(answer.output, "");
}

TEST_F(Shell, WhatOthersPrintMeanwhileGoesItsOwnWay) {
    ShellTask &shell = make();
    testing::internal::CaptureStdout();
    auto answer = start(shell, "waits");
    entered.get_future().wait();
    printf("from another thread\n");
    gate.set_value();
    EXPECT_EQ(answer.get().output, "before after");
    printf("afterwards\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "from another thread\nafterwards\n");
}

TEST_F(Shell, CommandsRunOneAfterTheOther) {
    ShellTask &shell = make();
    auto first = start(shell, "waits");
    entered.get_future().wait();
    auto second = start(shell, "note");
    auto third = start(shell, "greet");
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    gate.set_value();
    EXPECT_EQ(first.get().output, "before after");
    EXPECT_EQ(second.get().output, "noted");
    EXPECT_EQ(third.get().output, "\n\r hello \r\n\xff" "end");
    EXPECT_EQ(mostRunning, 1);
}

TEST_F(Shell, NoMoreRequestsWaitThanTheLimit) {
    ShellTask &shell = make(2);
    auto first = start(shell, "waits");
    entered.get_future().wait();
    auto second = start(shell, "note"), third = start(shell, "note");
    EXPECT_EQ(run(shell, "note").error, "the shell is busy: 2 requests wait for it already");
    gate.set_value();
    EXPECT_EQ(third.get().output, "noted");
    EXPECT_EQ(run(shell, "note").output, "noted");
}

TEST_F(Shell, SwitchesAreShownAndSet) {
    ShellTask &shell = make();
    EXPECT_EQ(run(shell, "level").output, "level = 3\n");
    for (const auto &[args, value] : std::vector<std::pair<std::vector<std::string>, uint32_t>>{
             {{"1"}, 1}, {{"=", "2"}, 2}, {{"=4294967295"}, 4294967295u}, {{"0x10"}, 16}, {{"0"}, 0}}) {
        const ShellAnswer answer = run(shell, "level", args);
        EXPECT_EQ(answer.error + answer.output, "");
        EXPECT_EQ(level, value);
    }
}

TEST_F(Shell, WhatASwitchCannotTakeIsRefusedAndLeavesIt) {
    ShellTask &shell = make();
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {""}, {"="}, {"on"}, {"-1"}, {"4294967296"}, {"1", "2"}, {"=", "1", "2"}, {"=", "=1"}, {"0x"}, {"1 "}}) {
        EXPECT_EQ(run(shell, "level", args).error,
                  "level is a switch: it takes one number 0 to 4294967295, or nothing to show it")
            << testing::PrintToString(args);
    }
    EXPECT_EQ(level, 3u);
}

TEST_F(Shell, UnknownNamesAndArgumentsOfCommandsAreRefused) {
    ShellTask &shell = make();
    EXPECT_EQ(run(shell, "gree").error, "the shell has no \"gree\"; commands are greet, fail, much, waits, note; "
                                        "switches are level");
    EXPECT_EQ(run(shell, "").error.substr(0, 17), "the shell has no ");
    EXPECT_EQ(run(shell, "greet", {"x"}).error, "greet is a command: it takes no arguments");
}

// The daemon's own commands and switches, through the management socket.
class ShellOperations : public testing::Test {
protected:
    static void SetUpTestSuite() { shellMgmtRegister(); }
    void SetUp() override {
        ASSERT_EQ(hosttest::mgmtOpen(), "");
        client.emplace(hosttest::root() + "/tmp/policyroutemgmt.socket");
        ASSERT_TRUE(client->isConnected());
    }
    json shell(const std::string &name, json args = json::array()) {
        return client->call({{"op", "shell"}, {"name", name}, {"args", std::move(args)}});
    }
    std::optional<hosttest::Client> client;
};

TEST_F(ShellOperations, TheDaemonsCommandsAndSwitchesAreListed) {
    const json answer = client->call({{"op", "shell.list"}});
    EXPECT_EQ(answer["commands"], (json{"pbrInfoShow", "pbrdebug"}));
    EXPECT_EQ(answer["switches"], (json{"pbrselflog", "pbrDebug"}));
}

TEST_F(ShellOperations, PbrdebugSetsTheSwitchThatPbrDebugShows) {
    EXPECT_EQ(shell("pbrDebug", {"0"}), (json{{"ok", true}, {"result", 0}, {"output", ""}}));
    EXPECT_EQ(shell("pbrDebug")["output"], "pbrDebug = 0\n");
    EXPECT_EQ(shell("pbrdebug"), (json{{"ok", true}, {"result", 0}, {"output", ""}}));
    EXPECT_EQ(shell("pbrDebug")["output"], "pbrDebug = 1\n");
    EXPECT_EQ(shell("pbrselflog", {"=", "1"})["ok"], true);
    EXPECT_EQ(shell("pbrselflog")["output"], "pbrselflog = 1\n");
    EXPECT_EQ(shell("pbrselflog", {"0"})["ok"], true);
}

TEST_F(ShellOperations, MalformedRequestsAreRefused) {
    EXPECT_EQ(client->call({{"op", "shell"}})["error"], "member \"name\" is missing: it must be a text");
    EXPECT_EQ(client->call({{"op", "shell"}, {"name", "pbrdebug"}, {"args", "1"}})["error"],
              "member \"args\" must be a list of texts");
    EXPECT_EQ(shell("pbrselflog", {1})["error"], "member \"args\" must be a list of texts");
    EXPECT_EQ(shell("pbrdebug", {"1"})["error"], "pbrdebug is a command: it takes no arguments");
    EXPECT_EQ(shell("reboot")["error"], "the shell has no \"reboot\"; commands are pbrInfoShow, pbrdebug; switches "
                                        "are pbrselflog, pbrDebug");
}

TEST_F(ShellOperations, AClientThatGoesAwayDisturbsNobody) {
    {
        hosttest::Client gone(hosttest::root() + "/tmp/policyroutemgmt.socket");
        gone.send("{\"op\": \"shell\", \"name\": \"pbrdebug\"}\n");
    }
    EXPECT_EQ(shell("pbrDebug")["ok"], true);
}

} // namespace
