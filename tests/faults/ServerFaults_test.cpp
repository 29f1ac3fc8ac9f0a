// A real server's bad days, with the network lab between the store and the
// server: the server killed in the middle of 16 recordings and started again,
// pooled connections the server closed while idle, data connections reset
// after N bytes, and a link that is down for ten minutes while 8 cameras try
// to rotate their files every 10 s, until the handle numbers run out.
//
// The store's server address is the lab's, which stays put while the server
// behind it changes (setUpstream).
//
// The idle closes and the data resets also run on an ftps store, against the
// scripted server speaking TLS (it refuses data connections that do not
// resume the control session). The lab cannot read replies inside TLS: it
// neither rewrites the passive address (data connections then go straight to
// the server) nor sees reply lines, so over TLS the scripted server itself
// ends its connections and resets its data connections.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FaultTestUtil.h"
#include "ScriptedRoad.h"
#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "ftp/TlsContext.h"
#include "ftpdisk_host/HostControl.h"
#include "support/NetLab.h"
#include "support/RealFtpServer.h"
#include "support/ScriptedFtpServer.h"
#include "support/TestCertificate.h"

namespace {

using faulttest::bound;
using faulttest::noGrowth;
using faulttest::patternBytes;
using faulttest::recordSegment;
using faulttest::Scheme;
using faulttest::Segment;
using faulttest::timed;
using faulttest::waitUntil;
using ftptest::LinkDownMode;
using ftptest::NetLab;
using ftptest::Reply;
using ftptest::ReplyEdit;
using ftptest::ResetScope;
using ftptest::Traffic;
using ftptest::Way;
using Millis = std::chrono::milliseconds;
using Lines = std::vector<std::string>;

const size_t kHeapTolerance = 512 * 1024;

std::string cameraPath(int camera, int round) {
    return "/rec/cam" + std::to_string(camera) + "-" + std::to_string(round) + ".ts";
}

// Size of a file below the server's root, -1 when it cannot be read.
long fileSize(const RealFtpServer& server, const std::string& path) {
    std::string bytes;
    return server.readFile(path, &bytes) ? static_cast<long>(bytes.size()) : -1;
}

// A store on `address` as "rec"/"pw": in clear, or an ftps store from the
// registry with the CA of `certificate` added to its trust.
class SchemeStore {
public:
    ~SchemeStore() {
        held.reset();
        if (!location.empty()) FTPFileSystemManager::getInstance()->deleteFileSystem(location);
    }

    void make(Scheme scheme, const std::string& address,
              const ftptest::TestCertificate& certificate) {
        if (scheme == Scheme::kPlain) {
            owned.reset(new FTPFileSystem(address.c_str(), "rec", "pw", 1024));
            store = owned.get();
            return;
        }
        FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
        location = "rec(pw)@ftps://" + address + "/rec";
        ASSERT_EQ(registry->addFTPFileSystem(location), 0);
        ASSERT_EQ(registry->addTlsCaFile(location, certificate.caFile()), 0);
        SafePointer<FTPFileSystem> found;
        ASSERT_EQ(registry->getFTPFileSystem(location, found), 1);
        held.reset(new SafePointer<FTPFileSystem>(found));
        store = found.get();
    }

    FTPFileSystem* operator->() const { return store; }
    FTPFileSystem& operator*() const { return *store; }

private:
    FTPFileSystem* store = nullptr;
    std::unique_ptr<FTPFileSystem> owned;
    std::string location;
    std::unique_ptr<SafePointer<FTPFileSystem> > held;
};

// Makes `server` speak TLS with `certificate`, or skips the test when TLS
// is not built in.
void serveTls(ftptest::ScriptedFtpServer& server, const ftptest::TestCertificate& certificate) {
    if (!TlsContext::builtIn()) GTEST_SKIP() << "built without TLS";
    ASSERT_TRUE(certificate.ok()) << certificate.failure();
    ftptest::ServerTlsOptions options;
    options.certFile = certificate.certFile();
    options.keyFile = certificate.keyFile();
    options.requireSessionReuse = true;
    std::string why;
    ASSERT_TRUE(server.enableTls(options, &why)) << why;
}

const auto kSchemes = ::testing::Values(Scheme::kPlain, Scheme::kFtps);

// --- The server killed during 16 recordings ----------------------------------------

class ServerKilled : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(first->ready()) << first->failure();
        ASSERT_TRUE(first->makeDir("/rec"));
        ASSERT_TRUE(lab.ok()) << lab.failure();
        store.reset(new FTPFileSystem(lab.address().c_str(), "rec", "pw", 1024));
        ASSERT_EQ(store->init(), 0);
    }

    // 16 cameras open their file of `round`; the handles, -1 for a failure.
    std::vector<int> openAll(int round) {
        std::vector<int> handles;
        for (int c = 0; c < kCameras; ++c)
            handles.push_back(store->open(cameraPath(c, round).c_str(), 2));
        return handles;
    }

    static constexpr int kCameras = 16;
    // vsftpd writes what it receives straight to the file, so what it has
    // taken is on its disk when it is killed (pyftpdlib buffers in its own
    // process).
    std::unique_ptr<RealFtpServer> first{new RealFtpServer(FtpServerKind::kVsftpd)};
    NetLab lab{first->hostPort()};
    std::unique_ptr<FTPFileSystem> store;
    const std::string bytes = patternBytes(64 * 1024, 11);
};

