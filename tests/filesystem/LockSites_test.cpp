// Lock sites and lock order of the store and the registry, observed through a
// recording KDMutex linked into this program only.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "RecordingMutex.h"
#include "StoreTestUtil.h"
#include "connections/FtpFileHandleManager.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "filesystem/FTPFileSystemManager.h"
#include "ftpdisk_host/HostControl.h"
#include "support/ScriptedFtpServer.h"
#include "support/StoreTestAccess.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::eventually;

using lockrecord::Event;

class CountingAction : public IFileScanAction {
public:
    int onFile(const char*) override { return ++calls; }
    int calls = 0;
};

std::string describe(const Event& e) {
    std::string text = std::string(e.lock ? "Lock " : "Unlock ") + e.file + ":" +
                       std::to_string(e.line) + " holding";
    for (const lockrecord::Held& h : e.before) text += " " + h.file;
    return text;
}

// Lock events taken with `file` as source name.
std::vector<Event> locksNamed(const std::vector<Event>& events, const std::string& file) {
    std::vector<Event> out;
    for (const Event& e : events) {
        if (e.lock && e.file == file) out.push_back(e);
    }
    return out;
}

TEST(LockSites, TheRegistryLocksAtItsThreeSitesAndUnlocksThroughTheScopedLock) {
    ftptest::ScriptedFtpServer server;
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    const std::string location = "rec(pw)@ftp://" + server.address() + "/rec";

    lockrecord::start();
    ASSERT_EQ(registry->addFTPFileSystem(location), 0);
    std::vector<Event> events = lockrecord::stop();
    std::vector<Event> registryLocks = locksNamed(events, "FTPFileSystemManager");
    ASSERT_EQ(registryLocks.size(), 1u);
    EXPECT_EQ(registryLocks[0].line, 28);
    const void* registryMutex = registryLocks[0].mutex;

    lockrecord::start();
    SafePointer<FTPFileSystem> store;
    ASSERT_EQ(registry->getFTPFileSystem(location, store), 1);
    events = lockrecord::stop();
    registryLocks = locksNamed(events, "FTPFileSystemManager");
    ASSERT_EQ(registryLocks.size(), 1u);
    EXPECT_EQ(registryLocks[0].line, 67);

    lockrecord::start();
    ASSERT_EQ(registry->deleteFileSystem(location), 0);
    events = lockrecord::stop();
    registryLocks = locksNamed(events, "FTPFileSystemManager");
    ASSERT_EQ(registryLocks.size(), 1u);
    EXPECT_EQ(registryLocks[0].line, 50);

    // Every unlock of the registry's mutex cites the scoped lock's own site.
    lockrecord::start();
    registry->getFTPFileSystem(location, store);
    registry->addFTPFileSystem("not a location");
    registry->deleteFileSystem(location);
    events = lockrecord::stop();
    int unlocks = 0;
    for (const Event& e : events) {
        if (!e.lock && e.mutex == registryMutex) {
            ++unlocks;
            EXPECT_EQ(e.file, "technic/KDMutex");
            EXPECT_EQ(e.line, 71);
        }
    }
    EXPECT_EQ(unlocks, 3);
}

// The store's three locks, told apart by operations that take exactly one.
struct StoreLocks {
    const void* operation = nullptr;
    const void* space = nullptr;
    const void* scan = nullptr;
};

// The one lock a call took in the store's name, or null. The recording sees
// every thread, and the open-file table's monitor thread may take the pool's
// lock meanwhile; only locks in the store's name count here.
const void* onlyLockInTheStoresName(const std::vector<Event>& events) {
    const std::vector<Event> locks = locksNamed(events, "FTPFileSystemImpl");
    return locks.size() == 1 ? locks[0].mutex : nullptr;
}

StoreLocks identifyStoreLocks(FTPFileSystemImpl& store) {
    StoreLocks locks;
    lockrecord::start();
    StoreTestAccess::usedBytes(store);
    locks.space = onlyLockInTheStoresName(lockrecord::stop());
    lockrecord::start();
    store.isDirExist("/");  // uninitialised: the operation lock only
    locks.operation = onlyLockInTheStoresName(lockrecord::stop());
    CountingAction action;
    lockrecord::start();
    store.scan("/", &action, "");  // uninitialised: the scan lock only
    locks.scan = onlyLockInTheStoresName(lockrecord::stop());
    return locks;
}

