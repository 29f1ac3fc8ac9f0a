// Raw TCP client steps for the network lab's tests: connect, send, and read
// with a bounded wait, reporting how the stream ended so that a test can tell
// an end of stream from a reset from silence.
#ifndef FTPDISK_TESTS_NETLAB_RAWCLIENT_H
#define FTPDISK_TESTS_NETLAB_RAWCLIENT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include "support/FdCount.h"

namespace labtest {

using Millis = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// How a read ended.
enum class End { kEnough, kEof, kReset, kError, kSilent };

inline const char* endName(End end) {
    switch (end) {
        case End::kEnough: return "enough";
        case End::kEof: return "end of stream";
        case End::kReset: return "reset";
        case End::kError: return "error";
        case End::kSilent: return "silence";
    }
    return "?";
}

// A blocking connection to host:port (host a dotted IPv4 address); -1 with
// errno set on failure.
inline int connectToAddress(const char* host, uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, host, &address.sin_addr);
    address.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

// A blocking connection to 127.0.0.1:port; -1 with errno set on failure.
inline int connectTo(uint16_t port) { return connectToAddress("127.0.0.1", port); }

inline bool sendText(int fd, const std::string& text) {
    size_t at = 0;
    for (int i = 0; at < text.size() && i < 10000; ++i) {
        ssize_t n = ::send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return at == text.size();
}

// Reads until `want` bytes came (0: until the stream ends), the stream ends,
// or `limit` passes with nothing more. The bytes go to *got.
inline End readFor(int fd, size_t want, Millis limit, std::string* got) {
    Clock::time_point deadline = Clock::now() + limit;
    char buffer[16384];
    for (;;) {
        if (want > 0 && got->size() >= want) return End::kEnough;
        auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
        if (left <= 0) return End::kSilent;
        pollfd p{fd, POLLIN, 0};
        int ready = ::poll(&p, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return End::kError;
        if (ready == 0) return End::kSilent;
        size_t room = want > 0 ? std::min(sizeof buffer, want - got->size()) : sizeof buffer;
        ssize_t n = ::recv(fd, buffer, room, 0);
        if (n > 0) {
            got->append(buffer, static_cast<size_t>(n));
            continue;
        }
        if (n == 0) return End::kEof;
        if (errno == EINTR || errno == EAGAIN) continue;
        return errno == ECONNRESET ? End::kReset : End::kError;
    }
}

// One line up to and including "\n" (or what came before the stream ended or
// `limit` passed).
inline std::string readLine(int fd, Millis limit = Millis(5000)) {
    std::string line;
    Clock::time_point deadline = Clock::now() + limit;
    while (line.empty() || line.back() != '\n') {
        auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now());
        if (left.count() <= 0) break;
        std::string one;
        if (readFor(fd, 1, left, &one) != End::kEnough) {
            line += one;
            break;
        }
        line += one;
    }
    return line;
}

inline int waitForThreadCount(int expected, Millis limit = Millis(3000)) {
    Clock::time_point deadline = Clock::now() + limit;
    int count = ftptest::threadCount();
    while (count != expected && Clock::now() < deadline) {
        std::this_thread::sleep_for(Millis(10));
        count = ftptest::threadCount();
    }
    return count;
}

// RAII for a raw descriptor.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

}  // namespace labtest

#endif  // FTPDISK_TESTS_NETLAB_RAWCLIENT_H
