// FTPTool: the control connection (connect, login, command and reply,
// buffered lines, socket waits, teardown).
#include "ftp/FTPTool.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "foundation/LastError.h"
#include "ftp/FTPToolInternal.h"
#include "host/GlobalEnv.h"
#include "host/KDTime.h"

namespace ftptool {

int waitFor(int fd, short events, NetBufWaitTime limit, short* revents) {
    if (revents != nullptr) *revents = 0;
    if (fd < 0 || limit.seconds < 0 || limit.microseconds < 0) return -1;
    // Microseconds of a second or more carry into the seconds; a limit past
    // what a 32-bit time_t holds waits as long as it can.
    int64_t seconds = static_cast<int64_t>(limit.seconds) + limit.microseconds / 1000000;
    if (seconds > INT32_MAX) seconds = INT32_MAX;
    struct timespec wait;
    wait.tv_sec = static_cast<time_t>(seconds);
    wait.tv_nsec = static_cast<long>(limit.microseconds % 1000000) * 1000L;
    struct pollfd p;
    p.fd = fd;
    p.events = events;
    p.revents = 0;
    int n = ::ppoll(&p, 1, &wait, nullptr);
    if (n > 0 && (p.revents & POLLNVAL)) {
        errno = EBADF;
        return -1;
    }
    if (n > 0 && revents != nullptr) *revents = p.revents;
    return n;
}

NetBuf* newRecord(int fd, int direction, bool lineBuffer) {
    NetBuf* record = static_cast<NetBuf*>(calloc(1, sizeof(NetBuf)));
    char* buffer = nullptr;
    if (record != nullptr && lineBuffer) buffer = static_cast<char*>(malloc(kNetBufSize));
    if (record == nullptr || (lineBuffer && buffer == nullptr)) {
        free(record);
        free(buffer);
        return nullptr;
    }
    record->buffer = buffer;
    record->readPos = buffer;
    record->writePos = buffer;
    record->available = 0;
    record->spaceLeft = buffer != nullptr ? kNetBufSize : 0;
    record->handle = fd;
    record->direction = direction;
    return record;
}

void setResponse(NetBuf* connection, const char* text) {
    if (connection == nullptr) return;
    snprintf(connection->response, sizeof connection->response, "%s", text);
}

namespace {
// strerror_r comes in two shapes (XSI returns int, GNU returns the text);
// these overloads take whichever the C library provides.
__attribute__((unused)) const char* errorText(int result, const char* buffer) {
    return result == 0 ? buffer : "Unknown error";
}
__attribute__((unused)) const char* errorText(const char* result, const char*) { return result; }
}  // namespace

void setErrorResponse(NetBuf* connection, int error) {
    char buffer[kNetBufResponseSize];
    buffer[0] = '\0';
    setResponse(connection, errorText(strerror_r(error, buffer, sizeof buffer), buffer));
}

bool skipToDigits(const char*& at, bool* negative) {
    while (*at == ' ' || (*at >= '\t' && *at <= '\r')) ++at;
    *negative = false;
    if (*at == '+' || *at == '-') {
        *negative = *at == '-';
        ++at;
    }
    return *at >= '0' && *at <= '9';
}

int connectWithin(int fd, const struct sockaddr_in& address, double limitSeconds) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return errno;
    int error = 0;
    if (::connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0) {
        error = errno;
    }
    if (error == EINPROGRESS) {
        // The limit is counted on the host's up-time clock, in slices of at
        // most a quarter second, so a hand-driven clock can end the wait.
        const double deadline = KDTime::getUpTime() + limitSeconds;
        error = ETIMEDOUT;
        for (;;) {
            const double left = deadline - KDTime::getUpTime();
            if (left < 0.0) break;
            const double slice = left < 0.25 ? left : 0.25;
            NetBufWaitTime wait;
            wait.seconds = 0;
            wait.microseconds = static_cast<int32_t>(slice * 1e6);
            const int ready = waitFor(fd, POLLOUT, wait);
            // A signal ends a slice early and nothing more: the deadline
            // still bounds the connect (a blocking connect was restarted).
            if (ready < 0 && errno == EINTR) continue;
            if (ready < 0) {
                error = errno != 0 ? errno : EBADF;
                break;
            }
            if (ready > 0) {
                socklen_t length = sizeof error;
                if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
                break;
            }
        }
    }
    if (fcntl(fd, F_SETFL, flags) != 0 && error == 0) error = errno;
    return error;
}

