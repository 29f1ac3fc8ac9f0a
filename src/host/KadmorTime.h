// Host contract: a duration and a pause of that length. Declared here,
// implemented by the recorder's process.
#ifndef FTPDISK_HOST_KADMORTIME_H
#define FTPDISK_HOST_KADMORTIME_H

#include "foundation/Export.h"

/// Host contract: a duration, and a pause of that length. The module makes
/// these objects on its stack at the size this header gives (two longs), so
/// the recorder's class keeps that layout.
class FTPDISK_HOST_API KadmorTime {
public:
    /// `seconds` plus `microseconds` (a sub-second part in microseconds).
    KadmorTime(long seconds, long microseconds);

    /// The whole seconds.
    long getSeconds() const;
    /// The sub-second part, in microseconds.
    long getMicroseconds() const;

    /// Pauses the calling thread for the duration. Called on a GThread, the
    /// pause ends early when that thread is asked to stop (the module's
    /// monitor pauses 2 s this way, and a store's destruction waits for it);
    /// GThread.h says how. Checked by the host conformance suite as
    /// KadmorTime.wait_lasts_its_duration and GThread.stop_ends_wait_early.
    static void wait(const KadmorTime& duration);

private:
    long seconds_;
    long microseconds_;
};

#endif  // FTPDISK_HOST_KADMORTIME_H
