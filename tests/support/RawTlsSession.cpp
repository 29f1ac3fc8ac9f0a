#include "support/RawTlsSession.h"

#include "support/RawFtpSession.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <utility>

RawTlsSession::RawTlsSession(const std::string& caFile) {
    // OpenSSL writes to the socket without MSG_NOSIGNAL: a server that closed
    // the session must show as a failed write, not end the test process.
    ::signal(SIGPIPE, SIG_IGN);
    context_ = SSL_CTX_new(TLS_client_method());
    if (context_ == nullptr) return;
    SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION);
    SSL_CTX_load_verify_locations(context_, caFile.c_str(), nullptr);
    SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
    // Sessions are kept so that a data connection can offer them.
    SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_CLIENT);
}

RawTlsSession::~RawTlsSession() {
    if (control_ != nullptr) SSL_free(control_);
    if (fd_ >= 0) ::close(fd_);
    if (context_ != nullptr) SSL_CTX_free(context_);
}

std::string RawTlsSession::secure(int port) {
    if (context_ == nullptr) return "context";
    fd_ = connectLoopback(port, 10);
    if (fd_ < 0) return "connect";
    greeting_ = plainReply();
    if (greeting_.compare(0, 3, "220") != 0) return "greeting";
    const char auth[] = "AUTH TLS\r\n";
    if (::send(fd_, auth, sizeof auth - 1, MSG_NOSIGNAL) != sizeof auth - 1) return "send";
    authReply_ = plainReply();
    if (authReply_.compare(0, 1, "2") != 0) return "AUTH TLS";
    control_ = SSL_new(context_);
    SSL_set_fd(control_, fd_);
    SSL_set1_host(control_, "127.0.0.1");
    if (SSL_connect(control_) != 1) {
        ERR_clear_error();
        return "handshake";
    }
    return "";
}

std::string RawTlsSession::protocol() const {
    return control_ != nullptr ? SSL_get_version(control_) : "";
}

std::string RawTlsSession::cipher() const {
    const char* name = control_ != nullptr ? SSL_get_cipher_name(control_) : nullptr;
    return name != nullptr ? name : "";
}

std::string RawTlsSession::logIn(const std::string& user, const std::string& password) {
    loginReplies_.clear();
    if (control_ == nullptr) return "no TLS";
    const std::pair<std::string, char> steps[] = {
        {"USER " + user, '3'}, {"PASS " + password, '2'}, {"PBSZ 0", '2'}, {"PROT P", '2'}};
    for (const auto& step : steps) {
        loginReplies_.push_back(command(step.first));
        if (loginReplies_.back().compare(0, 1, std::string(1, step.second)) != 0) {
            return step.first.substr(0, 4);
        }
    }
    return "";
}

std::string RawTlsSession::plainReply() {
    std::string line;
    char ch = 0;
    while (line.size() < 4096 && ::recv(fd_, &ch, 1, 0) == 1) {
        if (ch == '\n') {
            if (line.size() >= 4 && line[3] == ' ') return line;
            line.clear();
            continue;
        }
        if (ch != '\r') line += ch;
    }
    return line;
}

std::string RawTlsSession::reply() {
    if (control_ == nullptr) return "";
    std::string line;
    for (int lines = 0; lines < 1000; ++lines) {
        line.clear();
        char ch = 0;
        while (line.size() < 4096) {
            if (SSL_read(control_, &ch, 1) != 1) {
                ERR_clear_error();
                return line;
            }
            if (ch == '\n') break;
            if (ch != '\r') line += ch;
        }
        if (line.size() >= 4 && line[3] == ' ') return line;
    }
    return line;
}

std::string RawTlsSession::command(const std::string& line) {
    if (control_ == nullptr) return "";
    std::string text = line + "\r\n";
    if (SSL_write(control_, text.data(), static_cast<int>(text.size())) <= 0) {
        ERR_clear_error();
        return "";
    }
    return reply();
}

RawTlsSession::Listing RawTlsSession::list(const std::string& path, bool offerSession) {
    Listing result;
    std::string pasv = command("PASV");
    unsigned p[6] = {0, 0, 0, 0, 0, 0};
    size_t open = pasv.find('(');
    if (open == std::string::npos || sscanf(pasv.c_str() + open, "(%u,%u,%u,%u,%u,%u", &p[0], &p[1],
                                            &p[2], &p[3], &p[4], &p[5]) != 6) {
        result.preliminary = "(PASV: " + pasv + ")";
        return result;
    }
    int data = connectLoopback(static_cast<int>(p[4] * 256 + p[5]), 10);
    if (data < 0) {
        result.preliminary = "(no data connection)";
        return result;
    }
    result.preliminary = command(path.empty() ? "LIST" : "LIST " + path);
    if (result.preliminary.compare(0, 1, "1") == 0) {
        SSL* ssl = SSL_new(context_);
        SSL_set_fd(ssl, data);
        if (offerSession) {
            SSL_SESSION* session = SSL_get1_session(control_);
            SSL_set_session(ssl, session);
            SSL_SESSION_free(session);
        }
        result.handshake = SSL_connect(ssl) == 1;
        if (result.handshake) {
            result.resumed = SSL_session_reused(ssl) == 1;
            char chunk[4096];
            for (int reads = 0; reads < 10000; ++reads) {
                int n = SSL_read(ssl, chunk, sizeof chunk);
                if (n <= 0) break;
                result.data.append(chunk, static_cast<size_t>(n));
            }
            SSL_shutdown(ssl);
        }
        SSL_free(ssl);
        ::close(data);
        ERR_clear_error();
        result.final = reply();
    } else {
        ::close(data);
    }
    return result;
}
