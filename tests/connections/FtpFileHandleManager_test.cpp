// The open-file table against the scripted server: handle numbering and its
// deliberate limits, refusals that send nothing, failures that keep a number
// reserved, and connections pooled after a clean close or quit otherwise.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "ConnectionsTestUtil.h"
#include "connections/FtpFileHandleManager.h"
#include "support/FdCount.h"

namespace {

using conntest::contains;
using conntest::joined;

class FtpFileHandleManagerTest : public testing::Test {
protected:
    // A table on the scripted server, as the store builds it but with the
    // given numbers.
    std::unique_ptr<FtpFileHandleManager> table(int firstHandle, int handleLimit,
                                                int maxOpenFiles) {
        return std::unique_ptr<FtpFileHandleManager>(new FtpFileHandleManager(
            server.address().c_str(), "rec", "pw", firstHandle, handleLimit, maxOpenFiles));
    }

    int writeAll(FtpFileHandleManager& files, int handle, const std::string& bytes) {
        SafePointer<FtpFileHandler> handler;
        if (!files.getFileHandler(handle, handler)) return -1;
        return handler->write(bytes.data(), static_cast<unsigned int>(bytes.size()));
    }

    ftptest::ScriptedFtpServer server;
};

TEST_F(FtpFileHandleManagerTest, HandleNumbersRunOutOneBeforeTheOpenFileLimit) {
    auto files = table(1, 4, 4);
    EXPECT_EQ(1, files->open("/a.dat", 2));
    EXPECT_EQ(2, files->open("/b.dat", 2));
    EXPECT_EQ(3, files->open("/c.dat", 2));
    const size_t commandsBefore = server.commands().size();
    EXPECT_EQ(-1, files->open("/d.dat", 2)) << "three open, limit four, but no number left";
    EXPECT_EQ(commandsBefore, server.commands().size()) << joined(server.commands());

    EXPECT_EQ(0, files->close(2));
    EXPECT_EQ(2, files->open("/e.dat", 2)) << "the freed number is given out again";
}

TEST_F(FtpFileHandleManagerTest, APathHoldingALineEndIsRefusedBeforeANumberIsReserved) {
    auto files = table(1, 4, 4);
    const size_t commandsBefore = server.commands().size();
    EXPECT_EQ(-1, files->open("/a.dat\r\nDELE /b.dat", 2));
    EXPECT_EQ(-1, files->open("/a.dat\n", 1));
    EXPECT_EQ(commandsBefore, server.commands().size()) << joined(server.commands());
    EXPECT_EQ(1, files->open("/a.dat", 2)) << "no number was kept by the refusals";
    EXPECT_EQ(0, files->close(1));
}

TEST_F(FtpFileHandleManagerTest, TheOpenFileLimitRefusesBeforeAnyTraffic) {
    auto files = table(1, 10, 2);
    EXPECT_EQ(1, files->open("/a.dat", 2));
    EXPECT_EQ(2, files->open("/b.dat", 2));
    const size_t commandsBefore = server.commands().size();
    EXPECT_EQ(-1, files->open("/c.dat", 2));
    EXPECT_EQ(commandsBefore, server.commands().size());
    EXPECT_EQ(0, files->close(1));
    EXPECT_EQ(1, files->open("/c.dat", 2));
}

TEST_F(FtpFileHandleManagerTest, TheOpenFileLimitIsCheckedBeforeANumberIsReserved) {
    auto files = table(1, 5, 2);
    ASSERT_EQ(1, files->open("/a.dat", 2));
    ASSERT_EQ(2, files->open("/b.dat", 2));
    EXPECT_EQ(-1, files->open("/c.dat", 2)) << "two open, limit two";
    EXPECT_EQ(0, files->close(1));
    EXPECT_EQ(0, files->close(2));
    // Two refused transfers give their numbers back; the refusal at the
    // limit reserved none: 1 and 2 are free again.
    server.queueReply("STOR", "553 Could not create file.");
    server.queueReply("STOR", "553 Could not create file.");
    EXPECT_EQ(-1, files->open("/d.dat", 2));
    EXPECT_EQ(-1, files->open("/e.dat", 2));
    EXPECT_EQ(1, files->open("/f.dat", 2));
    EXPECT_EQ(2, files->open("/g.dat", 2));
    EXPECT_EQ(-1, files->open("/h.dat", 2)) << "two open, limit two";
}

TEST_F(FtpFileHandleManagerTest, APathAlreadyOpenIsRefusedInEveryModeWithoutReservingANumber) {
    auto files = table(1, 8, 8);
    server.putFile("/same.dat", "content");
    ASSERT_EQ(1, files->open("/same.dat", 1));
    const size_t commandsBefore = server.commands().size();
    for (int mode : {1, 2, 3, 4}) {
        EXPECT_EQ(-1, files->open("/same.dat", mode)) << "mode " << mode;
    }
    EXPECT_EQ(commandsBefore, server.commands().size()) << joined(server.commands());
    EXPECT_EQ(2, files->open("/other.dat", 2)) << "the refusals reserved nothing";
    // The comparison is exact and case-sensitive.
    EXPECT_EQ(3, files->open("/SAME.dat", 2));
}

TEST_F(FtpFileHandleManagerTest, ClosingAnUnknownHandleGivesMinusOne) {
    auto files = table(1, 4, 4);
    EXPECT_EQ(-1, files->close(0));
    EXPECT_EQ(-1, files->close(99));
    EXPECT_EQ(-1, files->close(4)) << "the limit itself is not a handle";
    EXPECT_EQ(0, files->close(1)) << "a known number that is not open closes as a no-op";
    EXPECT_TRUE(server.commands().empty());
}

TEST_F(FtpFileHandleManagerTest, AFirstHandleAtOrAboveTheLimitMakesEveryOpenFail) {
    auto files = table(5, 5, 10);
    EXPECT_EQ(-1, files->open("/a.dat", 2));
    EXPECT_EQ(0, server.connectionCount());
}

TEST_F(FtpFileHandleManagerTest, AnOpenWhoseLoginFailsGivesItsNumberBackAndQuits) {
    auto files = table(1, 8, 8);
    server.queueReply("PASS", "530 Login incorrect.");
    EXPECT_EQ(-1, files->open("/a.dat", 2));
    const std::vector<std::string> expected = {"USER rec", "PASS pw", "QUIT"};
    EXPECT_EQ(expected, server.commandsOn(1));

    EXPECT_EQ(1, files->open("/a.dat", 2)) << "number 1 is free again";
    EXPECT_EQ(2, files->open("/b.dat", 2));
}

TEST_F(FtpFileHandleManagerTest, ClosingAFreeNumberIsANoOpThatLeavesItFree) {
    auto files = table(1, 8, 8);
    server.queueReply("PASS", "530 Login incorrect.");
    EXPECT_EQ(-1, files->open("/a.dat", 2));
    EXPECT_EQ(0, files->close(1)) << "a known number with no open file closes as a no-op";
    EXPECT_EQ(1, files->open("/a.dat", 2)) << "and is free";
}

TEST_F(FtpFileHandleManagerTest, RefusedOpensManyTimesTheNumbersLeaveEveryNumberFree) {
    // An outage: every open is refused by the server, and none of them may
    // use up a number for good (three numbers, twenty refusals).
    auto files = table(1, 4, 4);
    server.setReply("STOR", "421 Service not available, closing control connection.");
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(-1, files->open("/cam.dat", 2)) << "open " << i;
    }
    server.clearReply("STOR");
    EXPECT_EQ(1, files->open("/a.dat", 2));
    EXPECT_EQ(2, files->open("/b.dat", 2));
    EXPECT_EQ(3, files->open("/c.dat", 2));
}

