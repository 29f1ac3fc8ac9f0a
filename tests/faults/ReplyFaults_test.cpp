// Replies that come late, never end, refuse for lack of space, or send the
// data connection somewhere else.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FaultTestUtil.h"
#include "ScriptedRoad.h"
#include "ftp/FTPTool.h"
#include "ftpdisk_host/HostControl.h"

namespace {

using faulttest::bound;
using faulttest::patternBytes;
using faulttest::recordSegment;
using faulttest::Segment;
using faulttest::tail;
using faulttest::timed;
using ftptest::Millis;
using ftptest::Reply;
using Lines = std::vector<std::string>;

using LateReplies = faulttest::ScriptedRoadTest;
using FullDisk = faulttest::ScriptedRoadTest;
using PassiveAddresses = faulttest::ScriptedRoadTest;

// --- A reply after the readiness wait: one reply behind ----------------------------

// The design judges the previous reply when a new one does not start within
// the readiness wait, and reads the late one as the answer to the next
// command. On the main connection that shifts every later path operation by
// one reply until the recorder runs uninit and init.
TEST_F(LateReplies, APathOperationAfterALateReplyAnswersOneReplyBehindUntilUninitAndInit) {
    Reply late("550 No such directory");
    late.delay = Millis(4500);
    server.queueReply("CWD /a/", late);
    server.setReply("CWD /a/b", "550 No such directory");
    const size_t mark = server.commands().size();

    // "CWD /a/" is answered after 4 s: its wait judges the "250" of "CWD /",
    // so /a/ "exists"; the late 550 then answers the next "CWD /", and the
    // 250 of that one answers "CWD /a/b". createDir reports success and no
    // MKD was ever sent.
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->createDir("/a/b"); }), 0);
    EXPECT_LE(took, bound(1));
    // The call returned on a reply already received: the server may still be
    // reading its last line.
    EXPECT_TRUE(server.waitForCommands(mark + 4));
    EXPECT_EQ(tail(server.commands(), mark), (Lines{"CWD /", "CWD /a/", "CWD /", "CWD /a/b"}));

    // One reply behind: the 550 of "CWD /a/b" answers "CWD /a", which the
    // server itself accepted.
    EXPECT_FALSE(store->isDirExist("/a"));
    // The listing's "PASV" meets the reply to "TYPE I", which has no address.
    std::vector<std::string> names;
    EXPECT_EQ(store->getFileList("/rec", names, ""), 0);
    EXPECT_TRUE(server.waitForCommands(mark + 9));
    EXPECT_EQ(tail(server.commands(), mark),
              (Lines{"CWD /", "CWD /a/", "CWD /", "CWD /a/b", "CWD /a", "CWD /", "CWD /rec",
                     "TYPE I", "PASV"}));

    // Handle operations have connections of their own and are not shifted.
    const Segment s = recordSegment(*store, "/rec/cam1.ts", segmentBytes);
    EXPECT_EQ(s.closeResult, 0) << faulttest::describe(s);

    // uninit's QUIT takes whatever reply is next; init starts in step. Now
    // the directories are really made.
    server.setReply("CWD /a/", "550 No such directory");
    recoverAndRecord(1);
    const size_t again = server.commands().size();
    EXPECT_EQ(store->createDir("/a/b"), 0);
    EXPECT_EQ(tail(server.commands(), again),
              (Lines{"CWD /", "CWD /a/", "MKD /a/", "CWD /", "CWD /a/b", "MKD /a/b"}));
}

// On an open file's own connection a late reply fails the open, and the
// connection is dropped: the next open starts in step.
TEST_F(LateReplies, ALateTransferReplyFailsTheOpenAndTheConnectionIsNotReused) {
    Reply late("150 Opening data connection");
    late.delay = Millis(4000);
    server.queueReply("STOR /rec/cam1.ts", late);
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    // The 1xx wait, then QUIT's (which reads the late 150 and fails).
    EXPECT_LE(took, bound(2));
    recoverAndRecord(2);
}

// --- A full disk -------------------------------------------------------------------

TEST_F(FullDisk, AStoreRefusedFor452Or552FailsTheOpenAndTheSnapshot) {
    server.queueReply("STOR /rec/cam1.ts", "452 Insufficient storage space");
    server.queueReply("STOR /rec/cam2.ts", "552 Exceeded storage allocation");
    EXPECT_EQ(store->open("/rec/cam1.ts", 2), -1);
    EXPECT_EQ(store->open("/rec/cam2.ts", 2), -1);
    server.queueReply("STOR /rec/snap.jpg", "452 Insufficient storage space");
    EXPECT_EQ(store->snapshot_open("/rec/snap.jpg", 0), -1);
    EXPECT_FALSE(server.file("/rec/cam1.ts").has_value());
    // Each refused open kept its handle number: 1 and 2 are gone.
    recoverAndRecord(3);
}

