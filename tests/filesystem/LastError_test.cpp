// What FTPFileSystem::getLastError tells after each kind of failure of the
// exported calls, against the scripted server: the kind and the text, that a
// success clears it, that a question keeps what made its answer, and that it
// belongs to the calling thread alone.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "ftpdisk_host/HostControl.h"
#include "support/ScriptedFtpServer.h"

namespace {

using ftptest::Millis;
using ftptest::Reply;

// "kind: text", for assertions that print what was there.
std::string lastError() {
    const FTPFileSystem::LastError e = FTPFileSystem::getLastError();
    return std::string(FTPFileSystem::errorKindName(e.kind)) + ": " + e.text;
}

int lastKind() { return FTPFileSystem::getLastError().kind; }

// A port on 127.0.0.1 where nothing listens (free a moment ago).
std::string nobodyListening() {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    // A failed bind leaves port 0, where nothing listens either.
    (void)::bind(probe, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::getsockname(probe, reinterpret_cast<sockaddr*>(&a), &n);
    ::close(probe);
    return "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
}

class LastError : public ::testing::Test {
protected:
    FTPFileSystem& initialised() {
        EXPECT_EQ(store.init(), 0) << lastError();
        return store;
    }

    ftptest::ScriptedFtpServer server;
    FTPFileSystem store{server.address().c_str(), "rec", "pw", 1024};
};

TEST_F(LastError, ANewThreadAndASuccessfulCallHaveNone) {
    std::string seen;
    std::thread fresh([&] { seen = lastError(); });
    fresh.join();
    EXPECT_EQ(seen, "none: ");
    EXPECT_EQ(store.init(), 0);
    EXPECT_EQ(lastError(), "none: ");
    EXPECT_EQ(store.createDir("/rec/day"), 0);
    EXPECT_EQ(lastError(), "none: ");
}

TEST_F(LastError, AWrongPasswordIsALoginRefusalWithTheServersReply) {
    server.queueReply("PASS", "530 Login incorrect.");
    EXPECT_EQ(store.init(), -1);
    EXPECT_EQ(lastKind(), FTPFileSystem::kErrorLoginRefused) << lastError();
    EXPECT_EQ(lastError(), "login refused: 530 Login incorrect.");
}

TEST_F(LastError, AServerAtItsLimitTurnsTheSessionAway) {
    server.setGreeting("421 Too many connections (3) from this IP");
    EXPECT_EQ(store.init(), -1);
    EXPECT_EQ(lastError(), "turned away: 421 Too many connections (3) from this IP");
    // The same for an open that needs a new connection; the greeting refused.
    EXPECT_EQ(store.open("/rec/cam1.ts", 2), -1);
    EXPECT_EQ(lastKind(), FTPFileSystem::kErrorTurnedAway) << lastError();
    // A 421 in answer to the login says the same.
    server.setGreeting("220 ready");
    server.queueReply("USER", "421 Service not available, closing control connection.");
    EXPECT_EQ(store.init(), -1);
    EXPECT_EQ(lastError(), "turned away: 421 Service not available, closing control connection.");
}

TEST_F(LastError, NothingListeningIsARefusedConnect) {
    FTPFileSystem nowhere(nobodyListening().c_str(), "rec", "pw", 1024);
    EXPECT_EQ(nowhere.init(), -1);
    EXPECT_EQ(lastError(), "connection refused: Connection refused");
}

TEST_F(LastError, AnAddressThatNeverAnswersIsUnreachableAfterTheConnectLimit) {
    // A listener whose one-place queue is full: its SYNs are dropped.
    const int deaf = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    ASSERT_EQ(::bind(deaf, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(deaf, 0), 0);
    ASSERT_EQ(::getsockname(deaf, reinterpret_cast<sockaddr*>(&a), &n), 0);
    const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    const std::string where = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    FTPFileSystem silent(where.c_str(), "rec", "pw", 1024);

    hostcontrol::useManualClock(1000.0, 1000.0);
    std::atomic<bool> done{false};
    int result = 0;
    std::string seen;
    std::thread caller([&] {
        result = silent.init();
        seen = lastError();
        done = true;
    });
    // The connect limit is counted on the hand-driven clock: moved past it in
    // steps until the call returns (bounded).
    for (int i = 0; i < 200 && !done; ++i) {
        hostcontrol::advanceClock(11.0);
        std::this_thread::sleep_for(Millis(20));
    }
    caller.join();
    hostcontrol::useSystemClock();
    ::close(filler);
    ::close(deaf);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(seen, "unreachable: Connection timed out");
}

TEST_F(LastError, AConnectionTheServerClosesIsLost) {
    initialised();
    Reply gone;
    gone.closeControl = true;
    server.queueReply("MKD", gone);
    server.setReply("CWD /rec/", "550 No such directory");
    EXPECT_EQ(store.createDir("/rec/"), -1);
    EXPECT_EQ(lastError(), "connection lost: connection closed by the server");
}

TEST_F(LastError, AReplyThatDoesNotComeIsNoReply) {
    initialised();
    Reply silent;
    silent.silent = true;
    server.queueReply("RNFR", silent);
    EXPECT_EQ(store.renameFile("/a", "/b"), -1);
    EXPECT_EQ(lastError(), "no reply: no reply in time");
    // The next command is held back while the reply is still owed.
    EXPECT_EQ(store.renameFile("/a", "/b"), -1);
    EXPECT_EQ(lastError(), "no reply: command not sent: an earlier reply is still owed");
}

TEST_F(LastError, AQuestionAnsweredNoTellsARefusalFromALostConnection) {
    initialised();
    server.queueReply("CWD /rec", "550 No such directory");
    EXPECT_FALSE(store.isDirExist("/rec"));
    EXPECT_EQ(lastError(), "refused: 550 No such directory");
    // A "yes" has nothing to tell.
    EXPECT_TRUE(store.isDirExist("/rec"));
    EXPECT_EQ(lastError(), "none: ");
    // A "no" because the server went away.
    Reply gone;
    gone.closeControl = true;
    server.queueReply("CWD /rec", gone);
    EXPECT_FALSE(store.isDirExist("/rec"));
    EXPECT_EQ(lastKind(), FTPFileSystem::kErrorConnectionLost) << lastError();
    // isEmptyDir's "empty" for a folder the server refuses to enter.
    FTPFileSystem other(server.address().c_str(), "rec", "pw", 1024);
    ASSERT_EQ(other.init(), 0);
    server.queueReply("CWD /gone", "550 No such directory");
    EXPECT_TRUE(other.isEmptyDir("/gone"));
    EXPECT_EQ(lastError(), "refused: 550 No such directory");
}

TEST_F(LastError, CallsThatAlwaysSucceedLeaveNone) {
    initialised();
    EXPECT_EQ(store.moveDir("/a", "/b"), 0);
    EXPECT_EQ(lastError(), "none: ");
    EXPECT_EQ(store.uninit(), 0);
    EXPECT_EQ(lastError(), "none: ");
}

TEST_F(LastError, AYesKeepsNothingOfTheTransferItCutShort) {
    initialised();
    // A file larger than the socket buffers: the server says 426 when the
    // store closes the data connection unread.
    server.putFile("/rec/big.ts", std::string(1 << 20, 'b'));
    Reply cut("150 Opening data connection");
    cut.finalText = "426 Connection closed; transfer aborted.";
    server.queueReply("RETR /rec/big.ts", cut);
    EXPECT_TRUE(store.isFileExist("/rec/big.ts"));
    EXPECT_EQ(lastError(), "none: ");
}

TEST_F(LastError, AFileMissingFromItsListingIsNotFound) {
    initialised();
    server.setListing("-rw-r--r-- 1 rec rec 42 Jan 15 10:31 a.ts\r\n");
    EXPECT_EQ(store.getFileLength("/rec/a.ts"), 42);
    EXPECT_EQ(lastError(), "none: ");
    EXPECT_EQ(store.getFileLength("/rec/b.ts"), -1);
    EXPECT_EQ(lastKind(), FTPFileSystem::kErrorNotFound) << lastError();
}

TEST_F(LastError, ArgumentsStateAndLocalLimitsHaveKindsOfTheirOwn) {
    EXPECT_EQ(store.createDir("/rec"), -1);
    EXPECT_EQ(lastError(), "not initialised: the store is not initialised");
    initialised();
    EXPECT_EQ(store.createDir(nullptr), -1);
    EXPECT_EQ(lastKind(), FTPFileSystem::kErrorBadArgument) << lastError();
    char buf[4];
    EXPECT_EQ(store.read(77, buf, sizeof buf), -1);
    EXPECT_EQ(lastError(), "bad argument: no open file has this handle");
    const int h = store.open("/rec/a.ts", 2);
    ASSERT_GT(h, 0) << lastError();
    EXPECT_EQ(store.open("/rec/a.ts", 2), -1);
    EXPECT_EQ(lastError(), "local limit: the path is already open");
    EXPECT_EQ(store.read(h, buf, sizeof buf), -1);
    EXPECT_EQ(lastError(), "bad argument: the handle is open for writing");
    EXPECT_EQ(store.close(h), 0);
    EXPECT_EQ(lastError(), "none: ");
    EXPECT_EQ(store.Put("/nonexistent/dir/file", "/rec/b.ts"), -1);
    EXPECT_EQ(lastError(), "local file: cannot open the local file");
    EXPECT_EQ(store.flush(1), 1);
    EXPECT_EQ(lastError(), "none: ");
}

TEST_F(LastError, ARefusedCommandCarriesTheServersReply) {
    initialised();
    server.queueReply("STOR /rec/full.ts", "452 Insufficient storage space");
    EXPECT_EQ(store.open("/rec/full.ts", 2), -1);
    EXPECT_EQ(lastError(), "refused: 452 Insufficient storage space");
    // Quitting the dropped connection does not replace the reason.
    server.queueReply("DELE x", "550 Permission denied");
    EXPECT_EQ(store.deleteFile("x"), -1);
    EXPECT_EQ(lastError(), "refused: 550 Permission denied");
}

TEST_F(LastError, TheRegistrySaysWhatIsWrongWithALocationWithoutItsPassword) {
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    EXPECT_EQ(registry->addFTPFileSystem("rec(s3cret)ftp-no-at-sign"), -1);
    EXPECT_EQ(lastError(), "bad argument: the text is not a location");
    EXPECT_EQ(registry->addFTPFileSystem("rec(s3cret-longer-than-nineteen)@ftp://h/p"), -1);
    EXPECT_EQ(lastKind(), FTPFileSystem::kErrorBadArgument);
    EXPECT_EQ(std::string(FTPFileSystem::getLastError().text).find("s3cret"), std::string::npos);
    SafePointer<FTPFileSystem> none;
    EXPECT_EQ(registry->getFTPFileSystem("rec(pw)@ftp://unregistered.example/x", none), 0);
    EXPECT_EQ(lastError(), "bad argument: no registered location covers it");
    EXPECT_EQ(registry->deleteFileSystem("rec(pw)@ftp://unregistered.example/x"), -1);
    EXPECT_EQ(lastError(), "bad argument: no store is registered under this text");
}

TEST_F(LastError, EachThreadSeesOnlyItsOwnCalls) {
    initialised();
    server.setReply("CWD /nowhere", "550 No such directory");
    std::string otherBefore;
    std::string otherAfter;
    std::atomic<int> step{0};
    std::thread other([&] {
        EXPECT_EQ(store.createDir("/elsewhere"), 0);
        otherBefore = lastError();
        step = 1;
        for (int i = 0; i < 500 && step.load() != 2; ++i) std::this_thread::sleep_for(Millis(10));
        otherAfter = lastError();
    });
    for (int i = 0; i < 500 && step.load() != 1; ++i) std::this_thread::sleep_for(Millis(10));
    EXPECT_FALSE(store.isDirExist("/nowhere"));
    EXPECT_EQ(lastError(), "refused: 550 No such directory");
    step = 2;
    other.join();
    EXPECT_EQ(otherBefore, "none: ");
    EXPECT_EQ(otherAfter, "none: ") << "another thread's failure reached this one";
}

TEST(LastErrorNames, EveryKindHasAName) {
    for (int kind = FTPFileSystem::kErrorNone; kind <= FTPFileSystem::kErrorTls; ++kind) {
        EXPECT_STRNE(FTPFileSystem::errorKindName(kind), "unknown") << kind;
    }
    EXPECT_STREQ(FTPFileSystem::errorKindName(FTPFileSystem::kErrorTls), "TLS failure");
    EXPECT_STREQ(FTPFileSystem::errorKindName(-1), "unknown");
    EXPECT_STREQ(FTPFileSystem::errorKindName(15), "unknown");
}

}  // namespace
