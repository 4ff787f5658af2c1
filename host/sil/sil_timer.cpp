// One-shot timers (platform/sil_timer.h): a list in order of due time, worked off by its owner.
//
// The list and its timers are the owner's memory: all state lives in their words, nothing is allocated.
// Due times have 64 bits in two words each, so they never wrap.
//
// Invariants: word LIST of an armed timer is its list and 0 otherwise; armed timers are sorted by due
// time, equal ones in the order of arming. A check counts the list's round up; a timer carries the round
// in which it was armed, so that one armed by a callback waits for the next check, even when it is due.
#include "platform/sil_timer.h"

#include <algorithm>

#include "host/sil/sil_clock.h"

namespace {

enum ListWord { FIRST, ROUND };
enum TimerWord { LIST, NEXT, DUE_HIGH, DUE_LOW, CALLBACK, ARG, ARMED_IN };

SilTimer *timerAt(uintptr_t word) {
    return reinterpret_cast<SilTimer *>(word);
}

uintptr_t wordOf(const void *pObject) {
    return reinterpret_cast<uintptr_t>(pObject);
}

uint64_t dueOf(const SilTimer *pTimer) {
    return static_cast<uint64_t>(pTimer->word[DUE_HIGH]) << 32 | pTimer->word[DUE_LOW];
}

// Takes the timer out of the list in which it is armed, if any.
void unlink(SilTimer *pTimer) {
    auto *pList = reinterpret_cast<SilTimerList *>(pTimer->word[LIST]);
    if (pList == nullptr) {
        return;
    }
    uintptr_t *pLink = &pList->word[FIRST];
    while (*pLink != 0 && *pLink != wordOf(pTimer)) {
        pLink = &timerAt(*pLink)->word[NEXT];
    }
    if (*pLink != 0) {
        *pLink = pTimer->word[NEXT];
    }
    pTimer->word[LIST] = 0;
    pTimer->word[NEXT] = 0;
}

// Puts the timer behind all that are due no later.
void link(SilTimerList *pList, SilTimer *pTimer) {
    const uint64_t due = dueOf(pTimer);
    uintptr_t *pLink = &pList->word[FIRST];
    while (*pLink != 0 && dueOf(timerAt(*pLink)) <= due) {
        pLink = &timerAt(*pLink)->word[NEXT];
    }
    pTimer->word[NEXT] = *pLink;
    pTimer->word[LIST] = wordOf(pList);
    *pLink = wordOf(pTimer);
}

// The first timer that is due at `now` and was armed before this round, or null. Asked afresh after
// every callback, since a callback may arm and disarm any timer of the list.
SilTimer *firstDue(const SilTimerList *pList, uint64_t now) {
    for (SilTimer *pTimer = timerAt(pList->word[FIRST]); pTimer != nullptr && dueOf(pTimer) <= now;
         pTimer = timerAt(pTimer->word[NEXT])) {
        if (pTimer->word[ARMED_IN] != pList->word[ROUND]) {
            return pTimer;
        }
    }
    return nullptr;
}

} // namespace

int32_t silTimerListInit(SilTimerList *pList) {
    if (pList == nullptr) {
        return -1;
    }
    *pList = SilTimerList{};
    return 0;
}

int32_t silTimerStart(SilTimerList *pList, SilTimer *pTimer, uint32_t, uint32_t periodMs,
                      SilTimerCallback callback, void *pArg1, uintptr_t, uintptr_t) {
    if (pList == nullptr || pTimer == nullptr || callback == nullptr) {
        return -1;
    }
    unlink(pTimer);
    const uint64_t due = host::clockMs() + periodMs;
    pTimer->word[DUE_HIGH] = static_cast<uint32_t>(due >> 32);
    pTimer->word[DUE_LOW] = static_cast<uint32_t>(due);
    pTimer->word[CALLBACK] = reinterpret_cast<uintptr_t>(callback);
    pTimer->word[ARG] = wordOf(pArg1);
    pTimer->word[ARMED_IN] = pList->word[ROUND];
    link(pList, pTimer);
    return 0;
}

// cppcheck-suppress constParameter ; the interface says so
int32_t silTimerStop(SilTimerList *pList, SilTimer *pTimer) {
    if (pList == nullptr || pTimer == nullptr) {
        return -1;
    }
    unlink(pTimer);
    return 0;
}

int32_t silTimerListNextTimeout(SilTimerList *pList) {
    if (pList == nullptr || pList->word[FIRST] == 0) {
        return -1;
    }
    const uint64_t due = dueOf(timerAt(pList->word[FIRST]));
    const uint64_t now = host::clockMs();
    return due <= now ? 0 : static_cast<int32_t>(std::min<uint64_t>(due - now, INT32_MAX));
}

void silTimerListCheck(SilTimerList *pList) {
    if (pList == nullptr) {
        return;
    }
    const uint64_t now = host::clockMs();
    ++pList->word[ROUND];
    while (SilTimer *pTimer = firstDue(pList, now)) {
        unlink(pTimer);
        const auto callback = reinterpret_cast<SilTimerCallback>(pTimer->word[CALLBACK]);
        (void)callback(reinterpret_cast<void *>(pTimer->word[ARG])); // the contract gives it no meaning
    }
}
