// FtpFileHandler: one open remote file: its logged-in connection, the data
// connection of its single transfer, the open mode, the handle number and the
// path.
//
// Thread safety: the open-file table hands out counted references, so a
// handler outlives a close that runs while another thread is still using it.
// `transferLock` makes that safe: every data operation and close hold it for
// their whole run, so close never frees the data record under a running read
// or write, and a call that comes after close finds no transfer and fails
// with -1. The lock is taken with no other lock of the module held, and only
// the FTPTool's own control lock is taken inside it.
#ifndef FTPDISK_CONNECTIONS_FTPFILEHANDLER_H
#define FTPDISK_CONNECTIONS_FTPFILEHANDLER_H

#include <stdint.h>

#include "foundation/SafePointer.h"
#include "foundation/ThreadAnnotations.h"
#include "ftp/FTPTool.h"
#include "host/technic/KDMutex.h"

// Open modes: 1 read (RETR), 2 write (STOR), 3 append (APPE), 4 write (STOR).
enum FtpOpenMode { kFtpModeRead = 1, kFtpModeWrite = 2, kFtpModeAppend = 3, kFtpModeWrite2 = 4 };

enum { kFtpFileNameSize = 256 };

class FtpFileHandler {
public:
    // The caller keeps `fileName` under 256 characters (the open-file table
    // refuses longer paths before creating a handler).
    FtpFileHandler(SafePointer<FTPTool>& tool, int mode, int fileHandle, const char* fileName);
    virtual ~FtpFileHandler();

    // Starts the transfer for the mode; the three texts are not used.
    bool open(const char* server, const char* user, const char* password);
    // Each of the four gives -1 once the handler is closed (or was never
    // opened), touching nothing.
    int read(char* buf, unsigned int len);
    int write(const char* buf, unsigned int len);
    int aioWrite(const char* buf, unsigned int len);
    int aioReturn(int milliseconds);
    // 0 when the transfer ended with a positive final reply, else -1 (also
    // for a handler already closed). Waits for a data operation running on
    // another thread to finish first.
    int close();

    int getMode();
    int getFileHandle();
    const char* getFileName();
    SafePointer<FTPTool>& getPFTPTool();

private:
    FtpFileHandler(const FtpFileHandler&);
    FtpFileHandler& operator=(const FtpFileHandler&);

    SafePointer<FTPTool> ftpTool;
    // Guarded by transferLock (the destructor excepted: nobody else holds the
    // handler then).
    NetBuf* dataConnection FTPDISK_GUARDED_BY(transferLock);
    int32_t mode;
    int32_t fileHandle;
    char fileName[kFtpFileNameSize];
    KDMutex transferLock;
};

#endif  // FTPDISK_CONNECTIONS_FTPFILEHANDLER_H
