// The launcher of real FTP servers, checked with a bare client on plain
// sockets: every kind starts on loopback, greets, lets rec/pw log in, closes
// an idle control connection after the configured time, and leaves nothing
// behind.
#include "support/RealFtpServer.h"

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

INSTANTIATE_TEST_SUITE_P(EveryKind, RealFtpServerLauncher, ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
