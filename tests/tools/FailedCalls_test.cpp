// The record command's book of failed calls: camera threads note failures
// while a helper thread explains them with logins of its own, here a
// stand-in that answers at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "FailedCalls.h"

using namespace ftpdisk_tool;

namespace {

LoginProbe turnedAwayWith(const std::string& reply) {
    LoginProbe probe;
    probe.outcome = LoginProbe::kSessionRefused;
    probe.reply = reply;
    probe.text = "127.0.0.1:2121 refused the session: " + reply;
    return probe;
}

long long sum(const std::vector<std::pair<std::string, long long>>& reasons) {
    long long total = 0;
    for (const auto& reason : reasons) {
        total += reason.second;
    }
    return total;
}

TEST(FailedCalls, ExplainsEveryCallNotedFromManyThreadsAndKeepsTheFirstWhole) {
    std::atomic<int> logins{0};
    FailedCalls failures(
        [&] {
            ++logins;
            return turnedAwayWith("421 Too many connections (50) from this IP");
        },
        0.0);
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
    failures.finish();

    EXPECT_EQ(100, failures.count());
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
    LoginProbe refusal;
    ASSERT_TRUE(failures.turnedAway(refusal));
    EXPECT_EQ("421 Too many connections (50) from this IP", refusal.reply);
    // One login answers every call noted before it started.
    EXPECT_GE(logins.load(), 1);
    EXPECT_LE(logins.load(), 100);
}

TEST(FailedCalls, ARunWithoutFailuresNeverLogsIn) {
    std::atomic<int> logins{0};
    FailedCalls failures(
        [&] {
            ++logins;
            return LoginProbe();
        },
        0.0);
    failures.finish();
    EXPECT_EQ(0, failures.count());
    EXPECT_TRUE(failures.byReason().empty());
    EXPECT_TRUE(failures.firstCalls().empty());
    LoginProbe none;
    EXPECT_FALSE(failures.turnedAway(none));
    EXPECT_EQ(0, logins.load());
}

TEST(FailedCalls, ALoginThatGoesThroughGivesNoReasonAndNoRefusal) {
    FailedCalls failures(
        [] {
            LoginProbe probe;
            probe.outcome = LoginProbe::kLoggedIn;
            probe.text = "127.0.0.1:2121 took a login as rec just now";
            return probe;
        },
        0.0);
    failures.add(2, "write", "/v/cam02/00001_120000.dat", 3.25);
    failures.finish();
    const auto reasons = failures.byReason();
    ASSERT_EQ(1u, reasons.size());
    EXPECT_EQ("write: no reason given; 127.0.0.1:2121 took a login as rec just now",
              reasons[0].first);
    LoginProbe refusal;
    EXPECT_FALSE(failures.turnedAway(refusal));
}

TEST(FailedCalls, KeepsABoundedNumberOfDistinctReasons) {
    std::atomic<int> logins{0};
    FailedCalls failures(
        [&] {
            LoginProbe probe;
            probe.outcome = LoginProbe::kCannotConnect;
            probe.text = "reason " + std::to_string(++logins);
            return probe;
        },
        0.0);
    const int calls = static_cast<int>(FailedCalls::kMaxReasons) + 5;
    for (int i = 1; i <= calls; ++i) {
        failures.add(1, "open", "/v/x.dat", i);
        // Waits (bounded) until this call is explained, so that each gets a
        // login, and so a reason, of its own.
        for (int round = 0; round < 5000 && logins.load() < i; ++round) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_EQ(i, logins.load());
    }
    failures.finish();
    const auto reasons = failures.byReason();
    EXPECT_EQ(FailedCalls::kMaxReasons + 1, reasons.size());
    EXPECT_EQ(calls, sum(reasons));
    EXPECT_EQ("other reasons", reasons[0].first);
    EXPECT_EQ(5, reasons[0].second);
}

TEST(FailedCalls, LoginsStartNoSoonerThanTheSpacingApart) {
    std::vector<std::chrono::steady_clock::time_point> starts;
    std::mutex startsMutex;
    FailedCalls failures(
        [&] {
            std::lock_guard<std::mutex> lock(startsMutex);
            starts.push_back(std::chrono::steady_clock::now());
            return turnedAwayWith("421 busy");
        },
        0.2);
    failures.add(1, "open", "/v/a.dat", 0.1);
    for (int round = 0; round < 5000; ++round) {
        std::lock_guard<std::mutex> lock(startsMutex);
        if (!starts.empty()) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    failures.add(2, "open", "/v/b.dat", 0.2);
    failures.finish();
    std::lock_guard<std::mutex> lock(startsMutex);
    ASSERT_EQ(2u, starts.size());
    EXPECT_GE(starts[1] - starts[0], std::chrono::milliseconds(200));
    EXPECT_EQ(2, failures.count());
    for (const FailedCall& call : failures.firstCalls()) {
        EXPECT_EQ("127.0.0.1:2121 refused the session: 421 busy", call.why) << call.path;
    }
}

}  // namespace
