// The launcher of real FTP servers, checked with a bare client on plain
// sockets: every kind starts on loopback, greets, lets rec/pw log in, closes
// an idle control connection after the configured time, and leaves nothing
// behind.
#include "support/RealFtpServer.h"

#include <ctype.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "support/RawFtpSession.h"

namespace {

using std::chrono::milliseconds;

// Logs in over a fresh control connection; false when any step failed.
bool logIn(RawFtpSession& control) {
    if (!control.connected() || control.reply().substr(0, 4) != "220 ") return false;
    if (!control.send("USER rec") || control.reply().substr(0, 4) != "331 ") return false;
    return control.send("PASS pw") && control.reply().substr(0, 4) == "230 ";
}

// True while `pid` exists and has not ended. An ended process that waits
// for its reaper (a zombie) counts as ended: where the test process cannot
// be the reaper (under qemu-user), the system's reaper collects it later.
bool stillRunning(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
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

    RawFtpSession control(server.port());
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
    RawFtpSession control(server.port());
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

    RawFtpSession control(server.port());
    ASSERT_TRUE(logIn(control)) << server.logTail();
    control.send("TYPE I");
    EXPECT_EQ(control.reply().substr(0, 1), "2");
    control.send("SIZE /day/seg.bin");
    EXPECT_EQ(control.reply(), "213 7");
}

TEST_P(RealFtpServerLauncher, CloseSessionsEndsEveryControlConnectionButKeepsListening) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    RawFtpSession first(server.port());
    RawFtpSession second(server.port());
    ASSERT_TRUE(logIn(first)) << server.logTail();
    ASSERT_TRUE(logIn(second)) << server.logTail();
    EXPECT_TRUE(server.waitForSessionCount(2, milliseconds(5000))) << server.sessionCount();
    EXPECT_TRUE(server.closeSessions()) << server.sessionCount() << " sessions left";
    EXPECT_TRUE(first.closedByServer());
    EXPECT_TRUE(second.closedByServer());
    RawFtpSession later(server.port());
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
    RawFtpSession control(server.port());
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
        RawFtpSession control(server.port());
        ASSERT_TRUE(logIn(control)) << server.logTail();
        processes = server.processes();
        EXPECT_FALSE(processes.empty());
        server.stop();
        EXPECT_TRUE(control.closedByServer());
        EXPECT_TRUE(server.processes().empty());
    }
    for (pid_t pid : processes) {
        EXPECT_FALSE(stillRunning(pid)) << "process " << pid << " of the server still runs";
    }
    struct stat info;
    EXPECT_NE(::stat(root.c_str(), &info), 0) << root << " still exists";
    RawFtpSession late(port);
    EXPECT_FALSE(late.connected()) << "port " << port << " still accepts connections";
}

// The daemons unpacked by scripts/install-deps.sh, looked for in a folder
// that holds none of them: the server is not ready and says why, so that a
// test asserting ready() fails with that reason instead of being skipped.
class UnpackedServerMissing : public ::testing::TestWithParam<FtpServerKind> {
protected:
    void SetUp() override {
        const char* old = getenv("FTPDISK_SERVERS_DIR");
        hadOld_ = old != nullptr;
        if (hadOld_) old_ = old;
        setenv("FTPDISK_SERVERS_DIR", "/nonexistent/ftpdisk-servers", 1);
    }
    void TearDown() override {
        if (hadOld_) {
            setenv("FTPDISK_SERVERS_DIR", old_.c_str(), 1);
        } else {
            unsetenv("FTPDISK_SERVERS_DIR");
        }
    }

private:
    bool hadOld_ = false;
    std::string old_;
};

TEST_P(UnpackedServerMissing, IsNotReadyAndSaysWhatIsMissing) {
    const auto started = std::chrono::steady_clock::now();
    RealFtpServer server(GetParam());
    EXPECT_FALSE(server.ready());
    EXPECT_NE(server.failure().find("/nonexistent/ftpdisk-servers/"), std::string::npos)
        << server.failure();
    EXPECT_NE(server.failure().find("is missing: run scripts/install-deps.sh"), std::string::npos)
        << server.failure();
    EXPECT_EQ(server.port(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

INSTANTIATE_TEST_SUITE_P(UnpackedKinds, UnpackedServerMissing,
                         ::testing::Values(FtpServerKind::kProftpd, FtpServerKind::kPureftpd,
                                           FtpServerKind::kBusybox),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

// TLS servers: the certificate the harness made, and the server's own
// insistence on TLS before the login, checked in clear text (the module's
// client is not involved here).
class TlsServerLauncher : public ::testing::TestWithParam<FtpServerKind> {};

TEST_P(TlsServerLauncher, MakesACertificateForLoopbackAndRequiresAuthTlsBeforeTheLogin) {
    RealFtpServerOptions options;
    options.tls = true;
    RealFtpServer server(GetParam(), options);
    ASSERT_TRUE(server.ready()) << server.failure();
    EXPECT_TRUE(server.tls());
    EXPECT_EQ(server.location("/x"),
              "rec(pw)@ftps://127.0.0.1:" + std::to_string(server.port()) + "/x");
    // "AB:CD:...": 32 upper-case hex pairs.
    const std::string& fingerprint = server.fingerprint();
    ASSERT_EQ(fingerprint.size(), 95u) << fingerprint;
    for (size_t i = 0; i < fingerprint.size(); ++i) {
        if (i % 3 == 2) {
            EXPECT_EQ(fingerprint[i], ':') << fingerprint;
        } else {
            EXPECT_TRUE(isxdigit(static_cast<unsigned char>(fingerprint[i])) &&
                        !islower(static_cast<unsigned char>(fingerprint[i])))
                << fingerprint;
        }
    }
    struct stat info;
    EXPECT_EQ(::stat(server.caFile().c_str(), &info), 0) << server.caFile();
    EXPECT_EQ(::stat(server.certificateFile().c_str(), &info), 0) << server.certificateFile();

    // The login in clear text is refused, whatever each server says.
    RawFtpSession clear(server.port());
    ASSERT_TRUE(clear.connected());
    EXPECT_EQ(clear.reply().substr(0, 4), "220 ");
    std::string user = clear.command("USER rec");
    std::string pass = user.substr(0, 1) == "3" ? clear.command("PASS pw") : user;
    EXPECT_NE(pass.substr(0, 1), "2") << user << " / " << pass;
    EXPECT_FALSE(server.dirExists("/x"));

    // AUTH TLS is accepted (the handshake that follows is the module's
    // business: this client just closes).
    RawFtpSession secure(server.port());
    ASSERT_TRUE(secure.connected());
    EXPECT_EQ(secure.reply().substr(0, 4), "220 ");
    std::string auth = secure.command("AUTH TLS");
    EXPECT_EQ(auth.substr(0, 4), "234 ") << auth << "\n" << server.logTail();
}

TEST(TlsServerLauncher, BusyboxHasNoTlsAndSaysSo) {
    RealFtpServerOptions options;
    options.tls = true;
    RealFtpServer server(FtpServerKind::kBusybox, options);
    EXPECT_FALSE(server.ready());
    EXPECT_NE(server.failure().find("no TLS"), std::string::npos) << server.failure();
}

INSTANTIATE_TEST_SUITE_P(TlsKinds, TlsServerLauncher,
                         ::testing::Values(FtpServerKind::kPyftpdlib, FtpServerKind::kVsftpd,
                                           FtpServerKind::kProftpd, FtpServerKind::kPureftpd),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

INSTANTIATE_TEST_SUITE_P(EveryKind, RealFtpServerLauncher, ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
