#include "filesystem/SpaceAccount.h"

#include <limits.h>

SpaceAccount::SpaceAccount(const char* lockSource) : lockSource(lockSource), usedBytes(0) {}

void SpaceAccount::update(long long bytes, bool add) {
    KDMutexLocker space(spaceLock, lockSource, __LINE__);
    if (add) {
        usedBytes += bytes;
    } else {
        usedBytes -= bytes;
    }
}

long long SpaceAccount::used() {
    KDMutexLocker space(spaceLock, lockSource, __LINE__);
    return usedBytes;
}

void SpaceAccount::figures(long& first, long& second) {
    KDMutexLocker space(spaceLock, lockSource, __LINE__);
    first = 0;
    // The server's free space is never asked for: only what this store wrote
    // is reported. The clamp keeps a 32-bit long from overflowing on an absurd
    // account.
    const double mebibytes = static_cast<double>(usedBytes) / 1048576.0;
    if (mebibytes >= static_cast<double>(LONG_MAX)) {
        second = LONG_MAX;
    } else if (mebibytes <= static_cast<double>(LONG_MIN)) {
        second = LONG_MIN;
    } else {
        second = static_cast<long>(mebibytes);
    }
}

void SpaceAccount::startOver() {
    KDMutexLocker space(spaceLock, lockSource, __LINE__);
    usedBytes = 0;
}
