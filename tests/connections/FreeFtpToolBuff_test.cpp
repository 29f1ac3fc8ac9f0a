// The idle connection pool against the scripted server, with the host clocks
// driven by hand: expiry after 30 s (exactly 30.0 s included), nothing expired
// before start, FIFO hand-out, and the monitor thread's lifecycle.
//
// The wall clock (idle times) is moved with useManualClock(wall, sameUpTime),
// which does not wake the monitor's pause; advanceClock then moves the up-time
// past the 2-second pause so that the monitor makes exactly one pass at a
// known wall time.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <vector>

#include "ConnectionsTestUtil.h"
#include "connections/FreeFtpToolBuff.h"

namespace {

using conntest::contains;
using conntest::joined;
using conntest::loggedInTool;
using conntest::waitForPausingThreads;

class FreeFtpToolBuffTest : public testing::Test {
protected:
    void SetUp() override { hostcontrol::useManualClock(1000.0, 0.0); }
    void TearDown() override { hostcontrol::useSystemClock(); }

    // Sets the wall clock only; the up-time stays where it is.
    void setWall(double wall) { hostcontrol::useManualClock(wall, upTime); }

    // One monitor pass made on this thread's behalf: theThread() runs on a
    // helper thread, and once it pauses the 2 seconds are let pass.
    static void runOnePass(FreeFtpToolBuff& pool) {
        std::future<int> pass =
            std::async(std::launch::async, [&pool] { return pool.theThread(); });
        ASSERT_TRUE(waitForPausingThreads(1));
        hostcontrol::advanceClock(2.0);
        EXPECT_EQ(0, pass.get());
    }

