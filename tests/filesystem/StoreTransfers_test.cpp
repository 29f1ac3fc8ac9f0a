// Whole-file copies (Get, Put) and the snapshot stream against the scripted
// server: the exact lines sent, the bytes on both sides, and what is left when
// a transfer fails.
#include <dirent.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "StoreTestUtil.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "support/ScriptedFtpServer.h"
#include "support/StoreTestAccess.h"

namespace {

using Commands = std::vector<std::string>;
using storetest::patternBytes;
using storetest::readLocalFile;
using storetest::writeLocalFile;

std::string cannotOpen(const std::string& name) {
    return "Cannot open file \"" + name + "\"! Please check the file name!e\n";
}

class StoreTransfers : public ::testing::Test {
protected:
    void SetUp() override {
        store.reset(new FTPFileSystemImpl(server.address().c_str(), "rec", "pw", 1024));
    }

    ftptest::ScriptedFtpServer server;
    std::unique_ptr<FTPFileSystemImpl> store;
    storetest::TempDir local;
};

// --- Get -------------------------------------------------------------------------

TEST_F(StoreTransfers, GetCopiesTheWholeRemoteFileOverAHandleConnection) {
    const std::string bytes = patternBytes(20000, 1);
    server.putFile("/rec/a.ts", bytes);
    const std::string target = local.file("a.ts");
    EXPECT_EQ(store->Get(target.c_str(), "/rec/a.ts"), 0);
    std::string copied;
    ASSERT_TRUE(readLocalFile(target, &copied));
    EXPECT_TRUE(copied == bytes) << "got " << copied.size() << " bytes";
    EXPECT_EQ(server.commands(),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "RETR /rec/a.ts"}));
}

TEST_F(StoreTransfers, GetOfAnEmptyRemoteFileCreatesAnEmptyLocalFile) {
    server.putFile("/rec/empty.ts", "");
    const std::string target = local.file("empty.ts");
    EXPECT_EQ(store->Get(target.c_str(), "/rec/empty.ts"), 0);
    std::string copied = "not empty";
    ASSERT_TRUE(readLocalFile(target, &copied));
    EXPECT_EQ(copied, "");
}

TEST_F(StoreTransfers, GetIntoALocalPathThatCannotBeCreatedPrintsTheMessageAndSendsNothing) {
    const std::string target = local.file("no-such-folder/a.ts");
    testing::internal::CaptureStdout();
    const int result = store->Get(target.c_str(), "/rec/a.ts");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(printed, cannotOpen(target));
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(StoreTransfers, GetOfAMissingRemoteFileFailsAndLeavesTheEmptyLocalFile) {
    const std::string target = local.file("missing.ts");
    EXPECT_EQ(store->Get(target.c_str(), "/rec/missing.ts"), -1);
    EXPECT_TRUE(storetest::localFileExists(target));
    // The connection of the failed open is dropped, not pooled.
    EXPECT_EQ(server.commands(),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "RETR /rec/missing.ts", "QUIT"}));
}

// The copy ends where the data ends; the closing reply that follows is read
// but does not change Get's result. A recorder that must know compares the
// length it got with getFileLength.
TEST_F(StoreTransfers, GetOfATransferTheServerAbortsEndsWithTheDataAndKeepsTheBytesReceived) {
    const std::string bytes = patternBytes(50000, 2);
    server.putFile("/rec/cut.ts", bytes);
    ftptest::Reply cut("150 Opening data connection");
    cut.closeDataAfter = 12345;
    cut.finalText = "426 Connection closed; transfer aborted";
    server.queueReply("RETR", cut);
    const std::string target = local.file("cut.ts");
    EXPECT_EQ(store->Get(target.c_str(), "/rec/cut.ts"), 0);
    std::string copied;
    ASSERT_TRUE(readLocalFile(target, &copied));
    EXPECT_TRUE(copied == bytes.substr(0, 12345)) << "got " << copied.size() << " bytes";
}

