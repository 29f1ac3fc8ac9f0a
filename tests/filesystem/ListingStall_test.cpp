// The listing watchdog: a "LIST" body that keeps trickling in is abandoned
// once the whole transfer has taken more than 60 seconds of the host's
// up-time, and the stall is written to the record error log.
//
// Time is the host library's hand-driven clock, moved only at known points of
// the transfer: after the store has consumed a given number of body bytes
// (seen on its end of the data connection, which lives in this process). The
// scripted server trickles the body in small pieces in real time, far more
// slowly than the test reacts, so the transfer is always still running when
// the clock moves.
#include <chrono>
#include <future>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "connections/TimeOutDetector.h"
#include "filesystem/ListingTestUtil.h"
#include "foundation/LastError.h"
#include "ftpdisk_host/HostControl.h"
#include "support/FdCount.h"
#include "support/StoreTestAccess.h"

using listingtest::crlf;
using Lines = std::vector<std::string>;

namespace {

const std::chrono::seconds kWaitLimit(10);

// Several hundred lines of a Linux daemon's listing, about 27 KB.
std::string longUnixListing() {
    std::string body;
    for (int i = 0; i < 400; ++i) {
        body += "-rw-r--r--    1 rec      rec      1048576 Jan 15 10:31 ch01_" +
                std::to_string(10000 + i) + ".mp4\r\n";
    }
    return body;
}

// The body in 40-byte pieces, one every 25 ms of real time: the whole body
// would take about 17 s, while the test moves the clock within milliseconds
// of each piece.
ftptest::Reply trickle(const std::string& body) {
    ftptest::Reply reply = listingtest::listingReply(body);
    reply.pieceBytes = 40;
    reply.pieceDelay = ftptest::Millis(25);
    return reply;
}

class ListingStall : public ::testing::Test {
protected:
    void SetUp() override {
        if (!listingtest::tcpInfoReportsBytes()) {
            GTEST_SKIP() << "this system does not report TCP byte counts (TCP_INFO), which "
                            "these tests need to see how much of a listing the store has read; "
                            "they run on every native build";
        }
        hostcontrol::setLogRoot(logs.path());
        hostcontrol::useManualClock(1.7e9, 5000.0);
        ASSERT_TRUE(fixture.init()) << "login to the scripted server failed";
        // One listing first: the descriptor count after it is the baseline
        // that later listings must come back to.
        fixture.server().setListing(crlf({"-rw-r--r-- 1 rec rec 1 Jan 15 10:31 warm.dat"}));
        std::vector<std::string> names;
        ASSERT_TRUE(store().getFileList("/warm", names, ""));
        mark = fixture.commandsSinceLogin().size();
        baselineDescriptors = ftptest::waitForDescriptorCount(ftptest::openDescriptorCount());
    }

    void TearDown() override {
        hostcontrol::useSystemClock();
        hostcontrol::setLogRoot("");
    }

    FTPFileSystemImpl& store() { return fixture.store(); }
    ftptest::ScriptedFtpServer& server() { return fixture.server(); }

    // Commands after the warm-up listing.
    Lines commands() const {
        const Lines all = fixture.commandsSinceLogin();
        return Lines(all.begin() + static_cast<long>(mark), all.end());
    }

    std::string recordErrorLog() const { return hostcontrol::resolveLogPath(kRecordErrorLog); }

    listingtest::TempDir logs;
    listingtest::ScriptedStore fixture;
    size_t mark = 0;
    int baselineDescriptors = -1;
};

// "<local time> [<where>] <message>", as the host logger writes a line.
const std::regex kStallLine(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \[FTPFileSystemImpl::recvData\] )"
                            R"(Detect TimeOut\[61\], TototalDataLen\[0\], WritedLen\[0\])");

