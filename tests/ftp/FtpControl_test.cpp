// The control connection of the FTP client against the scripted server:
// connecting, logging in, commands and replies, the line reader, time-outs
// and teardown. Every test checks the exact lines the server received.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "FtpTestFixture.h"
#include "ftpdisk_host/HostControl.h"
#include "support/FdCount.h"
#include "support/TestHelpers.h"

namespace {

using FtpControl = FtpToolTest;

TEST_F(FtpControl, ConnectReadsTheGreetingAndLoginSendsUserThenPass) {
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    EXPECT_STREQ(tool.getResponse(), "220 ready\n");
    EXPECT_EQ(tool.login("rec", "pw"), 1);
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw"}));
    EXPECT_STREQ(tool.getResponse(), "230 Logged in\n");
}

TEST_F(FtpControl, TheControlRecordStartsPassiveWithAThreeSecondWaitAndAnEmptyBuffer) {
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    NetBuf* c = tool.getControlBuf();
    ASSERT_NE(c, nullptr);
    EXPECT_GE(c->handle, 0);
    EXPECT_NE(c->buffer, nullptr);
    EXPECT_EQ(c->direction, kNetBufControl);
    EXPECT_EQ(c->control, nullptr);
    EXPECT_EQ(c->connectionMode, kNetBufPassive);
    EXPECT_EQ(c->idleTime.seconds, 3);
    EXPECT_EQ(c->idleTime.microseconds, 0);
    EXPECT_EQ(c->progressCallback, nullptr);
    EXPECT_EQ(c->progressArg, nullptr);
    EXPECT_EQ(c->transferred, 0);
    EXPECT_EQ(c->callbackBytes, 0);
    EXPECT_EQ(c->sinceCallback, 0);
    // The greeting has been consumed: nothing is left in the buffer.
    EXPECT_EQ(c->available, 0);
}

TEST_F(FtpControl, ConnectSetsTenSecondSendAndReceiveLimits) {
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval limit{};
        socklen_t length = sizeof limit;
        ASSERT_EQ(getsockopt(tool.getControlBuf()->handle, SOL_SOCKET, option, &limit, &length), 0);
        EXPECT_EQ(limit.tv_sec, 10) << option;
        EXPECT_EQ(limit.tv_usec, 0) << option;
    }
}

TEST_F(FtpControl, SetTimeOutLenSetsTheReceiveOrSendLimitAndIgnoresOtherKinds) {
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    NetBuf* c = tool.getControlBuf();
    tool.setTimeOutLen(c, 1, 7);
    tool.setTimeOutLen(c, 2, 4);
    tool.setTimeOutLen(c, 3, 99);
    tool.setTimeOutLen(nullptr, 1, 5);
    timeval limit{};
    socklen_t length = sizeof limit;
    ASSERT_EQ(getsockopt(c->handle, SOL_SOCKET, SO_RCVTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec, 7);
    ASSERT_EQ(getsockopt(c->handle, SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec, 4);
}

TEST_F(FtpControl, ANegativeGreetingFailsButKeepsTheRecordForTheOwnerToRelease) {
    server.setGreeting("421 Too many connections");
    EXPECT_EQ(tool.connect(server.address().c_str()), 0);
    ASSERT_NE(tool.getControlBuf(), nullptr);
    EXPECT_STREQ(tool.getResponse(), "421 Too many connections\n");
}

TEST_F(FtpControl, ASilentServerFailsTheGreeting) {
    Reply silent;
    silent.silent = true;
    server.setGreeting(silent);
    // The greeting wait is the fixed three seconds: nothing can shorten it
    // before connect returns.
    EXPECT_EQ(tool.connect(server.address().c_str()), 0);
    EXPECT_STREQ(tool.getResponse(), "no reply in time\n");
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureNoReply);
    EXPECT_EQ(tool.owedReplies(), 1) << "the greeting is still owed";
}

TEST_F(FtpControl, ConnectFailsWhenNothingListensAndLeavesNoSocket) {
    // A port that was free a moment ago: bind, read it back, close.
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&a), &length), 0);
    close(probe);
    int before = ftptest::openDescriptorCount();
    std::string host = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    EXPECT_EQ(tool.connect(host.c_str()), 0);
    EXPECT_EQ(tool.getControlBuf(), nullptr);
    EXPECT_EQ(ftptest::openDescriptorCount(), before);
}