TEST_F(ServerKilled, EveryWriteAndCloseFailsCleanlyThenRecordingResumesOnTheRestartedServer) {
    // Warm-up round: 16 segments, so the pool holds 16 connections before
    // the mark, as it will after the recovery round.
    for (int h : openAll(0)) {
        ASSERT_GT(h, 0);
        ASSERT_EQ(store->write(h, bytes.data(), 1000), 1000);
        ASSERT_EQ(store->close(h), 0);
    }
    const faulttest::Resources before = faulttest::takeResources();

    const std::vector<int> handles = openAll(1);
    for (int c = 0; c < kCameras; ++c) {
        ASSERT_GT(handles[c], 0) << "camera " << c;
        ASSERT_EQ(store->write(handles[c], bytes.data(), static_cast<unsigned>(bytes.size())),
                  static_cast<int>(bytes.size()));
    }
    // Every byte written so far has reached the server's disk.
    ASSERT_TRUE(waitUntil(
        [&] {
            for (int c = 0; c < kCameras; ++c)
                if (fileSize(*first, cameraPath(c, 1)) != static_cast<long>(bytes.size()))
                    return false;
            return true;
        },
        Millis(10000)))
        << "the server never stored the first 64 KiB of every file";

    // Killed: every process of the server, at once, without warning.
    for (pid_t pid : first->processes()) ::kill(pid, SIGKILL);
    first->stop();

    for (int c = 0; c < kCameras; ++c) {
        // A write may still go into the socket buffers (and the lab's queue,
        // up to 4 MiB) before the reset is seen: 64 MiB at most, far more
        // than every buffer on the way holds, and the failure shows.
        int last = 0;
        double longest = 0;
        for (int i = 0; i < 1024; ++i) {
            double took = 0;
            last = timed(&took, [&] {
                return store->write(handles[c], bytes.data(), static_cast<unsigned>(bytes.size()));
            });
            longest = std::max(longest, took);
            if (last < 0) break;
        }
        EXPECT_EQ(last, -1) << "camera " << c;
        EXPECT_LE(longest, bound(1, 1));
        double took = 0;
        EXPECT_EQ(timed(&took, [&] { return store->close(handles[c]); }), -1) << "camera " << c;
        EXPECT_LE(took, bound(2));
    }
    EXPECT_EQ(store->createDir("/archive/day2"), -1);

    // What the server had accepted is still on its disk.
    for (int c = 0; c < kCameras; ++c) {
        std::string kept;
        ASSERT_TRUE(first->readFile(cameraPath(c, 1), &kept));
        EXPECT_GE(kept.size(), bytes.size());
        EXPECT_TRUE(kept.compare(0, bytes.size(), bytes) == 0) << "camera " << c;
    }

    // Started again (on another port, behind the same lab address).
    RealFtpServer second(FtpServerKind::kVsftpd);
    ASSERT_TRUE(second.ready()) << second.failure();
    ASSERT_TRUE(second.makeDir("/rec"));
    ASSERT_TRUE(lab.setUpstream(second.hostPort()));

    // The failed closes quit their connections and freed their numbers, so
    // nothing of the dead server is left in the pool. The recorder's
    // recovery is uninit and init; the cameras then open again.
    EXPECT_EQ(store->uninit(), 0);
    ASSERT_EQ(store->init(), 0);
    const std::vector<int> resumed = openAll(3);
    for (int c = 0; c < kCameras; ++c) {
        EXPECT_EQ(resumed[c], 1 + c) << "camera " << c;
        EXPECT_EQ(store->write(resumed[c], bytes.data(), static_cast<unsigned>(bytes.size())),
                  static_cast<int>(bytes.size()));
        EXPECT_EQ(store->close(resumed[c]), 0);
        std::string kept;
        EXPECT_TRUE(second.readFile(cameraPath(c, 3), &kept));
        EXPECT_TRUE(kept == bytes) << "camera " << c;
    }
    EXPECT_EQ(store->createDir("/archive/day2"), 0);
    EXPECT_TRUE(second.dirExists("/archive/day2"));
    long long total = 0;
    EXPECT_EQ(store->getTotalSize("/rec", total), 1);
    EXPECT_EQ(total, static_cast<long long>(kCameras * bytes.size()));
    EXPECT_TRUE(noGrowth(before, kHeapTolerance));
}

// The same against the scripted server, in clear and on an ftps store: it
// dies as a killed process would (every connection reset, no close_notify,
// new connections refused) and a new one takes its place behind the lab.
class ScriptedServerKilled : public ::testing::TestWithParam<Scheme> {
protected:
    void SetUp() override {
        ASSERT_TRUE(lab.ok()) << lab.failure();
        if (GetParam() == Scheme::kFtps) serveTls(*first, certificate);
        if (IsSkipped() || HasFatalFailure()) return;
        store.make(GetParam(), lab.address(), certificate);
        if (HasFatalFailure()) return;
        ASSERT_EQ(store->init(), 0);
    }

