// The control connection stays in step with the server: a reply is judged only
// for the command it answers. A reply that does not come in time fails its
// command and stays owed; the next command first reads and drops it, and is
// held back when it still does not come. Also the connect limit and the
// passive data address, which decide where and how long the client connects.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "FtpTestFixture.h"
#include "ftpdisk_host/HostControl.h"
#include "support/FdCount.h"
#include "support/TestHelpers.h"

namespace {

using FtpRepliesInStep = FtpToolTest;

TEST_F(FtpRepliesInStep, AReplyStillMissingHoldsTheNextCommandBackUntilItComes) {
    connectAndLogin();
    shortenWait(200);
    Reply late("250 changed late");
    late.delay = Millis(1500);
    server.queueReply("CWD", late);
    EXPECT_EQ(tool.cd("/a/"), 0);
    EXPECT_STREQ(tool.getResponse(), "no reply in time\n");
    // Within the next command's wait the late reply has still not come: the
    // command is not sent, and the reply stays owed.
    EXPECT_EQ(tool.mkdir("/a/b"), 0);
    EXPECT_STREQ(tool.getResponse(), "command not sent: an earlier reply is still owed\n");
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureNoReply);
    EXPECT_EQ(tool.owedReplies(), 1);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /a/"}));
    // Once it has come, it is dropped and the next command goes out.
    shortenWait(3000);
    EXPECT_EQ(tool.mkdir("/a/b"), 1);
    EXPECT_STREQ(tool.getResponse(), "257 \"/a/b\" created\n");
    EXPECT_EQ(tool.owedReplies(), 0);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /a/", "MKD /a/b"}));
}

TEST_F(FtpRepliesInStep, AUserReplyThatDoesNotComeIsAFailedLoginAndNoPasswordIsSent) {
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    shortenWait(200);
    Reply late("230 Logged in without a password");
    late.delay = Millis(1000);
    server.queueReply("USER", late);
    // The greeting's 220 is not judged again for USER.
    EXPECT_EQ(tool.login("rec", "pw"), 0);
    EXPECT_STREQ(tool.getResponse(), "no reply in time\n");
    EXPECT_EQ(server.commands(), (Lines{"USER rec"}));
}

TEST_F(FtpRepliesInStep, AUserAnswered2xxStillLogsInWithoutAPassword) {
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    server.queueReply("USER", "230 No password needed");
    EXPECT_EQ(tool.login("rec", "pw"), 1);
    EXPECT_EQ(server.commands(), (Lines{"USER rec"}));
}

TEST_F(FtpRepliesInStep, ALateClosingReplyOfATransferIsDroppedBeforeTheNextCommand) {
    connectAndLogin();
    server.putFile("/f.bin", "abc");
    Reply retr("150 Opening");
    retr.finalText = "226 done late";
    retr.finalDelay = Millis(600);
    server.queueReply("RETR /f.bin", retr);
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/f.bin", kFtpRetr, 'I', &d), 1) << tool.getResponse();
    EXPECT_EQ(tool.owedReplies(), 1) << "the 150 announces the closing reply";
    char buf[16];
    EXPECT_EQ(tool.read(buf, sizeof buf, d), 3);
    shortenWait(200);
    EXPECT_EQ(tool.closeData(d), 0);
    EXPECT_STREQ(tool.getResponse(), "no reply in time\n");
    EXPECT_EQ(tool.owedReplies(), 1);
    // The closing reply comes, is dropped, and the next command is judged on
    // its own reply.
    shortenWait(3000);
    server.queueReply("CWD", "550 no such directory");
    EXPECT_EQ(tool.cd("/x"), 0);
    EXPECT_STREQ(tool.getResponse(), "550 no such directory\n");
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureReply);
    EXPECT_EQ(tool.owedReplies(), 0);
}

TEST_F(FtpRepliesInStep, ALateReplyThatIsPreliminaryKeepsItsCommandOwedUntilTheFinalOne) {
    connectAndLogin();
    shortenWait(200);
    // The late 1xx to a transfer command is followed by its final reply: both
    // are dropped before the next command.
    Reply late("150 Opening late");
    late.delay = Millis(500);
    late.noDataConnection = true;
    late.finalText = "425 No data connection";
    server.queueReply("RETR /f.bin", late);
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/f.bin", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(tool.owedReplies(), 1);
    shortenWait(3000);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_STREQ(tool.getResponse(), "200 OK\n");
    EXPECT_EQ(tool.owedReplies(), 0);
}

