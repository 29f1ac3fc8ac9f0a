// Over-long and malformed input at every boundary: location texts, paths,
// server replies and listing lines of 1 to 100,000 bytes, binary bytes and a
// NUL inside a line. Nothing crashes, nothing over-long reaches the server,
// every call returns within its bounds, and the road works afterwards.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <algorithm>

#include "FaultTestUtil.h"
#include "ScriptedRoad.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::randomBytes;

using faulttest::bound;
using faulttest::timed;
using ftptest::Reply;
using Lines = std::vector<std::string>;

const std::vector<size_t> kLengths = {1,   2,   31,   32,   200,  253,  254,
                                      255, 256, 1000, 8191, 8192, 8193, 100000};

// The longest line the server received; the module builds every command in
// 256 bytes, so none may exceed 253 characters before its line end.
size_t longestCommand(const ftptest::ScriptedFtpServer& server) {
    size_t longest = 0;
    for (const std::string& line : server.commands()) longest = std::max(longest, line.size());
    return longest;
}

// --- Location texts ------------------------------------------------------------------

TEST(MalformedLocations, EveryLengthAndByteIsRefusedOrRegisteredWithoutTraffic) {
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    std::vector<std::string> texts;
    for (size_t n : kLengths) {
        texts.push_back(std::string(n, 'a'));
        texts.push_back(randomBytes(n, static_cast<unsigned>(n)));
        texts.push_back("rec(pw)@ftp://127.0.0.1:1/" + std::string(n, 'p'));      // long path
        texts.push_back("rec(pw)@ftp://" + std::string(n, '1') + "/rec");         // long server
        texts.push_back(std::string(n, 'u') + "(pw)@ftp://127.0.0.1:1/rec");      // long user
        texts.push_back("rec(" + std::string(n, 'w') + ")@ftp://127.0.0.1:1/r");  // long password
        texts.push_back("rec(pw)@ftp://127.0.0.1:1/" + randomBytes(n, 7));
    }
    // The counts take in the literal's own terminator: each text ends in a
    // zero byte as well.
    // NOLINTNEXTLINE(bugprone-string-constructor)
    texts.push_back(std::string("rec(pw)@ftp://127.0.0.1:1/a\0b", 30));
    // NOLINTNEXTLINE(bugprone-string-constructor)
    texts.push_back(std::string("rec(p\0w)@ftp://127.0.0.1:1/a", 29));
    texts.push_back(std::string("\0", 1));
    texts.push_back("");

    for (const std::string& text : texts) {
        double took = 0;
        const int added = timed(&took, [&] { return registry->addFTPFileSystem(text); });
        EXPECT_LE(took, bound(0));
        ASSERT_TRUE(added == 0 || added == -1);
        SafePointer<FTPFileSystem> found;
        if (added == 0) {
            EXPECT_EQ(registry->getFTPFileSystem(text, found), 1) << text.size() << " bytes";
            EXPECT_EQ(registry->deleteFileSystem(text), 0);
        } else {
            EXPECT_EQ(registry->deleteFileSystem(text), -1);
        }
    }
    // Texts that do not fit the store's fields are refused outright.
    for (size_t n : {32u, 1000u, 100000u}) {
        EXPECT_EQ(registry->addFTPFileSystem("rec(pw)@ftp://" + std::string(n, '1') + "/r"), -1);
        EXPECT_EQ(registry->addFTPFileSystem(std::string(n, 'u') + "(pw)@ftp://127.0.0.1:1/r"), -1);
    }
    EXPECT_EQ(registry->addFTPFileSystem("rec(" + std::string(20, 'w') + ")@ftp://127.0.0.1:1/r"),
              -1);
    // A long path is accepted: the path is not kept in the store.
    const std::string longPath = "rec(pw)@ftp://127.0.0.1:1/" + std::string(100000, 'p');
    EXPECT_EQ(registry->addFTPFileSystem(longPath), 0);
    EXPECT_EQ(registry->deleteFileSystem(longPath), 0);
}

// --- Paths -------------------------------------------------------------------------

using MalformedPaths = faulttest::ScriptedRoadTest;

TEST_F(MalformedPaths, EveryOperationTakesPathsOfEveryLengthAndNothingOverlongIsSent) {
    std::vector<std::string> paths;
    for (size_t n : kLengths) {
        paths.push_back("/rec/" + std::string(n, 'd'));
        paths.push_back(std::string(n, '/'));
        // Binary bytes without CR, LF and NUL (see the next test for those).
        std::string binary = randomBytes(n, static_cast<unsigned>(n) + 1);
        for (char& c : binary)
            if (c == '\r' || c == '\n' || c == '\0') c = '_';
        paths.push_back("/rec/" + binary);
    }
    const std::string local = ::testing::TempDir() + "/faults-malformed.ts";
    for (const std::string& path : paths) {
        const char* p = path.c_str();
        double took = 0;
        timed(&took, [&] {
            store->createDir(p);
            store->isDirExist(p);
            std::vector<std::string> names;
            store->getFileList(p, names, "");
            store->getSubDirList(p, names, "");
            long long total = 0;
            store->getTotalSize(p, total);
            store->isEmptyDir(p);
            store->getFileLength(p);
            store->isFileExist(p);
            store->createFile(p);
            store->renameFile(p, p);
            store->deleteFile(p);
            store->removeDir(p);
            const int h = store->open(p, 2);
            if (h > 0) store->close(h);
            if (store->snapshot_open(p, 0) == 0) store->snapshot_close();
            store->Get(local.c_str(), p);
            return 0;
        });
        // Nothing here waits on the server: every reply comes at once.
        EXPECT_LE(took, bound(0)) << path.size() << " bytes";
        EXPECT_LE(longestCommand(server), 253u) << path.size() << " bytes";
    }
    std::remove(local.c_str());
    // Opens refused after their number was reserved kept it.
    recoverAndRecord(0);
}