TEST_F(FtpControl, AnUnknownServiceFailsBeforeAnySocketIsOpened) {
    int before = ftptest::openDescriptorCount();
    EXPECT_EQ(tool.connect("127.0.0.1:abc"), 0);
    EXPECT_EQ(tool.getControlBuf(), nullptr);
    EXPECT_EQ(ftptest::openDescriptorCount(), before);
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(FtpControl, A2xxReplyToUserLogsInWithoutSendingPass) {
    server.queueReply("USER", "230 No password needed");
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    EXPECT_EQ(tool.login("rec", "pw"), 1);
    EXPECT_EQ(server.commands(), (Lines{"USER rec"}));
}

TEST_F(FtpControl, A5xxReplyToUserFailsWithoutSendingPass) {
    server.queueReply("USER", "530 Not allowed");
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    EXPECT_EQ(tool.login("rec", "pw"), 0);
    EXPECT_EQ(server.commands(), (Lines{"USER rec"}));
    EXPECT_STREQ(tool.getResponse(), "530 Not allowed\n");
}

TEST_F(FtpControl, ARefusedPasswordFailsTheLogin) {
    server.queueReply("PASS", "530 Login incorrect");
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    EXPECT_EQ(tool.login("rec", "wrong"), 0);
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS wrong"}));
}

TEST_F(FtpControl, UserAndPasswordOf57CharactersAreSentAnd58AreRefusedBeforeAnything) {
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    const std::string name57(57, 'u'), name58(58, 'u');
    const std::string word57(57, 'p'), word58(58, 'p');
    EXPECT_EQ(tool.login(name58.c_str(), "pw"), 0);
    EXPECT_EQ(tool.login("rec", word58.c_str()), 0);
    EXPECT_EQ(tool.login(nullptr, "pw"), 0);
    EXPECT_EQ(tool.login("rec", nullptr), 0);
    EXPECT_EQ(server.commands(), Lines{});
    EXPECT_EQ(tool.login(name57.c_str(), word57.c_str()), 1);
    EXPECT_EQ(server.commands(), (Lines{"USER " + name57, "PASS " + word57}));
}

TEST_F(FtpControl, ACommandOf253CharactersIsSentAndOneOf254IsRefused) {
    connectAndLogin();
    const std::string fits = "NOOP " + std::string(248, 'x');
    const std::string tooLong = "NOOP " + std::string(249, 'x');
    ASSERT_EQ(fits.size(), 253u);
    EXPECT_EQ(tool.Sendcmd(tooLong.c_str(), '5'), 0);
    EXPECT_EQ(tool.Sendcmd(nullptr, '5'), 0);
    EXPECT_STREQ(tool.getResponse(), "230 Logged in\n") << "a refused line leaves the reply";
    server.setReply("NOOP", "200 fine");
    EXPECT_EQ(tool.Sendcmd(fits.c_str(), '2'), 1);
    EXPECT_EQ(afterLogin(), (Lines{fits}));
}

TEST_F(FtpControl, ACommandHoldingALineEndIsRefusedBeforeAnythingIsSent) {
    connectAndLogin();
    const std::string before = tool.getResponse();
    EXPECT_EQ(tool.Sendcmd("CWD /a\r\nDELE /b", '2'), 0);
    EXPECT_EQ(tool.cd("/a\nb"), 0);
    EXPECT_EQ(tool.mkdir("/a\rb"), 0);
    EXPECT_EQ(tool.deleteFile("x\r\nQUIT"), 0);
    EXPECT_STREQ(tool.getResponse(), before.c_str()) << "a refused line leaves the reply text";
    EXPECT_EQ(tool.cd("/a"), 1);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /a"}));
}

TEST_F(FtpControl, OnlyTheFirstDigitOfTheReplyIsJudged) {
    connectAndLogin();
    struct Case {
        const char* reply;
        char expected;
        int result;
    };
    // A 1xx reply announces another: it comes last, as the connection then
    // owes the reply that follows it.
    const Case cases[] = {
        {"200 OK", '2', 1},      {"299 odd but positive", '2', 1},
        {"2xx", '2', 1},         {"250 OK", '3', 0},
        {"331 more", '3', 1},    {"550 no", '2', 0},
        {"x00 garbage", '2', 0}, {"150 going", '1', 1},
    };
    for (const Case& c : cases) {
        server.queueReply("NOOP", c.reply);
        EXPECT_EQ(tool.Sendcmd("NOOP", c.expected), c.result) << c.reply << " / " << c.expected;
        EXPECT_EQ(std::string(tool.getResponse()), std::string(c.reply) + "\n") << c.reply;
        EXPECT_EQ(tool.getLastFailure(), c.result ? kFtpFailureNone : kFtpFailureReply) << c.reply;
    }
    EXPECT_EQ(tool.owedReplies(), 1);
}

TEST_F(FtpControl, AMultiLineReplyIsConsumedWholeAndJudgedOnItsClosingLine) {
    // Lines that merely start with the code, or hold it with a blank later
    // on, do not close the reply; only "220 " at the start does.
    server.setGreeting(
        "220-Welcome to the archive\n"
        "220-second line\n"
        " 220 indented, not the end\n"
        "2200 not the end either\n"
        "220 ready");
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    EXPECT_STREQ(tool.getResponse(), "220 ready\n");
    // Nothing of the greeting is left over for the next command.
    EXPECT_EQ(tool.login("rec", "pw"), 1);
    EXPECT_STREQ(tool.getResponse(), "230 Logged in\n");
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw"}));
}

TEST_F(FtpControl, AMultiLineReplyWhoseClosingLineIsNegativeFails) {
    connectAndLogin();
    server.queueReply("CWD", "550-Cannot change directory\n550-because\n550 no such directory");
    EXPECT_EQ(tool.cd("/nowhere"), 0);
    EXPECT_STREQ(tool.getResponse(), "550 no such directory\n");
    EXPECT_EQ(tool.cdup(), 1);
    EXPECT_EQ(afterLogin(), (Lines{"CWD /nowhere", "CDUP"}));
}

TEST_F(FtpControl, SilenceInsideAMultiLineReplyIsWaitedOut) {
    connectAndLogin();
    shortenWait(50);
    // The first line, then a pause of several readiness waits, then the rest.
    Reply slow("250-first line\n250 done");
    slow.controlPieceBytes = std::string("250-first line\r\n").size();
    slow.controlPieceDelay = Millis(400);
    server.queueReply("CWD", slow);
    EXPECT_EQ(tool.cd("/d"), 1);
    EXPECT_STREQ(tool.getResponse(), "250 done\n");
}

// --- A reply that never ends ----------------------------------------------------

// A reply is abandoned once it has taken 30 s in all (on the host's up-time
// clock, driven by hand here) or 1000 lines, however the server spreads it out.
class FtpReplyBounds : public FtpToolTest {
protected:
    void SetUp() override { hostcontrol::useManualClock(1000.0, 1000.0); }
    void TearDown() override { hostcontrol::useSystemClock(); }
};

// n reply lines: "code-line 1" ... and, when `closed`, a last "code done".
std::string replyLines(const char* code, int continuation, bool closed) {
    std::string text;
    for (int i = 1; i <= continuation; ++i) {
        text += std::string(code) + "-line " + std::to_string(i) + "\n";
    }
    if (closed) text += std::string(code) + " done";
    return text;
}

TEST_F(FtpReplyBounds, AReplyTrickledAByteAtATimeIsAbandonedAfterThirtySeconds) {
    connectAndLogin();
    // 600 bytes one at a time, 20 ms apart: every byte restarts the 3 s
    // readiness wait, and the reply would take 12 s of real time to end.
    Reply trickle("200 " + std::string(596, 'x'));
    trickle.controlPieceBytes = 1;
    trickle.controlPieceDelay = Millis(20);
    server.queueReply("NOOP", trickle);
    std::atomic<int> result{-99};
    std::atomic<pid_t> callerId{0};
    std::thread caller([&] {
        callerId = ftptest::currentThreadId();
        result = tool.Sendcmd("NOOP", '2');
    });
    ASSERT_TRUE(server.waitForCommands(3));
    const long waitsBefore = ftptest::threadWaits(callerId.load());
    hostcontrol::advanceClock(30.0);
    // Exactly 30 s is not yet more than the bound: the reader goes on. Ten
    // more waits for a trickled byte mean it has looked at the clock since
    // and kept reading.
    EXPECT_TRUE(ftptest::eventually(
        [&] { return ftptest::threadWaits(callerId.load()) >= waitsBefore + 10; }));
    EXPECT_EQ(result, -99);
    hostcontrol::advanceClock(1.0);
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(tool.getResponse(), "reply abandoned: not ended within 30 s\n");
    EXPECT_EQ(afterLogin(), (Lines{"NOOP"}));
    // The rest still trickles in: leave without asking the server to quit.
    tool.Empty();
}

TEST_F(FtpReplyBounds, AMultiLineReplyWhoseLinesKeepComingIsAbandonedAfterThirtySeconds) {
    connectAndLogin();
    Reply endless(replyLines("211", 500, true));
    endless.controlPieceBytes = 20;
    endless.controlPieceDelay = Millis(20);
    server.queueReply("STAT", endless);
    std::atomic<int> result{-99};
    std::thread caller([&] { result = tool.Sendcmd("STAT", '2'); });
    ASSERT_TRUE(server.waitForCommands(3));
    hostcontrol::advanceClock(31.0);
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(tool.getResponse(), "reply abandoned: not ended within 30 s\n");
    tool.Empty();
}

TEST_F(FtpReplyBounds, AMultiLineReplyThatStopsHalfWayWaitsOutTimeOutsUntilThirtySeconds) {
    connectAndLogin();
    // Readiness waits of 50 ms and a 1 s receive limit: many reads time out
    // inside the reply, and none of them ends it.
    shortenWait(50);
    tool.setTimeOutLen(tool.getControlBuf(), 1, 1);
    Reply cut("250-first line\r\n");
    cut.raw = true;
    server.queueReply("CWD", cut);
    std::atomic<int> result{-99};
    std::atomic<pid_t> callerId{0};
    std::thread caller([&] {
        callerId = ftptest::currentThreadId();
        result = tool.cd("/d");
    });
    ASSERT_TRUE(server.waitForCommands(3));
    // Thirty readiness waits of 50 ms (past the 1 s receive limit) have timed
    // out inside the reply, and the call still goes on.
    const long waitsBefore = ftptest::threadWaits(callerId.load());
    EXPECT_TRUE(ftptest::eventually(
        [&] { return ftptest::threadWaits(callerId.load()) >= waitsBefore + 30; }));
    EXPECT_EQ(result, -99);
    hostcontrol::advanceClock(31.0);
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(tool.getResponse(), "reply abandoned: not ended within 30 s\n");
    EXPECT_EQ(afterLogin(), (Lines{"CWD /d"}));
    tool.Empty();
}

TEST_F(FtpReplyBounds, AMultiLineReplyIsAbandonedAtItsThousandthLineWithoutAnEnd) {
    connectAndLogin();
    // The opening line and 999 more, none of them the closing one.
    server.queueReply("STAT", replyLines("211", 1500, true));
    EXPECT_EQ(tool.Sendcmd("STAT", '2'), 0);
    EXPECT_STREQ(tool.getResponse(), "reply abandoned: not ended within 1000 lines\n");
    EXPECT_EQ(tool.owedReplies(), 1);
    // What is left of it still belongs to STAT: the next command reads it on
    // to its closing line, drops it, and is judged on its own reply.
    server.queueReply("NOOP", "500 own reply");
    EXPECT_EQ(tool.Sendcmd("NOOP", '5'), 1);
    EXPECT_STREQ(tool.getResponse(), "500 own reply\n");
    EXPECT_EQ(tool.owedReplies(), 0);
    EXPECT_EQ(afterLogin(), (Lines{"STAT", "NOOP"}));
}

TEST_F(FtpReplyBounds, AReplyOfExactlyAThousandLinesIsReadWhole) {
    connectAndLogin();
    // 999 continuation lines and the closing line: 1000 lines in all.
    server.queueReply("STAT", replyLines("211", 999, true));
    EXPECT_EQ(tool.Sendcmd("STAT", '2'), 1);
    EXPECT_STREQ(tool.getResponse(), "211 done\n");
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_STREQ(tool.getResponse(), "200 OK\n");
}

// Only a line of four characters or more can open a multi-line reply; a
// shorter one must not be judged by what an earlier, longer reply left behind
// its terminator.
TEST_F(FtpControl, ALineShorterThanFourCharactersNeverOpensAMultiLineReply) {
    connectAndLogin();
    shortenWait(100);
    tool.setTimeOutLen(tool.getControlBuf(), 1, 1);
    snprintf(tool.getControlBuf()->response, kNetBufResponseSize, "250-earlier reply\n");
    Reply shortLine("2\n");
    shortLine.raw = true;
    server.queueReply("NOOP", shortLine);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_STREQ(tool.getResponse(), "2\n");
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_STREQ(tool.getResponse(), "200 OK\n") << "the second NOOP gets its own reply";
    EXPECT_EQ(afterLogin(), (Lines{"NOOP", "NOOP"}));
}

TEST_F(FtpControl, AMultiLineReplyCutByTheServerClosingFails) {
    connectAndLogin();
    Reply cut("250-first line");
    cut.closeControl = true;
    server.queueReply("CWD", cut);
    EXPECT_EQ(tool.cd("/d"), 0);
}

TEST_F(FtpControl, ALineEndingInCrLfIsReturnedEndingInOneLf) {
    connectAndLogin();
    struct Case {
        const char* raw;
        const char* response;
    };
    const Case cases[] = {
        {"200 crlf\r\n", "200 crlf\n"},
        {"200 bare lf\n", "200 bare lf\n"},
        // Only the CR right before the LF goes.
        {"200 inner\rcr\r\n", "200 inner\rcr\n"},
        {"200 two\r\r\n", "200 two\r\n"},
    };
    for (const Case& c : cases) {
        Reply r(c.raw);
        r.raw = true;
        server.queueReply("NOOP", r);
        EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1) << c.raw;
        EXPECT_STREQ(tool.getResponse(), c.response) << c.raw;
    }
}

