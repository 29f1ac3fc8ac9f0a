// ScriptedFtpServer: an in-process FTP server on 127.0.0.1 for protocol tests.
//
// It listens on an ephemeral port, serves every control connection on its own
// thread, records every command line it receives (with the number of the
// connection it came on, counting from 1 in accept order) and answers either
// from a script or with defaults that satisfy a plain client:
//
//   greeting "220 ready", USER -> 331, PASS -> 230, TYPE -> 200,
//   PASV -> "227 Entering Passive Mode (127,0,0,1,p1,p2)" with a real listening
//   data socket, PORT -> 200 (the server connects back, to 127.0.0.1 only),
//   CWD/CDUP/MKD/RMD/DELE/RNTO/SITE/NOOP -> 2xx, QUIT -> 221 and close,
//   RNFR -> 350, SIZE -> "213 <n>" for a stored file or 550,
//   RETR/STOR/APPE/LIST/NLST -> "150", the data, then "226".
//
// With enableTls() the server also speaks explicit TLS: "AUTH TLS" -> 234,
// then a TLS handshake on the control connection, whose later commands and
// replies go through TLS; PBSZ -> 200, PROT P/C -> 200. After "PROT P" every
// data connection of that control connection is TLS too: the server sends
// the preliminary reply, accepts the data connection, then does the server
// side of the handshake, and records whether it resumed an earlier session.
// Commands are recorded as the decrypted lines. Without enableTls() AUTH,
// PBSZ and PROT get the default "502" of every unknown command.
//
// Files live in an in-memory map keyed by absolute path (relative names are
// resolved against the connection's working directory, which CWD/CDUP move),
// so STOR then RETR round-trips. LIST and NLST send a configurable body.
//
// All public members are thread-safe. The destructor stops every thread
// promptly (each wait inside the server polls a stop flag) and closes every
// descriptor the server opened. Every wait offered to tests takes a limit.
#ifndef FTPDISK_TESTS_SUPPORT_SCRIPTEDFTPSERVER_H
#define FTPDISK_TESTS_SUPPORT_SCRIPTEDFTPSERVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// OpenSSL's context type, kept out of this header.
struct ssl_ctx_st;

namespace ftptest {

using Millis = std::chrono::milliseconds;

// What the server does in answer to one command (or as its greeting).
struct Reply {
    Reply() = default;
    // Lets tests write server.queueReply("USER", "530 denied").
    Reply(const char* replyText) : text(replyText) {}
    Reply(std::string replyText) : text(std::move(replyText)) {}

    // Reply lines separated by '\n'; each line goes out followed by CR LF,
    // unless `raw` is set, in which case the bytes go out exactly as given.
    // In a PASV reply "{pasv}" is replaced by "127,0,0,1,p1,p2" of a data
    // socket the server opens for it, and "{pasvport}" by its "p1,p2" alone
    // (for a reply that announces another address); a scripted PASV text
    // without either opens no data socket. Empty text means the default reply for
    // the command (with `closeControl`: nothing is sent before closing).
    std::string text;
    bool raw = false;
    // Wait this long before answering.
    Millis delay{0};
    // Never answer this command (the connection stays open and keeps reading).
    bool silent = false;
    // Send the text (if any), then close the control connection.
    bool closeControl = false;
    // Send the control text in pieces of this many bytes with `pieceDelay`
    // between them (0 = all at once).
    size_t controlPieceBytes = 0;
    Millis controlPieceDelay{0};

