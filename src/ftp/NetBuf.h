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
class TlsChannel;

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

// Where the control connection stands in the replies the server owes it.
// Every command sent (and the greeting) is owed one reply; a reply that does
// not come in time, or is abandoned part way, stays owed and is read and
// dropped before the next command goes out, so that no reply is ever taken
// for the answer to a later command. `lineHead` and `closing` let a reply
// that was left part way be read on to its true end later.
struct NetBufReplyState {
    int32_t owed;            // replies still to come
    int32_t preliminary;     // 1 when the oldest owed command has had its 1xx reply
    int32_t doubtful;        // 1 after a command ended on a second 1xx: a reply may follow
    int32_t started;         // 1 when some of the oldest owed reply has been read
    int32_t multiLine;       // 1 when it is a multi-line reply: `closing` ends it
    int32_t lineHeadLength;  // bytes of the current line seen so far, up to 4
    char lineHead[4];        // the first bytes of the line being read
    char closing[4];         // "211 ": the code and blank that open its closing line
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
    NetBufReplyState replies;            // control record only; zero in data records
    TlsChannel* tls;  // the connection's TLS channel (ftps), owned; null in clear
};

#endif  // FTPDISK_FTP_NETBUF_H
