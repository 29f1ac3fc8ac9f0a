// The module as the recorder uses it: a shared library whose host classes
// (locks, threads, clocks, reference counts, strings, files, logging) come from
// the process that loads it.
//
// This program is built the way a recorder is: it carries its own host classes
// (here the POSIX host library, compiled in), exports them dynamically, and
// links the module's shared library instead of its static archive. It runs with
// LD_BIND_NOW, so a host symbol that the module needs and the process does not
// provide stops the program before the first test. Natively and under qemu-arm
// it shows that the figures the recorder receives through the exported classes
// (64-bit lengths and totals, `long` space figures) are the same on both.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "host/RefCountManager.h"
#include "support/ScriptedFtpServer.h"

namespace {

// A Unix listing as a server sends it for a folder of large recordings.
const char kLargeRecordings[] =
    "-rw-r--r--   1 rec      rec      2147483647 Jan 15 10:30 a.mp4\r\n"
    "-rw-r--r--   1 rec      rec      3221225472 Jan 15 11:30 b.mp4\r\n"
    "-rw-r--r--   1 rec      rec      4294967301 Jan 15 12:30 c.mp4\r\n";

class ModuleLoading : public ::testing::Test {
protected:
    void SetUp() override {
        location_ = "rec(pw)@ftp://" + server_.address() + "/rec";
        ASSERT_EQ(FTPFileSystemManager::getInstance()->addFTPFileSystem(location_), 0) << location_;
    }
    void TearDown() override {
        EXPECT_EQ(FTPFileSystemManager::getInstance()->deleteFileSystem(location_), 0) << location_;
    }

    // The store registered for location_, initialised against the server.
    SafePointer<FTPFileSystem> initialisedStore() {
        SafePointer<FTPFileSystem> store;
        EXPECT_EQ(FTPFileSystemManager::getInstance()->getFTPFileSystem(location_, store), 1)
            << location_;
        EXPECT_EQ(store->init(), 0) << location_;
        return store;
    }

    ftptest::ScriptedFtpServer server_;
    std::string location_;
};

TEST(ModuleSymbols, TheModuleShowsItsExportedClassesAndHidesItsInternalOnes) {
    // Looked up in the whole process: the module's exported registry is
    // there, its FTP client is not (hidden visibility keeps the recorder's own
    // symbols from clashing with the module's internals).
    EXPECT_NE(dlsym(RTLD_DEFAULT, "_ZN20FTPFileSystemManager11getInstanceEv"), nullptr);
    EXPECT_NE(dlsym(RTLD_DEFAULT, "_ZN13FTPFileSystem4initEv"), nullptr);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "_ZN7FTPTool7connectEPKc"), nullptr);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "_ZN18LinuxFTPFileParserC1Ev"), nullptr);
}

TEST_F(ModuleLoading, TheModuleKeepsItsReferenceCountsInTheLoadingProcesssRegistry) {
    // A store lives in the module; the counts of the objects it holds live in
    // this process's RefCountManager. A module carrying its own copy of the
    // host classes would leave this process's count unchanged.
    const unsigned long before = RefCountManager::getInstance()->liveRecords();
    const std::string other = "rec(pw)@ftp://" + server_.address() + "/other";
    ASSERT_EQ(FTPFileSystemManager::getInstance()->addFTPFileSystem(other), 0);
    EXPECT_GT(RefCountManager::getInstance()->liveRecords(), before);
    EXPECT_EQ(FTPFileSystemManager::getInstance()->deleteFileSystem(other), 0);
    EXPECT_EQ(RefCountManager::getInstance()->liveRecords(), before);
}

TEST_F(ModuleLoading, AStoreFromTheRegistryLogsInThroughTheModulesOwnFtpClient) {
    SafePointer<FTPFileSystem> store = initialisedStore();
    const std::vector<std::string> commands = server_.commands();
    ASSERT_GE(commands.size(), 2u);
    EXPECT_EQ(commands[0], "USER rec");
    EXPECT_EQ(commands[1], "PASS pw");
    EXPECT_EQ(store->uninit(), 0);
}

TEST_F(ModuleLoading, AFileLengthBeyond2GiBCrossesTheBoundaryAsItsSigned32BitListingSize) {
    SafePointer<FTPFileSystem> store = initialisedStore();
    struct Case {
        const char* path;
        long long length;
    };
    const Case cases[] = {
        {"/rec/a.mp4", 2147483647LL},
        {"/rec/b.mp4", -1073741824LL},
        {"/rec/c.mp4", 5LL},
        {"/rec/missing.mp4", -1LL},
    };
    for (const Case& c : cases) {
        server_.setListing(kLargeRecordings);
        EXPECT_EQ(store->getFileLength(c.path), c.length) << c.path;
    }
    EXPECT_EQ(store->uninit(), 0);
}

TEST_F(ModuleLoading, TheTotalSizeOfLargeRecordingsIsAddedUpIn64Bits) {
    SafePointer<FTPFileSystem> store = initialisedStore();
    server_.setListing(
        "-rw-r--r--   1 rec      rec      2147483647 Jan 15 10:30 a.mp4\r\n"
        "-rw-r--r--   1 rec      rec      2147483647 Jan 15 11:30 b.mp4\r\n"
        "-rw-r--r--   1 rec      rec      2147483647 Jan 15 12:30 c.mp4\r\n");
    long long total = 10;  // the caller's starting value is added to
    EXPECT_TRUE(store->getTotalSize("/rec", total));
    EXPECT_EQ(total, 10 + 3 * 2147483647LL);
    EXPECT_EQ(store->uninit(), 0);
}

TEST_F(ModuleLoading, DeletingRecordingsOfSeveralGiBMovesTheSpaceFiguresInTheRecordersLong) {
    // Deleting lowers the account by the file's listed (wrapped) size. A
    // 3 GiB file lists as -1073741824, so the account rises by 1 GiB; two
    // 2 GiB files (-2147483648 each) raise it past 4 GiB: a 64-bit account on
    // both processors, reported in mebibytes in the recorder's long.
    SafePointer<FTPFileSystem> store = initialisedStore();
    server_.setListing(
        "-rw-r--r--   1 rec      rec      3221225472 Jan 15 10:30 b.mp4\r\n"
        "-rw-r--r--   1 rec      rec      2147483648 Jan 15 11:30 d.mp4\r\n"
        "-rw-r--r--   1 rec      rec      2147483648 Jan 15 12:30 e.mp4\r\n");
    long first = -1;
    long second = -1;
    EXPECT_EQ(store->getDiskSpaceInfo(first, second), 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 0);

    EXPECT_EQ(store->deleteFile("/rec/b.mp4"), 0);
    EXPECT_EQ(store->getDiskSpaceInfo(first, second), 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1024);

    EXPECT_EQ(store->deleteFile("/rec/d.mp4"), 0);
    EXPECT_EQ(store->deleteFile("/rec/e.mp4"), 0);
    EXPECT_EQ(store->getDiskSpaceInfo(first, second), 0);
    EXPECT_EQ(second, 1024 + 2 * 2048);

    std::vector<std::string> deletes;
    for (const std::string& line : server_.commands()) {
        if (line.compare(0, 5, "DELE ") == 0) deletes.push_back(line);
    }
    // DELE names the file inside its folder, after changing into it.
    EXPECT_EQ(deletes, (std::vector<std::string>{"DELE b.mp4", "DELE d.mp4", "DELE e.mp4"}));
    EXPECT_EQ(store->uninit(), 0);
}

}  // namespace
