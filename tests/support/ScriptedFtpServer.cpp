#include "support/ScriptedFtpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#if FTPDISK_TESTS_TLS
#include <openssl/err.h>
#include <openssl/ssl.h>
#else
struct ssl_st;
using SSL = ssl_st;
#endif

namespace ftptest {

namespace {

using Clock = std::chrono::steady_clock;

// Every blocking step polls in ticks this long so a stopping server notices
// within one tick.
constexpr int kTickMs = 20;
// How long the server waits for a client to open a data connection after the
// preliminary reply, and for its own connect in port mode.
constexpr Millis kDataConnectLimit{10000};

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

// The socket's close sends a reset rather than an orderly end.
void resetOnClose(int fd) {
    linger abort{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

void setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// 1 when `fd` is ready for `events`, 0 when the deadline passed or the server
// is stopping, -1 on a poll error.
int waitReady(int fd, short events, const std::atomic<bool>& stopping,
              Clock::time_point deadline = Clock::time_point::max()) {
    while (!stopping.load()) {
        if (Clock::now() >= deadline) return 0;
        pollfd p{fd, events, 0};
        int n = ::poll(&p, 1, kTickMs);
        if (n > 0) return 1;
        if (n < 0 && errno != EINTR) return -1;
    }
    return 0;
}

// Sends every byte; false when the peer is gone or the server stops.
bool sendAll(int fd, const char* data, size_t length, const std::atomic<bool>& stopping) {
    while (length > 0) {
        ssize_t n = ::send(fd, data, length, MSG_NOSIGNAL);
        if (n > 0) {
            data += n;
            length -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            if (waitReady(fd, POLLOUT, stopping) != 1) return false;
            continue;
        }
        return false;
    }
    return true;
}

// Receives what is there (waiting for it): >0 bytes, 0 end of stream, -1
// error or stopping.
ssize_t recvSome(int fd, char* buffer, size_t length, const std::atomic<bool>& stopping) {
    for (;;) {
        ssize_t n = ::recv(fd, buffer, length, 0);
        if (n >= 0) return n;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return -1;
        if (waitReady(fd, POLLIN, stopping) != 1) return -1;
    }
}

// One connection's bytes: the socket alone, or TLS over it.
struct Channel {
    int fd = -1;
    SSL* ssl = nullptr;
    // The peer ended its side with close_notify.
    bool closeNotify = false;
};

#if FTPDISK_TESTS_TLS

// Waits for what the last TLS call asked for; false on another error, when
// the deadline passed or the server stops.
bool waitForTls(const Channel& c, int result, const std::atomic<bool>& stopping,
                Clock::time_point deadline = Clock::time_point::max()) {
    const int error = SSL_get_error(c.ssl, result);
    if (error == SSL_ERROR_WANT_READ) return waitReady(c.fd, POLLIN, stopping, deadline) == 1;
    if (error == SSL_ERROR_WANT_WRITE) return waitReady(c.fd, POLLOUT, stopping, deadline) == 1;
    return false;
}

// The server side of a handshake on `fd`; null when it fails or the deadline
// passes. Data connections get no session tickets: nothing would read them.
SSL* acceptTls(SSL_CTX* context, int fd, bool data, const std::atomic<bool>& stopping,
               Clock::time_point deadline) {
    ERR_clear_error();
    SSL* ssl = SSL_new(context);
    if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1) {
        SSL_free(ssl);
        ERR_clear_error();
        return nullptr;
    }
    if (data) SSL_set_num_tickets(ssl, 0);
    Channel c;
    c.fd = fd;
    c.ssl = ssl;
    for (;;) {
        ERR_clear_error();
        const int rc = SSL_accept(ssl);
        if (rc == 1) return ssl;
        if (!waitForTls(c, rc, stopping, deadline)) break;
    }
    SSL_free(ssl);
    ERR_clear_error();
    return nullptr;
}

// Ends TLS on the channel: close_notify first when `notify` (an orderly
// end), nothing when the connection is being reset.
void endTls(Channel& c, bool notify) {
    if (c.ssl == nullptr) return;
    ERR_clear_error();
    if (notify) SSL_shutdown(c.ssl);
    SSL_free(c.ssl);
    c.ssl = nullptr;
    ERR_clear_error();
}

bool tlsSendAll(Channel& c, const char* data, size_t length, const std::atomic<bool>& stopping) {
    while (length > 0) {
        ERR_clear_error();
        size_t written = 0;
        const int rc = SSL_write_ex(c.ssl, data, length, &written);
        if (rc == 1) {
            data += written;
            length -= written;
            continue;
        }
        if (!waitForTls(c, rc, stopping)) return false;
    }
    return true;
}

ssize_t tlsRecvSome(Channel& c, char* buffer, size_t length, const std::atomic<bool>& stopping) {
    for (;;) {
        ERR_clear_error();
        size_t got = 0;
        const int rc = SSL_read_ex(c.ssl, buffer, length, &got);
        if (rc == 1) return static_cast<ssize_t>(got);
        const int error = SSL_get_error(c.ssl, rc);
        if (error == SSL_ERROR_ZERO_RETURN) {
            c.closeNotify = true;
            return 0;
        }
        // The socket closed without close_notify: the end of the stream all
        // the same, as on a plain connection.
        if (error == SSL_ERROR_SSL &&
            ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
            ERR_clear_error();
            return 0;
        }
        if (!waitForTls(c, rc, stopping)) return -1;
    }
}

#else  // FTPDISK_TESTS_TLS

void endTls(Channel&, bool) {}
bool tlsSendAll(Channel&, const char*, size_t, const std::atomic<bool>&) { return false; }
ssize_t tlsRecvSome(Channel&, char*, size_t, const std::atomic<bool>&) { return -1; }

#endif  // FTPDISK_TESTS_TLS

bool channelSend(Channel& c, const char* data, size_t length, const std::atomic<bool>& stopping) {
    if (c.ssl == nullptr) return sendAll(c.fd, data, length, stopping);
    return tlsSendAll(c, data, length, stopping);
}

ssize_t channelRecv(Channel& c, char* buffer, size_t length, const std::atomic<bool>& stopping) {
    if (c.ssl == nullptr) return recvSome(c.fd, buffer, length, stopping);
    return tlsRecvSome(c, buffer, length, stopping);
}

bool isTransferVerb(const std::string& verb) {
    return verb == "RETR" || verb == "STOR" || verb == "APPE" || verb == "LIST" || verb == "NLST";
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    size_t at = 0;
    while ((at = text.find(from, at)) != std::string::npos) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
    return text;
}

}  // namespace

struct ScriptedFtpServer::Session {
    int number = 0;
    int fd = -1;
    SSL* ssl = nullptr;        // TLS on the control connection, after AUTH
    bool protectData = false;  // "PROT P" given over TLS
    std::string cwd = "/";
    std::string input;     // received, not yet split into lines
    int passiveFd = -1;    // listening data socket announced after PASV
    bool portSet = false;  // a PORT address waits for the next transfer
    sockaddr_in portAddress{};
    std::string renameFrom;
    bool closed = false;  // control connection closed by script or peer
};

ScriptedFtpServer::ScriptedFtpServer() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (listenFd_ < 0) {
        ADD_FAILURE() << "ScriptedFtpServer: socket failed: " << std::strerror(errno);
        return;
    }
    int one = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listenFd_, 16) != 0 ||
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ADD_FAILURE() << "ScriptedFtpServer: cannot listen: " << std::strerror(errno);
        closeFd(listenFd_);
        return;
    }
    port_ = ntohs(address.sin_port);
    setNonBlocking(listenFd_);
    acceptThread_ = std::thread(&ScriptedFtpServer::acceptLoop, this);
}

