// SpaceAccount: the store's used-space account, the bytes this store has
// written (less those it deleted) since it was last initialised, under a lock
// of its own. Owned by FTPFileSystemImpl; any thread.
//
// Lock order: the account's lock is a leaf for the store. It is taken inside
// the operation lock (deletes, init) or with no store lock held (writes), and
// never together with the snapshot lock.
#ifndef FTPDISK_FILESYSTEM_SPACEACCOUNT_H
#define FTPDISK_FILESYSTEM_SPACEACCOUNT_H

#include <stdint.h>

#include "host/technic/KDMutex.h"

class SpaceAccount {
public:
    // An account of 0 bytes. `lockSource` is the source name the lock is
    // taken with, for the host's lock diagnostics.
    explicit SpaceAccount(const char* lockSource);

    // Adds `bytes` when `add`, subtracts them otherwise; no bound either way.
    void update(long long bytes, bool add);
    // Bytes as recorded.
    long long used();
    // `first` 0 and `second` the account in whole mebibytes, truncated toward
    // zero and clamped to the range of a long.
    void figures(long& first, long& second);
    // Back to 0 bytes, for a store that initialises again.
    void startOver();

private:
    SpaceAccount(const SpaceAccount&);
    SpaceAccount& operator=(const SpaceAccount&);

    const char* const lockSource;
    KDMutex spaceLock;
    int64_t usedBytes FTPDISK_GUARDED_BY(spaceLock);
};

#endif  // FTPDISK_FILESYSTEM_SPACEACCOUNT_H