// A line end inside a path would end the command early and make the server
// take the rest for a second command, whose reply would then answer the next
// caller. Such a path is refused before anything is sent, like a path too long
// to send, and the main connection stays in step.
TEST_F(MalformedPaths, ALineEndInsideAPathIsRefusedBeforeAnythingIsSent) {
    const size_t mark = server.commands().size();
    EXPECT_EQ(store->renameFile("/rec/a\r\nNOOP", "/rec/b"), -1);
    EXPECT_EQ(store->renameFile("/rec/a", "/rec/b\nDELE x"), -1);
    EXPECT_EQ(store->createDir("/rec/x\ry"), -1);
    EXPECT_EQ(store->open("/rec/c\r\nDELE /rec/a.dat", 2), -1);
    const std::vector<std::string> after = faulttest::tail(server.commands(), mark);
    for (const std::string& line : after) {
        EXPECT_EQ(line.find("NOOP"), std::string::npos) << line;
        EXPECT_EQ(line.find("DELE"), std::string::npos) << line;
    }
    // RNFR of the first path and RNTO of the second never went out; the
    // second's RNFR did (its own argument is clean), and was answered.
    EXPECT_EQ(std::count(after.begin(), after.end(), "RNFR /rec/a"), 1);
    EXPECT_EQ(store->createDir("/rec/clean"), 0) << "replies are still in step";
    EXPECT_EQ(store->uninit(), 0);
    recoverAndRecord(1);
}

// --- Server replies -----------------------------------------------------------------

using MalformedReplies = faulttest::ScriptedRoadTest;

TEST_F(MalformedReplies, GreetingsOfEveryLengthAndBinaryRepliesNeverCrashOrHang) {
    for (size_t n : kLengths) {
        for (const std::string& text : {"220 " + std::string(n, 'g'), "220 " + randomBytes(n, 3)}) {
            Reply raw(text + "\r\n");
            raw.raw = true;
            server.setGreeting(raw);
            EXPECT_EQ(store->uninit(), 0);
            double took = 0;
            const int result = timed(&took, [&] { return store->init(); });
            // A greeting line is read whole however long it is (its first
            // 255 bytes kept): a plain one logs in. Binary bytes may hold
            // line ends of their own, whose lines the server sent unasked and
            // the login then reads as its replies: it fails, or passes while
            // they happen to start with '2' or '3'.
            if (text[4] == 'g') {
                EXPECT_EQ(result, 0) << n << " bytes";
            } else {
                EXPECT_TRUE(result == 0 || result == -1);
            }
            EXPECT_LE(took, bound(2)) << n << " bytes";
        }
    }
    // A NUL inside a reply line, and a reply that is all binary.
    Reply nul(std::string("220 re\0ady\r\n", 12));
    nul.raw = true;
    server.setGreeting(nul);
    EXPECT_EQ(store->uninit(), 0);
    EXPECT_EQ(store->init(), 0);
    server.queueReply("PASV", Reply(randomBytes(5000, 9)));
    EXPECT_EQ(store->open("/rec/cam.ts", 2), -1);
    server.setGreeting(Reply("220 ready"));
    // The failed open gave its number back.
    recoverAndRecord(1);
}

// --- Listing lines -------------------------------------------------------------------

using MalformedListings = faulttest::ScriptedRoadTest;

TEST_F(MalformedListings, LinesOfEveryLengthBinaryBytesAndANulAreParsedOrPassedOver) {
    for (size_t n : kLengths) {
        const std::string name(n, 'n');
        const std::string body = "-rw-r--r-- 1 rec rec 7 Jan 15 10:31 " + name + "\r\n" +
                                 randomBytes(n, 5) + "\r\n" + std::string(n, ' ') + "\r\n" +
                                 "drwxr-xr-x 2 rec rec 4096 Jan 15 10:31 " + name + "d\r\n";
        server.setListing(body);
        std::vector<std::string> files;
        std::vector<std::string> dirs;
        double took = 0;
        EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", files, ""); }), 1);
        EXPECT_LE(took, bound(0));
        EXPECT_EQ(store->getSubDirList("/rec", dirs, ""), 1);
        // The binary line counts as a file when it happens to have nine words
        // starting with '-'; the named entries are always there.
        EXPECT_NE(std::find(files.begin(), files.end(), name), files.end()) << n;
        EXPECT_NE(std::find(dirs.begin(), dirs.end(), name + "d"), dirs.end()) << n;
        // The scripted server lists the same text for every directory, so the
        // size walk descends into the listed subdirectory until its path no
        // longer fits a command; it ends either way.
        long long total = 0;
        const int sized = store->getTotalSize("/rec", total);
        EXPECT_TRUE(sized == 0 || sized == 1);
        EXPECT_EQ(store->getFileLength(("/rec/" + name).c_str()), 7);
    }
    // A NUL inside a line becomes a blank and splits the word it stood in:
    // the name is then the ninth word, "a".
    server.setListing(std::string("-rw-r--r-- 1 rec rec 7 Jan 15 10:31 a\0b\r\n", 41) +
                      "-rw-r--r-- 1 rec rec 9 Jan 15 10:31 c.ts\r\n");
    std::vector<std::string> files;
    EXPECT_EQ(store->getFileList("/rec", files, ""), 1);
    EXPECT_EQ(files, (Lines{"a", "c.ts"}));
    recoverAndRecord(1);
}

}  // namespace
