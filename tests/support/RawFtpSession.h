// RawFtpSession: a bare FTP client over plain sockets for probing real
// servers line by line, independent of the module's own client. Sends exactly
// the line it is given and reports the server's reply as received. Passive
// data connections only, and only to 127.0.0.1: a server that announces any
// other address gets no connection. One thread uses an object.
#ifndef FTPDISK_TESTS_SUPPORT_RAWFTPSESSION_H
#define FTPDISK_TESTS_SUPPORT_RAWFTPSESSION_H

#include <string>

// A socket connected to 127.0.0.1:`port`, with `seconds` as its send and
// receive limits; -1 when it cannot connect. The raw sessions' one connect.
int connectLoopback(int port, int seconds);

class RawFtpSession {
public:
    // Connects to 127.0.0.1:port; every later read waits at most
    // `replySeconds` for the server.
    explicit RawFtpSession(int port, int replySeconds = 10);
    ~RawFtpSession();

    RawFtpSession(const RawFtpSession&) = delete;
    RawFtpSession& operator=(const RawFtpSession&) = delete;

    bool connected() const { return fd_ >= 0; }

    // The last line of the next reply, without its line end ("230 Login
    // successful."), or "" when the connection ended or stayed silent.
    std::string reply();
    // Sends `line` with a line end added; false when it could not be sent.
    bool send(const std::string& line);
    // Sends `line` (a line end is added) and returns reply(); "" when the
    // line could not be sent.
    std::string command(const std::string& line);
    // Reads the greeting, then USER and PASS; true when the last reply is 2xx.
    bool logIn(const std::string& user, const std::string& password);

    struct Transfer {
        std::string pasv;         // reply to "PASV"
        std::string preliminary;  // first reply to the transfer line
        std::string final;        // closing reply after the data ("" when none)
        std::string data;         // bytes received on the data connection
    };
    // "PASV", a data connection to the announced port, then `line`. When the
    // reply is 1xx, sends `upload` (when given) or reads to the end of data,
    // closes the data connection and reads the closing reply.
    Transfer transfer(const std::string& line, const std::string* upload = nullptr);

    // True once the server has closed the control connection.
    bool closedByServer();

private:
    std::string readLine(bool* ended);

    int fd_ = -1;
    std::string pending_;
};

#endif  // FTPDISK_TESTS_SUPPORT_RAWFTPSESSION_H
