// Listings of real FTP servers on loopback: each server lists a prepared tree
// (files, sub-directories, a symbolic link, a dot-file, a name with a blank
// and a sparse file of 2 GiB - 1 bytes) and the store must keep exactly the
// names, types and sizes its parsers are meant to keep.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/ListingTestUtil.h"
#include "support/RealFtpServer.h"
#include "support/StoreTestAccess.h"
#include "support/TestHelpers.h"

using listingtest::describe;
using listingtest::Entries;
using Lines = std::vector<std::string>;

namespace {

using ftptest::sorted;

const long long kTwoGiBMinusOne = 2147483647LL;

class ListingRealServers : public ::testing::TestWithParam<FtpServerKind> {
protected:
    void SetUp() override {
        server.reset(new RealFtpServer(GetParam()));
        ASSERT_TRUE(server->ready()) << server->failure();
        ASSERT_TRUE(server->makeDir("/tree"));
        ASSERT_TRUE(server->makeDir("/tree/cam1"));
        ASSERT_TRUE(server->makeDir("/tree/cam2"));
        ASSERT_TRUE(server->writeFile("/tree/a.dat", std::string(100, 'a')));
        ASSERT_TRUE(server->writeFile("/tree/b.mp4", "b"));
        ASSERT_TRUE(server->writeFile("/tree/.hidden", std::string(10, 'h')));
        ASSERT_TRUE(server->writeFile("/tree/my file.dat", std::string(50, 'm')));
        ASSERT_TRUE(server->writeFile("/tree/cam1/c1.dat", std::string(300, 'c')));
        // 2 GiB - 1 bytes that take no room on the disk.
        ASSERT_TRUE(server->writeFile("/tree/big.bin", ""));
        ASSERT_EQ(::truncate(server->localPath("/tree/big.bin").c_str(), kTwoGiBMinusOne), 0);
        ASSERT_EQ(::symlink("a.dat", server->localPath("/tree/latest").c_str()), 0);

        store.reset(new FTPFileSystemImpl(server->hostPort().c_str(), RealFtpServer::user(),
                                          RealFtpServer::password(), 1024));
        ASSERT_EQ(store->init(), 0) << server->logTail();
    }

    void TearDown() override {
        if (store) store->uninit();
        store.reset();
        server.reset();
    }

    // The size a server shows for a folder is the folder's own size on the
    // server's disk.
    long long localSize(const std::string& ftpPath) const {
        struct stat st;
        return ::lstat(server->localPath(ftpPath).c_str(), &st) == 0 ? st.st_size : -1;
    }

    // The raw "LIST" text of `path`, for failure messages.
    std::string rawListing(const std::string& path) {
        SafePointer<FTPTool> tool(new FTPTool());
        std::string text;
        if (tool->connect(server->hostPort().c_str()) == 1 &&
            tool->login(RealFtpServer::user(), RealFtpServer::password()) == 1) {
            tool->cd(path.c_str());
            store->recvData(tool, path.c_str(), text);
        }
        return text;
    }

