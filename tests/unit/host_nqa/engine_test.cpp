// When probes ask and what results do to them, on virtual time.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "host/nqa/nqa_engine.h"

namespace {

using namespace host;

constexpr int64_t MS = 1000;

// Asks when the engine says so; `answers` decides about the n-th question (from 1) of a probe.
class Clock {
public:
    NqaEngine engine;
    int64_t nowUs = 5000 * MS;
    std::map<uint32_t, std::vector<int64_t>> asked; // times by probe
    std::vector<std::pair<int64_t, NqaState>> changes;

    void add(uint32_t id, NqaTiming timing) { engine.add(id, timing, nowUs); }

    // Runs for that long; answers(seq): round trip in us, or -1: none comes.
    template <typename Answers> void run(int64_t forUs, Answers answers) {
        const int64_t endUs = nowUs + forUs;
        std::multimap<int64_t, std::pair<uint32_t, uint64_t>> onTheWay;
        for (;;) {
            const int64_t dueUs = engine.dueUs().value_or(endUs + 1);
            const int64_t arrivesUs = onTheWay.empty() ? endUs + 1 : onTheWay.begin()->first;
            if (std::min(dueUs, arrivesUs) > endUs) {
                nowUs = endUs;
                return;
            }
            nowUs = std::max(nowUs, std::min(dueUs, arrivesUs));
            if (arrivesUs <= dueUs) {
                const auto [id, seq] = onTheWay.begin()->second;
                onTheWay.erase(onTheWay.begin());
                note(id, engine.success(id, seq, nowUs).changed);
                continue;
            }
            const auto due = engine.next(nowUs);
            ASSERT_TRUE(due);
            if (due->isTimeout) {
                note(due->id, due->isChange);
                continue;
            }
            asked[due->id].push_back(nowUs);
            const int64_t tripUs = answers(due->seq);
            if (tripUs >= 0) {
                onTheWay.insert({nowUs + tripUs, {due->id, due->seq}});
            }
        }
    }

