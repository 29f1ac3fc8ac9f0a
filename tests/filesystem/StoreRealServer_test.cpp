// The store against a real FTP server on loopback: whole-file copies at and
// around the copy buffer's size and at 64 MiB, an asynchronous write stream,
// a snapshot in odd pieces, removal of a tree with its space account, and
// local names outside ASCII. Every byte is checked on the server's own disk.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "StoreTestUtil.h"
#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "support/RealFtpServer.h"
#include "support/StoreTestAccess.h"

namespace {

using storetest::patternBytes;
using storetest::readLocalFile;
using storetest::writeLocalFile;

// Writes all of `bytes` through a handle (a send may take only part); returns
// the number of bytes taken before a failure.
template <class Store>
size_t writeAll(Store& store, int handle, const std::string& bytes) {
    size_t done = 0;
    for (int round = 0; done < bytes.size() && round < 100000; ++round) {
        const int n =
            store.write(handle, bytes.data() + done, static_cast<unsigned>(bytes.size() - done));
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return done;
}

class StoreOnRealServer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << server.failure();
        store.reset(new FTPFileSystemImpl(server.hostPort().c_str(), "rec", "pw", 1024));
        ASSERT_EQ(store->init(), 0);
    }

    // The server's copy of `ftpPath`, or "<unreadable>".
    std::string onServer(const std::string& ftpPath) {
        std::string bytes;
        return server.readFile(ftpPath, &bytes) ? bytes : std::string("<unreadable>");
    }

    RealFtpServer server{FtpServerKind::kPyftpdlib};
    std::unique_ptr<FTPFileSystemImpl> store;
    storetest::TempDir local;
};

TEST_F(StoreOnRealServer, PutAndGetAreByteExactAtAndAroundTheCopyBufferSize) {
    for (size_t size : {0u, 1u, 65535u, 65536u, 65537u, 3u * 65536u + 5u}) {
        const std::string bytes = patternBytes(size, static_cast<uint32_t>(size) + 11);
        const std::string name = "f" + std::to_string(size) + ".bin";

        ASSERT_TRUE(writeLocalFile(local.file("up-" + name), bytes));
        EXPECT_EQ(store->Put(local.file("up-" + name).c_str(), ("/" + name).c_str()), 0) << size;
        EXPECT_TRUE(onServer("/" + name) == bytes) << "Put of " << size << " bytes";

        const std::string other = patternBytes(size, static_cast<uint32_t>(size) + 99);
        ASSERT_TRUE(server.writeFile("/down-" + name, other));
        EXPECT_EQ(store->Get(local.file("down-" + name).c_str(), ("/down-" + name).c_str()), 0)
            << size;
        std::string copied = "<unread>";
        EXPECT_TRUE(readLocalFile(local.file("down-" + name), &copied));
        EXPECT_TRUE(copied == other) << "Get of " << size << " bytes gave " << copied.size();
    }
}

TEST_F(StoreOnRealServer, SixtyFourMebibytesGoUpAndComeBackByteExact) {
    const std::string bytes = patternBytes(64u * 1024u * 1024u, 64);
    ASSERT_TRUE(writeLocalFile(local.file("big.bin"), bytes));
    ASSERT_EQ(store->Put(local.file("big.bin").c_str(), "/big.bin"), 0);
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), static_cast<long long>(bytes.size()));
    {
        const std::string stored = onServer("/big.bin");
        EXPECT_TRUE(stored == bytes) << "server holds " << stored.size() << " bytes";
    }
    ASSERT_EQ(store->Get(local.file("back.bin").c_str(), "/big.bin"), 0);
    std::string copied;
    ASSERT_TRUE(readLocalFile(local.file("back.bin"), &copied));
    EXPECT_TRUE(copied == bytes) << "got back " << copied.size() << " bytes";
}