    std::vector<int> openAll(int round) {
        std::vector<int> handles;
        for (int c = 0; c < kCameras; ++c)
            handles.push_back(store->open(cameraPath(c, round).c_str(), 2));
        return handles;
    }

    // What the in-process servers keep: every upload twice (the list and
    // the map), every command line and data connection record.
    size_t kept() const {
        size_t bytes = 0;
        for (const ftptest::ScriptedFtpServer* server : {first.get(), second.get()}) {
            if (server == nullptr) continue;
            for (const std::string& upload : server->uploads()) bytes += 2 * upload.size();
            bytes += 256 * (server->commands().size() + server->dataConnectionRecords().size());
        }
        return bytes;
    }

    static constexpr int kCameras = 16;
    std::unique_ptr<ftptest::ScriptedFtpServer> first{new ftptest::ScriptedFtpServer};
    std::unique_ptr<ftptest::ScriptedFtpServer> second;
    ftptest::TestCertificate certificate;
    NetLab lab{first->address()};
    SchemeStore store;
    const std::string bytes = patternBytes(64 * 1024, 11);
};

INSTANTIATE_TEST_SUITE_P(Schemes, ScriptedServerKilled, kSchemes, faulttest::schemeName);

TEST_P(ScriptedServerKilled, EveryWriteAndCloseFailsCleanlyThenRecordingResumesOnANewServer) {
    for (int h : openAll(0)) {
        ASSERT_GT(h, 0);
        ASSERT_EQ(store->write(h, bytes.data(), 1000), 1000);
        ASSERT_EQ(store->close(h), 0);
    }
    const faulttest::Resources before = faulttest::takeResources();

    const std::vector<int> handles = openAll(1);
    for (int c = 0; c < kCameras; ++c) {
        ASSERT_GT(handles[c], 0) << "camera " << c;
        size_t at = 0;
        for (int i = 0; at < bytes.size() && i < 1000; ++i) {
            const int n = store->write(handles[c], bytes.data() + at,
                                       static_cast<unsigned>(bytes.size() - at));
            ASSERT_GT(n, 0) << "camera " << c;
            at += static_cast<size_t>(n);
        }
    }
    // Every byte written so far has reached the server.
    ASSERT_TRUE(waitUntil(
        [&] {
            for (int c = 0; c < kCameras; ++c)
                if (first->uploadingBytes(cameraPath(c, 1)) < bytes.size()) return false;
            return true;
        },
        Millis(10000)))
        << "the server never took the first 64 KiB of every file";

    first->kill();

    for (int c = 0; c < kCameras; ++c) {
        int last = 0;
        double longest = 0;
        for (int i = 0; i < 1024; ++i) {
            double took = 0;
            last = timed(&took, [&] {
                return store->write(handles[c], bytes.data(), static_cast<unsigned>(bytes.size()));
            });
            longest = std::max(longest, took);
            if (last < 0) break;
        }
        EXPECT_EQ(last, -1) << "camera " << c;
        EXPECT_LE(longest, bound(1, 1));
        double took = 0;
        EXPECT_EQ(timed(&took, [&] { return store->close(handles[c]); }), -1) << "camera " << c;
        EXPECT_LE(took, bound(2));
    }
    EXPECT_EQ(store->createDir("/archive/day2"), -1);

    // What the server had taken is kept.
    for (int c = 0; c < kCameras; ++c) {
        const std::optional<std::string> kept = first->file(cameraPath(c, 1));
        ASSERT_TRUE(kept.has_value()) << "camera " << c;
        EXPECT_GE(kept->size(), bytes.size());
        EXPECT_TRUE(kept->compare(0, bytes.size(), bytes) == 0) << "camera " << c;
    }

    second.reset(new ftptest::ScriptedFtpServer);
    if (GetParam() == Scheme::kFtps) serveTls(*second, certificate);
    ASSERT_TRUE(lab.setUpstream(second->address()));

    EXPECT_EQ(store->uninit(), 0);
    ASSERT_EQ(store->init(), 0);
    const std::vector<int> resumed = openAll(3);
    for (int c = 0; c < kCameras; ++c) {
        EXPECT_EQ(resumed[c], 1 + c) << "camera " << c;
        size_t at = 0;
        for (int i = 0; at < bytes.size() && i < 1000; ++i) {
            const int n = store->write(resumed[c], bytes.data() + at,
                                       static_cast<unsigned>(bytes.size() - at));
            if (n <= 0) break;
            at += static_cast<size_t>(n);
        }
        EXPECT_EQ(at, bytes.size()) << "camera " << c;
        EXPECT_EQ(store->close(resumed[c]), 0);
        EXPECT_TRUE(second->file(cameraPath(c, 3)) == std::optional<std::string>(bytes))
            << "camera " << c;
    }
    EXPECT_EQ(store->createDir("/archive/day2"), 0);
    EXPECT_TRUE(noGrowth(before, kHeapTolerance + kept()));
}

// --- Pooled connections closed by the server while idle ----------------------------

