// Mutexes of the fake: never waited for; taking one twice or giving a free one fails the test.
#include "platform/sil_sem.h"

#include "tests/fake/fake_state.h"

namespace fake {

bool locked() {
    for (const auto &[handle, taken] : state().semaphores) {
        if (taken) {
            return true;
        }
    }
    return false;
}
uint32_t semCount() {
    return static_cast<uint32_t>(state().semaphores.size());
}

} // namespace fake

using namespace fake;

extern "C" uint32_t silCreateMSem(uint32_t options) {
    const std::string line = text("silCreateMSem(%u)", options);
    const int64_t made = fallible("silCreateMSem", line, state().lastSemaphore + 1, 0);
    if (made != 0) {
        state().lastSemaphore = static_cast<uint32_t>(made);
        state().semaphores[state().lastSemaphore] = false;
    }
    return static_cast<uint32_t>(made);
}

extern "C" int32_t silTakeSem(uint32_t handle, int32_t timeoutMs) {
    auto found = state().semaphores.find(handle);
    if (found == state().semaphores.end() || found->second) {
        misuse(text("silTakeSem(%u) of a mutex that is absent or already taken", handle));
        return -1;
    }
    if (timeoutMs != -1) {
        misuse("silTakeSem with a time-out");
    }
    found->second = true;
    return static_cast<int32_t>(quiet("silTakeSem", "", 0));
}

extern "C" int32_t silGiveSem(uint32_t handle) {
    auto found = state().semaphores.find(handle);
    if (found == state().semaphores.end() || !found->second) {
        misuse(text("silGiveSem(%u) of a mutex that is absent or not taken", handle));
        return -1;
    }
    found->second = false;
    return static_cast<int32_t>(quiet("silGiveSem", "", 0));
}

extern "C" int32_t silDeleteSem(uint32_t handle) {
    record(text("silDeleteSem(%u)", handle));
    auto found = state().semaphores.find(handle);
    if (found == state().semaphores.end() || found->second) {
        misuse("silDeleteSem of a mutex that is absent or taken");
        return -1;
    }
    state().semaphores.erase(found);
    return 0;
}
