// Timers of the fake, on the virtual clock.
#include "platform/sil_timer.h"

#include <algorithm>

#include "tests/fake/fake_state.h"

namespace fake {

void advanceMs(uint32_t ms) {
    state().nowMs += ms;
}
uint64_t nowMs() {
    return state().nowMs;
}

namespace {

std::string timerName(const SilTimer *pTimer) {
    auto &known = state().knownTimers;
    auto found = std::find(known.begin(), known.end(), pTimer);
    if (found == known.end()) {
        found = known.insert(known.end(), pTimer);
    }
    return text("timer%d", static_cast<int>(found - known.begin()) + 1);
}

void disarm(const SilTimer *pTimer) {
    auto &armed = state().armed;
    armed.erase(std::remove_if(armed.begin(), armed.end(),
                               [&](const ArmedTimer &timer) { return timer.pTimer == pTimer; }),
                armed.end());
}

// Whether this very arming still stands.
bool isArmed(const ArmedTimer &timer) {
    const auto &armed = state().armed;
    return std::any_of(armed.begin(), armed.end(),
                       [&](const ArmedTimer &other) { return other.sequence == timer.sequence; });
}

void needLock(const char *call) {
    if (!state().semaphores.empty() && !locked()) {
        misuse(std::string(call) + " without the mutex");
    }
}

void needList(const SilTimerList *pList, const char *call) {
    if (state().timerLists.count(pList) == 0) {
        misuse(std::string(call) + " on a list that was not made");
    }
}

} // namespace
} // namespace fake

using namespace fake;

extern "C" int32_t silTimerListInit(SilTimerList *pList) {
    const int64_t rc = fallible("silTimerListInit", "silTimerListInit()", 0, -1);
    if (rc == 0) {
        state().timerLists.insert(pList);
        pList->word[0] = 1;
    }
    return static_cast<int32_t>(rc);
}

extern "C" int32_t silTimerStart(SilTimerList *pList, SilTimer *pTimer, uint32_t flags, uint32_t periodMs,
                                 SilTimerCallback callback, void *pArg1, uintptr_t arg2, uintptr_t arg3) {
    const std::string line = text("silTimerStart(%s, %u)", timerName(pTimer).c_str(), periodMs);
    if (flags != 0 || callback == nullptr || pArg1 != nullptr || arg2 != 0 || arg3 != 0) {
        misuse(line + ": flags, callback or arguments");
    }
    needList(pList, "silTimerStart");
    disarm(pTimer);
    const int64_t rc = call("silTimerStart", line, 0);
    if (rc == 0) {
        State &s = state();
        s.armed.push_back({pTimer, pList, s.nowMs + periodMs, ++s.sequence, callback, pArg1});
    }
    return static_cast<int32_t>(rc);
}

extern "C" int32_t silTimerStop(SilTimerList *pList, SilTimer *pTimer) {
    record(text("silTimerStop(%s)", timerName(pTimer).c_str()));
    needList(pList, "silTimerStop");
    disarm(pTimer);
    return 0;
}

extern "C" int32_t silTimerListNextTimeout(SilTimerList *pList) {
    needList(pList, "silTimerListNextTimeout");
    needLock("silTimerListNextTimeout");
    int64_t least = -1;
    for (const ArmedTimer &timer : state().armed) {
        const int64_t left = timer.dueMs > state().nowMs ? static_cast<int64_t>(timer.dueMs - state().nowMs) : 0;
        least = least < 0 ? left : std::min(least, left);
    }
    least = std::min<int64_t>(least, INT32_MAX);
    return static_cast<int32_t>(quiet("silTimerListNextTimeout", "", least));
}

extern "C" void silTimerListCheck(SilTimerList *pList) {
    needList(pList, "silTimerListCheck");
    needLock("silTimerListCheck");
    std::vector<ArmedTimer> due;
    for (const ArmedTimer &timer : state().armed) {
        if (timer.dueMs <= state().nowMs) {
            due.push_back(timer);
        }
    }
    std::sort(due.begin(), due.end(), [](const ArmedTimer &a, const ArmedTimer &b) {
        return a.dueMs != b.dueMs ? a.dueMs < b.dueMs : a.sequence < b.sequence;
    });
    for (const ArmedTimer &timer : due) {
        if (!isArmed(timer)) {
            continue; // a callback before it stopped it or put it off
        }
        disarm(timer.pTimer);
        timer.callback(timer.pArg);
    }
}
