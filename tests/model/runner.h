// Runs a sequence on the model and on the daemon, compares after every step, and shortens what differs.
#ifndef TESTS_MODEL_RUNNER_H
#define TESTS_MODEL_RUNNER_H

#include <map>
#include <string>

#include "tests/model/generator.h"

namespace model {

using Reached = std::map<std::string, uint64_t>;

// Result: empty when both agree, else what differs, after which step, with the steps before it.
// pReached: counts what the model reached; may be null.
std::string run(const Sequence &sequence, Reached *pReached);

// The same, but the daemon is not given one of the steps: proves that the comparison sees.
std::string runWithout(const Sequence &sequence, size_t step);

// The sequence without the steps that the difference does not need.
Sequence shorten(const Sequence &sequence);

} // namespace model

#endif
