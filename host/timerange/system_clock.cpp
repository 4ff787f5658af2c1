// The machine's clock: a timer of the kernel on the time of day, and the C library's zone.
//
// The timer is absolute on CLOCK_REALTIME, so that it is due at that time of day whatever the clock does
// until then, also after a suspend, and the kernel cancels it when somebody sets the clock
// (TFD_TIMER_CANCEL_ON_SET): a jump is told at once and nothing is polled. A zone file tells nobody that it
// was replaced; while an alarm is set it is looked at once a minute.
//
// This is the one file that asks the C library for local time. localtime_r takes the library's own lock and
// keeps to the rules that it read; tzset reads /etc/localtime again. TZ, where it is set, is of the process
// and never written here.
#include <ctime>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <system_error>

#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "host/event/event_loop.h"
#include "host/logging/host_log.h"
#include "host/timerange/timerange_clock.h"

namespace host {

namespace {

constexpr int64_t MINUTE = 60;
constexpr const char *ZONE_FILE = "/etc/localtime";

// What the zone file was when it was read; all zero when there is none.
struct ZoneStamp {
    dev_t device = 0;
    ino_t file = 0;
    off_t size = 0;
    time_t second = 0;
    long nanosecond = 0;
    bool operator==(const ZoneStamp &) const = default;
};

ZoneStamp zoneStamp() {
    struct stat status = {};
    if (stat(ZONE_FILE, &status) != 0) {
        return {};
    }
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

class SystemClock final : public TimerangeClock {
public:
    SystemClock() : fd(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)), stamp(zoneStamp()) {
        if (fd < 0) {
            throw std::system_error(errno, std::generic_category(), "timer of the time ranges");
        }
        tzset();
    }
    ~SystemClock() override {
        wakeSet(nullptr);
        close(fd);
    }
    SystemClock(const SystemClock &) = delete;
    SystemClock &operator=(const SystemClock &) = delete;

    int32_t offsetAt(int64_t instant) const override {
        const auto at = static_cast<time_t>(instant);
        struct tm local = {};
        return localtime_r(&at, &local) == nullptr ? 0 : static_cast<int32_t>(local.tm_gmtoff);
    }

    // The fine clock: the coarse one of time() may lag behind the timer.
    int64_t now() const override {
        timespec at = {};
        (void)clock_gettime(CLOCK_REALTIME, &at); // cannot fail
        return at.tv_sec;
    }

    void wakeSet(std::function<void(bool)> wake) override {
        hostEventLoop().fdDel(fd);
        if (wake) {
            hostEventLoop().fdAdd(fd, EPOLLIN, [this, wake = std::move(wake)](uint32_t) { ready(wake); });
        }
    }

    void alarmSet(std::optional<int64_t> instant) override {
        const std::lock_guard guard(lock);
        itimerspec due = {}; // zero: disarmed
        if (instant) {
            const int64_t minute = (now() / MINUTE + 1) * MINUTE;
            due.it_value.tv_sec = std::max<int64_t>(1, std::min(*instant, minute));
        }
        const int flags = TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET;
        if (timerfd_settime(fd, flags, &due, nullptr) == 0) {
            return;
        }
        if (errno != ECANCELED) {
            hostLog(LOG_LEVEL_ERROR, "timerange", "the timer cannot be set: %s",
                    std::generic_category().message(errno).c_str());
            return;
        }
        // The clock was set since the timer was read last. It is armed all the same; the jump is still to be
        // told, from the event thread: due at once.
        isJumped = true;
        due.it_value.tv_sec = 1;
        (void)timerfd_settime(fd, TFD_TIMER_ABSTIME, &due, nullptr); // these arguments are right
    }

private:
    // On the event thread.
    void ready(const std::function<void(bool)> &wake) {
        bool isJump = false;
        uint64_t count = 0;
        if (read(fd, &count, sizeof count) < 0) {
            if (errno != ECANCELED) {
                return; // set anew since it was due
            }
            isJump = true;
        }
        {
            const std::lock_guard guard(lock);
            isJump = isJump || isJumped;
            isJumped = false;
        }
        wake(zoneFollow() || isJump);
    }

    // Reads the zone's rules again if the file is another one. Result: whether it is.
    bool zoneFollow() {
        const ZoneStamp found = zoneStamp();
        if (found == stamp) {
            return false;
        }
        stamp = found;
        tzset();
        return true;
    }

    const int fd;
    ZoneStamp stamp;       // event thread only, once the clock is made
    std::mutex lock;       // guards what follows
    bool isJumped = false; // a jump that was noticed while setting the timer
};

} // namespace

std::unique_ptr<TimerangeClock> systemClock() {
    return std::make_unique<SystemClock>();
}

} // namespace host
