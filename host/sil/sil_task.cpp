// Tasks (platform/sil_task.h): detached threads with a name. Linux's ordinary scheduling has no
// priorities like the platform's 0..255, so the priority is not used.
#include "platform/sil_task.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>

#include <pthread.h>

namespace {

// Below this the host's own code, which runs on the daemon's tasks too, has no room.
constexpr size_t LEAST_STACK_BYTES = 256 * 1024;
constexpr size_t STACK_UNIT_BYTES = 64 * 1024; // a multiple of every page size in use

constexpr size_t NAME_BYTES = 16; // Linux: 15 characters and the terminator

struct Start {
    SilTaskEntry entry;
    void *pArg1;
    void *pArg2;
    char name[NAME_BYTES];
};

std::atomic<uint32_t> gLastTaskId{0};

void *run(void *pArg) {
    const std::unique_ptr<Start> pStart(static_cast<Start *>(pArg));
    (void)pthread_setname_np(pthread_self(), pStart->name); // only for those who look at the process
    pStart->entry(pStart->pArg1, pStart->pArg2);
    return nullptr;
}

size_t stackFor(uint32_t stackBytes) {
    const size_t wanted = std::max<size_t>(stackBytes, LEAST_STACK_BYTES);
    return (wanted + STACK_UNIT_BYTES - 1) / STACK_UNIT_BYTES * STACK_UNIT_BYTES;
}

int startDetached(Start *pStart, size_t stackBytes) {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) {
        return error;
    }
    (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED); // cannot fail
    error = pthread_attr_setstacksize(&attributes, stackBytes);
    if (error == 0) {
        pthread_t thread;
        error = pthread_create(&thread, &attributes, run, pStart);
    }
    (void)pthread_attr_destroy(&attributes); // cannot fail after init
    return error;
}

} // namespace

int32_t silCreateTask(const char *name, uint32_t, uint32_t stackBytes, SilTaskEntry entry, void *pArg1,
                      void *pArg2, uint32_t *pTaskId) {
    if (name == nullptr || entry == nullptr || pTaskId == nullptr || stackBytes > INT32_MAX) {
        errno = EINVAL;
        return -1;
    }
    auto pStart = std::make_unique<Start>(Start{entry, pArg1, pArg2, {}});
    snprintf(pStart->name, sizeof(pStart->name), "%s", name);
    const int error = startDetached(pStart.get(), stackFor(stackBytes));
    if (error != 0) {
        errno = error;
        return -1;
    }
    (void)pStart.release(); // the task frees it
    *pTaskId = ++gLastTaskId;
    return 0;
}
