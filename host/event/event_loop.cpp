// The host's event thread: an epoll loop with an eventfd that wakes it for posted work and new timers.
//
// Invariants: `watched` maps a number that is never used twice to a handler, and epoll carries that
// number, so an event that was fetched before its descriptor was given up finds nothing; `running` is the
// number of the handler that runs now. Handlers run without the loop's lock. One pass runs the ready
// descriptors, then the timers that are due, then the work posted so far; what they add waits for the
// next pass, so none of the three starves the others.
#include "host/event/event_loop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <vector>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "host/logging/host_log.h"

namespace host {
namespace {

using Clock = std::chrono::steady_clock;
using Handler = std::function<void(uint32_t)>;

constexpr uint64_t WAKE = 0; // epoll number of the eventfd

void guarded(const std::function<void()> &work) {
    try {
        work();
    } catch (const std::exception &error) {
        hostLog(LOG_LEVEL_ERROR, "event", "a handler failed: %s", error.what());
    }
}

class EpollLoop final : public EventLoop {
public:
    EpollLoop();

    void fdAdd(int fd, uint32_t events, Handler ready) override;
    void fdDel(int fd) override;
    void post(std::function<void()> work) override;
    TimerId timerStart(std::chrono::milliseconds delay, std::function<void()> work) override;
    void timerStop(TimerId id) override;
    bool onThread() const override { return pthread_equal(thread, pthread_self()) != 0; }

private:
    struct Watched {
        int fd;
        std::shared_ptr<Handler> pReady;
    };

    static void *threadMain(void *pArg);
    [[noreturn]] void run();
    int waitMs();
    void readyRun(uint64_t number, uint32_t events);
    void timersRun();
    void postedRun();
    void wake();

    int epollFd;
    int wakeFd;
    pthread_t thread{};
    std::mutex lock; // guards everything below
    std::condition_variable handlerDone;
    uint64_t lastNumber = WAKE;
    uint64_t running = WAKE; // number of the handler that runs, WAKE: none
    std::map<uint64_t, Watched> watched;
    std::map<int, uint64_t> numberOfFd;
    std::vector<std::function<void()>> posted;
    TimerId lastTimer = 0;
    std::map<std::pair<Clock::time_point, TimerId>, std::function<void()>> timers;
    std::map<TimerId, Clock::time_point> dueOfTimer;
};

EpollLoop::EpollLoop() : epollFd(epoll_create1(EPOLL_CLOEXEC)), wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = WAKE;
    if (epollFd < 0 || wakeFd < 0 || epoll_ctl(epollFd, EPOLL_CTL_ADD, wakeFd, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "event loop");
    }
    // Signals are for the program's own threads; the event thread gets them as descriptors only.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    lock.lock(); // the thread starts when `thread` is set
    const int error = pthread_create(&thread, nullptr, threadMain, this);
    lock.unlock();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "event thread");
    }
}

void *EpollLoop::threadMain(void *pArg) {
    auto *pLoop = static_cast<EpollLoop *>(pArg);
    pLoop->lock.lock();
    (void)pthread_setname_np(pLoop->thread, "hostevent"); // only for those who look at the process
    pLoop->lock.unlock();
    // cppcheck-suppress missingReturn ; run() does not return
    pLoop->run();
}

void EpollLoop::wake() {
    const uint64_t one = 1;
    ssize_t written = -1;
    do {
        written = write(wakeFd, &one, sizeof(one)); // full means that the thread wakes anyway
    } while (written < 0 && errno == EINTR);
}

void EpollLoop::fdAdd(int fd, uint32_t events, Handler ready) {
    const std::lock_guard<std::mutex> guard(lock);
    const auto before = numberOfFd.find(fd);
    const bool isWatched = before != numberOfFd.end();
    const uint64_t number = ++lastNumber;
    epoll_event event{};
    event.events = events;
    event.data.u64 = number;
    int result = epoll_ctl(epollFd, isWatched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event);
    if (result != 0 && isWatched && errno == ENOENT) { // closed without fdDel, and made anew
        result = epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
    }
    if (result != 0) {
        hostLog(LOG_LEVEL_ERROR, "event", "descriptor %d cannot be watched: %s", fd, strerror(errno));
        return;
    }
    if (isWatched) {
        watched.erase(before->second);
    }
    watched[number] = {fd, std::make_shared<Handler>(std::move(ready))};
    numberOfFd[fd] = number;
}

