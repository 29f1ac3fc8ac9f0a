// The FTP client against a real FTP server (pyftpdlib on loopback, user
// rec/pw, a fresh temporary root): directories, a 1 MiB round trip checked on
// the server's disk, sizes, renames, deletions and listings.
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "support/RealFtpServer.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::randomBytes;

bool store(FTPTool& tool, const char* path, const std::string& bytes) {
    NetBuf* d = nullptr;
    if (!tool.dataConnect(path, kFtpStor, 'I', &d)) return false;
    size_t at = 0;
    for (int i = 0; at < bytes.size() && i < 100000; ++i) {
        int n = tool.write(bytes.data() + at,
                           static_cast<int>(std::min<size_t>(8192, bytes.size() - at)), d);
        if (n <= 0) break;
        at += static_cast<size_t>(n);
    }
    return tool.closeData(d) == 1 && at == bytes.size();
}

// The whole file or listing; `ok` false when any step failed.
std::string fetch(FTPTool& tool, const char* path, int type, bool* ok) {
    NetBuf* d = nullptr;
    *ok = false;
    if (!tool.dataConnect(path, type, 'I', &d)) return "";
    std::string got;
    char buf[8192];
    int n = 0;
    for (int i = 0; i < 100000; ++i) {
        n = tool.read(buf, sizeof buf, d);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    *ok = tool.closeData(d) == 1 && n == 0;
    return got;
}

class FtpRealServer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << server.failure();
        ASSERT_EQ(tool.connect(server.hostPort().c_str()), 1) << tool.getResponse();
        ASSERT_EQ(tool.login(RealFtpServer::user(), RealFtpServer::password()), 1)
            << tool.getResponse();
    }

    RealFtpServer server{FtpServerKind::kPyftpdlib};
    FTPTool tool;
};

TEST_F(FtpRealServer, AMebibyteGoesUpAndComesBackByteExactThroughDirectoriesRenamesAndDeletes) {
    const std::string content = randomBytes(1 << 20, 11);

    ASSERT_EQ(tool.mkdir("/rec"), 1) << tool.getResponse();
    ASSERT_EQ(tool.cd("/rec"), 1) << tool.getResponse();
    ASSERT_EQ(tool.mkdir("2024"), 1) << tool.getResponse();
    ASSERT_EQ(tool.cd("2024"), 1) << tool.getResponse();
    EXPECT_TRUE(server.dirExists("/rec/2024"));

    ASSERT_TRUE(store(tool, "a.bin", content)) << tool.getResponse();
    std::string onDisk;
    ASSERT_TRUE(server.readFile("/rec/2024/a.bin", &onDisk));
    EXPECT_TRUE(onDisk == content) << "the server's copy differs; size " << onDisk.size();

    int size = -1;
    EXPECT_EQ(tool.size("/rec/2024/a.bin", &size, 'I'), 1) << tool.getResponse();
    EXPECT_EQ(size, 1 << 20);

    bool ok = false;
    std::string back = fetch(tool, "a.bin", kFtpRetr, &ok);
    EXPECT_TRUE(ok) << tool.getResponse();
    EXPECT_TRUE(back == content) << "retrieved " << back.size() << " bytes";

    EXPECT_EQ(tool.moveFile("/rec/2024/a.bin", "/rec/2024/b.bin"), 1) << tool.getResponse();
    EXPECT_FALSE(server.fileExists("/rec/2024/a.bin"));
    EXPECT_TRUE(server.fileExists("/rec/2024/b.bin"));

    std::string listing = fetch(tool, "/rec/2024", kFtpList, &ok);
    EXPECT_TRUE(ok) << tool.getResponse();
    EXPECT_NE(listing.find("b.bin"), std::string::npos) << listing;
    EXPECT_NE(listing.find("1048576"), std::string::npos) << listing;

    EXPECT_EQ(tool.deleteFile("/rec/2024/b.bin"), 1) << tool.getResponse();
    EXPECT_FALSE(server.fileExists("/rec/2024/b.bin"));

    EXPECT_EQ(tool.cd(""), 1);
    EXPECT_EQ(tool.rmdir("/rec/2024"), 1) << tool.getResponse();
    EXPECT_EQ(tool.rmdir("/rec"), 1) << tool.getResponse();
    EXPECT_FALSE(server.dirExists("/rec"));
    EXPECT_EQ(tool.quit(), 1);
    EXPECT_TRUE(server.waitForSessionCount(0, std::chrono::milliseconds(5000)));
}

TEST_F(FtpRealServer, RefusalsOfARealServerAreFailures) {
    int size = 0;
    EXPECT_EQ(tool.size("/missing.bin", &size, 'I'), 0);
    EXPECT_EQ(tool.getResponse()[0], '5') << tool.getResponse();
    EXPECT_EQ(tool.cd("/missing"), 0);
    EXPECT_EQ(tool.moveFile("/missing.bin", "/other.bin"), 0);
    EXPECT_EQ(tool.rmdir("/missing"), 0);
    EXPECT_EQ(tool.deleteFile("/missing.bin"), 0);
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/missing.bin", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(d, nullptr);
    // The connection is still in step after all of them.
    EXPECT_EQ(tool.cd("/"), 1) << tool.getResponse();
}

TEST_F(FtpRealServer, AppendAndPortModeWorkAgainstARealServer) {
    ASSERT_TRUE(store(tool, "/log.bin", "first-"));
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/log.bin", kFtpAppe, 'I', &d), 1) << tool.getResponse();
    EXPECT_EQ(tool.write("second", 6, d), 6);
    EXPECT_EQ(tool.closeData(d), 1) << tool.getResponse();
    std::string onDisk;
    ASSERT_TRUE(server.readFile("/log.bin", &onDisk));
    EXPECT_EQ(onDisk, "first-second");

    tool.getControlBuf()->connectionMode = kNetBufPort;
    const std::string content = randomBytes(100000, 12);
    ASSERT_TRUE(store(tool, "/port.bin", content)) << tool.getResponse();
    bool ok = false;
    EXPECT_TRUE(fetch(tool, "/port.bin", kFtpRetr, &ok) == content);
    EXPECT_TRUE(ok) << tool.getResponse();
    ASSERT_TRUE(server.readFile("/port.bin", &onDisk));
    EXPECT_TRUE(onDisk == content);
}

}  // namespace
