// FTPTool: one FTP client connection (control connection plus the data
// connections opened on it), IPv4 only, passive mode.
//
// Replies are judged by the first character of their last line only. Every
// operation reports success as non-zero and failure as 0 (Readline/Writeline
// also -1, aioReturn 0/-1/-2) and leaves the last reply line or a local error
// text in the control record's `response`; nothing throws. A tool is driven by
// one thread at a time; the pool and the open-file table hand tools out
// exclusively, and the control connection has no lock.
#ifndef FTPDISK_FTP_FTPTOOL_H
#define FTPDISK_FTP_FTPTOOL_H

#include <netinet/in.h>

#include "ftp/NetBuf.h"

// Transfer kinds of dataConnect.
enum FtpOpenType {
    kFtpNlst = 1,
    kFtpList = 2,
    kFtpRetr = 3,
    kFtpStor = 4,
    kFtpAppe = 5
};

// Resolves "host", "host:21" or "host:service" into an IPv4 address and port:
// a decimal port is used as is (low 16 bits), a name is looked up as a TCP
// service ("ftp" without a colon); the host is tried as a dotted address
// first, then resolved. Returns 1 and fills `address`, or 0 (nothing opened;
// `address` may be partly filled).
int ftpResolveAddress(const char* host, struct sockaddr_in* address);

// Reads the data address out of a reply to "PASV":
//   "227 Entering Passive Mode (192,168,1,2,4,1)" -> 192.168.1.2 port 1025
// Six unsigned numbers follow the first '('; each is taken as one byte and
// missing ones count as 0. Returns 1 and fills `address` (AF_INET, network
// order), or 0 when the text has no '(' (`address` untouched).
int ftpParsePassiveReply(const char* response, struct sockaddr_in* address);

// The longest aioReturn waits for `milliseconds`: the thousands as seconds and
// the remainder, unscaled, as microseconds (1500 -> 1 s 500 us).
NetBufWaitTime ftpAioWaitTime(int milliseconds);

class FTPTool {
public:
    FTPTool();
    // Sends "QUIT" over a live connection, then releases whatever is left of the
    // control connection without further traffic, so no socket outlives the
    // tool even when the server does not answer "QUIT".
    virtual ~FTPTool();

    void setUsable(bool usable);
    bool getUsable();
    int flush();

    // --- Control connection -------------------------------------------------
    // 1 when connected and the greeting is 2xx. A previous control record is
    // released first (without traffic).
    int connect(const char* host);
    int login(const char* user, const char* password);
    int Sendcmd(const char* command, char expected);
    int Readresp(char expected, NetBuf* connection);
    int Readline(char* out, int capacity, NetBuf* connection);
    int Writeline(const char* data, int length, NetBuf* connection);
    int Socketwait(NetBuf* connection);
    void setTimeOutLen(NetBuf* connection, int kind, int seconds);
    int quit();
    int Empty();

    // --- Data connections ---------------------------------------------------
    int dataConnect(const char* path, int type, int mode, NetBuf** out);
    int OpenPort(NetBuf** out, int mode, int direction);
    int AcceptConnection(NetBuf* data);
    int read(char* buf, int length, NetBuf* data);
    int write(const char* buf, int length, NetBuf* data);
    int aioWrite(const char* buf, unsigned int length, NetBuf* data);
    int aioReturn(int milliseconds, NetBuf* data);
    int closeData(NetBuf* data);

    // --- Single commands ----------------------------------------------------
    int cd(const char* dir);
    int cdup();
    int mkdir(const char* dir);
    int rmdir(const char* dir);
    int site(const char* command);
    int size(const char* path, int* size, char mode);
    int moveFile(const char* from, const char* to);
    int deleteFile(const char* path);

    // The control record (null while not connected) and its last reply text
    // ("" while not connected).
    NetBuf* getControlBuf() const;
    const char* getResponse() const;

private:
    FTPTool(const FTPTool&);
    FTPTool& operator=(const FTPTool&);

    NetBuf* controlBuf;
    bool usable;
};

#endif  // FTPDISK_FTP_FTPTOOL_H
