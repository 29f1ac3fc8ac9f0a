// Enumeration from several threads at once: a scan holds the scan lock for
// its whole walk but not the operation lock while it calls the visitor, so
// other path operations go on while two scans never interleave. Also run
// under ThreadSanitizer.
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/ListingTestUtil.h"

using listingtest::crlf;
using listingtest::serveListing;
using Lines = std::vector<std::string>;

namespace {

const std::chrono::seconds kWaitLimit(10);

// Visits shared by every action of a test, in the order they happened.
class VisitLog {
public:
    void add(const std::string& visit) {
        std::lock_guard<std::mutex> lock(mutex_);
        visits_.push_back(visit);
    }
    Lines visits() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return visits_;
    }

private:
    mutable std::mutex mutex_;
    Lines visits_;
};

// Logs every file; on the first one it reports that it is inside the walk
// and then waits (bounded) until the test lets it go on.
class HoldingAction : public IFileScanAction {
public:
    HoldingAction(VisitLog& log, std::shared_future<void> release)
        : log_(log), release_(std::move(release)) {}
    int onFile(const char* fileName) override {
        log_.add(fileName);
        if (first_) {
            first_ = false;
            entered_.set_value();
            held_ = release_.wait_for(kWaitLimit) == std::future_status::ready;
        }
        return 0;
    }
    std::future<void> entered() { return entered_.get_future(); }
    bool held() const { return held_; }

private:
    VisitLog& log_;
    std::shared_future<void> release_;
    std::promise<void> entered_;
    bool first_ = true;
    bool held_ = false;
};

class LoggingAction : public IFileScanAction {
public:
    explicit LoggingAction(VisitLog& log) : log_(log) {}
    int onFile(const char* fileName) override {
        log_.add(fileName);
        return 0;
    }

private:
    VisitLog& log_;
};

TEST(EnumerationConcurrency, ASecondScanWaitsForTheFirstWhileOtherOperationsGoOn) {
    listingtest::ScriptedStore fixture;
    ASSERT_TRUE(fixture.init());
    ftptest::ScriptedFtpServer& server = fixture.server();
    FTPFileSystemImpl& store = fixture.store();
    serveListing(
        server, "/a",
        crlf({"-rw-r--r-- 1 rec rec 1 Jan 15 10:31 a1", "-rw-r--r-- 1 rec rec 2 Jan 15 10:31 a2"}));
    serveListing(server, "/b", crlf({"-rw-r--r-- 1 rec rec 3 Jan 15 10:31 b1"}));
    serveListing(server, "/other", crlf({"-rw-r--r-- 1 rec rec 4 Jan 15 10:31 o1"}));
    VisitLog log;
    std::promise<void> release;
    HoldingAction holding(log, release.get_future().share());
    LoggingAction logging(log);
    std::future<void> entered = holding.entered();

    auto first = std::async(std::launch::async, [&] { return store.scan("/a", &holding, ""); });
    ASSERT_EQ(entered.wait_for(kWaitLimit), std::future_status::ready);

    // The first scan is inside its visitor: the operation lock is free.
    Lines names;
    EXPECT_TRUE(store.getFileList("/other", names, ""));
    EXPECT_EQ(names, Lines{"o1"});
    const size_t before = fixture.commandsSinceLogin().size();

    // The second scan waits on the scan lock: its listing does not start.
    auto second = std::async(std::launch::async, [&] { return store.scan("/b", &logging, ""); });
    EXPECT_FALSE(server.waitForCommands(2 + before + 1, ftptest::Millis(300)))
        << ::testing::PrintToString(fixture.commandsSinceLogin());

    release.set_value();
    ASSERT_EQ(first.wait_for(kWaitLimit), std::future_status::ready);
    ASSERT_EQ(second.wait_for(kWaitLimit), std::future_status::ready);
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
    EXPECT_TRUE(holding.held());
    EXPECT_EQ(log.visits(), (Lines{"a1", "a2", "b1"}));
    const Lines commands = fixture.commandsSinceLogin();
    ASSERT_EQ(commands.size(), 15u) << ::testing::PrintToString(commands);
    EXPECT_EQ(commands[4], "LIST /a");
    EXPECT_EQ(commands[9], "LIST /other");
    EXPECT_EQ(commands[14], "LIST /b");
}

TEST(EnumerationConcurrency, ThreadsMixingEveryListingOperationEachGetTheirOwnAnswers) {
    listingtest::ScriptedStore fixture;
    ASSERT_TRUE(fixture.init());
    ftptest::ScriptedFtpServer& server = fixture.server();
    FTPFileSystemImpl& store = fixture.store();
    serveListing(
        server, "/t",
        crlf({"drwxr-xr-x 2 rec rec 10 Jan 15 10:30 d", "-rw-r--r-- 1 rec rec 20 Jan 15 10:31 f"}));
    serveListing(server, "/t/d", crlf({"-rw-r--r-- 1 rec rec 30 Jan 15 10:31 g"}));

    const int kThreads = 4;
    const int kRounds = 4;
    std::vector<std::future<int> > workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.push_back(std::async(std::launch::async, [&store, t] {
            int failures = 0;
            for (int round = 0; round < kRounds; ++round) {
                switch ((t + round) % 4) {
                    case 0: {
                        Lines names;
                        if (!store.getFileList("/t", names, "") || names != Lines{"f"}) ++failures;
                        break;
                    }
                    case 1: {
                        Lines names;
                        if (!store.getSubDirList("/t", names, "") || names != Lines{"d"}) {
                            ++failures;
                        }
                        break;
                    }
                    case 2: {
                        long long size = 0;
                        if (!store.getTotalSize("/t", size) || size != 60) ++failures;
                        break;
                    }
                    default: {
                        VisitLog log;
                        LoggingAction action(log);
                        if (!store.scan("/t/d", &action, "") || log.visits() != Lines{"g"}) {
                            ++failures;
                        }
                        break;
                    }
                }
            }
            return failures;
        }));
    }
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(workers[t].wait_for(std::chrono::seconds(60)), std::future_status::ready);
        EXPECT_EQ(workers[t].get(), 0) << "thread " << t;
    }
}

}  // namespace