TEST_F(StoreTransfers, GetFailsWhenTheLocalDiskTakesNoMoreAndKeepsWhatWasWritten) {
    // A file size limit of 10000 bytes stands in for a full disk: the piece
    // that reaches past it goes to the local file only in part, and writing
    // the rest of it fails.
    const std::string bytes = patternBytes(50000, 7);
    server.putFile("/rec/full.ts", bytes);
    const std::string target = local.file("full.ts");
    struct rlimit unlimited;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    struct rlimit limited = unlimited;
    limited.rlim_cur = 10000;
    void (*previous)(int) = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    const int result = store->Get(target.c_str(), "/rec/full.ts");
    setrlimit(RLIMIT_FSIZE, &unlimited);
    signal(SIGXFSZ, previous);
    EXPECT_EQ(result, -1);
    std::string copied;
    ASSERT_TRUE(readLocalFile(target, &copied));
    EXPECT_TRUE(copied == bytes.substr(0, 10000)) << "got " << copied.size() << " bytes";
}

TEST_F(StoreTransfers, GetWithANullArgumentFailsWithoutTouchingAnything) {
    EXPECT_EQ(store->Get(nullptr, "/rec/a.ts"), -1);
    EXPECT_EQ(store->Get(local.file("x").c_str(), nullptr), -1);
    EXPECT_FALSE(storetest::localFileExists(local.file("x")));
    EXPECT_EQ(server.connectionCount(), 0);
}

// --- Put -------------------------------------------------------------------------

TEST_F(StoreTransfers, PutCopiesTheWholeLocalFileAndRaisesTheAccount) {
    const std::string bytes = patternBytes(3 * 65536 + 5, 3);
    const std::string source = local.file("up.ts");
    ASSERT_TRUE(writeLocalFile(source, bytes));
    EXPECT_EQ(store->Put(source.c_str(), "/rec/up.ts"), 0);
    EXPECT_TRUE(server.file("/rec/up.ts") == std::optional<std::string>(bytes));
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), static_cast<long long>(bytes.size()));
    EXPECT_EQ(server.commands(),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "STOR /rec/up.ts"}));
}

// Put reads the local file through a 64 KiB buffer: 1 MiB and 5 bytes take 16
// full reads, one of 5 bytes and one that finds the end, counted by the
// kernel for the calling thread (/proc/thread-self/io, syscr: read calls; the
// connections use recv and send, which it does not count). The count read
// before the call leaves out the read that took it, and the one after counts
// it: one more.
TEST_F(StoreTransfers, PutReadsTheLocalFileIn64KiBPieces) {
    const std::string bytes = patternBytes(16 * 65536 + 5, 12);
    const std::string source = local.file("pieces.ts");
    ASSERT_TRUE(writeLocalFile(source, bytes));
    long long before = 0;
    if (!storetest::threadReadCalls(&before)) {
        GTEST_SKIP() << "no /proc/thread-self/io here";
    }
    EXPECT_EQ(store->Put(source.c_str(), "/rec/pieces.ts"), 0);
    long long after = 0;
    ASSERT_TRUE(storetest::threadReadCalls(&after));
    EXPECT_EQ(after - before, 16 + 1 + 1 + 1)
        << "read calls of the local file, and one of the count";
    EXPECT_TRUE(server.file("/rec/pieces.ts") == std::optional<std::string>(bytes));
}

