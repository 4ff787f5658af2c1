// Random sequences of commands, messages, ticks and faults: the daemon and the model agree after each step.
//
// POLICYROUTE_MODEL_SEQUENCES  how many sequences in all
// POLICYROUTE_MODEL_SEED       the first sequence's seed, for other sequences or to repeat one
// POLICYROUTE_MODEL_VERBOSE    prints each step before it is made, for one that crashes
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/model/runner.h"

namespace {

using model::Reached;
using model::Sequence;

constexpr size_t STEPS = 200;
constexpr uint64_t SEED = 1;

uint64_t environment(const char *name, uint64_t otherwise) {
    const char *value = getenv(name);
    return value == nullptr ? otherwise : strtoull(value, nullptr, 10);
}

TEST(Model, TheDaemonDoesWhatTheModelDoes) {
    const uint64_t sequences = environment("POLICYROUTE_MODEL_SEQUENCES", 10000);
    const uint64_t seed = environment("POLICYROUTE_MODEL_SEED", SEED);
    printf("seeds %llu to %llu\n", static_cast<unsigned long long>(seed), static_cast<unsigned long long>(seed + sequences - 1));
    Reached reached;
    for (uint64_t i = 0; i < sequences; ++i) {
        const Sequence sequence = model::generate(seed + i, STEPS);
        const std::string difference = model::run(sequence, &reached);
        if (!difference.empty()) {
            const Sequence shorter = HasFailure() ? sequence : model::shorten(sequence);
            FAIL() << difference << "shortened to " << shorter.steps.size() << " steps:\n" << model::run(shorter, nullptr);
        }
    }
    for (const auto &[what, count] : reached) {
        printf("%10llu %s\n", static_cast<unsigned long long>(count), what.c_str());
    }
}

} // namespace
