// Memory running out inside an exported call: the call fails with its own
// failure value instead of letting std::bad_alloc end the recorder, every
// lock it took is released, the data connection it opened is closed, and
// the store works normally once memory is back. Also what Get and Put
// allocate for their copy: one 64 KiB buffer per call, freed before it
// returns.
//
// This program replaces the global allocation functions so that a test can
// make every allocation of at least a given size fail on the calling thread;
// it is its own executable for that reason.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "support/FdCount.h"
#include "support/ScriptedFtpServer.h"
#include "support/TempDir.h"
#include "support/TestHelpers.h"

namespace {

// Allocations of at least this many bytes made by this thread fail while it is
// below SIZE_MAX. Per thread, so that the in-process server's threads keep
// their memory: only the recorder's calling thread runs short.
thread_local std::size_t failFrom = SIZE_MAX;

void* allocate(std::size_t size) {
    if (size >= failFrom) throw std::bad_alloc();
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

// Makes this thread's allocations of `bytes` or more fail for the life of the
// object.
class ShortOfMemory {
public:
    explicit ShortOfMemory(std::size_t bytes) { failFrom = bytes; }
    ~ShortOfMemory() { failFrom = SIZE_MAX; }
};

// Allocations of at least this many bytes made by this thread are counted,
// and the first few are remembered until they are freed, while it is below
// SIZE_MAX.
thread_local std::size_t countFrom = SIZE_MAX;
thread_local int countedAllocations = 0;
const int kRemembered = 16;
thread_local void* liveCounted[kRemembered] = {};

void* allocateCounted(std::size_t size) {
    void* p = allocate(size);
    if (size >= countFrom) {
        ++countedAllocations;
        for (void*& slot : liveCounted) {
            if (slot == nullptr) {
                slot = p;
                break;
            }
        }
    }
    return p;
}

void release(void* p) noexcept {
    for (void*& slot : liveCounted) {
        if (slot == p && p != nullptr) slot = nullptr;
    }
    std::free(p);
}

// Counts this thread's allocations of `bytes` or more for the life of the
// object: how many were made, and how many of them are not freed yet.
class CountAllocations {
public:
    explicit CountAllocations(std::size_t bytes) {
        countFrom = bytes;
        countedAllocations = 0;
    }
    ~CountAllocations() { countFrom = SIZE_MAX; }
    int made() const { return countedAllocations; }
    int live() const {
        int count = 0;
        for (void* slot : liveCounted) count += slot != nullptr ? 1 : 0;
        return count;
    }
};

}  // namespace

void* operator new(std::size_t size) { return allocateCounted(size); }
void* operator new[](std::size_t size) { return allocateCounted(size); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }

namespace {

// A Unix listing of `count` files, about 70 bytes a line.
std::string bigListing(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += "-rw-r--r--    1 rec      rec          1000 Nov 22 04:13 clip" + std::to_string(i) +
                ".dat\r\n";
    }
    return text;
}

TEST(AllocationFailure, AListingThatExhaustsMemoryFailsTheCallAndTheStoreGoesOn) {
    ftptest::ScriptedFtpServer server;
    server.setListing(bigListing(40000));  // about 2.8 MB
    FTPFileSystem store(server.address().c_str(), "rec", "pw", 1024);
    ASSERT_EQ(store.init(), 0);
    const int descriptors = ftptest::openDescriptorCount();

    std::vector<std::string> names;
    long long total = 0;
    {
        ShortOfMemory shortOfMemory(512 * 1024);
        EXPECT_EQ(store.getFileList("/rec", names, ""), 0);
        EXPECT_EQ(store.getSubDirList("/rec", names, ""), 0);
        EXPECT_EQ(store.getTotalSize("/rec", total), 0);
        EXPECT_FALSE(store.isEmptyDir("/rec"));
        EXPECT_EQ(store.getFileLength("/rec/clip7.dat"), -1);
        EXPECT_EQ(store.removeDir("/rec"), -1);
    }
    EXPECT_TRUE(names.empty());
    // Every listing's data connection was closed and its final reply read:
    // nothing is left open and the replies are still in step.
    EXPECT_EQ(ftptest::waitForDescriptorCount(descriptors), descriptors);
    EXPECT_EQ(store.getFileList("/rec", names, ""), 1) << "the operation lock was released";
    EXPECT_EQ(names.size(), 40000u);
    EXPECT_EQ(names.back(), "clip39999.dat");
    EXPECT_EQ(store.getFileLength("/rec/clip7.dat"), 1000);
    EXPECT_EQ(store.createDir("/rec/next"), 0);
}

// Get and Put copy through a buffer of exactly 64 KiB of their own: when no
// 64 KiB can be had the call fails before anything is opened, locally or on
// the server; with it, each call allocates one such buffer and has freed it
// by the time it returns.
TEST(AllocationFailure, GetAndPutEachTakeA64KiBCopyBufferAndFreeItBeforeReturning) {
    ftptest::ScriptedFtpServer server;
    const std::string remote = ftptest::patternBytes(200000, 5);
    server.putFile("/rec/down.ts", remote);
    FTPFileSystem store(server.address().c_str(), "rec", "pw", 1024);
    ASSERT_EQ(store.init(), 0);
    ftptest::TempDir local;
    const std::string up = local.file("up.ts");
    const std::string down = local.file("down.ts");
    const std::string bytes = ftptest::patternBytes(200000, 6);
    {
        std::ofstream out(up, std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    {
        ShortOfMemory shortOfMemory(64 * 1024);
        EXPECT_EQ(store.Put(up.c_str(), "/rec/up.ts"), -1);
        EXPECT_EQ(store.Get(down.c_str(), "/rec/down.ts"), -1);
    }
    EXPECT_EQ(server.commands(), (std::vector<std::string>{"USER rec", "PASS pw"}));
    EXPECT_NE(access(down.c_str(), F_OK), 0) << "Get made its local file";
    {
        ShortOfMemory shortOfMemory(64 * 1024 + 1);
        CountAllocations big(64 * 1024);
        EXPECT_EQ(store.Put(up.c_str(), "/rec/up.ts"), 0);
        EXPECT_EQ(big.made(), 1);
        EXPECT_EQ(big.live(), 0);
        EXPECT_EQ(store.Get(down.c_str(), "/rec/down.ts"), 0);
        EXPECT_EQ(big.made(), 2);
        EXPECT_EQ(big.live(), 0);
    }
    EXPECT_TRUE(server.file("/rec/up.ts") == std::optional<std::string>(bytes));
    std::ifstream in(down, std::ios::binary);
    const std::string copied((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    EXPECT_TRUE(copied == remote) << "got " << copied.size() << " bytes";
}

TEST(AllocationFailure, TheRegistryFailsItsCallsInsteadOfThrowing) {
    ftptest::ScriptedFtpServer server;
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    ASSERT_NE(registry, nullptr);
    const std::string location = "rec(pw)@ftp://" + server.address() + "/rec";
    const std::string below = location + "/x";
    {
        ShortOfMemory shortOfMemory(1);  // every allocation fails
        EXPECT_EQ(registry->addFTPFileSystem(location), -1);
    }
    {
        SafePointer<FTPFileSystem> store;
        EXPECT_EQ(registry->getFTPFileSystem(location, store), 0) << "nothing was registered";
        EXPECT_EQ(registry->addFTPFileSystem(location), 0);
        {
            ShortOfMemory shortOfMemory(1);
            EXPECT_FALSE(registry->isSameDiskDir(location, below));
            EXPECT_EQ(registry->getFTPFileSystem(below, store), 0);
        }
        EXPECT_TRUE(registry->isSameDiskDir(location, below));
        EXPECT_EQ(registry->getFTPFileSystem(below, store), 1);
    }
    EXPECT_EQ(registry->deleteFileSystem(location), 0);
}

TEST(AllocationFailure, AStoreThatCannotBeBuiltFailsEveryCall) {
    // The facade's own memory comes from malloc, so that only what its
    // constructor allocates (the implementation) fails.
    void* memory = std::malloc(sizeof(FTPFileSystem));
    ASSERT_NE(memory, nullptr);
    FTPFileSystem* starved = nullptr;
    try {
        ShortOfMemory shortOfMemory(1);
        starved = new (memory) FTPFileSystem("127.0.0.1:1", "rec", "pw", 1024);
    } catch (...) {
        std::free(memory);
        FAIL() << "the constructor let an exception out";
    }
    EXPECT_EQ(starved->init(), -1);
    EXPECT_EQ(starved->reinit(), -1);
    EXPECT_EQ(starved->open("/a.dat", 2), -1);
    EXPECT_EQ(starved->createDir("/a"), -1);
    EXPECT_FALSE(starved->isDirExist("/"));
    EXPECT_EQ(starved->getFileLength("/a"), -1);
    EXPECT_EQ(starved->uninit(), 0);
    EXPECT_EQ(starved->flush(1), 1);
    starved->~FTPFileSystem();
    std::free(memory);
}

}  // namespace
