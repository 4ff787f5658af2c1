// The conformance suite on the recording fake.
#include "tests/conformance/platform_under_test.h"
#include "tests/fake/fake.h"

void conformance::platformReset() {
    fake::reset();
    fake::advanceMs(1000);
}

void conformance::passMs(uint32_t ms) {
    fake::advanceMs(ms);
}
