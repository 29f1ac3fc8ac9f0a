// A server that goes quiet in each phase of the recorder's road: the greeting,
// the login reply, the PASV reply, the 1xx reply of a transfer, the data
// connection itself, and the closing reply. Every call returns within the
// readiness waits it may spend (plus a margin), with its failure value; the
// bytes the server took stay on its side; after uninit and init the next
// segment, directory and listing succeed, and the process holds no more
// descriptors, threads or heap than before.
//
// The scripted server stands in for the server; the readiness wait is the
// real 3 s, since it is what these scenarios are about.
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FaultTestUtil.h"
#include "ScriptedRoad.h"
#include "filesystem/FTPFileSystem.h"
#include "support/ScriptedFtpServer.h"

namespace {

using faulttest::bound;
using faulttest::noGrowth;
using faulttest::patternBytes;
using faulttest::recordSegment;
using faulttest::Segment;
using faulttest::timed;
using ftptest::Millis;
using ftptest::Reply;
using Lines = std::vector<std::string>;

// A stall that lasts until the test releases it (or the server stops).
const Millis kUntilReleased(600000);

Reply silent() {
    Reply r;
    r.silent = true;
    return r;
}

using PhaseStalls = faulttest::ScriptedRoadTest;

TEST_F(PhaseStalls, ASilentGreetingFailsInitAndTheOpenThatNeedsANewConnection) {
    server.setGreeting(silent());
    EXPECT_EQ(store->uninit(), 0);
    double took = 0;
    // init waits once for the greeting; the connection is left for the next
    // init to release.
    EXPECT_EQ(timed(&took, [&] { return store->init(); }), -1);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(store->createDir("/rec/x"), -1) << "not initialised: no traffic";

    // The first camera takes the pooled connection and records; the second
    // needs a new connection and waits out the greeting, then its QUIT.
    const int first = store->open("/rec/cam1.ts", 2);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam2.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(store->write(first, segmentBytes.data(), 1000), 1000);
    EXPECT_EQ(store->close(first), 0);
    EXPECT_EQ(server.file("/rec/cam1.ts"),
              std::optional<std::string>(segmentBytes.substr(0, 1000)));

    server.setGreeting(Reply("220 ready"));
    // Handle 2 went with the failed open: the next segment gets 3.
    recoverAndRecord(1);
}

// A login reply that does not come within the readiness wait leaves the
// greeting as the last reply, and a 2xx answer to USER is a login without
// password: so init succeeds without PASS, and so does a new connection's
// open. Both failures are deliberate and meet here; a real server then
// refuses the next command with 530, which the recorder sees as a failed
// operation.
TEST_F(PhaseStalls, ASilentLoginReplyCountsAsALoginWithoutPassword) {
    server.queueReply("USER", silent());
    EXPECT_EQ(store->uninit(), 0);
    size_t mark = server.commands().size();
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->init(); }), 0);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(faulttest::tail(server.commands(), mark), (Lines{"USER rec"}));
    server.setReply("CWD", "530 Please login with USER and PASS.");
    server.setReply("MKD", "530 Please login with USER and PASS.");
    EXPECT_EQ(store->createDir("/rec/x"), -1);
    server.clearReply("CWD");
    server.clearReply("MKD");

    server.queueReply("USER", silent());
    // The second camera's transfer is refused at its end, so its connection
    // is quit rather than pooled.
    Reply refusedAtEnd("150 Opening data connection");
    refusedAtEnd.finalText = "426 Connection closed; transfer aborted.";
    server.queueReply("STOR /rec/cam2.ts", refusedAtEnd);
    const int first = store->open("/rec/cam1.ts", 2);  // the pooled connection
    EXPECT_EQ(first, 1);
    mark = server.commands().size();
    const int second = timed(&took, [&] { return store->open("/rec/cam2.ts", 2); });
    EXPECT_EQ(second, 2);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(faulttest::tail(server.commands(), mark),
              (Lines{"USER rec", "TYPE I", "PASV", "STOR /rec/cam2.ts"}));
    EXPECT_EQ(store->close(first), 0);
    EXPECT_EQ(store->close(second), -1);
    recoverAndRecord(1);
}

TEST_F(PhaseStalls, ASilentPassiveReplyFailsTheOpenAndTheListingAndCostsOneHandleNumber) {
    server.queueReply("PASV", silent());
    double took = 0;
    // TYPE, then PASV waits once; the connection is dropped with QUIT.
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));

    server.queueReply("PASV", silent());
    std::vector<std::string> names{"kept"};
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 0);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(names, Lines{"kept"});
    // Handle 1 stays reserved by the failed open: the next segment gets 2.
    recoverAndRecord(2);
}

TEST_F(PhaseStalls, ASilentTransferReplyFailsTheOpenAndTheListing) {
    server.queueReply("STOR", silent());
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_FALSE(server.file("/rec/cam1.ts").has_value());

    server.queueReply("LIST", silent());
    std::vector<std::string> names;
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 0);
    EXPECT_LE(took, bound(1));
    recoverAndRecord(2);
}

