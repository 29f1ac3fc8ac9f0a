// A server that goes quiet in each phase of the recorder's road: the greeting,
// the login reply, the PASV reply, the 1xx reply of a transfer, the data
// connection itself, and the closing reply. Every call returns within the
// readiness waits it may spend (plus a margin), with its failure value; the
// bytes the server took stay on its side; after uninit and init the next
// segment, directory and listing succeed, and the process holds no more
// descriptors, threads or heap than before.
//
// The scripted server stands in for the server; the readiness wait is the
// real 3 s, since it is what these scenarios are about. Every scenario runs
// on a store in clear and on an ftps store; over TLS the server may also go
// quiet in the AUTH reply and in the handshakes of the control and the data
// connections.
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

class PhaseStalls : public faulttest::ScriptedRoadBothWays {};

INSTANTIATE_TEST_SUITE_P(Schemes, PhaseStalls,
                         ::testing::Values(faulttest::Scheme::kPlain, faulttest::Scheme::kFtps),
                         faulttest::schemeName);

Lines concat(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_P(PhaseStalls, ASilentGreetingFailsInitAndTheOpenThatNeedsANewConnection) {
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
    // The failed open gave handle 2 back; 1 is free again too.
    recoverAndRecord(1);
}

// A login reply that does not come within the readiness wait fails the login:
// the greeting is never judged again for USER, and no PASS is sent. init
// fails, and so does an open that needs a new connection; opens on pooled
// connections go on.
TEST_P(PhaseStalls, ASilentLoginReplyFailsInitAndTheOpenThatNeedsANewConnection) {
    server.queueReply("USER", silent());
    EXPECT_EQ(store->uninit(), 0);
    size_t mark = server.commands().size();
    double took = 0;
    // USER's wait, then the wait of the QUIT that the owed reply holds back.
    EXPECT_EQ(timed(&took, [&] { return store->init(); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(faulttest::tail(server.commands(), mark), concat(beforeLogin(), {"USER rec"}));
    EXPECT_EQ(store->createDir("/rec/x"), -1) << "not initialised: no traffic";
    EXPECT_EQ(faulttest::tail(server.commands(), mark), concat(beforeLogin(), {"USER rec"}));

    server.queueReply("USER", silent());
    const int first = store->open("/rec/cam1.ts", 2);  // the pooled connection
    EXPECT_EQ(first, 1);
    mark = server.commands().size();
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam2.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(faulttest::tail(server.commands(), mark), concat(beforeLogin(), {"USER rec"}));
    EXPECT_EQ(store->write(first, segmentBytes.data(), 1000), 1000);
    EXPECT_EQ(store->close(first), 0);
    recoverAndRecord(1);
}

TEST_P(PhaseStalls, ASilentPassiveReplyFailsTheOpenAndTheListingAndGivesTheHandleNumberBack) {
    server.queueReply("PASV", silent());
    double took = 0;
    // TYPE, then PASV waits once; the connection is dropped, its QUIT held
    // back by the reply PASV still owes (one more wait).
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));

    server.queueReply("PASV", silent());
    std::vector<std::string> names{"kept"};
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 0);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(names, Lines{"kept"});
    // The failed open gave handle 1 back.
    recoverAndRecord(1);
}

TEST_P(PhaseStalls, ASilentTransferReplyFailsTheOpenAndTheListing) {
    server.queueReply("STOR", silent());
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_FALSE(server.file("/rec/cam1.ts").has_value());

    server.queueReply("LIST", silent());
    std::vector<std::string> names;
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 0);
    EXPECT_LE(took, bound(1));
    recoverAndRecord(1);
}

