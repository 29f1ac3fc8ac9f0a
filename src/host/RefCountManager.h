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
///
/// How SafePointer uses it: the last holder deletes the object with the
/// record's lock held, then hands the record back (returnbackRefCount), then
/// unlocks it. The object's destructor runs under that lock and releases the
/// pointers it holds (locking their records, handing them back) and may make
/// new ones (retrieveRefCount). So the lock order is a record's lock before
/// the registry's own, and several records' locks may be held by one thread,
/// an owner's before its members'.
///
/// The host conformance suite (conformance/, in libftpdisk-dev) checks these
/// rules as ref_count.counts_under_threads,
/// RefCountManager.address_reused_while_handed_back and
/// RefCountManager.no_record_lock_under_registry_lock.
class FTPDISK_HOST_API RefCountManager {
public:
    /// The single registry of the process; never destroyed, so that pointers
    /// released during static destruction still find it.
    static RefCountManager* getInstance();

    /// The record for `object`, counting the caller as a new holder: the
    /// first call for an object gives a record with a count of one, a later
    /// call for the same live object adds one to that record. `typeName` is
    /// the object's type name, for diagnostics.
    ///
    /// It may lock a record: the one it finds for the address, to add the
    /// holder safely against a release in progress, and it may wait for
    /// that lock. But never while it holds anything returnbackRefCount needs
    /// (the registry's own lock): returnbackRefCount is entered with a
    /// record's lock held, so a lookup that waits for that record while
    /// holding the registry deadlocks both. It is also called by threads
    /// that hold other records' locks (a destructor making a pointer).
    ///
    /// An address reused while its old record is being handed back: after
    /// the old object is deleted and before its record is handed back, the
    /// allocator may give the address to a new object, whose first pointer
    /// calls this. The old record's count is 0 and must not be joined (its
    /// hand-back would take the new object's record with it). The new object
    /// gets a record of its own with a count of one, either at once (a fresh
    /// record that the address now leads to) or after waiting for the old
    /// record's hand-back (the POSIX host waits on the old record's lock,
    /// finds it handed back and starts afresh).
    /// \return the record; never null.
    ref_count* retrieveRefCount(void* object, const char* typeName);

    /// Hands back a record whose count reached zero. The record becomes
    /// invalid: its lock() fails from then on until the registry hands it out
    /// again, so the record's memory must stay valid. Called with the
    /// record's lock held by the caller, which releases it afterwards. When
    /// the address already leads to a new object's record (above), that
    /// record stays as it is.
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
/// same thread: lock() keeps every other thread out until unLock(), and
/// inc_reference, dec_reference and getPointer, called in between, must not
/// take that lock themselves.
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