TEST_F(ListingStall, AListingTricklingPastSixtySecondsFailsClosesItsDataConnectionAndLogsOneLine) {
    server().queueReply("LIST", trickle(longUnixListing()));
    std::vector<std::string> names{"kept"};
    const std::set<ino_t> before = listingtest::openSockets();

    std::string reason;
    auto listing = std::async(std::launch::async, [&] {
        const bool listed = store().getFileList("/rec", names, "");
        // The thread's last error: the stall, not what closing the data
        // connection met afterwards.
        reason = std::to_string(lasterror::kind()) + " " + lasterror::text();
        return listed;
    });
    ASSERT_TRUE(listingtest::waitUntilConsumed(before, 40, kWaitLimit))
        << "the store never read the first piece";
    hostcontrol::advanceClock(61.0);
    ASSERT_EQ(listing.wait_for(kWaitLimit), std::future_status::ready)
        << "the listing did not give up after the clock passed 60 s";

    EXPECT_FALSE(listing.get());
    EXPECT_EQ(reason, std::to_string(lasterror::kNoReply) + " listing not ended within 60 s");
    EXPECT_EQ(names, Lines{"kept"});
    EXPECT_EQ(commands(), (Lines{"CWD /", "CWD /rec", "TYPE I", "PASV", "LIST /rec"}));
    const Lines log = listingtest::readLines(recordErrorLog());
    ASSERT_EQ(log.size(), 1u) << ::testing::PrintToString(log);
    EXPECT_TRUE(std::regex_match(log[0], kStallLine)) << log[0];

    // The abandoned transfer's final reply was consumed and its data socket
    // closed: the next listing runs cleanly on the same connection, and
    // afterwards the process holds no more descriptors than before.
    server().setListing(crlf({"-rw-r--r-- 1 rec rec 7 Jan 15 10:31 after.dat"}));
    names.clear();
    EXPECT_TRUE(store().getFileList("/rec", names, ""));
    EXPECT_EQ(names, Lines{"after.dat"});
    EXPECT_EQ(ftptest::waitForDescriptorCount(baselineDescriptors), baselineDescriptors);
    EXPECT_EQ(listingtest::readLines(recordErrorLog()).size(), 1u);
}

TEST_F(ListingStall, TheSixtySecondsBoundTheWholeListingNotTheGapsBetweenReads) {
    server().queueReply("LIST", trickle(longUnixListing()));
    listingtest::Entries entries;
    long long total = 0;
    const std::set<ino_t> before = listingtest::openSockets();

    auto listing = std::async(std::launch::async, [&] {
        return StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total);
    });
    // Three gaps of 30, 30 and 1 seconds: none is long, together they pass
    // the limit. At exactly 60 seconds the listing is still running.
    ASSERT_TRUE(listingtest::waitUntilConsumed(before, 40, kWaitLimit));
    hostcontrol::advanceClock(30.0);
    ASSERT_TRUE(listingtest::waitUntilConsumed(before, 80, kWaitLimit));
    hostcontrol::advanceClock(30.0);
    ASSERT_TRUE(listingtest::waitUntilConsumed(before, 120, kWaitLimit))
        << "the listing stopped at exactly 60 seconds";
    EXPECT_NE(listing.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    hostcontrol::advanceClock(1.0);
    ASSERT_EQ(listing.wait_for(kWaitLimit), std::future_status::ready);

    EXPECT_FALSE(listing.get());
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(total, 0);
    const Lines log = listingtest::readLines(recordErrorLog());
    ASSERT_EQ(log.size(), 1u) << ::testing::PrintToString(log);
    EXPECT_TRUE(std::regex_match(log[0], kStallLine)) << log[0];
}

