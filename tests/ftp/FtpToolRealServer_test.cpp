// FTPTool against every real server kind: log in, store, retrieve, list,
// size, directories, rename and delete, checked on the server's own disk.
// These double as the smoke test of the server launcher.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "support/RealFtpServer.h"

namespace {

using std::chrono::milliseconds;

// Bytes 0..255 repeated, with "\r\n" and "\n" inside, so that any line-end
// translation or loss shows.
std::string bytesWithLineEnds(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
    if (size > 10) {
        bytes[3] = '\r';
        bytes[4] = '\n';
        bytes[9] = '\n';
    }
    return bytes;
}

// Stores `bytes` as `path` over a fresh data connection; writes go through
// FTPTool::write, which may take fewer bytes than offered.
bool storeFile(FTPTool& tool, const char* path, const std::string& bytes, std::string* why) {
    NetBuf* data = nullptr;
    if (tool.dataConnect(path, kFtpStor, 'I', &data) == 0 || data == nullptr) {
        *why = std::string("STOR not started: ") + tool.getResponse();
        return false;
    }
    size_t done = 0;
    for (int rounds = 0; done < bytes.size() && rounds < 100000; ++rounds) {
        int n = tool.write(bytes.data() + done, static_cast<int>(bytes.size() - done), data);
        if (n < 0) {
            *why = "write failed after " + std::to_string(done) + " bytes";
            tool.closeData(data);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (tool.closeData(data) != 1) {
        *why = std::string("closing reply: ") + tool.getResponse();
        return false;
    }
    return done == bytes.size();
}

// Reads a whole transfer (RETR or LIST) into `text`.
bool readAll(FTPTool& tool, const char* path, int type, std::string* text, std::string* why) {
    NetBuf* data = nullptr;
    if (tool.dataConnect(path, type, 'I', &data) == 0 || data == nullptr) {
        *why = std::string("transfer not started: ") + tool.getResponse();
        return false;
    }
    char chunk[4096];
    for (int rounds = 0; rounds < 100000; ++rounds) {
        int n = tool.read(chunk, sizeof chunk, data);
        if (n < 0) {
            *why = "read failed";
            tool.closeData(data);
            return false;
        }
        if (n == 0) break;
        text->append(chunk, static_cast<size_t>(n));
    }
    if (tool.closeData(data) != 1) {
        *why = std::string("closing reply: ") + tool.getResponse();
        return false;
    }
    return true;
}

class FtpToolOnRealServer : public ::testing::TestWithParam<FtpServerKind> {
protected:
    void SetUp() override {
        server_.reset(new RealFtpServer(GetParam()));
        ASSERT_TRUE(server_->ready()) << server_->failure();
        ASSERT_EQ(tool_.connect(server_->hostPort().c_str()), 1) << tool_.getResponse();
        ASSERT_EQ(tool_.login("rec", "pw"), 1) << tool_.getResponse() << server_->logTail();
    }

    std::unique_ptr<RealFtpServer> server_;
    FTPTool tool_;
};

TEST_P(FtpToolOnRealServer, StoresAndRetrievesAFileByteForByte) {
    const std::string bytes = bytesWithLineEnds(300 * 1024 + 17);
    std::string why;
    ASSERT_TRUE(storeFile(tool_, "seg.bin", bytes, &why)) << why << server_->logTail();
    std::string onDisk;
    ASSERT_TRUE(server_->readFile("/seg.bin", &onDisk));
    EXPECT_EQ(onDisk.size(), bytes.size());
    EXPECT_TRUE(onDisk == bytes) << "stored bytes differ";

    std::string back;
    ASSERT_TRUE(readAll(tool_, "seg.bin", kFtpRetr, &back, &why)) << why;
    EXPECT_EQ(back.size(), bytes.size());
    EXPECT_TRUE(back == bytes) << "retrieved bytes differ";

    int size = -1;
    EXPECT_NE(tool_.size("seg.bin", &size, 'I'), 0) << tool_.getResponse();
    EXPECT_EQ(size, static_cast<int>(bytes.size()));
}

TEST_P(FtpToolOnRealServer, StoresAnEmptyFile) {
    std::string why;
    ASSERT_TRUE(storeFile(tool_, "empty.bin", "", &why)) << why;
    std::string onDisk = "x";
    ASSERT_TRUE(server_->readFile("/empty.bin", &onDisk));
    EXPECT_EQ(onDisk, "");
}

TEST_P(FtpToolOnRealServer, AppendsToAnExistingFile) {
    ASSERT_TRUE(server_->writeFile("/log.bin", "head-"));
    NetBuf* data = nullptr;
    ASSERT_EQ(tool_.dataConnect("log.bin", kFtpAppe, 'I', &data), 1) << tool_.getResponse();
    ASSERT_EQ(tool_.write("tail", 4, data), 4);
    ASSERT_EQ(tool_.closeData(data), 1) << tool_.getResponse();
    std::string onDisk;
    ASSERT_TRUE(server_->readFile("/log.bin", &onDisk));
    EXPECT_EQ(onDisk, "head-tail");
}

TEST_P(FtpToolOnRealServer, ListsADirectoryInNineColumns) {
    ASSERT_TRUE(server_->makeDir("/day"));
    ASSERT_TRUE(server_->writeFile("/day/a.dat", std::string(1234, 'a')));
    ASSERT_TRUE(server_->makeDir("/day/cam1"));
    ASSERT_EQ(tool_.cd("/day"), 1) << tool_.getResponse();
    std::string listing, why;
    ASSERT_TRUE(readAll(tool_, nullptr, kFtpList, &listing, &why)) << why;
    // "-rw-r--r--   1 rec      rec          1234 Nov 22 04:14 a.dat"
    EXPECT_NE(listing.find(" 1234 "), std::string::npos) << listing;
    EXPECT_NE(listing.find(" a.dat\r\n"), std::string::npos) << listing;
    EXPECT_NE(listing.find("\nd"), std::string::npos) << listing;
    EXPECT_NE(listing.find(" cam1\r\n"), std::string::npos) << listing;
}

TEST_P(FtpToolOnRealServer, MakesChangesIntoRenamesAndRemovesDirectoriesAndFiles) {
    ASSERT_NE(tool_.mkdir("/rec"), 0) << tool_.getResponse();
    EXPECT_TRUE(server_->dirExists("/rec"));
    ASSERT_EQ(tool_.cd("/rec"), 1) << tool_.getResponse();
    ASSERT_NE(tool_.mkdir("d1"), 0) << tool_.getResponse();
    EXPECT_TRUE(server_->dirExists("/rec/d1"));
    EXPECT_EQ(tool_.cd("/missing"), 0);

    ASSERT_TRUE(server_->writeFile("/rec/d1/a.dat", "abc"));
    ASSERT_NE(tool_.moveFile("/rec/d1/a.dat", "/rec/d1/b.dat"), 0) << tool_.getResponse();
    EXPECT_FALSE(server_->fileExists("/rec/d1/a.dat"));
    EXPECT_TRUE(server_->fileExists("/rec/d1/b.dat"));

    ASSERT_NE(tool_.deleteFile("/rec/d1/b.dat"), 0) << tool_.getResponse();
    EXPECT_FALSE(server_->fileExists("/rec/d1/b.dat"));
    EXPECT_EQ(tool_.cd("/"), 1);
    ASSERT_NE(tool_.rmdir("/rec/d1"), 0) << tool_.getResponse();
    EXPECT_FALSE(server_->dirExists("/rec/d1"));
    EXPECT_NE(tool_.cdup(), 0) << tool_.getResponse();
}

TEST_P(FtpToolOnRealServer, RefusedTransfersFailAndLeaveTheConnectionUsable) {
    NetBuf* data = nullptr;
    EXPECT_EQ(tool_.dataConnect("/no/such/file", kFtpRetr, 'I', &data), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(tool_.getResponse()[0], '5') << tool_.getResponse();
    // The connection is still in step with the server.
    EXPECT_EQ(tool_.cd("/"), 1) << tool_.getResponse();
    std::string why;
    EXPECT_TRUE(storeFile(tool_, "after.bin", "ok", &why)) << why;
}

TEST_P(FtpToolOnRealServer, QuitEndsTheSession) {
    EXPECT_TRUE(server_->waitForSessionCount(1, milliseconds(5000))) << server_->sessionCount();
    EXPECT_EQ(tool_.quit(), 1) << tool_.getResponse();
    EXPECT_EQ(tool_.getControlBuf(), nullptr);
    EXPECT_TRUE(server_->waitForSessionCount(0, milliseconds(5000))) << server_->sessionCount();
}

TEST_P(FtpToolOnRealServer, WrongPasswordIsRefused) {
    FTPTool other;
    ASSERT_EQ(other.connect(server_->hostPort().c_str()), 1) << other.getResponse();
    EXPECT_EQ(other.login("rec", "wrong"), 0);
}

INSTANTIATE_TEST_SUITE_P(EveryKind, FtpToolOnRealServer, ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
