// One open remote file against the scripted server: the transfer each mode
// starts, the texts open ignores, and which failures mark the connection
// unusable.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "ConnectionsTestUtil.h"
#include "connections/FtpFileHandler.h"
#include "support/TestHelpers.h"

namespace {

using conntest::joined;
using conntest::loggedInTool;

// Commands received after the login (USER and PASS) on connection 1.
std::vector<std::string> afterLogin(const ftptest::ScriptedFtpServer& server) {
    std::vector<std::string> lines = server.commandsOn(1);
    if (lines.size() >= 2) lines.erase(lines.begin(), lines.begin() + 2);
    return lines;
}

struct ModeCase {
    int mode;
    const char* command;  // what the server must receive after PASV
};

TEST(FtpFileHandler, EachModeStartsItsTransferInImageType) {
    const ModeCase cases[] = {
        {1, "RETR /clip.dat"},
        {2, "STOR /clip.dat"},
        {3, "APPE /clip.dat"},
        {4, "STOR /clip.dat"},
    };
    for (const ModeCase& c : cases) {
        ftptest::ScriptedFtpServer server;
        server.putFile("/clip.dat", "old");
        SafePointer<FTPTool> tool = loggedInTool(server);
        FtpFileHandler handler(tool, c.mode, 1, "/clip.dat");
        ASSERT_TRUE(handler.open("server", "user", "password")) << "mode " << c.mode;
        EXPECT_EQ(0, handler.close()) << "mode " << c.mode;
        const std::vector<std::string> expected = {"TYPE I", "PASV", c.command};
        EXPECT_EQ(expected, afterLogin(server)) << "mode " << c.mode;
    }
}

TEST(FtpFileHandler, AnUnknownModeFailsToOpenAndSendsNothing) {
    for (int mode : {0, 5, -1, 99}) {
        ftptest::ScriptedFtpServer server;
        SafePointer<FTPTool> tool = loggedInTool(server);
        FtpFileHandler handler(tool, mode, 1, "/clip.dat");
        EXPECT_FALSE(handler.open("server", "user", "password")) << "mode " << mode;
        EXPECT_TRUE(afterLogin(server).empty())
            << "mode " << mode << ": " << joined(afterLogin(server));
        EXPECT_EQ(-1, handler.close()) << "nothing to close for mode " << mode;
        EXPECT_TRUE(tool->getUsable());
    }
}

TEST(FtpFileHandler, OpenIgnoresItsThreeTextsEvenNullOnes) {
    ftptest::ScriptedFtpServer server;
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 2, 1, "/null.dat");
    ASSERT_TRUE(handler.open(nullptr, nullptr, nullptr));
    const char data[] = "bytes";
    EXPECT_EQ(5, handler.write(data, 5));
    EXPECT_EQ(0, handler.close());
    const std::vector<std::string> expected = {"TYPE I", "PASV", "STOR /null.dat"};
    EXPECT_EQ(expected, afterLogin(server));
    EXPECT_EQ(std::string("bytes"), server.file("/null.dat").value_or("<missing>"));
}

TEST(FtpFileHandler, WrittenBytesArriveExactlyAndReadBytesComeBack) {
    ftptest::ScriptedFtpServer server;
    std::string content;
    for (int i = 0; i < 100000; ++i) content.push_back(static_cast<char>((i * 131) & 0xFF));
    {
        SafePointer<FTPTool> tool = loggedInTool(server);
        FtpFileHandler writer(tool, 2, 1, "/bin.dat");
        ASSERT_TRUE(writer.open("", "", ""));
        size_t sent = 0;
        for (int round = 0; sent < content.size() && round < 10000; ++round) {
            const unsigned int piece =
                static_cast<unsigned int>(std::min<size_t>(4096, content.size() - sent));
            const int n = writer.write(content.data() + sent, piece);
            ASSERT_GT(n, 0);
            sent += static_cast<size_t>(n);
        }
        EXPECT_EQ(0, writer.close());
    }
    EXPECT_EQ(content, server.file("/bin.dat").value_or("<missing>"));

    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler reader(tool, 1, 2, "/bin.dat");
    ASSERT_TRUE(reader.open("", "", ""));
    std::string back;
    char buf[1024];
    for (int round = 0; round < 10000; ++round) {
        const int n = reader.read(buf, sizeof buf);
        ASSERT_GE(n, 0);
        if (n == 0) break;
        back.append(buf, static_cast<size_t>(n));
    }
    EXPECT_EQ(0, reader.close());
    EXPECT_EQ(content, back);
    EXPECT_TRUE(tool->getUsable());
}