ScriptedFtpServer::~ScriptedFtpServer() {
    stop(false);
#if FTPDISK_TESTS_TLS
    for (SSL_CTX* context : tlsContexts_) SSL_CTX_free(context);
#endif
}

void ScriptedFtpServer::kill() { stop(true); }

void ScriptedFtpServer::stop(bool killed) {
    {
        // Set under the lock so a pause() that checked the flag is already
        // waiting on the condition variable and gets the notification.
        std::lock_guard<std::mutex> lock(mutex_);
        if (killed) killed_ = true;
        stopping_ = true;
    }
    changed_.notify_all();
    if (acceptThread_.joinable()) acceptThread_.join();
    // No session thread is added once the accept loop has ended.
    std::vector<std::thread> sessions;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sessions.swap(sessionThreads_);
    }
    for (auto& t : sessions) t.join();
    closeFd(listenFd_);
}

std::string ScriptedFtpServer::address() const { return "127.0.0.1:" + std::to_string(port_); }

void ScriptedFtpServer::setGreeting(Reply greeting) {
    std::lock_guard<std::mutex> lock(mutex_);
    greeting_ = std::move(greeting);
}

void ScriptedFtpServer::queueReply(const std::string& key, Reply reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_[key].queued.push_back(std::move(reply));
}

