// FTPTool: data connections (opening in passive or port mode, the transfer
// command, reads and writes, the asynchronous write and its completion check,
// and the final reply on close).
#include "ftp/FTPTool.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ftp/FTPToolInternal.h"

using ftptool::kCommandLineSize;

namespace {

// Seconds a data socket waits on a single send or receive.
const int kDataSocketLimit = 30;
// Seconds the server has to connect to us in port mode.
const int32_t kAcceptSeconds = 5;

// Adds a read or written amount to the record and calls the progress
// callback once more than `callbackBytes` have moved since the last call.
// The counters are signed 32-bit and one data connection can move more than
// 2 GiB (a recording streamed for hours): `transferred` wraps around modulo
// 2^32 rather than overflowing, and the distance to the next callback is
// worked out in 64 bits so that no call is lost at the wrap.
void account(NetBuf* data, int moved) {
    if (moved <= 0) return;
    data->transferred = static_cast<int32_t>(static_cast<uint32_t>(data->transferred) +
                                             static_cast<uint32_t>(moved));
    if (data->progressCallback != nullptr && data->callbackBytes != 0) {
        int64_t since = static_cast<int64_t>(data->sinceCallback) + moved;
        if (since > data->callbackBytes) {
            data->progressCallback(data, data->transferred, data->progressArg);
            since = 0;
        }
        data->sinceCallback = static_cast<int32_t>(since);
    }
}

// Reads one unsigned decimal number the way "%u" does (leading white space, an
// optional sign, then digits); false when no digits follow.
bool readUnsigned(const char*& at, unsigned* value) {
    const char* p = at;
    bool negative = false;
    if (!ftptool::skipToDigits(p, &negative)) return false;
    unsigned long long n = 0;
    while (*p >= '0' && *p <= '9') {
        if (n <= 0xFFFFFFFFull) n = n * 10 + static_cast<unsigned>(*p - '0');
        ++p;
    }
    if (n > 0xFFFFFFFFull) n = 0xFFFFFFFFull;
    unsigned result = static_cast<unsigned>(n);
    *value = negative ? 0u - result : result;
    at = p;
    return true;
}

// Whether a call made with MSG_DONTWAIT failed only because the socket was
// not ready.
bool notReady(ssize_t result) { return result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK); }

// One image-mode receive. The bytes are taken at once when some are waiting,
// which is the usual case in a bulk transfer and spares a readiness wait per
// call; only a socket with nothing to read waits, at most idleTime (3 s), and
// then receives as before. An empty request always waits first: a receive of
// 0 bytes would not tell whether the socket is ready.
int receiveSome(FTPTool& tool, NetBuf* data, char* buf, int length) {
    if (length > 0) {
        const ssize_t got = ftptool::receive(data, buf, static_cast<size_t>(length), MSG_DONTWAIT);
        if (!notReady(got)) return static_cast<int>(got);
    }
    if (!tool.Socketwait(data)) {
        // errno 0 tells the caller the wait ran out (no error of the system).
        errno = 0;
        return -1;
    }
    const ssize_t got = ftptool::receive(data, buf, static_cast<size_t>(length), 0);
    // Through TLS the socket may have held only part of a record, and the
    // rest did not come within the wait.
    if (notReady(got) && data->tls != nullptr) errno = 0;
    return static_cast<int>(got);
}

// One image-mode send of `length` bytes, with the limits of a readiness wait
// (at most idleTime, 3 s) followed by one blocking send. The bytes that fit
// are handed over at once, which in a bulk transfer spares a wait per call;
// the wait comes only when not all of them fit, and after it the rest goes
// with a blocking send. The result is every byte that went out: all of them;
// fewer when the socket found no room within the wait, the send limit ran out
// or the connection failed part way; -1 only when none went out.
int sendSome(FTPTool& tool, NetBuf* data, const char* buf, int length) {
    ssize_t sent = 0;
    if (length > 0) {
        sent =
            ftptool::transmit(data, buf, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent == length) return length;
        if (sent < 0 && !notReady(sent)) return -1;
        if (sent < 0) sent = 0;
    }
    // Part of the bytes may already be out: they are reported, as any partial
    // send is, rather than hidden behind a failure. Only a write that sent
    // nothing within the wait fails.
    if (!tool.Socketwait(data)) {
        errno = 0;
        return sent > 0 ? static_cast<int>(sent) : -1;
    }
    const ssize_t rest =
        ftptool::transmit(data, buf + sent, static_cast<size_t>(length - sent), MSG_NOSIGNAL);
    if (rest < 0) return sent > 0 ? static_cast<int>(sent) : -1;
    return static_cast<int>(sent + rest);
}

}  // namespace

