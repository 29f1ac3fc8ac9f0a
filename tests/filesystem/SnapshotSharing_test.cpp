// The snapshot calls share the store's main connection with path operations
// without the operation lock, on purpose: replies may go to the wrong caller.
// What must never happen is two threads reading into that connection's line
// buffer at once. Here a snapshot's closing reply and a path operation's
// replies are awaited on the same connection at the same moment, round after
// round; the run must stay clean under ThreadSanitizer and AddressSanitizer,
// and the store must work normally afterwards.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "filesystem/FTPFileSystemImpl.h"
#include "support/ScriptedFtpServer.h"

namespace {

using ftptest::Millis;
using ftptest::Reply;

TEST(SnapshotSharing,
     ASnapshotCloseAndAPathOperationAwaitingRepliesTogetherLeaveTheConnectionIntact) {
    ftptest::ScriptedFtpServer server;
    // The snapshot's closing reply and every directory reply come a little
    // late, so both threads are waiting on the connection when they arrive.
    Reply snapshot("150 Opening data connection");
    snapshot.finalDelay = Millis(150);
    server.setReply("STOR", snapshot);
    Reply slowCwd("250 Okay");
    slowCwd.delay = Millis(150);
    server.setReply("CWD", slowCwd);

    FTPFileSystemImpl store(server.address().c_str(), "rec", "pw", 1024);
    ASSERT_EQ(store.init(), 0);

    const std::string picture(4096, 'p');
    const int kRounds = 8;
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(store.snapshot_open(("/snap/" + std::to_string(round) + ".jpg").c_str(), 0), 0)
            << "round " << round;
        ASSERT_EQ(store.snapshot_write(picture.data(), static_cast<unsigned int>(picture.size())),
                  static_cast<int>(picture.size()));
        std::atomic<bool> go{false};
        int closed = -99;
        int made = -99;
        std::thread snapshotThread([&] {
            while (!go) std::this_thread::yield();
            closed = store.snapshot_close();
        });
        std::thread pathThread([&] {
            while (!go) std::this_thread::yield();
            made = store.createDir("/rec/day");
        });
        go = true;
        snapshotThread.join();
        pathThread.join();
        // Which reply each got is not defined; that each got a result is.
        EXPECT_TRUE(closed == 0 || closed == -1) << closed;
        EXPECT_TRUE(made == 0 || made == -1) << made;
    }
    // Replies may have gone astray; a fresh session is the recorder's way
    // back, and then every reply is its own again.
    EXPECT_EQ(store.uninit(), 0);
    server.clearReply("CWD");
    server.clearReply("STOR");
    ASSERT_EQ(store.init(), 0);
    const size_t mark = server.commands().size();
    EXPECT_EQ(store.createDir("/rec/other"), 0);
    const std::vector<std::string> all = server.commands();
    const std::vector<std::string> after(all.begin() + static_cast<long>(mark), all.end());
    EXPECT_EQ(after, (std::vector<std::string>{"CWD /", "CWD /rec/", "CWD /", "CWD /rec/other"}));
    EXPECT_EQ(server.uploads().size(), static_cast<size_t>(kRounds));
    for (const std::string& upload : server.uploads()) EXPECT_EQ(upload, picture);
}

}  // namespace
