// The gate that bounds how many new connections of one table connect and log
// in at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "connections/ConnectGate.h"
#include "support/FdCount.h"
#include "support/TestHelpers.h"

namespace {

TEST(ConnectGate, NoMoreThreadsThanItsPlacesAreEverInsideAtOnce) {
    for (unsigned int places : {1u, 3u, 8u}) {
        ConnectGate gate(places);
        std::atomic<int> inside{0};
        std::atomic<int> most{0};
        std::atomic<int> passed{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 16; ++t) {
            threads.emplace_back([&] {
                for (int round = 0; round < 50; ++round) {
                    ConnectGate::Place place(gate);
                    const int now = ++inside;
                    int seen = most.load();
                    while (now > seen && !most.compare_exchange_weak(seen, now)) {
                    }
                    std::this_thread::yield();
                    --inside;
                    ++passed;
                }
            });
        }
        for (std::thread& t : threads) t.join();
        EXPECT_LE(most.load(), static_cast<int>(places)) << places << " places";
        EXPECT_GE(most.load(), 1);
        EXPECT_EQ(passed.load(), 16 * 50) << "every thread got through";
    }
}

TEST(ConnectGate, APlaceGivenBackLetsTheNextThreadIn) {
    ConnectGate gate(1);
    gate.enter();
    std::atomic<pid_t> secondId{0};
    std::atomic<bool> entered{false};
    std::thread second([&] {
        secondId = ftptest::currentThreadId();
        gate.enter();
        entered = true;
        gate.leave();
    });
    // The second thread cannot get in while the only place is held: once it
    // is blocked (asleep in the kernel after it started to enter), it has not
    // entered. The place is given back whatever was seen, so the thread
    // always ends.
    EXPECT_TRUE(ftptest::eventually(
        [&] { return secondId.load() != 0 && ftptest::threadIsWaiting(secondId.load()); }));
    EXPECT_FALSE(entered.load());
    gate.leave();
    second.join();
    EXPECT_TRUE(entered.load());
}

}  // namespace
