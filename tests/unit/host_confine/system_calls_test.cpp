// The filter of system calls: what passes, and how a process ends that makes another. Each in a child.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "host/confine/system_calls.h"
#include "host/option/option.h"

namespace {

constexpr int PASSED = 7;

// Ends with PASSED when the filter was installed and the call came back.
template <typename Call> [[noreturn]] void confinedCall(Call call, const char *pOption = "host.seccomp=on") {
    if (host::optionLoad({pOption}, "/dev/null") != "" || host::systemCallsConfine() != "") {
        _exit(1);
    }
    call();
    _exit(PASSED);
}

class SystemCallsDeathTest : public testing::Test {
protected:
    SystemCallsDeathTest() { GTEST_FLAG_SET(death_test_style, "fast"); }
};

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CONFINE_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(CONFINE_SANITIZED)
#define SKIP_WIDER_LIST() GTEST_SKIP() << "the sanitizers' run time makes these calls itself"
#else
#define SKIP_WIDER_LIST() (void)0
#endif

std::string said(long number) {
    std::string digits = std::to_string(number);
    digits.insert(0, 10 - digits.size(), '0');
    return "policyrouted: system call " + digits + " is not one that the daemon makes \\(host.seccomp\\): ending";
}

#define EXPECT_REFUSED(number, call) \
    EXPECT_EXIT(confinedCall([] { (void)!(call); }), testing::KilledBySignal(SIGSYS), said(number))

TEST_F(SystemCallsDeathTest, AProgramCannotBeStarted) {
    EXPECT_REFUSED(SYS_execve, execl("/bin/true", "true", nullptr));
}

TEST_F(SystemCallsDeathTest, UsersMountsNamespacesAndOtherProcessesAreOutOfReach) {
    SKIP_WIDER_LIST();
    EXPECT_REFUSED(SYS_setuid, syscall(SYS_setuid, 0));
    EXPECT_REFUSED(SYS_mount, mount("none", "/nowhere", "tmpfs", 0, nullptr));
    EXPECT_REFUSED(SYS_unshare, unshare(CLONE_NEWNET));
    EXPECT_REFUSED(SYS_clone, syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0));
    EXPECT_REFUSED(SYS_kill, kill(1, 0));
    EXPECT_REFUSED(SYS_tgkill, syscall(SYS_tgkill, 1, 1, 0));
    EXPECT_REFUSED(SYS_bpf, syscall(SYS_bpf, 0, nullptr, 0));
}

TEST_F(SystemCallsDeathTest, SocketsOfOtherFamiliesCannotBeMade) {
    SKIP_WIDER_LIST();
#if defined(__i386__)
    GTEST_SKIP() << "this machine's C library makes sockets by socketcall, whose arguments a filter does not see";
#endif
    EXPECT_REFUSED(SYS_socket, socket(AF_PACKET, SOCK_RAW, 0));
    EXPECT_REFUSED(SYS_socket, socket(AF_VSOCK, SOCK_STREAM, 0));
}

TEST_F(SystemCallsDeathTest, ThreadsAreConfinedThatWereThereBefore) {
    EXPECT_EXIT(
        {
            int gate[2];
            (void)!pipe(gate);
            std::thread early([&] {
                char byte;
                (void)!read(gate[0], &byte, 1);
                (void)unshare(CLONE_NEWNET);
            });
            confinedCall([&] {
                (void)!write(gate[1], "x", 1);
                early.join();
            });
        },
        testing::KilledBySignal(SIGSYS), said(SYS_unshare));
}

TEST_F(SystemCallsDeathTest, WhatTheDaemonDoesPasses) {
    EXPECT_EXIT(confinedCall([] {
                    std::thread([] {}).join(); // clone3 is missing, clone passes
                    for (const int family : {AF_UNIX, AF_NETLINK, AF_INET, AF_INET6}) {
                        if (socket(family, SOCK_DGRAM, 0) < 0 && errno != EAFNOSUPPORT) {
                            _exit(2);
                        }
                    }
                }),
                testing::ExitedWithCode(PASSED), "");
    EXPECT_EXIT(confinedCall([] { _exit(syscall(SYS_clone3, nullptr, 0) == -1 && errno == ENOSYS ? PASSED : 2); }),
                testing::ExitedWithCode(PASSED), "");
    EXPECT_EXIT(confinedCall([] { abort(); }), testing::KilledBySignal(SIGABRT), "");
}

// A process of 32 bits whose times have 64 makes other calls than one of 64 bits.
TEST_F(SystemCallsDeathTest, ClocksAndWaitingPassInEachWidthOfTime) {
    const auto passes = [](auto call) {
        EXPECT_EXIT(confinedCall(call), testing::ExitedWithCode(PASSED), "");
    };
    passes([] {
        timespec time{};
        (void)clock_gettime(CLOCK_MONOTONIC, &time);
        (void)clock_getres(CLOCK_REALTIME, &time);
        time = {0, 1};
        (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
    });
    passes([] {
        const itimerspec soon{{}, {0, 1}};
        itimerspec left{};
        const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        (void)timerfd_settime(fd, 0, &soon, nullptr);
        (void)timerfd_gettime(fd, &left);
    });
    passes([] {
        timespec none{};
        (void)ppoll(nullptr, 0, &none, nullptr);
        timeval now{};
        (void)select(0, nullptr, nullptr, nullptr, &now);
        (void)pselect(0, nullptr, nullptr, nullptr, &none, nullptr);
    });
    passes([] {
        sigset_t none;
        sigemptyset(&none);
        const timespec now{};
        (void)sigtimedwait(&none, nullptr, &now);
    });
    passes([] {
        std::timed_mutex mutex;
        // cppcheck-suppress localMutex ; it is for the thread below
        const std::lock_guard<std::timed_mutex> held(mutex);
        std::thread([&] { (void)mutex.try_lock_for(std::chrono::microseconds(1)); }).join();
    });
    passes([] {
        timespec none{};
        (void)recvmmsg(-1, nullptr, 0, MSG_DONTWAIT, &none);
        (void)futimens(-1, nullptr);
    });
}

TEST_F(SystemCallsDeathTest, TheOptionLeavesItOut) {
    EXPECT_EXIT(confinedCall([] { (void)kill(getpid(), 0); }, "host.seccomp=off"), testing::ExitedWithCode(PASSED), "");
}

} // namespace
