// TLS on OpenSSL 3. The library never touches the socket itself: a BIO of
// our own sends with MSG_NOSIGNAL (a server that resets the connection must
// not raise SIGPIPE in the recorder) and never blocks, and the channel waits
// for the socket with poll, so every wait has the limit its caller gives.
#include <arpa/inet.h>
#include <errno.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <functional>

#include "ftp/TlsContext.h"
#include "host/KDTime.h"

namespace {

// The longest a whole handshake may take, on the host's up-time clock.
const double kHandshakeLimitSeconds = 30.0;

// The socket under one channel, and whether its last receive met the end.
struct SocketLink {
    int fd;
    bool ended;
};

SocketLink* linkOf(BIO* bio) { return static_cast<SocketLink*>(BIO_get_data(bio)); }

bool notReady(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

int linkWrite(BIO* bio, const char* in, int length) {
    BIO_clear_retry_flags(bio);
    const ssize_t sent =
        ::send(linkOf(bio)->fd, in, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
        if (notReady(errno)) BIO_set_retry_write(bio);
        return -1;
    }
    return static_cast<int>(sent);
}

int linkRead(BIO* bio, char* out, int length) {
    BIO_clear_retry_flags(bio);
    const ssize_t got = ::recv(linkOf(bio)->fd, out, static_cast<size_t>(length), MSG_DONTWAIT);
    if (got < 0) {
        if (notReady(errno)) BIO_set_retry_read(bio);
        return -1;
    }
    if (got == 0) linkOf(bio)->ended = true;
    return static_cast<int>(got);
}

long linkControl(BIO* bio, int command, long, void*) {
    switch (command) {
        case BIO_CTRL_FLUSH: return 1;
        case BIO_CTRL_EOF:
            // Lets the library tell a server's close without close_notify
            // from an error: the context counts it as the end of the stream.
            return linkOf(bio) != nullptr && linkOf(bio)->ended ? 1 : 0;
        default: return 0;
    }
}

int linkCreate(BIO* bio) {
    BIO_set_init(bio, 0);
    BIO_set_data(bio, nullptr);
    return 1;
}

int linkDestroy(BIO*) { return 1; }

// Made once, on first use, for the life of the process.
BIO_METHOD* linkMethod() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "ftpdisk socket");
        if (m != nullptr) {
            BIO_meth_set_write(m, linkWrite);
            BIO_meth_set_read(m, linkRead);
            BIO_meth_set_ctrl(m, linkControl);
            BIO_meth_set_create(m, linkCreate);
            BIO_meth_set_destroy(m, linkDestroy);
        }
        return m;
    }();
    return method;
}

// Milliseconds on the monotonic clock, for the waits inside one call.
long long nowMilliseconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// 1 ready, 0 time-out, -1 error.
int waitSocket(int fd, short events, int milliseconds) {
    struct pollfd p;
    p.fd = fd;
    p.events = events;
    p.revents = 0;
    for (;;) {
        const int n = ::poll(&p, 1, milliseconds < 0 ? 0 : milliseconds);
        if (n < 0 && errno == EINTR) continue;
        return n > 0 ? 1 : n;
    }
}

// The library's last error as text, or `fallback`.
std::string libraryError(const char* fallback) {
    const unsigned long code = ERR_peek_last_error();
    if (code == 0) return fallback;
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

bool isDottedAddress(const char* name) {
    struct in_addr address;
    return inet_pton(AF_INET, name, &address) == 1;
}

std::string memoryText(BIO* memory) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(memory, &data);
    std::string text = length > 0 && data != nullptr ? std::string(data, length) : std::string();
    (void)BIO_reset(memory);
    return text;
}

std::string certificateDigest(X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (certificate == nullptr || X509_digest(certificate, EVP_sha256(), digest, &length) != 1)
        return std::string();
    return std::string(reinterpret_cast<const char*>(digest), length);
}

class OpenSslChannel : public TlsChannel {
public:
    OpenSslChannel(SSL* ssl, int fd)
        : ssl(ssl), failed(false), failedError(0), verification("none") {
        link.fd = fd;
        link.ended = false;
    }
    ~OpenSslChannel() override { SSL_free(ssl); }