TEST(LockSites, EveryStoreLockIsTakenInTheStoresNameAndReleasedThroughTheScopedLock) {
    ftptest::ScriptedFtpServer server;
    server.setListing(storetest::unixLine('-', "10", "a.dat"));
    FTPFileSystemImpl store(server.address().c_str(), "rec", "pw", 1024);
    const StoreLocks locks = identifyStoreLocks(store);
    ASSERT_NE(locks.space, nullptr);
    ASSERT_NE(locks.operation, nullptr);
    ASSERT_NE(locks.scan, nullptr);
    const std::set<const void*> storeMutexes = {locks.space, locks.operation, locks.scan};

    lockrecord::start();
    ASSERT_EQ(store.init(), 0);
    EXPECT_EQ(store.createDir("/rec/d1"), 0);
    EXPECT_TRUE(store.isDirExist("/rec"));
    EXPECT_EQ(store.getFileLength("/a.dat"), 10);
    EXPECT_EQ(store.deleteFile("/a.dat"), 0);
    CountingAction action;
    EXPECT_TRUE(store.scan("/", &action, ""));
    store.updateSpaceInfo(5, true);
    long first = 0, second = 0;
    store.getDiskSpaceInfo(first, second);
    EXPECT_EQ(store.uninit(), 0);
    const std::vector<Event> events = lockrecord::stop();

    int storeLocks = 0;
    for (const Event& e : events) {
        if (storeMutexes.count(e.mutex) == 0) continue;
        if (e.lock) {
            ++storeLocks;
            EXPECT_EQ(e.file, "FTPFileSystemImpl") << describe(e);
            EXPECT_GT(e.line, 0) << describe(e);
        } else {
            EXPECT_EQ(e.file, "technic/KDMutex") << describe(e);
            EXPECT_EQ(e.line, 71) << describe(e);
        }
    }
    EXPECT_GE(storeLocks, 10);
}

// The lock a call takes in the store's name, when it takes exactly one; null
// otherwise. `held` receives what the thread held when taking it.
const void* singleStoreLock(const std::vector<Event>& events, std::vector<lockrecord::Held>* held) {
    const std::vector<Event> locks = locksNamed(events, "FTPFileSystemImpl");
    if (locks.size() != 1) return nullptr;
    if (held != nullptr) *held = locks[0].before;
    return locks[0].mutex;
}

TEST(LockSites, SnapshotCallsShareOneLockWithInitAndUninitTakenAfterTheOperationLock) {
    ftptest::ScriptedFtpServer server;
    FTPFileSystemImpl store(server.address().c_str(), "rec", "pw", 1024);
    const StoreLocks locks = identifyStoreLocks(store);
    ASSERT_NE(locks.operation, nullptr);
    ASSERT_EQ(store.init(), 0);

    std::vector<lockrecord::Held> held;
    lockrecord::start();
    ASSERT_EQ(store.snapshot_open("/snap/1.jpg", 0), 0);
    const void* openLock = singleStoreLock(lockrecord::stop(), &held);
    EXPECT_TRUE(held.empty());
    lockrecord::start();
    ASSERT_EQ(store.snapshot_write("abc", 3), 3);
    const void* writeLock = singleStoreLock(lockrecord::stop(), &held);
    EXPECT_TRUE(held.empty());
    lockrecord::start();
    ASSERT_EQ(store.snapshot_close(), 0);
    const void* closeLock = singleStoreLock(lockrecord::stop(), &held);
    EXPECT_TRUE(held.empty());
    // Deliberately not the operation lock: snapshots and path operations
    // share the main connection unguarded.
    ASSERT_NE(writeLock, nullptr);
    EXPECT_NE(writeLock, locks.operation);
    EXPECT_NE(writeLock, locks.space);
    EXPECT_NE(writeLock, locks.scan);
    EXPECT_EQ(openLock, writeLock);
    EXPECT_EQ(closeLock, writeLock);

    // init and uninit take it inside the operation lock, so neither closes the
    // stream or replaces the connection under a snapshot call.
    for (int round = 0; round < 2; ++round) {
        lockrecord::start();
        if (round == 0) {
            EXPECT_EQ(store.init(), 0);
        } else {
            EXPECT_EQ(store.uninit(), 0);
        }
        const std::vector<Event> events = lockrecord::stop();
        bool takenUnderOperation = false;
        for (const Event& e : locksNamed(events, "FTPFileSystemImpl")) {
            if (e.mutex != writeLock) continue;
            for (const lockrecord::Held& h : e.before) {
                if (h.mutex == locks.operation) takenUnderOperation = true;
            }
        }
        EXPECT_TRUE(takenUnderOperation) << (round == 0 ? "init" : "uninit");
    }
}

