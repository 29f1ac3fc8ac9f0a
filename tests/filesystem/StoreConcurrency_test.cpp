// The registry and its stores driven from several threads at once against a
// real FTP server: registering, finding and removing locations, initialising
// and releasing stores, path and handle operations on one shared store. Run
// under ThreadSanitizer it proves the locks free of races and of order
// inversions; every thread's loop is bounded in count.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "StoreTestUtil.h"
#include "filesystem/FTPFileSystemManager.h"
#include "support/RealFtpServer.h"

namespace {

using storetest::patternBytes;

TEST(StoreConcurrency, RegistryAndStoresUsedFromSeveralThreadsNeitherRaceNorDeadlock) {
    RealFtpServer server(FtpServerKind::kPyftpdlib);
    ASSERT_TRUE(server.ready()) << server.failure();
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    const std::string shared = server.location("/rec/shared");
    ASSERT_EQ(registry->addFTPFileSystem(shared), 0);
    {
        SafePointer<FTPFileSystem> store;
        ASSERT_EQ(registry->getFTPFileSystem(shared, store), 1);
        ASSERT_EQ(store->init(), 0);
        // The watcher below tests for /rec from its first round on.
        ASSERT_EQ(store->createDir("/rec"), 0);
    }

    const int kChurners = 2;
    const int kWorkers = 2;
    const int kRounds = 6;
    std::atomic<int> unexpected{0};
    std::vector<std::string> problems[kChurners + kWorkers + 1];
    auto check = [&](bool ok, std::vector<std::string>& log, const std::string& what) {
        if (!ok) {
            ++unexpected;
            log.push_back(what);
        }
    };

    std::vector<std::thread> threads;
    // Churners: each registers its own locations, initialises the store it
    // gets back, uses it, releases it and removes the location again.
    for (int t = 0; t < kChurners; ++t) {
        threads.emplace_back([&, t] {
            std::vector<std::string>& log = problems[t];
            for (int i = 0; i < kRounds; ++i) {
                const std::string location =
                    server.location("/churn" + std::to_string(t) + "/n" + std::to_string(i));
                check(registry->addFTPFileSystem(location) == 0, log, "add " + location);
                const std::string dir = "/churn" + std::to_string(t) + "/n" + std::to_string(i);
                const bool removeWhileHeld = i % 2 == 0;
                {
                    SafePointer<FTPFileSystem> store;
                    check(registry->getFTPFileSystem(location, store) == 1, log, "get " + location);
                    if (store.isNull()) continue;
                    check(store->init() == 0, log, "init " + location);
                    check(store->createDir(dir.c_str()) == 0, log, "createDir " + dir);
                    if (removeWhileHeld) {
                        // Removed while this thread still holds it: the store
                        // stays usable until released here.
                        check(registry->deleteFileSystem(location) == 0, log, "delete " + location);
                        check(store->isDirExist(dir.c_str()), log, "isDirExist " + dir);
                    } else {
                        check(store->uninit() == 0, log, "uninit " + location);
                        check(store->reinit() == 0, log, "reinit " + location);
                    }
                }
                if (!removeWhileHeld) {
                    // The registry holds the last reference: removing it
                    // destroys the initialised store under the registry lock.
                    check(registry->deleteFileSystem(location) == 0, log, "delete " + location);
                }
            }
        });
    }
    // Workers: path and handle operations on the one shared store.
    for (int w = 0; w < kWorkers; ++w) {
        threads.emplace_back([&, w] {
            std::vector<std::string>& log = problems[kChurners + w];
            for (int i = 0; i < kRounds; ++i) {
                SafePointer<FTPFileSystem> store;
                check(registry->getFTPFileSystem(shared + "/sub", store) == 1, log, "get shared");
                if (store.isNull()) continue;
                const std::string dir = "/rec/w" + std::to_string(w);
                check(store->createDir(dir.c_str()) == 0, log, "createDir " + dir);
                const std::string path = dir + "/f" + std::to_string(i) + ".ts";
                const std::string bytes = patternBytes(20000 + 1000 * i, 100 * w + i);
                const int handle = store->open(path.c_str(), 2);
                check(handle >= 1, log, "open " + path);
                if (handle < 1) continue;
                size_t done = 0;
                for (int round = 0; done < bytes.size() && round < 1000; ++round) {
                    const int n = store->write(handle, bytes.data() + done,
                                               static_cast<unsigned>(bytes.size() - done));
                    if (n <= 0) break;
                    done += static_cast<size_t>(n);
                }
                check(done == bytes.size(), log, "write " + path);
                check(store->close(handle) == 0, log, "close " + path);
                check(store->getFileLength(path.c_str()) == static_cast<long long>(bytes.size()),
                      log, "getFileLength " + path);
                std::vector<std::string> names;
                check(store->getFileList(dir.c_str(), names, ""), log, "getFileList " + dir);
            }
        });
    }
    // A watcher reads the shared store's figures and re-initialises it (a
    // no-op while it is up) without any lock of its own.
    threads.emplace_back([&] {
        std::vector<std::string>& log = problems[kChurners + kWorkers];
        for (int i = 0; i < kRounds * 4; ++i) {
            SafePointer<FTPFileSystem> store;
            check(registry->getFTPFileSystem(shared, store) == 1, log, "get shared");
            if (store.isNull()) continue;
            long first = -1, second = -1;
            check(store->getDiskSpaceInfo(first, second) == 0 && first == 0, log, "space");
            check(store->reinit() == 0, log, "reinit shared");
            check(store->isDirExist("/rec"), log, "isDirExist /rec");
        }
    });
    for (std::thread& thread : threads) thread.join();

    for (const auto& log : problems) {
        for (const std::string& what : log) ADD_FAILURE() << "failed: " << what;
    }
    EXPECT_EQ(unexpected.load(), 0);
    for (int w = 0; w < kWorkers; ++w) {
        for (int i = 0; i < kRounds; ++i) {
            const std::string path =
                "/rec/w" + std::to_string(w) + "/f" + std::to_string(i) + ".ts";
            std::string stored;
            EXPECT_TRUE(server.readFile(path, &stored)) << path;
            EXPECT_TRUE(stored == patternBytes(20000 + 1000 * i, 100 * w + i)) << path;
        }
    }
    for (int t = 0; t < kChurners; ++t) {
        for (int i = 0; i < kRounds; ++i) {
            const std::string dir = "/churn" + std::to_string(t) + "/n" + std::to_string(i);
            EXPECT_TRUE(server.dirExists(dir)) << dir;
            SafePointer<FTPFileSystem> gone;
            EXPECT_EQ(registry->getFTPFileSystem(server.location(dir), gone), 0) << dir;
        }
    }
    EXPECT_EQ(registry->deleteFileSystem(shared), 0);
}

}  // namespace