    // Runs the step `step` (SSL_connect, a read, a write, ...) until it does
    // not ask to wait. Before each wait `nextWait()` gives its limit in
    // milliseconds (0 or less: no more waiting). The step's result, or -1
    // with errno EAGAIN when a wait ran out.
    template <class Step, class NextWait>
    int drive(Step step, NextWait nextWait, int* error) {
        for (;;) {
            ERR_clear_error();
            errno = 0;
            const int result = step();
            if (result > 0) return result;
            *error = SSL_get_error(ssl, result);
            short events;
            if (*error == SSL_ERROR_WANT_READ) {
                events = POLLIN;
            } else if (*error == SSL_ERROR_WANT_WRITE) {
                events = POLLOUT;
            } else {
                return result;
            }
            const long long wait = nextWait();
            const int ready = wait > 0 ? waitSocket(link.fd, events, static_cast<int>(wait)) : 0;
            if (ready <= 0) {
                if (ready == 0) errno = EAGAIN;
                return -1;
            }
        }
    }

    // The waits of one call share `milliseconds` in all.
    static std::function<long long()> sharing(int milliseconds) {
        const long long deadline = nowMilliseconds() + milliseconds;
        return [deadline] { return deadline - nowMilliseconds(); };
    }

    int receive(char* buffer, int length, int waitMilliseconds) override {
        if (failed) {
            errno = failedError;
            return -1;
        }
        if (length <= 0) return 0;
        int error = SSL_ERROR_NONE;
        size_t got = 0;
        const int result =
            drive([&] { return SSL_read_ex(ssl, buffer, static_cast<size_t>(length), &got); },
                  sharing(waitMilliseconds), &error);
        if (result <= 0) return errno == EAGAIN ? -1 : finish(error);
        // One read gives at most one record (16 KiB); what else has arrived
        // is taken too, without waiting, so a large read is one call.
        size_t total = got;
        while (total < static_cast<size_t>(length)) {
            size_t more = 0;
            ERR_clear_error();
            if (SSL_read_ex(ssl, buffer + total, static_cast<size_t>(length) - total, &more) != 1) {
                // The bytes read so far are this call's; the end shows itself
                // again on the next call, and so does an error, which is kept
                // because the socket may show only the end after a reset.
                noteLater(SSL_get_error(ssl, 0));
                break;
            }
            total += more;
        }
        return static_cast<int>(total);
    }

    int send(const char* buffer, int length, int waitMilliseconds) override {
        if (failed) {
            errno = failedError;
            return -1;
        }
        if (length <= 0) return 0;
        // A write returns after one record; the rest follows within the same
        // wait, as a blocking send would take it all. A call that may not
        // wait, or whose wait runs out, ends with what went out: the caller
        // comes back with the rest (the same bytes, as the library needs).
        const std::function<long long()> nextWait = sharing(waitMilliseconds);
        size_t total = 0;
        while (total < static_cast<size_t>(length)) {
            int error = SSL_ERROR_NONE;
            size_t sent = 0;
            const int result = drive(
                [&] {
                    return SSL_write_ex(ssl, buffer + total, static_cast<size_t>(length) - total,
                                        &sent);
                },
                nextWait, &error);
            if (result > 0) {
                total += sent;
                continue;
            }
            if (total == 0) {
                if (errno == EAGAIN) return -1;
                const int ended = finish(error);
                if (ended == 0) errno = EPIPE;  // no sending after the end
                return -1;
            }
            if (errno != EAGAIN) noteLater(error);
            break;
        }
        return static_cast<int>(total);
    }

    bool pending() override { return SSL_pending(ssl) > 0 || SSL_has_pending(ssl) == 1; }

    void closeNotify(int waitMilliseconds) override {
        if (failed) return;
        // After an upload the socket is often still full of its last bytes:
        // the close_notify is written as the socket takes it, not dropped.
        // SSL_shutdown gives 0 once it is out (the server's own comes later,
        // or never, and is not waited for).
        int error = SSL_ERROR_NONE;
        (void)drive(
            [&] {
                const int result = SSL_shutdown(ssl);
                return result >= 0 ? 1 : result;
            },
            sharing(waitMilliseconds), &error);
        ERR_clear_error();
    }

    bool resumed() override { return SSL_session_reused(ssl) == 1; }