TEST_F(FtpControl, AReplyLineLongerThan255CharactersIsCutAndItsRestNeverAnswersTheNextCommand) {
    connectAndLogin();
    const std::string line = "500 " + std::string(296, 'x');  // 300 characters
    server.queueReply("NOOP", line);
    EXPECT_EQ(tool.Sendcmd("NOOP", '5'), 1);
    // Its first 255 bytes fill the 256-byte reply field.
    EXPECT_EQ(std::string(tool.getResponse()), line.substr(0, 255));
    // The rest of the line was read and dropped: the next command is judged
    // on its own reply.
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_STREQ(tool.getResponse(), "200 OK\n");
    EXPECT_EQ(tool.getControlBuf()->available, 0);
}

TEST_F(FtpControl, AReplyLineThatFitsExactlyKeepsItsLineEnd) {
    connectAndLogin();
    // 254 characters and CR LF: the line and its LF fill 255 bytes.
    const std::string fits = "200 " + std::string(250, 'y');
    server.queueReply("NOOP", fits);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_EQ(std::string(tool.getResponse()), fits + "\n");
    // One more character: the line is cut after 255 bytes, without its end.
    const std::string longer = fits + "z";
    server.queueReply("NOOP", longer);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_EQ(std::string(tool.getResponse()), longer);
}

