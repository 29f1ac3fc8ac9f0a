// Memory running out inside an exported call: the call fails with its own
// failure value instead of letting std::bad_alloc end the recorder, every
// lock it took is released, the data connection it opened is closed, and
// the store works normally once memory is back.
//
// This program replaces the global allocation functions so that a test can
// make every allocation of at least a given size fail on the calling thread;
// it is its own executable for that reason.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "support/FdCount.h"
#include "support/ScriptedFtpServer.h"

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

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

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