void ScriptedFtpServer::setReply(const std::string& key, Reply reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_[key].sticky = std::move(reply);
}

void ScriptedFtpServer::clearReply(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_.erase(key);
}

void ScriptedFtpServer::setListing(std::string body) {
    std::lock_guard<std::mutex> lock(mutex_);
    listing_ = std::move(body);
}

void ScriptedFtpServer::releaseDataStalls() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stallsReleased_ = true;
    }
    changed_.notify_all();
}

void ScriptedFtpServer::putFile(const std::string& path, std::string bytes) {
    std::string key = resolve("/", path);
    std::lock_guard<std::mutex> lock(mutex_);
    files_[key] = std::move(bytes);
}

std::optional<std::string> ScriptedFtpServer::file(const std::string& path) const {
    std::string key = resolve("/", path);
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = files_.find(key);
    if (it == files_.end()) return std::nullopt;
    return it->second;
}

std::map<std::string, std::string> ScriptedFtpServer::files() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return files_;
}

std::vector<std::string> ScriptedFtpServer::commands() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> lines;
    for (const auto& r : received_) lines.push_back(r.line);
    return lines;
}

std::vector<ReceivedCommand> ScriptedFtpServer::received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

std::vector<std::string> ScriptedFtpServer::commandsOn(int connection) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> lines;
    for (const auto& r : received_)
        if (r.connection == connection) lines.push_back(r.line);
    return lines;
}

bool ScriptedFtpServer::waitForCommands(size_t count, Millis limit) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return received_.size() >= count; });
}

int ScriptedFtpServer::connectionCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
}

int ScriptedFtpServer::closedConnectionCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closedConnections_;
}

bool ScriptedFtpServer::waitForClosedConnections(int count, Millis limit) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return closedConnections_ >= count; });
}

int ScriptedFtpServer::dataConnectionCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return dataConnections_;
}

std::vector<std::string> ScriptedFtpServer::uploads() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return uploads_;
}

bool ScriptedFtpServer::enableTls(const ServerTlsOptions& options, std::string* why) {
    std::string failure;
#if FTPDISK_TESTS_TLS
    ERR_clear_error();
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr) {
        failure = "SSL_CTX_new failed";
    } else {
        static const unsigned char kSessionContext[] = "ftpdisk-scripted";
        SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
        if (options.tls12Only) SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_SERVER);
        SSL_CTX_set_session_id_context(context, kSessionContext, sizeof kSessionContext - 1);
        if (SSL_CTX_use_certificate_chain_file(context, options.certFile.c_str()) != 1) {
            failure = "cannot use the certificate " + options.certFile;
        } else if (SSL_CTX_use_PrivateKey_file(context, options.keyFile.c_str(),
                                               SSL_FILETYPE_PEM) != 1 ||
                   SSL_CTX_check_private_key(context) != 1) {
            failure = "cannot use the key " + options.keyFile;
        }
    }
    ERR_clear_error();
    if (!failure.empty()) {
        SSL_CTX_free(context);
    } else {
        std::lock_guard<std::mutex> lock(mutex_);
        tlsContexts_.push_back(context);
        requireSessionReuse_ = options.requireSessionReuse;
    }