TEST_F(FtpControl, ReadlineStopsWhenOneByteOfRoomIsLeftAndGoesOnWithTheNextCall) {
    connectAndLogin();
    server.queueReply("NOOP", "200 abcdefghij");
    NetBuf* c = tool.getControlBuf();
    ASSERT_EQ(send(c->handle, "NOOP\r\n", 6, MSG_NOSIGNAL), 6);
    // Capacity 8 stores 7 bytes and the terminator.
    char piece[8];
    EXPECT_EQ(tool.Readline(piece, sizeof piece, c), 7);
    EXPECT_STREQ(piece, "200 abc");
    EXPECT_EQ(tool.Readline(piece, sizeof piece, c), 7);
    EXPECT_STREQ(piece, "defghij");
    EXPECT_EQ(tool.Readline(piece, sizeof piece, c), 1);
    EXPECT_STREQ(piece, "\n");
    EXPECT_EQ(tool.Readline(piece, 1, c), 0);
    EXPECT_STREQ(piece, "");
    EXPECT_EQ(afterLogin(), (Lines{"NOOP"}));
}

TEST_F(FtpControl, ALineArrivingInSmallPiecesIsAssembled) {
    connectAndLogin();
    Reply dribble("257 \"/a/b\" created");
    dribble.controlPieceBytes = 3;
    dribble.controlPieceDelay = Millis(5);
    server.queueReply("MKD", dribble);
    EXPECT_EQ(tool.mkdir("/a/b"), 1);
    EXPECT_STREQ(tool.getResponse(), "257 \"/a/b\" created\n");
}

