// Helpers shared by the FTPTool sources (control connection, data connections,
// single commands). Stateless; any thread may call them.
#ifndef FTPDISK_FTP_FTPTOOLINTERNAL_H
#define FTPDISK_FTP_FTPTOOLINTERNAL_H

#include <netinet/in.h>
#include <sys/types.h>

#include "ftp/NetBuf.h"

namespace ftptool {

// Every command line is built in a buffer of this size (line end and
// terminator included).
enum { kCommandLineSize = 256 };

// Waits until `fd` is ready for `events` (poll flags) for at most `limit`,
// seconds and microseconds exactly as given (no rounding to milliseconds).
// Returns 1 ready (the reported events in *revents when it is not null), 0
// time-out, -1 error (EINTR included: a signal ends the wait like an error,
// nothing retries; a negative descriptor or limit is an error too). ppoll is
// used rather than select so that descriptors above FD_SETSIZE, which a
// long-running recorder can reach, never write past an fd_set.
int waitFor(int fd, short events, NetBufWaitTime limit, short* revents = 0);

// A zeroed connection record for socket `fd` in `direction` (NetBufDirection),
// with its kNetBufSize-byte line buffer when `lineBuffer` is true: both
// positions at the buffer's start, nothing available, the whole buffer free
// (no room at all without one). nullptr when memory runs out, nothing then being
// held; `fd` stays the caller's to close.
NetBuf* newRecord(int fd, int direction, bool lineBuffer);

// Copies `text` into `connection->response`, cut to fit and terminated.
void setResponse(NetBuf* connection, const char* text);

// The system's text for `error` copied into `connection->response`.
void setErrorResponse(NetBuf* connection, int error);

// Steps `at` over what scanf skips before a decimal number (white space, then
// one optional sign) and stores in *negative whether the sign was '-'. True
// when a digit follows; false when none does, `at` then standing where the
// digit was looked for.
bool skipToDigits(const char*& at, bool* negative);

// Connects `fd` to `address`, giving up once `limitSeconds` have passed on the
// host's up-time clock. 0 when connected, else the error (ETIMEDOUT for the
// limit); the socket's blocking mode is as before either way.
int connectWithin(int fd, const struct sockaddr_in& address, double limitSeconds);

// The FtpFailure of a connect that failed with `error`.
int connectFailure(int error);

// recv and send on the record's socket, through its TLS channel when it has
// one: the same results, with MSG_DONTWAIT honoured. Through TLS a call
// without MSG_DONTWAIT waits at most the record's idleTime and then fails
// with EAGAIN; MSG_NOSIGNAL is always in force.
ssize_t receive(NetBuf* connection, void* buffer, size_t length, int flags);
ssize_t transmit(NetBuf* connection, const void* buffer, size_t length, int flags);

// A wait as milliseconds, for the TLS channel (at least 1 ms).
int waitMilliseconds(NetBufWaitTime wait);

// Whether the record has bytes waiting inside its TLS channel, so that a
// read needs no wait on the socket.
bool tlsPending(NetBuf* connection);

// Releases the record's TLS channel (no traffic); nothing in clear.
void dropTls(NetBuf* connection);

// Whether the host wants the socket-write reports on standard output.
bool printReports();

// Prints one socket-write report ("write(1) returned %d, errno = %d\n" and its
// siblings) on standard output and flushes it.
void report(const char* format, int result, int error);

}  // namespace ftptool

#endif  // FTPDISK_FTP_FTPTOOLINTERNAL_H