#else
    (void)options;
    failure = "the tests were built without TLS";
#endif
    if (why != nullptr) *why = failure;
    return failure.empty();
}

int ScriptedFtpServer::tlsHandshakeCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return tlsHandshakes_;
}

int ScriptedFtpServer::failedTlsHandshakeCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return failedTlsHandshakes_;
}

std::vector<DataConnectionRecord> ScriptedFtpServer::dataConnectionRecords() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return dataRecords_;
}

void ScriptedFtpServer::noteDataConnection(const DataConnectionRecord& record) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        dataRecords_.push_back(record);
    }
    changed_.notify_all();
}

bool ScriptedFtpServer::startTls(Session& s) {
    bool ok = false;
#if FTPDISK_TESTS_TLS
    SSL_CTX* context = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!tlsContexts_.empty()) context = tlsContexts_.back();
    }
    if (context != nullptr) {
        s.ssl = acceptTls(context, s.fd, false, stopping_, Clock::now() + kDataConnectLimit);
        ok = s.ssl != nullptr;
    }
#endif
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++(ok ? tlsHandshakes_ : failedTlsHandshakes_);
    }
    changed_.notify_all();
    // Clear text sent after the AUTH line, before the handshake, is never
    // taken for a command.
    s.input.clear();
    if (!ok) s.closed = true;
    return ok;
}

size_t ScriptedFtpServer::uploadingBytes(const std::string& path) const {
    std::string key = resolve("/", path);
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = uploading_.find(key);
    return it == uploading_.end() ? 0 : it->second;
}

bool ScriptedFtpServer::pause(Millis delay) const {
    if (delay.count() <= 0) return !stopping_.load();
    std::unique_lock<std::mutex> lock(mutex_);
    return !changed_.wait_for(lock, delay, [&] { return stopping_.load(); });
}

void ScriptedFtpServer::stall(Millis stall) const {
    if (stall.count() <= 0) return;
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, stall, [&] { return stopping_.load() || stallsReleased_; });
}

// "/a/b" + "../c/./d" -> "/a/c/d"; an empty path names the directory itself.
std::string ScriptedFtpServer::resolve(const std::string& cwd, const std::string& path) const {
    std::string joined = (!path.empty() && path[0] == '/') ? path : cwd + "/" + path;
    std::vector<std::string> parts;
    std::stringstream in(joined);
    std::string part;
    while (std::getline(in, part, '/')) {
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
            continue;
        }
        parts.push_back(part);
    }
    std::string out;
    for (const auto& p : parts) out += "/" + p;
    return out.empty() ? "/" : out;
}

std::optional<Reply> ScriptedFtpServer::takeReply(const std::string& line,
                                                  const std::string& verb) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::string* key : {&line, &verb}) {
        auto it = scripts_.find(*key);
        if (it == scripts_.end()) continue;
        if (!it->second.queued.empty()) {
            Reply r = std::move(it->second.queued.front());
            it->second.queued.pop_front();
            return r;
        }
        if (it->second.sticky) return it->second.sticky;
    }
    return std::nullopt;
}