class IdleClosed : public ::testing::TestWithParam<Scheme> {
protected:
    void SetUp() override {
        ASSERT_TRUE(lab.ok()) << lab.failure();
        if (GetParam() == Scheme::kFtps) serveTls(server, certificate);
        if (IsSkipped() || HasFatalFailure()) return;
        store.make(GetParam(), lab.address(), certificate);
        if (HasFatalFailure()) return;
        ASSERT_EQ(store->init(), 0);
        const Segment s = recordSegment(*store, "/rec/warm.ts", bytes);
        ASSERT_EQ(s.closeResult, 0);
        before = faulttest::takeResources();
    }

    // `arm` prepares the lab, one segment's connection goes to the pool,
    // `end` ends it there (the server ending an idle connection); then the
    // next two opens: the first takes the dead pooled connection and fails
    // at once, the second connects anew.
    void idleConnectionEnds(const std::function<void()>& arm, const std::function<void()>& end) {
        arm();
        const Segment s = recordSegment(*store, "/rec/a.ts", bytes);
        ASSERT_EQ(s.closeResult, 0) << faulttest::describe(s);
        end();
        double took = 0;
        const int stale = timed(&took, [&] { return store->open("/rec/b.ts", 2); });
        EXPECT_EQ(stale, -1);
        EXPECT_LE(took, bound(1));
        const Segment next = recordSegment(*store, "/rec/c.ts", bytes);
        // The failed open gave number 1 back.
        EXPECT_EQ(next.handle, 1);
        EXPECT_EQ(next.closeResult, 0) << faulttest::describe(next);
        EXPECT_EQ(server.file("/rec/c.ts"), std::optional<std::string>(bytes));
        EXPECT_TRUE(
            noGrowth(before, kHeapTolerance + 256 * server.commands().size() + 4 * bytes.size()));
    }

    // The server's control connection ends right after the closing reply
    // of the next transfer, `after` (a reply line, or nothing) coming first.
    // The lab does it in clear; over TLS, where it sees no reply lines, the
    // scripted server itself.
    void closeAfterNextTransfer(const std::string& after);
    void waitForTheEnd(int openBefore, int closedBefore);

    ftptest::ScriptedFtpServer server;
    ftptest::TestCertificate certificate;
    NetLab lab{server.address()};
    SchemeStore store;
    const std::string bytes = patternBytes(30000, 5);
    faulttest::Resources before;
};

INSTANTIATE_TEST_SUITE_P(Schemes, IdleClosed, kSchemes, faulttest::schemeName);

// The lab ends the connection right after the closing reply of the next
// transfer, sending `after` first.
void closeAfterNextTransfer(NetLab& lab, const std::string& after) {
    lab.setReplyRewriter([&lab, after](const std::string& line) -> std::optional<ReplyEdit> {
        if (line.rfind("226", 0) != 0) return std::nullopt;
        lab.setReplyRewriter(nullptr);
        return ReplyEdit{line + "\r\n" + after, true};
    });
}

void IdleClosed::closeAfterNextTransfer(const std::string& after) {
    if (GetParam() == Scheme::kPlain) {
        ::closeAfterNextTransfer(lab, after.empty() ? "" : after + "\r\n");
        return;
    }
    Reply closing("150 Opening data connection");
    closing.finalText = "226 Transfer complete" + (after.empty() ? "" : "\n" + after);
    closing.closeControl = true;
    server.queueReply("STOR", closing);
}

// The pooled connection's control connection closes after the lab has
// delivered the 226 of its transfer (and what follows it).
void waitForOneControlLess(NetLab& lab, int open) {
    ASSERT_TRUE(lab.waitFor([&](const ftptest::NetLabCounters& c) { return c.openControl < open; }))
        << "the lab did not end the pooled connection";
}

// Waits until the pooled connection has ended: the lab closed it (in
// clear), or the server closed its side (over TLS; the lab then keeps the
// client's side open until the client closes it).
void IdleClosed::waitForTheEnd(int openBefore, int closedBefore) {
    if (GetParam() == Scheme::kPlain) {
        waitForOneControlLess(lab, openBefore);
        return;
    }
    ASSERT_TRUE(server.waitForClosedConnections(closedBefore + 1))
        << "the server did not end the pooled connection";
}

TEST_P(IdleClosed, A421AndACloseFailTheOpenThatTakesThePooledConnection) {
    const int open = lab.counters().openControl;
    const int closed = server.closedConnectionCount();
    idleConnectionEnds([&] { closeAfterNextTransfer("421 Timeout."); },
                       [&] { waitForTheEnd(open, closed); });
}

TEST_P(IdleClosed, ASilentCloseFailsTheOpenThatTakesThePooledConnection) {
    const int open = lab.counters().openControl;
    const int closed = server.closedConnectionCount();
    idleConnectionEnds([&] { closeAfterNextTransfer(""); }, [&] { waitForTheEnd(open, closed); });
}

TEST_P(IdleClosed, AResetFailsTheOpenThatTakesThePooledConnection) {
    idleConnectionEnds([] {},
                       [&] {
                           // Both control connections (the pooled one and the store's main one)
                           // are reset; the main one shows on the next path operation.
                           EXPECT_EQ(lab.dropAll(), 2);
                           EXPECT_EQ(store->createDir("/rec/x"), -1);
                           EXPECT_EQ(store->uninit(), 0);
                           EXPECT_EQ(store->init(), 0);
                       });
}

