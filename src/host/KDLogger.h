// Host contract: appends one line to a named log file.
// Safe to call from any thread; failures are silent.
#ifndef FTPDISK_HOST_KDLOGGER_H
#define FTPDISK_HOST_KDLOGGER_H

#include "foundation/Export.h"

class FTPDISK_HOST_API KDLogger {
public:
    // Appends "<local time> [<where>] <message>\n" to `file`. `maxBytes` caps the
    // file's size: when the line would take the file past it, the file is
    // rotated, keeping `keepFiles` older files (file.1 is the newest of them).
    static void writeLog(const char* file, const char* where, const char* message, int maxBytes,
                         int keepFiles);
};

#endif  // FTPDISK_HOST_KDLOGGER_H