// The server opens the data connection but sends nothing; the read gives up
// after the client's 3-second readiness wait. The final reply is positive, so
// only the usable flag tells the table to quit the connection.
TEST(FtpFileHandler, AFailedReadMarksTheConnectionUnusable) {
    ftptest::ScriptedFtpServer server;
    ftptest::Reply stalled("150 Opening data connection");
    stalled.body = std::string();
    stalled.finalAfterClientClose = true;
    server.queueReply("RETR", stalled);
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 1, 1, "/stalled.dat");
    ASSERT_TRUE(handler.open("", "", ""));
    char buf[64];
    EXPECT_EQ(-1, handler.read(buf, sizeof buf));
    EXPECT_FALSE(tool->getUsable());
    EXPECT_EQ(0, handler.close()) << "the final reply was 226";
    EXPECT_FALSE(tool->getUsable()) << "the flag outlives the transfer";
}

// The server takes 10 bytes and closes the data connection; once the reset
// reaches the client a write through `send` (write or aioWrite) fails, and the
// connection is marked unusable. The connection stays usable until then.
template <class Send>
void expectAFailedSendMarksTheConnectionUnusable(char fill, std::size_t maxCalls, Send send) {
    ftptest::ScriptedFtpServer server;
    ftptest::Reply cut("150 Opening data connection");
    cut.closeDataAfter = 10;
    cut.finalText = "426 Transfer aborted";
    server.queueReply("STOR", cut);
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 2, 1, "/cut.dat");
    ASSERT_TRUE(handler.open("", "", ""));
    const std::string chunk(65536, fill);
    int result = 0;
    for (std::size_t i = 0; i < maxCalls && result >= 0; ++i) {
        result = send(handler, chunk);
        if (result >= 0) {
            EXPECT_TRUE(tool->getUsable()) << "call " << i << " gave " << result;
        }
    }
    ASSERT_LT(result, 0) << "no write failed";
    EXPECT_FALSE(tool->getUsable());
    EXPECT_EQ(-1, handler.close());
}

TEST(FtpFileHandler, AFailedWriteMarksTheConnectionUnusable) {
    expectAFailedSendMarksTheConnectionUnusable(
        'w', ftptest::loopbackBytesInFlight() / 65536 + 16,
        [](FtpFileHandler& handler, const std::string& chunk) {
            return handler.write(chunk.data(), static_cast<unsigned int>(chunk.size()));
        });
}

TEST(FtpFileHandler, AFailedAioWriteMarksTheConnectionUnusable) {
    expectAFailedSendMarksTheConnectionUnusable(
        'a', std::max<std::size_t>(2000, ftptest::loopbackBytesInFlight() / 65536 + 16),
        [](FtpFileHandler& handler, const std::string& chunk) {
            return handler.aioWrite(chunk.data(), static_cast<unsigned int>(chunk.size()));
        });
}

TEST(FtpFileHandler, AReadOnAWriteTransferGivesZeroAndKeepsTheConnectionUsable) {
    ftptest::ScriptedFtpServer server;
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 2, 1, "/w.dat");
    ASSERT_TRUE(handler.open("", "", ""));
    char buf[8];
    EXPECT_EQ(0, handler.read(buf, sizeof buf));
    EXPECT_TRUE(tool->getUsable());
    EXPECT_EQ(0, handler.close());
}

TEST(FtpFileHandler, AioWriteSendsAndAioReturnReportsWithoutTouchingTheFlag) {
    ftptest::ScriptedFtpServer server;
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 2, 1, "/aio.dat");
    ASSERT_TRUE(handler.open("", "", ""));
    const char data[] = "asynchronous";
    EXPECT_EQ(12, handler.aioWrite(data, 12));
    EXPECT_EQ(0, handler.aioReturn(1000)) << "the socket is writable again";
    EXPECT_EQ(12, handler.aioWrite(data, 12)) << "non-blocking mode is set again harmlessly";
    EXPECT_EQ(0, handler.aioReturn(1000));
    EXPECT_TRUE(tool->getUsable());
    EXPECT_EQ(0, handler.close());
    EXPECT_EQ(std::string("asynchronousasynchronous"),
              server.file("/aio.dat").value_or("<missing>"));
}

