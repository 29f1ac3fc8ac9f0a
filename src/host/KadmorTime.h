// Host contract: a duration and a pause of that length.
#ifndef FTPDISK_HOST_KADMORTIME_H
#define FTPDISK_HOST_KADMORTIME_H

#include "foundation/Export.h"

class FTPDISK_HOST_API KadmorTime {
public:
    // `seconds` plus `microseconds` (the second number is a sub-second part in
    // microseconds).
    KadmorTime(long seconds, long microseconds);

    long getSeconds() const;
    long getMicroseconds() const;

    // Pauses the calling thread for the duration. Called on a GThread, the pause
    // ends early when that thread is asked to stop.
    static void wait(const KadmorTime& duration);

private:
    long seconds_;
    long microseconds_;
};

#endif  // FTPDISK_HOST_KADMORTIME_H