TEST_F(FtpRepliesInStep, AClosedConnectionSaysSoInsteadOfLeavingThePreviousReply) {
    connectAndLogin();
    Reply gone;
    gone.closeControl = true;
    server.queueReply("CWD", gone);
    EXPECT_EQ(tool.cd("/d"), 0);
    EXPECT_STREQ(tool.getResponse(), "connection closed by the server\n");
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureConnectionLost);
}

TEST_F(FtpRepliesInStep, AOneLineReplyCutByTheEndOfTheStreamIsJudgedOnWhatCame) {
    connectAndLogin();
    Reply cut("221 bye");
    cut.raw = true;
    cut.closeControl = true;
    server.queueReply("QUIT", cut);
    EXPECT_EQ(tool.quit(), 1);
    EXPECT_EQ(tool.getControlBuf(), nullptr);
}

// --- Replies left part way ----------------------------------------------------------

class FtpRepliesLeftPartWay : public FtpToolTest {
protected:
    void SetUp() override { hostcontrol::useManualClock(1000.0, 1000.0); }
    void TearDown() override { hostcontrol::useSystemClock(); }
};

TEST_F(FtpRepliesLeftPartWay,
       AMultiLineReplyAbandonedAtThirtySecondsIsReadToItsEndByTheNextCommand) {
    connectAndLogin();
    // STAT's reply comes in pieces of 23 bytes, 1.5 s apart: its first two
    // lines, then a line that merely mentions the closing code and the first
    // bytes of the closing line, then the rest of it.
    Reply slow("211-first\n211-second\n211-third 211 done\n211 done");
    slow.controlPieceBytes = 23;
    slow.controlPieceDelay = Millis(1500);
    server.queueReply("STAT", slow);
    std::atomic<int> result{-99};
    std::thread caller([&] { result = tool.Sendcmd("STAT", '2'); });
    ASSERT_TRUE(server.waitForCommands(3));
    // Past the reply's 30 s: it is abandoned at the reader's next look at
    // the clock, wherever it stands in the reply.
    hostcontrol::advanceClock(31.0);
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(tool.getResponse(), "reply abandoned: not ended within 30 s\n");
    EXPECT_EQ(tool.owedReplies(), 1);
    // The next command reads what is left of STAT's reply to its closing
    // line, drops it, and is judged on its own reply.
    server.queueReply("NOOP", "502 not here");
    EXPECT_EQ(tool.Sendcmd("NOOP", '5'), 1);
    EXPECT_STREQ(tool.getResponse(), "502 not here\n");
    EXPECT_EQ(tool.owedReplies(), 0);
    EXPECT_EQ(afterLogin(), (Lines{"STAT", "NOOP"}));
}

// --- Connect limit ------------------------------------------------------------------

// A listening socket on 127.0.0.1 whose one-place accept queue is full, so
// that the system drops every further connection attempt: a connect to it
// neither succeeds nor fails until its own limit.
class DeafListener {
public:
    DeafListener() {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t n = sizeof a;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(fd_, 0) != 0 || ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n) != 0) {
            return;
        }
        port_ = ntohs(a.sin_port);
        filler_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(filler_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) port_ = 0;
    }
    ~DeafListener() {
        if (filler_ >= 0) ::close(filler_);
        if (fd_ >= 0) ::close(fd_);
    }
    uint16_t port() const { return port_; }

private:
    int fd_ = -1;
    int filler_ = -1;
    uint16_t port_ = 0;
};

class FtpConnectLimit : public FtpToolTest {
protected:
    void SetUp() override { hostcontrol::useManualClock(1000.0, 1000.0); }
    void TearDown() override { hostcontrol::useSystemClock(); }