ssize_t receive(NetBuf* connection, void* buffer, size_t length, int flags) {
    if (connection->tls == nullptr) return ::recv(connection->handle, buffer, length, flags);
    const int wait = (flags & MSG_DONTWAIT) != 0 ? 0 : waitMilliseconds(connection->idleTime);
    const int capped =
        length > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(length);
    return connection->tls->receive(static_cast<char*>(buffer), capped, wait);
}

ssize_t transmit(NetBuf* connection, const void* buffer, size_t length, int flags) {
    if (connection->tls == nullptr) return ::send(connection->handle, buffer, length, flags);
    const int wait = (flags & MSG_DONTWAIT) != 0 ? 0 : waitMilliseconds(connection->idleTime);
    const int capped =
        length > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(length);
    return connection->tls->send(static_cast<const char*>(buffer), capped, wait);
}

int waitMilliseconds(NetBufWaitTime wait) {
    int64_t milliseconds = static_cast<int64_t>(wait.seconds) * 1000 + wait.microseconds / 1000;
    if (milliseconds < 1) milliseconds = 1;
    if (milliseconds > INT32_MAX) milliseconds = INT32_MAX;
    return static_cast<int>(milliseconds);
}

bool tlsPending(NetBuf* connection) {
    return connection != nullptr && connection->tls != nullptr && connection->tls->pending();
}

void dropTls(NetBuf* connection) {
    if (connection == nullptr || connection->tls == nullptr) return;
    delete connection->tls;
    connection->tls = nullptr;
}

int connectFailure(int error) {
    return error == ECONNREFUSED ? kFtpFailureConnectRefused : kFtpFailureUnreachable;
}

bool printReports() { return GlobalEnv::getInstance()->getPrintFlag(); }

void report(const char* format, int result, int error) {
    printf(format, result, error);
    fflush(stdout);
}

}  // namespace ftptool

using ftptool::kCommandLineSize;

namespace {

// Seconds the control socket waits on a single send or receive.
const int kControlSocketLimit = 10;
// The readiness wait of the control connection before each receive.
const int32_t kControlIdleSeconds = 3;

// Source name under which the control lock is taken, for the host's lock
// diagnostics.
const char* const kLockSource = "FTPTool";

// readLine's and receiveMore's result when the reply's deadline passed;
// never a byte count.
const int kLineAbandoned = -2;
// receiveMore's result at the end of the stream.
const int kReceiveEnd = -3;

// What reading one owed reply came to.
enum ReplyRead {
    kReplyWhole = 1,       // read to its end
    kReplyNotStarted = 0,  // nothing of it within the readiness wait
    kReplyLost = -1,       // a receive error, or the server closed the connection
    kReplyAbandoned = -2   // past its 30 s or its 1000 lines
};

const char* const kReplyTooSlowText = "reply abandoned: not ended within 30 s\n";
const char* const kReplyTooLongText = "reply abandoned: not ended within 1000 lines\n";
const char* const kNoReplyText = "no reply in time\n";
const char* const kClosedText = "connection closed by the server\n";
const char* const kHeldBackText = "command not sent: an earlier reply is still owed\n";

// The oldest owed reply starts afresh: nothing of it read yet.
void resetReplyProgress(NetBufReplyState& state) {
    state.started = 0;
    state.multiLine = 0;
    state.lineHeadLength = 0;
}

// Sends the first `count` bytes of the connection's line buffer in one send
// once the socket is writable. 1 when all of them went out; 0 when the socket
// did not become writable within the readiness wait; -1 when the send failed
// or fell short, reported with `format` ("write(1) returned %d, errno = %d\n"
// and its siblings, one for each place that sends) when the host asks for it.
int sendLineBuffer(FTPTool& tool, NetBuf* connection, int count, const char* format) {
    if (!tool.Socketwait(connection)) return 0;
    ssize_t sent =
        ftptool::transmit(connection, connection->buffer, static_cast<size_t>(count), MSG_NOSIGNAL);
    if (sent != count) {
        int error = errno;
        if (ftptool::printReports()) ftptool::report(format, static_cast<int>(sent), error);
        return -1;
    }
    return 1;
}

}  // namespace