TEST_F(FtpControl, ReadlineRefusesNullsAndWriteConnections) {
    connectAndLogin();
    char line[16];
    NetBuf* c = tool.getControlBuf();
    EXPECT_EQ(tool.Readline(nullptr, sizeof line, c), 0);
    EXPECT_EQ(tool.Readline(line, sizeof line, nullptr), 0);
    int saved = c->direction;
    c->direction = kNetBufDataWrite;
    EXPECT_EQ(tool.Readline(line, sizeof line, c), -1);
    c->direction = saved;
}

TEST_F(FtpControl, AReplyThatComesTooLateFailsItsCommandAndIsDroppedBeforeTheNextOne) {
    connectAndLogin();
    shortenWait(200);
    Reply late("200 late");
    late.delay = Millis(1000);
    server.queueReply("NOOP", late);
    // Nothing arrives within the wait: the command fails, although the
    // previous reply ("230 Logged in") had the class it expects.
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 0);
    EXPECT_STREQ(tool.getResponse(), "no reply in time\n");
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureNoReply);
    EXPECT_EQ(tool.owedReplies(), 1);
    // The late reply is read and dropped before the next command goes out,
    // which is then judged on its own reply.
    shortenWait(3000);
    server.queueReply("NOOP", "550 refused");
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 0);
    EXPECT_STREQ(tool.getResponse(), "550 refused\n");
    EXPECT_EQ(tool.getLastFailure(), kFtpFailureReply);
    EXPECT_EQ(tool.owedReplies(), 0);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_STREQ(tool.getResponse(), "200 OK\n");
    EXPECT_EQ(afterLogin(), (Lines{"NOOP", "NOOP", "NOOP"}));
}

