// Random sequences of steps over a small universe: lists, nodes, next hops, interfaces, ACLs, peers.
//
// A sequence is made from its seed alone: each draw is made in a fixed order, the same on every machine. It begins with a policy and mixes
// events, commands good and bad, faults and switches afterwards.
#ifndef TESTS_MODEL_GENERATOR_H
#define TESTS_MODEL_GENERATOR_H

#include <cstdint>
#include <vector>

#include "tests/model/model.h"
#include "tests/model/step.h"

namespace model {

struct Sequence {
    uint64_t seed = 0;
    Limits limits = {};
    std::vector<Step> steps;
};

Sequence generate(uint64_t seed, size_t steps);

// What the ACL module's translation of a rule looks like: every byte different from zero.
const std::vector<uint8_t> &ruleTranslation();

} // namespace model

#endif
