// What a recorder's user interface needs from the last error alone, against
// real servers: "wrong password", "server refuses more connections", "server
// unreachable" and "connection lost", each told apart by its kind.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "filesystem/FTPFileSystem.h"
#include "support/RealFtpServer.h"

namespace {

// What a recorder would show for the last error: the words its user reads.
std::string shownToTheUser() {
    const FTPFileSystem::LastError e = FTPFileSystem::getLastError();
    switch (e.kind) {
        case FTPFileSystem::kErrorNone: return "ok";
        case FTPFileSystem::kErrorLoginRefused: return "wrong password";
        case FTPFileSystem::kErrorTurnedAway: return "server refuses more connections";
        case FTPFileSystem::kErrorConnectRefused:
        case FTPFileSystem::kErrorUnreachable: return "server unreachable";
        case FTPFileSystem::kErrorConnectionLost:
        case FTPFileSystem::kErrorNoReply: return "connection lost";
        default: return std::string("other: ") + FTPFileSystem::errorKindName(e.kind);
    }
}

std::string lastText() { return FTPFileSystem::getLastError().text; }

class LastErrorOnARealServer : public ::testing::TestWithParam<FtpServerKind> {};

TEST_P(LastErrorOnARealServer, AWrongPasswordIsShownAsSuch) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    FTPFileSystem store(server.hostPort().c_str(), "rec", "wrong", 1024);
    EXPECT_EQ(store.init(), -1);
    EXPECT_EQ(shownToTheUser(), "wrong password") << lastText();
    EXPECT_EQ(lastText().compare(0, 3, "530"), 0) << lastText();
}

TEST_P(LastErrorOnARealServer, AServerAtItsLimitIsShownAsRefusingMoreConnections) {
    RealFtpServerOptions options;
    options.maxClients = 2;
    RealFtpServer server(GetParam(), options);
    ASSERT_TRUE(server.ready()) << server.failure();
    // The server's own start-up check has ended its session.
    ASSERT_TRUE(server.waitForSessionCount(0, std::chrono::seconds(10)));
    FTPFileSystem store(server.hostPort().c_str(), "rec", "pw", 1024);
    ASSERT_EQ(store.init(), 0) << shownToTheUser() << ": " << lastText();
    // The store's own connection and one file's are allowed; a second file
    // needs a third.
    const int first = store.open("/cam1.ts", 2);
    ASSERT_GT(first, 0) << shownToTheUser() << ": " << lastText();
    EXPECT_EQ(store.open("/cam2.ts", 2), -1);
    EXPECT_EQ(shownToTheUser(), "server refuses more connections") << lastText();
    EXPECT_EQ(lastText().compare(0, 3, "421"), 0) << lastText();
    EXPECT_EQ(store.close(first), 0);
}

TEST_P(LastErrorOnARealServer, AStoppedServerIsShownAsLostThenUnreachable) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    ASSERT_TRUE(server.makeDir("/rec"));
    const std::string address = server.hostPort();
    FTPFileSystem store(address.c_str(), "rec", "pw", 1024);
    ASSERT_EQ(store.init(), 0) << lastText();
    EXPECT_TRUE(store.isDirExist("/rec"));
    EXPECT_EQ(shownToTheUser(), "ok");
    server.stop();
    // The main connection meets the closed server: "no" is not "absent".
    EXPECT_FALSE(store.isDirExist("/rec"));
    EXPECT_EQ(shownToTheUser(), "connection lost") << lastText();
    EXPECT_EQ(store.uninit(), 0);
    EXPECT_EQ(store.init(), -1);
    EXPECT_EQ(shownToTheUser(), "server unreachable") << lastText();
}

INSTANTIATE_TEST_SUITE_P(PyftpdlibAndVsftpd, LastErrorOnARealServer,
                         ::testing::Values(FtpServerKind::kPyftpdlib, FtpServerKind::kVsftpd),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