// A real server's own idle limit: pyftpdlib says "421 Control connection
// timed out." and closes, the pooled connection and the main one alike.
TEST(IdleClosedByARealServer, TheOpenOnTheTimedOutConnectionFailsAndTheNextSucceeds) {
    RealFtpServerOptions options;
    options.idleTimeoutSeconds = 1;
    RealFtpServer server(FtpServerKind::kPyftpdlib, options);
    ASSERT_TRUE(server.ready()) << server.failure();
    ASSERT_TRUE(server.makeDir("/rec"));
    FTPFileSystem store(server.hostPort().c_str(), "rec", "pw", 1024);
    ASSERT_EQ(store.init(), 0);
    const std::string bytes = patternBytes(40000, 2);
    ASSERT_EQ(recordSegment(store, "/rec/a.ts", bytes).closeResult, 0);
    ASSERT_TRUE(server.waitForSessionCount(0, Millis(10000))) << "the server kept its sessions";

    EXPECT_EQ(store.open("/rec/b.ts", 2), -1);
    EXPECT_EQ(store.createDir("/rec/day"), -1);
    EXPECT_EQ(store.uninit(), 0);
    ASSERT_EQ(store.init(), 0);
    const Segment s = recordSegment(store, "/rec/c.ts", bytes);
    EXPECT_EQ(s.handle, 1);
    EXPECT_EQ(s.closeResult, 0) << faulttest::describe(s);
    std::string kept;
    EXPECT_TRUE(server.readFile("/rec/c.ts", &kept));
    EXPECT_TRUE(kept == bytes);
    EXPECT_EQ(store.createDir("/rec/day"), 0);
}

// --- Data connections reset after N bytes ------------------------------------------

class DataReset : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << server.failure();
        ASSERT_TRUE(server.makeDir("/rec"));
        ASSERT_TRUE(lab.ok()) << lab.failure();
        store.reset(new FTPFileSystem(lab.address().c_str(), "rec", "pw", 1024));
        ASSERT_EQ(store->init(), 0);
        ASSERT_EQ(recordSegment(*store, "/rec/warm.ts", bytes).closeResult, 0);
        before = faulttest::takeResources();
    }

    void recoverAndRecord() {
        EXPECT_EQ(store->uninit(), 0);
        ASSERT_EQ(store->init(), 0);
        const Segment s = recordSegment(*store, "/rec/after.ts", bytes);
        EXPECT_EQ(s.closeResult, 0) << faulttest::describe(s);
        {
            std::string kept;
            EXPECT_TRUE(server.readFile("/rec/after.ts", &kept));
            EXPECT_TRUE(kept == bytes);
        }
        EXPECT_TRUE(noGrowth(before, kHeapTolerance));
    }

    RealFtpServer server{FtpServerKind::kPyftpdlib};
    NetLab lab{server.hostPort()};
    std::unique_ptr<FTPFileSystem> store;
    const std::string bytes = patternBytes(1000000, 4);
    faulttest::Resources before;
};

TEST_F(DataReset, AnUploadResetAfterNBytesFailsTheNextWriteAndTheServerKeepsExactlyThoseBytes) {
    const size_t n = 300000;
    lab.resetAfter(n, Traffic::kData, Way::kClientToServer);
    const int handle = store->open("/rec/cut.ts", 2);
    ASSERT_GT(handle, 0);
    // A long recording: pieces until a write meets the reset.
    size_t written = 0;
    int last = 0;
    double longest = 0;
    for (int i = 0; i < 20000; ++i) {
        double took = 0;
        last = timed(&took,
                     [&] { return store->write(handle, bytes.data() + (written % 500000), 8192); });
        longest = std::max(longest, took);
        if (last < 0) break;
        written += static_cast<size_t>(last);
    }
    EXPECT_EQ(last, -1);
    EXPECT_GE(written, n);
    EXPECT_LE(longest, bound(1, 1));
    // The failed write marked the connection: close quits it and says -1,
    // whatever the server answered.
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->close(handle); }), -1);
    EXPECT_LE(took, bound(2));
    ASSERT_TRUE(waitUntil([&] { return fileSize(server, "/rec/cut.ts") == static_cast<long>(n); }))
        << "server file holds " << fileSize(server, "/rec/cut.ts") << " bytes";
    {
        std::string kept;
        ASSERT_TRUE(server.readFile("/rec/cut.ts", &kept));
        std::string sent;
        while (sent.size() < n) sent += bytes.substr(0, 500000);
        EXPECT_TRUE(kept == sent.substr(0, n));
    }
    recoverAndRecord();
}

// The module's last write went into the socket buffers and the data
// connection was closed before the reset came: only the server can tell.
// pyftpdlib takes the cut connection for the end of the upload and answers
// 226, so close succeeds; the file's length shows what was kept.
TEST_F(DataReset, AnUploadCutAfterTheLastWriteIsJudgedByTheServersClosingReply) {
    const size_t n = 300000;
    lab.stall(Traffic::kData, Way::kClientToServer);
    lab.resetAfter(n, Traffic::kData, Way::kClientToServer);
    const int handle = store->open("/rec/cut.ts", 2);
    ASSERT_GT(handle, 0);
    for (size_t at = 0; at < bytes.size(); at += 8192) {
        const unsigned piece = static_cast<unsigned>(std::min<size_t>(8192, bytes.size() - at));
        ASSERT_EQ(store->write(handle, bytes.data() + at, piece), static_cast<int>(piece));
    }
    lab.release();
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->close(handle); }), 0);
    EXPECT_LE(took, bound(1));
    EXPECT_EQ(store->getFileLength("/rec/cut.ts"), static_cast<long long>(n));
    recoverAndRecord();
}