TEST_P(PhaseStalls, AnUploadTheServerStopsReadingFailsAWriteAndKeepsEveryByteWritten) {
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

TEST_P(PhaseStalls, ADownloadTheServerStopsSendingFailsGetWithinItsWaits) {
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
// fails: taken as the end of the data, it would look like an empty directory.
TEST_P(PhaseStalls, AListingWhoseDataStallsFailsAndIsNeverTakenForAnEmptyDirectory) {
    Reply stalled("150 Here comes the listing");
    stalled.body = "-rw-r--r-- 1 rec rec 42 Jan 15 10:31 a.ts\r\n";
    stalled.dataStall = kUntilReleased;
    server.queueReply("LIST", stalled);
    double took = 0;
    // One read wait, then the closing reply's wait.
    EXPECT_FALSE(timed(&took, [&] { return store->isEmptyDir("/rec"); }));
    EXPECT_LE(took, bound(2));

    // The stalled server still owes the listing's closing reply: the next
    // path operation is held back rather than answered with it.
    const size_t mark = server.commands().size();
    std::vector<std::string> names;
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 0);
    EXPECT_LE(took, bound(1));
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(server.commands().size(), mark) << "a command went out while a reply was owed";
    server.releaseDataStalls();
    recoverAndRecord(1);
}

TEST_P(PhaseStalls, AClosingReplyThatNeverComesFailsCloseWhileTheServerKeepsEveryByte) {
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

// --- Over TLS only: the AUTH reply and the handshakes -----------------------------------

class TlsPhaseStalls : public faulttest::ScriptedRoadTest {
protected:
    faulttest::Scheme scheme() const override { return faulttest::Scheme::kFtps; }
};

// A server that never answers AUTH: init waits once for the reply, then
// once more for the QUIT the owed reply holds back; nothing else is sent.
TEST_F(TlsPhaseStalls, ASilentAuthReplyFailsInitAndSendsNoLogin) {
    server.queueReply("AUTH", silent());
    EXPECT_EQ(store->uninit(), 0);
    const size_t mark = server.commands().size();
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->init(); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(faulttest::tail(server.commands(), mark), (Lines{"AUTH TLS"}));
    recoverAndRecord(1);
}

// A server that answers AUTH and then never takes part in the handshake:
// the handshake fails within its readiness wait, and the connection is
// closed without a further byte.
TEST_F(TlsPhaseStalls, AServerQuietInTheControlHandshakeFailsInitAndTheOpen) {
    Reply quiet("234 Proceed with negotiation.");
    quiet.tlsStall = kUntilReleased;
    server.setReply("AUTH", quiet);
    EXPECT_EQ(store->uninit(), 0);
    size_t mark = server.commands().size();
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->init(); }), -1);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorTls);
    EXPECT_EQ(faulttest::tail(server.commands(), mark), (Lines{"AUTH TLS"}));

    // The pooled connection records; a new one fails the same way.
    const int first = store->open("/rec/cam1.ts", 2);
    EXPECT_EQ(first, 1);
    mark = server.commands().size();
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam2.ts", 2); }), -1);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(faulttest::tail(server.commands(), mark), (Lines{"AUTH TLS"}));
    EXPECT_EQ(store->write(first, segmentBytes.data(), 1000), 1000);
    EXPECT_EQ(store->close(first), 0);
    server.clearReply("AUTH");
    server.releaseDataStalls();
    recoverAndRecord(1);
}

// A server that sends the transfer's 1xx and then never takes part in the
// data connection's handshake: the open fails, and so does the listing.
TEST_F(TlsPhaseStalls, AServerQuietInTheDataHandshakeFailsTheOpenAndTheListing) {
    Reply quiet("150 Opening data connection");
    quiet.tlsStall = kUntilReleased;
    server.queueReply("STOR", quiet);
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(FTPFileSystem::getLastError().kind, FTPFileSystem::kErrorTls);
    EXPECT_FALSE(server.file("/rec/cam1.ts").has_value());

    Reply quietListing("150 Here comes the listing");
    quietListing.tlsStall = kUntilReleased;
    server.queueReply("LIST", quietListing);
    std::vector<std::string> names{"kept"};
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 0);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(names, Lines{"kept"});
    server.releaseDataStalls();
    recoverAndRecord(1);
}

}  // namespace
