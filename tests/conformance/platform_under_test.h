// What the conformance suite needs to know of the platform that it is linked with: one definition in
// tests/conformance/host, one in tests/conformance/fake. The suite itself uses the seam's headers only.
#ifndef TESTS_CONFORMANCE_PLATFORM_UNDER_TEST_H
#define TESTS_CONFORMANCE_PLATFORM_UNDER_TEST_H

#include <cstdint>

namespace conformance {

// The platform as new, its clock under the tests' hand and not at 0.
void platformReset();

// Moves the platform's clock.
void passMs(uint32_t ms);

} // namespace conformance

#endif
