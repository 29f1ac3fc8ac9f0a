// The host thread: its body runs again and again until stopped, the OS thread
// carries the (15-character) name, onStart/onStop bracket the body calls, and
// stop interrupts a KadmorTime::wait in progress. Also the host mutex.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Function.h"
#include "ftpdisk_host/HostControl.h"
#include "host/GThread.h"
#include "host/KadmorTime.h"
#include "host/technic/KDMutex.h"
#include "support/FdCount.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::eventually;

// Names of every thread of this process, as the kernel shows them.
std::vector<std::string> threadNames() {
    std::vector<std::string> names;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return names;
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name)) names.push_back(name);
    }
    closedir(tasks);
    return names;
}

bool hasThreadNamed(const std::string& name) {
    for (const std::string& n : threadNames()) {
        if (n == name) return true;
    }
    return false;
}

// The three callables of a GThread, counting their calls.
class Probe {
public:
    int body() {
        bodyCalls.fetch_add(1);
        if (pauseInBody) KadmorTime::wait(KadmorTime(pauseSeconds, 0));
        return 0;
    }
    int onStart() {
        startCalls.fetch_add(1);
        bodyCallsAtStart.store(bodyCalls.load());
        return 0;
    }
    int onStop() {
        stopCalls.fetch_add(1);
        bodyCallsAtStop.store(bodyCalls.load());
        return 0;
    }

    std::atomic<int> bodyCalls{0};
    std::atomic<int> startCalls{0};
    std::atomic<int> stopCalls{0};
    std::atomic<int> bodyCallsAtStart{-1};
    std::atomic<int> bodyCallsAtStop{-1};
    bool pauseInBody = false;
    long pauseSeconds = 0;
};

GThread* makeThread(Probe& probe, const std::string& name) {
    return new GThread(make_function(&Probe::body, &probe), name,
                       make_function(&Probe::onStart, &probe),
                       make_function(&Probe::onStop, &probe));
}

TEST(GThread, RunsTheBodyAgainAfterEachReturnUntilStopped) {
    Probe probe;
    std::unique_ptr<GThread> thread(makeThread(probe, "bodyRepeat"));
    ASSERT_NE(0, thread->start());
    EXPECT_TRUE(eventually([&] { return probe.bodyCalls.load() >= 100; }));
    EXPECT_EQ(0, thread->stop());
    EXPECT_EQ(0, thread->running());
    const int afterStop = probe.bodyCalls.load();
    EXPECT_EQ(afterStop, probe.bodyCalls.load()) << "no body call after stop returned";
    EXPECT_EQ(afterStop, probe.bodyCallsAtStop.load());
}

TEST(GThread, OnStartRunsOnceBeforeTheBodyAndOnStopOnceAfterIt) {
    Probe probe;
    std::unique_ptr<GThread> thread(makeThread(probe, "bracketed"));
    ASSERT_NE(0, thread->start());
    EXPECT_TRUE(eventually([&] { return probe.bodyCalls.load() >= 3; }));
    thread->stop();
    EXPECT_EQ(1, probe.startCalls.load());
    EXPECT_EQ(0, probe.bodyCallsAtStart.load());
    EXPECT_EQ(1, probe.stopCalls.load());
    EXPECT_EQ(probe.bodyCalls.load(), probe.bodyCallsAtStop.load());
}

TEST(GThread, TheOsThreadCarriesTheFirstFifteenCharactersOfTheName) {
    Probe probe;
    probe.pauseInBody = true;
    probe.pauseSeconds = 3600;  // stop interrupts the pause
    const std::string name = "hostlibWorkerThreadName";
    const std::string shown = "hostlibWorkerTh";
    ASSERT_FALSE(hasThreadNamed(shown));
    std::unique_ptr<GThread> thread(makeThread(probe, name));
    EXPECT_EQ(name, thread->getName());
    ASSERT_NE(0, thread->start());
    EXPECT_TRUE(eventually([&] { return probe.bodyCalls.load() >= 1; }));
    EXPECT_TRUE(hasThreadNamed(shown));
    thread->stop();
    // A joined thread may linger in /proc/self/task for a moment (qemu-user
    // shows this), so wait for it to go, within the usual bound.
    EXPECT_TRUE(eventually([&] { return !hasThreadNamed(shown); }));
}

