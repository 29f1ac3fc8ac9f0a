// Enumeration, scans, tree sizes and the space figures of the store against a
// scripted FTP server: what each operation returns, what it appends, which
// command lines the server received, and what it does when a step fails.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/ListingTestUtil.h"
#include "support/StoreTestAccess.h"

using listingtest::crlf;
using listingtest::listingOf;
using listingtest::serveListing;
using Lines = std::vector<std::string>;

namespace {

Lines concat(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// A recording folder on a Linux daemon: sub-directories, files, a link and a
// dot-file.
const std::string kMixedListing = crlf({
    "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 cam1",
    "-rw-r--r--    1 rec      rec       1048576 Jan 15 10:31 ch01_0001.mp4",
    "lrwxrwxrwx    1 rec      rec            13 Jan 15 10:31 latest -> ch01_0002.mp4",
    "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:32 cam2",
    "-rw-r--r--    1 rec      rec           512 Jan 15 10:33 ch01_0002.mp4",
    "-rw-r--r--    1 rec      rec            64 Jan 15 10:34 .index",
});

class Enumeration : public listingtest::ScriptedStoreTest {};

// --- getFileList and getSubDirList -------------------------------------------

TEST_F(Enumeration, GetFileListOnADirectoryHoldingOnlySubDirectoriesReturnsTrueAndAppendsNothing) {
    serveListing(server(), "/rec",
                 crlf({
                     "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 cam1",
                     "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:32 cam2",
                 }));
    Lines names;

    EXPECT_TRUE(store().getFileList("/rec", names, ""));

    EXPECT_TRUE(names.empty()) << ::testing::PrintToString(names);
    EXPECT_EQ(commands(), listingOf("/rec"));
}

TEST_F(Enumeration, GetFileListAppendsThePlainFilesInListingOrderWhateverTheFilterSays) {
    serveListing(server(), "/rec", kMixedListing);
    Lines names{"from before"};

    EXPECT_TRUE(store().getFileList("/rec", names, "*.avi"));

    EXPECT_EQ(names, (Lines{"from before", "ch01_0001.mp4", "ch01_0002.mp4"}));
    EXPECT_EQ(commands(), listingOf("/rec"));
}

TEST_F(Enumeration, GetSubDirListAppendsTheDirectoriesInListingOrderWhateverTheFilterSays) {
    serveListing(server(), "/rec", kMixedListing);
    Lines names{"from before"};

    EXPECT_TRUE(store().getSubDirList("/rec", names, "cam9"));

    EXPECT_EQ(names, (Lines{"from before", "cam1", "cam2"}));
    EXPECT_EQ(commands(), listingOf("/rec"));
}

TEST_F(Enumeration, ListingsOfADosServerGiveNeitherSelfNorParentAsSubDirectories) {
    serveListing(server(), "/video",
                 crlf({
                     "01-15-20  10:30AM       <DIR>          .",
                     "01-15-20  10:30AM       <DIR>          ..",
                     "01-15-20  10:30AM       <DIR>          cam1",
                     "01-15-20  10:31AM              1048576 ch01.mp4",
                 }));
    Lines dirs;
    Lines files;

    EXPECT_TRUE(store().getSubDirList("/video", dirs, ""));
    EXPECT_TRUE(store().getFileList("/video", files, ""));

    EXPECT_EQ(dirs, Lines{"cam1"});
    EXPECT_EQ(files, Lines{"ch01.mp4"});
}

TEST_F(Enumeration, AFailedListingGivesFalseAndAppendsNothing) {
    server().setReply("CWD /gone", "550 No such directory");
    Lines names{"kept"};

    EXPECT_FALSE(store().getFileList("/gone", names, ""));
    EXPECT_FALSE(store().getSubDirList("/gone", names, ""));

    EXPECT_EQ(names, Lines{"kept"});
    EXPECT_EQ(commands(), (Lines{"CWD /", "CWD /gone", "CWD /", "CWD /gone"}));
}

// --- isEmptyDir and getFileNumber ---------------------------------------------

TEST_F(Enumeration, IsEmptyDirOnAPathThatDoesNotExistReturnsTrue) {
    server().setReply("CWD /nowhere", "550 No such directory");

    EXPECT_TRUE(store().isEmptyDir("/nowhere"));

    EXPECT_EQ(commands(), (Lines{"CWD /", "CWD /nowhere"}));
}

TEST_F(Enumeration, IsEmptyDirIsFalseForADirectoryEnteredWhoseListingIsRefusedOrCut) {
    ftptest::Reply aborted("150 Here comes the listing");
    aborted.body = "";
    aborted.finalText = "426 Connection closed; transfer aborted";
    server().queueReply("LIST", aborted);
    EXPECT_FALSE(store().isEmptyDir("/rec"));

    ftptest::Reply reset("150 Here comes the listing");
    reset.body = crlf({"-rw-r--r--    1 rec      rec           512 Jan 15 10:33 a.mp4"});
    reset.closeDataAfter = 0;
    reset.resetData = true;
    server().queueReply("LIST", reset);
    EXPECT_FALSE(store().isEmptyDir("/rec"));

    server().queueReply("LIST", "450 Cannot list now");
    EXPECT_FALSE(store().isEmptyDir("/rec"));
}

TEST_F(Enumeration, IsEmptyDirIsFalseWhenTheServerRefusesTheChangeOnlyForNow) {
    // A 4xx says "not now" (busy, closing), not "no such directory".
    server().queueReply("CWD /rec", "450 Directory busy, try again");
    EXPECT_FALSE(store().isEmptyDir("/rec"));
    server().queueReply("CWD /rec", "550 No such directory");
    EXPECT_TRUE(store().isEmptyDir("/rec"));
}

TEST_F(Enumeration, IsEmptyDirIsFalseWhenTheChangeIntoTheDirectoryGetsNoAnswer) {
    // The server says nothing of the directory within the wait: nothing is
    // known of it, so it is not reported empty.
    ftptest::Reply silent;
    silent.silent = true;
    server().queueReply("CWD /rec", silent);
    EXPECT_FALSE(store().isEmptyDir("/rec"));
    EXPECT_EQ(commands(), (Lines{"CWD /", "CWD /rec"}));
}

TEST_F(Enumeration, IsEmptyDirIsFalseWhenTheListingHasAnyEntryAndTrueWhenItHasNone) {
    struct Case {
        const char* source;
        std::string body;
        bool empty;
    };
    const Case cases[] = {
        {"no bytes at all", "", true},
        {"Linux daemon, one file",
         crlf({"-rw-r--r--    1 rec      rec           512 Jan 15 10:33 a.mp4"}), false},
        {"Linux daemon, only a sub-directory",
         crlf({"drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 cam1"}), false},
        {"Linux daemon, only a link, whose eleven words leave the style unrecognised",
         crlf({"lrwxrwxrwx    1 rec      rec      5 Jan 15 10:31 l -> a"}), true},
        {"Linux daemon listing hidden names: self, parent and a dot-file",
         crlf({"drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 .",
               "drwxr-xr-x    9 rec      rec          4096 Jan 15 10:30 ..",
               "-rw-r--r--    1 rec      rec            64 Jan 15 10:34 .index"}),
         true},
        {"Windows server listing only self and parent",
         crlf({"01-15-20  10:30AM       <DIR>          .",
               "01-15-20  10:30AM       <DIR>          .."}),
         true},
        {"Windows server, one file", crlf({"01-15-20  10:31AM                  512 a.mp4"}), false},
    };
    for (const Case& c : cases) {
        serveListing(server(), "/rec", c.body);
        EXPECT_EQ(store().isEmptyDir("/rec"), c.empty) << c.source << ": " << c.body;
    }
}

TEST_F(Enumeration, GetFileNumberIsAlwaysMinusOneAndSendsNothing) {
    serveListing(server(), "/rec", kMixedListing);

    EXPECT_EQ(store().getFileNumber("/rec"), -1);
    EXPECT_EQ(store().getFileNumber(nullptr), -1);

    EXPECT_TRUE(commands().empty()) << ::testing::PrintToString(commands());
}

// --- getTotalSize and scanRecordDir ----------------------------------------------

TEST_F(Enumeration, GetTotalSizeOnATreeXYZAddsTheListedSizesOfEveryLevelDirectoriesIncluded) {
    serveListing(server(), "x",
                 crlf({
                     "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 y",
                     "-rw-r--r--    1 rec      rec           100 Jan 15 10:31 a.dat",
                 }));
    serveListing(server(), "x/y",
                 crlf({
                     "-rw-r--r--    1 rec      rec           200 Jan 15 10:31 b.dat",
                     "drwxr-xr-x    2 rec      rec          3072 Jan 15 10:30 z",
                 }));
    serveListing(server(), "x/y/z",
                 crlf({
                     "-rw-r--r--    1 rec      rec           300 Jan 15 10:31 c.dat",
                 }));
    long long size = 1000;  // not reset: the caller's start value stays

    EXPECT_TRUE(store().getTotalSize("x", size));

    EXPECT_EQ(size, 1000 + 4096 + 100 + 200 + 3072 + 300);
    EXPECT_EQ(commands(), concat({listingOf("x"), listingOf("x/y"), listingOf("x/y/z")}));
}

TEST_F(Enumeration, GetTotalSizeWalksDepthFirstInListingOrderWithRootBasedChildPaths) {
    serveListing(server(), "/rec",
                 crlf({
                     "drwxr-xr-x    2 rec      rec          10 Jan 15 10:30 a",
                     "drwxr-xr-x    2 rec      rec          20 Jan 15 10:30 b",
                 }));
    serveListing(server(), "/rec/a",
                 crlf({
                     "drwxr-xr-x    2 rec      rec          30 Jan 15 10:30 c",
                 }));
    serveListing(server(), "/rec/a/c", "");
    serveListing(server(), "/rec/b", "");
    long long size = 0;

    EXPECT_TRUE(store().getTotalSize("/rec", size));

    EXPECT_EQ(size, 60);
    EXPECT_EQ(commands(), concat({listingOf("/rec"), listingOf("/rec/a"), listingOf("/rec/a/c"),
                                  listingOf("/rec/b")}));
}

TEST_F(Enumeration, ASymbolicLinkIsNeitherListedAsAFileOrDirectoryNorFollowed) {
    serveListing(server(), "/rec", kMixedListing);
    serveListing(server(), "/rec/cam1", "");
    serveListing(server(), "/rec/cam2", "");
    Lines files;
    Lines dirs;
    long long size = 0;

    EXPECT_TRUE(store().getFileList("/rec", files, ""));
    EXPECT_TRUE(store().getSubDirList("/rec", dirs, ""));
    EXPECT_TRUE(store().getTotalSize("/rec", size));

    EXPECT_EQ(files, (Lines{"ch01_0001.mp4", "ch01_0002.mp4"}));
    EXPECT_EQ(dirs, (Lines{"cam1", "cam2"}));
    // Every listed size counts, the link's own included; the walk goes into
    // the two directories only.
    EXPECT_EQ(size, 4096 + 1048576 + 13 + 4096 + 512);
    EXPECT_EQ(commands(), concat({listingOf("/rec"), listingOf("/rec"), listingOf("/rec"),
                                  listingOf("/rec/cam1"), listingOf("/rec/cam2")}));
}

TEST_F(Enumeration, AChildThatCannotBeListedEndsTheWalkWithFalseAndKeepsWhatWasAdded) {
    serveListing(server(), "/rec",
                 crlf({
                     "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 d1",
                     "drwxr-xr-x    2 rec      rec          4096 Jan 15 10:30 d2",
                     "-rw-r--r--    1 rec      rec           100 Jan 15 10:31 a.dat",
                 }));
    server().setReply("CWD /rec/d1", "550 Permission denied");
    long long size = 0;

    EXPECT_FALSE(store().getTotalSize("/rec", size));

    EXPECT_EQ(size, 4096 + 4096 + 100);
    EXPECT_EQ(commands(), concat({listingOf("/rec"), {"CWD /", "CWD /rec/d1"}}));
}

TEST_F(Enumeration, GetTotalSizeOnADosServerNeverWalksIntoSelfOrParent) {
    serveListing(server(), "/video",
                 crlf({
                     "01-15-20  10:30AM       <DIR>          .",
                     "01-15-20  10:30AM       <DIR>          ..",
                     "01-15-20  10:30AM       <DIR>          cam1",
                     "01-15-20  10:31AM                  700 ch01.mp4",
                 }));
    serveListing(server(), "/video/cam1",
                 crlf({
                     "01-15-20  10:30AM       <DIR>          .",
                     "01-15-20  10:30AM       <DIR>          ..",
                     "01-15-20  10:31AM                   50 ch02.mp4",
                 }));
    long long size = 0;

    EXPECT_TRUE(store().getTotalSize("/video", size));

    EXPECT_EQ(size, 750);
    EXPECT_EQ(commands(), concat({listingOf("/video"), listingOf("/video/cam1")}));
}

TEST_F(Enumeration, GetTotalSizeOfADirectoryThatCannotBeEnteredIsFalseAndLeavesTheSizeAlone) {
    server().setReply("CWD /gone", "550 No such directory");
    long long size = 42;

    EXPECT_FALSE(store().getTotalSize("/gone", size));

    EXPECT_EQ(size, 42);
}

// --- scan ------------------------------------------------------------------------

// Records the names it is given; answers -1 to show the answer is ignored.
class RecordingAction : public IFileScanAction {
public:
    int onFile(const char* fileName) override {
        names.push_back(fileName);
        return -1;
    }
    Lines names;
};

TEST_F(Enumeration, ScanCallsTheActionOncePerPlainFileInListingOrderWhateverItAnswers) {
    serveListing(server(), "/rec", kMixedListing);
    RecordingAction action;

    EXPECT_TRUE(store().scan("/rec", &action, "*.avi"));

    EXPECT_EQ(action.names, (Lines{"ch01_0001.mp4", "ch01_0002.mp4"}));
    EXPECT_EQ(commands(), listingOf("/rec"));
}

// Lists the directory of every file it is given, through the same store.
class ListingAction : public IFileScanAction {
public:
    explicit ListingAction(FTPFileSystemImpl& store) : store_(store) {}
    int onFile(const char* fileName) override {
        Lines inner;
        results.push_back(store_.getFileList("/other", inner, ""));
        seen.push_back(std::string(fileName) + ":" + std::to_string(inner.size()));
        return 0;
    }
    std::vector<bool> results;
    Lines seen;

private:
    FTPFileSystemImpl& store_;
};

TEST_F(Enumeration, TheScanActionMayCallBackIntoTheStore) {
    serveListing(server(), "/rec", kMixedListing);
    serveListing(server(), "/other", crlf({"-rw-r--r-- 1 rec rec 1 Jan 15 10:31 o.dat"}));
    ListingAction action(store());

    EXPECT_TRUE(store().scan("/rec", &action, ""));

    EXPECT_EQ(action.results, (std::vector<bool>{true, true}));
    EXPECT_EQ(action.seen, (Lines{"ch01_0001.mp4:1", "ch01_0002.mp4:1"}));
    EXPECT_EQ(commands(), concat({listingOf("/rec"), listingOf("/other"), listingOf("/other")}));
}

TEST_F(Enumeration, AScanWhoseListingFailsIsFalseAndCallsNothing) {
    server().setReply("LIST /rec", "550 Cannot list");
    RecordingAction action;

    EXPECT_FALSE(store().scan("/rec", &action, ""));

    EXPECT_TRUE(action.names.empty());
    EXPECT_EQ(commands(), listingOf("/rec"));
}

// --- bad input and uninitialised stores -------------------------------------------

TEST_F(Enumeration, ANullPathOrActionIsRefusedWithoutTraffic) {
    Lines names{"kept"};
    long long size = 9;
    RecordingAction action;

    EXPECT_FALSE(store().getFileList(nullptr, names, ""));
    EXPECT_FALSE(store().getSubDirList(nullptr, names, ""));
    EXPECT_FALSE(store().scan(nullptr, &action, ""));
    EXPECT_FALSE(store().scan("/rec", nullptr, ""));
    EXPECT_FALSE(store().getTotalSize(nullptr, size));
    listingtest::Entries entries;
    EXPECT_FALSE(StoreTestAccess::getFileDescriptorList(store(), nullptr, entries, size));

    EXPECT_EQ(names, Lines{"kept"});
    EXPECT_EQ(size, 9);
    EXPECT_TRUE(action.names.empty());
    EXPECT_TRUE(commands().empty()) << ::testing::PrintToString(commands());
}

// isEmptyDir has no refusal of its own: no path is a directory that cannot be
// entered, which counts as empty like any other.
TEST_F(Enumeration, IsEmptyDirOfNoPathCountsAsEmptyAfterOnlyTheChangeToTheRoot) {
    EXPECT_TRUE(store().isEmptyDir(nullptr));
    EXPECT_EQ(commands(), Lines{"CWD /"});
}

TEST(EnumerationWithoutInit, EveryOperationOfAStoreNeverInitialisedFailsWithoutTraffic) {
    ftptest::ScriptedFtpServer server;
    FTPFileSystemImpl store(server.address().c_str(), "rec", "pw", 1024);
    Lines names{"kept"};
    long long size = 3;
    RecordingAction action;

    EXPECT_FALSE(store.getFileList("/rec", names, ""));
    EXPECT_FALSE(store.getSubDirList("/rec", names, ""));
    EXPECT_FALSE(store.isEmptyDir("/rec"));
    EXPECT_FALSE(store.scan("/rec", &action, ""));
    EXPECT_FALSE(store.getTotalSize("/rec", size));
    EXPECT_EQ(store.getFileNumber("/rec"), -1);

    EXPECT_EQ(names, Lines{"kept"});
    EXPECT_EQ(size, 3);
    EXPECT_TRUE(action.names.empty());
    EXPECT_EQ(server.connectionCount(), 0);
    EXPECT_TRUE(server.commands().empty());
}

TEST_F(Enumeration, AfterUninitEveryOperationFailsAndIsEmptyDirIsFalse) {
    serveListing(server(), "/rec", kMixedListing);
    ASSERT_EQ(store().uninit(), 0);
    const size_t afterQuit = commands().size();
    Lines names;
    long long size = 0;
    RecordingAction action;

    EXPECT_FALSE(store().getFileList("/rec", names, ""));
    EXPECT_FALSE(store().getSubDirList("/rec", names, ""));
    EXPECT_FALSE(store().isEmptyDir("/rec"));
    EXPECT_FALSE(store().scan("/rec", &action, ""));
    EXPECT_FALSE(store().getTotalSize("/rec", size));

    EXPECT_TRUE(names.empty());
    EXPECT_EQ(size, 0);
    EXPECT_EQ(commands().size(), afterQuit) << ::testing::PrintToString(commands());
}

// --- space figures -------------------------------------------------------------------

TEST_F(Enumeration, DiskSpaceFiguresAreZeroAndTheRecordedBytesInWholeMebibytes) {
    long first = -1;
    long second = -1;
    store().updateSpaceInfo(3 * 1048576LL, true);
    store().updateSpaceInfo(1048576LL, false);
    store().getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 2);

    // Bytes below one mebibyte do not show.
    store().updateSpaceInfo(2 * 1048576LL, false);
    store().updateSpaceInfo(1048575LL, true);
    store().getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(StoreTestAccess::usedBytes(store()), 1048575);
    EXPECT_TRUE(commands().empty()) << "the server's free space is never asked for";
}

TEST(EnumerationSpace, UsedBytesBeyondThirtyTwoBitsAndBelowZeroAreReportedTruncatedTowardZero) {
    FTPFileSystemImpl store("127.0.0.1:1", "rec", "pw", 1024);  // never connects
    long first = -1;
    long second = -1;

    // 5 GiB + 1 MiB - 1 byte: the account is 64 bits wide even where long is
    // 32, and the part below a whole mebibyte is cut off.
    store.updateSpaceInfo(5LL * 1024 * 1048576 + 1048575, true);
    store.getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 5120);

    // Nothing keeps the account from going below zero: 1.5 MiB under it reads
    // as -1, not -2.
    store.updateSpaceInfo(5LL * 1024 * 1048576 + 1048575 + 1572864, false);
    EXPECT_EQ(StoreTestAccess::usedBytes(store), -1572864);
    store.getDiskSpaceInfo(first, second);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, -1);
}

TEST(EnumerationSpace, AFreshStoreThatRecordedOneByteLessThanAMebibyteReportsZeroAndZero) {
    FTPFileSystemImpl store("127.0.0.1:1", "rec", "pw", 1024);  // never connects
    long first = -1;
    long second = -1;

    store.updateSpaceInfo(1048575LL, true);
    store.getDiskSpaceInfo(first, second);

    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 0);
}

}  // namespace
