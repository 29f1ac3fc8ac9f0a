// Directory and file operations of the store on its main connection, checked
// line by line against what the scripted server received.
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "StoreTestUtil.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "support/ScriptedFtpServer.h"
#include "support/StoreTestAccess.h"

namespace {

using ftptest::listingReply;

using Commands = std::vector<std::string>;

// Heap bytes in use (every arena, mmapped blocks included); sanitizers report 0.
size_t heapBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
using storetest::unixLine;

// What a listing of `dir` sends: back to the root, into the directory, then
// the listing itself, asked for the same path again.
Commands listingOf(const std::string& dir) {
    return Commands{"CWD /", dir.empty() ? "CWD /" : "CWD " + dir, "TYPE I", "PASV",
                    dir.empty() ? "LIST " : "LIST " + dir};
}

Commands operator+(Commands a, const Commands& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class StorePaths : public ::testing::Test {
protected:
    void SetUp() override {
        store.reset(new FTPFileSystemImpl(server.address().c_str(), "rec", "pw", 1024));
        ASSERT_EQ(store->init(), 0);
        mark = server.commands().size();
    }

    // Commands received since SetUp (or the last call of this).
    Commands newCommands() {
        const Commands all = server.commands();
        Commands fresh = storetest::tail(all, mark);
        mark = all.size();
        return fresh;
    }

    ftptest::ScriptedFtpServer server;
    std::unique_ptr<FTPFileSystemImpl> store;
    size_t mark = 0;
};

// --- createDir ------------------------------------------------------------------

TEST_F(StorePaths, CreateDirOfTheRootOrOfAnEmptyPathSucceedsWithoutTraffic) {
    EXPECT_EQ(store->createDir("/"), 0);
    EXPECT_EQ(store->createDir(""), 0);
    EXPECT_TRUE(newCommands().empty());
}

TEST_F(StorePaths, CreateDirOfAnExistingTreeSendsOnlyCwdPairsFromTheRoot) {
    EXPECT_EQ(store->createDir("/rec/d1/cam1"), 0);
    EXPECT_EQ(newCommands(), (Commands{"CWD /", "CWD /rec/", "CWD /", "CWD /rec/d1/", "CWD /",
                                       "CWD /rec/d1/cam1"}));
}

TEST_F(StorePaths, CreateDirMakesEveryMissingPrefix) {
    server.queueReply("CWD /rec/d1/", "550 No such directory");
    server.queueReply("CWD /rec/d1/cam1", "550 No such directory");
    EXPECT_EQ(store->createDir("/rec/d1/cam1"), 0);
    EXPECT_EQ(newCommands(),
              (Commands{"CWD /", "CWD /rec/", "CWD /", "CWD /rec/d1/", "MKD /rec/d1/", "CWD /",
                        "CWD /rec/d1/cam1", "MKD /rec/d1/cam1"}));
}

TEST_F(StorePaths, CreateDirStopsAtTheFirstFailedMkdirAndKeepsWhatItMade) {
    server.queueReply("CWD /a/", "550 No such directory");
    server.queueReply("CWD /a/b/", "550 No such directory");
    server.queueReply("MKD /a/b/", "550 Permission denied");
    EXPECT_EQ(store->createDir("/a/b/c"), -1);
    EXPECT_EQ(newCommands(),
              (Commands{"CWD /", "CWD /a/", "MKD /a/", "CWD /", "CWD /a/b/", "MKD /a/b/"}));
}

TEST_F(StorePaths, CreateDirTakesARelativePathFromTheRoot) {
    EXPECT_EQ(store->createDir("a/b"), 0);
    EXPECT_EQ(newCommands(), (Commands{"CWD /", "CWD a/", "CWD /", "CWD a/b"}));
}

TEST_F(StorePaths, CreateDirKeepsADoubledSeparatorInEveryPrefix) {
    EXPECT_EQ(store->createDir("x//y"), 0);
    EXPECT_EQ(newCommands(),
              (Commands{"CWD /", "CWD x/", "CWD /", "CWD x//", "CWD /", "CWD x//y"}));
}

// A path of 100,000 separators has 99,999 prefixes; only those that fit a
// command line can ever be sent, and the walk stops at the first that does
// not. The prefixes are made one at a time: all of them at once would hold
// about 5 GB.
TEST_F(StorePaths, CreateDirOfAHugeRunOfSeparatorsStopsAtTheFirstPrefixTooLongToSend) {
    const std::string path(100000, '/');
    std::atomic<bool> done{false};
    std::atomic<size_t> peak{0};
    const size_t start = heapBytes();
    std::thread sampler([&] {
        while (!done.load()) {
            const size_t now = heapBytes();
            if (now > peak.load()) peak.store(now);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const int made = store->createDir(path.c_str());
    const bool exists = store->isDirExist(path.c_str());
    done.store(true);
    sampler.join();
    EXPECT_EQ(made, -1);
    EXPECT_FALSE(exists);
    Commands expected;
    for (size_t k = 2; k <= 249; ++k) {
        expected.push_back("CWD /");
        expected.push_back("CWD " + std::string(k, '/'));
    }
    expected.push_back("CWD /");  // then "CWD " + 250 "/" is refused, and so is "MKD"
    for (size_t k = 2; k <= 249; ++k) expected.push_back("CWD " + std::string(k, '/'));
    const Commands sent = newCommands();
    EXPECT_EQ(sent.size(), expected.size());
    EXPECT_TRUE(sent == expected);
    EXPECT_LT(peak.load(), start + 64u * 1024 * 1024) << "the prefixes were made all at once";
}

TEST_F(StorePaths, CreateDirOfANullPathFails) {
    EXPECT_EQ(store->createDir(nullptr), -1);
    EXPECT_TRUE(newCommands().empty());
}

// --- isDirExist -------------------------------------------------------------------

TEST_F(StorePaths, IsDirExistChangesIntoEachPrefixWithoutReturningToTheRoot) {
    EXPECT_TRUE(store->isDirExist("/rec/d1/cam1"));
    EXPECT_EQ(newCommands(), (Commands{"CWD /rec/", "CWD /rec/d1/", "CWD /rec/d1/cam1"}));
}

TEST_F(StorePaths, IsDirExistStopsAfterTheFirstFailedCwd) {
    server.queueReply("CWD /rec/missing/", "550 No such directory");
    EXPECT_FALSE(store->isDirExist("/rec/missing/x"));
    EXPECT_EQ(newCommands(), (Commands{"CWD /rec/", "CWD /rec/missing/"}));
}

TEST_F(StorePaths, IsDirExistOfTheRootOrAnEmptyPathIsTrueWithoutAnyCwd) {
    EXPECT_TRUE(store->isDirExist("/"));
    EXPECT_TRUE(store->isDirExist(""));
    EXPECT_TRUE(newCommands().empty());
}

TEST_F(StorePaths, IsDirExistOnAnUninitialisedStoreIsFalseWithoutTraffic) {
    ASSERT_EQ(store->uninit(), 0);
    newCommands();
    EXPECT_FALSE(store->isDirExist("/rec"));
    EXPECT_FALSE(store->isDirExist(nullptr));
    EXPECT_TRUE(newCommands().empty());
}

// --- isFileExist and createFile ---------------------------------------------------

TEST_F(StorePaths, IsFileExistOpensARetrieveAndClosesItWithoutReading) {
    server.putFile("/rec/a.dat", std::string(100000, 'x'));
    EXPECT_TRUE(store->isFileExist("/rec/a.dat"));
    EXPECT_EQ(newCommands(), (Commands{"TYPE I", "PASV", "RETR /rec/a.dat"}));
    EXPECT_FALSE(store->isFileExist("/rec/b.dat"));
    EXPECT_EQ(newCommands(), (Commands{"TYPE I", "PASV", "RETR /rec/b.dat"}));
}

TEST_F(StorePaths, CreateFileOfAnExistingFileKeepsItsContent) {
    server.putFile("/rec/a.dat", "recorded bytes");
    EXPECT_EQ(store->createFile("/rec/a.dat"), 0);
    EXPECT_EQ(newCommands(), (Commands{"TYPE I", "PASV", "RETR /rec/a.dat"}));
    EXPECT_EQ(server.file("/rec/a.dat"), std::optional<std::string>("recorded bytes"));
}

TEST_F(StorePaths, CreateFileOfAMissingFileStoresAnEmptyOne) {
    EXPECT_EQ(store->createFile("/rec/new.dat"), 0);
    EXPECT_EQ(newCommands(), (Commands{"TYPE I", "PASV", "RETR /rec/new.dat", "TYPE I", "PASV",
                                       "STOR /rec/new.dat"}));
    EXPECT_EQ(server.file("/rec/new.dat"), std::optional<std::string>(""));
}

TEST_F(StorePaths, CreateFileFailsWhenNeitherRetrieveNorStoreOpens) {
    server.queueReply("STOR", "553 Not allowed");
    EXPECT_EQ(store->createFile("/ro/new.dat"), -1);
    EXPECT_EQ(newCommands(), (Commands{"TYPE I", "PASV", "RETR /ro/new.dat", "TYPE I", "PASV",
                                       "STOR /ro/new.dat"}));
    EXPECT_FALSE(server.file("/ro/new.dat").has_value());
}

// --- getFileLength -----------------------------------------------------------------

TEST_F(StorePaths, GetFileLengthReadsTheSizeFromTheParentsListing) {
    server.setReply("LIST /rec/d1",
                    listingReply(unixLine('-', "17", "b.dat") + unixLine('-', "1234", "a.dat")));
    EXPECT_EQ(store->getFileLength("/rec/d1/a.dat"), 1234);
    EXPECT_EQ(newCommands(), listingOf("/rec/d1"));
}

TEST_F(StorePaths, GetFileLengthOfANameThatIsOnlyADirectoryIsMinusOne) {
    server.setReply("LIST /rec", listingReply(unixLine('d', "4096", "cam1")));
    EXPECT_EQ(store->getFileLength("/rec/cam1"), -1);
    EXPECT_EQ(newCommands(), listingOf("/rec"));
}

TEST_F(StorePaths, GetFileLengthSkipsADirectoryOfTheSameNameAndFindsTheFile) {
    server.setReply("LIST /rec",
                    listingReply(unixLine('d', "4096", "x") + unixLine('-', "9", "x")));
    EXPECT_EQ(store->getFileLength("/rec/x"), 9);
}

TEST_F(StorePaths, GetFileLengthOfAFileUnderTheRootListsTheEmptyName) {
    server.setListing(unixLine('-', "77", "a.dat"));
    EXPECT_EQ(store->getFileLength("/a.dat"), 77);
    EXPECT_EQ(newCommands(), listingOf(""));
}

TEST_F(StorePaths, GetFileLengthOfANameWithoutSlashListsTheNameItself) {
    server.setReply("LIST a.dat", listingReply(unixLine('-', "5", "a.dat")));
    EXPECT_EQ(store->getFileLength("a.dat"), 5);
    EXPECT_EQ(newCommands(), listingOf("a.dat"));
}

TEST_F(StorePaths, GetFileLengthIsMinusOneWhenTheDirectoryCannotBeEntered) {
    server.queueReply("CWD /none", "550 No such directory");
    EXPECT_EQ(store->getFileLength("/none/a.dat"), -1);
    EXPECT_EQ(newCommands(), (Commands{"CWD /", "CWD /none"}));
}

TEST_F(StorePaths, GetFileLengthOnAnUninitialisedStoreIsMinusOneWithoutTraffic) {
    ASSERT_EQ(store->uninit(), 0);
    newCommands();
    EXPECT_EQ(store->getFileLength("/rec/a.dat"), -1);
    EXPECT_EQ(store->getFileLength(nullptr), -1);
    EXPECT_TRUE(newCommands().empty());
}

// --- deleteFile ---------------------------------------------------------------------

TEST_F(StorePaths, DeleteFileListsTheParentThenDeletesAndLowersTheAccount) {
    store->updateSpaceInfo(5000, true);
    server.putFile("/rec/d1/a.dat", "abc");
    server.setReply("LIST /rec/d1", listingReply(unixLine('-', "1234", "a.dat")));
    EXPECT_EQ(store->deleteFile("/rec/d1/a.dat"), 0);
    EXPECT_EQ(newCommands(),
              (listingOf("/rec/d1") + Commands{"CWD /", "CWD /rec/d1", "DELE a.dat"}));
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 5000 - 1234);
    EXPECT_FALSE(server.file("/rec/d1/a.dat").has_value());
}

TEST_F(StorePaths, DeleteFileOfAFileMissingFromTheListingButAcceptedRaisesTheAccountByOne) {
    server.setReply("LIST /rec", listingReply(unixLine('-', "10", "other.dat")));
    EXPECT_EQ(store->deleteFile("/rec/ghost.dat"), 0);
    EXPECT_EQ(newCommands(), (listingOf("/rec") + Commands{"CWD /", "CWD /rec", "DELE ghost.dat"}));
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 1);
}

TEST_F(StorePaths, DeleteFileRefusedByTheServerFailsAndKeepsTheAccount) {
    server.setReply("LIST /rec", listingReply(unixLine('-', "10", "a.dat")));
    server.queueReply("DELE", "550 Permission denied");
    EXPECT_EQ(store->deleteFile("/rec/a.dat"), -1);
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 0);
}

TEST_F(StorePaths, DeleteFileListsBeforeItLooksAtTheInitialisedFlag) {
    // A refused login whose QUIT is refused too leaves the control connection
    // up while the store is uninitialised: the listing still goes out, the
    // deletion does not.
    FTPFileSystemImpl half(server.address().c_str(), "rec", "pw", 1024);
    server.queueReply("PASS", "530 Login incorrect");
    server.queueReply("QUIT", "500 Not now");
    ASSERT_EQ(half.init(), -1);
    newCommands();
    server.setReply("LIST /rec", listingReply(unixLine('-', "10", "a.dat")));
    EXPECT_EQ(half.deleteFile("/rec/a.dat"), -1);
    EXPECT_EQ(newCommands(), listingOf("/rec"));
    EXPECT_EQ(half.deleteFile(nullptr), -1);
    EXPECT_TRUE(newCommands().empty());
}

// --- renameFile ----------------------------------------------------------------------

TEST_F(StorePaths, RenameFileSendsRnfrThenRnto) {
    server.putFile("/rec/a.dat", "abc");
    EXPECT_EQ(store->renameFile("/rec/a.dat", "/rec/b.dat"), 0);
    EXPECT_EQ(newCommands(), (Commands{"RNFR /rec/a.dat", "RNTO /rec/b.dat"}));
    EXPECT_EQ(server.file("/rec/b.dat"), std::optional<std::string>("abc"));
}

TEST_F(StorePaths, RenameFileFailsWhenTheSourceIsRefused) {
    server.queueReply("RNFR", "550 No such file");
    EXPECT_EQ(store->renameFile("/rec/a.dat", "/rec/b.dat"), -1);
    EXPECT_EQ(newCommands(), (Commands{"RNFR /rec/a.dat"}));
}

TEST_F(StorePaths, RenameFileWithANullArgumentOrUninitialisedFailsWithoutTraffic) {
    EXPECT_EQ(store->renameFile(nullptr, "/b"), -1);
    EXPECT_EQ(store->renameFile("/a", nullptr), -1);
    ASSERT_EQ(store->uninit(), 0);
    newCommands();
    EXPECT_EQ(store->renameFile("/a", "/b"), -1);
    EXPECT_TRUE(newCommands().empty());
}

// --- removeDir --------------------------------------------------------------------------

TEST_F(StorePaths, RemoveDirDeletesFilesAndDirectoriesDepthFirst) {
    store->updateSpaceInfo(1000, true);
    server.setReply("LIST /t",
                    listingReply(unixLine('-', "10", "a.dat") + unixLine('d', "4096", "sub") +
                                 unixLine('-', "20", "b.dat")));
    server.setReply("LIST /t/sub", listingReply(unixLine('-', "300", "c.dat")));
    EXPECT_EQ(store->removeDir("/t"), 0);
    const Commands expected =
        listingOf("/t") +                                              // what /t holds
        listingOf("/t") + Commands{"CWD /", "CWD /t", "DELE a.dat"} +  // a.dat
        listingOf("/t/sub") +                                          // what sub holds
        listingOf("/t/sub") + Commands{"CWD /", "CWD /t/sub", "DELE c.dat"} +
        Commands{"CWD /", "RMD /t/sub"} +  // sub itself
        listingOf("/t") + Commands{"CWD /", "CWD /t", "DELE b.dat"} + Commands{"CWD /", "RMD /t"};
    EXPECT_EQ(newCommands(), expected);
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 1000 - 10 - 300 - 20);
}

TEST_F(StorePaths, RemoveDirSubtractsTheWrapped32BitSizeOfFilesOf2GiBOrMore) {
    // 3 GiB wraps to -1 GiB in the listing's signed 32-bit size; 2 GiB to
    // -2 GiB. Subtracting them raises the account by those amounts.
    server.setReply("LIST /big", listingReply(unixLine('-', "3221225472", "three.ts") +
                                              unixLine('-', "2147483648", "two.ts") +
                                              unixLine('-', "2147483647", "max.ts")));
    EXPECT_EQ(store->removeDir("/big"), 0);
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 1073741824LL + 2147483648LL - 2147483647LL);
}

