// The host's tasks, mutexes, pools and error numbers beyond the conformance suite: threads and misuse.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "platform/sil_mempool.h"
#include "platform/sil_process.h"
#include "platform/sil_sem.h"
#include "platform/sil_task.h"
#include "platform/sil_timer.h"
#include "tests/unit/host_portable/support.h"

namespace {

// ---- tasks ----

struct Seen {
    void *pArg1;
    void *pArg2;
    std::string name;
    size_t stackBytes;
};
support::Mailbox<Seen> *gSeen;

void look(void *pArg1, void *pArg2) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    pthread_attr_t attributes;
    size_t stackBytes = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &stackBytes);
    pthread_attr_destroy(&attributes);
    gSeen->put({pArg1, pArg2, name, stackBytes});
}

class Task : public testing::Test {
protected:
    Task() { gSeen = &seen; }
    support::Mailbox<Seen> seen;
};

TEST_F(Task, RunsItsEntryWithItsArgumentsNameAndStack) {
    int first = 0, second = 0;
    uint32_t id = 0;
    ASSERT_EQ(0, silCreateTask("pbrtask", 50, 512000, look, &first, &second, &id));
    const Seen task = seen.waitFor(1).at(0);
    EXPECT_EQ(&first, task.pArg1);
    EXPECT_EQ(&second, task.pArg2);
    EXPECT_EQ("pbrtask", task.name);
    EXPECT_GE(task.stackBytes, 512000u);
    EXPECT_NE(0u, id);
}

TEST_F(Task, ALongNameIsCutAndATinyStackIsRaised) {
    uint32_t id = 0, other = 0;
    ASSERT_EQ(0, silCreateTask("a-name-of-more-than-fifteen", 50, 1, look, nullptr, nullptr, &id));
    ASSERT_EQ(0, silCreateTask("other", 50, 0, look, nullptr, nullptr, &other));
    const std::vector<Seen> tasks = seen.waitFor(2);
    EXPECT_TRUE(tasks.at(0).name == "a-name-of-more-" || tasks.at(1).name == "a-name-of-more-");
    EXPECT_NE(id, other);
}

TEST_F(Task, ImpossibleTasksAreRefusedAndLeaveTheIdAlone) {
    uint32_t id = 77;
    EXPECT_NE(0, silCreateTask("none", 50, 4096, nullptr, nullptr, nullptr, &id));
    EXPECT_NE(0, silCreateTask("huge", 50, 0xFFFFFFFFu, look, nullptr, nullptr, &id));
    EXPECT_NE(0, silCreateTask("none", 50, 4096, look, nullptr, nullptr, nullptr));
    EXPECT_EQ(77u, id);
}

// ---- mutexes ----

class Mutex : public testing::Test {
protected:
    Mutex() : handle(silCreateMSem(9)) {}
    ~Mutex() override { (void)silDeleteSem(handle); }
    const uint32_t handle;
};

TEST_F(Mutex, KeepsTasksApart) {
    ASSERT_NE(0u, handle);
    uint32_t count = 0; // plain: the mutex alone guards it
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < 5000; ++turn) {
                ASSERT_EQ(0, silTakeSem(handle, -1));
                ++count;
                ASSERT_EQ(0, silGiveSem(handle));
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(20000u, count);
}

TEST_F(Mutex, TakingItTwiceIsRefusedAndKeepsItHeld) {
    ASSERT_EQ(0, silTakeSem(handle, -1));
    EXPECT_NE(0, silTakeSem(handle, -1));
    EXPECT_NE(0, errnoGet());
    EXPECT_EQ(0, silGiveSem(handle));
    EXPECT_NE(0, silGiveSem(handle));
}

TEST_F(Mutex, AnotherTaskCanNeitherTakeNorGiveBackAHeldOne) {
    ASSERT_EQ(0, silTakeSem(handle, -1));
    std::thread([&] {
        EXPECT_NE(0, silTakeSem(handle, 0));
        EXPECT_NE(0, silTakeSem(handle, 1));
        EXPECT_NE(0, silGiveSem(handle));
    }).join();
    EXPECT_EQ(0, silGiveSem(handle));
    std::thread([&] {
        EXPECT_EQ(0, silTakeSem(handle, 1000));
        EXPECT_EQ(0, silGiveSem(handle));
    }).join();
}

TEST_F(Mutex, AHeldOneIsNotDestroyed) {
    ASSERT_EQ(0, silTakeSem(handle, -1));
    EXPECT_NE(0, silDeleteSem(handle));
    EXPECT_EQ(0, silGiveSem(handle));
}

TEST_F(Mutex, UnknownHandlesAreRefused) {
    const uint32_t gone = silCreateMSem(9);
    ASSERT_EQ(0, silDeleteSem(gone));
    for (const uint32_t wrong : {0u, gone, 65u, 0xFFFFFFFFu}) {
        EXPECT_NE(0, silTakeSem(wrong, -1)) << wrong;
        EXPECT_NE(0, silGiveSem(wrong)) << wrong;
        EXPECT_NE(0, silDeleteSem(wrong)) << wrong;
    }
}