    std::unique_ptr<RealFtpServer> server;
    std::unique_ptr<FTPFileSystemImpl> store;
};

TEST_P(ListingRealServers, EveryNameTypeAndSizeThatTheParsersKeepComesThrough) {
    Entries entries;
    long long total = 0;

    ASSERT_TRUE(StoreTestAccess::getFileDescriptorList(*store, "/tree", entries, total))
        << rawListing("/tree");

    // The dot-file is dropped (or never listed); the name with a blank keeps
    // its first word; the link keeps type 'l' and the length of its target
    // text; folders show their own size on the server's disk.
    const Lines expected = sorted({
        "- 100 a.dat",
        "- 1 b.mp4",
        "- 2147483647 big.bin",
        "- 50 my",
        "d " + std::to_string(localSize("/tree/cam1")) + " cam1",
        "d " + std::to_string(localSize("/tree/cam2")) + " cam2",
        "l 5 latest",
    });
    EXPECT_EQ(sorted(describe(entries)), expected) << rawListing("/tree");
    EXPECT_EQ(total, 100 + 1 + kTwoGiBMinusOne + 50 + localSize("/tree/cam1") +
                         localSize("/tree/cam2") + 5)
        << rawListing("/tree");
}

// Records the names it is given.
class RecordingAction : public IFileScanAction {
public:
    int onFile(const char* fileName) override {
        names.push_back(fileName);
        return 0;
    }
    Lines names;
};

TEST_P(ListingRealServers, FileListsSubDirectoriesEmptinessScanAndTreeSizeAgreeWithTheDisk) {
    ASSERT_TRUE(server->makeDir("/dots"));
    ASSERT_TRUE(server->writeFile("/dots/.keep", "k"));
    Lines files;
    Lines dirs;
    RecordingAction action;
    long long size = 0;

    ASSERT_TRUE(store->getFileList("/tree", files, "")) << rawListing("/tree");
    ASSERT_TRUE(store->getSubDirList("/tree", dirs, ""));
    ASSERT_TRUE(store->scan("/tree", &action, ""));
    ASSERT_TRUE(store->getTotalSize("/tree", size));

    EXPECT_EQ(sorted(files), (Lines{"a.dat", "b.mp4", "big.bin", "my"})) << rawListing("/tree");
    EXPECT_EQ(sorted(dirs), (Lines{"cam1", "cam2"}));
    EXPECT_EQ(sorted(action.names), sorted(files));
    // Every listed size of the tree: /tree itself, then cam1's one file;
    // cam2 is empty and the link is not followed.
    EXPECT_EQ(size, 100 + 1 + kTwoGiBMinusOne + 50 + localSize("/tree/cam1") +
                        localSize("/tree/cam2") + 5 + 300);

    EXPECT_FALSE(store->isEmptyDir("/tree"));
    EXPECT_FALSE(store->isEmptyDir("/tree/cam1"));
    EXPECT_TRUE(store->isEmptyDir("/tree/cam2")) << rawListing("/tree/cam2");
    EXPECT_TRUE(store->isEmptyDir("/dots")) << "only a hidden name: " << rawListing("/dots");
    EXPECT_TRUE(store->isEmptyDir("/tree/none"));

    Lines none{"kept"};
    EXPECT_FALSE(store->getFileList("/tree/none", none, ""));
    EXPECT_EQ(none, Lines{"kept"});
}

bool onDisk(const RealFtpServer& server, const std::string& ftpPath) {
    struct stat st;
    return ::lstat(server.localPath(ftpPath).c_str(), &st) == 0;
}

// Names with blanks as the recorder meets them. Listings are read word by
// word and a listing's style is decided by the first line of exactly 9 words
// (or 4): "... Nov 24 10:30 my clip.ts" has 10. A folder whose names all have
// a blank therefore has no line that decides, and lists as empty; in a folder
// where one name has none, the line decides and the name with a blank is
// listed by its first word, which getFileLength then answers for although no
// file has that name.
TEST_P(ListingRealServers, NamesWithBlanksListAsEmptyOrByTheirFirstWord) {
    ASSERT_TRUE(server->makeDir("/blanks"));
    ASSERT_TRUE(server->writeFile("/blanks/my clip.ts", "12345"));
    ASSERT_TRUE(server->writeFile("/blanks/other take.ts", "1234567"));
    ASSERT_TRUE(server->makeDir("/mixed"));
    ASSERT_TRUE(server->writeFile("/mixed/plain.ts", "123"));
    ASSERT_TRUE(server->writeFile("/mixed/my clip.ts", "12345"));

    // Every name has a blank: nothing is listed, the folder looks empty.
    Lines files{"kept"};
    EXPECT_TRUE(store->getFileList("/blanks", files, "")) << rawListing("/blanks");
    EXPECT_EQ(files, Lines{"kept"}) << rawListing("/blanks");
    EXPECT_TRUE(store->isEmptyDir("/blanks")) << rawListing("/blanks");
    EXPECT_EQ(store->getFileLength("/blanks/my clip.ts"), -1);
    EXPECT_EQ(store->getFileLength("/blanks/my"), -1);
    // removeDir sees no entries and asks the server to remove a folder that
    // is not empty: refused, nothing deleted.
    EXPECT_EQ(store->removeDir("/blanks"), -1);
    EXPECT_TRUE(onDisk(*server, "/blanks/my clip.ts"));
    EXPECT_TRUE(onDisk(*server, "/blanks/other take.ts"));

    // One name without a blank decides the style: "my clip.ts" lists as "my".
    files.clear();
    EXPECT_TRUE(store->getFileList("/mixed", files, "")) << rawListing("/mixed");
    EXPECT_EQ(sorted(files), (Lines{"my", "plain.ts"})) << rawListing("/mixed");
    EXPECT_FALSE(onDisk(*server, "/mixed/my"));
    EXPECT_EQ(store->getFileLength("/mixed/my"), 5) << "a length for a file that does not exist";
    EXPECT_EQ(store->getFileLength("/mixed/my clip.ts"), -1);
    // removeDir stops at "my", which the server cannot delete.
    EXPECT_EQ(store->removeDir("/mixed"), -1);
    EXPECT_TRUE(onDisk(*server, "/mixed/my clip.ts"));
    // By its full path the file is deleted.
    EXPECT_EQ(store->deleteFile("/blanks/my clip.ts"), 0);
    EXPECT_FALSE(onDisk(*server, "/blanks/my clip.ts"));
}

INSTANTIATE_TEST_SUITE_P(EveryServer, ListingRealServers, ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