TEST_F(FtpFileHandleManagerTest, AnOpenThatCannotConnectFailsAndGivesItsNumberBack) {
    // A port that was free a moment ago and has no listener now.
    int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(probe, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address));
    socklen_t length = sizeof address;
    ASSERT_EQ(0, ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length));
    ::close(probe);
    const std::string nobody = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));

    FtpFileHandleManager files(nobody.c_str(), "rec", "pw", 1, 4, 4);
    // With (1, 4, 4) there are three numbers: four failed opens in a row show
    // that each gave its number back.
    for (const char* path : {"/a.dat", "/b.dat", "/c.dat", "/d.dat"}) {
        EXPECT_EQ(-1, files.open(path, 2)) << path;
    }
    SafePointer<FtpFileHandler> none;
    EXPECT_FALSE(files.getFileHandler(1, none));
}

TEST_F(FtpFileHandleManagerTest, ATransferRefusedByTheServerDropsTheConnectionAndFreesTheNumber) {
    auto files = table(1, 8, 8);
    server.queueReply("STOR", "553 Could not create file.");
    EXPECT_EQ(-1, files->open("/a.dat", 2));
    const std::vector<std::string> expected = {"USER rec", "PASS pw",     "TYPE I",
                                               "PASV",     "STOR /a.dat", "QUIT"};
    EXPECT_EQ(expected, server.commandsOn(1)) << "the dropped connection is quit, not pooled";
    EXPECT_EQ(0u, files->getFreeToolBuff()->idleCount());

    EXPECT_EQ(1, files->open("/a.dat", 2));
    EXPECT_EQ(2, server.connectionCount()) << "a new connection for the next open";
}