TEST_F(FullDisk, AClosingReplyOf451Or552FailsCloseAndLeavesWhatTheServerKept) {
    Reply full451("150 Opening data connection");
    full451.finalText = "451 Requested action aborted: local error in processing";
    Reply full552("150 Opening data connection");
    full552.finalText = "552 Exceeded storage allocation";
    server.queueReply("STOR /rec/cam1.ts", full451);
    server.queueReply("STOR /rec/cam2.ts", full552);
    const Segment one = recordSegment(*store, "/rec/cam1.ts", segmentBytes);
    const Segment two = recordSegment(*store, "/rec/cam2.ts", segmentBytes);
    for (const Segment& s : {one, two}) {
        EXPECT_EQ(s.handle, 1);  // close frees the number whatever the reply says
        EXPECT_EQ(s.written, segmentBytes.size());
        EXPECT_EQ(s.closeResult, -1) << faulttest::describe(s);
        EXPECT_LE(s.closeSeconds, bound(1));
    }
    EXPECT_EQ(server.file("/rec/cam1.ts"), std::optional<std::string>(segmentBytes));

    server.queueReply("STOR /rec/snap.jpg", full552);
    ASSERT_EQ(store->snapshot_open("/rec/snap.jpg", 0), 0);
    EXPECT_EQ(store->snapshot_write(segmentBytes.data(), 3000), 3000);
    EXPECT_EQ(store->snapshot_close(), -1);
    // Both connections were quit, not pooled.
    recoverAndRecord(1);
}

// --- Passive replies that send the data connection elsewhere ---------------------

