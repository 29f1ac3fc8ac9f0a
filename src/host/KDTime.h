// Host contract: the recorder's clocks. Declared here, implemented by the
// recorder's process.
#ifndef FTPDISK_HOST_KDTIME_H
#define FTPDISK_HOST_KDTIME_H

#include "foundation/Export.h"

/// Host contract: the recorder's clocks, in seconds as doubles. Safe to call
/// from any thread. Checked by the host conformance suite as
/// KDTime.up_time_never_goes_back.
class FTPDISK_HOST_API KDTime {
public:
    /// Wall-clock seconds since the epoch; the pool's idle times (30 s) are
    /// measured on it.
    static double getSeconds();
    /// Seconds since an arbitrary fixed start, never going back, also between
    /// readings on different threads; the 30 s bound on one reply and the
    /// 60 s bound on a listing are measured on it.
    static double getUpTime();
};

#endif  // FTPDISK_HOST_KDTIME_H
