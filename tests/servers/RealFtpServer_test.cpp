// The launcher of real FTP servers, checked with plain sockets: every kind
// starts on loopback, greets, lets rec/pw log in, closes an idle control
// connection after the configured time, and leaves nothing behind.
#include "support/RealFtpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;

// A minimal FTP control connection: connect, send a line, read one reply.
class RawControl {
public:
    explicit RawControl(int port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        timeval limit{10, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawControl() { ::close(fd_); }

    bool connected() const { return connected_; }

    bool send(const std::string& line) {
        std::string text = line + "\r\n";
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }

    // The last line of the next reply ("230 Login successful."), or "" when
    // the connection ended or said nothing within 10 s (servers pause
    // a few seconds after a wrong password).
    std::string reply() {
        for (;;) {
            size_t end = pending_.find("\r\n");
            while (end == std::string::npos) {
                char chunk[512];
                ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
                if (n <= 0) return "";
                pending_.append(chunk, static_cast<size_t>(n));
                end = pending_.find("\r\n");
            }
            std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 2);
            if (line.size() >= 4 && isdigit(static_cast<unsigned char>(line[0])) &&
                line[3] == ' ') {
                return line;
            }
        }
    }

    // True once the server has closed the connection (recv sees the end).
    bool closedByServer() {
        char byte;
        for (int i = 0; i < 100; ++i) {
            ssize_t n = ::recv(fd_, &byte, 1, 0);
            if (n == 0) return true;
            if (n < 0) return errno == ECONNRESET;
        }
        return false;
    }

private:
    int fd_ = -1;
    bool connected_ = false;
    std::string pending_;
};

// Logs in over a fresh control connection; false when any step failed.
bool logIn(RawControl& control) {
    if (!control.connected() || control.reply().substr(0, 4) != "220 ") return false;
    if (!control.send("USER rec") || control.reply().substr(0, 4) != "331 ") return false;
    return control.send("PASS pw") && control.reply().substr(0, 4) == "230 ";
}

class RealFtpServerLauncher : public ::testing::TestWithParam<FtpServerKind> {};

TEST_P(RealFtpServerLauncher, StartsGreetsAndLetsRecLogIn) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    EXPECT_GT(server.port(), 0);
    EXPECT_EQ(server.hostPort(), "127.0.0.1:" + std::to_string(server.port()));
    EXPECT_EQ(server.location("/rec"),
              "rec(pw)@ftp://127.0.0.1:" + std::to_string(server.port()) + "/rec");
    EXPECT_TRUE(server.dirExists("/")) << server.root();

    RawControl control(server.port());
    ASSERT_TRUE(control.connected());
    EXPECT_EQ(control.reply().substr(0, 4), "220 ");
    ASSERT_TRUE(control.send("USER rec"));
    EXPECT_EQ(control.reply().substr(0, 4), "331 ");
    ASSERT_TRUE(control.send("PASS pw"));
    std::string loggedIn = control.reply();
    EXPECT_EQ(loggedIn.substr(0, 4), "230 ") << loggedIn << "\n" << server.logTail();
    // The user's "/" is the temporary root: a folder made there by the
    // server shows up below root().
    ASSERT_TRUE(control.send("MKD made-by-server"));
    std::string made = control.reply();
    EXPECT_EQ(made.substr(0, 4), "257 ") << made;
    EXPECT_TRUE(server.dirExists("/made-by-server")) << server.logTail();
    EXPECT_TRUE(server.waitForSessionCount(1, milliseconds(5000)));
    ASSERT_TRUE(control.send("QUIT"));
    EXPECT_EQ(control.reply().substr(0, 1), "2");
    EXPECT_TRUE(server.waitForSessionCount(0, milliseconds(5000)))
        << server.sessionCount() << " sessions";
}

TEST_P(RealFtpServerLauncher, RefusesAWrongPassword) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    RawControl control(server.port());
    ASSERT_TRUE(control.connected());
    EXPECT_EQ(control.reply().substr(0, 4), "220 ");
    ASSERT_TRUE(control.send("USER rec"));
    EXPECT_EQ(control.reply().substr(0, 4), "331 ");
    ASSERT_TRUE(control.send("PASS wrong"));
    std::string refused = control.reply();
    EXPECT_EQ(refused.substr(0, 1), "5") << refused;
}

