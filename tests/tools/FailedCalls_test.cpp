// The record command's book of failed calls: camera threads note failures,
// each explained at once by the calling thread's reason, here a stand-in.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "FailedCalls.h"

using namespace ftpdisk_tool;

namespace {

FailureReason turnedAwayWith(const std::string& reply) {
    FailureReason why;
    why.text = "127.0.0.1:2121 refused the session: " + reply;
    why.turnedAway = true;
    why.reply = reply;
    return why;
}

long long sum(const std::vector<std::pair<std::string, long long>>& reasons) {
    long long total = 0;
    for (const auto& reason : reasons) {
        total += reason.second;
    }
    return total;
}

TEST(FailedCalls, ExplainsEveryCallNotedFromManyThreadsAndKeepsTheFirstWhole) {
    std::atomic<int> explained{0};
    FailedCalls failures([&] {
        ++explained;
        return turnedAwayWith("421 Too many connections (50) from this IP");
    });
    std::vector<std::thread> cameras;
    for (int camera = 1; camera <= 4; ++camera) {
        cameras.emplace_back([&failures, camera] {
            for (int segment = 1; segment <= 25; ++segment) {
                failures.add(
                    camera, "open",
                    "/v/cam0" + std::to_string(camera) + "/" + std::to_string(segment) + ".dat",
                    segment * 0.5);
            }
        });
    }
    for (std::thread& camera : cameras) {
        camera.join();
    }

    EXPECT_EQ(100, failures.count());
    EXPECT_EQ(100, explained.load()) << "each call is explained by the thread that noted it";
    const auto reasons = failures.byReason();
    ASSERT_EQ(1u, reasons.size());
    EXPECT_EQ(
        "open: 127.0.0.1:2121 refused the session: 421 Too many connections (50) from this IP",
        reasons[0].first);
    EXPECT_EQ(100, reasons[0].second);
    const std::vector<FailedCall> first = failures.firstCalls();
    ASSERT_EQ(FailedCalls::kShownCalls, first.size());
    for (const FailedCall& call : first) {
        EXPECT_EQ("127.0.0.1:2121 refused the session: 421 Too many connections (50) from this IP",
                  call.why)
            << call.path;
        EXPECT_EQ("open", call.operation);
        EXPECT_EQ("/v/cam0" + std::to_string(call.camera) + "/" +
                      std::to_string(static_cast<int>(call.at * 2)) + ".dat",
                  call.path);
    }
    std::string reply;
    ASSERT_TRUE(failures.turnedAway(reply));
    EXPECT_EQ("421 Too many connections (50) from this IP", reply);
}

TEST(FailedCalls, ARunWithoutFailuresAsksForNoReason) {
    std::atomic<int> explained{0};
    FailedCalls failures([&] {
        ++explained;
        return FailureReason();
    });
    EXPECT_EQ(0, failures.count());
    EXPECT_TRUE(failures.byReason().empty());
    EXPECT_TRUE(failures.firstCalls().empty());
    std::string none;
    EXPECT_FALSE(failures.turnedAway(none));
    EXPECT_EQ(0, explained.load());
}

TEST(FailedCalls, AReasonThatIsNotARefusalIsNoTurningAway) {
    FailedCalls failures([] {
        FailureReason why;
        why.text = "127.0.0.1:2121 did not answer in time: no reply in time";
        return why;
    });
    failures.add(2, "write", "/v/cam02/00001_120000.dat", 3.25);
    const auto reasons = failures.byReason();
    ASSERT_EQ(1u, reasons.size());
    EXPECT_EQ("write: 127.0.0.1:2121 did not answer in time: no reply in time", reasons[0].first);
    std::string reply;
    EXPECT_FALSE(failures.turnedAway(reply));
}

TEST(FailedCalls, KeepsABoundedNumberOfDistinctReasons) {
    int next = 0;
    FailedCalls failures([&] {
        FailureReason why;
        why.text = "reason " + std::to_string(++next);
        return why;
    });
    const int calls = static_cast<int>(FailedCalls::kMaxReasons) + 5;
    for (int i = 1; i <= calls; ++i) {
        failures.add(1, "open", "/v/x.dat", i);
    }
    const auto reasons = failures.byReason();
    EXPECT_EQ(FailedCalls::kMaxReasons + 1, reasons.size());
    EXPECT_EQ(calls, sum(reasons));
    EXPECT_EQ("other reasons", reasons[0].first);
    EXPECT_EQ(5, reasons[0].second);
}

TEST(FailedCalls, TheFirstTurningAwayIsTheOneKept) {
    int next = 0;
    FailedCalls failures([&] { return turnedAwayWith("421 busy " + std::to_string(++next)); });
    failures.add(1, "open", "/v/a.dat", 0.1);
    failures.add(2, "open", "/v/b.dat", 0.2);
    std::string reply;
    ASSERT_TRUE(failures.turnedAway(reply));
    EXPECT_EQ("421 busy 1", reply);
    EXPECT_EQ(2, failures.count());
}

}  // namespace
