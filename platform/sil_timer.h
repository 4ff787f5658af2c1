// One-shot timers in a list that its owner polls: the callbacks run on the task that checks the list.
//
// A list and its timers belong to one task after start-up, or are guarded by the caller's own lock.
#ifndef PLATFORM_SIL_TIMER_H
#define PLATFORM_SIL_TIMER_H

#include "platform/platform_types.h"

extern "C" {

// Two machine words, zero before silTimerListInit; their use is the platform's.
struct SilTimerList {
    uintptr_t word[2];
};

// Eight machine words, zero before the first start; their use is the platform's. The owner keeps the
// object in place while the timer is armed.
struct SilTimer {
    uintptr_t word[8];
};

typedef int32_t (*SilTimerCallback)(void *pArg);

// Makes the list empty. Result: 0, or -1. Lock: none
[[nodiscard]] int32_t silTimerListInit(SilTimerList *pList);

// Arms a timer to fire once, periodMs milliseconds from now; an armed timer is armed afresh. flags,
// arg1 (passed to the callback), arg2, arg3: the daemon passes 0. Result: 0, or non-zero.
// Lock: held by caller (after start-up)
int32_t silTimerStart(SilTimerList *pList, SilTimer *pTimer, uint32_t flags, uint32_t periodMs,
                      SilTimerCallback callback, void *pArg1, uintptr_t arg2, uintptr_t arg3);

// Disarms a timer; harmless when it is not armed. Result: 0, or non-zero. Lock: held by caller
int32_t silTimerStop(SilTimerList *pList, SilTimer *pTimer);

// Milliseconds until the next armed timer is due (0: due now), or -1 when none is armed.
// Lock: held by caller
int32_t silTimerListNextTimeout(SilTimerList *pList);

// Disarms every timer that is due and calls its callback, on the calling task, in order of due time.
// A timer that a callback arms again is not called in the same check. Lock: held by caller
void silTimerListCheck(SilTimerList *pList);
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(SilTimerList) == 8 && sizeof(SilTimer) == 32);
#endif

#endif