int ftpParsePassiveReply(const char* response, struct sockaddr_in* address) {
    if (response == nullptr || address == nullptr) return 0;
    const char* open = strchr(response, '(');
    if (open == nullptr) return 0;
    // "%u,%u,%u,%u,%u,%u": reading stops at the first number or comma that is
    // missing; the count read is not checked, so missing numbers stay 0.
    unsigned numbers[6] = {0, 0, 0, 0, 0, 0};
    const char* at = open + 1;
    for (int i = 0; i < 6; ++i) {
        if (i > 0) {
            if (*at != ',') break;
            ++at;
        }
        if (!readUnsigned(at, &numbers[i])) break;
    }
    unsigned char bytes[4];
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(numbers[i]);
    memset(address, 0, sizeof *address);
    address->sin_family = AF_INET;
    memcpy(&address->sin_addr, bytes, 4);
    unsigned port = (numbers[4] & 0xFFu) * 256u + (numbers[5] & 0xFFu);
    address->sin_port = htons(static_cast<uint16_t>(port));
    return 1;
}

NetBufWaitTime ftpAioWaitTime(int milliseconds) {
    // The remainder is used as microseconds without scaling: 1500 waits
    // 1 s 500 us. Callers pass their limits with that in mind.
    NetBufWaitTime limit;
    limit.seconds = milliseconds / 1000;
    limit.microseconds = milliseconds % 1000;
    return limit;
}

int FTPTool::dataConnect(const char* path, int type, int mode, NetBuf** out) {
    if (controlBuf == nullptr || out == nullptr) return 0;
    if (path == nullptr && (type == kFtpRetr || type == kFtpStor)) {
        setLocalResponse("Missing path argument for file transfer\n");
        setFailure(kFtpFailureLocal, 0, "Missing path argument for file transfer");
        return 0;
    }
    // The type goes out before `type` and `mode` are checked.
    char line[kCommandLineSize];
    snprintf(line, sizeof line, "TYPE %c", static_cast<char>(mode));
    if (!Sendcmd(line, '2')) return 0;

    const char* word;
    int direction;
    switch (type) {
        case kFtpNlst:
            word = "NLST";
            direction = kNetBufDataRead;
            break;
        case kFtpList:
            word = "LIST";
            direction = kNetBufDataRead;
            break;
        case kFtpRetr:
            word = "RETR";
            direction = kNetBufDataRead;
            break;
        case kFtpStor:
            word = "STOR";
            direction = kNetBufDataWrite;
            break;
        // APPE without a path is sent as is: the server decides.
        case kFtpAppe:
            word = "APPE";
            direction = kNetBufDataWrite;
            break;
        default:
            char text[kNetBufResponseSize];
            snprintf(text, sizeof text, "Invalid open type %d\n", type);
            setLocalResponse(text);
            setFailure(kFtpFailureLocal, 0, text);
            return 0;
    }
    memset(line, 0, sizeof line);
    if (path != nullptr) {
        if (4 + 1 + strlen(path) > kCommandLineSize - 1) {
            setFailure(kFtpFailureLocal, 0, "command not sent: the path is too long for one line");
            return 0;
        }
        snprintf(line, sizeof line, "%s %s", word, path);
    } else {
        snprintf(line, sizeof line, "%s", word);
    }

    if (!OpenPort(out, mode, direction)) return 0;
    setTimeOutLen(*out, 1, kDataSocketLimit);
    setTimeOutLen(*out, 2, kDataSocketLimit);

    if (!Sendcmd(line, '1')) {
        // A refused transfer has no closing reply to wait for.
        (*out)->control = nullptr;
        closeData(*out);
        *out = nullptr;
        return 0;
    }
    if (controlBuf->connectionMode == kNetBufPort && !AcceptConnection(*out)) {
        // AcceptConnection has already closed the listening socket; the
        // record's handle may read 0 after a failed accept, which is not
        // ours to close.
        (*out)->handle = -1;
        closeData(*out);
        *out = nullptr;
        return 0;
    }
    if (controlBuf->tls != nullptr && !secureData(*out)) {
        // The server's closing reply (its refusal of the failed handshake)
        // stays owed and is read and dropped before the next command.
        (*out)->control = nullptr;
        closeData(*out);
        *out = nullptr;
        return 0;
    }
    return 1;
}