    NqaState state(uint32_t id = 1) const { return engine.get(id)->state; }
    const NqaStatistics &statistics(uint32_t id = 1) const { return engine.get(id)->statistics; }

private:
    void note(uint32_t id, bool isChange) {
        if (isChange) {
            changes.push_back({nowUs, state(id)});
        }
    }
};

const auto ALWAYS = [](uint64_t) { return 2 * MS; };
const auto NEVER = [](uint64_t) { return int64_t{-1}; };

TEST(NqaEngine, IsUnknownUntilTheFirstResult) {
    Clock clock;
    clock.add(1, {});

    EXPECT_EQ(clock.state(), NqaState::Unknown);
    const auto due = clock.engine.next(clock.nowUs);
    ASSERT_TRUE(due && !due->isTimeout);
    EXPECT_EQ(clock.state(), NqaState::Unknown);
    EXPECT_TRUE(clock.engine.success(1, due->seq, clock.nowUs + 1).changed);

    EXPECT_EQ(clock.state(), NqaState::Passing);
}

TEST(NqaEngine, PassesAfterSoManySuccessesInARow) {
    Clock clock;
    clock.add(1, {1000, 500, 3, 2});

    clock.run(900 * MS, ALWAYS);
    EXPECT_EQ(clock.state(), NqaState::Unknown);
    clock.run(1000 * MS, ALWAYS);

    EXPECT_EQ(clock.state(), NqaState::Passing);
    EXPECT_EQ(clock.changes.size(), 1u);
}

TEST(NqaEngine, FailsWithTheFirstFailureWhenItNeverPassed) {
    Clock clock;
    clock.add(1, {1000, 500, 3, 1});

    clock.run(501 * MS, NEVER);

    EXPECT_EQ(clock.state(), NqaState::Failing);
    EXPECT_EQ(clock.engine.get(1)->error, "no answer in 500 ms");
}

TEST(NqaEngine, GoesDownWithTheLastOfSoManyFailuresAndNotBefore) {
    Clock clock;
    clock.add(1, {1000, 200, 3, 1});
    clock.run(500 * MS, ALWAYS);
    ASSERT_EQ(clock.state(), NqaState::Passing);
    const int64_t begin = clock.asked[1].front();

    clock.run(2400 * MS, NEVER);
    ASSERT_EQ(clock.asked[1].size(), 3u); // two of them failed
    EXPECT_EQ(clock.state(), NqaState::Passing);
    clock.run(1000 * MS, NEVER);

    EXPECT_EQ(clock.state(), NqaState::Failing);
    EXPECT_EQ(clock.changes.back().first, begin + 3200 * MS);
}

TEST(NqaEngine, OneSuccessBetweenFailuresBeginsTheCountAnew) {
    Clock clock;
    clock.add(1, {100, 50, 3, 1});

    clock.run(10000 * MS, [](uint64_t seq) { return seq == 1 || seq % 3 == 0 ? 1 * MS : -1; });

    EXPECT_EQ(clock.changes.size(), 1u);
    EXPECT_EQ(clock.state(), NqaState::Passing);
    EXPECT_GT(clock.statistics().lost, 60u);
}

TEST(NqaEngine, ComesBackAfterSoManySuccesses) {
    Clock clock;
    clock.add(1, {100, 50, 1, 3});
    clock.run(60 * MS, NEVER);
    ASSERT_EQ(clock.state(), NqaState::Failing);

    clock.run(230 * MS, ALWAYS); // two
    EXPECT_EQ(clock.state(), NqaState::Failing);
    clock.run(100 * MS, ALWAYS);

    EXPECT_EQ(clock.state(), NqaState::Passing);
}

TEST(NqaEngine, AnAnswerThatComesTooLateOrTwiceIsNone) {
    Clock clock;
    clock.add(1, {1000, 500, 3, 1});
    const auto due = clock.engine.next(clock.nowUs);
    ASSERT_TRUE(due && !due->isTimeout);

    EXPECT_FALSE(clock.engine.success(1, due->seq + 1, clock.nowUs).accepted);
    EXPECT_FALSE(clock.engine.success(2, due->seq, clock.nowUs).accepted);
    EXPECT_TRUE(clock.engine.success(1, due->seq, clock.nowUs).accepted);
    EXPECT_FALSE(clock.engine.success(1, due->seq, clock.nowUs).accepted);
    EXPECT_FALSE(clock.engine.failure(1, due->seq, "late").accepted);
    EXPECT_EQ(clock.statistics().received, 1u);
    EXPECT_EQ(clock.statistics().lost, 0u);
}

TEST(NqaEngine, CountsRoundTrips) {
    Clock clock;
    clock.add(1, {100, 50, 3, 1});

    clock.run(399 * MS, [](uint64_t seq) { return seq == 4 ? -1 : static_cast<int64_t>(seq * 10 * MS); });

    const NqaStatistics all = clock.statistics();
    EXPECT_EQ(all.sent, 4u);
    EXPECT_EQ(all.received, 3u);
    EXPECT_EQ(all.lost, 1u);
    EXPECT_EQ(all.leastUs, 10000u);
    EXPECT_EQ(all.mostUs, 30000u);
    EXPECT_EQ(all.lastUs, 30000u);
    EXPECT_EQ(all.sumUs, 60000u);
}

TEST(NqaEngine, ClearedStatisticsCountAnOpenQuestionOnly) {
    Clock clock;
    clock.add(1, {1000, 500, 3, 1});
    clock.run(3100 * MS, NEVER);
    ASSERT_TRUE(clock.engine.get(1)->isWaiting);

    clock.engine.statisticsClear(1);
    clock.run(500 * MS, NEVER);

    EXPECT_EQ(clock.statistics().sent, 1u);
    EXPECT_EQ(clock.statistics().lost, 1u);
    EXPECT_EQ(clock.state(), NqaState::Failing);
}

TEST(NqaEngine, ThousandsThatAreAddedTogetherAskSpreadOverTheInterval) {
    Clock clock;
    constexpr uint32_t COUNT = 2000;
    for (uint32_t id = 1; id <= COUNT; id++) {
        clock.add(id, {1000, 500, 3, 1});
    }
    const int64_t begin = clock.nowUs;

    clock.run(3000 * MS - 1, ALWAYS);

    std::map<int64_t, size_t> perTenMs;
    for (const auto &[id, times] : clock.asked) {
        ASSERT_EQ(times.size(), 3u);
        EXPECT_EQ(times[1] - times[0], 1000 * MS);
        EXPECT_EQ(times[2] - times[1], 1000 * MS);
        perTenMs[(times[0] - begin) / (10 * MS)]++;
    }
    EXPECT_EQ(perTenMs.size(), 100u);
    for (const auto &[slot, count] : perTenMs) {
        EXPECT_NEAR(static_cast<double>(count), 20.0, 4.0) << slot;
    }
}

TEST(NqaEngine, SlowProbesAskFirstWithinASecondAndThenSpread) {
    Clock clock;
    for (uint32_t id = 1; id <= 600; id++) {
        clock.add(id, {60000, 500, 3, 1});
    }
    const int64_t begin = clock.nowUs;

    clock.run(180000 * MS, ALWAYS);

    std::map<int64_t, size_t> perSecond;
    for (const auto &[id, times] : clock.asked) {
        ASSERT_GE(times.size(), 3u);
        EXPECT_LT(times[0] - begin, 1000 * MS);
        for (size_t i = 1; i < times.size(); i++) {
            EXPECT_LE(times[i] - times[i - 1], 60000 * MS);
            EXPECT_GE(times[i] - times[i - 1], 1000 * MS);
        }
        perSecond[(times.back() - begin) / (1000 * MS) % 60]++;
    }
    for (const auto &[second, count] : perSecond) {
        EXPECT_LE(count, 14u) << second; // 10 on average
    }
}

TEST(NqaEngine, PlacesThatWereMissedAreLeftOut) {
    Clock clock;
    clock.add(1, {100, 50, 3, 1});
    clock.run(10 * MS, ALWAYS);
    const int64_t first = clock.asked[1].front();

    clock.nowUs += 1034 * MS; // nobody ran meanwhile
    clock.run(300 * MS, ALWAYS);

    const auto &times = clock.asked[1];
    ASSERT_EQ(times.size(), 5u); // the overdue one at once, then those of the grid
    for (size_t i = 2; i < times.size(); i++) {
        EXPECT_EQ((times[i] - first) % (100 * MS), 0) << i;
    }
}

TEST(NqaEngine, OtherTimesKeepStateAndStatistics) {
    Clock clock;
    clock.add(1, {1000, 500, 3, 1});
    clock.run(100 * MS, ALWAYS);
    ASSERT_EQ(clock.state(), NqaState::Passing);

    clock.engine.timingSet(1, {50, 20, 2, 1}, clock.nowUs);
    clock.run(200 * MS, NEVER);

    EXPECT_EQ(clock.state(), NqaState::Failing);
    EXPECT_EQ(clock.statistics().received, 1u);
    EXPECT_GE(clock.statistics().lost, 3u);
}

TEST(NqaEngine, ADeletedProbeIsNeverDue) {
    Clock clock;
    clock.add(1, {1000, 500, 3, 1});
    clock.run(1 * MS, NEVER);

    clock.engine.del(1);
    clock.engine.del(1);

    EXPECT_FALSE(clock.engine.dueUs());
    EXPECT_FALSE(clock.engine.next(clock.nowUs + 3600000 * MS));
    EXPECT_EQ(clock.engine.get(1), nullptr);
}

} // namespace
