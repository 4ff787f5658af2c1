// The contract of platform/sil_sem.h as far as one task can see it and without misuse, which the fake
// reports as a failure of the test.
#include <gtest/gtest.h>

#include "platform/sil_sem.h"
#include "tests/conformance/platform_under_test.h"

namespace {

TEST(MutexContract, IsMadeFreeTakenGivenBackAndDestroyed) {
    conformance::platformReset();
    const uint32_t handle = silCreateMSem(9);
    ASSERT_NE(0u, handle);
    EXPECT_EQ(0, silTakeSem(handle, -1));
    EXPECT_EQ(0, silGiveSem(handle));
    EXPECT_EQ(0, silTakeSem(handle, -1));
    EXPECT_EQ(0, silGiveSem(handle));
    EXPECT_EQ(0, silDeleteSem(handle));
}

TEST(MutexContract, TwoHaveDifferentHandles) {
    conformance::platformReset();
    const uint32_t a = silCreateMSem(9);
    const uint32_t b = silCreateMSem(9);
    EXPECT_NE(0u, a);
    EXPECT_NE(0u, b);
    EXPECT_NE(a, b);
    EXPECT_EQ(0, silDeleteSem(a));
    EXPECT_EQ(0, silDeleteSem(b));
}

} // namespace
