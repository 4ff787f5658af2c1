// Which ACL numbers a node may match: api/pbr_node_acl.h.
#include "api/pbr_node_acl.h"

#include <gtest/gtest.h>

namespace {

// Every limit of the ranges, from both sides.
constexpr uint32_t EDGES[] = {0,    1,    999,  1000, 1001, 1500, 1999, 2000, 2001,       2500,      2999,
                              3000, 3001, 3500, 3999, 4000, 4001, 4999, 5000, 5001, 0x7FFFFFFFu, 0xFFFFFFFFu};

bool within(uint32_t n, uint32_t low, uint32_t high) { return n >= low && n <= high; }

TEST(NodeAcl, ThreeRangesCanNeverBeBound) {
    for (uint32_t n : EDGES) {
        const bool never = within(n, 1, 1000) || within(n, 2001, 3000) || within(n, 4001, 5000);
        EXPECT_EQ(pbrAclUnbindable(n), never) << n;
    }
}

TEST(NodeAcl, AnIpv4NodeTakesNoneOrTheSecondThousand) {
    for (uint32_t n : EDGES) {
        EXPECT_EQ(pbrAclFitsVersion(n, PBR_IP_VERSION_4), n == 0 || within(n, 1001, 2000)) << n;
    }
}

TEST(NodeAcl, AnIpv6NodeTakesNoneOrTheFourthThousand) {
    for (uint32_t n : EDGES) {
        EXPECT_EQ(pbrAclFitsVersion(n, PBR_IP_VERSION_6), n == 0 || within(n, 3001, 4000)) << n;
    }
}

TEST(NodeAcl, ANodeWithoutVersionTakesEveryBindableNumber) {
    for (uint32_t n : EDGES) {
        EXPECT_TRUE(pbrAclFitsVersion(n, 0)) << n;
    }
}

} // namespace
