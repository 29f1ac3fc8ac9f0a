// FtpFileHandler: one open remote file: its logged-in connection, the data
// connection of its single transfer, the open mode, the handle number and the
// path. No lock of its own: the open-file table hands out counted references,
// and two threads must not use one handle at the same time.
#ifndef FTPDISK_CONNECTIONS_FTPFILEHANDLER_H
#define FTPDISK_CONNECTIONS_FTPFILEHANDLER_H

#include <stdint.h>

#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"

// Open modes: 1 read (RETR), 2 write (STOR), 3 append (APPE), 4 write (STOR).
enum FtpOpenMode {
    kFtpModeRead = 1,
    kFtpModeWrite = 2,
    kFtpModeAppend = 3,
    kFtpModeWrite2 = 4
};

enum { kFtpFileNameSize = 256 };

class FtpFileHandler {
public:
    // The caller keeps `fileName` under 256 characters (the open-file table
    // refuses longer paths before creating a handler).
    FtpFileHandler(SafePointer<FTPTool>& tool, int mode, int fileHandle, const char* fileName);
    virtual ~FtpFileHandler();

    // Starts the transfer for the mode; the three texts are not used.
    bool open(const char* server, const char* user, const char* password);
    int read(char* buf, unsigned int len);
    int write(const char* buf, unsigned int len);
    int aioWrite(const char* buf, unsigned int len);
    int aioReturn(int milliseconds);
    // 0 when the transfer ended with a positive final reply, else -1.
    int close();

    int getMode();
    int getFileHandle();
    const char* getFileName();
    SafePointer<FTPTool>& getPFTPTool();

private:
    FtpFileHandler(const FtpFileHandler&);
    FtpFileHandler& operator=(const FtpFileHandler&);

    SafePointer<FTPTool> ftpTool;
    NetBuf* dataConnection;
    int32_t mode;
    int32_t fileHandle;
    char fileName[kFtpFileNameSize];
};

#endif  // FTPDISK_CONNECTIONS_FTPFILEHANDLER_H