    // Runs `call` on another thread, moves the hand-driven clock to just
    // before the connect limit and checks the call is still waiting, then past
    // it; returns the call's result. `commandsFirst` more command lines reach
    // the server before the call starts its connect.
    template <typename Call>
    int heldUntilTheLimit(Call call, size_t commandsFirst = 0) {
        const size_t commands = server.commands().size() + commandsFirst;
        std::atomic<int> result{-99};
        std::atomic<bool> done{false};
        std::atomic<pid_t> callerId{0};
        std::thread caller([&] {
            callerId = ftptest::currentThreadId();
            result = call();
            done = true;
        });
        // The connect waits in slices of a quarter second. Once the commands
        // before it have arrived, three more waits of the caller mean its
        // connect has begun (at most two are the last reply's wait and its
        // end), with the limit counted from the clock as it was.
        EXPECT_TRUE(server.waitForCommands(commands));
        EXPECT_TRUE(ftptest::eventually([&] { return callerId.load() != 0; }));
        long waits = ftptest::threadWaits(callerId.load());
        EXPECT_TRUE(ftptest::eventually(
            [&] { return done || ftptest::threadWaits(callerId.load()) >= waits + 3; }));
        hostcontrol::advanceClock(9.5);
        // Two more slices waited out: the caller has looked at the clock since
        // and is still waiting.
        waits = ftptest::threadWaits(callerId.load());
        EXPECT_TRUE(ftptest::eventually(
            [&] { return done || ftptest::threadWaits(callerId.load()) >= waits + 2; }));
        const bool heldAtNineAndAHalf = !done;
        hostcontrol::advanceClock(1.0);
        caller.join();
        EXPECT_TRUE(heldAtNineAndAHalf) << "the connect gave up before its limit";
        return result;
    }
};

TEST_F(FtpConnectLimit, AControlConnectThatIsNeverAnsweredGivesUpAfterTenSeconds) {
    DeafListener deaf;
    ASSERT_NE(deaf.port(), 0);
    const int before = ftptest::openDescriptorCount();
    const std::string host = "127.0.0.1:" + std::to_string(deaf.port());
    EXPECT_EQ(heldUntilTheLimit([&] { return tool.connect(host.c_str()); }), 0);
    EXPECT_EQ(tool.getControlBuf(), nullptr);
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureUnreachable);
    EXPECT_EQ(tool.getLastErrno(), ETIMEDOUT);
    EXPECT_EQ(ftptest::openDescriptorCount(), before);
}

TEST_F(FtpConnectLimit, ADataConnectThatIsNeverAnsweredGivesUpAfterTenSecondsAndSendsNoTransfer) {
    connectAndLogin();
    DeafListener deaf;
    ASSERT_NE(deaf.port(), 0);
    server.queueReply("PASV", "227 Entering Passive Mode (127,0,0,1," +
                                  std::to_string(deaf.port() / 256) + "," +
                                  std::to_string(deaf.port() % 256) + ")");
    NetBuf* d = nullptr;
    EXPECT_EQ(heldUntilTheLimit([&] { return tool.dataConnect("/f", kFtpStor, 'I', &d); }, 2), 0);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureUnreachable);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV"}));
    EXPECT_EQ(tool.owedReplies(), 0);
}

TEST_F(FtpConnectLimit, ARefusedConnectFailsAtOnceAndSaysSo) {
    uint16_t port = 0;
    {
        DeafListener gone;
        port = gone.port();
    }
    const std::string host = "127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(tool.connect(host.c_str()), 0);
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureConnectRefused);
    EXPECT_EQ(tool.getLastErrno(), ECONNREFUSED);
}

