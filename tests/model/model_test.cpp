// Random sequences of commands, messages, ticks and faults: the daemon and the model agree after each step.
//
// POLICYROUTE_MODEL_SEQUENCES  how many sequences in all
// POLICYROUTE_MODEL_SEED       the first sequence's seed, for other sequences or to repeat one
// POLICYROUTE_MODEL_STEPS      how many steps a sequence has
// POLICYROUTE_MODEL_VERBOSE    prints each step before it is made, for one that crashes
// The seeds are fixed, so that every run of a build does the same. A difference is told with its seed and
// shortened to the steps that it needs: POLICYROUTE_MODEL_SEED=that POLICYROUTE_MODEL_SEQUENCES=1 repeats it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "tests/model/needed.h"
#include "tests/model/runner.h"

namespace {

using model::Reached;
using model::Sequence;

constexpr size_t STEPS = 200;
constexpr uint64_t SEED = 1;
constexpr uint64_t SHARDS = 2; // test cases that can run at the same time

#if defined(__mips__)
constexpr uint64_t SEQUENCES = 1500; // emulated
#elif defined(__SANITIZE_ADDRESS__)
constexpr uint64_t SEQUENCES = 2000;
#else
constexpr uint64_t SEQUENCES = 10000;
#endif

uint64_t environment(const char *name, uint64_t otherwise) {
    const char *value = getenv(name);
    return value == nullptr ? otherwise : strtoull(value, nullptr, 10);
}

void expectReached(const Reached &reached, uint64_t sequences) {
    for (const model::Needed &needed : model::NEEDED) {
        const double usual = needed.perThousand * static_cast<double>(sequences) / 1000;
        const auto least = static_cast<uint64_t>(std::max(0.0, usual / 4 - 5));
        const auto found = reached.find(needed.what);
        const uint64_t count = found == reached.end() ? 0 : found->second;
        printf("%10llu (at least %llu) %s\n", static_cast<unsigned long long>(count),
               static_cast<unsigned long long>(least), needed.what);
        EXPECT_GE(count, least) << needed.what;
    }
}

class AnySequence : public testing::TestWithParam<uint64_t> {};

TEST_P(AnySequence, OfStepsIsAnsweredAsTheModelAnswers) {
    const uint64_t sequences = environment("POLICYROUTE_MODEL_SEQUENCES", SEQUENCES);
    const uint64_t steps = environment("POLICYROUTE_MODEL_STEPS", STEPS);
    const uint64_t first = sequences * GetParam() / SHARDS, end = sequences * (GetParam() + 1) / SHARDS;
    const uint64_t seed = environment("POLICYROUTE_MODEL_SEED", SEED) + first;
    printf("seeds from %llu, %llu sequences of %llu steps\n", static_cast<unsigned long long>(seed),
           static_cast<unsigned long long>(end - first), static_cast<unsigned long long>(steps));
    Reached reached;
    for (uint64_t i = 0; i < end - first; ++i) {
        const Sequence sequence = model::generate(seed + i, steps);
        const std::string difference = model::run(sequence, &reached);
        if (!difference.empty()) {
            const Sequence shorter = HasFailure() ? sequence : model::shorten(sequence);
            FAIL() << difference << "shortened to " << shorter.steps.size() << " steps:\n" << model::run(shorter, nullptr);
        }
    }
    expectReached(reached, end - first);
}

INSTANTIATE_TEST_SUITE_P(Model, AnySequence, testing::Range<uint64_t>(0, SHARDS));

// A model that agrees with everything would prove nothing: what the daemon did must show in it.
TEST(Comparison, FindsAStepThatOnlyOneSideMade) {
    Sequence sequence = model::generate(SEED, STEPS);
    ASSERT_EQ(model::run(sequence, nullptr), "");
    size_t found = 0;
    for (size_t left = 0; left < 40; ++left) {
        found += model::runWithout(sequence, left).empty() ? 0 : 1;
    }
    EXPECT_GE(found, 30u);
}

} // namespace
