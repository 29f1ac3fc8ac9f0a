// The recorder's whole day against every real server kind, through the
// registry and the exported store only: register, init, lay out a
// day/camera tree, record segments (plain and asynchronous writes), list,
// scan, measure, rename, copy both ways, snapshot, delete, remove, release.
// Every result is asserted and the server's own disk is checked after each
// step that writes.
#include <dirent.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "host/IFileScanAction.h"
#include "support/RealFtpServer.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::sorted;

using ftptest::joined;
using ftptest::patternBytes;

using std::chrono::milliseconds;

const long long kMiB = 1048576;

// Sum of the sizes the servers list for everything below `dir` (files and
// directories alike, names starting with '.' left out), from the local disk.
long long listedSizeBelow(const std::string& dir) {
    long long total = 0;
    DIR* folder = opendir(dir.c_str());
    if (!folder) return -1;
    while (struct dirent* entry = readdir(folder)) {
        if (entry->d_name[0] == '.') continue;
        std::string path = dir + "/" + entry->d_name;
        struct stat info;
        if (lstat(path.c_str(), &info) != 0) continue;
        total += info.st_size;
        if (S_ISDIR(info.st_mode)) total += listedSizeBelow(path);
    }
    closedir(folder);
    return total;
}

class CollectingScan : public IFileScanAction {
public:
    int onFile(const char* fileName) override {
        names.push_back(fileName);
        return 0;
    }
    std::vector<std::string> names;
};

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