    void details(TlsPeerDetails* out) override {
        if (out == nullptr) return;
        *out = TlsPeerDetails();
        out->protocol = SSL_get_version(ssl);
        const char* cipher = SSL_get_cipher_name(ssl);
        out->cipher = cipher != nullptr ? cipher : "";
        out->verification = verification;
        X509* certificate = SSL_get1_peer_certificate(ssl);
        if (certificate == nullptr) return;
        BIO* memory = BIO_new(BIO_s_mem());
        if (memory != nullptr) {
            X509_NAME_print_ex(memory, X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
            out->subject = memoryText(memory);
            X509_NAME_print_ex(memory, X509_get_issuer_name(certificate), 0, XN_FLAG_RFC2253);
            out->issuer = memoryText(memory);
            ASN1_TIME_print(memory, X509_get0_notBefore(certificate));
            out->notBefore = memoryText(memory);
            ASN1_TIME_print(memory, X509_get0_notAfter(certificate));
            out->notAfter = memoryText(memory);
            BIO_free(memory);
        }
        out->fingerprint = tlsFormatFingerprint(certificateDigest(certificate));
        X509_free(certificate);
    }

    // After a step that failed for another reason than a wait: 0 at the end
    // of the stream, else -1 with errno set and the channel marked failed,
    // so that every later call fails the same way.
    int finish(int error) {
        if (error == SSL_ERROR_ZERO_RETURN) return 0;
        failed = true;
        if (error == SSL_ERROR_SYSCALL) {
            if (errno == 0) errno = ECONNRESET;
        } else {
            errno = EPROTO;
        }
        failedError = errno;
        ERR_clear_error();
        return -1;
    }

    // A step after the first of a call failed with `error`: a wait or the
    // end is left for the next call to meet, a failure is kept for it.
    void noteLater(int error) {
        const int saved = errno;
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE &&
            error != SSL_ERROR_ZERO_RETURN) {
            (void)finish(error);
        }
        ERR_clear_error();
        errno = saved;
    }

    SSL* ssl;
    SocketLink link;
    bool failed;
    int failedError;  // errno of the failure, for every later call
    std::string verification;
};

class OpenSslContext : public TlsContext {
public:
    OpenSslContext(SSL_CTX* context, const TlsTrust& trust) : context(context), trust(trust) {}
    ~OpenSslContext() override { SSL_CTX_free(context); }

    TlsChannel* handshake(int fd, const char* serverName, TlsChannel* resumeFrom,
                          int waitMilliseconds, std::string* why) override {
        std::string reason;
        TlsChannel* channel = connect(fd, serverName, resumeFrom, waitMilliseconds, &reason);
        if (channel == nullptr && why != nullptr) *why = reason;
        ERR_clear_error();
        return channel;
    }

private:
    TlsChannel* connect(int fd, const char* serverName, TlsChannel* resumeFrom,
                        int waitMilliseconds, std::string* why) {
        ERR_clear_error();
        SSL* ssl = SSL_new(context);
        BIO* bio = ssl != nullptr ? BIO_new(linkMethod()) : nullptr;
        if (ssl == nullptr || bio == nullptr) {
            SSL_free(ssl);
            *why = "TLS handshake failed: out of memory";
            return nullptr;
        }
        OpenSslChannel* channel = new OpenSslChannel(ssl, fd);
        BIO_set_data(bio, &channel->link);
        BIO_set_init(bio, 1);
        SSL_set_bio(ssl, bio, bio);

        const char* name = serverName != nullptr ? serverName : "";
        const bool dotted = isDottedAddress(name);
        // The name goes to the server (so a server of several names shows the
        // right certificate) unless it is an address.
        if (!dotted && *name != '\0') SSL_set_tlsext_host_name(ssl, name);
        if (trust.mode == TlsTrust::kSystemStore) {
            X509_VERIFY_PARAM* parameters = SSL_get0_param(ssl);
            if (dotted) {
                X509_VERIFY_PARAM_set1_ip_asc(parameters, name);
            } else {
                X509_VERIFY_PARAM_set1_host(parameters, name, 0);
            }
        }
        OpenSslChannel* control = static_cast<OpenSslChannel*>(resumeFrom);
        if (control != nullptr) {
            // The latest session the server gave the control connection: with
            // TLS 1.3 its tickets come after the handshake, read with the
            // replies that followed it.
            // The data connection gets a copy: a connection freed without
            // close_notify (a download, a failed transfer) marks its session
            // as not resumable, and the control connection's own session
            // must stay resumable for the data connections to come.
            SSL_SESSION* session = SSL_get1_session(control->ssl);
            SSL_SESSION* copy = session != nullptr ? SSL_SESSION_dup(session) : nullptr;
            if (copy != nullptr) {
                SSL_set_session(ssl, copy);
                SSL_SESSION_free(copy);
            }
            SSL_SESSION_free(session);
        }

        // Each wait for the server lasts at most the caller's wait; the whole
        // handshake at most kHandshakeLimitSeconds of the host's up-time, so a
        // server that answers a byte now and then cannot hold it for ever.
        const double limit = KDTime::getUpTime() + kHandshakeLimitSeconds;
        const std::function<long long()> nextWait = [&]() -> long long {
            return KDTime::getUpTime() < limit ? waitMilliseconds : 0;
        };
        int error = SSL_ERROR_NONE;
        if (channel->drive([&] { return SSL_connect(ssl); }, nextWait, &error) <= 0) {
            if (errno == EAGAIN) {
                *why = "TLS handshake failed: no answer from the server within the wait";
            } else if (error == SSL_ERROR_SYSCALL || error == SSL_ERROR_ZERO_RETURN) {
                *why = "TLS handshake failed: " + libraryError("the server closed the connection");
            } else {
                *why = "TLS handshake failed: " + libraryError("protocol error");
            }
            delete channel;
            return nullptr;
        }
        if (!trusted(channel, why)) {
            // Nothing more goes out: the channel is freed without close_notify.
            delete channel;
            return nullptr;
        }
        return channel;
    }