TEST_P(RealFtpServerLauncher, FilesWrittenInTheRootAreReadableOverFtp) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    ASSERT_TRUE(server.makeDir("/day"));
    ASSERT_TRUE(server.writeFile("/day/seg.bin", std::string("abc\0def", 7)));
    std::string bytes;
    ASSERT_TRUE(server.readFile("day/seg.bin", &bytes));
    EXPECT_EQ(bytes, std::string("abc\0def", 7));
    EXPECT_TRUE(server.fileExists("/day/seg.bin"));
    EXPECT_FALSE(server.fileExists("/day"));

    RawControl control(server.port());
    ASSERT_TRUE(logIn(control)) << server.logTail();
    control.send("TYPE I");
    EXPECT_EQ(control.reply().substr(0, 1), "2");
    control.send("SIZE /day/seg.bin");
    EXPECT_EQ(control.reply(), "213 7");
}

TEST_P(RealFtpServerLauncher, CloseSessionsEndsEveryControlConnectionButKeepsListening) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    RawControl first(server.port());
    RawControl second(server.port());
    ASSERT_TRUE(logIn(first)) << server.logTail();
    ASSERT_TRUE(logIn(second)) << server.logTail();
    EXPECT_TRUE(server.waitForSessionCount(2, milliseconds(5000))) << server.sessionCount();
    EXPECT_TRUE(server.closeSessions()) << server.sessionCount() << " sessions left";
    EXPECT_TRUE(first.closedByServer());
    EXPECT_TRUE(second.closedByServer());
    RawControl later(server.port());
    EXPECT_TRUE(logIn(later)) << server.logTail();
}

// pure-ftpd counts its idle limit in whole minutes, too long to wait for
// here; closeSessions() stands in for it in the tests that need a server
// that drops a session.
class ServerWithIdleLimitInSeconds : public ::testing::TestWithParam<FtpServerKind> {};

TEST_P(ServerWithIdleLimitInSeconds, ClosesAnIdleControlConnectionAfterItsIdleTime) {
    RealFtpServerOptions options;
    options.idleTimeoutSeconds = 1;
    RealFtpServer server(GetParam(), options);
    ASSERT_TRUE(server.ready()) << server.failure();
    RawControl control(server.port());
    ASSERT_TRUE(logIn(control)) << server.logTail();
    // The server says goodbye (a 421 on most) and closes well within the
    // 10 s receive limit of one read.
    std::string last = control.reply();
    EXPECT_TRUE(last.empty() || last[0] == '4') << last;
    EXPECT_TRUE(control.closedByServer());
    EXPECT_TRUE(server.waitForSessionCount(0, milliseconds(5000)));
}

INSTANTIATE_TEST_SUITE_P(SecondsKinds, ServerWithIdleLimitInSeconds,
                         ::testing::Values(FtpServerKind::kPyftpdlib, FtpServerKind::kVsftpd,
                                           FtpServerKind::kProftpd, FtpServerKind::kBusybox),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

TEST_P(RealFtpServerLauncher, StopEndsTheServerWithItsSessionsAndDeletesItsRoot) {
    std::string root;
    int port = 0;
    std::vector<pid_t> processes;
    {
        RealFtpServer server(GetParam());
        ASSERT_TRUE(server.ready()) << server.failure();
        root = server.root();
        port = server.port();
        // A logged-in session left open must not keep anything alive.
        RawControl control(server.port());
        ASSERT_TRUE(logIn(control)) << server.logTail();
        processes = server.processes();
        EXPECT_FALSE(processes.empty());
        server.stop();
        EXPECT_TRUE(control.closedByServer());
        EXPECT_TRUE(server.processes().empty());
    }
    for (pid_t pid : processes) {
        EXPECT_NE(::kill(pid, 0), 0) << "process " << pid << " of the server still exists";
    }
    struct stat info;
    EXPECT_NE(::stat(root.c_str(), &info), 0) << root << " still exists";
    RawControl late(port);
    EXPECT_FALSE(late.connected()) << "port " << port << " still accepts connections";
}

INSTANTIATE_TEST_SUITE_P(EveryKind, RealFtpServerLauncher,
                         ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
