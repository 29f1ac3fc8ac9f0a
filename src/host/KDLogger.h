// Host contract: the recorder's log files. Declared here, implemented by the
// recorder's process.
#ifndef FTPDISK_HOST_KDLOGGER_H
#define FTPDISK_HOST_KDLOGGER_H

#include "foundation/Export.h"

/// Host contract: appends lines to named log files. Safe to call from any
/// thread, one whole line per call; failures are silent. The module writes
/// one line per abandoned listing to "/mnt/mtd/log/recordError.log", with
/// 51200 and 2 as the last two arguments, and never reads the file. Checked
/// by the host conformance suite as KDLogger.call.
class FTPDISK_HOST_API KDLogger {
public:
    /// Appends "<local time> [<where>] <message>\n" to `file`. `maxBytes`
    /// caps the file's size: when the line would take the file past it, the
    /// file is rotated, keeping `keepFiles` older files (file.1 is the newest
    /// of them).
    static void writeLog(const char* file, const char* where, const char* message, int maxBytes,
                         int keepFiles);
};

#endif  // FTPDISK_HOST_KDLOGGER_H
