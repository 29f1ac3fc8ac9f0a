// Recordings of 2 GiB and more on every real server kind: what the store
// reports for them is the same natively and on the 32-bit recorder. Lengths
// come from the servers' listings, whose sizes the entry record keeps as
// signed 32-bit numbers; totals are added up in 64 bits. The files are sparse,
// so gigabytes cost nothing on the server's disk and nothing is transferred.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/FTPFileSystem.h"
#include "support/RealFtpServer.h"

namespace {

// The server's own folder `ftpPath` gets a file of `size` bytes, of which only
// the first few are written.
bool makeSparseFile(const RealFtpServer& server, const std::string& ftpPath, long long size) {
    return server.writeFile(ftpPath, "ftpdisk") &&
           ::truncate(server.localPath(ftpPath).c_str(), static_cast<off_t>(size)) == 0;
}

// What a listing of `ftpPath` shows as the size of each sub-directory: the
// local size of the folder, as every server kind lists it.
long long localSize(const RealFtpServer& server, const std::string& ftpPath) {
    struct stat info;
    return ::lstat(server.localPath(ftpPath).c_str(), &info) == 0
               ? static_cast<long long>(info.st_size)
               : -1;
}

class LargeRemoteFiles : public ::testing::TestWithParam<FtpServerKind> {
protected:
    void SetUp() override {
        server_.reset(new RealFtpServer(GetParam()));
        ASSERT_TRUE(server_->ready()) << server_->failure();
        store_.reset(new FTPFileSystem(server_->hostPort().c_str(), RealFtpServer::user(),
                                       RealFtpServer::password(), 1024));
        ASSERT_EQ(store_->init(), 0) << server_->logTail();
    }
    void TearDown() override {
        if (store_) {
            EXPECT_EQ(store_->uninit(), 0);
        }
        store_.reset();
        server_.reset();
    }

    std::unique_ptr<RealFtpServer> server_;
    std::unique_ptr<FTPFileSystem> store_;
};

TEST_P(LargeRemoteFiles, TheLengthOfARecordingOf2GiBOrMoreIsItsListedSizeCutToSigned32Bits) {
    struct Case {
        const char* path;
        long long bytes;   // on the server's disk
        long long length;  // what getFileLength reports
    };
    const Case cases[] = {
        {"/big/under2g.mp4", 2147483647LL, 2147483647LL},
        {"/big/at2g.mp4", 2147483648LL, -2147483648LL},
        {"/big/at3g.mp4", 3221225472LL, -1073741824LL},
        {"/big/past4g.mp4", 4294967301LL, 5LL},
    };
    ASSERT_TRUE(server_->makeDir("/big"));
    for (const Case& c : cases) {
        ASSERT_TRUE(makeSparseFile(*server_, c.path, c.bytes)) << c.path;
    }
    for (const Case& c : cases) {
        EXPECT_EQ(store_->getFileLength(c.path), c.length)
            << c.path << " of " << c.bytes << " bytes on " << server_->name();
    }
}

TEST_P(LargeRemoteFiles, TheTotalSizeOfAFolderOfLargeRecordingsIsExactPast4GiB) {
    // Three recordings just under 2 GiB in two day folders: 6 GiB in all, a
    // total that wraps twice in 32 bits.
    ASSERT_TRUE(server_->makeDir("/rec"));
    ASSERT_TRUE(server_->makeDir("/rec/day1"));
    ASSERT_TRUE(server_->makeDir("/rec/day2"));
    const char* recordings[] = {"/rec/day1/a.mp4", "/rec/day1/b.mp4", "/rec/day2/c.mp4"};
    for (const char* path : recordings) {
        ASSERT_TRUE(makeSparseFile(*server_, path, 2147483647LL)) << path;
    }
    // Directories' own listed sizes count too.
    const long long expected =
        3 * 2147483647LL + localSize(*server_, "/rec/day1") + localSize(*server_, "/rec/day2");
    long long total = 0;
    ASSERT_TRUE(store_->getTotalSize("/rec", total)) << server_->name();
    EXPECT_EQ(total, expected) << server_->name();
    EXPECT_GT(total, 4294967296LL);
}

INSTANTIATE_TEST_SUITE_P(EveryKind, LargeRemoteFiles, ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
