// FreeFtpToolBuff: the pool of idle logged-in connections of one open-file
// table, with the monitor thread "detectStateThread" that quits connections
// idle for 30 seconds or more.
//
// Thread safety: every operation may be called from any thread; `lock` guards
// the idle list and is held only for list work, never across network work.
// Lock order: the open-file table's mutex before `lock`; the monitor thread
// takes only `lock`, and quits expired connections after releasing it.
#ifndef FTPDISK_CONNECTIONS_FREEFTPTOOLBUFF_H
#define FTPDISK_CONNECTIONS_FREEFTPTOOLBUFF_H

#include <atomic>
#include <vector>

#include "foundation/Function.h"
#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "host/technic/KDMutex.h"

class GThread;

// One pooled connection and the moment it became idle (KDTime::getSeconds).
class FreeFTPInfo {
public:
    FreeFTPInfo();
    virtual ~FreeFTPInfo();

    void setBeginFreeTime(double seconds);
    double getBeginFreeTime();
    void setFTPTool(SafePointer<FTPTool>& tool);
    SafePointer<FTPTool>& getFTPTool();

private:
    double beginFreeTime;
    SafePointer<FTPTool> ftpTool;
};

class FreeFtpToolBuff {
public:
    static const double kIdleSeconds;     // 30
    static const long kPassPauseSeconds;  // 2

    FreeFtpToolBuff();
    virtual ~FreeFtpToolBuff();

    // 0 when the monitor runs (already or now), -1 when it could not start.
    int start();
    // Always 0.
    int stop();
    void addFreeFTPTool(SafePointer<FTPTool>& tool);
    // True and `out` set to the oldest idle connection; false and `out`
    // untouched when the pool is empty.
    bool getFreeFTPTool(SafePointer<FTPTool>& out);
    // One monitor pass; always 0.
    int theThread();

    // Number of pooled connections (tests and diagnostics).
    unsigned int idleCount();

private:
    // theThread's work: quits the connections idle for kIdleSeconds or more.
    void expireIdle() FTPDISK_EXCLUDES(lock);

    FreeFtpToolBuff(const FreeFtpToolBuff&);
    FreeFtpToolBuff& operator=(const FreeFtpToolBuff&);

    // Guarded by lock. Oldest first: new entries are appended.
    std::vector<SafePointer<FreeFTPInfo> > idleList FTPDISK_GUARDED_BY(lock);
    GThread* monitorThread;    // owned; created by the constructor, started by start()
    std::atomic<bool> paused;  // written by start/stop, read by the monitor pass
    KDMutex lock;
};

#endif  // FTPDISK_CONNECTIONS_FREEFTPTOOLBUFF_H
