// The contract of platform/sil_mempool.h.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "platform/sil_mempool.h"
#include "tests/conformance/platform_under_test.h"

namespace {

constexpr uint32_t SLOT_BYTES = 52;

bool isZero(const void *pSlot, size_t count) {
    const auto *pBytes = static_cast<const uint8_t *>(pSlot);
    return std::all_of(pBytes, pBytes + count, [](uint8_t byte) { return byte == 0; });
}

bool isNeverMade(const SilMemPool &pool) {
    return std::all_of(std::begin(pool.word), std::end(pool.word), [](uintptr_t word) { return word == 0; });
}

class Pool : public testing::Test {
protected:
    Pool() { conformance::platformReset(); }
    ~Pool() override { silMemPoolDestroy(&pool); }

    SilMemPool pool{};
};

TEST_F(Pool, HoldsAsManySlotsAsAskedForAndNotOneMore) {
    ASSERT_EQ(0, silMemPoolInit(&pool, "pbr_list", 3, SLOT_BYTES, 0));
    std::set<void *> slots;
    for (int i = 0; i < 3; ++i) {
        slots.insert(silMemPoolAlloc(&pool, 0));
    }
    EXPECT_EQ(3u, slots.size());
    EXPECT_FALSE(slots.contains(nullptr));
    EXPECT_EQ(nullptr, silMemPoolAlloc(&pool, 0));
    silMemPoolFree(&pool, *slots.begin());
    EXPECT_EQ(*slots.begin(), silMemPoolAlloc(&pool, 0));
    EXPECT_EQ(nullptr, silMemPoolAlloc(&pool, 0));
}

TEST_F(Pool, ASlotIsAlwaysHandedOutZeroed) {
    ASSERT_EQ(0, silMemPoolInit(&pool, "pbr_list", 1, SLOT_BYTES, 0));
    void *pSlot = silMemPoolAlloc(&pool, 0);
    ASSERT_TRUE(isZero(pSlot, SLOT_BYTES));
    memset(pSlot, 0xA5, SLOT_BYTES);
    silMemPoolFree(&pool, pSlot);
    pSlot = silMemPoolAlloc(&pool, 0);
    ASSERT_NE(nullptr, pSlot);
    EXPECT_TRUE(isZero(pSlot, SLOT_BYTES));
}

TEST_F(Pool, SlotsAreOneContiguousArrayAlignedForPointers) {
    ASSERT_EQ(0, silMemPoolInit(&pool, "pbr_list", 8, SLOT_BYTES, 0));
    std::vector<uintptr_t> slots;
    for (int i = 0; i < 8; ++i) {
        slots.push_back(reinterpret_cast<uintptr_t>(silMemPoolAlloc(&pool, 0)));
    }
    std::sort(slots.begin(), slots.end());
    const uintptr_t step = slots[1] - slots[0];
    EXPECT_GE(step, SLOT_BYTES);
    EXPECT_LT(step, SLOT_BYTES + alignof(max_align_t));
    for (size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(slots[0] + i * step, slots[i]);
        EXPECT_EQ(0u, slots[i] % alignof(void *));
    }
}

TEST_F(Pool, SizesThatNoMachineHasAreRefusedAndNothingIsMade) {
    for (const uint32_t count : {0xFFFFFFFFu, 0xFFFFFFFEu}) {
        EXPECT_NE(0, silMemPoolInit(&pool, "pbr_nexthop", count, 0xFFFFFFF0u, 0));
        EXPECT_TRUE(isNeverMade(pool));
    }
    EXPECT_NE(0, silMemPoolInit(&pool, "pbr_nexthop", 0xFFFFFFFFu, 104, 0));
    EXPECT_TRUE(isNeverMade(pool));
}

TEST_F(Pool, DestroyingAPoolThatWasNeverMadeIsHarmlessAndAPoolCanBeMadeAgain) {
    silMemPoolDestroy(&pool);
    EXPECT_TRUE(isNeverMade(pool));
    ASSERT_EQ(0, silMemPoolInit(&pool, "pbr_if", 1, SLOT_BYTES, 0));
    EXPECT_NE(nullptr, silMemPoolAlloc(&pool, 0));
    silMemPoolDestroy(&pool);
    EXPECT_TRUE(isNeverMade(pool));
    silMemPoolDestroy(&pool);
    ASSERT_EQ(0, silMemPoolInit(&pool, "pbr_if", 2, SLOT_BYTES, 0));
    EXPECT_NE(nullptr, silMemPoolAlloc(&pool, 0));
    EXPECT_NE(nullptr, silMemPoolAlloc(&pool, 0));
    EXPECT_EQ(nullptr, silMemPoolAlloc(&pool, 0));
}

} // namespace