TEST_F(DataReset, ADownloadResetAfterNBytesFailsGet) {
    ASSERT_TRUE(server.writeFile("/rec/old.ts", bytes));
    const size_t n = 200000;
    lab.resetAfter(n, Traffic::kData, Way::kServerToClient);
    const std::string local = ::testing::TempDir() + "/faults-reset-get.ts";
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->Get(local.c_str(), "/rec/old.ts"); }), -1);
    EXPECT_LE(took, bound(3));
    std::string got;
    std::FILE* f = std::fopen(local.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    char chunk[65536];
    size_t r;
    while ((r = std::fread(chunk, 1, sizeof chunk, f)) > 0) got.append(chunk, r);
    std::fclose(f);
    std::remove(local.c_str());
    EXPECT_LE(got.size(), n);
    EXPECT_TRUE(bytes.compare(0, got.size(), got) == 0) << "the partial copy is not a prefix";
    recoverAndRecord();
}

// A listing cut by a reset fails: the names that arrived are not the
// directory, and a recorder that frees space or removes folders from a
// listing must not act on part of one.
TEST_F(DataReset, AListingResetAfterNBytesFailsAndTheNextListingIsWhole) {
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(server.writeFile("/rec/f" + std::to_string(1000 + i) + ".ts", "x"));
    std::vector<std::string> all;
    ASSERT_EQ(store->getFileList("/rec", all, ""), 1);
    ASSERT_EQ(all.size(), 201u);  // the warm-up segment too

    lab.resetAfter(4000, Traffic::kData, Way::kServerToClient);
    std::vector<std::string> names;
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", names, ""); }), 0);
    EXPECT_LE(took, bound(2));
    EXPECT_TRUE(names.empty());
    lab.resetAfter(4000, Traffic::kData, Way::kServerToClient);
    EXPECT_FALSE(store->isEmptyDir("/rec"));
    // The main connection stays in step: the next listing is whole.
    std::vector<std::string> again;
    EXPECT_EQ(store->getFileList("/rec", again, ""), 1);
    EXPECT_EQ(again, all);
    recoverAndRecord();
}

// --- Data connections reset after N bytes, by the scripted server ------------------

// The same resets in clear and over TLS, made by the scripted server itself:
// it takes or sends exactly N bytes of the file (decrypted bytes over TLS),
// then resets the data connection, without close_notify. Over TLS a reset
// must fail the transfer just as in clear: a cut stream is never taken for
// the end of the file.
class ScriptedDataReset : public ::testing::TestWithParam<Scheme> {
protected:
    void SetUp() override {
        if (GetParam() == Scheme::kFtps) serveTls(server, certificate);
        if (IsSkipped() || HasFatalFailure()) return;
        store.make(GetParam(), server.address(), certificate);
        if (HasFatalFailure()) return;
        ASSERT_EQ(store->init(), 0);
        ASSERT_EQ(recordSegment(*store, "/rec/warm.ts", bytes).closeResult, 0);
        before = faulttest::takeResources();
    }

    // The next transfer of `verb` moves `n` bytes, then its data connection
    // is reset.
    void resetNext(const std::string& verb, long n) {
        Reply cut(verb == "LIST" ? "150 Here comes the listing" : "150 Opening data connection");
        cut.closeDataAfter = n;
        cut.resetData = true;
        server.queueReply(verb, cut);
    }

    void recoverAndRecord() {
        EXPECT_EQ(store->uninit(), 0);
        ASSERT_EQ(store->init(), 0);
        const Segment s = recordSegment(*store, "/rec/after.ts", bytes);
        EXPECT_EQ(s.closeResult, 0) << faulttest::describe(s);
        EXPECT_TRUE(server.file("/rec/after.ts") == std::optional<std::string>(bytes));
        // What the in-process server keeps: every upload twice (the list and
        // the map), every command line.
        size_t kept = 0;
        for (const std::string& upload : server.uploads()) kept += 2 * upload.size();
        EXPECT_TRUE(noGrowth(before, kHeapTolerance + kept + 256 * server.commands().size()));
    }

    // Declared first: destroyed after the store, so its QUIT finds a server.
    ftptest::ScriptedFtpServer server;
    ftptest::TestCertificate certificate;
    SchemeStore store;
    const std::string bytes = patternBytes(1000000, 4);
    faulttest::Resources before;
};

INSTANTIATE_TEST_SUITE_P(Schemes, ScriptedDataReset, kSchemes, faulttest::schemeName);

