// FTPTool: one FTP client connection (control connection plus the data
// connections opened on it), IPv4 only. Data connections are passive; port
// mode (connectionMode 2 in the control record) is there but the module never
// selects it.
//
// Replies are judged by the first character of their last line only. Every
// operation reports success as non-zero and failure as 0 (Readline/Writeline
// also -1, aioReturn 0/-1/-2) and leaves the last reply line or a local error
// text in the control record's `response`; nothing throws. The pool and the
// open-file table hand tools out exclusively, so a pooled or open file's tool
// is driven by one thread at a time. The store's main tool is shared: path
// operations (under the store's operation lock) and snapshot calls (under the
// snapshot lock alone) may use it from two threads at once, so each command
// and its reply, and every read of the control connection's line buffer, run
// under `controlLock`. The control lock keeps that sharing memory-safe; it
// does not order the commands of the two callers.
#ifndef FTPDISK_FTP_FTPTOOL_H
#define FTPDISK_FTP_FTPTOOL_H

#include <netinet/in.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>

#include "foundation/ThreadAnnotations.h"
#include "ftp/NetBuf.h"
#include "ftp/TlsContext.h"
#include "host/technic/KDMutex.h"

// Why the last failed call of a tool failed, for owners that must tell a
// refusal by the server from a server that did not answer. Set by every
// command, reply read, connect, login, data connection open, data read and
// write; kFtpFailureNone after one that succeeded. Each failure is also noted
// as the calling thread's last error (foundation/LastError.h, whose kinds
// have the same values), with the reply line or the system's error text;
// quit() notes nothing.
enum FtpFailure {
    kFtpFailureNone = 0,
    // The server answered with another class than the one expected; its
    // reply line is in `response`.
    kFtpFailureReply = 1,
    // No reply within the readiness wait, a reply abandoned past its bounds,
    // or a command held back because an earlier reply is still owed.
    kFtpFailureNoReply = 2,
    // A send or receive failed, or the server closed the connection.
    kFtpFailureConnectionLost = 3,
    // The address refused the connection.
    kFtpFailureConnectRefused = 4,
    // No route to the address, no answer within the connect limit, or a
    // name or service that does not resolve.
    kFtpFailureUnreachable = 5,
    // Refused before anything was sent: an argument that cannot be sent, no
    // memory.
    kFtpFailureLocal = 6,
    // The server refused the user or the password.
    kFtpFailureLoginRefused = 7,
    // The server refused the session: a greeting other than 2xx, a close
    // before the greeting, a 421 at login.
    kFtpFailureTurnedAway = 8,
    // A limit of this process: no descriptor or no memory left.
    kFtpFailureLocalLimit = 9,
    // The TLS handshake failed or the server's certificate was not trusted
    // (or TLS is not built in); the reason is in `response`.
    kFtpFailureTls = 14
};

// Transfer kinds of dataConnect.
enum FtpOpenType { kFtpNlst = 1, kFtpList = 2, kFtpRetr = 3, kFtpStor = 4, kFtpAppe = 5 };