TEST_F(StoreTransfers, PutOfAMissingLocalFilePrintsTheMessageWithTheLocalName) {
    const std::string source = local.file("absent.ts");
    testing::internal::CaptureStdout();
    const int result = store->Put(source.c_str(), "/rec/absent.ts");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(printed, cannotOpen(source));
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(StoreTransfers, PutReportsFailureWhenTheServerDropsTheDataConnectionAndKeepsWhatItTook) {
    // Larger than the connection can buffer, so some write comes after the
    // server's close and fails, however late the server's thread runs.
    const std::string bytes = patternBytes(ftptest::loopbackBytesInFlight() + 1024 * 1024, 4);
    const std::string source = local.file("big.ts");
    ASSERT_TRUE(writeLocalFile(source, bytes));
    ftptest::Reply drop("150 Opening data connection");
    drop.closeDataAfter = 100000;
    drop.finalText = "426 Connection closed; transfer aborted";
    server.queueReply("STOR", drop);
    EXPECT_EQ(store->Put(source.c_str(), "/rec/big.ts"), -1);
    const std::optional<std::string> stored = server.file("/rec/big.ts");
    ASSERT_TRUE(stored.has_value());
    EXPECT_TRUE(*stored == bytes.substr(0, 100000))
        << "server holds " << stored->size() << " bytes";
}

TEST_F(StoreTransfers, PutRefusedByTheServerFails) {
    const std::string source = local.file("up.ts");
    ASSERT_TRUE(writeLocalFile(source, "abc"));
    server.queueReply("STOR", "553 Not allowed");
    EXPECT_EQ(store->Put(source.c_str(), "/ro/up.ts"), -1);
    EXPECT_FALSE(server.file("/ro/up.ts").has_value());
}

// As for Get, the closing reply is read but the result is the copy's: every
// byte went out, so Put reports success even though the server refused to
// keep them. The connection that saw the refusal is not pooled.
TEST_F(StoreTransfers, PutOfBytesTheServerRefusesAtTheEndStillReportsTheCopy) {
    const std::string source = local.file("up.ts");
    ASSERT_TRUE(writeLocalFile(source, "abc"));
    ftptest::Reply full("150 Opening data connection");
    full.finalText = "452 Insufficient storage";
    server.queueReply("STOR", full);
    EXPECT_EQ(store->Put(source.c_str(), "/rec/up.ts"), 0);
    const std::vector<std::string> sent = server.commands();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "STOR /rec/up.ts"), 1);
    EXPECT_EQ(sent.back(), "QUIT");
}

TEST_F(StoreTransfers, LocalNamesOutsideAsciiAreUsedByExactlyTheirUtf8Bytes) {
    // Two-, three- and four-byte characters (the last one outside the basic
    // plane): the wide conversion must round-trip each to the same bytes.
    const std::string sourceName = "cam-\xF0\x9F\x93\xB7-\xD0\xB2\xD0\xB8\xD0\xB4-\xE3\x82\xAB.ts";
    const std::string targetName =
        "zur\xC3\xBC"
        "ck-\xF0\x9F\x8E\xA5.ts";
    const std::string bytes = patternBytes(10000, 21);
    ASSERT_TRUE(writeLocalFile(local.file(sourceName), bytes));
    EXPECT_EQ(store->Put(local.file(sourceName).c_str(), "/rec/u.ts"), 0);
    EXPECT_TRUE(server.file("/rec/u.ts") == std::optional<std::string>(bytes));
    EXPECT_EQ(store->Get(local.file(targetName).c_str(), "/rec/u.ts"), 0);
    std::string copied;
    ASSERT_TRUE(readLocalFile(local.file(targetName), &copied));
    EXPECT_TRUE(copied == bytes);
    // Nothing was created under a mangled name.
    std::set<std::string> names;
    if (DIR* dir = opendir(local.path().c_str())) {
        for (struct dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") names.insert(name);
        }
        closedir(dir);
    }
    EXPECT_EQ(names, (std::set<std::string>{sourceName, targetName}));
}

// --- Snapshots ----------------------------------------------------------------------

