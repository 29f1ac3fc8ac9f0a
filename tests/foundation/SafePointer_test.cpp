// Tests of the reference-counted pointer and of KDRuntimeError: the report line
// printed on misuse, the exception text, the object deleted exactly once and
// its count record handed back to the host registry.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <new>
#include <string>
#include <typeinfo>

#include "foundation/KDRuntimeError.h"
#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "host/RefCountManager.h"

namespace {

// Counts its destructions so that a test can tell "deleted exactly once".
class Tracked {
public:
    explicit Tracked(int* destroyed) : destroyed_(destroyed) {}
    virtual ~Tracked() { ++*destroyed_; }
    int value = 7;

private:
    int* destroyed_;
};

class TrackedChild : public Tracked {
public:
    TrackedChild(int* destroyed, int* childDestroyed)
        : Tracked(destroyed), childDestroyed_(childDestroyed) {}
    ~TrackedChild() override { ++*childDestroyed_; }

private:
    int* childDestroyed_;
};

std::string reportFor(const char* typeName, const char* text) {
    return std::string("SafePointer Report:") + typeName + " " + text;
}

template <class T>
std::string reportFor(const char* text) {
    return reportFor(typeid(T).name(), text);
}

// The number of holders the registry counts for a live object. Asking the
// registry adds a holder, which is taken away again before returning.
int holdersOf(void* object) {
    ref_count* record =
        RefCountManager::getInstance()->retrieveRefCount(object, typeid(Tracked).name());
    EXPECT_EQ(0, record->lock());
    int holders = record->getCount() - 1;
    record->dec_reference();
    record->unLock();
    return holders;
}

// Runs `action`, which must throw KDRuntimeError; returns what it printed on
// standard output and the exception text.
template <class F>
std::pair<std::string, std::string> captureFailure(F action) {
    testing::internal::CaptureStdout();
    std::string what = "<nothing thrown>";
    try {
        action();
    } catch (const KDRuntimeError& error) {
        what = error.what();
    }
    return std::make_pair(testing::internal::GetCapturedStdout(), what);
}

// Storage for a SafePointer that a test leaves stale on purpose: it is built
// in place and destroyed only where a test says so (it owns nothing that could
// leak).
template <class T>
struct StalePointerSlot {
    alignas(SafePointer<T>) unsigned char bytes[sizeof(SafePointer<T>)];
    SafePointer<T>* make(const SafePointer<T>& from) { return new (bytes) SafePointer<T>(from); }
};

// True when another thread can take and release `record`'s lock within a few
// seconds. When it cannot, the lock is held by this thread (the only one that
// touched it): it is released here so the other thread ends, and false comes
// back.
bool lockableFromAnotherThread(ref_count* record) {
    std::future<int> other = std::async(std::launch::async, [record] {
        const int refused = record->lock();
        if (refused == 0) record->unLock();
        return refused;
    });
    if (other.wait_for(std::chrono::seconds(5)) == std::future_status::ready) {
        return other.get() == 0;
    }
    record->unLock();
    other.get();
    return false;
}

class SafePointerTest : public testing::Test {
protected:
    void SetUp() override { recordsBefore = RefCountManager::getInstance()->liveRecords(); }
    void TearDown() override {
        EXPECT_EQ(recordsBefore, RefCountManager::getInstance()->liveRecords())
            << "a count record was not handed back";
    }