// The TCP port of a service name ("ftp") from the system's services database,
// in network order: 1 with *port set, or 0 when the name is unknown.
int ftpLookUpService(const char* name, uint16_t* port);

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
    // released first (without traffic). The TCP connect gives up after
    // kConnectLimitSeconds (on the host's up-time clock) like a refused one.
    // After a refused greeting the new record stays in place for the owner
    // to release.
    int connect(const char* host);
    // "USER", then "PASS" when the server answers 3xx; a 2xx answer to "USER"
    // is a login without password. Names or passwords over 57 characters are
    // refused before anything is sent.
    int login(const char* user, const char* password);
    // Sends one line (at most 253 characters before "\r\n", and no CR or LF
    // of its own: such a line is refused before anything is sent) and reads
    // its reply as Readresp does; 1 when its first character is `expected`.
    // Replies the connection still owes are read and dropped first, each
    // within the usual waits; when one of them does not come, the line is
    // not sent and the call fails ("command not sent: ..." in `response`).
    int Sendcmd(const char* command, char expected);
    // Reads the reply the connection is waiting for, multi-line replies whole,
    // and judges the first character of its last line; the line (its first
    // 255 bytes, CR LF as LF) is left in connection->response. Replies owed
    // before it are read and dropped first. A reply that does not start
    // within the readiness wait fails the call with "no reply in time" in
    // `response` and stays owed; once started, a reply is read to its end,
    // waits that time out inside it are waited out, until kReplyLimitSeconds
    // in all (on the host's up-time clock) or kReplyLineLimit lines, past
    // which it is abandoned (the call fails, `response` says so, and the rest
    // of it stays owed). A lost connection fails with its reason in
    // `response`.
    int Readresp(char expected, NetBuf* connection);
    // One line ending in LF (CR LF becomes LF) into `out`, terminated; a line
    // that does not fit comes in pieces of capacity - 1 bytes. Returns the
    // bytes stored (0 when nothing came within the readiness wait), or -1 on
    // a receive error, at the end of the stream with nothing read, or for a
    // connection that is neither control nor data read.
    int Readline(char* out, int capacity, NetBuf* connection);
    // Sends `data` with a CR inserted before every bare LF (ASCII data
    // connections). Returns `length`, -1 when a send fails, or, when the
    // socket does not become writable in time, the count of input bytes whose
    // output has gone out.
    int Writeline(const char* data, int length, NetBuf* connection);
    // 1 when the socket is ready (writable for a data write connection,
    // readable otherwise) within connection->idleTime, else 0.
    int Socketwait(NetBuf* connection);
    // kind 1: receive limit, kind 2: send limit, in whole seconds.
    void setTimeOutLen(NetBuf* connection, int kind, int seconds);
    // 1 when "QUIT" was answered 2xx (the connection is then released) or
    // there is no connection; 0 keeps the connection as it is.
    int quit();
    // Closes and frees the control record without traffic; always 1.
    int Empty();

    // --- TLS (explicit FTPS) --------------------------------------------------
    // Makes the next connect() secure with `context` (null: in clear, the
    // default): after the 2xx greeting it sends "AUTH TLS" (a refusal fails
    // the connect, the server's reply in `response`, the connection left for
    // the owner to quit), then makes the TLS handshake and the trust check
    // (a failure fails the connect with its reason in `response`, and the
    // socket is closed without a further byte). After the login, "PBSZ 0"
    // and "PROT P" (each 2xx expected, else the login fails). Every data
    // connection then makes its handshake after the transfer command's 1xx
    // reply, resuming the control connection's session; one that fails is
    // closed, the transfer fails with the reason in `response`, and the
    // server's closing reply stays owed.
    void useTls(const std::shared_ptr<TlsContext>& context);
    bool usesTls() const;
    // What the control connection's handshake learnt; false while it has no
    // TLS channel.
    bool tlsDetails(TlsPeerDetails* out);
    // Whether the last data connection made with TLS resumed the control
    // connection's session.
    bool lastDataResumedSession() const;

    // --- Data connections ---------------------------------------------------
    // Sends "TYPE <mode>", opens the data connection and sends the transfer
    // command of `type` (FtpOpenType), expecting 1xx. On success stores the
    // data record in *out; on failure *out is null or untouched and the
    // reason (server reply or local text) is in the control response.
    int dataConnect(const char* path, int type, int mode, NetBuf** out);
    // Opens the data socket: passive ("PASV" and connect) or port mode
    // (listen and "PORT"); *out is set only on success. In passive mode the
    // data connection goes to the address the control connection reached,
    // with the port the "227" reply names: the address in the reply is read
    // (a reply without one fails) but not used, so that a server behind
    // address translation still works and no server can send the recorder's
    // bytes to another host. Its connect has the same limit as connect's.
    int OpenPort(NetBuf** out, int mode, int direction);
    // Port mode: waits up to 5 s for the server to connect to the listening
    // socket, which is closed in every case; 1 with data->handle the
    // accepted socket.
    int AcceptConnection(NetBuf* data);
    // Bytes read, 0 at the end of the data (or for a connection that is not a
    // data read), -1 when nothing arrives within the readiness wait or on an
    // error. ASCII connections read one line per call.
    int read(char* buf, int length, NetBuf* data);
    // Bytes written (a partial send is returned as it is), 0 for a connection
    // that is not a data write, -1 when the socket is not writable within the
    // readiness wait or on an error.
    int write(const char* buf, int length, NetBuf* data);
    // One send without readiness wait or accounting; its result as it is.
    int aioWrite(const char* buf, unsigned int length, NetBuf* data);
    // 0 when the data socket is writable within the limit (see
    // ftpAioWaitTime), -1 on time-out, -2 on an error.
    int aioReturn(int milliseconds, NetBuf* data);
    // Closes and frees the data record (the pointer dangles afterwards), then
    // reads the final reply: its outcome for '2', or 1 when none is awaited.
    // 0 for a record that is not a data connection, or when the control
    // connection it belongs to is no longer this tool's.
    int closeData(NetBuf* data);

    // --- Single commands ----------------------------------------------------
    // Each sends its line(s) and judges the reply by its first digit; a null
    // argument is refused before anything is sent, an overlong one before the
    // line that would carry it (for moveFile's destination and deleteFile's
    // path that is after the earlier lines went out).
    int cd(const char* dir);  // "" means "/"
    int cdup();
    int mkdir(const char* dir);
    int rmdir(const char* dir);
    int site(const char* command);
    // "TYPE <mode>" then "SIZE <path>"; stores the size (low 32 bits) in
    // *size only on success.
    int size(const char* path, int* size, char mode);
    // "RNFR" (3xx expected) then "RNTO" (2xx expected).
    int moveFile(const char* from, const char* to);
    // Changes into the file's directory ("CWD /", "CWD <dir>", outcomes
    // ignored) when the path holds a "/", then "DELE <name>". The connection
    // is left in that directory. A path over 250 characters is refused after
    // the changes of directory, before "DELE".
    int deleteFile(const char* path);

    // The control record (null while not connected) and its last reply text
    // ("" while not connected). The text is read without the tool's lock: call
    // it only while no other thread uses the tool.
    NetBuf* getControlBuf() const;
    const char* getResponse() const;
    // Replies the server still owes this connection (0 while not connected),
    // counting one that may still come after a command ended on a second
    // preliminary reply. A connection that owes one is out of step until
    // they are read, and is never handed to another owner.
    int owedReplies();
    // Why the last call failed (FtpFailure), and the system's error number
    // when a socket call failed (0 otherwise).
    int getLastFailure() const;
    int getLastErrno() const;

    // Bounds on one reply (see Readresp).
    static const double kReplyLimitSeconds;  // 30
    static const int kReplyLineLimit;        // 1000
    // The longest a TCP connect (control or data) may take.
    static const double kConnectLimitSeconds;  // 10

