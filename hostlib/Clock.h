// Internal to the POSIX host library: the two clocks, real or hand-driven, and
// the pause that GThread::stop can interrupt.
#ifndef FTPDISK_HOSTLIB_CLOCK_H
#define FTPDISK_HOSTLIB_CLOCK_H

#include <atomic>

namespace hostlib {

double wallSeconds();
double upSeconds();

// Pauses for `seconds` (real or hand-driven up-time) or until `*stop` becomes
// true and wakeAll() is called. `stop` may be null.
void pause(double seconds, const std::atomic<bool>* stop);
// Wakes every pause so it re-checks its stop flag.
void wakeAll();

}  // namespace hostlib

#endif  // FTPDISK_HOSTLIB_CLOCK_H