TEST_F(FtpControl, ANeverAnsweredCommandFailsWhenThePreviousReplyHadAnotherClass) {
    connectAndLogin();
    shortenWait(100);
    Reply silent;
    silent.silent = true;
    server.queueReply("RNFR", silent);
    EXPECT_EQ(tool.moveFile("/a", "/b"), 0);
    EXPECT_EQ(afterLogin(), (Lines{"RNFR /a"}));
}

TEST_F(FtpControl, ClosedControlConnectionFailsTheNextCommand) {
    connectAndLogin();
    Reply close;
    close.closeControl = true;
    server.queueReply("NOOP", close);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 0);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 0);
}

TEST_F(FtpControl, SocketwaitReportsReadinessAndGivesUpAfterTheIdleTime) {
    connectAndLogin();
    shortenWait(50);
    NetBuf* c = tool.getControlBuf();
    EXPECT_EQ(tool.Socketwait(c), 0) << "nothing to read";
    EXPECT_EQ(tool.Socketwait(nullptr), 0);
    ASSERT_EQ(send(c->handle, "NOOP\r\n", 6, MSG_NOSIGNAL), 6);
    // Sent past the tool: the reply it owes is counted by hand.
    c->replies.owed = 1;
    ASSERT_TRUE(server.waitForCommands(3));
    shortenWait(3000);
    EXPECT_EQ(tool.Socketwait(c), 1) << "the NOOP reply is there";
    EXPECT_EQ(tool.Readresp('2', c), 1);
    EXPECT_EQ(tool.Readresp('2', nullptr), 0);
}

