// Host contract: the process-wide registry of reference counts.
//
// SafePointer keeps the count of a shared object in a ref_count record handed
// out by this registry, keyed by the object's address. This header only
// declares what the module calls; the recorder's process (or the POSIX host
// library) implements it. All operations are safe to call from any thread.
#ifndef FTPDISK_HOST_REFCOUNTMANAGER_H
#define FTPDISK_HOST_REFCOUNTMANAGER_H

#include "foundation/Export.h"

class ref_count;

class FTPDISK_HOST_API RefCountManager {
public:
    // The single registry of the process; never destroyed, so that pointers
    // released during static destruction still find it.
    static RefCountManager* getInstance();

    // Returns the record for `object`, counting the caller as a new holder: the
    // first call for an object gives a record with a count of one, a later call
    // for the same live object adds one to that record. Never null.
    ref_count* retrieveRefCount(void* object, const char* typeName);

    // Hands back a record whose count reached zero. The record becomes invalid:
    // its lock() fails from then on until the registry hands it out again.
    // May be called with the record's lock held by the caller.
    void returnbackRefCount(ref_count* record, const char* typeName);

    // Records currently handed out (for leak checks in tests and tools).
    unsigned long liveRecords();

    class Impl;

private:
    RefCountManager();
    ~RefCountManager();
    RefCountManager(const RefCountManager&);
    RefCountManager& operator=(const RefCountManager&);

    Impl* impl;
};

// One count record. lock()/unLock() bracket every count change.
class FTPDISK_HOST_API ref_count {
public:
    // 0 when the lock was taken; non-zero (and not locked) when the record is no
    // longer valid because it was handed back.
    int lock();
    void unLock();

    // The object the record was created for.
    void* getPointer();

    // Adds one holder. Non-zero on success; zero when the count had already
    // reached zero (the object is gone).
    int inc_reference() const;

    // Removes one holder and returns the remaining count; 0 means the caller
    // held the last reference.
    int dec_reference();

    // Current number of holders (diagnostics only).
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
