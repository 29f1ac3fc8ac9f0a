// Replies that come late, never end, refuse for lack of space, or send the
// data connection somewhere else.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
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

// --- A reply after the readiness wait ---------------------------------------------

// A reply that does not start within the readiness wait fails its command;
// it stays owed, and the next command first waits for it and drops it. On
// the main connection every later path operation is answered in step.
TEST_F(LateReplies, ALateReplyFailsItsCommandAndEveryLaterPathOperationIsAnsweredInStep) {
    Reply late("550 No such directory");
    late.delay = Millis(4500);
    server.queueReply("CWD /a/", late);
    server.setReply("CWD /a/b", "550 No such directory");
    const size_t mark = server.commands().size();

    // "CWD /a/" gets no answer within the wait: the directory is not known
    // to exist, so MKD follows, once the late 550 has come and been dropped.
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->createDir("/a/b"); }), 0);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(tail(server.commands(), mark),
              (Lines{"CWD /", "CWD /a/", "MKD /a/", "CWD /", "CWD /a/b", "MKD /a/b"}));

    // In step: the directory exists, and a listing works.
    EXPECT_TRUE(store->isDirExist("/a"));
    std::vector<std::string> names;
    EXPECT_EQ(store->getFileList("/rec", names, ""), 1);

    // Handle operations have connections of their own.
    const Segment s = recordSegment(*store, "/rec/cam1.ts", segmentBytes);
    EXPECT_EQ(s.closeResult, 0) << faulttest::describe(s);
    recoverAndRecord(1);
}

// A late reply that is an existing directory's 250: the MKD that follows is
// refused, and createDir fails instead of answering with another reply.
TEST_F(LateReplies, ALateConfirmationFailsCreateDirRatherThanAnsweringWithAnotherReply) {
    Reply late("250 Directory changed");
    late.delay = Millis(4500);
    server.queueReply("CWD /rec/", late);
    server.queueReply("MKD /rec/", "550 File exists");
    const size_t mark = server.commands().size();
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->createDir("/rec/day"); }), -1);
    EXPECT_LE(took, bound(2));
    EXPECT_EQ(tail(server.commands(), mark), (Lines{"CWD /", "CWD /rec/", "MKD /rec/"}));
    EXPECT_EQ(store->createDir("/rec/day"), 0);
    recoverAndRecord(1);
}

// On an open file's own connection a late reply fails the open, and the
// connection is dropped: the next open starts in step.
TEST_F(LateReplies, ALateTransferReplyFailsTheOpenAndTheConnectionIsNotReused) {
    Reply late("150 Opening data connection");
    late.delay = Millis(4000);
    server.queueReply("STOR /rec/cam1.ts", late);
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam1.ts", 2); }), -1);
    // The 1xx wait, then the dropped connection's QUIT waits for what the
    // STOR still owes: the late 150, then its closing reply.
    EXPECT_LE(took, bound(3));
    recoverAndRecord(1);
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
    // Each refused open gave its handle number back.
    recoverAndRecord(1);
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

// A listening socket of the test on a loopback address, not the server's.
class Stranger {
public:
    Stranger(const char* address, int backlog) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        ::inet_pton(AF_INET, address, &a.sin_addr);
        socklen_t n = sizeof a;
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(fd_, backlog) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n) != 0) {
            close();
            return;
        }
        port_ = ntohs(a.sin_port);
        const unsigned char* b = reinterpret_cast<const unsigned char*>(&a.sin_addr);
        numbers_ = std::to_string(b[0]) + "," + std::to_string(b[1]) + "," + std::to_string(b[2]) +
                   "," + std::to_string(b[3]);
    }
    ~Stranger() { close(); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    uint16_t port() const { return port_; }
    // "227 Entering Passive Mode (a,b,c,d,p1,p2)" naming this socket.
    std::string passiveReply() const {
        return "227 Entering Passive Mode (" + numbers_ + "," + std::to_string(port_ / 256) + "," +
               std::to_string(port_ % 256) + ")";
    }
    // 1 when a connection is waiting to be accepted, else 0.
    int pendingConnections() const {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, 0) > 0 ? 1 : 0;
    }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
    std::string numbers_;
};

TEST_F(PassiveAddresses, PortZeroAndAClosedPortFailTheOpenAtOnce) {
    uint16_t closedPort = 0;
    {
        Stranger gone("127.0.0.1", 1);
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
    recoverAndRecord(1);
}

// A server announcing an address that is not its own (behind a translating
// router; 127.0.0.2 stands for its private address): the data connection
// goes to the address the control connection reached, with the announced
// port, and the recording reaches the server. A host listening at the
// announced address gets nothing.
TEST_F(PassiveAddresses, AnotherAddressIsNotTrustedAndTheRecordingReachesTheServer) {
    Stranger other("127.0.0.2", 8);
    ASSERT_NE(other.port(), 0);
    server.queueReply("PASV", "227 Entering Passive Mode (127,0,0,2,{pasvport})");
    const Segment s = recordSegment(*store, "/rec/cam1.ts", segmentBytes);
    EXPECT_EQ(s.handle, 1);
    EXPECT_EQ(s.closeResult, 0) << faulttest::describe(s);
    EXPECT_EQ(server.file("/rec/cam1.ts"), std::optional<std::string>(segmentBytes));

    // The stranger's own port, announced: tried on the server's address,
    // where nothing listens, the open fails at once.
    server.queueReply("PASV", other.passiveReply());
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->open("/rec/cam2.ts", 2); }), -1);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(other.pendingConnections(), 0) << "the stranger was connected to";
    other.close();
    recoverAndRecord(1);
}

// An address that never answers (here a socket whose accept queue is full, so
// its SYNs are dropped) holds the camera that opens, and nobody else: other
// cameras record and path operations run. The connect gives up after 10 s.
TEST_F(PassiveAddresses, AnAddressThatNeverAnswersHoldsOnlyTheOpeningCameraForTenSeconds) {
    Stranger deaf("127.0.0.1", 0);
    // Fill its one-place accept queue.
    const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(deaf.port());
    ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);

    server.queueReply("PASV", deaf.passiveReply());
    const size_t mark = server.commands().size();
    const auto started = faulttest::Clock::now();
    auto held = std::async(std::launch::async, [&] { return store->open("/rec/cam1.ts", 2); });
    ASSERT_TRUE(server.waitForCommands(mark + 2)) << "TYPE and PASV never came";

    // Meanwhile: another camera's whole segment, a directory and a listing.
    const Segment other = recordSegment(*store, "/rec/cam2.ts", segmentBytes);
    EXPECT_EQ(other.closeResult, 0) << faulttest::describe(other);
    EXPECT_EQ(server.file("/rec/cam2.ts"), std::optional<std::string>(segmentBytes));
    EXPECT_EQ(store->createDir("/rec/meanwhile"), 0);
    std::vector<std::string> names;
    EXPECT_EQ(store->getFileList("/rec", names, ""), 1);

    ASSERT_EQ(held.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(held.get(), -1);
    const double took = faulttest::secondsSince(started);
    EXPECT_GE(took, FTPTool::kConnectLimitSeconds - 0.5);
    EXPECT_LE(took, FTPTool::kConnectLimitSeconds + bound(1));
    for (const std::string& line : server.commands()) EXPECT_NE(line, "STOR /rec/cam1.ts");
    ::close(filler);
    deaf.close();
    recoverAndRecord(1);
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
    recoverAndRecord(1);
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