TEST(GThread, StartingARunningThreadGivesZeroAndStartingAfterStopRunsItAgain) {
    Probe probe;
    std::unique_ptr<GThread> thread(makeThread(probe, "startTwice"));
    EXPECT_EQ(0, thread->running());
    ASSERT_NE(0, thread->start());
    EXPECT_NE(0, thread->running());
    EXPECT_EQ(0, thread->start());
    EXPECT_NE(0, thread->running());
    EXPECT_EQ(0, thread->stop());
    EXPECT_EQ(0, thread->running());
    EXPECT_EQ(1, probe.startCalls.load());

    ASSERT_NE(0, thread->start());
    EXPECT_NE(0, thread->running());
    thread->stop();
    EXPECT_EQ(2, probe.startCalls.load());
    EXPECT_EQ(2, probe.stopCalls.load());
}

TEST(GThread, StopOnAThreadThatNeverStartedIsHarmless) {
    Probe probe;
    std::unique_ptr<GThread> thread(makeThread(probe, "neverStarted"));
    EXPECT_EQ(0, thread->stop());
    EXPECT_EQ(0, probe.startCalls.load());
    EXPECT_EQ(0, probe.bodyCalls.load());
}

TEST(GThread, StopWakesAKadmorWaitThatTheHandDrivenClockWouldNeverEnd) {
    hostcontrol::useManualClock(0.0, 0.0);
    Probe probe;
    probe.pauseInBody = true;
    probe.pauseSeconds = 100;
    std::unique_ptr<GThread> thread(makeThread(probe, "stopWakes"));
    ASSERT_NE(0, thread->start());
    ASSERT_TRUE(eventually([] { return hostcontrol::waitingThreads() == 1; }));
    std::future<int> stopped = std::async(std::launch::async, [&] { return thread->stop(); });
    const bool early = stopped.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    if (!early) hostcontrol::advanceClock(1000.0);  // let a broken stop finish
    EXPECT_TRUE(early) << "stop did not interrupt the pause";
    EXPECT_EQ(0, stopped.get());
    EXPECT_EQ(1, probe.bodyCalls.load());
    EXPECT_EQ(0, hostcontrol::waitingThreads());
    hostcontrol::useSystemClock();
}

TEST(GThread, DestroyingARunningThreadStopsIt) {
    Probe probe;
    probe.pauseInBody = true;
    probe.pauseSeconds = 3600;
    GThread* thread = makeThread(probe, "destroyedRun");
    ASSERT_NE(0, thread->start());
    EXPECT_TRUE(eventually([&] { return probe.bodyCalls.load() >= 1; }));
    delete thread;
    EXPECT_EQ(1, probe.stopCalls.load());
    EXPECT_FALSE(hasThreadNamed("destroyedRun"));
}

TEST(GThread, EmptyFunDoesNothingAndGivesZero) { EXPECT_EQ(0, GThread::emptyFun()); }

TEST(KDMutex, KeepsConcurrentIncrementsFromBeingLost) {
    KDMutex mutex;
    long counter = 0;
    const int kThreads = 4;
    const int kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                KDMutexLocker guard(mutex, "GThread_test", __LINE__);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(static_cast<long>(kThreads) * kRounds, counter);
}

// The host's Lock and Unlock take the source name as writable text.
char kSite[] = "GThread_test";

TEST(KDMutex, TheScopedHolderReleasesWhenAnExceptionLeavesTheScope) {
    KDMutex mutex;
    try {
        KDMutexLocker guard(mutex, "GThread_test", __LINE__);
        throw std::runtime_error("leaving");
    } catch (const std::runtime_error&) {
    }
    std::future<bool> other = std::async(std::launch::async, [&] {
        mutex.Lock(kSite, __LINE__);
        mutex.Unlock(kSite, __LINE__);
        return true;
    });
    ASSERT_EQ(std::future_status::ready, other.wait_for(std::chrono::seconds(30)));
    EXPECT_TRUE(other.get());
}

TEST(KDMutex, LockBlocksAnotherThreadUntilUnlock) {
    KDMutex mutex;
    std::atomic<pid_t> otherId{0};
    std::atomic<bool> entered{false};
    mutex.Lock(kSite, __LINE__);
    std::thread other([&] {
        otherId = ftptest::currentThreadId();
        KDMutexLocker guard(mutex, "GThread_test", __LINE__);
        entered.store(true);
    });
    // The other thread cannot get in while the lock is held: once it is
    // blocked on it (asleep in the kernel), it has not entered. The lock is
    // given back whatever was seen, so the thread always ends.
    EXPECT_TRUE(eventually(
        [&] { return otherId.load() != 0 && ftptest::threadIsWaiting(otherId.load()); }));
    EXPECT_FALSE(entered.load());
    mutex.Unlock(kSite, __LINE__);
    other.join();
    EXPECT_TRUE(entered.load());
}

}  // namespace
