#include "support/ScriptedFtpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

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
    {
        // Set under the lock so a pause() that checked the flag is already
        // waiting on the condition variable and gets the notification.
        std::lock_guard<std::mutex> lock(mutex_);
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

bool ScriptedFtpServer::pause(Millis delay) const {
    if (delay.count() <= 0) return !stopping_.load();
    std::unique_lock<std::mutex> lock(mutex_);
    return !changed_.wait_for(lock, delay, [&] { return stopping_.load(); });
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
        ssize_t n = recvSome(s.fd, buffer, sizeof buffer, stopping_);
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
    size_t piece = reply.controlPieceBytes == 0 ? bytes.size() : reply.controlPieceBytes;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        if (at > 0 && !pause(reply.controlPieceDelay)) return false;
        size_t n = std::min(piece, bytes.size() - at);
        if (!sendAll(s.fd, bytes.data() + at, n, stopping_)) {
            s.closed = true;
            return false;
        }
    }
    if (reply.closeControl) {
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

    std::string defaultText;
    std::string path = resolve(s.cwd, arg);
    if (verb == "USER") {
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
    sendControl(s, reply, text);
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
        if (reply.dataStall.count() > 0) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait_for(lock, reply.dataStall,
                              [&] { return stopping_.load() || stallsReleased_; });
        }
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
                    ok =
                        sendAll(fd, body.data() + at, std::min(piece, body.size() - at), stopping_);
            }
            if (reply.finalAfterClientClose) {
                char sink[4096];
                while (recvSome(fd, sink, sizeof sink, stopping_) > 0) {
                }
            }
        } else {
            std::string data;
            char chunk[16384];
            while (data.size() < limit) {
                size_t want = std::min(sizeof chunk, limit - data.size());
                ssize_t n = recvSome(fd, chunk, want, stopping_);
                if (n <= 0) break;
                data.append(chunk, static_cast<size_t>(n));
            }
            std::lock_guard<std::mutex> lock(mutex_);
            uploads_.push_back(data);
            if (verb == "STOR")
                files_[path] = data;
            else
                files_[path] += data;
        }
        if (reply.resetData) {
            // A reset rather than an orderly end: the peer's next read fails.
            linger abort{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        }
        closeFd(fd);
        changed_.notify_all();
    }
    if (reply.noFinal) return;
    Reply closing;
    closing.delay = reply.finalDelay;
    closing.closeControl = reply.closeControl;
    sendControl(s, closing, reply.finalText.empty() ? "226 Transfer complete" : reply.finalText);
}

}  // namespace ftptest
