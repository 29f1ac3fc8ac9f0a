// Switches of the POSIX host library for tests and tools.
//
// A recorder links its own host classes and has none of these. Tests use them
// to drive time by hand (so 30 s and 60 s limits are checked without sleeping)
// and to keep log files out of the recorder's fixed log folder.
#ifndef FTPDISK_HOST_HOSTCONTROL_H
#define FTPDISK_HOST_HOSTCONTROL_H

#include <string>

namespace hostcontrol {

// Switches KDTime::getSeconds and KDTime::getUpTime to hand-driven clocks that
// start at the given values and move only through advanceClock. KadmorTime::wait
// then waits for the hand-driven up-time to pass its duration.
void useManualClock(double wallSeconds, double upSeconds);
// Back to the system clocks; wakes every hand-driven wait.
void useSystemClock();
bool isManualClock();
// Moves both hand-driven clocks forward and wakes the waits that are now due.
void advanceClock(double seconds);
// Number of threads currently inside KadmorTime::wait (tests use it to know a
// monitor pass has finished and the thread is pausing).
int waitingThreads();

// Log files named by an absolute path are written below `directory` instead:
// "/mnt/mtd/log/recordError.log" becomes "<directory>/mnt/mtd/log/recordError.log"
// (folders are created as needed). An empty text restores the real paths. The
// environment variable FTPDISK_LOG_ROOT sets the same at start-up.
void setLogRoot(const std::string& directory);
// Where KDLogger would write the named file now.
std::string resolveLogPath(const char* file);

}  // namespace hostcontrol

#endif  // FTPDISK_HOST_HOSTCONTROL_H