// A failure of the tool is noted as the thread's last error of the same kind.
static_assert(static_cast<int>(kFtpFailureReply) == lasterror::kRefused &&
                  static_cast<int>(kFtpFailureNoReply) == lasterror::kNoReply &&
                  static_cast<int>(kFtpFailureConnectionLost) == lasterror::kConnectionLost &&
                  static_cast<int>(kFtpFailureConnectRefused) == lasterror::kConnectRefused &&
                  static_cast<int>(kFtpFailureUnreachable) == lasterror::kUnreachable &&
                  static_cast<int>(kFtpFailureLocal) == lasterror::kBadArgument &&
                  static_cast<int>(kFtpFailureLoginRefused) == lasterror::kLoginRefused &&
                  static_cast<int>(kFtpFailureTurnedAway) == lasterror::kTurnedAway &&
                  static_cast<int>(kFtpFailureLocalLimit) == lasterror::kLocalLimit &&
                  static_cast<int>(kFtpFailureTls) == lasterror::kTls,
              "the tool's failures are the thread's last error kinds");

const double FTPTool::kReplyLimitSeconds = 30.0;
const int FTPTool::kReplyLineLimit = 1000;
const double FTPTool::kConnectLimitSeconds = 10.0;

FTPTool::FTPTool()
    : controlBuf(nullptr),
      usable(true),
      dataResumed(false),
      lastFailure(kFtpFailureNone),
      lastErrno(0),
      heldBack(false),
      quitTried(false) {}

FTPTool::~FTPTool() {
    // An owner that already tried to quit this connection has had its answer:
    // a second "QUIT" would only wait for the same silence again.
    if (!quitTried) quit();
    // quit() keeps the record when "QUIT" is not answered 2xx; nothing may
    // outlive the tool, so whatever is left is released here.
    Empty();
}

void FTPTool::setUsable(bool usable) { this->usable = usable; }

bool FTPTool::getUsable() { return usable; }

int FTPTool::flush() { return 0; }

NetBuf* FTPTool::getControlBuf() const { return controlBuf; }

const char* FTPTool::getResponse() const {
    return controlBuf != nullptr ? controlBuf->response : "";
}

int FTPTool::owedReplies() {
    if (controlBuf == nullptr) return 0;
    KDMutexLocker guard(controlLock, kLockSource, __LINE__);
    return controlBuf->replies.owed + controlBuf->replies.doubtful;
}

int FTPTool::getLastFailure() const { return lastFailure.load(); }

int FTPTool::getLastErrno() const { return lastErrno.load(); }

void FTPTool::setFailure(int failure, int error, const char* text) {
    lastFailure.store(failure);
    lastErrno.store(error);
    if (failure == kFtpFailureNone) return;
    // The thread's last error gets the same reason, for the exported call
    // that is running on this thread.
    if (error != 0) {
        lasterror::noteError(failure, error);
    } else if (text != nullptr) {
        lasterror::note(failure, text);
    } else {
        lasterror::note(failure, controlBuf != nullptr ? controlBuf->response : "not connected");
    }
}

int FTPTool::connect(const char* host) {
    // A second connect replaces the first connection; its record and socket
    // are released (without traffic) rather than lost.
    Empty();
    setFailure(kFtpFailureNone);

    struct sockaddr_in address;
    if (!ftpResolveAddress(host, &address)) {
        std::string why = "no such host or service: ";
        why += host != nullptr ? host : "(none)";
        setFailure(kFtpFailureUnreachable, 0, why.c_str());
        return 0;
    }

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        setFailure(kFtpFailureLocalLimit, errno);
        return 0;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const int error = ftptool::connectWithin(fd, address, kConnectLimitSeconds);
    if (error != 0) {
        close(fd);
        setFailure(ftptool::connectFailure(error), error);
        return 0;
    }

    NetBuf* control = ftptool::newRecord(fd, kNetBufControl, true);
    if (control == nullptr) {
        close(fd);
        setFailure(kFtpFailureLocalLimit, ENOMEM);
        return 0;
    }
    // The greeting is the first reply the server owes.
    control->replies.owed = 1;
    control->control = nullptr;
    control->connectionMode = kNetBufPassive;
    // Deliberately short: a server that takes longer than this to start a
    // reply fails the command, and the caller drops the connection.
    control->idleTime.seconds = kControlIdleSeconds;
    control->idleTime.microseconds = 0;
    controlBuf = control;
    quitTried = false;

    setTimeOutLen(controlBuf, 1, kControlSocketLimit);
    setTimeOutLen(controlBuf, 2, kControlSocketLimit);
    // On a refused greeting the record stays: the caller destroys the tool.
    if (Readresp('2', controlBuf)) return tlsContext ? startTls(host) : 1;
    // A server at its limit of sessions greets with a refusal (421), or
    // closes without a greeting: it turned the connection away.
    if (lastFailure.load() == kFtpFailureReply) {
        setFailure(kFtpFailureTurnedAway, 0, controlBuf->response);
    } else if (lastFailure.load() == kFtpFailureConnectionLost && lastErrno.load() == 0) {
        setFailure(kFtpFailureTurnedAway, 0, "closed by the server before its greeting");
    }
    return 0;
}