TEST_F(StorePaths, RemoveDirStopsAtAFileWhoseWrappedSizeIsMinusOne) {
    // 4 GiB - 1 bytes wraps to -1, which reads as "not found": the walk stops
    // there and nothing is deleted.
    server.setReply("LIST /big", listingReply(unixLine('-', "4294967295", "huge.ts") +
                                              unixLine('-', "5", "after.ts")));
    EXPECT_EQ(store->removeDir("/big"), -1);
    EXPECT_EQ(newCommands(), listingOf("/big") + listingOf("/big"));
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 0);
}

TEST_F(StorePaths, RemoveDirStopsAtTheFirstFailureAndKeepsWhatItRemoved) {
    server.setReply("LIST /t",
                    listingReply(unixLine('-', "10", "a.dat") + unixLine('-', "20", "b.dat")));
    server.queueReply("DELE b.dat", "550 Permission denied");
    EXPECT_EQ(store->removeDir("/t"), -1);
    EXPECT_EQ(newCommands(),
              (listingOf("/t") + listingOf("/t") + Commands{"CWD /", "CWD /t", "DELE a.dat"} +
               listingOf("/t") + Commands{"CWD /", "CWD /t", "DELE b.dat"}));
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), -10);
}

TEST_F(StorePaths, RemoveDirOfAPathEndingInSlashBuildsDoubledChildPaths) {
    server.setReply("LIST /t/", listingReply(unixLine('-', "10", "a.dat")));
    EXPECT_EQ(store->removeDir("/t/"), 0);
    EXPECT_EQ(newCommands(),
              (listingOf("/t/") + listingOf("/t/") + Commands{"CWD /", "CWD /t/", "DELE a.dat"} +
               Commands{"CWD /", "RMD /t/"}));
}

