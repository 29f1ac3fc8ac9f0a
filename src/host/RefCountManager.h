// Host contract: the process-wide registry of reference counts. Declared
// here, implemented by the recorder's process (or the POSIX host library).
#ifndef FTPDISK_HOST_REFCOUNTMANAGER_H
#define FTPDISK_HOST_REFCOUNTMANAGER_H

#include "foundation/Export.h"

class ref_count;

/// Host contract: the process-wide registry of reference counts.
///
/// SafePointer keeps the count of every shared object (the module's and the
/// stores the recorder holds) in a ref_count record handed out by this
/// registry, keyed by the object's address. All operations are safe to call
/// from any thread.
class FTPDISK_HOST_API RefCountManager {
public:
    /// The single registry of the process; never destroyed, so that pointers
    /// released during static destruction still find it.
    static RefCountManager* getInstance();

    /// The record for `object`, counting the caller as a new holder: the
    /// first call for an object gives a record with a count of one, a later
    /// call for the same live object adds one to that record. `typeName` is
    /// the object's type name, for diagnostics.
    /// \return the record; never null.
    ref_count* retrieveRefCount(void* object, const char* typeName);

    /// Hands back a record whose count reached zero. The record becomes
    /// invalid: its lock() fails from then on until the registry hands it out
    /// again, so the record's memory must stay valid. Called with the
    /// record's lock held by the caller, which releases it afterwards.
    void returnbackRefCount(ref_count* record, const char* typeName);

    /// \return the records currently handed out (leak checks in tests and
    /// tools; the module does not call it).
    unsigned long liveRecords();

    /// The recorder's own state of the registry.
    class Impl;

private:
    RefCountManager();
    ~RefCountManager();
    RefCountManager(const RefCountManager&);
    RefCountManager& operator=(const RefCountManager&);

    Impl* impl;
};

/// Host contract: one count record of RefCountManager. SafePointer brackets
/// every count change with lock() and unLock(), taken and released by the
/// same thread.
class FTPDISK_HOST_API ref_count {
public:
    /// Takes the record's lock.
    /// \return 0 when the lock was taken; non-zero (and not locked) when the
    /// record is no longer valid because it was handed back.
    int lock();
    /// Releases the record's lock.
    void unLock();

    /// The object the record was handed out for.
    void* getPointer();

    /// Adds one holder.
    /// \return non-zero on success; zero when the count had already reached
    /// zero (the object is gone).
    int inc_reference() const;

    /// Removes one holder.
    /// \return the remaining count; 0 means the caller held the last
    /// reference.
    int dec_reference();

    /// \return the current number of holders (diagnostics only).
    int getCount() const;

private:
    friend class RefCountManager;
    friend class RefCountManager::Impl;
    ref_count();
    ~ref_count();
    ref_count(const ref_count&);
    ref_count& operator=(const ref_count&);

    struct State;
    State* state;
};

#endif  // FTPDISK_HOST_REFCOUNTMANAGER_H