    unsigned long recordsBefore = 0;
};

TEST_F(SafePointerTest, ConstructingFromNullPrintsTheReportAndThrowsWithTheSameText) {
    auto result = captureFailure([] { SafePointer<Tracked> p(static_cast<Tracked*>(nullptr)); });
    const std::string expected = reportFor<Tracked>("Construct from NULL original pointer");
    EXPECT_EQ(expected + "\n", result.first);
    EXPECT_EQ(expected, result.second);
}

TEST_F(SafePointerTest, UsingAnEmptyFtpToolPointerReportsWithTheMangledTypeName) {
    auto result = captureFailure([] {
        SafePointer<FTPTool> empty;
        empty->getUsable();
    });
    EXPECT_EQ("SafePointer Report:7FTPTool Use NULL pointer ->\n", result.first);
    EXPECT_EQ("SafePointer Report:7FTPTool Use NULL pointer ->", result.second);
}

TEST_F(SafePointerTest, CopyingFromAnEmptyPointerThrowsConstructFromNullWithLiteralT) {
    auto result = captureFailure([] {
        SafePointer<Tracked> empty;
        SafePointer<Tracked> copy(empty);
    });
    EXPECT_EQ(reportFor<Tracked>("Construct from NULL <T>pointer") + "\n", result.first);
    EXPECT_EQ(reportFor<Tracked>("Construct from NULL <T>pointer"), result.second);
}

TEST_F(SafePointerTest, AssigningAnEmptyPointerThrowsAndLeavesTheTargetHoldingItsObject) {
    int destroyed = 0;
    {
        SafePointer<Tracked> held(new Tracked(&destroyed));
        auto result = captureFailure([&] {
            SafePointer<Tracked> empty;
            held = empty;
        });
        EXPECT_EQ(reportFor<Tracked>("Assigned NULL <T>pointer") + "\n", result.first);
        EXPECT_EQ(reportFor<Tracked>("Assigned NULL <T>pointer"), result.second);
        EXPECT_EQ(7, held->value);
        EXPECT_EQ(1, holdersOf(held.get()));
        EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);
}

TEST_F(SafePointerTest, StarOnAnEmptyPointerThrowsLikeArrow) {
    auto result = captureFailure([] {
        SafePointer<Tracked> empty;
        (*empty).value = 1;
    });
    EXPECT_EQ(reportFor<Tracked>("Use NULL pointer ->"), result.second);
}

TEST_F(SafePointerTest, SelfAssignmentChangesNoCount) {
    int destroyed = 0;
    {
        SafePointer<Tracked> p(new Tracked(&destroyed));
        SafePointer<Tracked>& alias = p;
        p = alias;
        EXPECT_EQ(1, holdersOf(p.get()));
        EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);
}

TEST_F(SafePointerTest, CopiesShareOneRecordAndTheLastDestructorDeletesOnce) {
    int destroyed = 0;
    const unsigned long before = RefCountManager::getInstance()->liveRecords();
    {
        SafePointer<Tracked> first(new Tracked(&destroyed));
        EXPECT_EQ(before + 1, RefCountManager::getInstance()->liveRecords());
        {
            SafePointer<Tracked> second(first);
            SafePointer<Tracked> third(second);
            EXPECT_EQ(first.get(), third.get());
            EXPECT_EQ(3, holdersOf(first.get()));
            EXPECT_EQ(before + 1, RefCountManager::getInstance()->liveRecords());
        }
        EXPECT_EQ(0, destroyed);
        EXPECT_EQ(1, holdersOf(first.get()));
    }
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(before, RefCountManager::getInstance()->liveRecords());
}

TEST_F(SafePointerTest, AssignmentReleasesTheOldObjectAndSharesTheNewOne) {
    int destroyedA = 0;
    int destroyedB = 0;
    {
        SafePointer<Tracked> a(new Tracked(&destroyedA));
        SafePointer<Tracked> b(new Tracked(&destroyedB));
        a = b;
        EXPECT_EQ(1, destroyedA) << "a was the last holder of its object";
        EXPECT_EQ(0, destroyedB);
        EXPECT_EQ(a.get(), b.get());
        EXPECT_EQ(2, holdersOf(b.get()));
    }
    EXPECT_EQ(1, destroyedA);
    EXPECT_EQ(1, destroyedB);
}

TEST_F(SafePointerTest, TwoPointersMadeFromTheSameRawObjectShareItsRecord) {
    int destroyed = 0;
    Tracked* raw = new Tracked(&destroyed);
    {
        SafePointer<Tracked> a(raw);
        SafePointer<Tracked> b(raw);
        EXPECT_EQ(2, holdersOf(raw));
    }
    EXPECT_EQ(1, destroyed);
}

TEST_F(SafePointerTest, DeletionGoesThroughTheVirtualDestructor) {
    int destroyed = 0;
    int childDestroyed = 0;
    { SafePointer<Tracked> p(new TrackedChild(&destroyed, &childDestroyed)); }
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(1, childDestroyed);
}

TEST_F(SafePointerTest, AnEmptyPointerIsReleasedWithoutTouchingTheRegistry) {
    const unsigned long before = RefCountManager::getInstance()->liveRecords();
    {
        SafePointer<Tracked> empty;
        EXPECT_TRUE(empty.isNull());
        EXPECT_EQ(nullptr, empty.get());
    }
    EXPECT_EQ(before, RefCountManager::getInstance()->liveRecords());
}

TEST_F(SafePointerTest, IncReferenceOnAnEmptyPointerReportsAlreadyDestructed1) {
    auto result = captureFailure([] {
        SafePointer<Tracked> empty;
        empty.inc_reference();
    });
    EXPECT_EQ(reportFor<Tracked>("Already destructed 1") + "\n", result.first);
    EXPECT_EQ(reportFor<Tracked>("Already destructed 1"), result.second);
}

// A stale pointer whose record was handed back: the record's lock fails.
TEST_F(SafePointerTest, CopyingFromAPointerWhoseRecordWasHandedBackReportsAlreadyDestructed2) {
    int destroyed = 0;
    StalePointerSlot<Tracked> slot;
    SafePointer<Tracked>* stale;
    {
        SafePointer<Tracked> owner(new Tracked(&destroyed));
        stale = slot.make(owner);
        // Take the stale pointer's hold away behind its back, so that the
        // owner's release is the last one.
        ref_count* record =
            RefCountManager::getInstance()->retrieveRefCount(owner.get(), typeid(Tracked).name());
        ASSERT_EQ(0, record->lock());
        record->dec_reference();
        record->dec_reference();
        record->unLock();
    }
    ASSERT_EQ(1, destroyed);

    auto result = captureFailure([&] { SafePointer<Tracked> copy(*stale); });
    EXPECT_EQ(reportFor<Tracked>("Already destructed 2") + "\n", result.first);
    EXPECT_EQ(reportFor<Tracked>("Already destructed 2"), result.second);
    EXPECT_EQ(1, destroyed) << "nothing is deleted twice";

    // Its destructor finds the record refused and releases nothing.
    testing::internal::CaptureStdout();
    stale->~SafePointer<Tracked>();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1, destroyed);
}

