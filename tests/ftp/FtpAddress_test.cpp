// Address texts, PASV replies and wait limits: the pure parts of the FTP
// client, checked without any connection.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"

namespace {

std::string dotted(const sockaddr_in& a) {
    char text[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
    return text;
}

TEST(FtpAddress, ANumericPortIsUsedWithoutAServiceLookup) {
    struct Case {
        const char* host;
        const char* address;
        int port;
    };
    const Case cases[] = {
        {"127.0.0.1:21", "127.0.0.1", 21},
        {"127.0.0.1:2121", "127.0.0.1", 2121},
        {"10.1.2.3:65535", "10.1.2.3", 65535},
        // Only the low 16 bits of the number count.
        {"127.0.0.1:65557", "127.0.0.1", 21},
        // Leading digits are read; what follows them is ignored.
        {"127.0.0.1:21x", "127.0.0.1", 21},
        {"localhost:8021", "127.0.0.1", 8021},
    };
    for (const Case& c : cases) {
        sockaddr_in a;
        ASSERT_EQ(ftpResolveAddress(c.host, &a), 1) << c.host;
        EXPECT_EQ(a.sin_family, AF_INET) << c.host;
        EXPECT_EQ(dotted(a), c.address) << c.host;
        EXPECT_EQ(ntohs(a.sin_port), c.port) << c.host;
    }
}

TEST(FtpAddress, AServiceNameOrNoPortLooksUpTheFtpTcpService) {
    const char* hosts[] = {"127.0.0.1", "127.0.0.1:ftp", "localhost", "localhost:ftp"};
    for (const char* host : hosts) {
        sockaddr_in a;
        ASSERT_EQ(ftpResolveAddress(host, &a), 1) << host;
        EXPECT_EQ(dotted(a), "127.0.0.1") << host;
        EXPECT_EQ(ntohs(a.sin_port), 21) << host;
    }
}

// Host names that do not resolve are not tried: that would ask the machine's
// name servers.
TEST(FtpAddress, AnUnknownServiceFailsBeforeTheHostIsLookedAt) {
    const char* hosts[] = {"127.0.0.1:abc", "127.0.0.1:", "localhost:no-such-service"};
    for (const char* host : hosts) {
        sockaddr_in a;
        EXPECT_EQ(ftpResolveAddress(host, &a), 0) << host;
    }
    sockaddr_in a;
    EXPECT_EQ(ftpResolveAddress(nullptr, &a), 0);
    EXPECT_EQ(ftpResolveAddress("127.0.0.1", nullptr), 0);
}

TEST(FtpPassiveReply, SixNumbersAfterTheParenthesisGiveAddressAndPort) {
    struct Case {
        const char* reply;
        const char* address;
        int port;
    };
    const Case cases[] = {
        {"227 Entering Passive Mode (192,168,1,2,4,1)\n", "192.168.1.2", 1025},
        {"227 Entering Passive Mode (127,0,0,1,195,80).\r\n", "127.0.0.1", 50000},
        // A server that puts blanks after the commas.
        {"227 =(10, 0, 0, 7, 0, 21)\n", "10.0.0.7", 21},
        // Missing numbers stay 0; the count read is not checked.
        {"227 (127,0,0,1)\n", "127.0.0.1", 0},
        {"227 (127,0,0,1,7\n", "127.0.0.1", 7 * 256},
        {"227 ()\n", "0.0.0.0", 0},
        // Each number is taken as one byte.
        {"227 (383,0,0,1,260,1)\n", "127.0.0.1", 4 * 256 + 1},
        // Read as "%u" reads: a sign is taken, and "-n" wraps before its low
        // byte is kept (-1 gives 255, -255 gives 1).
        {"227 (-1,0,0,+1,-255,21)\n", "255.0.0.1", 1 * 256 + 21},
    };
    for (const Case& c : cases) {
        sockaddr_in a;
        ASSERT_EQ(ftpParsePassiveReply(c.reply, &a), 1) << c.reply;
        EXPECT_EQ(a.sin_family, AF_INET) << c.reply;
        EXPECT_EQ(dotted(a), c.address) << c.reply;
        EXPECT_EQ(ntohs(a.sin_port), c.port) << c.reply;
    }
}

TEST(FtpPassiveReply, AReplyWithoutParenthesisIsRefused) {
    const char* replies[] = {"227 Entering Passive Mode 127,0,0,1,4,1\n", "227 ok\n", ""};
    for (const char* reply : replies) {
        sockaddr_in a;
        a.sin_port = 4242;
        EXPECT_EQ(ftpParsePassiveReply(reply, &a), 0) << reply;
        EXPECT_EQ(a.sin_port, 4242) << "untouched on failure: " << reply;
    }
}

TEST(FtpAioWaitTime, TheRemainderIsUsedAsMicrosecondsUnscaled) {
    struct Case {
        int milliseconds;
        int seconds;
        int microseconds;
    };
    const Case cases[] = {{1500, 1, 500}, {0, 0, 0},      {999, 0, 999},
                          {1000, 1, 0},   {30000, 30, 0}, {2001, 2, 1}};
    for (const Case& c : cases) {
        NetBufWaitTime t = ftpAioWaitTime(c.milliseconds);
        EXPECT_EQ(t.seconds, c.seconds) << c.milliseconds;
        EXPECT_EQ(t.microseconds, c.microseconds) << c.milliseconds;
    }
}

TEST(FtpTool, ANewToolIsUnconnectedUsableAndQuitsWithoutTraffic) {
    FTPTool tool;
    EXPECT_EQ(tool.getControlBuf(), nullptr);
    EXPECT_STREQ(tool.getResponse(), "");
    EXPECT_TRUE(tool.getUsable());
    tool.setUsable(false);
    EXPECT_FALSE(tool.getUsable());
    EXPECT_EQ(tool.flush(), 0);
    EXPECT_EQ(tool.quit(), 1);
    EXPECT_EQ(tool.Empty(), 1);
}

TEST(FtpTool, EveryOperationFailsWithoutAConnection) {
    FTPTool tool;
    NetBuf* data = nullptr;
    int size = -7;
    char line[16];
    EXPECT_EQ(tool.login("rec", "pw"), 0);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 0);
    EXPECT_EQ(tool.Readline(line, sizeof line, nullptr), 0);
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &data), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(tool.OpenPort(&data, 'I', kNetBufDataRead), 0);
    EXPECT_EQ(tool.cd("/"), 0);
    EXPECT_EQ(tool.cdup(), 0);
    EXPECT_EQ(tool.mkdir("d"), 0);
    EXPECT_EQ(tool.rmdir("d"), 0);
    EXPECT_EQ(tool.site("CHMOD 644 a"), 0);
    EXPECT_EQ(tool.size("a", &size, 'I'), 0);
    EXPECT_EQ(size, -7);
    EXPECT_EQ(tool.moveFile("a", "b"), 0);
    EXPECT_EQ(tool.deleteFile("/a"), 0);
    EXPECT_EQ(tool.Socketwait(nullptr), 0);
    EXPECT_EQ(tool.closeData(nullptr), 0);
    EXPECT_EQ(tool.aioReturn(10, nullptr), -2);
}

}  // namespace
