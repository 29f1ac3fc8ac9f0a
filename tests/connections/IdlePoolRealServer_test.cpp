// The idle connection pool behind the exported store, against every real
// server kind: a pooled connection that the server has meanwhile closed fails
// exactly one open, cleanly and quickly, and the next open works on a fresh
// connection; the monitor thread quits a pooled connection after 30 idle
// seconds of the module's clock, which the test drives by hand.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "ftpdisk_host/HostControl.h"
#include "support/FdCount.h"
#include "support/RealFtpServer.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// The module's clocks are driven by hand for the life of one test and given
// back to the system afterwards, whatever the test's outcome.
class ManualClock {
public:
    ManualClock() { hostcontrol::useManualClock(1000.0, 1000.0); }
    ~ManualClock() { hostcontrol::useSystemClock(); }
};

// Opens `path` for writing, writes `bytes` and closes; false on any failure.
bool recordFile(FTPFileSystem& store, const char* path, const std::string& bytes) {
    int handle = store.open(path, 2);
    if (handle < 1) return false;
    bool written = store.write(handle, bytes.data(), static_cast<unsigned>(bytes.size())) ==
                   static_cast<int>(bytes.size());
    return store.close(handle) == 0 && written;
}

class IdlePoolOnRealServer : public ::testing::TestWithParam<FtpServerKind> {};

TEST_P(IdlePoolOnRealServer, APooledConnectionTheServerClosedFailsOneOpenAndTheNextOpenSucceeds) {
    const bool pureftpd = GetParam() == FtpServerKind::kPureftpd;
    RealFtpServerOptions options;
    // A short idle limit makes the server drop the pooled connection by
    // itself. pure-ftpd cannot go below a minute: its sessions are ended
    // from the server's side instead.
    options.idleTimeoutSeconds = pureftpd ? 300 : 2;
    RealFtpServer server(GetParam(), options);
    ASSERT_TRUE(server.ready()) << server.failure();
    // The module's clock stands still, so its own monitor never expires the
    // pooled connection: only the server ends it.
    ManualClock clock;
    const int descriptorsBefore = ftptest::openDescriptorCount();
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    const std::string location = server.location("/");
    ASSERT_EQ(registry->addFTPFileSystem(location), 0);
    {
        SafePointer<FTPFileSystem> store;
        ASSERT_EQ(registry->getFTPFileSystem(location, store), 1);
        // Handle operations need no init: they run on the table's own
        // connections, which is what this test is about.
        ASSERT_TRUE(recordFile(*store, "/first.dat", "first")) << server.logTail();
        ASSERT_TRUE(server.waitForSessionCount(1, milliseconds(5000))) << server.sessionCount();
        // One pooled control connection from here on.
        const int withOnePooled = ftptest::openDescriptorCount();

        if (pureftpd) {
            ASSERT_TRUE(server.closeSessions());
        } else {
            ASSERT_TRUE(server.waitForSessionCount(0, milliseconds(15000)))
                << "the server did not end the idle session: " << server.logTail();
        }

        steady_clock::time_point start = steady_clock::now();
        EXPECT_EQ(store->open("/second.dat", 2), -1) << "the dead pooled connection was used";
        // A dead connection shows itself at once: the server's goodbye or the
        // closed socket ends the wait long before any time limit.
        EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_FALSE(server.fileExists("/second.dat"));

        start = steady_clock::now();
        ASSERT_TRUE(recordFile(*store, "/second.dat", "second")) << server.logTail();
        EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
        std::string onDisk;
        ASSERT_TRUE(server.readFile("/second.dat", &onDisk));
        EXPECT_EQ(onDisk, "second");
        ASSERT_TRUE(server.readFile("/first.dat", &onDisk));
        EXPECT_EQ(onDisk, "first");
        // The dead connection's socket was closed when the open failed: again
        // exactly one pooled connection, the fresh one.
        EXPECT_EQ(ftptest::waitForDescriptorCount(withOnePooled), withOnePooled);
        EXPECT_TRUE(server.waitForSessionCount(1, milliseconds(5000))) << server.sessionCount();
        // The fresh connection went back to the pool and serves the next
        // file as well.
        ASSERT_TRUE(recordFile(*store, "/third.dat", "third")) << server.logTail();
        ASSERT_TRUE(server.readFile("/third.dat", &onDisk));
        EXPECT_EQ(onDisk, "third");
    }
    EXPECT_EQ(registry->deleteFileSystem(location), 0);
    EXPECT_TRUE(server.waitForSessionCount(0, milliseconds(5000))) << server.sessionCount();
    // Nothing of the store is left open.
    EXPECT_EQ(ftptest::waitForDescriptorCount(descriptorsBefore), descriptorsBefore);
}

TEST_P(IdlePoolOnRealServer,
       TheMonitorQuitsAPooledConnectionAfterThirtyIdleSecondsOfTheModulesClock) {
    RealFtpServer server(GetParam());
    ASSERT_TRUE(server.ready()) << server.failure();
    ManualClock clock;
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    const std::string location = server.location("/");
    ASSERT_EQ(registry->addFTPFileSystem(location), 0);
    {
        SafePointer<FTPFileSystem> store;
        ASSERT_EQ(registry->getFTPFileSystem(location, store), 1);
        ASSERT_TRUE(recordFile(*store, "/a.dat", "a")) << server.logTail();
        ASSERT_TRUE(server.waitForSessionCount(1, milliseconds(5000))) << server.sessionCount();

        // 20 idle seconds: the connection is still pooled and is reused, so
        // the server never sees a second session.
        hostcontrol::advanceClock(20);
        ASSERT_TRUE(recordFile(*store, "/b.dat", "b")) << server.logTail();
        EXPECT_EQ(server.sessionCount(), 1) << "a new connection was made instead of reuse";

        // 32 more: the monitor's next pass quits it, and the server sees the
        // session end.
        hostcontrol::advanceClock(32);
        EXPECT_TRUE(server.waitForSessionCount(0, milliseconds(10000)))
            << server.sessionCount() << " sessions after 32 idle seconds";

        // The next open connects afresh.
        ASSERT_TRUE(recordFile(*store, "/c.dat", "c")) << server.logTail();
        EXPECT_TRUE(server.waitForSessionCount(1, milliseconds(5000)));
        std::string onDisk;
        ASSERT_TRUE(server.readFile("/c.dat", &onDisk));
        EXPECT_EQ(onDisk, "c");
    }
    EXPECT_EQ(registry->deleteFileSystem(location), 0);
    EXPECT_TRUE(server.waitForSessionCount(0, milliseconds(5000))) << server.sessionCount();
}

INSTANTIATE_TEST_SUITE_P(EveryKind, IdlePoolOnRealServer, ::testing::ValuesIn(allFtpServerKinds()),
                         [](const ::testing::TestParamInfo<FtpServerKind>& info) {
                             return std::string(ftpServerKindName(info.param));
                         });

}  // namespace