void FTPTool::useTls(const std::shared_ptr<TlsContext>& context) { tlsContext = context; }

bool FTPTool::usesTls() const { return static_cast<bool>(tlsContext); }

bool FTPTool::tlsDetails(TlsPeerDetails* out) {
    if (controlBuf == nullptr || controlBuf->tls == nullptr || out == nullptr) return false;
    controlBuf->tls->details(out);
    return true;
}

bool FTPTool::lastDataResumedSession() const { return dataResumed; }

int FTPTool::startTls(const char* host) {
    // A refusal is the server's answer: its reply stays in `response`, and
    // nothing secret has been sent, so the owner's "QUIT" may follow in clear.
    // Never a fall back to a login in clear.
    if (!exchange("AUTH TLS", '2', nullptr)) return 0;
    tlsName.assign(host);
    const size_t colon = tlsName.find(':');
    if (colon != std::string::npos) tlsName.erase(colon);
    std::string why;
    TlsChannel* channel =
        tlsContext->handshake(controlBuf->handle, tlsName.c_str(), nullptr,
                              ftptool::waitMilliseconds(controlBuf->idleTime), &why);
    if (channel == nullptr) {
        // Not one more byte on this connection, "QUIT" included: the socket
        // is closed and the record kept only for its `response`.
        {
            KDMutexLocker guard(controlLock, kLockSource, __LINE__);
            close(controlBuf->handle);
            controlBuf->handle = -1;
            controlBuf->replies.owed = 0;
            ftptool::setResponse(controlBuf, why.c_str());
        }
        setFailure(kFtpFailureTls, 0, why.c_str());
        return 0;
    }
    KDMutexLocker guard(controlLock, kLockSource, __LINE__);
    controlBuf->tls = channel;
    // Whatever arrived in clear after the AUTH reply was the server's, not
    // a reply to anything sent through TLS.
    controlBuf->readPos = controlBuf->buffer;
    controlBuf->writePos = controlBuf->buffer;
    controlBuf->available = 0;
    controlBuf->spaceLeft = kNetBufSize;
    return 1;
}

int FTPTool::finishLogin() {
    if (controlBuf == nullptr || controlBuf->tls == nullptr) return 1;
    // Data connections are protected too, without a buffer size of their own.
    if (!Sendcmd("PBSZ 0", '2')) return 0;
    return Sendcmd("PROT P", '2');
}

int FTPTool::login(const char* user, const char* password) {
    if (controlBuf == nullptr) {
        setFailure(kFtpFailureConnectionLost, 0, "not connected");
        return 0;
    }
    // Each line is built in a 64-byte buffer: "USER " + 57 + terminator.
    const size_t kLongest = 57;
    if (user == nullptr || password == nullptr || strlen(user) > kLongest ||
        strlen(password) > kLongest) {
        setFailure(kFtpFailureLocal, 0, "user name or password missing or too long to send");
        return 0;
    }
    char line[64];
    snprintf(line, sizeof line, "USER %s", user);
    char reply[kNetBufResponseSize];
    reply[0] = '\0';
    if (!exchange(line, '3', reply)) {
        // A server that needs no password accepts the user with 2xx.
        if (reply[0] == '2') {
            setFailure(kFtpFailureNone);
            return finishLogin();
        }
        noteLoginRefusal(reply);
        return 0;
    }
    snprintf(line, sizeof line, "PASS %s", password);
    if (exchange(line, '2', reply)) return finishLogin();
    noteLoginRefusal(reply);
    return 0;
}

void FTPTool::noteLoginRefusal(const char* reply) {
    // A refusal of the user or the password is the login's own, except a 421:
    // the server is closing the session (at its limit, or shutting down).
    if (lastFailure.load() != kFtpFailureReply) return;
    setFailure(strncmp(reply, "421", 3) == 0 ? kFtpFailureTurnedAway : kFtpFailureLoginRefused, 0,
               reply);
}

int FTPTool::Sendcmd(const char* command, char expected) {
    return exchange(command, expected, nullptr);
}

