// The module's time limits keep working on clock readings that no 32-bit
// integer holds: wall-clock seconds past 19 January 2038 (the end of a 32-bit
// time_t, which the recorder's C library still has) and an up-time past 2^32
// seconds. The host hands both out as doubles; the idle pool and the transfer
// watchdog must keep them as doubles, never as time_t, long or int.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>

#include <stdlib.h>

#include "connections/FreeFtpToolBuff.h"
#include "connections/TimeOutDetector.h"
#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "ftpdisk_host/HostControl.h"
#include "support/ScriptedFtpServer.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::eventually;

const double kWall2100 = 4102444800.0;       // 2100-01-01 00:00:00 UTC
const double kUpPast32Bits = 4294967296.25;  // 2^32 s and a quarter

class ClockTimes : public ::testing::Test {
protected:
    void SetUp() override { hostcontrol::useManualClock(kWall2100, kUpPast32Bits); }
    void TearDown() override { hostcontrol::useSystemClock(); }

    // One monitor pass at wall-clock time `wall`: the pass runs on a helper
    // thread and pauses for its 2 seconds, which are then let pass.
    static void passAt(FreeFtpToolBuff& pool, double wall) {
        hostcontrol::useManualClock(wall, kUpPast32Bits);
        std::future<int> pass =
            std::async(std::launch::async, [&pool] { return pool.theThread(); });
        ASSERT_TRUE(eventually([] { return hostcontrol::waitingThreads() == 1; }));
        hostcontrol::advanceClock(2.0);
        EXPECT_EQ(pass.get(), 0);
    }
};

TEST_F(ClockTimes, TheIdlePoolQuitsAConnectionThirtySecondsAfterItWasAddedInTheYear2100) {
    ftptest::ScriptedFtpServer server;
    FreeFtpToolBuff pool;
    // Passes are driven by hand below: the monitor thread is started (that
    // arms the pool) and stopped again once it has made its first pause.
    ASSERT_EQ(pool.start(), 0);
    ASSERT_TRUE(eventually([] { return hostcontrol::waitingThreads() == 1; }));
    ASSERT_EQ(pool.stop(), 0);
    ASSERT_TRUE(eventually([] { return hostcontrol::waitingThreads() == 0; }));

    SafePointer<FTPTool> tool(new FTPTool);
    ASSERT_EQ(tool->connect(server.address().c_str()), 1);
    ASSERT_EQ(tool->login("rec", "pw"), 1);
    pool.addFreeFTPTool(tool);  // idle from kWall2100 on

    passAt(pool, kWall2100 + 29.75);
    EXPECT_EQ(pool.idleCount(), 1u) << "quit before its 30 seconds were up";
    passAt(pool, kWall2100 + 30.0);
    EXPECT_EQ(pool.idleCount(), 0u) << "still pooled after 30 seconds";
    ASSERT_TRUE(server.waitForCommands(3));
    EXPECT_EQ(server.commands().back(), "QUIT");
}

TEST_F(ClockTimes, TheWatchdogMeasuresSixtySecondsOnAnUpTimePast32Bits) {
    char pattern[] = "/tmp/ftpdisk_platform_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string logRoot = pattern;
    hostcontrol::setLogRoot(logRoot);

    TimeOutDetector watchdog(60);
    hostcontrol::advanceClock(60.0);
    EXPECT_FALSE(watchdog.isTimeOut()) << "exactly 60 s is not past the limit";
    hostcontrol::advanceClock(1.5);
    EXPECT_TRUE(watchdog.isTimeOut());

    // The logged elapsed time is the difference of the two readings, in
    // whole seconds.
    watchdog.writeLog("ClockTimes", 0, 0);
    const std::string logPath = hostcontrol::resolveLogPath(kRecordErrorLog);
    std::ifstream log(logPath);
    const std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("[ClockTimes] Detect TimeOut[61], TototalDataLen[0], WritedLen[0]"),
              std::string::npos)
        << logPath << ":\n"
        << text;

    hostcontrol::setLogRoot("");
    std::error_code ignored;
    std::filesystem::remove_all(logRoot, ignored);
}

}  // namespace