void ScriptedFtpServer::acceptLoop() {
    while (!stopping_.load()) {
        if (waitReady(listenFd_, POLLIN, stopping_) != 1) continue;
        int fd = ::accept(listenFd_, nullptr, nullptr);
        if (fd < 0) continue;
        setNonBlocking(fd);
        std::lock_guard<std::mutex> lock(mutex_);
        int number = ++connections_;
        sessionThreads_.emplace_back(&ScriptedFtpServer::serve, this, number, fd);
        changed_.notify_all();
    }
}

void ScriptedFtpServer::serve(int connection, int fd) {
    // A TLS write to a peer that is gone fails with EPIPE rather than
    // raising SIGPIPE in the test process (plain sends say MSG_NOSIGNAL).
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    Session s;
    s.number = connection;
    s.fd = fd;
    Reply greeting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        greeting = greeting_;
    }
    if (!greeting.silent) sendControl(s, greeting, greeting.text);

    char buffer[4096];
    while (!s.closed && !stopping_.load()) {
        size_t end;
        while (!s.closed && (end = s.input.find('\n')) != std::string::npos) {
            std::string line = s.input.substr(0, end);
            s.input.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            {
                std::lock_guard<std::mutex> lock(mutex_);
                received_.push_back({connection, line});
            }
            changed_.notify_all();
            handleCommand(s, line);
        }
        if (s.closed) break;
        Channel control;
        control.fd = s.fd;
        control.ssl = s.ssl;
        ssize_t n = channelRecv(control, buffer, sizeof buffer, stopping_);
        if (n <= 0) {
            // A command cut off by the end of the stream is still recorded.
            if (n == 0 && !s.input.empty()) {
                std::lock_guard<std::mutex> lock(mutex_);
                received_.push_back({connection, s.input});
            }
            break;
        }
        s.input.append(buffer, static_cast<size_t>(n));
    }

    closeFd(s.passiveFd);
    {
        Channel control;
        control.fd = s.fd;
        control.ssl = s.ssl;
        endTls(control, !killed_.load());
        s.ssl = nullptr;
    }
    if (killed_.load()) resetOnClose(s.fd);
    closeFd(s.fd);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++closedConnections_;
    }
    changed_.notify_all();
}

bool ScriptedFtpServer::sendControl(Session& s, const Reply& reply, const std::string& text) {
    if (s.closed) return false;
    if (!pause(reply.delay)) return false;
    std::string bytes;
    if (reply.raw) {
        bytes = text;
    } else if (!text.empty()) {
        std::stringstream in(text);
        std::string line;
        while (std::getline(in, line)) bytes += line + "\r\n";
    }
    Channel control;
    control.fd = s.fd;
    control.ssl = s.ssl;
    size_t piece = reply.controlPieceBytes == 0 ? bytes.size() : reply.controlPieceBytes;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        if (at > 0 && !pause(reply.controlPieceDelay)) return false;
        size_t n = std::min(piece, bytes.size() - at);
        if (!channelSend(control, bytes.data() + at, n, stopping_)) {
            s.closed = true;
            return false;
        }
    }
    if (reply.closeControl) {
        // Over TLS an orderly close: close_notify, then the socket.
        endTls(control, true);
        s.ssl = nullptr;
        ::shutdown(s.fd, SHUT_RDWR);
        s.closed = true;
    }
    return true;
}

