// What the service manager is told, read from a real socket.
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/process/notify.h"
#include "host/process/stop_signals.h"
#include "tests/unit/host_portable/support.h"

namespace {

// The manager's end: a datagram socket, by path or by an abstract name ("@..."), named in the environment.
class Manager {
public:
    explicit Manager(const std::string &name) : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (name[0] == '@') {
            address.sun_path[0] = '\0';
        }
        const auto len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&address), len)) << name;
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~Manager() {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        close(fd);
    }
    // The next datagram, waited for; "nothing" when none comes.
    std::string next(int waitMs = 10000) {
        pollfd ready{fd, POLLIN, 0};
        char text[256];
        const ssize_t count = poll(&ready, 1, waitMs) == 1 ? recv(fd, text, sizeof(text), 0) : -1;
        return count < 0 ? "nothing" : std::string(text, static_cast<size_t>(count));
    }

private:
    int fd;
};

void watchdogSet(const char *microseconds, const std::string &process) {
    setenv("WATCHDOG_USEC", microseconds, 1);
    setenv("WATCHDOG_PID", process.c_str(), 1);
}

TEST(Notify, AMessageIsOneDatagramOnAPath) {
    support::Folder folder;
    Manager manager(folder.path + "/notify");

    EXPECT_EQ("", host::notifySend("READY=1\nSTATUS=x"));

    EXPECT_EQ("READY=1\nSTATUS=x", manager.next());
}

TEST(Notify, AnAbstractNameIsReachedToo) {
    Manager manager("@policyroute-notify-" + std::to_string(getpid()));

    EXPECT_EQ("", host::notifySend("STOPPING=1"));

    EXPECT_EQ("STOPPING=1", manager.next());
}

TEST(Notify, WithoutAManagerNothingIsSentAndNothingIsWrong) {
    unsetenv("NOTIFY_SOCKET");

    EXPECT_EQ("", host::notifySend("READY=1"));
}

TEST(Notify, WhatIsNoSocketIsAnError) {
    for (const std::string &name : {std::string("relative"), std::string("@"), std::string("/nobody/here"),
                                    "/" + std::string(200, 'x')}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        const std::string error = host::notifySend("READY=1");
        EXPECT_NE(std::string::npos, error.find(name)) << error;
    }
    unsetenv("NOTIFY_SOCKET");
}

TEST(Notify, AManagerThatDoesNotReadIsNotWaitedFor) {
    support::Folder folder;
    Manager manager(folder.path + "/notify");
    std::string error;

    for (int i = 0; i < 100000 && error.empty(); ++i) {
        error = host::notifySend("WATCHDOG=1");
    }

    EXPECT_NE("", error);
}

TEST(Notify, SignsOfLifeComeInHalfOfTheTimeAllowed) {
    Manager manager("@policyroute-period-" + std::to_string(getpid()));

    watchdogSet("30000000", std::to_string(getpid()));
    EXPECT_EQ(15000, host::notifyWatchdogPeriod().count());
    unsetenv("WATCHDOG_PID");
    EXPECT_EQ(15000, host::notifyWatchdogPeriod().count());
}

TEST(Notify, NoSignOfLifeIsWantedOfAnotherProcessOrWithoutATime) {
    Manager manager("@policyroute-none-" + std::to_string(getpid()));

    watchdogSet("30000000", std::to_string(getpid() + 1));
    EXPECT_EQ(0, host::notifyWatchdogPeriod().count());
    for (const char *text : {"", "0", "soon", "-5", "99999999999999999999999"}) {
        watchdogSet(text, std::to_string(getpid()));
        EXPECT_EQ(0, host::notifyWatchdogPeriod().count()) << text;
    }
}

// These use the event thread: in children, so that the timer does not outlive the test. See SignalsDeathTest.
class NotifyDeathTest : public testing::Test {
protected:
    NotifyDeathTest() { GTEST_FLAG_SET(death_test_style, "fast"); }
};

// Exit status: the number of the first step that was not as expected, 0 when all were.
[[noreturn]] void liveShortly() {
    Manager manager("@policyroute-life-" + std::to_string(getpid()));
    watchdogSet("20000", std::to_string(getpid()));
    host::notifyReady();
    const std::string expected[] = {"READY=1\nSTATUS=Serving.", "WATCHDOG=1", "WATCHDOG=1", "WATCHDOG=1"};
    int step = 0;
    for (const std::string &text : expected) {
        ++step;
        if (manager.next() != text) {
            _exit(step);
        }
    }
    _exit(0);
}

TEST_F(NotifyDeathTest, ReadinessIsToldAndThenLifeAgainAndAgain) {
    EXPECT_EXIT(liveShortly(), testing::ExitedWithCode(0), "");
}

TEST_F(NotifyDeathTest, AStopBySignalIsTold) {
    Manager manager("@policyroute-stop-" + std::to_string(getpid()));

    EXPECT_EXIT(
        {
            host::stopSignalsWatch();
            kill(getpid(), SIGTERM);
            for (;;) {
                pause();
            }
        },
        testing::ExitedWithCode(0), "");

    EXPECT_EQ(0u, manager.next().find("STOPPING=1\n"));
}

} // namespace