// A stale pointer whose record is still valid but whose count already reached
// zero: the record refuses the new holder.
TEST_F(SafePointerTest, CopyingFromAPointerWhoseCountReachedZeroReportsAlreadyDestructed3) {
    int destroyed = 0;
    SafePointer<Tracked> p(new Tracked(&destroyed));
    ref_count* record =
        RefCountManager::getInstance()->retrieveRefCount(p.get(), typeid(Tracked).name());
    ASSERT_EQ(0, record->lock());
    record->dec_reference();
    record->dec_reference();  // count is now zero, record still valid
    record->unLock();

    auto result = captureFailure([&] { SafePointer<Tracked> copy(p); });
    EXPECT_EQ(reportFor<Tracked>("Already destructed 3") + "\n", result.first);
    EXPECT_EQ(reportFor<Tracked>("Already destructed 3"), result.second);
    EXPECT_EQ(0, record->lock()) << "the record lock was released before the throw";
    record->unLock();
    EXPECT_EQ(0, destroyed);
    // p's own release then finds a zero count, deletes and hands the record back.
}

// A stale pointer whose record was recycled for another object: the record
// is valid but no longer names this object.
TEST_F(SafePointerTest, CopyingFromAPointerWhoseRecordNowNamesAnotherObjectThrowsWithoutReport) {
    int destroyedOld = 0;
    int destroyedNew = 0;
    StalePointerSlot<Tracked> slot;
    SafePointer<Tracked>* stale;
    Tracked* otherRaw = new Tracked(&destroyedNew);
    {
        SafePointer<Tracked> owner(new Tracked(&destroyedOld));
        stale = slot.make(owner);
        ref_count* record =
            RefCountManager::getInstance()->retrieveRefCount(owner.get(), typeid(Tracked).name());
        ASSERT_EQ(0, record->lock());
        record->dec_reference();
        record->dec_reference();
        record->unLock();
    }
    ASSERT_EQ(1, destroyedOld);
    // The registry hands the most recently returned record out first. The
    // other object was allocated while the first was alive, so it cannot sit
    // at the same address and match the record by chance.
    SafePointer<Tracked> other(otherRaw);
    ASSERT_NE(static_cast<void*>(stale->get()), static_cast<void*>(other.get()));
    ref_count* record =
        RefCountManager::getInstance()->retrieveRefCount(other.get(), typeid(Tracked).name());
    ASSERT_EQ(0, record->lock());
    record->dec_reference();
    record->unLock();

    auto inc = captureFailure([&] { SafePointer<Tracked> copy(*stale); });
    EXPECT_EQ("", inc.first) << "no report line for a mismatched record";
    EXPECT_EQ("not valid pointer in inc_reference ", inc.second);
    // The record's lock is left held by the failed copy; release it here.
    record->unLock();

    auto dec = captureFailure([&] { stale->dec_reference(); });
    EXPECT_EQ("", dec.first);
    EXPECT_EQ("not valid pointer in dec_reference", dec.second);
    record->unLock();

    // Destroying the stale pointer meets the same mismatch; a destructor cannot
    // pass the error on, so it is dropped instead of ending the process, and
    // the other object's record is not left locked.
    testing::internal::CaptureStdout();
    stale->~SafePointer<Tracked>();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_TRUE(lockableFromAnotherThread(record))
        << "the stale pointer's destructor left the other object's record locked";

    EXPECT_EQ(1, holdersOf(other.get()));
    EXPECT_EQ(0, destroyedNew);
    EXPECT_EQ(1, destroyedOld);
}

