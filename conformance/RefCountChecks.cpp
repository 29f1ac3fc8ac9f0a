// RefCountManager and ref_count, used the way SafePointer uses them: the
// last holder deletes the object with the record's lock held, hands the
// record back and only then unlocks it; the object's destructor meanwhile
// releases the pointers it holds (other records locked and handed back) and
// may make new ones, and the allocator may give the freed address to a new
// object whose first pointer asks the registry before the old record is back.
#include <atomic>
#include <exception>
#include <vector>

#include "HostConformance.h"
#include "foundation/SafePointer.h"
#include "host/RefCountManager.h"

namespace conformance {

namespace {

// The type names SafePointer passes (typeid names) look like these.
const char* const kObjectType = "6Object";
const char* const kMemberType = "6Member";

// Addresses for records that no object lives at: the registry keys by
// address and never looks behind it.
char ownerSlot[16];
char memberSlot[16];
char scratchSlot[16];

// Drops the last holder of `record` as SafePointer does: count to zero and
// hand back under the record's lock.
void releaseLast(ref_count* record, const char* typeName) {
    if (record->lock() != 0) return;
    record->dec_reference();
    RefCountManager::getInstance()->returnbackRefCount(record, typeName);
    record->unLock();
}

// An object shared through SafePointer that counts its destructions.
class Counted {
public:
    explicit Counted(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
    virtual ~Counted() { destroyed_->fetch_add(1); }

private:
    std::atomic<int>* destroyed_;
};

// The arithmetic of one record, on this thread alone.
void checkOneRecord(Report& report, RefCountManager* registry) {
    ref_count* record = registry->retrieveRefCount(ownerSlot, kObjectType);
    if (record == NULL) {
        report.fail("retrieveRefCount gave a null record");
        return;
    }
    report.expect(record->getPointer() == ownerSlot,
                  "getPointer() of a new record is not the object it was retrieved for");
    ref_count* again = registry->retrieveRefCount(ownerSlot, kObjectType);
    report.expect(again == record,
                  "a second retrieveRefCount for the same live object gave another record: "
                  "each record's last holder would delete the object");
    if (again != record) return;
    if (record->lock() != 0) {
        report.fail("lock() of a live record failed");
        return;
    }
    report.expect(record->inc_reference() != 0, "inc_reference() on a live record refused");
    int left = record->dec_reference();
    report.expect(left == 2,
                  "after two retrieveRefCount and one inc_reference, dec_reference "
                  "left " +
                      show(static_cast<long long>(left)) + " holders, not 2");
    left = record->dec_reference();
    report.expect(left == 1, "the next dec_reference left " + show(static_cast<long long>(left)) +
                                 " holders, not 1");
    left = record->dec_reference();
    report.expect(left == 0, "the last dec_reference left " + show(static_cast<long long>(left)) +
                                 " holders, not 0 (0 tells the last holder to delete)");
    report.expect(record->inc_reference() == 0,
                  "inc_reference() on a count of 0 did not refuse: the object is being deleted");
    registry->returnbackRefCount(record, kObjectType);
    record->unLock();
    if (record->lock() == 0) {
        report.fail(
            "lock() of a handed-back record succeeded: a SafePointer that still "
            "holds it would count on a record that belongs to no object");
        record->unLock();
    }
}

// While this thread holds a record's lock, another thread's lock() of it
// must wait.
void checkLockExcludes(Report& report, RefCountManager* registry) {
    ref_count* record = registry->retrieveRefCount(memberSlot, kMemberType);
    if (record == NULL || record->lock() != 0) {
        report.fail("a new record could not be locked");
        return;
    }
    std::atomic<bool> got(false);
    std::atomic<bool> refused(false);
    Worker other([&] {
        if (record->lock() == 0) {
            got.store(true);
            record->unLock();
        } else {
            refused.store(true);
        }
    });
    // The other thread must stay out for as long as this one holds the lock;
    // 0.2 s gives it every chance to get in wrongly.
    const bool early = waitUntil([&] { return got.load() || refused.load(); }, 0.2);
    report.expect(!early, refused.load()
                              ? "another thread's lock() of a live record failed"
                              : "another thread's lock() of a record returned while this "
                                "thread held it: counts would change under two threads at once");
    record->unLock();
    if (!other.finishedWithin(5.0)) {
        report.abandon(
            "a thread waiting in lock() did not get the record within 5 s after "
            "it was unlocked");
    }
    report.expect(got.load(), "the waiting thread's lock() failed once the record was free");
    releaseLast(record, kMemberType);
}

// SafePointer copies of one object in several threads, and objects of their
// own made and dropped meanwhile (their addresses are reused at once).
void checkPointersUnderThreads(Report& report) {
    const int kThreads = 4;
    const int kRounds = 5000;
    std::atomic<int> created(0);
    std::atomic<int> destroyed(0);
    {
        SafePointer<Counted> shared(new Counted(&destroyed));
        created.fetch_add(1);
        std::vector<Worker*> workers;
        workers.reserve(kThreads);
        for (int t = 0; t < kThreads; ++t) {
            workers.push_back(new Worker([&] {
                try {
                    for (int i = 0; i < kRounds; ++i) {
                        SafePointer<Counted> copy(shared);
                        SafePointer<Counted> second(copy);
                        second = shared;
                        SafePointer<Counted> own(new Counted(&destroyed));
                        created.fetch_add(1);
                        second = own;
                        copy = second;
                    }
                } catch (const std::exception& e) {
                    report.fail(std::string("a SafePointer copy threw: ") + e.what());
                }
            }));
        }
        for (size_t t = 0; t < workers.size(); ++t) {
            if (!workers[t]->finishedWithin(30.0)) {
                report.abandon(
                    "threads copying SafePointers have not finished after 30 s: "
                    "a record's lock is never released");
            }
            delete workers[t];
        }
        report.expect(destroyed.load() == created.load() - 1,
                      show(static_cast<long long>(created.load())) + " objects made, " +
                          show(static_cast<long long>(destroyed.load())) +
                          " deleted while one was still held, not all others exactly once");
    }
    report.expect(destroyed.load() == created.load(),
                  "after the last pointer went, " + show(static_cast<long long>(destroyed.load())) +
                      " of " + show(static_cast<long long>(created.load())) +
                      " objects were deleted");
}

}  // namespace

void checkRefCountsUnderThreads(Report& report) {
    RefCountManager* registry = RefCountManager::getInstance();
    if (registry == NULL) {
        report.fail("RefCountManager::getInstance() gave null");
        return;
    }
    RefCountManager* elsewhere = NULL;
    Worker asker([&] { elsewhere = RefCountManager::getInstance(); });
    if (!asker.finishedWithin(5.0)) report.abandon("getInstance() from a second thread hung");
    report.expect(elsewhere == registry, "getInstance() gave another registry on another thread");
    checkOneRecord(report, registry);
    checkLockExcludes(report, registry);
    if (report.failed()) return;  // copies under threads would only crash on what failed above
    checkPointersUnderThreads(report);
}

void checkAddressReusedWhileHandedBack(Report& report) {
    RefCountManager* registry = RefCountManager::getInstance();
    ref_count* old = registry->retrieveRefCount(ownerSlot, kObjectType);
    if (old == NULL || old->lock() != 0) {
        report.fail("a new record could not be locked");
        return;
    }
    report.expect(old->dec_reference() == 0, "the only holder's dec_reference did not give 0");
    // Here SafePointer deletes the object; its address is free, and a new
    // object made there asks for its record from another thread.
    ref_count* fresh = NULL;
    Worker reuse([&] { fresh = registry->retrieveRefCount(ownerSlot, kObjectType); });
    // A host may let that wait until the old record is back (the POSIX host
    // does) or answer at once; both are right. Give it the chance to answer.
    reuse.finishedWithin(0.3);
    {
        Watchdog dog(report, 5.0,
                     "returnbackRefCount of the old record waited more than 5 s while another "
                     "thread's retrieveRefCount for the reused address waited for that record: "
                     "a deadlock of the recorder whenever an address is reused");
        registry->returnbackRefCount(old, kObjectType);
        old->unLock();
    }
    if (!reuse.finishedWithin(5.0)) {
        report.abandon(
            "retrieveRefCount for the reused address had not returned 5 s after the "
            "old record was handed back and unlocked");
    }
    if (fresh == NULL) {
        report.fail("retrieveRefCount for the reused address gave a null record");
        return;
    }
    report.expect(fresh->getPointer() == ownerSlot,
                  "the new object's record does not point at the new object");
    if (fresh->lock() != 0) {
        report.fail(
            "the record given for the reused address refuses lock(): it was handed "
            "back with the old object's record (the new object's first copy throws, "
            "its last release never deletes it)");
        return;
    }
    report.expect(fresh->inc_reference() != 0,
                  "inc_reference() on the new object's record refused: the record kept the old "
                  "object's count of 0");
    const int left = fresh->dec_reference();
    report.expect(left == 1,
                  "the new object's record did not start at one holder (after one "
                  "inc_reference and one dec_reference " +
                      show(static_cast<long long>(left)) + " are left)");
    fresh->unLock();
    ref_count* joined = registry->retrieveRefCount(ownerSlot, kObjectType);
    report.expect(joined == fresh,
                  "after the old record's hand-back, the new object's address leads to another "
                  "record: the hand-back removed the new object's entry");
    if (fresh != old && old->lock() == 0) {
        report.fail("the handed-back old record still accepts lock()");
        old->unLock();
    }
    if (joined == fresh && fresh->lock() == 0) {
        fresh->dec_reference();
        fresh->unLock();
    } else if (joined != NULL) {
        releaseLast(joined, kObjectType);
    }
    releaseLast(fresh, kObjectType);
}

void checkNoRecordLockUnderRegistryLock(Report& report) {
    RefCountManager* registry = RefCountManager::getInstance();
    ref_count* owner = registry->retrieveRefCount(ownerSlot, kObjectType);
    ref_count* member = registry->retrieveRefCount(memberSlot, kMemberType);
    if (owner == NULL || member == NULL || owner->lock() != 0) {
        report.fail("new records could not be retrieved and locked");
        return;
    }
    owner->dec_reference();
    // The owner is being deleted under its record's lock while a new object
    // at its address asks for a record on another thread.
    ref_count* reused = NULL;
    Worker other([&] { reused = registry->retrieveRefCount(ownerSlot, kObjectType); });
    other.finishedWithin(0.3);
    {
        // The owner's destructor, on this thread and still under the owner's
        // record lock: it releases its member and makes and drops a pointer
        // of its own.
        Watchdog dog(report, 5.0,
                     "while this thread held a record's lock, handing another record back and "
                     "retrieving a new one waited more than 5 s: the other thread's "
                     "retrieveRefCount, waiting for the held record, keeps the registry locked "
                     "(a deadlock of the recorder whenever an address is reused)");
        if (member->lock() == 0) {
            member->dec_reference();
            registry->returnbackRefCount(member, kMemberType);
            member->unLock();
        } else {
            report.fail("lock() of a live member record failed");
        }
        ref_count* temporary = registry->retrieveRefCount(scratchSlot, kObjectType);
        if (temporary != NULL) releaseLast(temporary, kObjectType);
    }
    registry->returnbackRefCount(owner, kObjectType);
    owner->unLock();
    if (!other.finishedWithin(5.0)) {
        report.abandon(
            "retrieveRefCount for the reused address had not returned 5 s after the "
            "old record was handed back");
    }
    if (reused == NULL) {
        report.fail("retrieveRefCount gave a null record");
        return;
    }
    if (reused->lock() != 0) {
        report.fail("the record given for the reused address refuses lock()");
        return;
    }
    reused->unLock();
    releaseLast(reused, kObjectType);
}

}  // namespace conformance