    bool trusted(OpenSslChannel* channel, std::string* why) {
        if (channel->resumed()) {
            // The session was checked when the control connection made it.
            channel->verification = "resumed session of the control connection";
            return true;
        }
        X509* certificate = SSL_get1_peer_certificate(channel->ssl);
        const std::string digest = certificateDigest(certificate);
        const std::string seen =
            digest.empty() ? std::string("none") : tlsFormatFingerprint(digest);
        bool ok = false;
        std::string reason;
        if (certificate == nullptr) {
            reason = "the server sent no certificate";
        } else if (trust.mode == TlsTrust::kUnverified) {
            ok = true;
            channel->verification = "none (certificate verification skipped)";
        } else if (trust.mode == TlsTrust::kPinned) {
            ok = digest == trust.pinnedSha256;
            if (ok) {
                channel->verification = "pinned SHA-256 fingerprint";
            } else {
                reason = "its fingerprint is not the pinned one";
            }
        } else {
            const long result = SSL_get_verify_result(channel->ssl);
            ok = result == X509_V_OK;
            if (ok) {
                channel->verification = trust.caFiles.empty()
                                            ? "system trust store and server name"
                                            : "trust store with added CA files and server name";
            } else {
                reason = X509_verify_cert_error_string(result);
            }
        }
        X509_free(certificate);
        if (!ok) *why = "TLS certificate not trusted: " + reason + "; SHA-256 fingerprint " + seen;
        return ok;
    }

    SSL_CTX* context;
    const TlsTrust trust;
};

}  // namespace

bool TlsContext::builtIn() { return true; }

std::shared_ptr<TlsContext> TlsContext::make(const TlsTrust& trust, std::string* why) {
    std::string reason;
    ERR_clear_error();
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    if (context == nullptr || linkMethod() == nullptr) {
        SSL_CTX_free(context);
        if (why != nullptr) *why = "TLS cannot start: " + libraryError("out of memory");
        return std::shared_ptr<TlsContext>();
    }
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // The trust check runs after the handshake, so that its failure can name
    // the certificate's fingerprint; the library still checks the chain and
    // the name and keeps its verdict.
    SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
    // Buffers are released while a connection is idle (an open file waits
    // between writes), and a write may continue from a moved buffer.
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                  SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // Many servers close data connections without close_notify; the 2xx
    // closing reply on the control connection still says the data is whole.
    SSL_CTX_set_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
    if (trust.mode == TlsTrust::kSystemStore) {
        SSL_CTX_set_default_verify_paths(context);
        for (size_t i = 0; i < trust.caFiles.size(); ++i) {
            if (SSL_CTX_load_verify_locations(context, trust.caFiles[i].c_str(), nullptr) != 1) {
                if (why != nullptr)
                    *why = "cannot read the CA file " + trust.caFiles[i] + ": " +
                           libraryError("not a PEM certificate file");
                SSL_CTX_free(context);
                ERR_clear_error();
                return std::shared_ptr<TlsContext>();
            }
        }
    }
    ERR_clear_error();
    std::shared_ptr<TlsContext> made;
    try {
        made.reset(new OpenSslContext(context, trust));
    } catch (...) {
        SSL_CTX_free(context);
        if (why != nullptr) *why = "TLS cannot start: out of memory";
    }
    return made;
}