int FTPTool::exchange(const char* command, char expected, char* reply) {
    if (controlBuf == nullptr || controlBuf->direction != kNetBufControl ||
        controlBuf->handle < 0) {
        setFailure(kFtpFailureConnectionLost, 0, "not connected");
        return 0;
    }
    if (command == nullptr) {
        setFailure(kFtpFailureLocal, 0, "no command");
        return 0;
    }
    // The line with "\r\n" and its terminator must fit in 256 bytes: at most
    // 253 characters of command.
    // A line end inside an argument (a path, a user name) would end the
    // command early and make the server take the rest for a command of its
    // own, whose reply would then answer the next caller. Refused like an
    // argument that does not fit: nothing is sent, `response` is unchanged.
    if (strlen(command) + 3 >= kCommandLineSize + 1 || strpbrk(command, "\r\n") != nullptr) {
        setFailure(kFtpFailureLocal, 0,
                   "command not sent: an argument too long for one line, or holding a line end");
        return 0;
    }
    char line[kCommandLineSize];
    memset(line, 0, sizeof line);
    int length = snprintf(line, sizeof line, "%s\r\n", command);
    // The command and its reply as one step under the control lock, so that
    // a snapshot call sharing this connection never reads into the same line
    // buffer at the same time.
    KDMutexLocker guard(controlLock, kLockSource, __LINE__);
    // A reply that came late, or was left part way, belongs to an earlier
    // command: it is read and dropped before this one goes out, so that it is
    // never judged as this command's answer. If it still does not come, this
    // command is held back and the connection stays out of step. Bytes
    // already received while nothing is owed are a reply the server sent
    // unasked (a final reply after a command that ended on a second 1xx):
    // dropped the same way.
    if (controlBuf->replies.owed == 0 && controlBuf->available > 0) {
        controlBuf->replies.owed = 1;
    }
    heldBack = false;
    if (!dropOwedReplies(controlBuf, 0)) {
        heldBack = true;
        ftptool::setResponse(controlBuf, kHeldBackText);
        if (lastFailure.load() == kFtpFailureNoReply)
            setFailure(kFtpFailureNoReply, 0, kHeldBackText);
        if (reply != nullptr) memcpy(reply, controlBuf->response, kNetBufResponseSize);
        return 0;
    }
    // The reply's time is counted from the command's sending.
    const double deadline = KDTime::getUpTime() + kReplyLimitSeconds;
    // One send; a short write is not completed (the reply then fails).
    const ssize_t sent =
        ftptool::transmit(controlBuf, line, static_cast<size_t>(length), MSG_NOSIGNAL);
    if (sent < 1) {
        const int error = errno;
        ftptool::setErrorResponse(controlBuf, error);
        setFailure(kFtpFailureConnectionLost, error);
        if (reply != nullptr) memcpy(reply, controlBuf->response, kNetBufResponseSize);
        return 0;
    }
    ++controlBuf->replies.owed;
    int result = 0;
    if (readOwedReply(controlBuf, deadline, true) == kReplyWhole) {
        result = controlBuf->response[0] == expected ? 1 : 0;
        setFailure(result ? kFtpFailureNone : kFtpFailureReply, 0, controlBuf->response);
    }
    if (reply != nullptr) memcpy(reply, controlBuf->response, kNetBufResponseSize);
    return result;
}

int FTPTool::Readresp(char expected, NetBuf* connection) {
    if (controlBuf == nullptr || connection == nullptr) return 0;
    if (connection != controlBuf) return readReply(expected, connection);
    KDMutexLocker guard(controlLock, kLockSource, __LINE__);
    return readReply(expected, connection);
}

int FTPTool::readReply(char expected, NetBuf* connection) {
    // The reply asked for is the last one owed (the closing reply of a
    // transfer, the greeting); any owed before it answer earlier commands.
    // With none owed, whatever came would be another command's.
    if (connection == controlBuf && connection->replies.owed == 0) {
        setFailure(kFtpFailureLocal, 0, "no reply is awaited on this connection");
        return 0;
    }
    if (!dropOwedReplies(connection, 1)) return 0;
    if (readOwedReply(connection, KDTime::getUpTime() + kReplyLimitSeconds, true) != kReplyWhole) {
        return 0;
    }
    const int result = connection->response[0] == expected ? 1 : 0;
    setFailure(result ? kFtpFailureNone : kFtpFailureReply, 0, connection->response);
    return result;
}

int FTPTool::dropOwedReplies(NetBuf* connection, int left) {
    // A server that answers with one preliminary (1xx) reply after another
    // never pays its debt; a thousand replies are as many as one command may
    // drop before giving up.
    for (int dropped = 0; connection->replies.owed > left; ++dropped) {
        if (dropped >= kReplyLineLimit) {
            setFailure(kFtpFailureNoReply, 0, kHeldBackText);
            return 0;
        }
        const double deadline = KDTime::getUpTime() + kReplyLimitSeconds;
        if (readOwedReply(connection, deadline, false) != kReplyWhole) return 0;
    }
    return 1;
}

