// When each probe asks, what a result does to its state, and its statistics: on a clock that is told.
//
// Pure: no sockets, no threads, no time of its own; the service feeds it, tests run it on virtual time.
// Times are microseconds of any steady clock. A probe has at most one question open.
//
//   state     becomes   when
//   Unknown   Passing   upAfter successes in a row
//   Unknown   Failing   the first failure
//   Passing   Failing   downAfter failures in a row
//   Failing   Passing   upAfter successes in a row
//
// Questions keep to a grid: the n-th probe that is added has its own place within its interval, so that
// probes that are added together do not ask together. The first question comes within a second; places of
// the grid that were missed are left out, never made up for.
#ifndef HOST_NQA_NQA_ENGINE_H
#define HOST_NQA_NQA_ENGINE_H

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace host {

enum class NqaState : uint8_t { Passing = 1, Failing = 2, Unknown = 3 }; // numbers of the status message

struct NqaTiming {
    uint32_t intervalMs = 1000;
    uint32_t timeoutMs = 500; // at most the interval
    uint32_t downAfter = 3;   // failures in a row
    uint32_t upAfter = 1;     // successes in a row
    bool operator==(const NqaTiming &) const = default;
};

struct NqaStatistics {
    uint64_t sent = 0;     // questions
    uint64_t received = 0; // of these: answered well and in time
    uint64_t lost = 0;     // of these: not so; sent = received + lost + (one that is open)
    uint64_t lastUs = 0, leastUs = 0, mostUs = 0, sumUs = 0; // round trips of the received ones
};

struct NqaRun {
    NqaTiming timing;
    NqaState state = NqaState::Unknown;
    uint64_t seq = 0;              // of the latest question; the first has 1
    bool isWaiting = false;        // that question is open
    int64_t sentUs = 0;            // when it was asked
    uint32_t successes = 0, failures = 0; // in a row
    NqaStatistics statistics;
    std::string error;             // of the latest failure
    int64_t anchorUs = 0, nextUs = 0; // place in the grid; the next question
};

class NqaEngine {
public:
    // Adds a probe; id: not in use. It is asked for the first time within a second.
    void add(uint32_t id, const NqaTiming &timing, int64_t nowUs);
    void del(uint32_t id);

    // Other times or counts; state, counts in a row and statistics stay, an open question is forgotten.
    void timingSet(uint32_t id, const NqaTiming &timing, int64_t nowUs);

    // Statistics begin anew; an open question stays counted as sent.
    void statisticsClear(uint32_t id);

    // When next() has something; none: no probes.
    std::optional<int64_t> dueUs() const;

    // The next thing that is due, one a call; none: nothing at `nowUs`.
    struct Due {
        uint32_t id = 0;
        uint64_t seq = 0;
        bool isTimeout = false; // the question of this seq was not answered; else: ask it now
        bool isChange = false;  // a time-out that changed the state
    };
    std::optional<Due> next(int64_t nowUs);

    // The result of a question. accepted: it was open; changed: and the state is another one now.
    struct Outcome {
        bool accepted = false;
        bool changed = false;
    };
    Outcome success(uint32_t id, uint64_t seq, int64_t nowUs);
    Outcome failure(uint32_t id, uint64_t seq, const std::string &error);

    // The probe, or null. Lives until the next change.
    const NqaRun *get(uint32_t id) const;

private:
    NqaRun *waiting(uint32_t id, uint64_t seq);
    void place(uint32_t id, NqaRun &run, int64_t nowUs);
    void dueSet(uint32_t id, const NqaRun &run);
    void dueDel(uint32_t id, const NqaRun &run);

    std::map<uint32_t, NqaRun> runs_;
    std::set<std::pair<int64_t, uint32_t>> due_; // one entry a probe
    uint32_t placed_ = 0;                        // probes placed so far, wraps
};

} // namespace host

#endif
