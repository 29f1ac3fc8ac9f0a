// TLS for explicit FTPS: how a store trusts its server, the context its
// connections share, and the channel one connection speaks through.
//
// A TlsContext is made once per trust setting of a store and shared (by
// std::shared_ptr) by every connection of that store; it never changes after
// it is made, so any thread may use it. A TlsChannel belongs to one
// connection record and is used by the thread that drives that connection.
// With the build option FTPDISK_TLS off, make() always fails with a text that
// says TLS is not built in, and nothing else here is reachable.
#ifndef FTPDISK_FTP_TLSCONTEXT_H
#define FTPDISK_FTP_TLSCONTEXT_H

#include <memory>
#include <string>
#include <vector>

// How the server's certificate is trusted.
struct TlsTrust {
    enum Mode {
        // The system's trust store plus `caFiles`, and the server's name or
        // address from the location.
        kSystemStore = 0,
        // Exactly the certificate whose SHA-256 fingerprint (of its DER form)
        // is `pinnedSha256`; its chain and names are not looked at.
        kPinned = 1,
        // Any certificate: encryption without knowing who is at the other end.
        kUnverified = 2
    };
    TlsTrust() : mode(kSystemStore) {}
    Mode mode;
    std::vector<std::string> caFiles;  // PEM files, added to the system's store
    std::string pinnedSha256;          // 32 bytes
};

// What a connection learnt of its server in the handshake, for the command
// line tool's check and for logs.
struct TlsPeerDetails {
    std::string protocol;  // "TLSv1.3"
    std::string cipher;    // "TLS_AES_256_GCM_SHA384"
    std::string subject;   // "CN=nas.example"
    std::string issuer;
    std::string notBefore;  // "Nov 25 10:00:00 2026 GMT"
    std::string notAfter;
    std::string fingerprint;   // SHA-256 of the certificate, "AB:CD:..."
    std::string verification;  // which check passed
};

// "AB:CD:..." or "abcd..." (64 hex digits, colons between pairs allowed, any
// case) into 32 bytes. False, `raw` untouched, for any other text.
bool tlsParseFingerprint(const std::string& text, std::string* raw);

// 32 bytes as "AB:CD:...".
std::string tlsFormatFingerprint(const std::string& raw);

class TlsChannel;

class TlsContext {
public:
    virtual ~TlsContext() {}

    // Whether this build speaks TLS at all.
    static bool builtIn();

    // A context for `trust` (TLS 1.2 or newer). Null, with the reason in
    // *why, when TLS is not built in or a CA file cannot be read.
    static std::shared_ptr<TlsContext> make(const TlsTrust& trust, std::string* why);

    // The client handshake on the connected socket `fd` with the server named
    // `serverName` (a host name or dotted address, without port), then the
    // trust check. A data connection passes its control connection's channel
    // as `resumeFrom`, whose session it resumes. Each wait for the socket
    // lasts at most `waitMilliseconds`; the whole handshake at most 30 s of
    // the host's up-time clock. Returns the channel (the caller's to delete,
    // before closing `fd`), or null with the reason in *why; on a failed
    // trust check nothing has been sent after the handshake.
    virtual TlsChannel* handshake(int fd, const char* serverName, TlsChannel* resumeFrom,
                                  int waitMilliseconds, std::string* why) = 0;

protected:
    TlsContext() {}

private:
    TlsContext(const TlsContext&);
    TlsContext& operator=(const TlsContext&);
};

// One TLS connection over a socket it does not own. The socket's blocking
// mode is left as it is: the channel never blocks in a system call, it waits
// for the socket with poll, at most the time it is given.
class TlsChannel {
public:
    virtual ~TlsChannel() {}

    // Up to `length` bytes into `buffer`: the count, 0 at the end of the
    // stream (the server's close_notify, or its close without one), or -1
    // with errno set: EAGAIN when nothing came within `waitMilliseconds` (0:
    // do not wait), another value when the connection failed.
    virtual int receive(char* buffer, int length, int waitMilliseconds) = 0;
    // Up to `length` bytes from `buffer`: the count taken (at least 1), or -1
    // with errno set (EAGAIN when the socket took nothing in time).
    virtual int send(const char* buffer, int length, int waitMilliseconds) = 0;
    // Whether bytes are already decrypted or received and waiting inside the
    // channel: a read then needs no wait on the socket.
    virtual bool pending() = 0;
    // Tells the server the stream ends here (close_notify), without waiting
    // for its answer; waits for room in the socket, at most
    // `waitMilliseconds` in all, when it is full; nothing after a failed
    // connection.
    virtual void closeNotify(int waitMilliseconds) = 0;
    // Whether the handshake resumed an earlier session.
    virtual bool resumed() = 0;
    virtual void details(TlsPeerDetails* out) = 0;

protected:
    TlsChannel() {}

private:
    TlsChannel(const TlsChannel&);
    TlsChannel& operator=(const TlsChannel&);
};

#endif  // FTPDISK_FTP_TLSCONTEXT_H