TEST_F(StorePaths, RemoveDirFailsWhenTheServerRefusesRmd) {
    server.setReply("LIST /t", listingReply(""));
    server.queueReply("RMD", "550 Directory not empty");
    EXPECT_EQ(store->removeDir("/t"), -1);
    EXPECT_EQ(newCommands(), (listingOf("/t") + Commands{"CWD /", "RMD /t"}));
}

TEST_F(StorePaths, RemoveDirOfANullPathOrUninitialisedFailsWithoutTraffic) {
    EXPECT_EQ(store->removeDir(nullptr), -1);
    ASSERT_EQ(store->uninit(), 0);
    newCommands();
    EXPECT_EQ(store->removeDir("/t"), -1);
    EXPECT_TRUE(newCommands().empty());
}

// --- Handle gates ------------------------------------------------------------------------

TEST_F(StorePaths, ReadOnAHandleOpenedForWritingAndWriteOnOneOpenedForReadingFail) {
    server.putFile("/rec/in.dat", "0123456789");
    const int reading = store->open("/rec/in.dat", 1);
    const int writing = store->open("/rec/out.dat", 2);
    ASSERT_GE(reading, 1);
    ASSERT_GE(writing, 1);
    char buf[16];
    EXPECT_EQ(store->read(writing, buf, sizeof buf), -1);
    EXPECT_EQ(store->write(reading, "abc", 3), -1);
    EXPECT_EQ(store->aioWrite(reading, "abc", 3), -1);
    // aioReturn looks at no mode: on a reading handle it reports the data
    // socket as the open file sees it (writable).
    EXPECT_EQ(store->aioReturn(reading, 1000), 0);
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 0);
    EXPECT_EQ(store->write(writing, "abc", 3), 3);
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 3);
    EXPECT_EQ(store->close(writing), 0);
    EXPECT_EQ(store->close(reading), 0);
    EXPECT_EQ(server.file("/rec/out.dat"), std::optional<std::string>("abc"));
}