TEST_F(FtpConnectLimit, ASignalDuringTheConnectDoesNotEndIt) {
    DeafListener deaf;
    ASSERT_NE(deaf.port(), 0);
    // A handler that lets interrupted calls restart, as a recorder's would.
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    struct sigaction before {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
    const std::string host = "127.0.0.1:" + std::to_string(deaf.port());
    std::atomic<int> result{-99};
    std::atomic<bool> done{false};
    std::atomic<pid_t> callerId{0};
    std::thread caller([&] {
        callerId = ftptest::currentThreadId();
        result = tool.connect(host.c_str());
        done = true;
    });
    EXPECT_TRUE(ftptest::eventually([&] { return callerId.load() != 0; }));
    long waits = ftptest::threadWaits(callerId.load());
    EXPECT_TRUE(ftptest::eventually(
        [&] { return done || ftptest::threadWaits(callerId.load()) >= waits + 2; }));
    for (int i = 0; i < 3; ++i) ::pthread_kill(caller.native_handle(), SIGUSR1);
    // Two more slices: the caller is still connecting.
    waits = ftptest::threadWaits(callerId.load());
    EXPECT_TRUE(ftptest::eventually(
        [&] { return done || ftptest::threadWaits(callerId.load()) >= waits + 2; }));
    EXPECT_FALSE(done) << "a signal ended the connect";
    hostcontrol::advanceClock(11.0);
    caller.join();
    ::sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(tool.getLastErrno(), ETIMEDOUT);
}

// --- Replies after a command's end, and leaving a connection out of step -----------

TEST_F(FtpRepliesInStep, AFinalReplyAfterASecondPreliminaryOneNeverAnswersTheNextCommand) {
    connectAndLogin();
    server.putFile("/f.ts", "abc");
    // The server says 150 twice, then 226: the second 150 ends the transfer
    // as its last reply, and the 226 comes unasked.
    Reply twice("150 Opening");
    twice.finalText = "150 cut short\n226 done";
    server.queueReply("RETR /f.ts", twice);
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/f.ts", kFtpRetr, 'I', &d), 1);
    EXPECT_EQ(tool.closeData(d), 0);
    EXPECT_STREQ(tool.getResponse(), "150 cut short\n");
    EXPECT_EQ(tool.owedReplies(), 1) << "a reply may still follow: not to be pooled";
    // The 226 is dropped before the next command, which gets its own 550.
    ASSERT_TRUE(server.waitForCommands(5));
    server.queueReply("CWD /missing", "550 No such directory");
    EXPECT_EQ(tool.cd("/missing"), 0);
    EXPECT_STREQ(tool.getResponse(), "550 No such directory\n");
    EXPECT_EQ(tool.owedReplies(), 0);
}

TEST_F(FtpRepliesInStep, QuittingAConnectionThatOwesAReplyWaitsOnceAndReleasesIt) {
    connectAndLogin();
    shortenWait(200);
    Reply silent;
    silent.silent = true;
    server.queueReply("NOOP", silent);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 0);
    // QUIT is held back by the reply that never comes; the connection is out
    // of step for good and released without it.
    EXPECT_EQ(tool.quit(), 0);
    EXPECT_EQ(tool.getControlBuf(), nullptr);
    EXPECT_EQ(afterLogin(), (Lines{"NOOP"}));
}

TEST_F(FtpRepliesInStep, ACommandTooLongToSendSaysWhy) {
    connectAndLogin();
    EXPECT_EQ(tool.cd(std::string(300, 'd').c_str()), 0);
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureLocal);
    EXPECT_EQ(tool.mkdir(nullptr), 0);
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureLocal);
    EXPECT_EQ(afterLogin(), Lines{});
}

// --- Passive data address -----------------------------------------------------------

TEST_F(FtpRepliesInStep, TheDataConnectionGoesToTheControlPeerWhateverAddressThePassiveReplyNames) {
    connectAndLogin();
    // A server behind address translation announces an address of its own
    // network (127.0.0.2 stands for it: nothing of the server listens there).
    server.queueReply("PASV", "227 Entering Passive Mode (127,0,0,2,{pasvport})");
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/rec/a.bin", kFtpStor, 'I', &d), 1) << tool.getResponse();
    EXPECT_EQ(tool.write("bytes", 5, d), 5);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(server.file("/rec/a.bin"), std::optional<std::string>("bytes"));
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV", "STOR /rec/a.bin"}));
}

TEST_F(FtpRepliesInStep, APassiveReplyNamingAnotherHostNeverSendsItAConnection) {
    connectAndLogin();
    // Another host of the recorder's network, listening: it must get nothing.
    const int stranger = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(0x7F000002);  // 127.0.0.2
    socklen_t n = sizeof a;
    ASSERT_EQ(::bind(stranger, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(stranger, 4), 0);
    ASSERT_EQ(::getsockname(stranger, reinterpret_cast<sockaddr*>(&a), &n), 0);
    const unsigned port = ntohs(a.sin_port);
    server.queueReply("PASV", "227 Entering Passive Mode (127,0,0,2," + std::to_string(port / 256) +
                                  "," + std::to_string(port % 256) + ")");
    NetBuf* d = nullptr;
    // The port is tried on the server's own address, where nothing listens.
    EXPECT_EQ(tool.dataConnect("/rec/a.bin", kFtpStor, 'I', &d), 0);
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureConnectRefused);
    pollfd p{stranger, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 0), 0) << "the stranger was connected to";
    ::close(stranger);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV"}));
}

TEST_F(FtpRepliesInStep, APassiveReplyWithoutAnAddressStillFails) {
    connectAndLogin();
    server.queueReply("PASV", "227 Entering Passive Mode");
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/rec/a.bin", kFtpStor, 'I', &d), 0);
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureReply);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV"}));
}

}  // namespace