    // --- Transfer commands (RETR, STOR, APPE, LIST, NLST) -------------------
    // A transfer happens only when the (preliminary) text starts with '1'.
    // Final reply after the data part; empty means "226 Transfer complete".
    std::string finalText;
    // Wait this long before the final reply.
    Millis finalDelay{0};
    // Never send a final reply.
    bool noFinal = false;
    // Send the preliminary reply but never open or accept a data connection;
    // the final reply follows at once (after finalDelay).
    bool noDataConnection = false;
    // Body sent on a read transfer instead of the stored file / listing.
    std::optional<std::string> body;
    // Close the data connection after this many bytes were sent or received
    // (negative = no limit).
    long closeDataAfter = -1;
    // End the data connection with a reset instead of an orderly close.
    bool resetData = false;
    // Send the data body in pieces of this many bytes with `pieceDelay`
    // between them (0 = all at once).
    size_t pieceBytes = 0;
    Millis pieceDelay{0};
    // After the data connection is established, neither read nor write it for
    // this long, or until releaseDataStalls() (fills the client's send buffer
    // on uploads).
    Millis dataStall{0};
    // On a read transfer: after the body, keep the data connection open until
    // the client closes it, and only then send the final reply.
    bool finalAfterClientClose = false;
    // On a protected data connection: reset it instead of making the
    // handshake; the final reply is `finalText`, or "522 ..." when empty.
    bool failDataTls = false;
    // Over TLS: before the handshake that follows this reply (a positive
    // AUTH reply's on the control connection, a transfer's on its data
    // connection), do nothing for this long, or until releaseDataStalls().
    Millis tlsStall{0};
};

// A reply that opens the data connection and sends `body` as a listing.
inline Reply listingReply(const std::string& body) {
    Reply reply("150 Here comes the listing");
    reply.body = body;
    return reply;
}

// What enableTls() sets up.
struct ServerTlsOptions {
    // PEM files of the server's certificate (chain) and private key.
    std::string certFile;
    std::string keyFile;
    // Refuse a protected data connection whose handshake resumed no earlier
    // session of this server: it is closed and the transfer command gets
    // "522 ..." as its final reply.
    bool requireSessionReuse = false;
    // Offer TLS 1.2 at most (sessions are then resumed by their id rather
    // than by a ticket).
    bool tls12Only = false;
};

// One data connection the server established.
struct DataConnectionRecord {
    int connection = 0;    // the control connection it belongs to
    std::string command;   // the transfer command: "STOR /rec/a.ts"
    bool tls = false;      // protected ("PROT P"), and its handshake completed
    bool resumed = false;  // its handshake resumed an earlier session
    // Ended by the server before any data: its handshake failed, or it did
    // not resume while requireSessionReuse is set.
    bool refused = false;
    // An upload over TLS that the client ended with close_notify (rather
    // than by closing the socket alone).
    bool closeNotify = false;
};

// One received command line, without its line end.
struct ReceivedCommand {
    int connection;  // 1 for the first accepted control connection, ...
    std::string line;
};

class ScriptedFtpServer {
public:
    // Starts listening on 127.0.0.1 with an ephemeral port; aborts the test
    // process (via a failed gtest assertion in the constructor) if it cannot.
    ScriptedFtpServer();
    ~ScriptedFtpServer();

    ScriptedFtpServer(const ScriptedFtpServer&) = delete;
    ScriptedFtpServer& operator=(const ScriptedFtpServer&) = delete;

    uint16_t port() const { return port_; }
    // "127.0.0.1:<port>", ready for FTPTool::connect.
    std::string address() const;

    // --- Scripting ------------------------------------------------------------
    // The greeting of every later connection.
    void setGreeting(Reply greeting);
    // Queues a one-shot reply for `key`: either an exact command line
    // ("CWD /d/e") or a verb ("CWD"). An exact-line entry wins over a verb
    // entry (exact-line entries are looked at first, queued then set, then
    // verb entries, queued then set). Queued replies are used in order, one per
    // matching command, on any connection.
    void queueReply(const std::string& key, Reply reply);
    // Sets the reply for `key` for every later matching command until cleared.
    void setReply(const std::string& key, Reply reply);
    void clearReply(const std::string& key);
    // Body of LIST and NLST transfers.
    void setListing(std::string body);
    // Ends every current and later `dataStall` at once.
    void releaseDataStalls();

    // --- Stored files -----------------------------------------------------------
    void putFile(const std::string& path, std::string bytes);
    // The file's bytes, or nothing when there is no such file.
    std::optional<std::string> file(const std::string& path) const;
    std::map<std::string, std::string> files() const;