TEST_F(FtpFileHandleManagerTest, AnUnknownModeFailsAfterTakingAConnectionAndFreesTheNumber) {
    auto files = table(1, 8, 8);
    EXPECT_EQ(-1, files->open("/a.dat", 7));
    const std::vector<std::string> expected = {"USER rec", "PASS pw", "QUIT"};
    EXPECT_EQ(expected, server.commandsOn(1));
    EXPECT_EQ(1, files->open("/a.dat", 2));
}

TEST_F(FtpFileHandleManagerTest, AFinalReplyOf426MakesCloseQuitTheConnectionAndFreeTheNumber) {
    auto files = table(1, 8, 8);
    ftptest::Reply aborted("150 Opening data connection");
    aborted.finalText = "426 Connection closed; transfer aborted.";
    server.queueReply("STOR", aborted);
    ASSERT_EQ(1, files->open("/a.dat", 2));
    EXPECT_EQ(7, writeAll(*files, 1, "partial"));
    EXPECT_EQ(-1, files->close(1));
    EXPECT_EQ("QUIT", server.commandsOn(1).back()) << joined(server.commandsOn(1));
    EXPECT_EQ(0u, files->getFreeToolBuff()->idleCount());
    SafePointer<FtpFileHandler> gone;
    EXPECT_FALSE(files->getFileHandler(1, gone)) << "the handle is closed all the same";

    EXPECT_EQ(1, files->open("/b.dat", 2)) << "the number is free again";
    EXPECT_EQ(2, server.connectionCount());
    const std::vector<std::string> second = server.commandsOn(2);
    ASSERT_GE(second.size(), 2u);
    EXPECT_EQ("USER rec", second[0]);
}

TEST_F(FtpFileHandleManagerTest, AfterACleanCloseTheNextOpenReusesThePooledConnection) {
    auto files = table(1, 8, 8);
    ASSERT_EQ(1, files->open("/first.dat", 2));
    EXPECT_EQ(5, writeAll(*files, 1, "hello"));
    EXPECT_EQ(0, files->close(1));
    EXPECT_EQ(1u, files->getFreeToolBuff()->idleCount());
    EXPECT_EQ(std::string("hello"), server.file("/first.dat").value_or("<missing>"));

    const size_t commandsBefore = server.commands().size();
    ASSERT_EQ(1, files->open("/second.dat", 4));
    EXPECT_EQ(1, server.connectionCount()) << "no new control connection";
    const std::vector<std::string> all = server.commands();
    const std::vector<std::string> reuse(all.begin() + static_cast<long>(commandsBefore),
                                         all.end());
    const std::vector<std::string> expected = {"TYPE I", "PASV", "STOR /second.dat"};
    EXPECT_EQ(expected, reuse) << "no USER, no PASS";
    EXPECT_EQ(0u, files->getFreeToolBuff()->idleCount());
    EXPECT_EQ(0, files->close(1));
}

TEST_F(FtpFileHandleManagerTest, AReadErrorMakesCloseQuitTheConnectionInsteadOfPoolingIt) {
    auto files = table(1, 8, 8);
    ftptest::Reply stalled("150 Opening data connection");
    stalled.body = std::string();
    stalled.finalAfterClientClose = true;  // the final reply is a clean 226
    server.queueReply("RETR", stalled);
    ASSERT_EQ(1, files->open("/stalled.dat", 1));
    SafePointer<FtpFileHandler> handler;
    ASSERT_TRUE(files->getFileHandler(1, handler));
    char buf[64];
    EXPECT_EQ(-1, handler->read(buf, sizeof buf)) << "no data within the readiness wait";
    EXPECT_EQ(-1, files->close(1));
    EXPECT_EQ("QUIT", server.commandsOn(1).back()) << joined(server.commandsOn(1));
    EXPECT_EQ(0u, files->getFreeToolBuff()->idleCount());
}

