// Mutex semaphores (platform/sil_sem.h) on POSIX mutexes.
//
// A handle is the index into a fixed table plus one, so it has 32 bits and 0 is never one. The mutexes
// check errors: taking one's own or giving back another's is refused. The host's tasks have no priorities,
// so the options that ask for priority order and inheritance change nothing. A slot of the table is made
// and unmade under gTableLock; takers only read `used`.
#include "platform/sil_sem.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>

#include <pthread.h>

namespace {

constexpr uint32_t SEM_COUNT = 64;

struct Sem {
    std::atomic<bool> used{false};
    pthread_mutex_t mutex{};
};

std::mutex gTableLock;
Sem gSems[SEM_COUNT];

Sem *semOf(uint32_t handle) {
    if (handle == 0 || handle > SEM_COUNT || !gSems[handle - 1].used) {
        return nullptr;
    }
    return &gSems[handle - 1];
}

// The platform's result of a call that answers with an error number.
int32_t resultOf(int error) {
    if (error == 0) {
        return 0;
    }
    errno = error;
    return -1;
}

int mutexInit(pthread_mutex_t *pMutex) {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) {
        return error;
    }
    (void)pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK); // cannot fail with this type
    error = pthread_mutex_init(pMutex, &attributes);
    (void)pthread_mutexattr_destroy(&attributes); // cannot fail after init
    return error;
}

timespec deadlineIn(int32_t timeoutMs) {
    timespec at{};
    clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += timeoutMs / 1000;
    at.tv_nsec += timeoutMs % 1000 * 1000000L;
    if (at.tv_nsec >= 1000000000L) {
        ++at.tv_sec;
        at.tv_nsec -= 1000000000L;
    }
    return at;
}

int takeWithin(pthread_mutex_t *pMutex, int32_t timeoutMs) {
    const timespec at = deadlineIn(timeoutMs);
    return pthread_mutex_clocklock(pMutex, CLOCK_MONOTONIC, &at);
}

} // namespace

uint32_t silCreateMSem(uint32_t) {
    const std::lock_guard<std::mutex> guard(gTableLock);
    for (uint32_t index = 0; index < SEM_COUNT; ++index) {
        if (gSems[index].used) {
            continue;
        }
        if (resultOf(mutexInit(&gSems[index].mutex)) != 0) {
            return 0;
        }
        gSems[index].used = true;
        return index + 1;
    }
    errno = ENOSPC;
    return 0;
}

int32_t silTakeSem(uint32_t handle, int32_t timeoutMs) {
    Sem *pSem = semOf(handle);
    if (pSem == nullptr) {
        return resultOf(EINVAL);
    }
    if (timeoutMs < 0) {
        return resultOf(pthread_mutex_lock(&pSem->mutex));
    }
    if (timeoutMs == 0) {
        return resultOf(pthread_mutex_trylock(&pSem->mutex));
    }
    return resultOf(takeWithin(&pSem->mutex, timeoutMs));
}

int32_t silGiveSem(uint32_t handle) {
    Sem *pSem = semOf(handle);
    return resultOf(pSem == nullptr ? EINVAL : pthread_mutex_unlock(&pSem->mutex));
}

int32_t silDeleteSem(uint32_t handle) {
    const std::lock_guard<std::mutex> guard(gTableLock);
    Sem *pSem = semOf(handle);
    if (pSem == nullptr) {
        return resultOf(EINVAL);
    }
    const int error = pthread_mutex_destroy(&pSem->mutex); // refuses a mutex that is held
    if (error == 0) {
        pSem->used = false;
    }
    return resultOf(error);
}
