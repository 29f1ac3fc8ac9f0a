// FtpFileHandleManager: the open-file table of one store. Turns an open request
// into a small integer handle backed by its own logged-in connection (pooled or
// new) and data connection, and closes it again.
//
// Thread safety: `mutex` guards the table's bookkeeping only (the handle
// numbers, the open files and the paths of opens in progress) and is never
// held across network work: open reserves a number under it, connects, logs
// in and starts the transfer without it, and takes it again to record the
// file; close takes the file out under it and ends the transfer without it.
// So a slow server delays only the camera that is opening or closing, and
// getFileHandler never waits for anybody's network work. Lock order: `mutex`
// before the pool's lock (the two are in fact never held together now). The
// store's locks are never held while calling here.
#ifndef FTPDISK_CONNECTIONS_FTPFILEHANDLEMANAGER_H
#define FTPDISK_CONNECTIONS_FTPFILEHANDLEMANAGER_H

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "connections/ConnectGate.h"
#include "connections/FreeFtpToolBuff.h"
#include "connections/FtpFileHandler.h"
#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "ftp/TlsSetting.h"
#include "host/technic/KDMutex.h"

enum { kFtpTableTextSize = 32 };

class FtpFileHandleManager {
public:
    // Texts longer than 31 characters are cut (the store never passes one).
    // Handles run from firstHandle to handleLimit - 1.
    FtpFileHandleManager(const char* server, const char* user, const char* password,
                         int firstHandle, int handleLimit, int maxOpenFiles);
    virtual ~FtpFileHandleManager();

    // A handle, or -1 (path of 256 characters or more or holding a CR or LF,
    // too many open files, path already open, no free number, no connection,
    // transfer refused).
    // Opens still in progress count towards the open-file limit and the
    // one-open-per-path rule. An open that fails after reserving its number
    // gives it back.
    int open(const char* path, int mode);
    // 0, or -1 (unknown handle, a number whose open is still in progress,
    // failed final reply, unusable connection). Only a connection that is
    // usable, ended its transfer well and owes no reply goes back to the
    // pool; any other is quit.
    int close(int handle);
    // True with the open file in `out`; false with `out` untouched when the
    // handle is not open.
    bool getFileHandler(int handle, SafePointer<FtpFileHandler>& out);
    // Reserves the lowest free handle number for `path`: the number, or -1
    // when `path` is already open or being opened, or every number is taken.
    // REQUIRES: mutex is held.
    int getFileHandleID(const char* path) FTPDISK_REQUIRES(mutex);
    // A logged-in connection, pooled or new: true with it in `out`; false when
    // a new one could not connect or log in (`out` then holds that new
    // connection, not logged in; after a refused login it has been quit).
    // Network work: called without `mutex`.
    bool getPFTPTool(SafePointer<FTPTool>& out) FTPDISK_EXCLUDES(mutex);

    // The pool (tests and diagnostics).
    SafePointer<FreeFtpToolBuff>& getFreeToolBuff();
    // The store's TLS choice, applied to every connection made for an open
    // file (and, by the store, to its main connection). Locks of its own.
    TlsSetting& tls();

    // New connections of this table connecting or logging in at once, at
    // most (see ConnectGate); opens beyond wait for a place.
    static const unsigned int kConnectsInFlight = 8;

private:
    FtpFileHandleManager(const FtpFileHandleManager&);
    FtpFileHandleManager& operator=(const FtpFileHandleManager&);

    // An open between its reservation and its end: keeps its number and path
    // counted while the connection is made without `mutex`.
    struct OpenInProgress {
        int32_t handle;
        std::string path;
    };
    class PendingOpen;

    // True when `path` is open or being opened. REQUIRES: mutex is held.
    bool pathInUse(const char* path) FTPDISK_REQUIRES(mutex);
    // Takes the open in progress with number `handle` off `opening`.
    // REQUIRES: mutex is held.
    void endOpening(int32_t handle) FTPDISK_REQUIRES(mutex);

    SafePointer<FreeFtpToolBuff> freeToolBuff;
    TlsSetting tlsSetting;
    // Guarded by mutex. In order of opening.
    std::vector<SafePointer<FtpFileHandler> > fileHandlers FTPDISK_GUARDED_BY(mutex);
    int32_t handleLimit;
    int32_t firstHandle;
    int32_t maxOpenFiles;
    KDMutex mutex;
    char server[kFtpTableTextSize];
    char user[kFtpTableTextSize];
    char password[kFtpTableTextSize];
    // Guarded by mutex. One entry per number firstHandle..handleLimit-1.
    std::map<int32_t, bool> handleInUse FTPDISK_GUARDED_BY(mutex);
    // Guarded by mutex. Opens whose number is reserved but whose handler is
    // not yet in fileHandlers.
    std::vector<OpenInProgress> opening FTPDISK_GUARDED_BY(mutex);
    // New connections' connects and logins, kConnectsInFlight at once.
    ConnectGate connectGate;
};

#endif  // FTPDISK_CONNECTIONS_FTPFILEHANDLEMANAGER_H
