// FTPFileSystemImpl::PathOperation, the opening every path operation of the
// store shares, and the source name of the store's locks. Internal to
// FTPFileSystemImpl.cpp.
#ifndef FTPDISK_FILESYSTEM_PATHOPERATION_H
#define FTPDISK_FILESYSTEM_PATHOPERATION_H

#include "filesystem/FTPFileSystemImpl.h"
#include "foundation/LastError.h"

// Source name under which every lock of the store is taken, for the host's
// lock diagnostics.
const char* const kStoreLockSource = "FTPFileSystemImpl";

// Usage, at the top of a path operation:
//     PathOperation operation(*this, path != nullptr, __LINE__);
//     if (!operation.ready()) return -1;
class FTPDISK_SCOPED_CAPABILITY FTPFileSystemImpl::PathOperation {
public:
    // The analysis is told that opLock is held from here on even when the
    // arguments are missing and nothing was taken: an operation then returns
    // at once, before anything guarded is touched, so the one path where the
    // claim is untrue uses none of what it protects.
    PathOperation(FTPFileSystemImpl& store, bool argumentsGiven, int line)
        FTPDISK_ACQUIRE(store.opLock) FTPDISK_NO_THREAD_SAFETY_ANALYSIS : store_(store),
                                                                          locked_(argumentsGiven) {
        if (locked_) {
            store_.opLock.Lock(const_cast<char*>(kStoreLockSource), line);
        }
    }
    ~PathOperation() FTPDISK_RELEASE() FTPDISK_NO_THREAD_SAFETY_ANALYSIS {
        if (locked_) {
            static char unlockSite[] = "technic/KDMutex";
            store_.opLock.Unlock(unlockSite, 71);
        }
    }

    // Arguments given (so opLock is held) and the store initialised; when
    // not, the reason is noted as the thread's last error.
    bool ready() const {
        if (!locked_) {
            lasterror::note(lasterror::kBadArgument, "a path argument is missing");
            return false;
        }
        if (!store_.initialised) {
            lasterror::note(lasterror::kNotInitialised, "the store is not initialised");
            return false;
        }
        return true;
    }
    // Arguments given, so opLock is held.
    bool locked() const { return locked_; }

private:
    PathOperation(const PathOperation&);
    PathOperation& operator=(const PathOperation&);

    FTPFileSystemImpl& store_;
    const bool locked_;
};

#endif  // FTPDISK_FILESYSTEM_PATHOPERATION_H
