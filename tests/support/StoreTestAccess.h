// StoreTestAccess: the one way tests and benchmarks reach the store's private
// members (FTPFileSystemImpl declares it a friend). The helpers that expect
// the store's operation lock are called with that lock taken here, as the
// store's own operations take it, so the clang lock analysis checks every
// program that uses them. Header-only; any thread.
#ifndef FTPDISK_TESTS_SUPPORT_STORETESTACCESS_H
#define FTPDISK_TESTS_SUPPORT_STORETESTACCESS_H

#include <vector>

#include "filesystem/FTPFileSystemImpl.h"
#include "foundation/SafePointer.h"
#include "host/technic/KDMutex.h"
#include "listing/FTPFileDescriptor.h"

class StoreTestAccess {
public:
    typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > Entries;

    static bool getFileDescriptorList(FTPFileSystemImpl& store, const char* path, Entries& entries,
                                      long long& total) {
        KDMutexLocker guard(store.opLock, kSource, __LINE__);
        return store.getFileDescriptorList(path, entries, total);
    }
    static bool scanRecordDir(FTPFileSystemImpl& store, const char* path, long long& size) {
        KDMutexLocker guard(store.opLock, kSource, __LINE__);
        return store.scanRecordDir(path, size);
    }
    static long long baseGetFileLength(FTPFileSystemImpl& store, const char* path) {
        KDMutexLocker guard(store.opLock, kSource, __LINE__);
        return store.baseGetFileLength(path);
    }
    static int rmFTPDir(FTPFileSystemImpl& store, const char* path) {
        KDMutexLocker guard(store.opLock, kSource, __LINE__);
        return store.rmFTPDir(path);
    }
    // Used bytes as the account holds them.
    static long long usedBytes(FTPFileSystemImpl& store) { return store.getUsedBytes(); }
    static bool isRefused(FTPFileSystemImpl& store) { return store.isRefused(); }

private:
    static constexpr const char* kSource = "StoreTestAccess";
};

#endif  // FTPDISK_TESTS_SUPPORT_STORETESTACCESS_H