TEST_F(StorePaths, HandleOperationsOnAnUnknownHandleFail) {
    char buf[4];
    EXPECT_EQ(store->read(7, buf, sizeof buf), -1);
    EXPECT_EQ(store->write(7, "a", 1), -1);
    EXPECT_EQ(store->aioWrite(7, "a", 1), -1);
    EXPECT_EQ(store->aioReturn(7, 10), -1);
    // A handle number the table knows but that is not open closes "fine";
    // one outside the table's range does not.
    EXPECT_EQ(store->close(7), 0);
    EXPECT_EQ(store->close(5000), -1);
    EXPECT_EQ(store->open(nullptr, 2), -1);
    EXPECT_TRUE(newCommands().empty());
}

TEST_F(StorePaths, HandleOperationsUseTheirOwnConnectionAndIgnoreTheInitialisedFlag) {
    ASSERT_EQ(store->uninit(), 0);
    const int handle = store->open("/rec/seg.ts", 2);
    ASSERT_GE(handle, 1);
    EXPECT_EQ(store->write(handle, "12345", 5), 5);
    EXPECT_EQ(store->close(handle), 0);
    EXPECT_EQ(server.file("/rec/seg.ts"), std::optional<std::string>("12345"));
    // The main connection was quit; the file went over a second one.
    EXPECT_EQ(server.connectionCount(), 2);
    EXPECT_EQ(server.commandsOn(2),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "STOR /rec/seg.ts"}));
}

TEST_F(StorePaths, AioWriteDoesNotRaiseTheAccountAndAioReturnReportsWritable) {
    const int handle = store->open("/rec/aio.ts", 2);
    ASSERT_GE(handle, 1);
    EXPECT_EQ(store->aioReturn(handle, 1000), 0);
    EXPECT_EQ(store->aioWrite(handle, "abcdef", 6), 6);
    EXPECT_EQ(store->aioReturn(handle, 1000), 0);
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 0);
    EXPECT_EQ(store->close(handle), 0);
    EXPECT_EQ(server.file("/rec/aio.ts"), std::optional<std::string>("abcdef"));
}

}  // namespace
