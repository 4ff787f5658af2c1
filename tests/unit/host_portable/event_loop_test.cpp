// The host's event thread.
#include <atomic>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "host/event/event_loop.h"
#include "tests/unit/host_portable/support.h"

namespace {

using host::hostEventLoop;
using std::chrono::milliseconds;

class Events : public testing::Test {
protected:
    Events() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~Events() override {
        hostEventLoop().fdDel(fd);
        close(fd);
    }
    void makeReady() {
        const uint64_t one = 1;
        ASSERT_EQ(static_cast<ssize_t>(sizeof(one)), write(fd, &one, sizeof(one)));
    }
    void drain() {
        uint64_t value;
        (void)!read(fd, &value, sizeof(value));
    }

    const int fd;
    support::Options options;
    support::Mailbox<int> notes;
};

TEST_F(Events, PostedWorkRunsOnTheEventThreadInItsOrder) {
    EXPECT_FALSE(hostEventLoop().onThread());
    for (int i = 0; i < 100; ++i) {
        hostEventLoop().post([&, i] { notes.put(hostEventLoop().onThread() ? i : -1); });
    }
    const std::vector<int> seen = notes.waitFor(100);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(i, seen.at(i));
    }
}

TEST_F(Events, WorkPostedByWorkRunsToo) {
    hostEventLoop().post([&] { hostEventLoop().post([&] { notes.put(2); }); notes.put(1); });
    EXPECT_EQ((std::vector<int>{1, 2}), notes.waitFor(2));
}

TEST_F(Events, TimersRunInTheOrderOfTheirTimes) {
    hostEventLoop().post([&] { // the last one first, so late that a machine that stalls here does not change the order
        hostEventLoop().timerStart(milliseconds(200), [&] { notes.put(3); });
        hostEventLoop().timerStart(milliseconds(1), [&] { notes.put(1); });
        hostEventLoop().timerStart(milliseconds(2), [&] { notes.put(2); });
    });
    EXPECT_EQ((std::vector<int>{1, 2, 3}), notes.waitFor(3));
}

TEST_F(Events, ATimerThatStartsItselfDoesNotStarveTheRest) {
    std::atomic<bool> stop = false;
    std::function<void()> guarded = [&] {
        if (!stop) {
            hostEventLoop().timerStart(milliseconds(0), guarded);
        } else {
            notes.put(2);
        }
    };
    hostEventLoop().timerStart(milliseconds(0), guarded);
    hostEventLoop().post([&] { notes.put(1); });
    EXPECT_EQ(1, notes.waitFor(1).at(0));
    stop = true;
    EXPECT_EQ(2u, notes.waitFor(2).size());
}

TEST_F(Events, AStoppedTimerDoesNotRun) {
    hostEventLoop().post([&] {
        const auto doomed = hostEventLoop().timerStart(milliseconds(0), [&] { notes.put(-1); });
        hostEventLoop().timerStart(milliseconds(2), [&] { notes.put(1); });
        hostEventLoop().timerStop(doomed);
        hostEventLoop().timerStop(doomed);
        hostEventLoop().timerStop(0);
    });
    EXPECT_EQ((std::vector<int>{1}), notes.waitFor(1));
}

TEST_F(Events, ATimerCanStopAnotherThatIsDue) {
    hostEventLoop().post([&] {
        auto second = std::make_shared<host::EventLoop::TimerId>(0);
        hostEventLoop().timerStart(milliseconds(0), [this, second] {
            hostEventLoop().timerStop(*second);
            notes.put(1);
        });
        *second = hostEventLoop().timerStart(milliseconds(0), [&] { notes.put(-1); });
        hostEventLoop().timerStart(milliseconds(2), [&] { notes.put(2); });
    });
    EXPECT_EQ((std::vector<int>{1, 2}), notes.waitFor(2));
}

TEST_F(Events, AReadyDescriptorCallsItsHandler) {
    hostEventLoop().fdAdd(fd, EPOLLIN, [&](uint32_t events) {
        drain();
        notes.put((events & EPOLLIN) != 0 ? 1 : -1);
    });
    makeReady();
    EXPECT_EQ((std::vector<int>{1}), notes.waitFor(1));
    makeReady();
    EXPECT_EQ((std::vector<int>{1, 1}), notes.waitFor(2));
}

TEST_F(Events, AddingADescriptorAgainReplacesEventsAndHandler) {
    hostEventLoop().fdAdd(fd, EPOLLIN, [&](uint32_t) { notes.put(-1); });
    hostEventLoop().fdAdd(fd, EPOLLOUT, [&](uint32_t) {
        hostEventLoop().fdDel(fd);
        notes.put(2);
    });
    EXPECT_EQ((std::vector<int>{2}), notes.waitFor(1));
}

TEST_F(Events, ADescriptorGivenUpByAnotherHandlerOfTheSamePassIsNotCalled) {
    const int other = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
    makeReady();
    hostEventLoop().post([&] { // both ready before the loop looks
        for (const int one : {fd, other}) {
            hostEventLoop().fdAdd(one, EPOLLIN, [&, one](uint32_t) {
                hostEventLoop().fdDel(fd);
                hostEventLoop().fdDel(other);
                notes.put(one);
            });
        }
    });
    EXPECT_EQ(1u, notes.waitFor(1).size());
    support::eventThreadSettle();
    support::eventThreadSettle();
    EXPECT_EQ(1u, notes.all().size());
    close(other);
}

TEST_F(Events, GivingADescriptorUpWaitsForItsRunningHandler) {
    std::atomic<bool> isInside = false, isLeft = false;
    hostEventLoop().fdAdd(fd, EPOLLIN, [&](uint32_t) {
        isInside = true;
        for (int i = 0; i < 1000; ++i) {
            std::this_thread::yield();
        }
        isLeft = true;
    });
    makeReady();
    while (!isInside) {
        std::this_thread::yield();
    }
    hostEventLoop().fdDel(fd);
    EXPECT_TRUE(isLeft);
}

TEST_F(Events, ADescriptorClosedWithoutNoticeCanBeWatchedAnew) {
    int one = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    hostEventLoop().fdAdd(one, EPOLLIN, [](uint32_t) {});
    close(one);
    const int again = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
    ASSERT_EQ(one, again);
    hostEventLoop().fdAdd(again, EPOLLIN, [&](uint32_t) {
        hostEventLoop().fdDel(again);
        notes.put(1);
    });
    EXPECT_EQ(1u, notes.waitFor(1).size());
    close(again);
}

TEST_F(Events, AHandlerThatThrowsIsLoggedAndTheRestGoesOn) {
    support::StderrCapture captured;
    hostEventLoop().post([] { throw std::runtime_error("no such thing"); });
    hostEventLoop().timerStart(milliseconds(0), [] { throw std::runtime_error("nor this"); });
    hostEventLoop().timerStart(milliseconds(1), [&] { notes.put(1); });
    EXPECT_EQ(1u, notes.waitFor(1).size());
    const std::string text = captured.take();
    EXPECT_NE(std::string::npos, text.find("a handler failed: no such thing"));
    EXPECT_NE(std::string::npos, text.find("a handler failed: nor this"));
}

} // namespace