void EpollLoop::fdDel(int fd) {
    std::unique_lock<std::mutex> guard(lock);
    const auto found = numberOfFd.find(fd);
    if (found == numberOfFd.end()) {
        return;
    }
    const uint64_t number = found->second;
    (void)epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr); // a closed descriptor is out already
    watched.erase(number);
    numberOfFd.erase(found);
    if (!onThread()) {
        handlerDone.wait(guard, [&] { return running != number; });
    }
}

void EpollLoop::post(std::function<void()> work) {
    const std::lock_guard<std::mutex> guard(lock);
    posted.push_back(std::move(work));
    wake();
}

EventLoop::TimerId EpollLoop::timerStart(std::chrono::milliseconds delay, std::function<void()> work) {
    const std::lock_guard<std::mutex> guard(lock);
    const TimerId id = ++lastTimer;
    const Clock::time_point due = Clock::now() + delay;
    dueOfTimer[id] = due;
    const auto added = timers.emplace(std::make_pair(due, id), std::move(work)).first;
    if (added == timers.begin()) {
        wake();
    }
    return id;
}

void EpollLoop::timerStop(TimerId id) {
    std::function<void()> work; // destroyed behind the lock: it may own what calls us
    const std::lock_guard<std::mutex> guard(lock);
    const auto found = dueOfTimer.find(id);
    if (found == dueOfTimer.end()) {
        return;
    }
    const auto timer = timers.find({found->second, id});
    work = std::move(timer->second);
    timers.erase(timer);
    dueOfTimer.erase(found);
}

// How long the loop may wait: rounded up, so that a timer never finds itself early and spins.
int EpollLoop::waitMs() {
    const std::lock_guard<std::mutex> guard(lock);
    if (!posted.empty()) {
        return 0;
    }
    if (timers.empty()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(timers.begin()->first.first - Clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 3600000));
}

void EpollLoop::readyRun(uint64_t number, uint32_t events) {
    std::shared_ptr<Handler> pReady;
    {
        const std::lock_guard<std::mutex> guard(lock);
        const auto found = watched.find(number);
        if (found == watched.end()) {
            return; // given up since the event was fetched
        }
        pReady = found->second.pReady;
        running = number;
    }
    guarded([&] { (*pReady)(events); });
    const std::lock_guard<std::mutex> guard(lock);
    running = WAKE;
    handlerDone.notify_all();
}

void EpollLoop::timersRun() {
    const Clock::time_point now = Clock::now();
    std::unique_lock<std::mutex> guard(lock);
    const TimerId newest = lastTimer;
    auto next = timers.begin();
    while (next != timers.end() && next->first.first <= now) {
        if (next->first.second > newest) {
            ++next; // started by one of these: the next pass runs it
            continue;
        }
        const std::function<void()> work = std::move(next->second);
        dueOfTimer.erase(next->first.second);
        timers.erase(next);
        guard.unlock();
        guarded(work);
        guard.lock();
        next = timers.begin();
    }
}

void EpollLoop::postedRun() {
    std::vector<std::function<void()>> batch;
    {
        const std::lock_guard<std::mutex> guard(lock);
        batch.swap(posted);
    }
    for (const std::function<void()> &work : batch) {
        guarded(work);
    }
}

void EpollLoop::run() {
    std::array<epoll_event, 64> events{};
    for (;;) {
        const int count = epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), waitMs());
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == WAKE) {
                uint64_t wakes = 0;
                (void)!read(wakeFd, &wakes, sizeof(wakes)); // only to empty it
            } else {
                readyRun(events[i].data.u64, events[i].events);
            }
        }
        timersRun();
        postedRun();
    }
}

} // namespace

EventLoop &hostEventLoop() {
    static EpollLoop *pLoop = new EpollLoop; // never destroyed: its thread runs until the process ends
    return *pLoop;
}

} // namespace host