int FTPTool::readOwedReply(NetBuf* connection, double deadline, bool keep) {
    // However the server sends it (a byte at a time, or continuation lines
    // without end), one reply may hold its caller until `deadline` and no
    // longer. The reply's progress lives in the record, so that a reply left
    // part way (abandoned, or not started in time) is read on from where it
    // stood by whoever reads next.
    if (connection->buffer == nullptr ||
        (connection->direction != kNetBufControl && connection->direction != kNetBufDataRead)) {
        // Replies come only on a connection with a line buffer that reads.
        setFailure(kFtpFailureLocal, 0, "not a connection that carries replies");
        return kReplyLost;
    }
    NetBufReplyState& state = connection->replies;
    char* const text = connection->response;
    // Bytes of the current line stored in `response` (its first 255) and
    // bytes of it seen in this call.
    int kept = 0;
    int lineLength = 0;
    bool lastWasCarriageReturn = false;
    if (keep && state.lineHeadLength > 0) {
        // A line begun before: its first bytes stand for it.
        kept = state.lineHeadLength;
        memcpy(text, state.lineHead, static_cast<size_t>(kept));
        lineLength = kept;
    }
    int lines = 0;
    char code = '\0';
    for (;;) {
        if (connection->available <= 0) {
            if (deadline >= 0.0 && KDTime::getUpTime() > deadline) {
                ftptool::setResponse(connection, kReplyTooSlowText);
                setFailure(kFtpFailureNoReply, 0, kReplyTooSlowText);
                return kReplyAbandoned;
            }
            const int got = receiveMore(connection, deadline);
            if (got > 0) continue;
            if (got == 0) {
                // Waits that time out inside a reply are waited out, up to
                // its deadline; before its first byte they end the call.
                if (state.started) continue;
                ftptool::setResponse(connection, kNoReplyText);
                setFailure(kFtpFailureNoReply, 0, kNoReplyText);
                return kReplyNotStarted;
            }
            if (got == kLineAbandoned) {
                ftptool::setResponse(connection, kReplyTooSlowText);
                setFailure(kFtpFailureNoReply, 0, kReplyTooSlowText);
                return kReplyAbandoned;
            }
            if (got == kReceiveEnd && state.lineHeadLength > 0 && !state.multiLine) {
                // The stream ended inside a one-line reply: the line read so
                // far is judged, as if it had ended in a line end.
                if (keep) text[kept] = '\0';
                code = state.lineHead[0];
                break;
            }
            const int error = got == kReceiveEnd ? 0 : errno;
            if (error != 0) {
                ftptool::setErrorResponse(connection, error);
            } else {
                ftptool::setResponse(connection, kClosedText);
            }
            setFailure(kFtpFailureConnectionLost, error, kClosedText);
            return kReplyLost;
        }
        state.started = 1;
        // Up to and including the next line end, or all that is there.
        char* const start = connection->readPos;
        char* const lineEnd = static_cast<char*>(memchr(start, '\n', connection->available));
        const int take = lineEnd != nullptr ? static_cast<int>(lineEnd - start)
                                            : static_cast<int>(connection->available);
        connection->readPos += take + (lineEnd != nullptr ? 1 : 0);
        connection->available -= take + (lineEnd != nullptr ? 1 : 0);
        for (int i = 0; i < take && state.lineHeadLength < 4; ++i) {
            state.lineHead[state.lineHeadLength++] = start[i];
        }
        if (keep) {
            const int room = (kNetBufResponseSize - 1) - kept;
            const int copy = take < room ? take : room;
            if (copy > 0) memcpy(text + kept, start, static_cast<size_t>(copy));
            kept += copy;
        }
        if (take > 0) lastWasCarriageReturn = start[take - 1] == '\r';
        lineLength += take;
        if (lineEnd == nullptr) continue;

        // A whole line. In `response` it ends in a single LF (a CR before it
        // is dropped) and is cut after 255 bytes: "220 ready\r\n" is
        // "220 ready\n". Bytes of a longer line beyond those are read and
        // dropped, never left to answer the next command.
        if (keep) {
            int length = lineLength;
            if (lastWasCarriageReturn) {
                --length;
                if (kept > length) kept = length;
            }
            if (length < kNetBufResponseSize - 1) {
                text[length] = '\n';
                text[length + 1] = '\0';
            } else {
                text[kNetBufResponseSize - 1] = '\0';
            }
        }
        ++lines;
        // The first character of the line decides the reply's class when the
        // line is its last; an empty line has none.
        code = state.lineHeadLength > 0 ? state.lineHead[0] : '\0';
        bool ends;
        if (!state.multiLine) {
            // "220-Welcome" opens a multi-line reply that "220 " closes.
            ends = !(state.lineHeadLength == 4 && state.lineHead[3] == '-');
            if (!ends) {
                memcpy(state.closing, state.lineHead, 3);
                state.closing[3] = ' ';
                state.multiLine = 1;
            }
        } else {
            ends = state.lineHeadLength == 4 && memcmp(state.lineHead, state.closing, 4) == 0;
        }
        state.lineHeadLength = 0;
        if (ends) break;
        if (lines >= kReplyLineLimit) {
            ftptool::setResponse(connection, kReplyTooLongText);
            setFailure(kFtpFailureNoReply, 0, kReplyTooLongText);
            return kReplyAbandoned;
        }
        kept = 0;
        lineLength = 0;
        lastWasCarriageReturn = false;
    }
    // A command gets at most one preliminary (1xx) reply before its last
    // one, so the first 1xx keeps its command owed for the reply that
    // follows. A second 1xx is taken as the last (one server ends a transfer
    // the client cut short with a 150 line).
    if (code == '1' && !state.preliminary) {
        state.preliminary = 1;
    } else {
        // After a second 1xx a final reply may still follow: the connection
        // is not trusted to another owner until a later command's reply has
        // shown it in step.
        state.doubtful = code == '1' ? 1 : 0;
        state.preliminary = 0;
        if (state.owed > 0) --state.owed;
    }
    resetReplyProgress(state);
    return kReplyWhole;
}