TEST_F(StoreOnRealServer, AnAsynchronousWriteStreamOf16MiBArrivesByteExact) {
    const std::string bytes = patternBytes(16u * 1024u * 1024u, 16);
    const int handle = store->open("/aio.ts", 2);
    ASSERT_GE(handle, 1);
    size_t sent = 0;
    // Wait for room, then hand over as much as the socket takes. Bounded in
    // rounds and in time: a round either moves bytes or waits up to a second.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (int round = 0;
         sent < bytes.size() && round < 200000 && std::chrono::steady_clock::now() < deadline;
         ++round) {
        const int ready = store->aioReturn(handle, 1000);
        if (ready == -1) continue;  // not writable yet
        ASSERT_EQ(ready, 0) << "at " << sent;
        const size_t chunk = std::min<size_t>(bytes.size() - sent, 65536);
        const int n = store->aioWrite(handle, bytes.data() + sent, static_cast<unsigned>(chunk));
        ASSERT_GT(n, 0) << "at " << sent;
        sent += static_cast<size_t>(n);
    }
    ASSERT_EQ(sent, bytes.size());
    EXPECT_EQ(store->aioReturn(handle, 5000), 0);
    EXPECT_EQ(store->close(handle), 0);
    const std::string stored = onServer("/aio.ts");
    EXPECT_TRUE(stored == bytes) << "server holds " << stored.size() << " bytes";
    // Asynchronous writes leave the account alone.
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 0);
}

TEST_F(StoreOnRealServer, ASnapshotWrittenInOddPiecesArrivesWhole) {
    const std::vector<size_t> pieces = {1, 3, 17, 1000, 8191, 8193, 65537, 12345, 2};
    size_t total = 0;
    for (size_t p : pieces) total += p;
    const std::string bytes = patternBytes(total, 77);
    ASSERT_EQ(store->snapshot_open("/snap.jpg", 0), 0);
    size_t at = 0;
    for (size_t piece : pieces) {
        size_t done = 0;
        for (int round = 0; done < piece && round < 10000; ++round) {
            const int n = store->snapshot_write(bytes.data() + at + done,
                                                static_cast<unsigned>(piece - done));
            ASSERT_GE(n, 0) << "piece of " << piece;
            done += static_cast<size_t>(n);
        }
        ASSERT_EQ(done, piece);
        at += piece;
    }
    ASSERT_EQ(store->snapshot_close(), 0);
    EXPECT_TRUE(onServer("/snap.jpg") == bytes);
    // The main connection is usable again for path operations.
    EXPECT_EQ(store->getFileLength("/snap.jpg"), static_cast<long long>(total));
}

TEST_F(StoreOnRealServer, RemoveDirOfAThreeLevelTreeLeavesNothingAndLowersTheAccountByTheFiles) {
    struct File {
        std::string path;
        size_t size;
    };
    const std::vector<File> files = {{"/rec/a.ts", 1000},           {"/rec/d1/b.ts", 20000},
                                     {"/rec/d1/c.ts", 0},           {"/rec/d1/cam1/d.ts", 8193},
                                     {"/rec/d1/cam1/e.ts", 123457}, {"/rec/d2/f.ts", 5}};
    ASSERT_EQ(store->createDir("/rec/d1/cam1"), 0);
    ASSERT_EQ(store->createDir("/rec/d2/empty"), 0);
    long long written = 0;
    for (const File& f : files) {
        const std::string bytes = patternBytes(f.size, static_cast<uint32_t>(f.size));
        const int handle = store->open(f.path.c_str(), 2);
        ASSERT_GE(handle, 1) << f.path;
        EXPECT_EQ(writeAll(*store, handle, bytes), f.size) << f.path;
        EXPECT_EQ(store->close(handle), 0) << f.path;
        EXPECT_TRUE(onServer(f.path) == bytes) << f.path;
        written += static_cast<long long>(f.size);
    }
    store->updateSpaceInfo(777, true);  // something else the store had recorded
    ASSERT_EQ(StoreTestAccess::usedBytes(*store), written + 777);

    EXPECT_EQ(store->removeDir("/rec"), 0);
    EXPECT_FALSE(server.dirExists("/rec"));
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 777);
    EXPECT_FALSE(store->isDirExist("/rec"));
}