TEST_F(ListingStall, AnEndOfDataSeenAfterTheLimitStillCountsAsAStall) {
    // The whole body arrives at once; the server then keeps the data
    // connection open, so the store's next read comes back empty-handed (after
    // its readiness wait) only once the clock has passed 60 seconds. The limit
    // is asked first: the listing fails and is logged although nothing more
    // was coming.
    ftptest::Reply reply("150 Here comes the listing");
    reply.body = crlf({"-rw-r--r-- 1 rec rec 5 Jan 15 10:31 late.dat"});
    reply.finalAfterClientClose = true;
    server().queueReply("LIST", reply);
    listingtest::Entries entries;
    long long total = 3;
    const std::set<ino_t> before = listingtest::openSockets();

    auto listing = std::async(std::launch::async, [&] {
        return StoreTestAccess::getFileDescriptorList(store(), "/rec", entries, total);
    });
    ASSERT_TRUE(listingtest::waitUntilConsumed(before, reply.body->size(), kWaitLimit));
    hostcontrol::advanceClock(61.0);
    ASSERT_EQ(listing.wait_for(kWaitLimit), std::future_status::ready);

    EXPECT_FALSE(listing.get());
    EXPECT_TRUE(entries.empty()) << ::testing::PrintToString(listingtest::describe(entries));
    EXPECT_EQ(total, 3);
    const Lines log = listingtest::readLines(recordErrorLog());
    ASSERT_EQ(log.size(), 1u) << ::testing::PrintToString(log);
    EXPECT_TRUE(std::regex_match(log[0], kStallLine)) << log[0];
}

TEST_F(ListingStall, TheLimitStartsOnceTheDataConnectionIsOpen) {
    // The clock passes 75 seconds while the store still waits for the answers
    // to "TYPE", "PASV" and "LIST": that time is not part of the transfer,
    // which then ends at once and succeeds. (Each wait stays below the 30 s
    // that one reply may take.)
    for (const char* verb : {"TYPE", "PASV"}) {
        ftptest::Reply slow;
        slow.delay = ftptest::Millis(300);
        server().queueReply(verb, slow);
    }
    ftptest::Reply reply("150 Here comes the listing");
    reply.delay = ftptest::Millis(300);
    reply.body = crlf({"-rw-r--r-- 1 rec rec 5 Jan 15 10:31 prompt.dat"});
    server().queueReply("LIST", reply);
    std::vector<std::string> names;

    auto listing =
        std::async(std::launch::async, [&] { return store().getFileList("/rec", names, ""); });
    for (size_t sent = 3; sent <= 5; ++sent) {
        ASSERT_TRUE(server().waitForCommands(2 + mark + sent, kWaitLimit));
        hostcontrol::advanceClock(25.0);
    }
    ASSERT_EQ(listing.wait_for(kWaitLimit), std::future_status::ready);

    EXPECT_TRUE(listing.get());
    EXPECT_EQ(names, Lines{"prompt.dat"});
    EXPECT_EQ(commands(), (Lines{"CWD /", "CWD /rec", "TYPE I", "PASV", "LIST /rec"}));
    EXPECT_TRUE(listingtest::readLines(recordErrorLog()).empty());
}

TEST_F(ListingStall, ASlowListingThatEndsWithinSixtySecondsSucceedsAndLogsNothing) {
    std::string body;
    for (int i = 0; i < 30; ++i) {
        body += "-rw-r--r-- 1 rec rec " + std::to_string(100 + i) + " Jan 15 10:31 s" +
                std::to_string(i) + ".ts\r\n";
    }
    server().queueReply("LIST", trickle(body));
    std::vector<std::string> names;
    const std::set<ino_t> before = listingtest::openSockets();

    auto listing =
        std::async(std::launch::async, [&] { return store().getFileList("/rec", names, ""); });
    ASSERT_TRUE(listingtest::waitUntilConsumed(before, 40, kWaitLimit));
    hostcontrol::advanceClock(60.0);
    ASSERT_EQ(listing.wait_for(kWaitLimit), std::future_status::ready);

    EXPECT_TRUE(listing.get());
    ASSERT_EQ(names.size(), 30u);
    EXPECT_EQ(names.front(), "s0.ts");
    EXPECT_EQ(names.back(), "s29.ts");
    EXPECT_TRUE(listingtest::readLines(recordErrorLog()).empty());
}

}  // namespace
