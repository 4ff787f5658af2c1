// Mutex semaphores (platform/sil_sem.h).
//
// A handle is the index into a fixed table plus one, so it has 32 bits and 0 is never one. Each mutex
// knows its holder, so that taking one's own, giving back another's and destroying a held one are refused;
// waiting is by the monotonic clock. The host's tasks have no priorities, so the options that ask for
// priority order and inheritance change nothing.
#include "platform/sil_sem.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include <pthread.h>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace {

constexpr uint32_t SEM_COUNT = 64;

struct Sem {
    std::mutex lock; // guards the fields; held for a moment only
    std::condition_variable given;
    bool isUsed = false;
    bool isHeld = false;
    pthread_t holder{}; // while isHeld
    char watched = 0; // what the thread sanitizer knows it by; never written
};

Sem *const gSems = new Sem[SEM_COUNT]; // never destroyed: tasks wait on them until the process ends

// The thread sanitizer is told that a semaphore is a mutex, and not only the flag and the lock that it is made of: so it
// sees in which order this one and the services' locks are taken.
struct Watch {
#if defined(__SANITIZE_THREAD__)
    // Around a take; one with an end to its waiting cannot stand still for ever.
    static void takeBegin(Sem &sem, int32_t timeoutMs) {
        __tsan_mutex_pre_lock(&sem.watched, timeoutMs < 0 ? 0 : __tsan_mutex_try_lock);
    }
    static void takeEnd(Sem &sem, int32_t timeoutMs, bool isTaken) {
        __tsan_mutex_post_lock(&sem.watched, (timeoutMs < 0 ? 0 : __tsan_mutex_try_lock) |
                                                (isTaken ? 0 : __tsan_mutex_try_lock_failed), 0);
    }
    static void given(Sem &sem) {
        (void)__tsan_mutex_pre_unlock(&sem.watched, 0);
        __tsan_mutex_post_unlock(&sem.watched, 0);
    }
    static void deleted(Sem &sem) { __tsan_mutex_destroy(&sem.watched, 0); }
#else
    static void takeBegin(Sem &, int32_t) {}
    static void takeEnd(Sem &, int32_t, bool) {}
    static void given(Sem &) {}
    static void deleted(Sem &) {}
#endif
};

bool isHeldBySelf(const Sem &sem) {
    return sem.isHeld && pthread_equal(sem.holder, pthread_self()) != 0;
}

int32_t failed(int error) {
    errno = error;
    return -1;
}

// Waits until the mutex is free, at most timeoutMs, -1 without limit. Result: whether it is.
bool waitFree(Sem &sem, std::unique_lock<std::mutex> &guard, int32_t timeoutMs) {
    const auto isFree = [&sem] { return !sem.isHeld; };
    if (timeoutMs >= 0) {
        return sem.given.wait_for(guard, std::chrono::milliseconds(timeoutMs), isFree);
    }
    sem.given.wait(guard, isFree);
    return true;
}

int32_t take(Sem &sem, std::unique_lock<std::mutex> &guard, int32_t timeoutMs) {
    if (isHeldBySelf(sem)) {
        return failed(EDEADLK);
    }
    if (!waitFree(sem, guard, timeoutMs)) {
        return failed(ETIMEDOUT);
    }
    sem.isHeld = true;
    sem.holder = pthread_self();
    return 0;
}

// Calls `use(semaphore, guard)` for a handle that is in use, under the semaphore's own lock.
template <typename Use>
int32_t withSem(uint32_t handle, Use use) {
    if (handle == 0 || handle > SEM_COUNT) {
        return failed(EINVAL);
    }
    Sem &sem = gSems[handle - 1];
    std::unique_lock<std::mutex> guard(sem.lock);
    return sem.isUsed ? use(sem, guard) : failed(EINVAL);
}

} // namespace

uint32_t silCreateMSem(uint32_t) {
    for (uint32_t index = 0; index < SEM_COUNT; ++index) {
        const std::lock_guard<std::mutex> guard(gSems[index].lock);
        if (!gSems[index].isUsed) {
            gSems[index].isUsed = true;
            return index + 1;
        }
    }
    errno = ENOSPC;
    return 0;
}

int32_t silTakeSem(uint32_t handle, int32_t timeoutMs) {
    if (handle == 0 || handle > SEM_COUNT) {
        return failed(EINVAL);
    }
    Sem &asked = gSems[handle - 1];
    Watch::takeBegin(asked, timeoutMs);
    const int32_t result = withSem(handle, [timeoutMs](Sem &sem, std::unique_lock<std::mutex> &guard) {
        return take(sem, guard, timeoutMs);
    });
    Watch::takeEnd(asked, timeoutMs, result == 0);
    return result;
}

int32_t silGiveSem(uint32_t handle) {
    return withSem(handle, [](Sem &sem, std::unique_lock<std::mutex> &) {
        if (!isHeldBySelf(sem)) {
            return failed(EPERM);
        }
        Watch::given(sem);
        sem.isHeld = false;
        sem.given.notify_one();
        return 0;
    });
}

int32_t silDeleteSem(uint32_t handle) {
    return withSem(handle, [](Sem &sem, std::unique_lock<std::mutex> &) {
        if (sem.isHeld) {
            return failed(EBUSY);
        }
        Watch::deleted(sem);
        sem.isUsed = false;
        return 0;
    });
}