// Calibrates which mutex is which by calls that take exactly one store lock,
// appending the events seen to `all`.
const void* onlyLockOf(std::vector<Event>& all, const std::function<void()>& call) {
    lockrecord::start();
    call();
    std::vector<Event> events = lockrecord::stop();
    all.insert(all.end(), events.begin(), events.end());
    for (const Event& e : events) {
        if (e.lock && e.file == "FTPFileSystemImpl") return e.mutex;
    }
    return nullptr;
}

TEST(LockOrder, RegistryBeforeStoreScanBeforeOperationBeforeSpaceOrSnapshotAndNeverStoreWithTable) {
    // Also: the connection's own control lock is a leaf, and the table's and
    // the pool's locks are never held while a connection talks to the server
    // (every command and reply takes the connection's control lock) or while
    // an open file runs a transfer step (its transfer lock).
    ftptest::ScriptedFtpServer server;
    server.setListing(storetest::unixLine('-', "10", "a.dat"));
    server.putFile("/rec/in.dat", "0123456789");
    storetest::TempDir local;
    ASSERT_TRUE(storetest::writeLocalFile(local.file("up.dat"), "upload"));

    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    const std::string location = "rec(pw)@ftp://" + server.address() + "/rec";
    ASSERT_EQ(registry->addFTPFileSystem(location), 0);

    std::vector<Event> events;
    std::set<const void*> scanLocks, operationLocks, spaceLocks, snapshotLocks;
    {
        SafePointer<FTPFileSystem> store;
        ASSERT_EQ(registry->getFTPFileSystem(location, store), 1);
        ASSERT_EQ(store->init(), 0);
        long first = 0, second = 0;
        spaceLocks.insert(onlyLockOf(events, [&] { store->getDiskSpaceInfo(first, second); }));
        operationLocks.insert(onlyLockOf(events, [&] { store->isDirExist("/"); }));
        CountingAction action;
        // scan takes its own lock first.
        scanLocks.insert(onlyLockOf(events, [&] { store->scan("/rec", &action, ""); }));
        snapshotLocks.insert(onlyLockOf(events, [&] { store->snapshot_close(); }));

        lockrecord::start();
        EXPECT_EQ(store->createDir("/rec"), 0);
        EXPECT_TRUE(store->scan("/rec", &action, ""));
        EXPECT_EQ(store->deleteFile("/rec/a.dat"), 0);
        const int h = store->open("/rec/out.dat", 2);
        EXPECT_GE(h, 1);
        EXPECT_EQ(store->write(h, "abc", 3), 3);
        EXPECT_EQ(store->close(h), 0);
        EXPECT_EQ(store->Put(local.file("up.dat").c_str(), "/rec/up.dat"), 0);
        EXPECT_EQ(store->Get(local.file("in.dat").c_str(), "/rec/in.dat"), 0);
        std::vector<Event> more = lockrecord::stop();
        events.insert(events.end(), more.begin(), more.end());
    }
    // The registry holds the last reference: deleting runs uninit under its
    // lock.
    lockrecord::start();
    ASSERT_EQ(registry->deleteFileSystem(location), 0);
    std::vector<Event> more = lockrecord::stop();
    events.insert(events.end(), more.begin(), more.end());
    ASSERT_EQ(spaceLocks.size(), 1u);
    ASSERT_EQ(operationLocks.size(), 1u);
    ASSERT_EQ(scanLocks.size(), 1u);
    ASSERT_EQ(snapshotLocks.size(), 1u);
    ASSERT_EQ(spaceLocks.count(nullptr), 0u);
    ASSERT_EQ(snapshotLocks.count(nullptr), 0u);

    auto category = [](const std::string& file) -> std::string {
        if (file == "FTPFileSystemManager") return "registry";
        if (file == "FTPFileSystemImpl") return "store";
        if (file.find("FtpFileHandleManager") != std::string::npos) return "table";
        if (file.find("FreeFtpToolBuff") != std::string::npos) return "pool";
        if (file == "FTPTool") return "connection";
        if (file == "FtpFileHandler") return "file";
        return "other";
    };
    auto rank = [&](const void* mutex) {
        if (scanLocks.count(mutex)) return 1;
        if (operationLocks.count(mutex)) return 2;
        if (spaceLocks.count(mutex)) return 3;
        if (snapshotLocks.count(mutex)) return 4;
        return 0;
    };
    int storeUnderRegistry = 0;
    int tableLocks = 0;
    int nestedStoreLocks = 0;
    int connectionLocks = 0;
    int fileLocks = 0;
    for (const Event& e : events) {
        if (!e.lock) continue;
        const std::string taking = category(e.file);
        if (taking == "table") ++tableLocks;
        if (taking == "connection") ++connectionLocks;
        if (taking == "file") ++fileLocks;
        for (const lockrecord::Held& h : e.before) {
            const std::string held = category(h.file);
            EXPECT_NE(taking, "registry") << "registry lock taken while holding: " << describe(e);
            EXPECT_NE(held, "connection") << "the control lock is a leaf: " << describe(e);
            if (held == "table" || held == "pool") {
                // No network work under the table's or the pool's lock.
                EXPECT_NE(taking, "connection") << describe(e);
                EXPECT_NE(taking, "file") << describe(e);
            }
            if (held == "store") {
                // The store's and the table's locks are never held together;
                // path operations talk to the server under the store's lock.
                EXPECT_TRUE(taking == "store" || taking == "connection") << describe(e);
            }
            if (taking == "store" && held == "registry") ++storeUnderRegistry;
            if (taking == "store" && held == "store") {
                ++nestedStoreLocks;
                EXPECT_LT(rank(h.mutex), rank(e.mutex)) << describe(e);
                EXPECT_NE(rank(e.mutex), 0) << describe(e);
                // The space and snapshot locks are never held together.
                EXPECT_FALSE(rank(h.mutex) == 3 && rank(e.mutex) == 4) << describe(e);
            }
        }
    }
    // The scenario exercised each rule.
    EXPECT_GT(storeUnderRegistry, 0);
    EXPECT_GT(tableLocks, 0);
    EXPECT_GT(nestedStoreLocks, 0);
    EXPECT_GT(connectionLocks, 0);
    EXPECT_GT(fileLocks, 0);
}