TEST_F(FtpControl, QuitOnAnUnconnectedToolReturnsOneAndSendsNothing) {
    EXPECT_EQ(tool.quit(), 1);
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(FtpControl, QuitSendsQuitAndReleasesTheConnection) {
    connectAndLogin();
    EXPECT_EQ(tool.quit(), 1);
    EXPECT_EQ(tool.getControlBuf(), nullptr);
    EXPECT_STREQ(tool.getResponse(), "");
    EXPECT_EQ(afterLogin(), (Lines{"QUIT"}));
    EXPECT_TRUE(server.waitForClosedConnections(1));
}

TEST_F(FtpControl, QuitAnsweredWith5xxReturnsZeroAndKeepsTheSocketOpen) {
    connectAndLogin();
    server.queueReply("QUIT", "500 Not now");
    EXPECT_EQ(tool.quit(), 0);
    ASSERT_NE(tool.getControlBuf(), nullptr);
    EXPECT_TRUE(isOpen(tool.getControlBuf()->handle));
    EXPECT_EQ(server.closedConnectionCount(), 0);
    // The connection still works.
    EXPECT_EQ(tool.cd("/"), 1);
    EXPECT_EQ(afterLogin(), (Lines{"QUIT", "CWD /"}));
}

TEST_F(FtpControl, EmptyClosesTheConnectionWithoutTraffic) {
    connectAndLogin();
    EXPECT_EQ(tool.Empty(), 1);
    EXPECT_EQ(tool.getControlBuf(), nullptr);
    EXPECT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw"}));
    EXPECT_EQ(tool.Empty(), 1);
}

TEST_F(FtpControl, TheDestructorSendsQuit) {
    {
        FTPTool scoped;
        ASSERT_EQ(scoped.connect(server.address().c_str()), 1);
        ASSERT_EQ(scoped.login("rec", "pw"), 1);
    }
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw", "QUIT"}));
    EXPECT_TRUE(server.waitForClosedConnections(1));
}

// The descriptor counts below include the server's own sockets (it runs in
// this process); they are compared once the server has closed its side of
// every finished connection.
TEST_F(FtpControl, ADestroyedToolLeavesNoSocketWhenQuitIsRefused) {
    const int before = ftptest::openDescriptorCount();
    server.queueReply("QUIT", "500 Not now");
    {
        FTPTool scoped;
        ASSERT_EQ(scoped.connect(server.address().c_str()), 1);
        ASSERT_EQ(scoped.login("rec", "pw"), 1);
    }
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw", "QUIT"}));
    // The server only closes its side once the client's socket is gone.
    EXPECT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ(ftptest::waitForDescriptorCount(before), before);
}

TEST_F(FtpControl, ADestroyedToolLeavesNoSocketWhenQuitIsNeverAnswered) {
    const int before = ftptest::openDescriptorCount();
    Reply silent;
    silent.silent = true;
    server.queueReply("QUIT", silent);
    {
        FTPTool scoped;
        ASSERT_EQ(scoped.connect(server.address().c_str()), 1);
        ASSERT_EQ(scoped.login("rec", "pw"), 1);
        scoped.getControlBuf()->idleTime = NetBufWaitTime{0, 100000};
    }
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw", "QUIT"}));
    EXPECT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ(ftptest::waitForDescriptorCount(before), before);
}

TEST_F(FtpControl, ConnectingTwiceReleasesTheFirstConnectionWithoutTraffic) {
    const int before = ftptest::openDescriptorCount();
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    ASSERT_EQ(tool.login("rec", "pw"), 1);
    ASSERT_EQ(tool.connect(server.address().c_str()), 1);
    EXPECT_EQ(server.connectionCount(), 2);
    EXPECT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ(server.commandsOn(1), (Lines{"USER rec", "PASS pw"})) << "no QUIT on the first";
    EXPECT_EQ(server.commandsOn(2), Lines{});
    // The second connection: one socket on each side.
    EXPECT_EQ(ftptest::waitForDescriptorCount(before + 2), before + 2);
    ASSERT_EQ(tool.login("rec", "pw"), 1);
    EXPECT_EQ(server.commandsOn(2), (Lines{"USER rec", "PASS pw"}));
}

}  // namespace
