// Host contract: the recorder's mutex.
//
// Every lock of the module is a KDMutex taken with the caller's source name and
// line, which the host uses for its lock diagnostics. Not recursive. Lock and
// Unlock must be called by the same thread. The signatures are the recorder's
// own (a non-const char* for the source name); the module never passes a
// name the host could write to, and calls them only through KDMutexLocker.
#ifndef FTPDISK_HOST_TECHNIC_KDMUTEX_H
#define FTPDISK_HOST_TECHNIC_KDMUTEX_H

#include "foundation/Export.h"
#include "foundation/ThreadAnnotations.h"

class FTPDISK_CAPABILITY("mutex") FTPDISK_HOST_API KDMutex {
public:
    KDMutex();
    ~KDMutex();

    void Lock(char* file, int line) FTPDISK_ACQUIRE();
    void Unlock(char* file, int line) FTPDISK_RELEASE();

private:
    KDMutex(const KDMutex&);
    KDMutex& operator=(const KDMutex&);

    struct Impl;
    Impl* impl;
};

// Scoped holder: takes the mutex on construction, releases it on destruction
// (also when an exception leaves the scope). The unlock side cites
// technic/KDMutex line 71, where the host's own scoped lock releases.
class FTPDISK_SCOPED_CAPABILITY KDMutexLocker {
public:
    KDMutexLocker(KDMutex& mutex, const char* file, int line) FTPDISK_ACQUIRE(mutex)
        : mutex_(mutex) {
        mutex_.Lock(const_cast<char*>(file), line);
    }
    ~KDMutexLocker() FTPDISK_RELEASE() {
        static char unlockSite[] = "technic/KDMutex";
        mutex_.Unlock(unlockSite, 71);
    }

private:
    KDMutexLocker(const KDMutexLocker&);
    KDMutexLocker& operator=(const KDMutexLocker&);

    KDMutex& mutex_;
};

#endif  // FTPDISK_HOST_TECHNIC_KDMUTEX_H
