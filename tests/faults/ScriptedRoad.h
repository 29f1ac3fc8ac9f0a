// A store on the scripted server, logged in and warmed up (one segment, one
// directory, one listing), with the process's resources taken afterwards;
// recoverAndRecord() runs the recorder's recovery and checks that the road
// works again and nothing grew.
#ifndef FTPDISK_TESTS_FAULTS_SCRIPTEDROAD_H
#define FTPDISK_TESTS_FAULTS_SCRIPTEDROAD_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FaultTestUtil.h"
#include "filesystem/FTPFileSystem.h"
#include "support/ScriptedFtpServer.h"

namespace faulttest {

class ScriptedRoadTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.reset(new FTPFileSystem(server.address().c_str(), "rec", "pw", 1024));
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
    std::unique_ptr<FTPFileSystem> store;
    const std::string segmentBytes = patternBytes(100000, 7);
    Resources before;
};

}  // namespace faulttest

#endif  // FTPDISK_TESTS_FAULTS_SCRIPTEDROAD_H
