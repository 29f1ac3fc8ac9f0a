// Host contract: the recorder's mutex, and the scoped holder through which
// the module takes it. KDMutex is declared here and implemented by the
// recorder's process; KDMutexLocker is inline.
#ifndef FTPDISK_HOST_TECHNIC_KDMUTEX_H
#define FTPDISK_HOST_TECHNIC_KDMUTEX_H

#include "foundation/Export.h"
#include "foundation/ThreadAnnotations.h"

/// Host contract: the recorder's mutex.
///
/// Every lock of the module (registry, operation, space, scan, snapshot,
/// table, pool, transfer and control locks) is a KDMutex taken with the
/// caller's source name and line, which the recorder may use for its lock
/// diagnostics. Not recursive. Lock and Unlock are called by the same thread.
/// The module puts these objects inside its own at the size this header gives
/// (one pointer), so the recorder's class keeps that layout. The signatures
/// are the recorder's own (a non-const char* for the source name); the module
/// never passes a name the host could write to, and calls them only through
/// KDMutexLocker. Checked by the host conformance suite as
/// KDMutex.excludes_other_threads.
class FTPDISK_CAPABILITY("mutex") FTPDISK_HOST_API KDMutex {
public:
    /// An unlocked mutex.
    KDMutex();
    ~KDMutex();

    /// Takes the mutex, waiting as long as it takes. `file` and `line` name
    /// the caller's source place.
    void Lock(char* file, int line) FTPDISK_ACQUIRE();
    /// Releases the mutex taken by this thread.
    void Unlock(char* file, int line) FTPDISK_RELEASE();

private:
    KDMutex(const KDMutex&);
    KDMutex& operator=(const KDMutex&);

    struct Impl;
    Impl* impl;
};

/// Scoped holder: takes the mutex on construction, releases it on
/// destruction (also when an exception leaves the scope). The unlock side
/// cites technic/KDMutex line 71, where the host's own scoped lock releases.
class FTPDISK_SCOPED_CAPABILITY KDMutexLocker {
public:
    /// Takes `mutex`, citing `file` and `line`.
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