int FTPTool::secureData(NetBuf* data) {
    // The server starts its side after sending the 1xx reply; each wait is
    // the data connection's readiness wait.
    std::string why;
    TlsChannel* channel =
        tlsContext ? tlsContext->handshake(data->handle, tlsName.c_str(), controlBuf->tls,
                                           ftptool::waitMilliseconds(data->idleTime), &why)
                   : nullptr;
    if (channel == nullptr) {
        if (!tlsContext) why = "TLS handshake failed: no TLS context";
        setLocalResponse(why.c_str());
        setFailure(kFtpFailureTls, 0, why.c_str());
        return 0;
    }
    data->tls = channel;
    dataResumed = channel->resumed();
    return 1;
}

int FTPTool::OpenPort(NetBuf** out, int mode, int direction) {
    if (controlBuf == nullptr || out == nullptr) return 0;
    if (controlBuf->direction != kNetBufControl) return 0;
    if (direction != kNetBufDataRead && direction != kNetBufDataWrite) {
        char text[kNetBufResponseSize];
        snprintf(text, sizeof text, "Invalid direction %d\n", direction);
        setLocalResponse(text);
        setFailure(kFtpFailureLocal, 0, text);
        return 0;
    }
    if (mode != 'A' && mode != 'I') {
        char text[kNetBufResponseSize];
        snprintf(text, sizeof text, "Invalid mode %c\n", static_cast<char>(mode));
        setLocalResponse(text);
        setFailure(kFtpFailureLocal, 0, text);
        return 0;
    }

    bool portMode = controlBuf->connectionMode == kNetBufPort;
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    if (!portMode) {
        // The reply is parsed from a copy taken under the control lock.
        char reply[kNetBufResponseSize];
        if (!exchange("PASV", '2', reply)) return 0;
        struct sockaddr_in announced;
        if (!ftpParsePassiveReply(reply, &announced)) {
            setFailure(kFtpFailureReply, 0, reply);
            return 0;
        }
        // Only the port is taken from the reply. The address is the one the
        // control connection reached: a server behind address translation
        // announces an address of its own network that the recorder cannot
        // reach, and a hostile one could name any host of the recorder's
        // network to receive its recordings.
        socklen_t length = sizeof address;
        if (getpeername(controlBuf->handle, reinterpret_cast<struct sockaddr*>(&address),
                        &length) != 0 ||
            address.sin_family != AF_INET) {
            const int error = errno;
            setLocalErrorResponse(error);
            setFailure(kFtpFailureConnectionLost, error);
            return 0;
        }
        address.sin_port = announced.sin_port;
    } else {
        socklen_t length = sizeof address;
        if (getsockname(controlBuf->handle, reinterpret_cast<struct sockaddr*>(&address),
                        &length) != 0) {
            setFailure(kFtpFailureConnectionLost, errno);
            return 0;
        }
    }

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        setFailure(kFtpFailureLocalLimit, errno);
        return 0;
    }
    int on = 1;
    struct linger noLinger;
    noLinger.l_onoff = 0;
    noLinger.l_linger = 0;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &noLinger, sizeof noLinger) != 0) {
        setFailure(kFtpFailureLocalLimit, errno);
        close(fd);
        return 0;
    }

    if (!portMode) {
        const int error = ftptool::connectWithin(fd, address, kConnectLimitSeconds);
        if (error != 0) {
            close(fd);
            setLocalErrorResponse(error);
            setFailure(ftptool::connectFailure(error), error);
            return 0;
        }
    } else {
        // Listen on the address the server already reaches us at, on a port
        // the system picks, and announce it.
        address.sin_port = 0;
        if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd, 1) != 0) {
            setFailure(kFtpFailureLocalLimit, errno);
            close(fd);
            return 0;
        }
        // Closed on this failure too: nothing else would ever close it.
        socklen_t length = sizeof address;
        if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length) != 0) {
            setFailure(kFtpFailureLocalLimit, errno);
            close(fd);
            return 0;
        }
        const unsigned char* a = reinterpret_cast<const unsigned char*>(&address.sin_addr);
        unsigned port = ntohs(address.sin_port);
        char line[kCommandLineSize];
        snprintf(line, sizeof line, "PORT %d,%d,%d,%d,%d,%d", a[0], a[1], a[2], a[3],
                 static_cast<int>(port >> 8), static_cast<int>(port & 0xFF));
        if (!Sendcmd(line, '2')) {
            close(fd);
            return 0;
        }
    }

    // ASCII transfers get a line buffer and start with it empty; every other
    // field is set here.
    NetBuf* data = ftptool::newRecord(fd, direction, mode == 'A');
    if (data == nullptr) {
        setFailure(kFtpFailureLocalLimit, ENOMEM);
        close(fd);
        return 0;
    }
    data->connectionMode = controlBuf->connectionMode;
    data->idleTime = controlBuf->idleTime;
    data->control = portMode ? nullptr : controlBuf;
    data->progressArg = controlBuf->progressArg;
    data->callbackBytes = controlBuf->callbackBytes;
    bool waits = controlBuf->idleTime.seconds != 0 || controlBuf->idleTime.microseconds != 0;
    data->progressCallback = waits ? controlBuf->progressCallback : nullptr;
    data->transferred = 0;
    data->sinceCallback = 0;
    *out = data;
    return 1;
}

