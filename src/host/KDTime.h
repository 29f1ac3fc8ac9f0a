// Host contract: the recorder's clocks, in seconds as doubles.
// Safe to call from any thread.
#ifndef FTPDISK_HOST_KDTIME_H
#define FTPDISK_HOST_KDTIME_H

#include "foundation/Export.h"

class FTPDISK_HOST_API KDTime {
public:
    // Wall-clock seconds since the epoch (pool idle times).
    static double getSeconds();
    // Seconds since an arbitrary fixed start, never going back (watchdogs).
    static double getUpTime();
};

#endif  // FTPDISK_HOST_KDTIME_H