TEST_P(ScriptedDataReset,
       AnUploadResetAfterNBytesFailsTheNextWriteAndTheServerKeepsExactlyThoseBytes) {
    const size_t n = 300000;
    resetNext("STOR", static_cast<long>(n));
    const int handle = store->open("/rec/cut.ts", 2);
    ASSERT_GT(handle, 0);
    size_t written = 0;
    int last = 0;
    double longest = 0;
    for (int i = 0; i < 20000; ++i) {
        double took = 0;
        last = timed(&took,
                     [&] { return store->write(handle, bytes.data() + (written % 500000), 8192); });
        longest = std::max(longest, took);
        if (last < 0) break;
        written += static_cast<size_t>(last);
    }
    EXPECT_EQ(last, -1);
    EXPECT_GE(written, n);
    EXPECT_LE(longest, bound(1, 1));
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->close(handle); }), -1);
    EXPECT_LE(took, bound(2));
    ASSERT_TRUE(waitUntil([&] { return server.file("/rec/cut.ts").has_value(); }));
    {
        const std::string kept = *server.file("/rec/cut.ts");
        std::string sent;
        while (sent.size() < n) sent += bytes.substr(0, 500000);
        EXPECT_EQ(kept.size(), n);
        EXPECT_TRUE(kept == sent.substr(0, n));
    }
    recoverAndRecord();
}

TEST_P(ScriptedDataReset, ADownloadResetAfterNBytesFailsGet) {
    server.putFile("/rec/old.ts", bytes);
    const size_t n = 200000;
    resetNext("RETR", static_cast<long>(n));
    const std::string local = ::testing::TempDir() + "/faults-scripted-reset-get.ts";
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->Get(local.c_str(), "/rec/old.ts"); }), -1);
    EXPECT_LE(took, bound(3));
    std::string got;
    std::FILE* f = std::fopen(local.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    char chunk[65536];
    size_t r;
    while ((r = std::fread(chunk, 1, sizeof chunk, f)) > 0) got.append(chunk, r);
    std::fclose(f);
    std::remove(local.c_str());
    EXPECT_LE(got.size(), n);
    EXPECT_TRUE(bytes.compare(0, got.size(), got) == 0) << "the partial copy is not a prefix";
    recoverAndRecord();
}

TEST_P(ScriptedDataReset, AListingResetAfterNBytesFailsAndTheNextListingIsWhole) {
    std::string listing;
    Lines names;
    for (int i = 0; i < 200; ++i) {
        const std::string name = "f" + std::to_string(1000 + i) + ".ts";
        listing += "-rw-r--r-- 1 rec rec 1 Jan 15 10:31 " + name + "\r\n";
        names.push_back(name);
    }
    server.setListing(listing);
    std::vector<std::string> all;
    ASSERT_EQ(store->getFileList("/rec", all, ""), 1);
    ASSERT_EQ(all, names);

    resetNext("LIST", 4000);
    std::vector<std::string> cut;
    double took = 0;
    EXPECT_EQ(timed(&took, [&] { return store->getFileList("/rec", cut, ""); }), 0);
    EXPECT_LE(took, bound(2));
    EXPECT_TRUE(cut.empty());
    resetNext("LIST", 4000);
    EXPECT_FALSE(store->isEmptyDir("/rec"));
    // The main connection stays in step: the next listing is whole.
    std::vector<std::string> again;
    EXPECT_EQ(store->getFileList("/rec", again, ""), 1);
    EXPECT_EQ(again, all);
    recoverAndRecord();
}

// --- The link down for ten minutes -------------------------------------------------

// 8 cameras rotate their files every 10 s (the hand-driven clock moves 10 s a
// round). Every open that fails gives its number back, so an outage of any
// length leaves the store with every number it had. Against pyftpdlib in
// clear, and against the scripted server in clear and over TLS (where data
// connections go straight to the server; the control connections, which
// the outage resets and refuses, still pass the lab).
class LinkDownRoad : public ::testing::Test {
protected:
    // Registers `scheme` "rec(pw)@ftp[s]://<lab>/rec" and inits its store;
    // over TLS with the CA of `certificate` trusted.
    void start(NetLab& netLab, Scheme scheme, const ftptest::TestCertificate* certificate) {
        lab = &netLab;
        ASSERT_TRUE(lab->ok()) << lab->failure();
        hostcontrol::useManualClock(1.7e9, 5000.0);
        clockSet = true;
        location = std::string("rec(pw)@") + (scheme == Scheme::kFtps ? "ftps" : "ftp") + "://" +
                   lab->address() + "/rec";
        ASSERT_EQ(registry->addFTPFileSystem(location), 0);
        registered = true;
        if (certificate != nullptr) {
            ASSERT_EQ(registry->addTlsCaFile(location, certificate->caFile()), 0);
        }
        fetch();
        ASSERT_EQ(store->init(), 0);
    }
    void TearDown() override {
        held.reset();
        if (registered) registry->deleteFileSystem(location);
        if (clockSet) hostcontrol::useSystemClock();
    }

    // The store the registry holds for the location, as the recorder gets it.
    void fetch() {
        SafePointer<FTPFileSystem> found;
        ASSERT_EQ(registry->getFTPFileSystem(location, found), 1);
        held.reset(new SafePointer<FTPFileSystem>(found));
        store = found.get();
    }

