#include "support/RawFtpSession.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

// A socket connected to 127.0.0.1:`port`, with `seconds` as its send and
// receive limits; -1 when it cannot connect.
int connectLoopback(int port, int seconds) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    timeval limit{seconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

namespace {

bool sendAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

RawFtpSession::RawFtpSession(int port, int replySeconds) {
    fd_ = connectLoopback(port, replySeconds);
}

RawFtpSession::~RawFtpSession() {
    if (fd_ >= 0) ::close(fd_);
}

std::string RawFtpSession::readLine(bool* ended) {
    *ended = false;
    for (;;) {
        size_t end = pending_.find('\n');
        if (end != std::string::npos) {
            std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            return line;
        }
        char chunk[1024];
        ssize_t n = fd_ < 0 ? 0 : ::recv(fd_, chunk, sizeof chunk, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *ended = true;
            return "";
        }
        pending_.append(chunk, static_cast<size_t>(n));
    }
}

std::string RawFtpSession::reply() {
    // "230-first line" ... "230 last line": the reply ends at the line that
    // repeats the code followed by a blank.
    bool ended = false;
    std::string first = readLine(&ended);
    if (ended) return "";
    if (first.size() < 4 || first[3] != '-') return first;
    std::string closing = first.substr(0, 3) + " ";
    for (int lines = 0; lines < 1000; ++lines) {
        std::string line = readLine(&ended);
        if (ended) return "";
        if (line.compare(0, 4, closing) == 0) return line;
    }
    return "";
}

bool RawFtpSession::send(const std::string& line) {
    return fd_ >= 0 && sendAll(fd_, line + "\r\n");
}

std::string RawFtpSession::command(const std::string& line) { return send(line) ? reply() : ""; }

bool RawFtpSession::logIn(const std::string& user, const std::string& password) {
    if (reply().compare(0, 1, "2") != 0) return false;
    std::string answer = command("USER " + user);
    if (answer.compare(0, 1, "3") == 0) answer = command("PASS " + password);
    return answer.compare(0, 1, "2") == 0;
}

RawFtpSession::Transfer RawFtpSession::transfer(const std::string& line,
                                                const std::string* upload) {
    Transfer result;
    result.pasv = command("PASV");
    unsigned h[4] = {0, 0, 0, 0}, p[2] = {0, 0};
    size_t open = result.pasv.find('(');
    if (result.pasv.compare(0, 1, "2") != 0 || open == std::string::npos ||
        sscanf(result.pasv.c_str() + open, "(%u,%u,%u,%u,%u,%u", &h[0], &h[1], &h[2], &h[3], &p[0],
               &p[1]) != 6) {
        return result;
    }
    if (h[0] != 127 || h[1] != 0 || h[2] != 0 || h[3] != 1) {
        result.preliminary = "(not connected: the server announced another address)";
        return result;
    }
    int data = connectLoopback(static_cast<int>(p[0] * 256 + p[1]), 10);
    if (data < 0) {
        result.preliminary = "(data connection refused)";
        return result;
    }
    result.preliminary = command(line);
    if (result.preliminary.compare(0, 1, "1") == 0) {
        if (upload) {
            sendAll(data, *upload);
        } else {
            char chunk[4096];
            for (int reads = 0; reads < 100000; ++reads) {
                ssize_t n = ::recv(data, chunk, sizeof chunk, 0);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                result.data.append(chunk, static_cast<size_t>(n));
            }
        }
        ::shutdown(data, SHUT_RDWR);
        ::close(data);
        result.final = reply();
    } else {
        ::close(data);
    }
    return result;
}

bool RawFtpSession::closedByServer() {
    char byte;
    for (int reads = 0; reads < 100; ++reads) {
        ssize_t n = fd_ < 0 ? 0 : ::recv(fd_, &byte, 1, 0);
        if (n == 0) return true;
        if (n < 0) return errno == ECONNRESET;
    }
    return false;
}