    // --- What happened ----------------------------------------------------------
    // Every command line received so far, in arrival order (all connections).
    std::vector<std::string> commands() const;
    std::vector<ReceivedCommand> received() const;
    // Lines received on one connection.
    std::vector<std::string> commandsOn(int connection) const;
    // Waits until at least `count` command lines have arrived; false when the
    // limit passed first.
    bool waitForCommands(size_t count, Millis limit = Millis(5000)) const;
    // Control connections accepted so far, and those finished (the server has
    // closed its socket and every data socket of that connection).
    int connectionCount() const;
    int closedConnectionCount() const;
    bool waitForClosedConnections(int count, Millis limit = Millis(5000)) const;
    // Data connections established (accepted in passive mode or connected in
    // port mode) so far.
    int dataConnectionCount() const;
    // Bytes of every upload (STOR/APPE) in order, as the data connection
    // delivered them.
    std::vector<std::string> uploads() const;
    // Bytes received so far by the upload of `path` that is running now (0
    // when none is).
    size_t uploadingBytes(const std::string& path) const;

    // --- Dying ------------------------------------------------------------------
    // Dies as a killed server process would: at once, every connection (control
    // and data) is reset, without close_notify over TLS, and the listening
    // socket closed, so new connections are refused. What uploads had
    // received is kept, as files and uploads. Only the queries above work
    // afterwards.
    void kill();

    // --- TLS --------------------------------------------------------------------
    // Makes the server answer "AUTH TLS" with 234 and speak TLS afterwards,
    // for connections that send AUTH from now on. False (with *why set when
    // given) when the certificate or key cannot be used, or when the tests
    // were built without TLS.
    bool enableTls(const ServerTlsOptions& options, std::string* why = nullptr);
    // Control connections whose TLS handshake completed, and those whose
    // handshake failed (the server then closed the connection).
    int tlsHandshakeCount() const;
    int failedTlsHandshakeCount() const;
    // Every data connection established, in order (plain ones too).
    std::vector<DataConnectionRecord> dataConnectionRecords() const;

private:
    struct Session;
    struct Script {
        std::deque<Reply> queued;
        std::optional<Reply> sticky;
    };

    // Ends every thread and closes every socket: in order, or as killed.
    void stop(bool killed);
    void acceptLoop();
    void serve(int connection, int fd);
    // The reply for `line` (verb `verb`), removing a queued one. Returns
    // nothing when the default should be used.
    std::optional<Reply> takeReply(const std::string& line, const std::string& verb);
    // Waits for `delay`, returning early (false) when the server stops.
    bool pause(Millis delay) const;
    // Waits for `stall`, returning early when the server stops or the
    // stalls are released.
    void stall(Millis stall) const;
    std::string resolve(const std::string& cwd, const std::string& path) const;

    void handleCommand(Session& s, const std::string& line);
    bool sendControl(Session& s, const Reply& reply, const std::string& text);
    void transfer(Session& s, const std::string& verb, const std::string& arg, const Reply& reply);
    int openDataConnection(Session& s, const Reply& reply);
    void closeSessionData(Session& s);
    // The handshake after a positive answer to AUTH; false (the connection
    // is then closed) when it fails.
    bool startTls(Session& s);
    void noteDataConnection(const DataConnectionRecord& record);

    uint16_t port_ = 0;
    int listenFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> killed_{false};
    std::thread acceptThread_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    // Guarded by mutex_.
    std::vector<std::thread> sessionThreads_;
    Reply greeting_{"220 ready"};
    std::map<std::string, Script> scripts_;
    std::string listing_;
    std::map<std::string, std::string> files_;
    std::vector<ReceivedCommand> received_;
    std::vector<std::string> uploads_;
    int connections_ = 0;
    int closedConnections_ = 0;
    int dataConnections_ = 0;
    bool stallsReleased_ = false;
    // Every context made by enableTls (the last one serves), freed by the
    // destructor once no session uses them.
    std::vector<ssl_ctx_st*> tlsContexts_;
    bool requireSessionReuse_ = false;
    int tlsHandshakes_ = 0;
    int failedTlsHandshakes_ = 0;
    std::vector<DataConnectionRecord> dataRecords_;
    std::map<std::string, size_t> uploading_;
};

}  // namespace ftptest

#endif  // FTPDISK_TESTS_SUPPORT_SCRIPTEDFTPSERVER_H
