// The network lab in front of a real FTP server (pyftpdlib): its passive
// replies are rewritten and whole transfers pass byte for byte, and a reset
// cuts a real download at the chosen byte.
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "support/NetLab.h"
#include "support/RealFtpServer.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::randomBytes;

using ftptest::NetLab;
using ftptest::NetLabCounters;
using ftptest::Traffic;
using ftptest::Way;
using Millis = std::chrono::milliseconds;

// Reads a transfer until its end; *last gets the last read's result.
std::string readData(FTPTool& tool, NetBuf* data, int* last) {
    std::string got;
    char chunk[8192];
    *last = 0;
    for (int rounds = 0; rounds < 100000; ++rounds) {
        *last = tool.read(chunk, sizeof chunk, data);
        if (*last <= 0) break;
        got.append(chunk, static_cast<size_t>(*last));
    }
    return got;
}

class NetLabOnRealServer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << server.failure();
        ASSERT_TRUE(lab.ok()) << lab.failure();
        ASSERT_EQ(tool.connect(lab.address().c_str()), 1) << tool.getResponse();
        ASSERT_EQ(tool.login(RealFtpServer::user(), RealFtpServer::password()), 1)
            << tool.getResponse();
    }

    RealFtpServer server{FtpServerKind::kPyftpdlib};
    NetLab lab{server.hostPort()};
    FTPTool tool;
};

TEST_F(NetLabOnRealServer, StorRetrAndListPassByteForByteWithARoundTrip) {
    lab.setRoundTrip(Millis(10));
    const std::string upload = randomBytes(500000, 21);
    const std::string download = randomBytes(300000, 22);
    ASSERT_TRUE(server.writeFile("/down.bin", download));

    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/up.bin", kFtpStor, 'I', &data), 1) << tool.getResponse();
    size_t done = 0;
    for (int rounds = 0; done < upload.size() && rounds < 100000; ++rounds) {
        int n = tool.write(upload.data() + done, static_cast<int>(upload.size() - done), data);
        ASSERT_GE(n, 0) << "after " << done << " bytes";
        done += static_cast<size_t>(n);
    }
    ASSERT_EQ(tool.closeData(data), 1) << tool.getResponse();
    std::string stored;
    ASSERT_TRUE(server.readFile("/up.bin", &stored));
    EXPECT_TRUE(stored == upload) << stored.size() << " bytes stored";

    int last = 0;
    ASSERT_EQ(tool.dataConnect("/down.bin", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    std::string got = readData(tool, data, &last);
    EXPECT_EQ(last, 0);
    EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    EXPECT_TRUE(got == download) << got.size() << " bytes read";

    ASSERT_EQ(tool.dataConnect("/", kFtpList, 'I', &data), 1) << tool.getResponse();
    std::string listing = readData(tool, data, &last);
    EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
    EXPECT_NE(listing.find("up.bin"), std::string::npos) << listing;
    EXPECT_NE(listing.find("down.bin"), std::string::npos) << listing;

    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.dataConnections, 3u);
    EXPECT_EQ(c.passiveRewrites, 3u);
    EXPECT_EQ(c.dataToServer, upload.size());
    EXPECT_EQ(c.dataToClient, download.size() + listing.size());
}

TEST_F(NetLabOnRealServer, AResetCutsARealDownloadAtTheChosenByte) {
    const std::string content = randomBytes(200000, 23);
    ASSERT_TRUE(server.writeFile("/f.bin", content));
    lab.resetAfter(4096, Traffic::kData, Way::kServerToClient);
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/f.bin", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    int last = 0;
    std::string got = readData(tool, data, &last);
    EXPECT_EQ(last, -1);
    EXPECT_TRUE(got == content.substr(0, 4096)) << got.size() << " bytes read";
    tool.closeData(data);
    EXPECT_EQ(lab.counters().resets, 1u);

    // The server is still there for the next transfer, on a new session if
    // it dropped this one.
    FTPTool again;
    ASSERT_EQ(again.connect(lab.address().c_str()), 1) << again.getResponse();
    ASSERT_EQ(again.login(RealFtpServer::user(), RealFtpServer::password()), 1);
    ASSERT_EQ(again.dataConnect("/f.bin", kFtpRetr, 'I', &data), 1) << again.getResponse();
    std::string whole = readData(again, data, &last);
    EXPECT_EQ(again.closeData(data), 1) << again.getResponse();
    EXPECT_TRUE(whole == content) << whole.size() << " bytes read";
}

}  // namespace
