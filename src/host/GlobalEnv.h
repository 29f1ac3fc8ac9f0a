// Host contract: process-wide settings of the recorder.
#ifndef FTPDISK_HOST_GLOBALENV_H
#define FTPDISK_HOST_GLOBALENV_H

#include <atomic>

#include "foundation/Export.h"

class FTPDISK_HOST_API GlobalEnv {
public:
    static GlobalEnv* getInstance();
    // Whether diagnostic prints (such as FTPTool's socket-write reports) go to
    // standard output.
    bool getPrintFlag();
    void setPrintFlag(bool on);

private:
    GlobalEnv();
    GlobalEnv(const GlobalEnv&);
    GlobalEnv& operator=(const GlobalEnv&);

    std::atomic<bool> printFlag_;
};

#endif  // FTPDISK_HOST_GLOBALENV_H
