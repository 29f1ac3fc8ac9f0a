// A store on the scripted server, logged in and warmed up (one segment, one
// directory, one listing), with the process's resources taken afterwards;
// recoverAndRecord() runs the recorder's recovery and checks that the road
// works again and nothing grew.
//
// ScriptedRoadTest is a store in clear. ScriptedRoadBothWays runs each test
// twice: in clear, and as an ftps store (registered "user(password)@ftps://"
// with the test CA added to its trust) on the scripted server speaking TLS,
// which refuses data connections that do not resume the control session.
// Built without TLS, the ftps runs skip.
#ifndef FTPDISK_TESTS_FAULTS_SCRIPTEDROAD_H
#define FTPDISK_TESTS_FAULTS_SCRIPTEDROAD_H

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FaultTestUtil.h"
#include "filesystem/FTPFileSystem.h"
#include "filesystem/FTPFileSystemManager.h"
#include "foundation/SafePointer.h"
#include "ftp/TlsContext.h"
#include "support/ScriptedFtpServer.h"
#include "support/TestCertificate.h"

namespace faulttest {

enum class Scheme { kPlain, kFtps };

// How gtest shows the parameter.
inline void PrintTo(Scheme scheme, std::ostream* out) {
    *out << (scheme == Scheme::kFtps ? "ftps" : "plain");
}

// "Plain" and "Ftps", for the names of parameterised tests.
inline std::string schemeName(const ::testing::TestParamInfo<Scheme>& info) {
    return info.param == Scheme::kFtps ? "Ftps" : "Plain";
}

class ScriptedRoadTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (scheme() == Scheme::kFtps) {
            if (!TlsContext::builtIn()) GTEST_SKIP() << "built without TLS";
            ASSERT_TRUE(certificate.ok()) << certificate.failure();
            ftptest::ServerTlsOptions options;
            options.certFile = certificate.certFile();
            options.keyFile = certificate.keyFile();
            options.requireSessionReuse = true;
            std::string why;
            ASSERT_TRUE(server.enableTls(options, &why)) << why;
            location = "rec(pw)@ftps://" + server.address() + "/rec";
            ASSERT_EQ(registry->addFTPFileSystem(location), 0);
            ASSERT_EQ(registry->addTlsCaFile(location, certificate.caFile()), 0);
            SafePointer<FTPFileSystem> found;
            ASSERT_EQ(registry->getFTPFileSystem(location, found), 1);
            held.reset(new SafePointer<FTPFileSystem>(found));
            store = found.get();
        } else {
            owned.reset(new FTPFileSystem(server.address().c_str(), "rec", "pw", 1024));
            store = owned.get();
        }
        ASSERT_EQ(store->init(), 0);
        // Warm-up: every road once, so lazily made things exist before the
        // mark. The segment leaves one connection in the pool; handle 1 is
        // free again.
        const Segment s = recordSegment(*store, "/rec/warm.ts", segmentBytes);
        ASSERT_EQ(s.handle, 1) << describe(s);
        ASSERT_EQ(s.closeResult, 0) << describe(s);
        ASSERT_EQ(store->createDir("/rec/warm"), 0);
        std::vector<std::string> names;
        ASSERT_EQ(store->getFileList("/rec", names, ""), 1);
        before = takeResources();
    }

    void TearDown() override {
        if (location.empty()) return;
        held.reset();
        registry->deleteFileSystem(location);
    }

    virtual Scheme scheme() const { return Scheme::kPlain; }
    bool tls() const { return scheme() == Scheme::kFtps; }

    // The lines a new connection sends before "USER": none in clear,
    // "AUTH TLS" over TLS.
    std::vector<std::string> beforeLogin() const {
        return tls() ? std::vector<std::string>{"AUTH TLS"} : std::vector<std::string>{};
    }
    // The lines of a whole login: USER, PASS, and over TLS AUTH before them
    // and PBSZ and PROT after them.
    std::vector<std::string> login() const {
        if (!tls()) return {"USER rec", "PASS pw"};
        return {"AUTH TLS", "USER rec", "PASS pw", "PBSZ 0", "PROT P"};
    }

    // The recorder's recovery (uninit, init), then a whole segment, a new
    // directory and a listing; `handle` is the number the segment must get
    // (0: any).
    void recoverAndRecord(int handle) {
        EXPECT_EQ(store->uninit(), 0);
        ASSERT_EQ(store->init(), 0) << "init after the fault";
        const std::string path = "/rec/after.ts";
        const Segment s = recordSegment(*store, path, segmentBytes);
        if (handle > 0) {
            EXPECT_EQ(s.handle, handle) << describe(s);
        } else {
            EXPECT_GT(s.handle, 0) << describe(s);
        }
        EXPECT_EQ(s.closeResult, 0) << describe(s);
        EXPECT_EQ(server.file(path), std::optional<std::string>(segmentBytes));
        server.setReply("CWD /rec/after-dir", "550 No such directory");
        const size_t mark = server.commands().size();
        EXPECT_EQ(store->createDir("/rec/after-dir"), 0);
        EXPECT_EQ(tail(server.commands(), mark),
                  (std::vector<std::string>{"CWD /", "CWD /rec/", "CWD /", "CWD /rec/after-dir",
                                            "MKD /rec/after-dir"}));
        server.setListing("-rw-r--r-- 1 rec rec 42 Jan 15 10:31 after.ts\r\n");
        std::vector<std::string> names;
        EXPECT_EQ(store->getFileList("/rec", names, ""), 1);
        EXPECT_EQ(names, std::vector<std::string>{"after.ts"});
        EXPECT_TRUE(noGrowth(before, heapTolerance()));
    }

    // 256 KiB, plus what the in-process server keeps of this test: every
    // command line and every upload (twice, for the map and the list).
    size_t heapTolerance() const {
        size_t kept = 0;
        for (const std::string& upload : server.uploads()) kept += 2 * upload.size();
        return 256 * 1024 + kept + 256 * server.commands().size();
    }

    // Declared first: destroyed after the store, so its QUIT finds a server.
    ftptest::ScriptedFtpServer server;
    ftptest::TestCertificate certificate;
    // The store: owned in clear, held from the registry as an ftps store.
    FTPFileSystem* store = nullptr;
    std::unique_ptr<FTPFileSystem> owned;
    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    std::string location;
    std::unique_ptr<SafePointer<FTPFileSystem> > held;
    const std::string segmentBytes = patternBytes(100000, 7);
    Resources before;
};

// The same tests in clear and over TLS.
class ScriptedRoadBothWays : public ScriptedRoadTest, public ::testing::WithParamInterface<Scheme> {
protected:
    Scheme scheme() const override { return GetParam(); }
};

}  // namespace faulttest

#endif  // FTPDISK_TESTS_FAULTS_SCRIPTEDROAD_H