TEST_F(Mutex, AFullTableGivesNoneAndADestroyedOneMakesRoom) {
    std::vector<uint32_t> handles;
    for (uint32_t made = silCreateMSem(9); made != 0; made = silCreateMSem(9)) {
        handles.push_back(made);
        ASSERT_LE(handles.size(), 64u);
    }
    EXPECT_EQ(63u, handles.size()); // the test holds one already
    ASSERT_EQ(0, silDeleteSem(handles.back()));
    handles.back() = silCreateMSem(9);
    EXPECT_NE(0u, handles.back());
    for (const uint32_t made : handles) {
        EXPECT_EQ(0, silDeleteSem(made));
    }
}

// ---- pools ----

class PoolMisuse : public testing::Test {
protected:
    PoolMisuse() {
        EXPECT_EQ(0, silMemPoolInit(&pool, "pbr_node", 2, 24, 0));
        pFirst = static_cast<uint8_t *>(silMemPoolAlloc(&pool, 0));
    }
    ~PoolMisuse() override { silMemPoolDestroy(&pool); }

    // How many slots can be taken now.
    int left() {
        int count = 0;
        while (silMemPoolAlloc(&pool, 0) != nullptr) {
            ++count;
        }
        return count;
    }

    SilMemPool pool{};
    uint8_t *pFirst;
    support::StderrCapture quiet;
};

TEST_F(PoolMisuse, ASlotFreedTwiceIsThereOnce) {
    silMemPoolFree(&pool, pFirst);
    silMemPoolFree(&pool, pFirst);
    EXPECT_EQ(2, left());
}

TEST_F(PoolMisuse, WhatIsNoSlotInUseIsNotFreed) {
    uint64_t foreign = 0;
    silMemPoolFree(&pool, &foreign);
    silMemPoolFree(&pool, pFirst + 8);
    silMemPoolFree(&pool, pFirst + 24);      // never taken
    silMemPoolFree(&pool, pFirst + 24 * 2);  // behind the last
    silMemPoolFree(&pool, pFirst - 24);      // before the first
    silMemPoolFree(&pool, nullptr);
    EXPECT_EQ(1, left());
}

TEST_F(PoolMisuse, APoolThatWasNeverMadeHasNoSlots) {
    SilMemPool other{};
    EXPECT_EQ(nullptr, silMemPoolAlloc(&other, 0));
    EXPECT_NE(0, silMemPoolInit(&other, "huge", 0xFFFFFFFFu, 0xFFFFFFF0u, 0));
    EXPECT_EQ(nullptr, silMemPoolAlloc(&other, 0));
    silMemPoolFree(&other, pFirst);
    EXPECT_EQ(1, left());
}

TEST_F(PoolMisuse, AFreedSlotKeepsItsBytesUntilItIsTakenAgain) {
    memset(pFirst, 0x5A, 24);
    silMemPoolFree(&pool, pFirst);
    EXPECT_EQ(0x5A, pFirst[0]);
    EXPECT_EQ(0x5A, pFirst[23]);
}

TEST_F(PoolMisuse, SlotsWithoutBytesAreRefusedAndAPoolWithoutSlotsIsEmpty) {
    SilMemPool other{};
    EXPECT_NE(0, silMemPoolInit(&other, "none", 4, 0, 0));
    ASSERT_EQ(0, silMemPoolInit(&other, "none", 0, 24, 0));
    EXPECT_EQ(nullptr, silMemPoolAlloc(&other, 0));
    silMemPoolDestroy(&other);
}

// ---- timers ----

TEST(TimerMisuse, MissingObjectsAreRefused) {
    SilTimerList list{};
    SilTimer timer{};
    EXPECT_EQ(-1, silTimerListInit(nullptr));
    EXPECT_NE(0, silTimerStart(nullptr, &timer, 0, 1, [](void *) -> int32_t { return 0; }, nullptr, 0, 0));
    EXPECT_NE(0, silTimerStart(&list, nullptr, 0, 1, [](void *) -> int32_t { return 0; }, nullptr, 0, 0));
    EXPECT_NE(0, silTimerStart(&list, &timer, 0, 1, nullptr, nullptr, 0, 0));
    EXPECT_EQ(-1, silTimerListNextTimeout(&list));
}

TEST(TimerMisuse, ATimerArmedOnAnotherListLeavesTheFirst) {
    SilTimerList first{}, second{};
    SilTimer timer{};
    const SilTimerCallback none = [](void *) -> int32_t { return 0; };
    ASSERT_EQ(0, silTimerStart(&first, &timer, 0, 1000, none, nullptr, 0, 0));
    ASSERT_EQ(0, silTimerStart(&second, &timer, 0, 1000, none, nullptr, 0, 0));
    EXPECT_EQ(-1, silTimerListNextTimeout(&first));
    EXPECT_NE(-1, silTimerListNextTimeout(&second));
}

// ---- error numbers ----

TEST(ErrorNumber, IsTheCallingTasksOwn) {
    errno = 0;
    std::thread([] {
        EXPECT_NE(0, silGiveSem(0));
        EXPECT_EQ(EINVAL, errnoGet());
    }).join();
    EXPECT_EQ(0, errnoGet());
}

} // namespace