TEST_F(StoreOnRealServer, LocalNamesWithNonAsciiCharactersWorkForPutAndGet) {
    const std::string name = local.file("видео-カメラ-é.bin");
    const std::string bytes = patternBytes(30000, 5);
    ASSERT_TRUE(writeLocalFile(name, bytes));
    EXPECT_EQ(store->Put(name.c_str(), "/utf8.bin"), 0);
    EXPECT_TRUE(onServer("/utf8.bin") == bytes);

    const std::string back = local.file("zurück-回来.bin");
    EXPECT_EQ(store->Get(back.c_str(), "/utf8.bin"), 0);
    std::string copied;
    ASSERT_TRUE(readLocalFile(back, &copied));
    EXPECT_TRUE(copied == bytes);
}

TEST_F(StoreOnRealServer, PathOperationsAgreeWithTheServersDisk) {
    ASSERT_EQ(store->createDir("/day/cam1"), 0);
    EXPECT_TRUE(server.dirExists("/day/cam1"));
    EXPECT_TRUE(store->isDirExist("/day/cam1"));
    EXPECT_FALSE(store->isDirExist("/day/cam2"));

    EXPECT_FALSE(store->isFileExist("/day/cam1/a.ts"));
    EXPECT_EQ(store->createFile("/day/cam1/a.ts"), 0);
    EXPECT_TRUE(server.fileExists("/day/cam1/a.ts"));
    EXPECT_TRUE(store->isFileExist("/day/cam1/a.ts"));
    ASSERT_TRUE(server.writeFile("/day/cam1/b.ts", "0123456789"));
    EXPECT_EQ(store->createFile("/day/cam1/b.ts"), 0);
    EXPECT_EQ(onServer("/day/cam1/b.ts"), "0123456789");
    EXPECT_EQ(store->getFileLength("/day/cam1/b.ts"), 10);
    EXPECT_EQ(store->getFileLength("/day/cam1"), -1);

    EXPECT_EQ(store->renameFile("/day/cam1/b.ts", "/day/cam1/c.ts"), 0);
    EXPECT_FALSE(server.fileExists("/day/cam1/b.ts"));
    EXPECT_EQ(onServer("/day/cam1/c.ts"), "0123456789");

    store->updateSpaceInfo(100, true);
    EXPECT_EQ(store->deleteFile("/day/cam1/c.ts"), 0);
    EXPECT_FALSE(server.fileExists("/day/cam1/c.ts"));
    EXPECT_EQ(StoreTestAccess::usedBytes(*store), 90);
}

TEST(StoreFacadeOnRealServer, TheExportedStoreRunsARecordingDay) {
    RealFtpServer server(FtpServerKind::kPyftpdlib);
    ASSERT_TRUE(server.ready()) << server.failure();
    FTPFileSystem store(server.hostPort().c_str(), "rec", "pw", 1024);
    ASSERT_EQ(store.init(), 0);
    ASSERT_EQ(store.createDir("/2026-11-22/cam1"), 0);
    const std::string segment = patternBytes(3 * 1048576 + 17, 3);
    const int handle = store.open("/2026-11-22/cam1/0001.ts", 2);
    ASSERT_GE(handle, 1);
    EXPECT_EQ(writeAll(store, handle, segment), segment.size());
    EXPECT_EQ(store.close(handle), 0);
    std::string stored;
    ASSERT_TRUE(server.readFile("/2026-11-22/cam1/0001.ts", &stored));
    EXPECT_TRUE(stored == segment);
    long first = -1, second = -1;
    EXPECT_EQ(store.getDiskSpaceInfo(first, second), 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 3);
    EXPECT_EQ(store.getFileLength("/2026-11-22/cam1/0001.ts"),
              static_cast<long long>(segment.size()));
    EXPECT_EQ(store.removeDir("/2026-11-22"), 0);
    EXPECT_FALSE(server.dirExists("/2026-11-22"));
    EXPECT_EQ(store.getDiskSpaceInfo(first, second), 0);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(store.uninit(), 0);
}

}  // namespace
