// Eight threads opening, writing, reading back and closing different files on
// one open-file table against a real FTP server on loopback: every file must
// be byte-exact on the server's disk, no handle may be lost, and the table's
// lock (held across network work) must neither race nor deadlock.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "connections/FtpFileHandleManager.h"
#include "host/RefCountManager.h"
#include "support/RealFtpServer.h"

namespace {

// Deterministic bytes that differ per thread and per file.
std::string contentFor(int thread, int file) {
    const size_t size = 20000 + static_cast<size_t>(thread) * 3001 + static_cast<size_t>(file) * 17;
    std::string bytes(size, '\0');
    uint32_t state = 2166136261u ^ static_cast<uint32_t>(thread * 7919 + file);
    for (size_t i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        bytes[i] = static_cast<char>(state >> 24);
    }
    return bytes;
}

std::string pathFor(int thread, int file) {
    return "/t" + std::to_string(thread) + "_" + std::to_string(file) + ".dat";
}

// One thread's round: write the file in pieces, close, read it back, close.
// Returns "" on success or what went wrong.
std::string roundTrip(FtpFileHandleManager& files, int thread, int file) {
    const std::string path = pathFor(thread, file);
    const std::string bytes = contentFor(thread, file);
    const int writeHandle = files.open(path.c_str(), file % 2 == 0 ? 2 : 4);
    if (writeHandle < 1) return path + ": open for writing failed";
    {
        SafePointer<FtpFileHandler> handler;
        if (!files.getFileHandler(writeHandle, handler)) return path + ": handle lost";
        size_t sent = 0;
        for (int round = 0; sent < bytes.size() && round < 100000; ++round) {
            const unsigned int piece = static_cast<unsigned int>(
                std::min<size_t>(1000 + thread * 100, bytes.size() - sent));
            const int n = handler->write(bytes.data() + sent, piece);
            if (n <= 0) return path + ": write gave " + std::to_string(n);
            sent += static_cast<size_t>(n);
        }
    }
    if (files.close(writeHandle) != 0) return path + ": close after writing failed";

    const int readHandle = files.open(path.c_str(), 1);
    if (readHandle < 1) return path + ": open for reading failed";
    std::string back;
    {
        SafePointer<FtpFileHandler> handler;
        if (!files.getFileHandler(readHandle, handler)) return path + ": handle lost";
        char buf[1500];
        for (int round = 0; round < 100000; ++round) {
            const int n = handler->read(buf, sizeof buf);
            if (n < 0) return path + ": read failed";
            if (n == 0) break;
            back.append(buf, static_cast<size_t>(n));
        }
    }
    if (files.close(readHandle) != 0) return path + ": close after reading failed";
    if (back != bytes)
        return path + ": read back " + std::to_string(back.size()) + " bytes differing";
    return "";
}

TEST(FtpFileHandleManagerThreads, EightThreadsOnOneTableLeaveEveryFileByteExact) {
    const unsigned long recordsBefore = RefCountManager::getInstance()->liveRecords();
    RealFtpServer server(FtpServerKind::kPyftpdlib);
    ASSERT_TRUE(server.ready()) << server.failure();

    const int kThreads = 8;
    const int kFilesPerThread = 8;
    // Each thread stops early when this much time has passed, so a slow
    // machine shortens the test instead of timing it out.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::vector<std::string> failures(kThreads);
    std::vector<int> done(kThreads, 0);
    {
        FtpFileHandleManager files(server.hostPort().c_str(), RealFtpServer::user(),
                                   RealFtpServer::password(), 1, 1024, 1024);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int f = 0; f < kFilesPerThread; ++f) {
                    if (std::chrono::steady_clock::now() > deadline) break;
                    std::string failure = roundTrip(files, t, f);
                    if (!failure.empty()) {
                        failures[t] = failure;
                        return;
                    }
                    ++done[t];
                }
            });
        }
        for (std::thread& thread : threads) thread.join();

        // Every connection went back to the pool; at most one per thread
        // was ever needed at a time.
        const unsigned int pooled = files.getFreeToolBuff()->idleCount();
        EXPECT_GE(pooled, 1u);
        EXPECT_LE(pooled, static_cast<unsigned int>(kThreads));
        // Every handle was closed: the lowest number is free again.
        const int handle = files.open("/after.dat", 2);
        EXPECT_EQ(1, handle);
        EXPECT_EQ(0, files.close(handle));
    }

    int total = 0;
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ("", failures[t]) << "thread " << t;
        EXPECT_GE(done[t], 1) << "thread " << t << " finished no file in time";
        total += done[t];
        for (int f = 0; f < done[t]; ++f) {
            std::string onDisk;
            ASSERT_TRUE(server.readFile(pathFor(t, f), &onDisk)) << pathFor(t, f);
            EXPECT_TRUE(onDisk == contentFor(t, f))
                << pathFor(t, f) << ": " << onDisk.size() << " bytes on disk";
        }
    }
    EXPECT_GE(total, kThreads);
    // All the session's connections were quit when the table went.
    EXPECT_TRUE(server.waitForSessionCount(0, std::chrono::milliseconds(10000)));
    EXPECT_EQ(recordsBefore, RefCountManager::getInstance()->liveRecords());
}

}  // namespace
