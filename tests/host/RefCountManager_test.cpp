// The host registry of reference counts as SafePointer relies on it, and the
// process-wide print flag.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/GlobalEnv.h"
#include "host/RefCountManager.h"

namespace {

const char* const kType = "6Object";

class RefCountManagerTest : public testing::Test {
protected:
    void SetUp() override { before = manager->liveRecords(); }

    // Releases one holder the way SafePointer does, handing the record back
    // when it was the last.
    void release(ref_count* record) {
        ASSERT_EQ(0, record->lock());
        if (record->dec_reference() == 0) {
            manager->returnbackRefCount(record, kType);
        }
        record->unLock();
    }

    RefCountManager* manager = RefCountManager::getInstance();
    unsigned long before = 0;
};

TEST_F(RefCountManagerTest, GetInstanceAlwaysGivesTheSameRegistry) {
    EXPECT_EQ(manager, RefCountManager::getInstance());
}

TEST_F(RefCountManagerTest, TheFirstRetrieveGivesARecordWithOneHolderNamingTheObject) {
    int object = 0;
    ref_count* record = manager->retrieveRefCount(&object, kType);
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(&object, record->getPointer());
    EXPECT_EQ(1, record->getCount());
    EXPECT_EQ(before + 1, manager->liveRecords());
    release(record);
    EXPECT_EQ(before, manager->liveRecords());
}

TEST_F(RefCountManagerTest, ASecondRetrieveForTheSameLiveObjectAddsAHolderToTheSameRecord) {
    int object = 0;
    ref_count* first = manager->retrieveRefCount(&object, kType);
    ref_count* second = manager->retrieveRefCount(&object, kType);
    EXPECT_EQ(first, second);
    EXPECT_EQ(2, first->getCount());
    EXPECT_EQ(before + 1, manager->liveRecords());
    release(first);
    EXPECT_EQ(before + 1, manager->liveRecords());
    release(second);
    EXPECT_EQ(before, manager->liveRecords());
}

TEST_F(RefCountManagerTest, DifferentObjectsGetDifferentRecords) {
    int a = 0;
    int b = 0;
    ref_count* ra = manager->retrieveRefCount(&a, kType);
    ref_count* rb = manager->retrieveRefCount(&b, kType);
    EXPECT_NE(ra, rb);
    EXPECT_EQ(before + 2, manager->liveRecords());
    release(ra);
    release(rb);
}

TEST_F(RefCountManagerTest, IncReferenceAddsOneAndRefusesOnceTheCountIsZero) {
    int object = 0;
    ref_count* record = manager->retrieveRefCount(&object, kType);
    ASSERT_EQ(0, record->lock());
    EXPECT_NE(0, record->inc_reference());
    EXPECT_EQ(2, record->getCount());
    EXPECT_EQ(1, record->dec_reference());
    EXPECT_EQ(0, record->dec_reference());
    EXPECT_EQ(0, record->inc_reference()) << "the object is gone once the count is zero";
    EXPECT_EQ(0, record->dec_reference()) << "the count never goes below zero";
    manager->returnbackRefCount(record, kType);
    record->unLock();
    EXPECT_EQ(before, manager->liveRecords());
}

TEST_F(RefCountManagerTest, AHandedBackRecordRefusesItsLockUntilHandedOutAgain) {
    int object = 0;
    ref_count* record = manager->retrieveRefCount(&object, kType);
    release(record);
    EXPECT_NE(0, record->lock()) << "a handed-back record is invalid";
    EXPECT_EQ(nullptr, record->getPointer());

    // Records are recycled: the next object gets a valid record again, most
    // recently handed back first.
    int other = 0;
    ref_count* again = manager->retrieveRefCount(&other, kType);
    EXPECT_EQ(record, again);
    EXPECT_EQ(&other, again->getPointer());
    EXPECT_EQ(1, again->getCount());
    EXPECT_EQ(0, again->lock());
    again->unLock();
    release(again);
}

// Threads that make the first holders of one object at the same moment must
// all get its one record: two records would each let their last holder delete
// the object.
TEST_F(RefCountManagerTest, FirstRetrievesOfOneObjectRacingInFourThreadsShareOneRecord) {
    const int kThreads = 4;
    const int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        int object = 0;
        std::atomic<int> ready{0};
        std::vector<ref_count*> records(kThreads, nullptr);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                ready.fetch_add(1);
                while (ready.load() < kThreads) std::this_thread::yield();
                records[t] = manager->retrieveRefCount(&object, kType);
            });
        }
        for (std::thread& thread : threads) thread.join();
        for (int t = 1; t < kThreads; ++t) {
            ASSERT_EQ(records[0], records[t]) << "round " << round << ", thread " << t;
        }
        ASSERT_EQ(kThreads, records[0]->getCount()) << "round " << round;
        ASSERT_EQ(before + 1, manager->liveRecords()) << "round " << round;
        for (int t = 0; t < kThreads; ++t) release(records[t]);
        ASSERT_EQ(before, manager->liveRecords()) << "round " << round;
    }
}

TEST_F(RefCountManagerTest, HandingBackANullRecordIsHarmless) {
    manager->returnbackRefCount(nullptr, kType);
    EXPECT_EQ(before, manager->liveRecords());
}

TEST(GlobalEnv, ThePrintFlagStartsOffAndFollowsSetPrintFlag) {
    GlobalEnv* env = GlobalEnv::getInstance();
    EXPECT_EQ(env, GlobalEnv::getInstance());
    EXPECT_FALSE(env->getPrintFlag());
    env->setPrintFlag(true);
    EXPECT_TRUE(GlobalEnv::getInstance()->getPrintFlag());
    env->setPrintFlag(false);
    EXPECT_FALSE(GlobalEnv::getInstance()->getPrintFlag());
}

}  // namespace