void ScriptedFtpServer::handleCommand(Session& s, const std::string& line) {
    std::string verb = line.substr(0, line.find(' '));
    std::string arg = line.size() > verb.size() ? line.substr(verb.size() + 1) : "";
    std::transform(verb.begin(), verb.end(), verb.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });

    std::optional<Reply> scripted = takeReply(line, verb);
    Reply reply = scripted ? *scripted : Reply();
    if (reply.silent) return;
    if (isTransferVerb(verb)) {
        transfer(s, verb, arg, reply);
        return;
    }
    // Without text a close-only script sends nothing.
    bool useDefault = reply.text.empty() && !reply.closeControl;
    std::string text = reply.text;

    if (verb == "PASV") {
        closeFd(s.passiveFd);
        s.portSet = false;
        if (useDefault) text = "227 Entering Passive Mode ({pasv})";
        if (text.find("{pasv}") == std::string::npos &&
            text.find("{pasvport}") == std::string::npos) {
            // A scripted reply that announces no address gets no data socket.
            sendControl(s, reply, text);
            return;
        }
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(fd, 1) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            if (fd >= 0) ::close(fd);
            sendControl(s, reply, "425 Cannot open passive connection");
            return;
        }
        setNonBlocking(fd);
        s.passiveFd = fd;
        unsigned port = ntohs(address.sin_port);
        const std::string portNumbers =
            std::to_string(port / 256) + "," + std::to_string(port % 256);
        text = replaceAll(text, "{pasv}", "127,0,0,1," + portNumbers);
        sendControl(s, reply, replaceAll(text, "{pasvport}", portNumbers));
        return;
    }

    bool tlsEnabled = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tlsEnabled = !tlsContexts_.empty();
    }
    std::string upperArg = arg;
    std::transform(upperArg.begin(), upperArg.end(), upperArg.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });

    std::string defaultText;
    std::string path = resolve(s.cwd, arg);
    if (tlsEnabled && verb == "AUTH") {
        if (s.ssl != nullptr)
            defaultText = "503 TLS is already in use";
        else if (upperArg == "TLS" || upperArg == "TLS-C" || upperArg == "SSL")
            defaultText = "234 Proceed with negotiation.";
        else
            defaultText = "504 Unknown AUTH type";
    } else if (tlsEnabled && verb == "PBSZ") {
        defaultText = "200 PBSZ=0";
    } else if (tlsEnabled && verb == "PROT") {
        if (upperArg == "P" || upperArg == "C")
            defaultText = "200 Protection level set to " + upperArg;
        else
            defaultText = "504 Unknown protection level";
    } else if (verb == "USER") {
        defaultText = "331 Password required";
    } else if (verb == "PASS") {
        defaultText = "230 Logged in";
    } else if (verb == "TYPE") {
        defaultText = "200 Type set";
    } else if (verb == "PORT") {
        // Only loopback addresses are accepted: the server connects back there.
        unsigned h[4] = {0, 0, 0, 0}, p[2] = {0, 0};
        int n =
            std::sscanf(arg.c_str(), "%u,%u,%u,%u,%u,%u", &h[0], &h[1], &h[2], &h[3], &p[0], &p[1]);
        if (n == 6 && h[0] == 127 && h[1] == 0 && h[2] == 0 && h[3] == 1 && p[0] < 256 &&
            p[1] < 256) {
            closeFd(s.passiveFd);
            s.portSet = true;
            s.portAddress = sockaddr_in{};
            s.portAddress.sin_family = AF_INET;
            s.portAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            s.portAddress.sin_port = htons(static_cast<uint16_t>(p[0] * 256 + p[1]));
            defaultText = "200 PORT command successful";
        } else {
            defaultText = "501 Only 127.0.0.1 is served";
        }
    } else if (verb == "CWD" || verb == "CDUP") {
        defaultText = "250 Directory changed";
    } else if (verb == "MKD") {
        defaultText = "257 \"" + path + "\" created";
    } else if (verb == "RMD") {
        defaultText = "250 Directory removed";
    } else if (verb == "DELE") {
        defaultText = "250 File deleted";
    } else if (verb == "RNFR") {
        defaultText = "350 Ready for destination name";
    } else if (verb == "RNTO") {
        defaultText = "250 Renamed";
    } else if (verb == "SITE" || verb == "NOOP") {
        defaultText = "200 OK";
    } else if (verb == "PWD") {
        defaultText = "257 \"" + s.cwd + "\"";
    } else if (verb == "SYST") {
        defaultText = "215 UNIX Type: L8";
    } else if (verb == "SIZE") {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = files_.find(path);
        defaultText =
            it == files_.end() ? "550 No such file" : "213 " + std::to_string(it->second.size());
    } else if (verb == "QUIT") {
        defaultText = "221 Goodbye";
        if (!scripted) reply.closeControl = true;
    } else {
        defaultText = "502 Command not implemented";
    }
    if (useDefault) text = defaultText;

    // Side effects follow the reply actually given: a refused command
    // changes nothing.
    bool positive = !text.empty() && (text[0] == '2' || text[0] == '3');
    if (positive) {
        if (verb == "CWD") {
            s.cwd = resolve(s.cwd, arg);
        } else if (verb == "CDUP") {
            s.cwd = resolve(s.cwd, "..");
        } else if (verb == "DELE") {
            std::lock_guard<std::mutex> lock(mutex_);
            files_.erase(path);
        } else if (verb == "RNFR") {
            s.renameFrom = path;
        } else if (verb == "PROT" && tlsEnabled) {
            // Protected data connections only on a protected control
            // connection.
            s.protectData = s.ssl != nullptr && upperArg == "P";
        } else if (verb == "RNTO") {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = files_.find(s.renameFrom);
            if (it != files_.end()) {
                std::string bytes = std::move(it->second);
                files_.erase(it);
                files_[path] = std::move(bytes);
            }
        }
    }
    if (!sendControl(s, reply, text)) return;
    if (tlsEnabled && verb == "AUTH" && s.ssl == nullptr && !s.closed && !text.empty() &&
        text[0] == '2') {
        stall(reply.tlsStall);
        startTls(s);
    }
}

