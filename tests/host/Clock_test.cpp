// The host clocks and the pause: the hand-driven clock that tests use in place
// of real time, KadmorTime::wait under it, and the count of pausing threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <future>
#include <thread>

#include "ftpdisk_host/HostControl.h"
#include "host/KDTime.h"
#include "host/KadmorTime.h"

namespace {

// Waits (bounded) until `count` threads are inside KadmorTime::wait.
bool waitForWaiters(int count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (hostcontrol::waitingThreads() != count) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

class ManualClockTest : public testing::Test {
protected:
    void TearDown() override { hostcontrol::useSystemClock(); }
};

TEST_F(ManualClockTest, StartsAtTheGivenValuesAndMovesOnlyWhenAdvanced) {
    hostcontrol::useManualClock(1000.0, 50.0);
    EXPECT_TRUE(hostcontrol::isManualClock());
    EXPECT_DOUBLE_EQ(1000.0, KDTime::getSeconds());
    EXPECT_DOUBLE_EQ(50.0, KDTime::getUpTime());
    EXPECT_DOUBLE_EQ(1000.0, KDTime::getSeconds()) << "no time passes by itself";
    hostcontrol::advanceClock(2.5);
    EXPECT_DOUBLE_EQ(1002.5, KDTime::getSeconds());
    EXPECT_DOUBLE_EQ(52.5, KDTime::getUpTime());
}

TEST_F(ManualClockTest, TheSystemClockComesBackAfterUseSystemClock) {
    hostcontrol::useManualClock(5.0, 5.0);
    hostcontrol::useSystemClock();
    EXPECT_FALSE(hostcontrol::isManualClock());
    const double now = static_cast<double>(std::time(nullptr));
    EXPECT_NEAR(now, KDTime::getSeconds(), 5.0);
    const double up1 = KDTime::getUpTime();
    const double up2 = KDTime::getUpTime();
    EXPECT_LE(up1, up2) << "up-time never goes back";
}

TEST_F(ManualClockTest, WaitEndsOnlyOnceTheHandDrivenUpTimeHasPassedItsDuration) {
    hostcontrol::useManualClock(0.0, 100.0);
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        KadmorTime::wait(KadmorTime(2, 0));
        returned.store(true);
    });
    ASSERT_TRUE(waitForWaiters(1));
    hostcontrol::advanceClock(1.9);
    EXPECT_EQ(1, hostcontrol::waitingThreads());
    EXPECT_FALSE(returned.load()) << "1.9 s of a 2 s pause";
    hostcontrol::advanceClock(0.1);
    waiter.join();
    EXPECT_TRUE(returned.load());
    EXPECT_EQ(0, hostcontrol::waitingThreads());
}

TEST_F(ManualClockTest, TheSecondNumberOfKadmorTimeIsMicroseconds) {
    KadmorTime half(0, 500000);
    EXPECT_EQ(0, half.getSeconds());
    EXPECT_EQ(500000, half.getMicroseconds());

    hostcontrol::useManualClock(0.0, 0.0);
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        KadmorTime::wait(half);
        returned.store(true);
    });
    ASSERT_TRUE(waitForWaiters(1));
    hostcontrol::advanceClock(0.4);
    EXPECT_FALSE(returned.load());
    hostcontrol::advanceClock(0.1);
    waiter.join();
    EXPECT_TRUE(returned.load());
}

TEST_F(ManualClockTest, SeveralWaitersAreCountedAndReleasedTogether) {
    hostcontrol::useManualClock(0.0, 0.0);
    std::thread a([] { KadmorTime::wait(KadmorTime(2, 0)); });
    std::thread b([] { KadmorTime::wait(KadmorTime(3, 0)); });
    ASSERT_TRUE(waitForWaiters(2));
    hostcontrol::advanceClock(2.0);
    a.join();
    EXPECT_TRUE(waitForWaiters(1));
    hostcontrol::advanceClock(1.0);
    b.join();
    EXPECT_EQ(0, hostcontrol::waitingThreads());
}

TEST_F(ManualClockTest, SwitchingBackToTheSystemClockEndsAHandDrivenWait) {
    hostcontrol::useManualClock(0.0, 0.0);
    std::future<void> waiter =
        std::async(std::launch::async, [] { KadmorTime::wait(KadmorTime(3600, 0)); });
    ASSERT_TRUE(waitForWaiters(1));
    hostcontrol::useSystemClock();
    EXPECT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(30)));
}

TEST(SystemClockWait, AZeroPauseReturnsAtOnce) {
    ASSERT_FALSE(hostcontrol::isManualClock());
    std::future<void> waiter =
        std::async(std::launch::async, [] { KadmorTime::wait(KadmorTime(0, 0)); });
    EXPECT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(30)));
}

}  // namespace