TEST_F(FtpFileHandleManagerTest, GetFileHandlerFindsOpenHandlesOnlyAndLeavesOutUntouchedOtherwise) {
    auto files = table(1, 8, 8);
    ASSERT_EQ(1, files->open("/x.dat", 3));
    SafePointer<FtpFileHandler> found;
    ASSERT_TRUE(files->getFileHandler(1, found));
    EXPECT_EQ(1, found->getFileHandle());
    EXPECT_EQ(3, found->getMode());
    EXPECT_STREQ("/x.dat", found->getFileName());

    FtpFileHandler* before = found.get();
    EXPECT_FALSE(files->getFileHandler(2, found));
    EXPECT_EQ(before, found.get());
    EXPECT_EQ(0, files->close(1));
    EXPECT_FALSE(files->getFileHandler(1, found));
}

TEST_F(FtpFileHandleManagerTest, AHandlerHeldByAReaderOutlivesItsClose) {
    auto files = table(1, 8, 8);
    ASSERT_EQ(1, files->open("/held.dat", 2));
    SafePointer<FtpFileHandler> held;
    ASSERT_TRUE(files->getFileHandler(1, held));
    EXPECT_EQ(0, files->close(1));
    EXPECT_STREQ("/held.dat", held->getFileName()) << "the counted reference keeps it alive";
}

TEST_F(FtpFileHandleManagerTest, APathOf256CharactersIsRefusedBeforeTrafficAndReservation) {
    auto files = table(1, 8, 8);
    const std::string tooLong = "/" + std::string(255, 'p');  // 256 characters
    EXPECT_EQ(-1, files->open(tooLong.c_str(), 2));
    const std::string wayTooLong = "/" + std::string(4095, 'q');
    EXPECT_EQ(-1, files->open(wayTooLong.c_str(), 2));
    EXPECT_EQ(-1, files->open(nullptr, 2));
    EXPECT_EQ(0, server.connectionCount());

    // A long path that fits the name field and the FTP command line.
    const std::string fits = "/" + std::string(199, 'f');
    EXPECT_EQ(1, files->open(fits.c_str(), 2)) << "no number was reserved by the refusals";
    EXPECT_TRUE(contains(server.commandsOn(1), "STOR " + fits));
    SafePointer<FtpFileHandler> handler;
    ASSERT_TRUE(files->getFileHandler(1, handler));
    EXPECT_EQ(fits, handler->getFileName());
}

TEST_F(FtpFileHandleManagerTest, TheMonitorThreadLivesExactlyAsLongAsTheTable) {
    // A joined thread can linger in /proc/self/task for a moment.
    ASSERT_TRUE(conntest::eventually(
        [] { return conntest::threadsNamed(conntest::monitorThreadName()) == 0; }));
    {
        auto files = table(1, 4, 4);
        EXPECT_TRUE(conntest::eventually(
            [] { return conntest::threadsNamed(conntest::monitorThreadName()) == 1; }));
    }
    // A joined thread can linger in /proc/self/task for a moment.
    EXPECT_TRUE(conntest::eventually(
        [] { return conntest::threadsNamed(conntest::monitorThreadName()) == 0; }));
}

TEST_F(FtpFileHandleManagerTest, DestroyingTheTableQuitsOpenAndPooledConnectionsAndLeaksNoSocket) {
    const int descriptorsBefore = ftptest::openDescriptorCount();
    {
        auto files = table(1, 8, 8);
        ASSERT_EQ(1, files->open("/open.dat", 2));
        EXPECT_EQ(4, writeAll(*files, 1, "open"));
        ASSERT_EQ(2, files->open("/pooled.dat", 2));
        EXPECT_EQ(0, files->close(2));
        EXPECT_EQ(1u, files->getFreeToolBuff()->idleCount());
    }
    EXPECT_TRUE(server.waitForClosedConnections(2));
    EXPECT_EQ("QUIT", server.commandsOn(1).back());
    EXPECT_EQ("QUIT", server.commandsOn(2).back());
    // The open file's data connection was released without a final reply
    // being awaited; what had been written still arrived.
    EXPECT_EQ(std::string("open"), server.file("/open.dat").value_or("<missing>"));
    EXPECT_EQ(descriptorsBefore, ftptest::waitForDescriptorCount(descriptorsBefore));
}

}  // namespace