    double upTime = 0.0;
    ftptest::ScriptedFtpServer server;
};

TEST_F(FreeFtpToolBuffTest, ByThirtyThreeSecondsTheFirstOfThreeIsQuitAndTheTenSecondOneComesOut) {
    FreeFtpToolBuff pool;
    ASSERT_EQ(0, pool.start());
    ASSERT_TRUE(waitForPausingThreads(1)) << "the monitor's first pass";

    SafePointer<FTPTool> at0 = loggedInTool(server);  // connection 1
    pool.addFreeFTPTool(at0);
    setWall(1010.0);
    SafePointer<FTPTool> at10 = loggedInTool(server);  // connection 2
    pool.addFreeFTPTool(at10);
    setWall(1020.0);
    SafePointer<FTPTool> at20 = loggedInTool(server);  // connection 3
    pool.addFreeFTPTool(at20);

    hostcontrol::advanceClock(13.0);  // wall 1033: the monitor wakes for one pass
    ASSERT_TRUE(server.waitForClosedConnections(1)) << joined(server.commands());
    EXPECT_EQ(2u, pool.idleCount());
    EXPECT_EQ("QUIT", server.commandsOn(1).back());
    EXPECT_FALSE(contains(server.commandsOn(2), "QUIT")) << joined(server.commandsOn(2));
    EXPECT_FALSE(contains(server.commandsOn(3), "QUIT")) << joined(server.commandsOn(3));

    SafePointer<FTPTool> out;
    ASSERT_TRUE(pool.getFreeFTPTool(out));
    EXPECT_EQ(at10.get(), out.get()) << "the one added at 10 s is now the oldest";
    EXPECT_EQ(1u, pool.idleCount());
}

TEST_F(FreeFtpToolBuffTest, AnEntryAddedExactlyThirtySecondsBeforeThePassIsQuit) {
    FreeFtpToolBuff pool;
    ASSERT_EQ(0, pool.start());
    ASSERT_TRUE(waitForPausingThreads(1));

    SafePointer<FTPTool> exactly30 = loggedInTool(server);  // connection 1
    pool.addFreeFTPTool(exactly30);
    setWall(1000.5);
    SafePointer<FTPTool> younger = loggedInTool(server);  // connection 2
    pool.addFreeFTPTool(younger);

    hostcontrol::advanceClock(29.5);  // wall 1030.0: ages 30.0 and 29.5
    ASSERT_TRUE(server.waitForClosedConnections(1)) << joined(server.commands());
    EXPECT_EQ(1u, pool.idleCount());
    EXPECT_EQ("QUIT", server.commandsOn(1).back());
    EXPECT_FALSE(contains(server.commandsOn(2), "QUIT"));
    SafePointer<FTPTool> out;
    ASSERT_TRUE(pool.getFreeFTPTool(out));
    EXPECT_EQ(younger.get(), out.get());
}

TEST_F(FreeFtpToolBuffTest, BeforeStartConnectionsAreNeverExpiredHoweverOld) {
    FreeFtpToolBuff pool;
    SafePointer<FTPTool> tool = loggedInTool(server);
    pool.addFreeFTPTool(tool);
    setWall(1000.0 + 86400.0);
    runOnePass(pool);
    EXPECT_EQ(1u, pool.idleCount());
    EXPECT_FALSE(contains(server.commandsOn(1), "QUIT")) << joined(server.commandsOn(1));
    EXPECT_EQ(0, conntest::threadsNamed(conntest::monitorThreadName()))
        << "the thread is created by the constructor but not started";
}

TEST_F(FreeFtpToolBuffTest, StopLeavesThePoolUnpausedSoALaterPassExpiresEntries) {
    // stop() writes false on purpose: only the time before the first start is
    // paused, even for a pool that was never started.
    FreeFtpToolBuff pool;
    EXPECT_EQ(0, pool.stop());
    SafePointer<FTPTool> tool = loggedInTool(server);
    pool.addFreeFTPTool(tool);
    setWall(1030.0);
    runOnePass(pool);
    EXPECT_EQ(0u, pool.idleCount());
    EXPECT_EQ("QUIT", server.commandsOn(1).back());
}

TEST_F(FreeFtpToolBuffTest, APassKeepsEntriesYoungerThanThirtySeconds) {
    FreeFtpToolBuff pool;
    pool.stop();
    SafePointer<FTPTool> tool = loggedInTool(server);
    pool.addFreeFTPTool(tool);
    setWall(1029.999);
    runOnePass(pool);
    EXPECT_EQ(1u, pool.idleCount());
    EXPECT_FALSE(contains(server.commandsOn(1), "QUIT"));
}

TEST_F(FreeFtpToolBuffTest, APassQuitsEveryExpiredEntryIncludingOnesSideBySide) {
    // Each erased entry's successor moves into its place and is judged too.
    FreeFtpToolBuff pool;
    pool.stop();
    std::vector<SafePointer<FTPTool> > tools;
    for (int i = 0; i < 3; ++i) {
        tools.push_back(loggedInTool(server));  // connections 1 to 3, at wall 1000
        pool.addFreeFTPTool(tools.back());
    }
    setWall(1025.0);
    SafePointer<FTPTool> young = loggedInTool(server);  // connection 4
    pool.addFreeFTPTool(young);
    tools.clear();
    setWall(1030.0);
    runOnePass(pool);
    EXPECT_EQ(1u, pool.idleCount());
    for (int connection = 1; connection <= 3; ++connection) {
        EXPECT_TRUE(contains(server.commandsOn(connection), "QUIT"))
            << "connection " << connection << ": " << joined(server.commandsOn(connection));
    }
    EXPECT_FALSE(contains(server.commandsOn(4), "QUIT")) << joined(server.commandsOn(4));
    SafePointer<FTPTool> out;
    ASSERT_TRUE(pool.getFreeFTPTool(out));
    EXPECT_EQ(young.get(), out.get());
}

TEST_F(FreeFtpToolBuffTest, AnExpiredEntryWhoseQuitIsRefusedIsRemovedAllTheSame) {
    FreeFtpToolBuff pool;
    pool.stop();
    server.setReply("QUIT", "500 Not now.");
    SafePointer<FTPTool> refused = loggedInTool(server);  // connection 1
    pool.addFreeFTPTool(refused);
    setWall(1031.0);
    runOnePass(pool);
    EXPECT_EQ(0u, pool.idleCount());
    EXPECT_TRUE(contains(server.commandsOn(1), "QUIT")) << joined(server.commandsOn(1));
    SafePointer<FTPTool> out;
    EXPECT_FALSE(pool.getFreeFTPTool(out));
}

TEST_F(FreeFtpToolBuffTest, StartOnARunningPoolReturnsZeroAndChangesNothing) {
    FreeFtpToolBuff pool;
    SafePointer<FTPTool> tool = loggedInTool(server);
    pool.addFreeFTPTool(tool);
    ASSERT_EQ(0, pool.start());
    ASSERT_TRUE(waitForPausingThreads(1));
    EXPECT_EQ(1, conntest::threadsNamed(conntest::monitorThreadName()));
    EXPECT_EQ(0, pool.start());
    EXPECT_EQ(1, conntest::threadsNamed(conntest::monitorThreadName())) << "no second thread";
    EXPECT_EQ(1, hostcontrol::waitingThreads());
    EXPECT_EQ(1u, pool.idleCount());
    EXPECT_EQ(0, pool.stop());
    // A joined thread can linger in /proc/self/task for a moment.
    EXPECT_TRUE(conntest::eventually(
        [] { return conntest::threadsNamed(conntest::monitorThreadName()) == 0; }));
}

TEST_F(FreeFtpToolBuffTest, StartAfterStopRunsTheMonitorAgain) {
    FreeFtpToolBuff pool;
    ASSERT_EQ(0, pool.start());
    pool.stop();
    // A joined thread can linger in /proc/self/task for a moment.
    EXPECT_TRUE(conntest::eventually(
        [] { return conntest::threadsNamed(conntest::monitorThreadName()) == 0; }));
    ASSERT_EQ(0, pool.start());
    ASSERT_TRUE(waitForPausingThreads(1));
    EXPECT_EQ(1, conntest::threadsNamed(conntest::monitorThreadName()));
}

TEST_F(FreeFtpToolBuffTest, GetFromAnEmptyPoolReturnsFalseAndLeavesTheArgumentUnchanged) {
    FreeFtpToolBuff pool;
    SafePointer<FTPTool> mine(new FTPTool);
    FTPTool* before = mine.get();
    EXPECT_FALSE(pool.getFreeFTPTool(mine));
    EXPECT_EQ(before, mine.get());

    SafePointer<FTPTool> empty;
    EXPECT_FALSE(pool.getFreeFTPTool(empty));
    EXPECT_TRUE(empty.isNull());
}

TEST_F(FreeFtpToolBuffTest, ConnectionsComeOutOldestFirstWithoutAnyTraffic) {
    FreeFtpToolBuff pool;
    SafePointer<FTPTool> first = loggedInTool(server);
    SafePointer<FTPTool> second = loggedInTool(server);
    pool.addFreeFTPTool(first);
    pool.addFreeFTPTool(second);
    const size_t commandsBefore = server.commands().size();

    SafePointer<FTPTool> out;
    ASSERT_TRUE(pool.getFreeFTPTool(out));
    EXPECT_EQ(first.get(), out.get());
    ASSERT_TRUE(pool.getFreeFTPTool(out));
    EXPECT_EQ(second.get(), out.get());
    EXPECT_FALSE(pool.getFreeFTPTool(out));
    EXPECT_EQ(second.get(), out.get());
    EXPECT_EQ(commandsBefore, server.commands().size()) << "no test command on hand-out";
}

TEST_F(FreeFtpToolBuffTest, TheSameConnectionAddedTwiceIsPooledTwice) {
    FreeFtpToolBuff pool;
    SafePointer<FTPTool> tool = loggedInTool(server);
    pool.addFreeFTPTool(tool);
    pool.addFreeFTPTool(tool);
    EXPECT_EQ(2u, pool.idleCount());
}

TEST_F(FreeFtpToolBuffTest, DestroyingThePoolReleasesItsConnectionsWhoseDestructorsQuitThem) {
    {
        FreeFtpToolBuff pool;
        ASSERT_EQ(0, pool.start());
        SafePointer<FTPTool> tool = loggedInTool(server);
        pool.addFreeFTPTool(tool);
    }  // the test's reference went first; the pool held the last one
    EXPECT_TRUE(server.waitForClosedConnections(1));
    EXPECT_EQ("QUIT", server.commandsOn(1).back());
    // A joined thread can linger in /proc/self/task for a moment.
    EXPECT_TRUE(conntest::eventually(
        [] { return conntest::threadsNamed(conntest::monitorThreadName()) == 0; }));
}

}  // namespace
