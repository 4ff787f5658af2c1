// See nqa_engine.h.
#include "host/nqa/nqa_engine.h"

#include <algorithm>

namespace host {

namespace {

constexpr int64_t MS = 1000;
constexpr int64_t FIRST_WITHIN_US = 1000 * MS;
constexpr uint32_t GOLDEN = 0x9e3779b9; // multiples of it, modulo 2^32, lie as evenly as can be

int64_t intervalOf(const NqaRun &run) {
    return run.timing.intervalMs * MS;
}

int64_t dueOf(const NqaRun &run) {
    return run.isWaiting ? run.sentUs + run.timing.timeoutMs * MS : run.nextUs;
}

// The first place of the grid after `nowUs`.
int64_t placeAfter(const NqaRun &run, int64_t nowUs) {
    if (run.anchorUs > nowUs) {
        return run.anchorUs;
    }
    return run.anchorUs + ((nowUs - run.anchorUs) / intervalOf(run) + 1) * intervalOf(run);
}

// Result: whether the state is another one now.
bool failed(NqaRun &run, const std::string &error) {
    run.isWaiting = false;
    run.successes = 0;
    run.failures++;
    run.statistics.lost++;
    run.error = error;
    const bool isDown = run.state == NqaState::Unknown ||
                        (run.state == NqaState::Passing && run.failures >= run.timing.downAfter);
    run.state = isDown ? NqaState::Failing : run.state;
    return isDown;
}

bool succeeded(NqaRun &run, uint64_t tripUs) {
    run.isWaiting = false;
    run.failures = 0;
    run.successes++;
    NqaStatistics &all = run.statistics;
    all.leastUs = all.received == 0 ? tripUs : std::min(all.leastUs, tripUs);
    all.mostUs = std::max(all.mostUs, tripUs);
    all.lastUs = tripUs;
    all.sumUs += tripUs;
    all.received++;
    const bool isUp = run.state != NqaState::Passing && run.successes >= run.timing.upAfter;
    run.state = isUp ? NqaState::Passing : run.state;
    return isUp;
}

} // namespace

void NqaEngine::dueSet(uint32_t id, const NqaRun &run) {
    due_.insert({dueOf(run), id});
}

void NqaEngine::dueDel(uint32_t id, const NqaRun &run) {
    due_.erase({dueOf(run), id});
}

void NqaEngine::place(uint32_t id, NqaRun &run, int64_t nowUs) {
    const uint32_t part = placed_++ * GOLDEN;
    const int64_t offset = static_cast<int64_t>((static_cast<uint64_t>(intervalOf(run)) * part) >> 32);
    run.anchorUs = nowUs + offset;
    run.nextUs = nowUs + offset % FIRST_WITHIN_US;
    dueSet(id, run);
}

void NqaEngine::add(uint32_t id, const NqaTiming &timing, int64_t nowUs) {
    NqaRun &run = runs_[id];
    run = {};
    run.timing = timing;
    place(id, run, nowUs);
}

void NqaEngine::del(uint32_t id) {
    const auto found = runs_.find(id);
    if (found != runs_.end()) {
        dueDel(id, found->second);
        runs_.erase(found);
    }
}

void NqaEngine::timingSet(uint32_t id, const NqaTiming &timing, int64_t nowUs) {
    const auto found = runs_.find(id);
    if (found == runs_.end()) {
        return;
    }
    NqaRun &run = found->second;
    dueDel(id, run);
    run.statistics.sent -= run.isWaiting ? 1 : 0;
    run.isWaiting = false;
    run.timing = timing;
    place(id, run, nowUs);
}

void NqaEngine::statisticsClear(uint32_t id) {
    const auto found = runs_.find(id);
    if (found != runs_.end()) {
        found->second.statistics = {};
        found->second.statistics.sent = found->second.isWaiting ? 1 : 0;
    }
}

std::optional<int64_t> NqaEngine::dueUs() const {
    return due_.empty() ? std::nullopt : std::optional(due_.begin()->first);
}

std::optional<NqaEngine::Due> NqaEngine::next(int64_t nowUs) {
    if (due_.empty() || due_.begin()->first > nowUs) {
        return std::nullopt;
    }
    const uint32_t id = due_.begin()->second;
    NqaRun &run = runs_[id];
    dueDel(id, run);
    Due due{id, run.seq, run.isWaiting, false};
    if (run.isWaiting) {
        due.isChange = failed(run, "no answer in " + std::to_string(run.timing.timeoutMs) + " ms");
    } else {
        due.seq = ++run.seq;
        run.isWaiting = true;
        run.sentUs = nowUs;
        run.nextUs = placeAfter(run, nowUs);
        run.statistics.sent++;
    }
    dueSet(id, run);
    return due;
}

NqaRun *NqaEngine::waiting(uint32_t id, uint64_t seq) {
    const auto found = runs_.find(id);
    return found != runs_.end() && found->second.isWaiting && found->second.seq == seq ? &found->second : nullptr;
}

NqaEngine::Outcome NqaEngine::success(uint32_t id, uint64_t seq, int64_t nowUs) {
    NqaRun *pRun = waiting(id, seq);
    if (pRun == nullptr) {
        return {};
    }
    dueDel(id, *pRun);
    const bool isChange = succeeded(*pRun, static_cast<uint64_t>(std::max<int64_t>(nowUs - pRun->sentUs, 0)));
    dueSet(id, *pRun);
    return {true, isChange};
}

NqaEngine::Outcome NqaEngine::failure(uint32_t id, uint64_t seq, const std::string &error) {
    NqaRun *pRun = waiting(id, seq);
    if (pRun == nullptr) {
        return {};
    }
    dueDel(id, *pRun);
    const bool isChange = failed(*pRun, error);
    dueSet(id, *pRun);
    return {true, isChange};
}

const NqaRun *NqaEngine::get(uint32_t id) const {
    const auto found = runs_.find(id);
    return found == runs_.end() ? nullptr : &found->second;
}

} // namespace host