int FTPTool::AcceptConnection(NetBuf* data) {
    if (data == nullptr || controlBuf == nullptr) return 0;
    struct pollfd ready[2];
    ready[0].fd = data->handle;
    ready[0].events = POLLIN;
    ready[0].revents = 0;
    ready[1].fd = controlBuf->handle;
    ready[1].events = POLLIN;
    ready[1].revents = 0;
    int n = poll(ready, 2, kAcceptSeconds * 1000);
    if (n > 0 && ((ready[0].revents | ready[1].revents) & POLLNVAL)) {
        n = -1;
        errno = EBADF;
    }
    if (n < 0) {
        setLocalErrorResponse(errno);
        close(data->handle);
        data->handle = -1;
        return 0;
    }
    if (n == 0) {
        setLocalResponse("timed out waiting for connection");
        close(data->handle);
        data->handle = -1;
        return 0;
    }
    if (ready[0].revents != 0) {
        int accepted = accept4(data->handle, nullptr, nullptr, SOCK_CLOEXEC);
        int error = errno;
        close(data->handle);
        if (accepted < 0) {
            setLocalErrorResponse(error);
            // 0 rather than -1: kept as this client has always left it.
            data->handle = 0;
            return 0;
        }
        data->handle = accepted;
        data->control = controlBuf;
        return 1;
    }
    // The server answered on the control connection instead of connecting.
    close(data->handle);
    data->handle = -1;
    Readresp('2', controlBuf);
    return 0;
}

int FTPTool::read(char* buf, int length, NetBuf* data) {
    if (data == nullptr || data->direction != kNetBufDataRead) return 0;
    if (buf == nullptr || length < 0) {
        setFailure(kFtpFailureLocal, 0, "no buffer to read into");
        return -1;
    }
    int result;
    if (data->buffer != nullptr) {
        result = Readline(buf, length, data);
    } else {
        result = receiveSome(*this, data, buf, length);
        if (result < 0) noteDataFailure(errno, "no data from the server within the wait");
    }
    account(data, result);
    return result;
}

void FTPTool::noteDataFailure(int error, const char* waitText) {
    if (error == 0) {
        setFailure(kFtpFailureNoReply, 0, waitText);
    } else {
        setFailure(kFtpFailureConnectionLost, error);
    }
}

int FTPTool::write(const char* buf, int length, NetBuf* data) {
    if (data == nullptr || data->direction != kNetBufDataWrite) return 0;
    if (buf == nullptr || length < 0) {
        setFailure(kFtpFailureLocal, 0, "no bytes to write");
        return -1;
    }
    int result;
    if (data->buffer != nullptr) {
        result = Writeline(buf, length, data);
    } else {
        result = sendSome(*this, data, buf, length);
        if (result < 0) noteDataFailure(errno, "the server took no data within the wait");
    }
    account(data, result);
    return result;
}