int FTPTool::Readline(char* out, int capacity, NetBuf* connection) {
    if (connection == nullptr || out == nullptr || controlBuf == nullptr) return 0;
    if (connection != controlBuf) return readLine(out, capacity, connection, -1.0);
    KDMutexLocker guard(controlLock, kLockSource, __LINE__);
    return readLine(out, capacity, connection, -1.0);
}

int FTPTool::readLine(char* out, int capacity, NetBuf* connection, double deadline) {
    if (connection == nullptr || out == nullptr || controlBuf == nullptr) return 0;
    if (connection->direction != kNetBufControl && connection->direction != kNetBufDataRead) {
        return -1;
    }
    if (connection->buffer == nullptr) return -1;
    if (capacity < 1) return 0;

    int stored = 0;
    char* at = out;
    bool endOfStream = false;
    for (;;) {
        if (connection->available > 0) {
            int take = connection->available < capacity - 1 ? connection->available : capacity - 1;
            char* lineEnd = static_cast<char*>(memchr(connection->readPos, '\n', take));
            if (lineEnd != nullptr) take = static_cast<int>(lineEnd - connection->readPos) + 1;
            memcpy(at, connection->readPos, take);
            at += take;
            *at = '\0';
            stored += take;
            capacity -= take;
            connection->readPos += take;
            connection->available -= take;
            if (lineEnd != nullptr) {
                // "220 ready\r\n" is returned as "220 ready\n".
                if (stored >= 2 && at[-2] == '\r') {
                    at[-2] = '\n';
                    at[-1] = '\0';
                    --stored;
                }
                return stored;
            }
        }
        if (capacity <= 1) {
            *at = '\0';
            return stored;
        }
        if (endOfStream) return stored > 0 ? stored : -1;
        const int got = receiveMore(connection, deadline);
        if (got == kReceiveEnd) {
            endOfStream = true;
        } else if (got == 0) {
            return stored;
        } else if (got < 0) {
            return got == kLineAbandoned ? kLineAbandoned : -1;
        }
    }
}

int FTPTool::receiveMore(NetBuf* connection, double deadline) {
    if (connection->writePos == connection->readPos) {
        connection->readPos = connection->buffer;
        connection->writePos = connection->buffer;
        connection->available = 0;
        connection->spaceLeft = kNetBufSize;
    }
    // A line longer than the buffer: what is there is all there can be.
    if (connection->spaceLeft <= 0) return 0;
    // Each wait below restarts the readiness limit; the deadline is what
    // keeps a server that sends a byte now and then from holding the caller
    // for ever.
    if (deadline >= 0.0 && KDTime::getUpTime() > deadline) return kLineAbandoned;
    if (!Socketwait(connection)) return 0;
    const ssize_t got = ftptool::receive(connection, connection->writePos,
                                         static_cast<size_t>(connection->spaceLeft), 0);
    // Through TLS a ready socket may hold only part of a record: nothing
    // came within the wait, as when the socket was not ready.
    if (got < 0 && connection->tls != nullptr && errno == EAGAIN) return 0;
    if (got < 0) return -1;
    if (got == 0) return kReceiveEnd;
    connection->writePos += got;
    connection->available += static_cast<int32_t>(got);
    connection->spaceLeft -= static_cast<int32_t>(got);
    return static_cast<int>(got);
}

