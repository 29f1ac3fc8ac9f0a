#include "LoginProbe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "ToolFormat.h"

namespace ftpdisk_tool {

namespace {

using Clock = std::chrono::steady_clock;

// "host[:port]" to an IPv4 address the way the module reads it: a numeric
// port as is, a port name or none ("ftp") through the services database, a
// dotted address as is and a host name through the resolver.
bool resolve(const std::string& server, sockaddr_in& address, std::string& problem) {
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    const std::string::size_type colon = server.find(':');
    const std::string host = server.substr(0, colon);
    const std::string port = colon == std::string::npos ? "ftp" : server.substr(colon + 1);
    if (!port.empty() && port[0] >= '0' && port[0] <= '9') {
        address.sin_port = htons(static_cast<uint16_t>(std::strtoul(port.c_str(), nullptr, 10)));
    } else {
        unsigned short networkOrder = 0;
        if (!lookUpServicePort(port, networkOrder)) {
            problem = "unknown port name \"" + port + "\"";
            return false;
        }
        address.sin_port = networkOrder;
    }
    if (::inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1) {
        return true;
    }
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* list = nullptr;
    const int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (error != 0 || list == nullptr) {
        problem = "the name " + host + " does not resolve (" + ::gai_strerror(error) + ")";
        return false;
    }
    address.sin_addr = reinterpret_cast<sockaddr_in*>(list->ai_addr)->sin_addr;
    ::freeaddrinfo(list);
    return true;
}

// One control connection, every wait bounded by its own deadline.
class Probe {
public:
    ~Probe() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    // Empty on success, else why not.
    std::string connect(const sockaddr_in& address) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd_ < 0) {
            return systemError(errno);
        }
        if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
            errno != EINPROGRESS) {
            return systemError(errno);
        }
        if (!waitFor(POLLOUT, Clock::now() + std::chrono::seconds(kProbeStepSeconds))) {
            return "no answer within " + std::to_string(kProbeStepSeconds) + " s";
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
            error = errno;
        }
        return error == 0 ? std::string() : systemError(error);
    }

    // The reply's code (its last line's) with that line in `line`, or -1
    // when none came in time or the server closed the connection (closed()
    // then tells which).
    int reply(std::string& line) {
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(kProbeStepSeconds);
        for (int lines = 0; lines < 1000;) {
            const std::string::size_type end = buffer_.find('\n');
            if (end == std::string::npos) {
                if (buffer_.size() > 65536 || !receive(deadline)) {
                    return -1;
                }
                continue;
            }
            line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            ++lines;
            if (!line.empty() && line[line.size() - 1] == '\r') {
                line.erase(line.size() - 1);
            }
            // "220-..." continues a reply; "220 ..." ends it.
            if (line.size() >= 3 && std::isdigit(static_cast<unsigned char>(line[0])) &&
                std::isdigit(static_cast<unsigned char>(line[1])) &&
                std::isdigit(static_cast<unsigned char>(line[2])) &&
                (line.size() == 3 || line[3] == ' ')) {
                return std::atoi(line.substr(0, 3).c_str());
            }
        }
        return -1;
    }

    bool send(const std::string& command) {
        const std::string text = command + "\r\n";
        std::size_t sent = 0;
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(kProbeStepSeconds);
        while (sent < text.size()) {
            const ssize_t n = ::send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n > 0) {
                sent += static_cast<std::size_t>(n);
            } else if ((n < 0 && errno != EAGAIN && errno != EINTR) ||
                       !waitFor(POLLOUT, deadline)) {
                return false;
            }
        }
        return true;
    }

    bool closed() const { return closed_; }

private:
    bool waitFor(short events, Clock::time_point deadline) {
        for (;;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return false;
            }
            struct pollfd one = {fd_, events, 0};
            const int n = ::poll(&one, 1, static_cast<int>(left.count()));
            if (n > 0) {
                return true;
            }
            if (n < 0 && errno != EINTR) {
                return false;
            }
        }
    }

    bool receive(Clock::time_point deadline) {
        for (;;) {
            char chunk[4096];
            const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
            if (n > 0) {
                buffer_.append(chunk, static_cast<std::size_t>(n));
                return true;
            }
            if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                closed_ = true;
                return false;
            }
            if (!waitFor(POLLIN, deadline)) {
                return false;
            }
        }
    }

    int fd_ = -1;
    bool closed_ = false;
    std::string buffer_;
};

// A server's reply line as printable text of bounded length, with the
// password taken out should a server ever echo it.
std::string shown(std::string line, const std::string& password) {
    if (!password.empty()) {
        for (std::string::size_type at = line.find(password); at != std::string::npos;
             at = line.find(password, at + 3)) {
            line.replace(at, password.size(), "***");
        }
    }
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = '?';
        }
    }
    if (line.size() > 160) {
        line = line.substr(0, 160) + "...";
    }
    return line;
}

}  // namespace

LoginProbe probeLogin(const Location& location) {
    LoginProbe result;
    const std::string cannot = "cannot connect to " + location.server + ": ";
    sockaddr_in address;
    std::string problem;
    if (!resolve(location.server, address, problem)) {
        result.text = cannot + problem;
        return result;
    }
    const Clock::time_point start = Clock::now();
    Probe probe;
    problem = probe.connect(address);
    if (!problem.empty()) {
        result.text = cannot + problem;
        return result;
    }
    std::string line;
    const int greeting = probe.reply(line);
    if (greeting < 0 && probe.closed()) {
        result.outcome = LoginProbe::kClosed;
        result.text = location.server + " closed the connection without a greeting";
        return result;
    }
    if (greeting < 0) {
        result.outcome = LoginProbe::kNoGreeting;
        result.text = location.server + " accepted the connection but sent no greeting within " +
                      std::to_string(kProbeStepSeconds) + " s";
        return result;
    }
    if (greeting / 100 != 2) {
        result.outcome = LoginProbe::kSessionRefused;
        result.reply = shown(line, location.password);
        result.text = location.server + " refused the session: " + result.reply;
        return result;
    }
    int answer = -1;
    if (probe.send("USER " + location.user)) {
        answer = probe.reply(line);
    }
    if (answer / 100 == 3 && probe.send("PASS " + location.password)) {
        answer = probe.reply(line);
    }
    if (answer / 100 == 2) {
        result.loginSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    }
    probe.send("QUIT");
    if (answer < 0) {
        result.outcome = LoginProbe::kNoLoginAnswer;
        result.text = location.server +
                      (probe.closed() ? " closed the connection at the login as "
                                      : " did not answer the login as ") +
                      location.user +
                      (probe.closed() ? std::string()
                                      : " within " + std::to_string(kProbeStepSeconds) + " s");
        return result;
    }
    if (answer / 100 != 2) {
        result.outcome = LoginProbe::kLoginRefused;
        result.reply = shown(line, location.password);
        result.text =
            location.server + " refused the login as " + location.user + ": " + result.reply;
        return result;
    }
    result.outcome = LoginProbe::kLoggedIn;
    result.text = location.server + " took a login as " + location.user + " just now";
    return result;
}

std::string explainLoginFailure(const Location& location) {
    const LoginProbe probe = probeLogin(location);
    if (probe.outcome != LoginProbe::kLoggedIn) {
        return probe.text;
    }
    // A second try just now went through: the first failed on the way.
    return "cannot connect to " + location.server + " or log in as " + location.user +
           " (a second try just now succeeded)";
}

}  // namespace ftpdisk_tool
