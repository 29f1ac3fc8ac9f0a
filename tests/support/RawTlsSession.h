// RawTlsSession: a bare explicit-TLS FTP client written on OpenSSL directly,
// independent of the module's own client, for probing real servers: the
// greeting and "AUTH TLS" in clear, the handshake (trusting one CA file and
// checking the name 127.0.0.1), then lines over TLS; and listings whose data
// connection offers the control connection's TLS session or a fresh one, so
// that a test can see whether a server insists on session reuse. Loopback
// only (127.0.0.1); every read waits at most 10 s. One thread uses an object.
// Making one ignores SIGPIPE in the process (OpenSSL's writes could raise it).
// Built only with TLS (FTPDISK_TLS).
#ifndef FTPDISK_TESTS_SUPPORT_RAWTLSSESSION_H
#define FTPDISK_TESTS_SUPPORT_RAWTLSSESSION_H

#include <string>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

class RawTlsSession {
public:
    explicit RawTlsSession(const std::string& caFile);
    ~RawTlsSession();

    RawTlsSession(const RawTlsSession&) = delete;
    RawTlsSession& operator=(const RawTlsSession&) = delete;

    // Connects to 127.0.0.1:port, reads the greeting, sends "AUTH TLS" and
    // does the handshake. "" on success, else the step that failed.
    std::string secure(int port);
    // The replies met by secure(): the greeting's last line and the reply to
    // AUTH TLS.
    const std::string& greeting() const { return greeting_; }
    const std::string& authReply() const { return authReply_; }
    // The control connection's protocol and cipher ("TLSv1.3",
    // "TLS_AES_256_GCM_SHA384"); empty before the handshake.
    std::string protocol() const;
    std::string cipher() const;

    // After secure(): USER, PASS, "PBSZ 0", "PROT P". "" on success, else the
    // step that failed. loginReplies() holds the replies, one per line sent.
    std::string logIn(const std::string& user, const std::string& password);
    const std::vector<std::string>& loginReplies() const { return loginReplies_; }

    // The last line of the next reply on the TLS control connection ("" when
    // the connection ended).
    std::string reply();
    // Sends `line` (a line end is added) over TLS and returns reply().
    std::string command(const std::string& line);

    struct Listing {
        std::string preliminary;  // reply to LIST
        bool handshake = false;   // the data connection's handshake passed
        bool resumed = false;     // ... resuming the control connection's session
        std::string data;         // what came on it
        std::string final;        // the reply after the data ("" when none)
    };
    // PASV, a data connection to the announced port, LIST `path`, then the
    // data connection's handshake, offering the control connection's session
    // or not, and the listing.
    Listing list(const std::string& path, bool offerSession);

private:
    std::string plainReply();

    SSL_CTX* context_ = nullptr;
    SSL* control_ = nullptr;
    int fd_ = -1;
    std::string greeting_;
    std::string authReply_;
    std::vector<std::string> loginReplies_;
};

#endif  // FTPDISK_TESTS_SUPPORT_RAWTLSSESSION_H