private:
    FTPTool(const FTPTool&);
    FTPTool& operator=(const FTPTool&);

    // Sends one command line and reads its reply under controlLock; when
    // `reply` is not null the reply text is copied there (kNetBufResponseSize
    // bytes) before the lock is released, for callers that parse it.
    int exchange(const char* command, char expected, char* reply);
    // Readresp's work: reads and drops the replies owed before the last
    // one, then reads that one into `response` and judges it. Each reply
    // read is abandoned once the host's up-time passes its own deadline,
    // kReplyLimitSeconds after its reading began. REQUIRES: controlLock is
    // held when `connection` is the control record.
    int readReply(char expected, NetBuf* connection);
    // Reads the oldest owed reply (or what is left of it) to its end; its
    // last line goes into `response` when `keep` is set. Returns a ReplyRead
    // result and records the failure. REQUIRES: as readReply.
    int readOwedReply(NetBuf* connection, double deadline, bool keep);
    // Reads and drops owed replies until `left` remain; 1 when done, else 0
    // with the failure recorded. REQUIRES: as readReply.
    int dropOwedReplies(NetBuf* connection, int left);
    // More bytes from the socket into the line buffer (moved to its start
    // when drained): the count received, 0 when nothing came within the
    // readiness wait, kReceiveEnd at the end of the stream, -1 on an error
    // (errno set), kLineAbandoned once `deadline` has passed (never when it is
    // negative). REQUIRES: as readReply.
    int receiveMore(NetBuf* connection, double deadline);
    // "AUTH TLS" and the handshake on the control connection reached at
    // `host` ("server[:port]"). REQUIRES: connected, greeting read.
    int startTls(const char* host);
    // "PBSZ 0" and "PROT P" after a login on a TLS connection; 1 at once in
    // clear.
    int finishLogin();
    // The TLS handshake of data connection `data` after its 1xx reply.
    int secureData(NetBuf* data);
    // Records why a call failed (and the error number of a socket call), and
    // notes it as the thread's last error with the system's text for
    // `error`, else `text`, else the control record's last reply line.
    void setFailure(int failure, int error = 0, const char* text = nullptr);
    // After a refused USER or PASS: the login's refusal, or a 421 turning the
    // session away.
    void noteLoginRefusal(const char* reply);
    // A command refused before anything was sent (a missing or overlong
    // argument, no connection): notes why and gives 0.
    int refuseArgument();
    // After a failed image-mode data read or write: `waitText` when the
    // readiness wait ran out (`error` 0), else the system's error.
    void noteDataFailure(int error, const char* waitText);
    // Readline's work; gives up with -2 once the host's up-time passes
    // `deadline` (no deadline when it is negative). REQUIRES:
    // controlLock is held when `connection` is the control record.
    int readLine(char* out, int capacity, NetBuf* connection, double deadline);
    // A local error text into the control record's `response`, under
    // controlLock; nothing without a control record.
    void setLocalResponse(const char* text);
    void setLocalErrorResponse(int error);

    NetBuf* controlBuf;
    bool usable;
    // The TLS context of the connections to come (null: in clear), the name
    // the server's certificate must carry, and the last data connection's
    // resumption. Set and read by the thread that drives the tool.
    std::shared_ptr<TlsContext> tlsContext;
    std::string tlsName;
    bool dataResumed;
    // Written by whichever thread drives the tool (a snapshot call and a path
    // operation may share it), read by its owner afterwards.
    std::atomic<int> lastFailure;
    std::atomic<int> lastErrno;
    // Whether the last command was held back for a reply owed before it.
    // Written under controlLock, read by quit on the same thread.
    bool heldBack;
    // Whether quit() has been tried on the current control connection.
    bool quitTried;
    // Guards the control record's line buffer, its counters and `response`
    // (see the class comment).
    KDMutex controlLock;
};

#endif  // FTPDISK_FTP_FTPTOOL_H
