// NetBuf: the record of one control or data connection.
//
// A plain record (malloc/free) with the same layout for the control connection
// and for data connections. The control record is made by FTPTool::connect and
// released by FTPTool::Empty; a data record is made by FTPTool::OpenPort and
// released by FTPTool::closeData. A record is used by one thread at a time.
#ifndef FTPDISK_FTP_NETBUF_H
#define FTPDISK_FTP_NETBUF_H

#include <stdint.h>

struct NetBuf;

// Optional transfer-progress notification: (connection, bytes moved so far,
// opaque argument).
typedef int (*NetBufProgressCallback)(NetBuf* connection, int32_t transferred, void* arg);

// The longest Socketwait waits: seconds then microseconds, 32 bits each on every
// platform.
struct NetBufWaitTime {
    int32_t seconds;
    int32_t microseconds;
};

enum {
    kNetBufSize = 8192,        // line buffer of every connection
    kNetBufResponseSize = 256  // last reply line, terminated
};

enum NetBufDirection {
    kNetBufControl = 0,   // control connection
    kNetBufDataRead = 1,  // data, server to us
    kNetBufDataWrite = 2  // data, us to server
};

enum NetBufConnectionMode {
    kNetBufPassive = 1,  // we connect to the address given after "PASV"
    kNetBufPort = 2      // we listen and announce ourselves with "PORT"
};

struct NetBuf {
    char* writePos;          // where the next received bytes are stored in buffer
    char* readPos;           // next unread byte in buffer
    int32_t handle;          // socket descriptor; -1 once closed
    int32_t available;       // received, not yet consumed bytes
    int32_t spaceLeft;       // free bytes in buffer after writePos
    char* buffer;            // kNetBufSize bytes; null for image-mode data
    int32_t direction;       // NetBufDirection
    NetBuf* control;         // data: control record whose final reply is read on close
    int32_t connectionMode;  // control record only: NetBufConnectionMode
    NetBufWaitTime idleTime;
    NetBufProgressCallback progressCallback;
    void* progressArg;
    int32_t transferred;    // total bytes moved
    int32_t callbackBytes;  // call progressCallback after more than this many; 0 = never
    int32_t sinceCallback;  // bytes moved since the last call
    char response[kNetBufResponseSize];  // last reply line or local error text
};

#endif  // FTPDISK_FTP_NETBUF_H