// --- No network work under the open-file table's or the pool's lock ----------

using ftptest::Millis;
using ftptest::Reply;

// Whether the table's or the pool's lock was seen held by any thread at any
// moment during `window`, sampled every millisecond.
bool tableOrPoolLockSeenWithin(Millis window) {
    const auto end = std::chrono::steady_clock::now() + window;
    while (std::chrono::steady_clock::now() < end) {
        if (lockrecord::heldAnywhere("FtpFileHandleManager") ||
            lockrecord::heldAnywhere("FreeFtpToolBuff")) {
            return true;
        }
        std::this_thread::sleep_for(Millis(1));
    }
    return false;
}

size_t countOf(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

// The monitor pauses on the hand-driven clock, so its passes cannot take the
// pool's lock during the sampling windows below unless the test moves time.
class ManualClock {
public:
    ManualClock() { hostcontrol::useManualClock(1000.0, 1000.0); }
    ~ManualClock() { hostcontrol::useSystemClock(); }
};

TEST(LockSites, NoTableOrPoolLockIsHeldWhileAServerHoldsBackALoginATransferOrAClosingReply) {
    ManualClock clock;
    ftptest::ScriptedFtpServer server;
    FtpFileHandleManager table(server.address().c_str(), "rec", "pw", 1, 16, 16);
    const Millis heldBack(1500);

    // The login of a new connection.
    Reply login("230 Logged in");
    login.delay = heldBack;
    server.queueReply("PASS", login);
    std::atomic<int> first{0};
    std::thread opener([&] { first = table.open("/rec/a.dat", 2); });
    ASSERT_TRUE(eventually([&] { return countOf(server.commands(), "PASS pw") == 1; }));
    EXPECT_FALSE(tableOrPoolLockSeenWithin(Millis(300))) << "while the login reply is held back";
    SafePointer<FtpFileHandler> none;
    EXPECT_FALSE(table.getFileHandler(1, none)) << "a lookup answers while the open waits";
    EXPECT_EQ(first.load(), 0) << "the login reply is still held back";
    opener.join();
    ASSERT_EQ(first.load(), 1);

    // The start of a transfer.
    Reply start("150 Opening data connection");
    start.delay = heldBack;
    server.queueReply("STOR", start);
    std::atomic<int> second{0};
    std::thread starter([&] { second = table.open("/rec/b.dat", 2); });
    ASSERT_TRUE(eventually([&] { return countOf(server.commands(), "STOR /rec/b.dat") == 1; }));
    EXPECT_FALSE(tableOrPoolLockSeenWithin(Millis(300))) << "while the 150 is held back";
    starter.join();
    ASSERT_EQ(second.load(), 2);

    // The closing reply of a transfer; the first file was opened with the
    // default reply, so its close is scripted afresh through the next STOR's
    // final reply: close the second file, whose STOR had no final delay, and
    // then a third whose closing reply is held back.
    ASSERT_EQ(table.close(2), 0);
    Reply slowEnd("150 Opening data connection");
    slowEnd.finalDelay = heldBack;
    server.queueReply("STOR", slowEnd);
    ASSERT_EQ(table.open("/rec/c.dat", 2), 2);
    const size_t uploadsBefore = server.uploads().size();
    std::atomic<int> closed{1};
    std::thread closer([&] { closed = table.close(2); });
    ASSERT_TRUE(eventually([&] { return server.uploads().size() == uploadsBefore + 1; }));
    EXPECT_FALSE(tableOrPoolLockSeenWithin(Millis(300))) << "while the closing reply is held back";
    closer.join();
    EXPECT_EQ(closed.load(), 0);
    EXPECT_EQ(table.close(1), 0);
}

TEST(LockSites, ThePoolsLockIsNotHeldWhileTheMonitorWaitsForTheAnswerToQuit) {
    ManualClock clock;
    ftptest::ScriptedFtpServer server;
    FtpFileHandleManager table(server.address().c_str(), "rec", "pw", 1, 16, 16);
    ASSERT_EQ(table.open("/rec/a.dat", 2), 1);
    ASSERT_EQ(table.close(1), 0);
    ASSERT_EQ(table.getFreeToolBuff()->idleCount(), 1u);
    // Wait until the monitor pauses, so the clock's move wakes it for a pass.
    ASSERT_TRUE(eventually([] { return hostcontrol::waitingThreads() == 1; }));

    Reply slowQuit("221 Goodbye");
    slowQuit.delay = Millis(1500);
    server.queueReply("QUIT", slowQuit);
    hostcontrol::advanceClock(31.0);
    ASSERT_TRUE(eventually([&] { return countOf(server.commands(), "QUIT") == 1; }));
    EXPECT_FALSE(tableOrPoolLockSeenWithin(Millis(300))) << "while QUIT is unanswered";
    EXPECT_EQ(table.getFreeToolBuff()->idleCount(), 0u) << "taken off the list before the quit";
    // An open meanwhile gets a connection of its own at once.
    EXPECT_EQ(table.open("/rec/b.dat", 2), 1);
    EXPECT_EQ(server.closedConnectionCount(), 0) << "the quit is still waiting for its answer";
    EXPECT_EQ(table.close(1), 0);
    EXPECT_TRUE(server.waitForClosedConnections(1));
}

}  // namespace