TEST_F(StoreTransfers, ASnapshotWrittenInOddPiecesArrivesWhole) {
    ASSERT_EQ(store->init(), 0);
    const std::string bytes = patternBytes(1 + 7 + 13 + 4099 + 8191 + 65537, 5);
    ASSERT_EQ(store->snapshot_open("/snap/1.jpg", 12345), 0);
    size_t at = 0;
    for (size_t piece : {1u, 7u, 13u, 4099u, 8191u, 65537u}) {
        size_t done = 0;
        for (int round = 0; done < piece && round < 1000; ++round) {
            const int n = store->snapshot_write(bytes.data() + at + done,
                                                static_cast<unsigned int>(piece - done));
            ASSERT_GE(n, 0) << "piece of " << piece;
            done += static_cast<size_t>(n);
        }
        ASSERT_EQ(done, piece);
        at += piece;
    }
    EXPECT_EQ(store->snapshot_close(), 0);
    EXPECT_TRUE(server.file("/snap/1.jpg") == std::optional<std::string>(bytes));
    // On the main connection, after the login.
    EXPECT_EQ(server.commandsOn(1),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "STOR /snap/1.jpg"}));
    EXPECT_EQ(server.connectionCount(), 1);
}

TEST_F(StoreTransfers, SnapshotWriteWithoutAnOpenStreamPrintsTheErrnoLine) {
    testing::internal::CaptureStdout();
    const int result = store->snapshot_write("abc", 3);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(printed, "FTPFileSystemImpl::snapshot_write " + std::to_string(EBADF) + "\n");
}

TEST_F(StoreTransfers, SnapshotWriteAfterCloseFailsWithTheErrnoLine) {
    ASSERT_EQ(store->init(), 0);
    ASSERT_EQ(store->snapshot_open("/snap/2.jpg", 0), 0);
    ASSERT_EQ(store->snapshot_close(), 0);
    testing::internal::CaptureStdout();
    const int result = store->snapshot_write("abc", 3);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(printed, "FTPFileSystemImpl::snapshot_write " + std::to_string(EBADF) + "\n");
    EXPECT_EQ(server.file("/snap/2.jpg"), std::optional<std::string>(""));
}

TEST_F(StoreTransfers, SnapshotCloseWithoutASuccessfulOpenFails) {
    EXPECT_EQ(store->snapshot_close(), -1);
    ASSERT_EQ(store->init(), 0);
    server.queueReply("STOR", "553 Not allowed");
    EXPECT_EQ(store->snapshot_open("/ro/3.jpg", 0), -1);
    EXPECT_EQ(store->snapshot_close(), -1);
    EXPECT_EQ(server.commands(),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "STOR /ro/3.jpg"}));
}

TEST_F(StoreTransfers, SnapshotOpenOnANeverConnectedStoreFailsWithoutTraffic) {
    EXPECT_EQ(store->snapshot_open("/snap/4.jpg", 0), -1);
    EXPECT_EQ(server.connectionCount(), 0);
}

TEST_F(StoreTransfers, ASecondSnapshotOpenIsRefusedWhileOneIsOpen) {
    ASSERT_EQ(store->init(), 0);
    ASSERT_EQ(store->snapshot_open("/snap/5.jpg", 0), 0);
    EXPECT_EQ(store->snapshot_open("/snap/6.jpg", 0), -1);
    EXPECT_EQ(store->snapshot_write("first", 5), 5);
    EXPECT_EQ(store->snapshot_close(), 0);
    EXPECT_EQ(server.file("/snap/5.jpg"), std::optional<std::string>("first"));
    EXPECT_FALSE(server.file("/snap/6.jpg").has_value());
}

TEST_F(StoreTransfers, SnapshotCloseReportsARefusedFinalReply) {
    ASSERT_EQ(store->init(), 0);
    ftptest::Reply refused("150 Opening data connection");
    refused.finalText = "451 Local error";
    server.queueReply("STOR", refused);
    ASSERT_EQ(store->snapshot_open("/snap/7.jpg", 0), 0);
    EXPECT_EQ(store->snapshot_write("x", 1), 1);
    EXPECT_EQ(store->snapshot_close(), -1);
    EXPECT_EQ(store->snapshot_close(), -1);
}

