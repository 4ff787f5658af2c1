// The conformance suite on the host platform.
#include "host/sil/sil_clock.h"
#include "tests/conformance/platform_under_test.h"

namespace {
uint64_t gNowMs;
uint64_t now() {
    return gNowMs;
}
} // namespace

void conformance::platformReset() {
    gNowMs = 1000;
    host::clockSourceSet(now);
}

void conformance::passMs(uint32_t ms) {
    gNowMs += ms;
}