int FTPTool::aioWrite(const char* buf, unsigned int length, NetBuf* data) {
    if (data == nullptr || data->direction != kNetBufDataWrite) return 0;
    if (buf == nullptr) return -1;
    // No readiness wait and no accounting: completion is checked separately
    // with aioReturn.
    // Through TLS the send never waits either (the open file sets its socket
    // non-blocking for this call); a record the socket took only in part is
    // finished by the next call, which must bring the same bytes again.
    const int flags = data->tls != nullptr ? MSG_NOSIGNAL | MSG_DONTWAIT : MSG_NOSIGNAL;
    const int sent = static_cast<int>(ftptool::transmit(data, buf, length, flags));
    if (sent < 0) {
        const int error = errno;
        if (error == EAGAIN || error == EWOULDBLOCK) {
            setFailure(kFtpFailureNoReply, 0,
                       "the data socket had no room: wait with aioReturn first");
        } else {
            setFailure(kFtpFailureConnectionLost, error);
        }
    }
    return sent;
}

int FTPTool::aioReturn(int milliseconds, NetBuf* data) {
    if (data == nullptr || milliseconds < 0) {
        setFailure(kFtpFailureLocal, 0, "no data connection, or a negative limit");
        return -2;
    }
    short revents = 0;
    int n =
        ftptool::waitFor(data->handle, POLLOUT | POLLPRI, ftpAioWaitTime(milliseconds), &revents);
    if (n == 0) {
        setFailure(kFtpFailureNoReply, 0, "the data socket took nothing within the limit");
        return -1;
    }
    if (n < 0) {
        setFailure(kFtpFailureConnectionLost, errno != 0 ? errno : EBADF);
        return -2;
    }
    // An error or hang-up counts as writable, as select reports it: the next
    // write then returns the error.
    if (revents & (POLLOUT | POLLERR | POLLHUP)) return 0;
    setFailure(kFtpFailureConnectionLost, 0, "urgent data on the data connection");
    return -2;
}

namespace {

// Takes off the socket, without waiting, bytes the server sent and nobody
// read (TLS 1.3 session tickets on an upload): closing a socket with unread
// bytes makes the close a reset.
void dropUnread(int fd) {
    char sink[4096];
    for (int i = 0; i < 64; ++i) {
        if (recv(fd, sink, sizeof sink, MSG_DONTWAIT) <= 0) break;
    }
}

// A TLS upload's socket, half closed (nothing more goes out) and kept open
// until the closing reply has been read; closed when this goes out of scope.
struct LingeringSocket {
    LingeringSocket() : fd(-1) {}
    ~LingeringSocket() {
        if (fd < 0) return;
        dropUnread(fd);
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
    int fd;
};

}  // namespace

int FTPTool::closeData(NetBuf* data) {
    if (data == nullptr) return 0;
    if (data->direction != kNetBufDataRead && data->direction != kNetBufDataWrite) return 0;
    free(data->buffer);
    data->buffer = nullptr;
    LingeringSocket lingering;
    if (data->tls != nullptr) {
        const bool upload = data->direction == kNetBufDataWrite;
        // An upload ends with close_notify, so the server can tell the end of
        // the file from a cut connection.
        if (upload) data->tls->closeNotify(ftptool::waitMilliseconds(data->idleTime));
        ftptool::dropTls(data);
        if (data->handle >= 0 && upload && data->control != nullptr &&
            data->control == controlBuf) {
            // A TLS 1.3 server may send its session tickets on the data
            // connection only when it reads the end of our handshake, which
            // can be after the whole upload went into the socket buffers.
            // Bytes that reach a closed socket make it answer with a reset,
            // and a reset throws away what the server has not read yet: the
            // end of the upload. So the socket is only half closed here and
            // stays open until the closing reply says the server has it all.
            shutdown(data->handle, SHUT_WR);
            lingering.fd = data->handle;
            data->handle = -1;
        } else if (data->handle >= 0) {
            dropUnread(data->handle);
        }
    }
    if (data->handle >= 0) {
        shutdown(data->handle, SHUT_RDWR);
        close(data->handle);
    }
    data->handle = -1;
    NetBuf* control = data->control;
    free(data);
    if (control == nullptr) return 1;
    // The closing reply can only be read while the control connection the
    // transfer was opened on is still this tool's.
    if (control != controlBuf) return 0;
    return Readresp('2', control);
}