TEST_F(SafePointerTest, ThrowNullPointerExceptionReportsFromBothOverloads) {
    int destroyed = 0;
    SafePointer<Tracked> p(new Tracked(&destroyed));
    auto plain = captureFailure([&] { p.ThrowNullPointerException("custom text"); });
    EXPECT_EQ(reportFor<Tracked>("custom text") + "\n", plain.first);
    EXPECT_EQ(reportFor<Tracked>("custom text"), plain.second);

    const SafePointer<Tracked>& constant = p;
    auto fromConst = captureFailure([&] { constant.ThrowNullPointerException("other text"); });
    EXPECT_EQ(reportFor<Tracked>("other text") + "\n", fromConst.first);
    EXPECT_EQ(reportFor<Tracked>("other text"), fromConst.second);
}

TEST(KDRuntimeError, MadeFromANullTextHasAnEmptyMessage) {
    KDRuntimeError error(static_cast<const char*>(nullptr));
    EXPECT_STREQ("", error.what());
}

TEST(KDRuntimeError, KeepsItsTextFromACharPointerOrAString) {
    std::string text = "some message";
    KDRuntimeError fromString(text);
    text[0] = 'X';
    EXPECT_STREQ("some message", fromString.what()) << "the string is copied";
    KDRuntimeError fromChars("chars");
    EXPECT_STREQ("chars", fromChars.what());
}

TEST(KDRuntimeError, IsCaughtAsAStandardException) {
    try {
        throw KDRuntimeError("as std::exception");
    } catch (const std::exception& error) {
        EXPECT_STREQ("as std::exception", error.what());
        return;
    }
    ADD_FAILURE() << "not caught as std::exception";
}

}  // namespace
