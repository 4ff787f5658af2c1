// Sets the time of day of one process, forward and back, while it runs: an object to preload (LD_PRELOAD), steered
// through the file that PBR_CLOCK names, which the test maps too. Used by tests/support/steps.py; preload.py compiles it.
//
// The file is {seconds that the process's clock is ahead, a number that counts the steps}. As the kernel does when
// somebody sets the machine's clock, a step moves CLOCK_REALTIME and nothing of CLOCK_MONOTONIC, makes absolute timers
// due by the new time, and cancels those that asked for it: their read, or the next setting, fails with ECANCELED.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

struct Switch {
    int64_t ahead;
    uint32_t steps;
};
static struct Switch *pSwitch;

// A timer on the time of day: when it is due by the process's clock (0: never), and whether a step cancelled it.
struct Timer {
    int isOpen, cancels, isCancelled;
    struct itimerspec due;
};
enum { TIMERS = 1024 };
static struct Timer timers[TIMERS]; // by descriptor
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

static int64_t ahead(void) { return pSwitch ? __atomic_load_n(&pSwitch->ahead, __ATOMIC_ACQUIRE) : 0; }

// Arms the kernel's timer for the same moment by the machine's clock.
static int arm(int fd, const struct Timer *pTimer) {
    struct itimerspec due = pTimer->due;
    if (due.it_value.tv_sec || due.it_value.tv_nsec) {
        const int64_t second = (int64_t)due.it_value.tv_sec - ahead();
        due.it_value.tv_sec = second > 0 ? second : 0;
        due.it_value.tv_nsec = second > 0 ? due.it_value.tv_nsec : 1;
    }
    return REAL(timerfd_settime)(fd, TFD_TIMER_ABSTIME, &due, NULL);
}

static void step(void) {
    static const struct itimerspec now = {{0, 0}, {0, 1}};
    pthread_mutex_lock(&lock);
    for (int fd = 0; fd < TIMERS; ++fd) {
        struct Timer *pTimer = &timers[fd];
        const int isArmed = pTimer->due.it_value.tv_sec || pTimer->due.it_value.tv_nsec;
        if (pTimer->isOpen && isArmed && pTimer->cancels) {
            pTimer->isCancelled = 1;
            (void)REAL(timerfd_settime)(fd, TFD_TIMER_ABSTIME, &now, NULL); // who waits for it wakes
        } else if (pTimer->isOpen && isArmed) {
            (void)arm(fd, pTimer);
        }
    }
    pthread_mutex_unlock(&lock);
}

static void *watch(void *pNone) {
    for (uint32_t seen = 0;; usleep(5000)) {
        const uint32_t steps = __atomic_load_n(&pSwitch->steps, __ATOMIC_ACQUIRE);
        if (steps != seen) {
            seen = steps;
            step();
        }
    }
    return pNone;
}

__attribute__((constructor)) static void switchMap(void) {
    const char *pPath = getenv("PBR_CLOCK");
    const int fd = pPath ? open(pPath, O_RDWR | O_CLOEXEC) : -1;
    void *pMapped = fd < 0 ? MAP_FAILED : mmap(NULL, sizeof(struct Switch), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    pthread_t thread;
    if (pMapped != MAP_FAILED) {
        pSwitch = pMapped;
        pthread_create(&thread, NULL, watch, NULL);
    }
}

int clock_gettime(clockid_t clock, struct timespec *pTime) {
    const int result = REAL(clock_gettime)(clock, pTime);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        pTime->tv_sec += (time_t)ahead();
    }
    return result;
}
time_t time(time_t *pTime) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (pTime) {
        *pTime = now.tv_sec;
    }
    return now.tv_sec;
}
int gettimeofday(struct timeval *pTime, void *pZone) {
    const int result = REAL(gettimeofday)(pTime, pZone);
    pTime->tv_sec += (time_t)ahead();
    return result;
}
int timerfd_create(int clock, int flags) {
    const int fd = REAL(timerfd_create)(clock, flags);
    if (fd >= 0 && fd < TIMERS && clock == CLOCK_REALTIME) {
        pthread_mutex_lock(&lock);
        timers[fd] = (struct Timer){.isOpen = 1};
        pthread_mutex_unlock(&lock);
    }
    return fd;
}
int timerfd_settime(int fd, int flags, const struct itimerspec *pNew, struct itimerspec *pOld) {
    if (fd < 0 || fd >= TIMERS || !timers[fd].isOpen || !(flags & TFD_TIMER_ABSTIME)) {
        return REAL(timerfd_settime)(fd, flags, pNew, pOld);
    }
    pthread_mutex_lock(&lock);
    struct Timer *pTimer = &timers[fd];
    pTimer->due = *pNew;
    pTimer->cancels = flags & TFD_TIMER_CANCEL_ON_SET;
    int result = arm(fd, pTimer);
    if (result == 0 && pTimer->isCancelled) { // it is armed all the same
        pTimer->isCancelled = 0;
        errno = ECANCELED;
        result = -1;
    }
    pthread_mutex_unlock(&lock);
    return result;
}
ssize_t read(int fd, void *pData, size_t size) {
    if (fd < 0 || fd >= TIMERS || !timers[fd].isOpen) {
        return REAL(read)(fd, pData, size);
    }
    pthread_mutex_lock(&lock);
    ssize_t result = REAL(read)(fd, pData, size);
    if (timers[fd].isCancelled) {
        timers[fd].isCancelled = 0;
        errno = ECANCELED;
        result = -1;
    }
    pthread_mutex_unlock(&lock);
    return result;
}
int close(int fd) {
    if (fd >= 0 && fd < TIMERS) {
        timers[fd].isOpen = 0;
    }
    return REAL(close)(fd);
}