    // One rotation: each camera closes its file and opens the next. Returns
    // the new handles.
    std::vector<int> rotate(std::vector<int>& handles, int round) {
        for (int c = 0; c < kCameras; ++c) {
            if (handles[c] > 0) {
                store->write(handles[c], bytes.data(), static_cast<unsigned>(bytes.size()));
                store->close(handles[c]);
            }
            handles[c] = store->open(cameraPath(c, round).c_str(), 2);
        }
        hostcontrol::advanceClock(10.0);
        return handles;
    }

    // The outage and the recovery; `fileOf` gives a file's bytes on the
    // server (nothing when it has none).
    void outageAndRecovery(
        const std::function<std::optional<std::string>(const std::string&)>& fileOf);
    // Heap the server behind the lab keeps in this process, if any.
    virtual size_t extraHeap() const { return 0; }

    static constexpr int kCameras = 8;
    NetLab* lab = nullptr;
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    std::string location;
    bool registered = false;
    bool clockSet = false;
    std::unique_ptr<SafePointer<FTPFileSystem> > held;
    FTPFileSystem* store = nullptr;
    const std::string bytes = patternBytes(20000, 8);
};

void LinkDownRoad::outageAndRecovery(
    const std::function<std::optional<std::string>(const std::string&)>& fileOf) {
    std::vector<int> handles(kCameras, -1);
    rotate(handles, 0);
    for (int c = 0; c < kCameras; ++c) ASSERT_EQ(handles[c], c + 1);
    rotate(handles, 1);  // the same numbers again: each close freed its own
    for (int c = 0; c < kCameras; ++c) ASSERT_EQ(handles[c], c + 1);
    const faulttest::Resources before = faulttest::takeResources();

    ASSERT_TRUE(lab->linkDown(LinkDownMode::kRefuse));
    // Ten minutes: 60 rounds. Writes and closes fail at once, opens fail at
    // once (refused connects), path operations fail.
    double longest = 0;
    for (int round = 2; round < 62; ++round) {
        double took = 0;
        timed(&took, [&] { return rotate(handles, round).size(); });
        longest = std::max(longest, took);
        for (int h : handles) ASSERT_EQ(h, -1) << "round " << round;
    }
    EXPECT_LE(longest, bound(2));
    EXPECT_EQ(store->createDir("/rec/day2"), -1);
    long long total = 0;
    EXPECT_EQ(store->getTotalSize("/rec", total), 0);

    // Another 68 rounds: 1024 refused opens in all, more than the store has
    // numbers.
    for (int round = 62; round < 130; ++round) rotate(handles, round);

    // Back up: after uninit and init the cameras record again on the first
    // numbers, as before the outage.
    ASSERT_TRUE(lab->linkUp());
    EXPECT_EQ(store->uninit(), 0);
    ASSERT_EQ(store->init(), 0);
    rotate(handles, 130);
    for (int c = 0; c < kCameras; ++c) EXPECT_EQ(handles[c], c + 1);
    rotate(handles, 131);
    for (int c = 0; c < kCameras; ++c) {
        EXPECT_EQ(handles[c], c + 1);
        EXPECT_TRUE(fileOf(cameraPath(c, 130)) == std::optional<std::string>(bytes))
            << "camera " << c;
    }
    EXPECT_EQ(store->createDir("/rec/day2"), 0);
    EXPECT_TRUE(noGrowth(before, kHeapTolerance + extraHeap()));
}

class LinkDown : public LinkDownRoad {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.ready()) << server.failure();
        ASSERT_TRUE(server.makeDir("/rec"));
        start(netLab, Scheme::kPlain, nullptr);
    }

    RealFtpServer server{FtpServerKind::kPyftpdlib};
    NetLab netLab{server.hostPort()};
};

TEST_F(LinkDown, FailedOpensGiveTheirNumbersBackAndRecordingResumesAfterTheLinkReturns) {
    outageAndRecovery([&](const std::string& path) -> std::optional<std::string> {
        std::string kept;
        if (!server.readFile(path, &kept)) return std::nullopt;
        return kept;
    });
}

class ScriptedLinkDown : public LinkDownRoad, public ::testing::WithParamInterface<Scheme> {
protected:
    void SetUp() override {
        if (GetParam() == Scheme::kFtps) serveTls(server, certificate);
        if (IsSkipped() || HasFatalFailure()) return;
        start(netLab, GetParam(), GetParam() == Scheme::kFtps ? &certificate : nullptr);
    }

    // Every upload twice (the list and the map), every command line and
    // data connection record.
    size_t extraHeap() const override {
        size_t kept = 0;
        for (const std::string& upload : server.uploads()) kept += 2 * upload.size();
        return kept + 256 * (server.commands().size() + server.dataConnectionRecords().size());
    }

    ftptest::ScriptedFtpServer server;
    ftptest::TestCertificate certificate;
    NetLab netLab{server.address()};
};

INSTANTIATE_TEST_SUITE_P(Schemes, ScriptedLinkDown, kSchemes, faulttest::schemeName);

TEST_P(ScriptedLinkDown, FailedOpensGiveTheirNumbersBackAndRecordingResumesAfterTheLinkReturns) {
    outageAndRecovery([&](const std::string& path) { return server.file(path); });
}

}  // namespace