TEST_F(StoreTransfers, UninitEndsAnOpenSnapshotBeforeQuitting) {
    ASSERT_EQ(store->init(), 0);
    ASSERT_EQ(store->snapshot_open("/snap/8.jpg", 0), 0);
    ASSERT_EQ(store->snapshot_write("partial", 7), 7);
    EXPECT_EQ(store->uninit(), 0);
    EXPECT_EQ(server.file("/snap/8.jpg"), std::optional<std::string>("partial"));
    EXPECT_EQ(server.commands(),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "STOR /snap/8.jpg", "QUIT"}));
    EXPECT_EQ(store->snapshot_close(), -1);
}

TEST_F(StoreTransfers, InitAgainWithAnOpenSnapshotEndsItKeepingItsBytesAndLogsInAfresh) {
    ASSERT_EQ(store->init(), 0);
    ASSERT_EQ(store->snapshot_open("/snap/10.jpg", 0), 0);
    ASSERT_EQ(store->snapshot_write("before", 6), 6);
    EXPECT_EQ(store->init(), 0);
    EXPECT_EQ(server.file("/snap/10.jpg"), std::optional<std::string>("before"));
    EXPECT_EQ(server.commandsOn(1),
              (Commands{"USER rec", "PASS pw", "TYPE I", "PASV", "STOR /snap/10.jpg"}));
    EXPECT_EQ(server.commandsOn(2), (Commands{"USER rec", "PASS pw"}));
    EXPECT_EQ(store->snapshot_close(), -1);
    // The new connection takes a new snapshot.
    ASSERT_EQ(store->snapshot_open("/snap/11.jpg", 0), 0);
    EXPECT_EQ(store->snapshot_write("after", 5), 5);
    EXPECT_EQ(store->snapshot_close(), 0);
    EXPECT_EQ(server.file("/snap/11.jpg"), std::optional<std::string>("after"));
}

TEST_F(StoreTransfers, UninitWhileAnotherThreadWritesASnapshotKeepsEveryAcceptedByte) {
    // The recorder may release the store from one thread while its snapshot
    // thread is still writing: the writer must see the stream end (-1), never
    // a closed record, and every byte it was told was taken must be stored.
    ASSERT_EQ(store->init(), 0);
    ASSERT_EQ(store->snapshot_open("/snap/race.jpg", 0), 0);
    const std::string bytes = patternBytes(4 * 1024 * 1024, 12);
    std::atomic<size_t> accepted{0};
    std::atomic<int> last{0};
    testing::internal::CaptureStdout();
    std::thread writer([&] {
        size_t done = 0;
        for (int round = 0; done < bytes.size() && round < 100000; ++round) {
            const size_t chunk = std::min<size_t>(4096, bytes.size() - done);
            const int n =
                store->snapshot_write(bytes.data() + done, static_cast<unsigned int>(chunk));
            last = n;
            if (n < 0) break;
            done += static_cast<size_t>(n);
            accepted = done;
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (accepted.load() == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(store->uninit(), 0);
    writer.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(store->snapshot_write("x", 1), -1);
    const std::optional<std::string> stored = server.file("/snap/race.jpg");
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(stored->size(), accepted.load());
    const std::string expected = bytes.substr(0, accepted.load());
    EXPECT_TRUE(*stored == expected) << "writer's last result " << last.load();
}

TEST_F(StoreTransfers, DestroyingAStoreWithAnOpenSnapshotKeepsTheBytesWritten) {
    ASSERT_EQ(store->init(), 0);
    ASSERT_EQ(store->snapshot_open("/snap/9.jpg", 0), 0);
    ASSERT_EQ(store->snapshot_write("kept", 4), 4);
    store.reset();
    EXPECT_EQ(server.file("/snap/9.jpg"), std::optional<std::string>("kept"));
    EXPECT_TRUE(server.waitForClosedConnections(1));
}

}  // namespace
