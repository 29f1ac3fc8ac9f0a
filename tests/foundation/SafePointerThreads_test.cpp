// Copies of one SafePointer living in several threads: every count change is
// made under the record's own lock, so the object is deleted exactly once and
// its record handed back, however the copies interleave. Run under tsan.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "foundation/SafePointer.h"
#include "host/RefCountManager.h"

namespace {

class Shared {
public:
    explicit Shared(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
    virtual ~Shared() { destroyed_->fetch_add(1); }
    int read() const { return 42; }

private:
    std::atomic<int>* destroyed_;
};

TEST(SafePointerThreads, CopiesMadeAndDroppedInEightThreadsDeleteTheObjectOnce) {
    const unsigned long recordsBefore = RefCountManager::getInstance()->liveRecords();
    std::atomic<int> destroyed{0};
    std::atomic<long> reads{0};
    const int kThreads = 8;
    const int kRounds = 2000;
    {
        SafePointer<Shared> origin(new Shared(&destroyed));
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            // Each thread gets its own copy; copies of that copy are made and
            // dropped in the thread, all sharing one record.
            SafePointer<Shared> mine(origin);
            threads.emplace_back([mine, &reads] {
                for (int i = 0; i < kRounds; ++i) {
                    SafePointer<Shared> copy(mine);
                    SafePointer<Shared> another(copy);
                    another = copy;
                    reads.fetch_add(another->read() == 42 ? 1 : 0);
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(0, destroyed.load());
    }
    EXPECT_EQ(1, destroyed.load());
    EXPECT_EQ(static_cast<long>(kThreads) * kRounds, reads.load());
    EXPECT_EQ(recordsBefore, RefCountManager::getInstance()->liveRecords());
}

// The last holder may be any thread: here the origin is dropped first and the
// threads race to release the final copies.
TEST(SafePointerThreads, TheLastReleaseInAnyThreadDeletesOnceAndReturnsTheRecord) {
    const unsigned long recordsBefore = RefCountManager::getInstance()->liveRecords();
    const int kObjects = 200;
    std::atomic<int> destroyed{0};
    for (int n = 0; n < kObjects; ++n) {
        std::vector<std::thread> threads;
        {
            SafePointer<Shared> origin(new Shared(&destroyed));
            for (int t = 0; t < 4; ++t) {
                SafePointer<Shared> mine(origin);
                threads.emplace_back([mine] { SafePointer<Shared> copy(mine); });
            }
        }
        for (std::thread& thread : threads) thread.join();
        ASSERT_EQ(n + 1, destroyed.load()) << "object " << n;
    }
    EXPECT_EQ(recordsBefore, RefCountManager::getInstance()->liveRecords());
}

// An object whose member is another SafePointer: deleting the owner locks the
// owner's record, then the member's.
class Holder {
public:
    explicit Holder(const SafePointer<Shared>& member) : member_(member) {}
    virtual ~Holder() {}

private:
    SafePointer<Shared> member_;
};

ref_count* recordOf(void* object) {
    ref_count* record = RefCountManager::getInstance()->retrieveRefCount(object, "probe");
    record->lock();
    record->dec_reference();
    record->unLock();
    return record;
}

// Records are recycled, so the record that was an owner's can become a
// member's and the other way round. Owner-then-member is always a safe order;
// the registry must not make it look like a lock-order inversion to the
// thread checker (this test fails under tsan if it does).
TEST(SafePointerThreads, RecycledRecordsMayTradeOwnerAndMemberRoles) {
    std::atomic<int> destroyed{0};
    ref_count* ownerRecord = nullptr;
    ref_count* memberRecord = nullptr;
    {
        Shared* rawMember = new Shared(&destroyed);
        SafePointer<Holder> owner(new Holder(SafePointer<Shared>(rawMember)));
        ownerRecord = recordOf(owner.get());
        memberRecord = recordOf(rawMember);
    }  // owner's record locked, then member's; the member goes with the owner
    ASSERT_EQ(1, destroyed.load());

    // The member's record went back first, then the owner's; the most recent
    // comes out first, so the new member gets the old owner's record.
    SafePointer<Shared> member(new Shared(&destroyed));
    SafePointer<Holder> owner(new Holder(member));
    EXPECT_EQ(ownerRecord, recordOf(member.get()));
    EXPECT_EQ(memberRecord, recordOf(owner.get()));
    // Releasing now locks the old member record, then the old owner record.
}

}  // namespace