// The server leaves the upload unread, so the socket stops being writable: the
// time-out of aioReturn is reported and the connection stays usable.
TEST(FtpFileHandler, AnAioReturnTimeOutLeavesTheConnectionUsable) {
    ftptest::ScriptedFtpServer server;
    ftptest::Reply stalled("150 Opening data connection");
    stalled.dataStall = std::chrono::milliseconds(20000);
    server.queueReply("STOR", stalled);
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 2, 1, "/full.dat");
    ASSERT_TRUE(handler.open("", "", ""));
    const std::string chunk(65536, 'f');
    int result = 0;
    for (int i = 0; i < 2000 && result >= 0; ++i) {
        result = handler.aioWrite(chunk.data(), static_cast<unsigned int>(chunk.size()));
    }
    ASSERT_LT(result, 0) << "the socket's buffers never filled";
    tool->setUsable(true);  // undo the mark of the refused asynchronous write
    EXPECT_EQ(-1, handler.aioReturn(10));
    EXPECT_TRUE(tool->getUsable()) << "aioReturn reports, it never marks";
    server.releaseDataStalls();
    EXPECT_EQ(0, handler.close());
}

TEST(FtpFileHandler, CloseGivesMinusOneWhenTheFinalReplyIs426) {
    ftptest::ScriptedFtpServer server;
    ftptest::Reply aborted("150 Opening data connection");
    aborted.finalText = "426 Connection closed; transfer aborted.";
    server.queueReply("STOR", aborted);
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 2, 1, "/aborted.dat");
    ASSERT_TRUE(handler.open("", "", ""));
    EXPECT_EQ(-1, handler.close());
    EXPECT_TRUE(tool->getUsable()) << "close itself never marks the connection";
}

TEST(FtpFileHandler, ATransferRefusedByTheServerFailsToOpen) {
    ftptest::ScriptedFtpServer server;
    server.queueReply("STOR", "553 Could not create file.");
    SafePointer<FTPTool> tool = loggedInTool(server);
    FtpFileHandler handler(tool, 2, 1, "/refused.dat");
    EXPECT_FALSE(handler.open("", "", ""));
    EXPECT_EQ(-1, handler.close());
}

TEST(FtpFileHandler, KeepsItsModeHandleNameAndConnection) {
    SafePointer<FTPTool> tool(new FTPTool);
    FtpFileHandler handler(tool, 3, 17, "/rec/ch01/0001.dat");
    EXPECT_EQ(3, handler.getMode());
    EXPECT_EQ(17, handler.getFileHandle());
    EXPECT_STREQ("/rec/ch01/0001.dat", handler.getFileName());
    EXPECT_EQ(tool.get(), handler.getPFTPTool().get());
}

TEST(FtpFileHandler, ANameOfTwoHundredFiftySixOrMoreIsCutToTheFieldNeverPastIt) {
    SafePointer<FTPTool> tool(new FTPTool);
    const std::string longName(300, 'n');
    FtpFileHandler handler(tool, 2, 1, longName.c_str());
    EXPECT_EQ(std::string(255, 'n'), handler.getFileName());
    const std::string fits(255, 'f');
    FtpFileHandler fitting(tool, 2, 1, fits.c_str());
    EXPECT_EQ(fits, fitting.getFileName());
}

TEST(FtpFileHandler, DroppingAnOpenHandlerReleasesItsDataConnectionWithoutWaiting) {
    ftptest::ScriptedFtpServer server;
    SafePointer<FTPTool> tool = loggedInTool(server);
    {
        FtpFileHandler handler(tool, 2, 1, "/dropped.dat");
        ASSERT_TRUE(handler.open("", "", ""));
        const char data[] = "partial";
        EXPECT_EQ(7, handler.write(data, 7));
    }
    // The server sees the data connection end and stores what arrived.
    EXPECT_TRUE(conntest::eventually([&] { return server.file("/dropped.dat").has_value(); }));
    EXPECT_EQ(std::string("partial"), server.file("/dropped.dat").value_or("<missing>"));
}

}  // namespace