// A listening socket of the test on 127.0.0.1 that is not the server's.
class Stranger {
public:
    explicit Stranger(int backlog) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t n = sizeof a;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(fd_, backlog) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n) != 0) {
            close();
            return;
        }
        port_ = ntohs(a.sin_port);
    }
    ~Stranger() { close(); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    uint16_t port() const { return port_; }
    // "227 Entering Passive Mode (127,0,0,1,p1,p2)" naming this socket.
    std::string passiveReply() const {
        return "227 Entering Passive Mode (127,0,0,1," + std::to_string(port_ / 256) + "," +
               std::to_string(port_ % 256) + ")";
    }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

TEST_F(PassiveAddresses, PortZeroAndAClosedPortFailTheOpenAtOnce) {
    uint16_t closedPort = 0;
    {
        Stranger gone(1);
        closedPort = gone.port();
    }
    server.queueReply("PASV", "227 Entering Passive Mode (127,0,0,1,0,0)");
    server.queueReply("PASV", "227 Entering Passive Mode (127,0,0,1," +
                                  std::to_string(closedPort / 256) + "," +
                                  std::to_string(closedPort % 256) + ")");
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam2.ts", 2); }), -1);
    EXPECT_LE(took, bound(1));
    // No transfer command went out for either.
    for (const std::string& line : server.commands()) EXPECT_NE(line, "STOR /rec/cam1.ts");
    recoverAndRecord(3);
}

// A server announcing an address that is not its own (behind a translating
// router, say) while it answers the transfer: the bytes go to whoever
// listens there, the writes succeed, and only the closing reply tells.
TEST_F(PassiveAddresses, AnotherAddressTakesTheBytesAndOnlyTheClosingReplyFails) {
    Stranger other(8);
    server.queueReply("PASV", other.passiveReply());
    Reply noData("150 Opening data connection");
    noData.noDataConnection = true;
    noData.finalText = "425 Can't open data connection.";
    server.queueReply("STOR /rec/cam1.ts", noData);
    const Segment s = recordSegment(*store, "/rec/cam1.ts", segmentBytes.substr(0, 20000));
    EXPECT_EQ(s.handle, 1);
    EXPECT_EQ(s.written, 20000u);
    EXPECT_EQ(s.closeResult, -1) << faulttest::describe(s);
    EXPECT_FALSE(server.file("/rec/cam1.ts").has_value());
    other.close();
    recoverAndRecord(1);
}

// Connects have no time limit: an address that never answers (here a socket
// whose accept queue is full, so its SYNs are dropped) holds the camera that
// opens, and nobody else: other cameras record and path operations run.
TEST_F(PassiveAddresses, AnAddressThatNeverAnswersHoldsOnlyTheOpeningCamera) {
    Stranger deaf(0);
    // Fill its one-place accept queue.
    const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(deaf.port());
    ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);

    server.queueReply("PASV", deaf.passiveReply());
    const size_t mark = server.commands().size();
    auto held = std::async(std::launch::async, [&] { return store->open("/rec/cam1.ts", 2); });
    ASSERT_TRUE(server.waitForCommands(mark + 2)) << "TYPE and PASV never came";

    // Meanwhile: another camera's whole segment, a directory and a listing.
    const Segment other = recordSegment(*store, "/rec/cam2.ts", segmentBytes);
    EXPECT_EQ(other.closeResult, 0) << faulttest::describe(other);
    EXPECT_EQ(server.file("/rec/cam2.ts"), std::optional<std::string>(segmentBytes));
    EXPECT_EQ(store->createDir("/rec/meanwhile"), 0);
    std::vector<std::string> names;
    EXPECT_EQ(store->getFileList("/rec", names, ""), 1);
    EXPECT_EQ(held.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "the open did not wait for its connect";

    // The address goes away: the next SYN is refused and the open fails.
    deaf.close();
    ASSERT_EQ(held.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(held.get(), -1);
    ::close(filler);
    // Handle 1 went with the held open; cam2 had 2 and freed it.
    recoverAndRecord(2);
}

// --- Replies that never end --------------------------------------------------------

// Runs `call` on another thread and moves the host's hand-driven clock 31 s
// on every quarter second until it returns (at most 200 times): each reply
// that is still being trickled is then past its 30 s and is abandoned at its
// next byte.
template <typename Call>
auto withClockDriven(double* took, Call call) -> decltype(call()) {
    const auto start = faulttest::Clock::now();
    auto running = std::async(std::launch::async, call);
    for (int i = 0; i < 200 && running.wait_for(Millis(250)) != std::future_status::ready; ++i) {
        hostcontrol::advanceClock(31.0);
    }
    auto result = running.get();
    *took = faulttest::secondsSince(start);
    return result;
}

class EndlessReplies : public faulttest::ScriptedRoadTest {
protected:
    void SetUp() override {
        hostcontrol::useManualClock(1.7e9, 5000.0);
        faulttest::ScriptedRoadTest::SetUp();
    }
    void TearDown() override { hostcontrol::useSystemClock(); }
};

// One byte every 2 s restarts the 3 s readiness wait each time; the 30 s
// bound on the whole reply is what ends it.
Reply trickled(const std::string& text) {
    Reply r(text);
    r.controlPieceBytes = 1;
    r.controlPieceDelay = Millis(2000);
    return r;
}

TEST_F(EndlessReplies, ATrickledGreetingIsAbandonedAfterThirtySeconds) {
    server.setGreeting(trickled("220 " + std::string(200, 'w')));
    FTPTool tool;
    double took = 0;
    EXPECT_EQ(withClockDriven(&took, [&] { return tool.connect(server.address().c_str()); }), 0);
    EXPECT_STREQ(tool.getResponse(), "reply abandoned: not ended within 30 s\n");
    // Abandoned at the byte after the clock passed 30 s: a trickle interval
    // and the driver's step, well inside one readiness wait.
    EXPECT_LE(took, bound(1));
    server.setGreeting(Reply("220 ready"));
    tool.Empty();
}

TEST_F(EndlessReplies, ATrickledTransferReplyFailsTheOpenWithinItsBounds) {
    server.queueReply("STOR /rec/cam1.ts", trickled("150 " + std::string(200, 't')));
    double took = 0;
    // The 1xx reply and QUIT's (which meets the rest of the trickle) are each
    // abandoned.
    EXPECT_EQ(withClockDriven(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    EXPECT_LE(took, bound(2));
    recoverAndRecord(2);
}

TEST_F(EndlessReplies, AMultiLineReplyThatNeverClosesIsAbandonedAfterAThousandLines) {
    std::string lines = "220-welcome";
    for (int i = 0; i < 5000; ++i) lines += "\n220-more " + std::to_string(i);
    server.setGreeting(Reply(lines));
    FTPTool tool;
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return tool.connect(server.address().c_str()); }), 0);
    EXPECT_STREQ(tool.getResponse(), "reply abandoned: not ended within 1000 lines\n");
    EXPECT_LE(took, bound(0));
    tool.Empty();

    // Continuation lines that keep coming slowly: the 30 s bound ends it.
    Reply slow("220-welcome\n220-a\n220-b\n220-c\n220-d\n220-e\n220-f\n220-g\n220-h");
    slow.controlPieceBytes = 7;
    slow.controlPieceDelay = Millis(1000);
    server.setGreeting(slow);
    FTPTool other;
    EXPECT_EQ(withClockDriven(&took, [&] { return other.connect(server.address().c_str()); }), 0);
    EXPECT_STREQ(other.getResponse(), "reply abandoned: not ended within 30 s\n");
    EXPECT_LE(took, bound(1));
    other.Empty();
    server.setGreeting(Reply("220 ready"));
    recoverAndRecord(1);
}

}  // namespace