int ScriptedFtpServer::openDataConnection(Session& s, const Reply& reply) {
    (void)reply;
    Clock::time_point deadline = Clock::now() + kDataConnectLimit;
    int fd = -1;
    if (s.passiveFd >= 0) {
        if (waitReady(s.passiveFd, POLLIN, stopping_, deadline) == 1)
            fd = ::accept(s.passiveFd, nullptr, nullptr);
        closeFd(s.passiveFd);
    } else if (s.portSet) {
        s.portSet = false;
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (fd >= 0) {
            setNonBlocking(fd);
            int rc =
                ::connect(fd, reinterpret_cast<sockaddr*>(&s.portAddress), sizeof s.portAddress);
            bool connected = rc == 0;
            if (!connected && errno == EINPROGRESS &&
                waitReady(fd, POLLOUT, stopping_, deadline) == 1) {
                int error = 0;
                socklen_t length = sizeof error;
                connected =
                    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
            }
            if (!connected) closeFd(fd);
        }
    }
    if (fd >= 0) {
        setNonBlocking(fd);
        std::lock_guard<std::mutex> lock(mutex_);
        ++dataConnections_;
    }
    return fd;
}

void ScriptedFtpServer::transfer(Session& s, const std::string& verb, const std::string& arg,
                                 const Reply& reply) {
    bool reading = verb == "RETR" || verb == "LIST" || verb == "NLST";
    std::string path = resolve(s.cwd, arg);
    std::string text = reply.text;
    if (text.empty() && !reply.closeControl) {
        bool missing = false;
        if (verb == "RETR" && !reply.body) {
            std::lock_guard<std::mutex> lock(mutex_);
            missing = files_.find(path) == files_.end();
        }
        if (missing) {
            text = "550 No such file";
        } else if (s.passiveFd < 0 && !s.portSet && !reply.noDataConnection) {
            text = "425 Use PASV or PORT first";
        } else {
            text = "150 Opening data connection";
        }
    }
    if (text.empty() || text[0] != '1') {
        sendControl(s, reply, text);
        return;
    }
    Reply preliminary = reply;
    preliminary.closeControl = reply.closeControl && reply.noFinal;
    if (!sendControl(s, preliminary, text)) return;

    if (!reply.noDataConnection) {
        int fd = openDataConnection(s, reply);
        if (fd < 0) {
            Reply refusal;
            sendControl(s, refusal, "425 Cannot open data connection");
            return;
        }
        Channel data;
        data.fd = fd;
        DataConnectionRecord record;
        record.connection = s.number;
        record.command = arg.empty() ? verb : verb + " " + arg;
        if (s.protectData) {
            std::string refusal;
#if FTPDISK_TESTS_TLS
            SSL_CTX* context = nullptr;
            bool requireReuse = false;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                context = tlsContexts_.back();
                requireReuse = requireSessionReuse_;
            }
            if (reply.failDataTls) {
                resetOnClose(fd);
                refusal = reply.finalText.empty()
                              ? "522 TLS handshake on the data connection failed"
                              : reply.finalText;
            } else {
                stall(reply.tlsStall);
                data.ssl =
                    acceptTls(context, fd, true, stopping_, Clock::now() + kDataConnectLimit);
                if (data.ssl == nullptr) {
                    refusal = "522 TLS handshake on the data connection failed";
                } else {
                    record.tls = true;
                    record.resumed = SSL_session_reused(data.ssl) == 1;
                    if (requireReuse && !record.resumed)
                        refusal =
                            "522 Data connections must resume the TLS session of the control "
                            "connection";
                }
            }
#else
            refusal = "522 TLS is not built in";
#endif
            if (!refusal.empty()) {
                record.refused = true;
                endTls(data, true);
                closeFd(fd);
                noteDataConnection(record);
                Reply closing;
                closing.closeControl = reply.closeControl;
                sendControl(s, closing, refusal);
                return;
            }
        }
        stall(reply.dataStall);
        size_t limit = reply.closeDataAfter < 0 ? std::string::npos
                                                : static_cast<size_t>(reply.closeDataAfter);
        if (reading) {
            std::string body;
            if (reply.body) {
                body = *reply.body;
            } else {
                std::lock_guard<std::mutex> lock(mutex_);
                if (verb == "RETR") {
                    auto it = files_.find(path);
                    if (it != files_.end()) body = it->second;
                } else {
                    body = listing_;
                }
            }
            if (body.size() > limit) body.resize(limit);
            size_t piece = reply.pieceBytes == 0 ? body.size() : reply.pieceBytes;
            bool ok = true;
            for (size_t at = 0; ok && at < body.size(); at += piece) {
                if (at > 0 && !pause(reply.pieceDelay)) ok = false;
                if (ok)
                    ok = channelSend(data, body.data() + at, std::min(piece, body.size() - at),
                                     stopping_);
            }
            if (reply.finalAfterClientClose) {
                char sink[4096];
                while (channelRecv(data, sink, sizeof sink, stopping_) > 0) {
                }
            }
        } else {
            std::string bytes;
            char chunk[16384];
            while (bytes.size() < limit) {
                size_t want = std::min(sizeof chunk, limit - bytes.size());
                ssize_t n = channelRecv(data, chunk, want, stopping_);
                if (n <= 0) break;
                bytes.append(chunk, static_cast<size_t>(n));
                std::lock_guard<std::mutex> lock(mutex_);
                uploading_[path] = bytes.size();
            }
            record.closeNotify = data.closeNotify;
            std::lock_guard<std::mutex> lock(mutex_);
            uploading_.erase(path);
            uploads_.push_back(bytes);
            if (verb == "STOR")
                files_[path] = bytes;
            else
                files_[path] += bytes;
        }
        // A reset rather than an orderly end: the peer's next read fails.
        const bool reset = reply.resetData || killed_.load();
        if (reset) resetOnClose(fd);
        endTls(data, !reset);
        closeFd(fd);
        noteDataConnection(record);
    }
    if (reply.noFinal) return;
    Reply closing;
    closing.delay = reply.finalDelay;
    closing.closeControl = reply.closeControl;
    sendControl(s, closing, reply.finalText.empty() ? "226 Transfer complete" : reply.finalText);
}

}  // namespace ftptest