// A local scratch folder for Get and Put.
class LocalDir {
public:
    LocalDir() {
        char pattern[] = "/tmp/ftpdisk-local-XXXXXX";
        path_ = mkdtemp(pattern) ? pattern : "";
    }
    ~LocalDir() {
        if (!path_.empty()) nftw(path_.c_str(), removeEntry, 8, FTW_DEPTH | FTW_PHYS);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    bool ok() const { return !path_.empty(); }

private:
    std::string path_;
};

bool readLocal(const std::string& path, std::string* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream all;
    all << in.rdbuf();
    *bytes = all.str();
    return true;
}

bool writeLocal(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

// Writes `bytes` through a handle with plain writes of at most 64 KiB.
bool writeThroughHandle(FTPFileSystem& store, int handle, const std::string& bytes) {
    size_t done = 0;
    for (int rounds = 0; done < bytes.size() && rounds < 100000; ++rounds) {
        unsigned chunk = static_cast<unsigned>(std::min<size_t>(bytes.size() - done, 65536));
        int n = store.write(handle, bytes.data() + done, chunk);
        if (n < 0) return false;
        done += static_cast<size_t>(n);
    }
    return done == bytes.size();
}

// Writes `bytes` with aioWrite, waiting with aioReturn until the socket takes
// more before each call, as the recorder does.
bool aioWriteThroughHandle(FTPFileSystem& store, int handle, const std::string& bytes,
                           std::string* why) {
    size_t done = 0;
    for (int rounds = 0; done < bytes.size() && rounds < 100000; ++rounds) {
        int ready = store.aioReturn(handle, 3000);
        if (ready != 0) {
            *why = "aioReturn gave " + std::to_string(ready) + " after " + std::to_string(done);
            return false;
        }
        unsigned chunk = static_cast<unsigned>(std::min<size_t>(bytes.size() - done, 65536));
        int n = store.aioWrite(handle, bytes.data() + done, chunk);
        if (n < 0) {
            *why = "aioWrite gave " + std::to_string(n) + " after " + std::to_string(done);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (store.aioReturn(handle, 3000) != 0) {
        *why = "last aioReturn failed";
        return false;
    }
    return done == bytes.size();
}

// Mirrors the store's used-bytes account and its MiB figure.
long usedMiB(long long usedBytes) { return static_cast<long>(usedBytes / 1048576.0); }

class StoreOnRealServer : public ::testing::TestWithParam<FtpServerKind> {};

TEST_P(StoreOnRealServer, RecordsADayAndCleansItUpThroughTheRegistry) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    LocalDir local;
    ASSERT_TRUE(local.ok());
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    const std::string location = server.location("/rec");

    // Register and find; a path below the registered one finds the same store.
    ASSERT_EQ(registry->addFTPFileSystem(location), 0) << location;
    ASSERT_EQ(registry->addFTPFileSystem(location), 0) << "second add of the same location";
    {
        SafePointer<FTPFileSystem> store;
        ASSERT_EQ(registry->getFTPFileSystem(location, store), 1) << location;
        {
            SafePointer<FTPFileSystem> below;
            ASSERT_EQ(registry->getFTPFileSystem(server.location("/rec/20240101/cam1"), below), 1);
            EXPECT_EQ(below.get(), store.get());
        }
        FTPFileSystem& fs = *store;
        ASSERT_EQ(fs.init(), 0) << server.logTail();
        long long used = 0;  // the store's own account, mirrored

        // Day and camera tree.
        const char* cam1 = "/rec/20240101/cam1";
        const char* cam2 = "/rec/20240101/cam2";
        ASSERT_EQ(fs.createDir(cam1), 0) << server.logTail();
        ASSERT_EQ(fs.createDir(cam2), 0);
        EXPECT_TRUE(server.dirExists(cam1));
        EXPECT_TRUE(server.dirExists(cam2));
        EXPECT_EQ(fs.createDir(cam1), 0) << "an existing tree";
        EXPECT_TRUE(fs.isDirExist(cam1));
        EXPECT_FALSE(fs.isDirExist("/rec/20240101/cam9"));

        // Segment 1 with plain writes.
        const std::string seg1 = patternBytes(kMiB + kMiB / 2 + 123, 1);
        int h1 = fs.open("/rec/20240101/cam1/seg0001.dat", 2);
        ASSERT_GE(h1, 1) << server.logTail();
        ASSERT_TRUE(writeThroughHandle(fs, h1, seg1));
        used += static_cast<long long>(seg1.size());
        ASSERT_EQ(fs.close(h1), 0);
        std::string onDisk;
        ASSERT_TRUE(server.readFile("/rec/20240101/cam1/seg0001.dat", &onDisk));
        EXPECT_EQ(onDisk.size(), seg1.size());
        EXPECT_TRUE(onDisk == seg1) << "segment 1 differs on the server";

        // Segment 2 with aioWrite/aioReturn, while segment 3 of the other
        // camera is open on its own connection at the same time.
        const std::string seg2 = patternBytes(600 * 1024, 2);
        const std::string seg3 = patternBytes(70 * 1024 + 1, 3);
        int h2 = fs.open("/rec/20240101/cam1/seg0002.dat", 2);
        int h3 = fs.open("/rec/20240101/cam2/seg0003.dat", 4);
        ASSERT_GE(h2, 1);
        ASSERT_GE(h3, 1);
        EXPECT_NE(h2, h3);
        std::string why;
        ASSERT_TRUE(aioWriteThroughHandle(fs, h2, seg2, &why)) << why;
        ASSERT_TRUE(writeThroughHandle(fs, h3, seg3));
        used += static_cast<long long>(seg3.size());  // aioWrite is not counted
        char none[8];
        EXPECT_EQ(fs.read(h3, none, sizeof none), -1) << "read on a handle opened for writing";
        ASSERT_EQ(fs.close(h2), 0);
        ASSERT_EQ(fs.close(h3), 0);
        ASSERT_TRUE(server.readFile("/rec/20240101/cam1/seg0002.dat", &onDisk));
        EXPECT_TRUE(onDisk == seg2) << "segment 2 differs: " << onDisk.size() << " bytes";
        ASSERT_TRUE(server.readFile("/rec/20240101/cam2/seg0003.dat", &onDisk));
        EXPECT_TRUE(onDisk == seg3) << "segment 3 differs: " << onDisk.size() << " bytes";

        // An empty marker file; creating it again keeps it.
        ASSERT_EQ(fs.createFile("/rec/20240101/cam1/index.idx"), 0);
        EXPECT_TRUE(server.fileExists("/rec/20240101/cam1/index.idx"));
        ASSERT_TRUE(server.writeFile("/rec/20240101/cam1/index.idx", "idx"));
        EXPECT_EQ(fs.createFile("/rec/20240101/cam1/index.idx"), 0);
        ASSERT_TRUE(server.readFile("/rec/20240101/cam1/index.idx", &onDisk));
        EXPECT_EQ(onDisk, "idx");

        // Listings, scan, sizes. The four listing calls answer the int 1 on
        // success and 0 on failure.
        std::vector<std::string> names;
        ASSERT_EQ(fs.getFileList(cam1, names, ""), 1);
        EXPECT_EQ(joined(sorted(names), ","), "index.idx,seg0001.dat,seg0002.dat");
        names.clear();
        ASSERT_EQ(fs.getSubDirList("/rec/20240101", names, ""), 1);
        EXPECT_EQ(joined(sorted(names), ","), "cam1,cam2");
        names.clear();
        ASSERT_EQ(fs.getFileList("/rec/20240101", names, ""), 1);
        EXPECT_TRUE(names.empty()) << joined(names, ",");
        CollectingScan visitor;
        // The filter is not applied: every file is visited.
        ASSERT_EQ(fs.scan(cam1, &visitor, "*.dat"), 1);
        EXPECT_EQ(joined(sorted(visitor.names), ","), "index.idx,seg0001.dat,seg0002.dat");
        long long total = 0;
        ASSERT_EQ(fs.getTotalSize("/rec", total), 1);
        EXPECT_EQ(total, listedSizeBelow(server.localPath("/rec")));
        EXPECT_FALSE(fs.isEmptyDir(cam1));
        EXPECT_EQ(fs.getFileLength("/rec/20240101/cam1/seg0001.dat"),
                  static_cast<long long>(seg1.size()));
        EXPECT_EQ(fs.getFileLength("/rec/20240101/cam1/seg0002.dat"),
                  static_cast<long long>(seg2.size()));
        EXPECT_EQ(fs.getFileLength("/rec/20240101/cam2/seg0003.dat"),
                  static_cast<long long>(seg3.size()));
        EXPECT_EQ(fs.getFileLength("/rec/20240101/cam1/index.idx"), 3);

        // The same calls on a directory that does not exist answer 0 and
        // hand back nothing.
        names.clear();
        EXPECT_EQ(fs.getFileList("/rec/20240101/cam9", names, ""), 0);
        EXPECT_TRUE(names.empty()) << joined(names, ",");
        EXPECT_EQ(fs.getSubDirList("/rec/20240101/cam9", names, ""), 0);
        EXPECT_TRUE(names.empty()) << joined(names, ",");
        CollectingScan nothing;
        EXPECT_EQ(fs.scan("/rec/20240101/cam9", &nothing, ""), 0);
        EXPECT_TRUE(nothing.names.empty()) << joined(nothing.names, ",");
        long long untouched = -7;
        EXPECT_EQ(fs.getTotalSize("/rec/20240101/cam9", untouched), 0);
        EXPECT_EQ(fs.getFileLength("/rec/20240101/cam1/missing.dat"), -1);
        EXPECT_EQ(fs.getFileLength(cam1), -1) << "a directory has no file length";
        EXPECT_TRUE(fs.isFileExist("/rec/20240101/cam1/seg0002.dat"));
        EXPECT_FALSE(fs.isFileExist("/rec/20240101/cam1/missing.dat"));

        // Rename.
        ASSERT_EQ(fs.renameFile("/rec/20240101/cam1/seg0001.dat", "/rec/20240101/cam1/a0001.dat"),
                  0);
        EXPECT_FALSE(server.fileExists("/rec/20240101/cam1/seg0001.dat"));
        ASSERT_TRUE(server.readFile("/rec/20240101/cam1/a0001.dat", &onDisk));
        EXPECT_TRUE(onDisk == seg1);
        EXPECT_EQ(fs.renameFile("/rec/20240101/cam1/gone.dat", "/rec/20240101/cam1/x.dat"), -1);
        EXPECT_FALSE(server.fileExists("/rec/20240101/cam1/x.dat"));
        EXPECT_TRUE(fs.isFileExist("/rec/20240101/cam1/a0001.dat"));
        EXPECT_FALSE(fs.isFileExist("/rec/20240101/cam1/seg0001.dat"));
        names.clear();
        ASSERT_EQ(fs.getFileList(cam1, names, ""), 1);
        EXPECT_EQ(joined(sorted(names), ","), "a0001.dat,index.idx,seg0002.dat");

        // Whole-file copies both ways.
        const std::string back = local.file("back.dat");
        ASSERT_EQ(fs.Get(back.c_str(), "/rec/20240101/cam1/a0001.dat"), 0);
        std::string copied;
        ASSERT_TRUE(readLocal(back, &copied));
        EXPECT_EQ(copied.size(), seg1.size());
        EXPECT_TRUE(copied == seg1) << "Get is not byte-exact";
        // The segment written with aioWrite comes back just as exactly.
        const std::string backAio = local.file("back-aio.dat");
        ASSERT_EQ(fs.Get(backAio.c_str(), "/rec/20240101/cam1/seg0002.dat"), 0);
        ASSERT_TRUE(readLocal(backAio, &copied));
        EXPECT_TRUE(copied == seg2) << "Get of the aioWrite segment: " << copied.size();
        const std::string upload = patternBytes(700 * 1024, 4);
        const std::string source = local.file("upload.dat");
        ASSERT_TRUE(writeLocal(source, upload));
        ASSERT_EQ(fs.Put(source.c_str(), "/rec/20240101/cam2/put.dat"), 0);
        used += static_cast<long long>(upload.size());
        ASSERT_TRUE(server.readFile("/rec/20240101/cam2/put.dat", &onDisk));
        EXPECT_TRUE(onDisk == upload) << "Put is not byte-exact: " << onDisk.size();
        EXPECT_EQ(fs.getFileLength("/rec/20240101/cam2/put.dat"),
                  static_cast<long long>(upload.size()));

        // Snapshot stream on the main connection.
        const std::string picture = patternBytes(40 * 1024 + 5, 5);
        ASSERT_EQ(fs.snapshot_open("/rec/20240101/cam2/snap.jpg", 0), 0);
        size_t sent = 0;
        for (int rounds = 0; sent < picture.size() && rounds < 10000; ++rounds) {
            int n = fs.snapshot_write(picture.data() + sent,
                                      static_cast<unsigned>(picture.size() - sent));
            ASSERT_GE(n, 0);
            sent += static_cast<size_t>(n);
        }
        ASSERT_EQ(fs.snapshot_close(), 0);
        ASSERT_TRUE(server.readFile("/rec/20240101/cam2/snap.jpg", &onDisk));
        EXPECT_TRUE(onDisk == picture) << "snapshot differs: " << onDisk.size();
        // A second snapshot on the same connection, right after the first,
        // in one write; the first stays as it was.
        const std::string picture2 = patternBytes(9000, 6);
        ASSERT_EQ(fs.snapshot_open("/rec/20240101/cam1/snap2.jpg", 0), 0) << server.logTail();
        EXPECT_EQ(fs.snapshot_write(picture2.data(), static_cast<unsigned>(picture2.size())),
                  static_cast<int>(picture2.size()));
        ASSERT_EQ(fs.snapshot_close(), 0);
        ASSERT_TRUE(server.readFile("/rec/20240101/cam1/snap2.jpg", &onDisk));
        EXPECT_TRUE(onDisk == picture2) << "second snapshot differs: " << onDisk.size();
        ASSERT_TRUE(server.readFile("/rec/20240101/cam2/snap.jpg", &onDisk));
        EXPECT_TRUE(onDisk == picture) << "the first snapshot changed";
        // The main connection still serves path operations afterwards.
        EXPECT_TRUE(fs.isFileExist("/rec/20240101/cam1/snap2.jpg"));

        // Space used so far, as the store counts it.
        long first = -1, second = -1;
        EXPECT_EQ(fs.getDiskSpaceInfo(first, second), 0);
        EXPECT_EQ(first, 0);
        EXPECT_EQ(second, usedMiB(used)) << used << " bytes";

        // Delete one file; the account drops by its listed length.
        ASSERT_EQ(fs.deleteFile("/rec/20240101/cam2/put.dat"), 0);
        used -= static_cast<long long>(upload.size());
        EXPECT_FALSE(server.fileExists("/rec/20240101/cam2/put.dat"));
        EXPECT_EQ(fs.getDiskSpaceInfo(first, second), 0);
        EXPECT_EQ(second, usedMiB(used));

        // Remove the whole day: every file and directory goes.
        ASSERT_EQ(fs.removeDir("/rec/20240101"), 0) << server.logTail();
        EXPECT_FALSE(server.dirExists("/rec/20240101"));
        EXPECT_TRUE(server.dirExists("/rec"));
        EXPECT_FALSE(fs.isDirExist("/rec/20240101"));
        EXPECT_TRUE(fs.isEmptyDir("/rec"));

        EXPECT_EQ(fs.uninit(), 0);
        EXPECT_EQ(fs.createDir("/rec/after"), -1) << "no path operation after uninit";
        EXPECT_FALSE(server.dirExists("/rec/after"));
    }
    EXPECT_EQ(registry->deleteFileSystem(server.location("/rec/20240101")), -1)
        << "only the exact key deletes";
    EXPECT_EQ(registry->deleteFileSystem(location), 0);
    SafePointer<FTPFileSystem> gone;
    EXPECT_EQ(registry->getFTPFileSystem(location, gone), 0);
    // The store is gone with its pool: the server holds no session any more.
    EXPECT_TRUE(server.waitForSessionCount(0, milliseconds(5000)))
        << server.sessionCount() << " sessions left";
}

INSTANTIATE_TEST_SUITE_P(EveryKind, StoreOnRealServer, ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
