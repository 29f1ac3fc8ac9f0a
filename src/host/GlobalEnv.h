// Host contract: process-wide settings of the recorder. Declared here,
// implemented by the recorder's process.
#ifndef FTPDISK_HOST_GLOBALENV_H
#define FTPDISK_HOST_GLOBALENV_H

#include <atomic>

#include "foundation/Export.h"

/// Host contract: the recorder's process-wide settings. Safe from any thread.
class FTPDISK_HOST_API GlobalEnv {
public:
    /// The single instance of the process.
    static GlobalEnv* getInstance();
    /// Whether diagnostic prints (the FTP client's socket-write reports, such
    /// as "write(1) returned -1, errno = 32") go to standard output. The module
    /// only reads it.
    bool getPrintFlag();
    /// Sets the print flag.
    void setPrintFlag(bool on);

private:
    GlobalEnv();
    GlobalEnv(const GlobalEnv&);
    GlobalEnv& operator=(const GlobalEnv&);

    std::atomic<bool> printFlag_;
};

#endif  // FTPDISK_HOST_GLOBALENV_H