TEST_F(PhaseStalls, AnUploadTheServerStopsReadingFailsAWriteAndKeepsEveryByteWritten) {
    Reply stalled("150 Opening data connection");
    stalled.dataStall = kUntilReleased;
    server.queueReply("STOR", stalled);
    const int handle = store->open("/rec/cam1.ts", 2);
    ASSERT_EQ(handle, 1);
    {
        // Pieces of 8 KiB until the socket buffers are full and a write finds no
        // room within the readiness wait. A write may also block in send for the
        // data socket's limit; nothing longer.
        const std::string piece = patternBytes(8192, 9);
        std::string written;
        int last = 0;
        double longest = 0;
        for (int i = 0; i < 100000; ++i) {
            double took = 0;
            last = timed(&took, [&] { return store->write(handle, piece.data(), 8192); });
            longest = std::max(longest, took);
            if (last <= 0) break;
            written.append(piece, 0, static_cast<size_t>(last));
        }
        EXPECT_EQ(last, -1);
        EXPECT_LE(longest, bound(1, 1));
        EXPECT_GT(written.size(), 0u);

        // close waits for the closing reply once, then for the answer to QUIT,
        // which the stalled server gives neither.
        double took = 0;
        EXPECT_EQ(timed(&took, [&] { return store->close(handle); }), -1);
        EXPECT_LE(took, bound(2));

        server.releaseDataStalls();
        ASSERT_TRUE(faulttest::waitUntil([&] { return server.file("/rec/cam1.ts").has_value(); }))
            << "the server never finished the upload";
        const std::string kept = *server.file("/rec/cam1.ts");
        EXPECT_EQ(kept.size(), written.size());
        EXPECT_TRUE(kept == written) << "the server's file differs from what write accepted";
    }  // the test's copies go before the heap is compared
    recoverAndRecord(1);
}

TEST_F(PhaseStalls, ADownloadTheServerStopsSendingFailsGetWithinItsWaits) {
    server.putFile("/rec/old.ts", patternBytes(200000, 3));
    Reply stalled("150 Opening data connection");
    stalled.dataStall = kUntilReleased;
    server.queueReply("RETR", stalled);
    const std::string local = ::testing::TempDir() + "/faults-get.ts";
    double took = 0;
    // One read wait, the closing reply's wait, the QUIT reply's wait.
    EXPECT_EQ(timed(&took, [&] { return store->Get(local.c_str(), "/rec/old.ts"); }), -1);
    EXPECT_LE(took, bound(3));
    server.releaseDataStalls();
    std::remove(local.c_str());
    recoverAndRecord(1);
}

// A listing whose data connection goes quiet for more than the readiness wait
// ends as if it were complete: the design takes a failed read like the end
// of the data. The recorder sees success with what arrived, here nothing.
TEST_F(PhaseStalls, AListingWhoseDataStallsEndsAsCompleteWithWhatArrived) {
    Reply stalled("150 Here comes the listing");
    stalled.body = "-rw-r--r-- 1 rec rec 42 Jan 15 10:31 a.ts\r\n";
    stalled.dataStall = kUntilReleased;
    server.queueReply("LIST", stalled);
    std::vector<std::string> names;
    double took = 0;
    // One read wait, then the closing reply's wait (its outcome is ignored).
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 1);
    EXPECT_LE(took, bound(2));
    EXPECT_TRUE(names.empty());
    server.releaseDataStalls();
    recoverAndRecord(1);
}

TEST_F(PhaseStalls, AClosingReplyThatNeverComesFailsCloseWhileTheServerKeepsEveryByte) {
    Reply noFinal("150 Opening data connection");
    noFinal.noFinal = true;
    server.queueReply("STOR", noFinal);
    const Segment s = recordSegment(*store, "/rec/cam1.ts", segmentBytes);
    EXPECT_EQ(s.handle, 1);
    EXPECT_EQ(s.written, segmentBytes.size());
    EXPECT_EQ(s.failedWrite, 0);
    EXPECT_EQ(s.closeResult, -1);
    // The closing reply's wait; QUIT is answered.
    EXPECT_LE(s.closeSeconds, bound(1));
    ASSERT_TRUE(faulttest::waitUntil([&] { return server.file("/rec/cam1.ts").has_value(); }));
    EXPECT_TRUE(*server.file("/rec/cam1.ts") == segmentBytes);

    // The snapshot stream on the main connection likewise.
    server.queueReply("STOR", noFinal);
    ASSERT_EQ(store->snapshot_open("/rec/snap.jpg", 0), 0);
    EXPECT_EQ(store->snapshot_write(segmentBytes.data(), 5000), 5000);
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->snapshot_close(); }), -1);
    EXPECT_LE(took, bound(1));
    ASSERT_TRUE(faulttest::waitUntil([&] { return server.file("/rec/snap.jpg").has_value(); }));
    EXPECT_TRUE(*server.file("/rec/snap.jpg") == segmentBytes.substr(0, 5000));
    // The connection went to QUIT, not back to the pool: the next segment
    // connects anew and gets handle 1 again.
    recoverAndRecord(1);
}

}  // namespace