void FTPTool::setLocalResponse(const char* text) {
    if (controlBuf == nullptr) return;
    KDMutexLocker guard(controlLock, kLockSource, __LINE__);
    ftptool::setResponse(controlBuf, text);
}

void FTPTool::setLocalErrorResponse(int error) {
    if (controlBuf == nullptr) return;
    KDMutexLocker guard(controlLock, kLockSource, __LINE__);
    ftptool::setErrorResponse(controlBuf, error);
}

int FTPTool::Writeline(const char* data, int length, NetBuf* connection) {
    if (connection == nullptr || connection->direction != kNetBufDataWrite) return -1;
    if (length < 1) return length;
    if (data == nullptr || connection->buffer == nullptr) return -1;

    // "a\nb" goes out as "a\r\nb"; an LF that already follows a CR is left
    // alone. When the socket is not writable in time the count returned is
    // that of the input bytes whose output has gone out, so a caller that
    // retries from there loses nothing.
    char* buffer = connection->buffer;
    int buffered = 0;
    int sentUpTo = 0;
    char previous = '\0';
    for (int consumed = 0; consumed < length; ++consumed) {
        char c = data[consumed];
        if (c == '\n' && previous != '\r') {
            if (buffered == kNetBufSize) {
                int flushed = sendLineBuffer(*this, connection, buffered,
                                             "write(1) returned %d, errno = %d\n");
                if (flushed != 1) return flushed == 0 ? sentUpTo : -1;
                buffered = 0;
                sentUpTo = consumed;
            }
            buffer[buffered++] = '\r';
        }
        if (buffered == kNetBufSize) {
            int flushed =
                sendLineBuffer(*this, connection, buffered, "write(2) returned %d, errno = %d\n");
            if (flushed != 1) return flushed == 0 ? sentUpTo : -1;
            buffered = 0;
            sentUpTo = consumed;
        }
        buffer[buffered++] = c;
        previous = c;
    }
    int flushed = sendLineBuffer(*this, connection, buffered, "write(3) returned %d, errno = %d\n");
    if (flushed != 1) return flushed == 0 ? sentUpTo : -1;
    return length;
}

int FTPTool::Socketwait(NetBuf* connection) {
    if (connection == nullptr) return 0;
    short events = connection->direction == kNetBufDataWrite ? POLLOUT : POLLIN;
    if (events == POLLIN && ftptool::tlsPending(connection)) return 1;
    return ftptool::waitFor(connection->handle, events, connection->idleTime) > 0 ? 1 : 0;
}

void FTPTool::setTimeOutLen(NetBuf* connection, int kind, int seconds) {
    if (connection == nullptr) return;
    int option;
    if (kind == 1) {
        option = SO_RCVTIMEO;
    } else if (kind == 2) {
        option = SO_SNDTIMEO;
    } else {
        return;
    }
    struct timeval limit;
    limit.tv_sec = seconds;
    limit.tv_usec = 0;
    setsockopt(connection->handle, SOL_SOCKET, option, &limit, sizeof limit);
}

int FTPTool::quit() {
    if (controlBuf == nullptr) return 1;
    // Quitting is clean-up after whatever the owner met: it never becomes the
    // thread's last error.
    lasterror::Quiet quiet;
    quitTried = true;
    // A refused "QUIT" keeps the connection as it is; only Empty() (or the
    // destructor) releases it then. One held back because a reply owed
    // before it never came is released at once: that connection is out of
    // step for good.
    if (!Sendcmd("QUIT", '2')) {
        if (heldBack) Empty();
        return 0;
    }
    Empty();
    return 1;
}

int FTPTool::Empty() {
    if (controlBuf != nullptr) {
        // Not under a reader's feet: a thread still reading a reply on this
        // record finishes first.
        KDMutexLocker guard(controlLock, kLockSource, __LINE__);
        ftptool::dropTls(controlBuf);
        if (controlBuf->handle != -1) {
            close(controlBuf->handle);
            controlBuf->handle = -1;
        }
        free(controlBuf->buffer);
        controlBuf->buffer = nullptr;
        free(controlBuf);
        controlBuf = nullptr;
    }
    return 1;
}
