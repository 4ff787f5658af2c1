// The clock of the platform's timers.
#include "host/sil/sil_clock.h"

#include <atomic>
#include <ctime>

namespace host {
namespace {

uint64_t monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

std::atomic<ClockSource> gSource{monotonicMs};

} // namespace

uint64_t clockMs() {
    return gSource.load()();
}

void clockSourceSet(ClockSource source) {
    gSource = source != nullptr ? source : monotonicMs;
}

} // namespace host
