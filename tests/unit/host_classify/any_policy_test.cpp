// The plan of any policy answers as its rules do one by one: random policies of many forms, with overlaps and
// deny rules, in both families, against packets at the edges of what the rules ask for.
#include <gtest/gtest.h>

#include <cstdlib>

#include "any_policy.h"
#include "linear.h"

namespace classify_test {
namespace {

using namespace host;
using aclrule::AclPacket;
using aclrule::AclRule;

constexpr uint32_t POLICIES = 1500, PACKETS = 60;

// What was met over all policies: that the test looks at what it should.
struct Seen {
    size_t maps[4] = {};
    size_t sections = 0, decided = 0, denied = 0;
};

uint32_t firstSeed() {
    const char *pSeed = getenv("PBR_SEED");
    return pSeed == nullptr ? 1 : static_cast<uint32_t>(atoi(pSeed));
}

class AnyPolicy : public ::testing::TestWithParam<int> {};

TEST_P(AnyPolicy, IsAnsweredByItsPlanAsByItsRulesOneByOne) {
    const int family = GetParam();
    Seen seen;
    for (uint32_t seed = firstSeed(); seed < firstSeed() + POLICIES; seed++) {
        Dice dice(seed, family);
        const std::vector<ClassRule> rules = dice.policy();

        const ClassPlan plan = classPlan(rules, family, {1 + seed % 3, seed % 7 == 0 ? size_t{0} : size_t{1000}});

        seen.sections += plan.sections.size();
        for (const auto &section : plan.sections) {
            for (const ClassStep &step : section) {
                seen.maps[static_cast<size_t>(step.kind)]++;
            }
        }
        for (uint32_t i = 0; i < PACKETS; i++) {
            const AclPacket packet = dice.packet(rules);
            const Way linear = linearWay(rules, packet), planned = planWay(plan, rules, packet);
            seen.decided += linear.isDecided;
            seen.denied += linear.rules.size() > 1;
            ASSERT_EQ(planned, linear) << "seed " << seed << "\n" << rulesText(rules) << packetText(packet) << "\nplan:"
                                       << wayText(planned) << "\nrules:" << wayText(linear);
        }
    }
    for (const size_t count : seen.maps) {
        EXPECT_GT(count, POLICIES / 10);
    }
    EXPECT_GT(seen.sections, POLICIES + POLICIES / 10);
    EXPECT_GT(seen.decided, POLICIES * PACKETS / 4);
    EXPECT_GT(seen.denied, POLICIES);
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, AnyPolicy, ::testing::Values(4, 6));

} // namespace
} // namespace classify_test
