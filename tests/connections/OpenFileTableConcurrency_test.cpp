// The open-file table used by several threads at once against the scripted
// server: a slow server delays only the camera that opens or closes, opens
// overlap, the one-open-per-path rule and the open-file limit hold for opens
// still in progress, and a close that races a read, a write or an aioReturn on
// the same handle waits for it instead of freeing what it uses. Run under tsan
// (label concurrency) as well as in every other build.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ConnectionsTestUtil.h"
#include "connections/FtpFileHandleManager.h"

namespace {

using conntest::eventually;
using conntest::joined;
using ftptest::Millis;
using ftptest::Reply;
using Clock = std::chrono::steady_clock;

size_t countOf(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::unique_ptr<FtpFileHandleManager> tableOn(const ftptest::ScriptedFtpServer& server,
                                              int handleLimit, int maxOpenFiles) {
    return std::unique_ptr<FtpFileHandleManager>(new FtpFileHandleManager(
        server.address().c_str(), "rec", "pw", 1, handleLimit, maxOpenFiles));
}

// Every later login on `server` is answered `late` after its "PASS".
void answerLoginsLate(ftptest::ScriptedFtpServer& server, Millis late) {
    Reply slowLogin("230 Logged in");
    slowLogin.delay = late;
    server.setReply("PASS", slowLogin);
}

// Opens every path on a thread of its own, all at once; the handles in the
// order of the paths.
std::vector<int> openFromThreads(FtpFileHandleManager& table,
                                 const std::vector<std::string>& paths) {
    std::vector<int> handles(paths.size(), 0);
    std::vector<std::thread> openers;
    for (size_t i = 0; i < paths.size(); ++i) {
        openers.emplace_back([&, i] { handles[i] = table.open(paths[i].c_str(), 2); });
    }
    for (std::thread& t : openers) t.join();
    return handles;
}

// What the store's write does: look the handle up, then write through it.
int writeThrough(FtpFileHandleManager& table, int handle, const char* bytes, size_t size) {
    SafePointer<FtpFileHandler> file;
    if (!table.getFileHandler(handle, file)) return -1;
    return file->write(bytes, static_cast<unsigned int>(size));
}

TEST(OpenFileTableConcurrency, AWriterGoesOnWhileAnotherFileOpensAndClosesOnASlowServer) {
    ftptest::ScriptedFtpServer server;
    auto table = tableOn(server, 16, 16);
    const int writing = table->open("/cam1/0001.dat", 2);
    ASSERT_EQ(writing, 1);

    // From now on every new login is answered 2.5 s late and every closing
    // reply 2 s late: the other camera's open and close each take that long.
    answerLoginsLate(server, Millis(2500));
    Reply slowClose("150 Opening data connection");
    slowClose.finalDelay = Millis(2000);
    server.setReply("STOR", slowClose);

    std::atomic<bool> rotating{true};
    std::atomic<int> rotations{0};
    std::thread other([&] {
        for (int segment = 1; segment <= 2; ++segment) {
            const std::string path = "/cam2/000" + std::to_string(segment) + ".dat";
            const int h = table->open(path.c_str(), 2);
            if (h > 0 && table->close(h) == 0) ++rotations;
        }
        rotating = false;
    });

    // The writer calls write every 10 ms while the other camera rotates
    // (about 9 s). On a table that held its lock across the other camera's
    // network work, single writes waited the whole 2.5 s.
    const std::string chunk(1024, 'v');
    double longest = 0;
    int writes = 0;
    const auto started = Clock::now();
    while (rotating && secondsSince(started) < 60) {
        const auto before = Clock::now();
        ASSERT_EQ(writeThrough(*table, writing, chunk.data(), chunk.size()),
                  static_cast<int>(chunk.size()));
        longest = std::max(longest, secondsSince(before));
        ++writes;
        std::this_thread::sleep_for(Millis(10));
    }
    other.join();
    EXPECT_EQ(rotations.load(), 2);
    // The bound is loose on purpose (the scripted delays are what a stuck
    // writer would show); bench/recorder_load measures the real latency.
    EXPECT_LT(longest, 1.0) << "a write waited for another file's network work";
    EXPECT_GT(writes, 100);
    server.clearReply("STOR");
    EXPECT_EQ(table->close(writing), 0);
    const auto file = server.file("/cam1/0001.dat");
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ(file->size(), chunk.size() * static_cast<size_t>(writes));
}

TEST(OpenFileTableConcurrency, TwoOpensOnSlowLoginsOverlapInTime) {
    ftptest::ScriptedFtpServer server;
    auto table = tableOn(server, 16, 16);
    answerLoginsLate(server, Millis(1500));

    std::atomic<int> done{0};
    std::vector<int> handles(2, 0);
    std::vector<std::thread> openers;
    for (int i = 0; i < 2; ++i) {
        openers.emplace_back([&, i] {
            handles[i] = table->open(("/cam" + std::to_string(i) + ".dat").c_str(), 2);
            ++done;
        });
    }
    // Both logins reach the server while neither open has finished: the
    // second did not wait for the first one's network work.
    EXPECT_TRUE(eventually([&] { return countOf(server.commands(), "PASS pw") == 2; }))
        << joined(server.commands());
    EXPECT_EQ(done.load(), 0) << "both logins are still being answered";
    for (std::thread& t : openers) t.join();
    std::sort(handles.begin(), handles.end());
    EXPECT_EQ(handles, (std::vector<int>{1, 2}));
}

TEST(OpenFileTableConcurrency, ConcurrentOpensOfOnePathGiveExactlyOneHandle) {
    ftptest::ScriptedFtpServer server;
    auto table = tableOn(server, 64, 64);
    answerLoginsLate(server, Millis(500));

    const int kThreads = 8;
    const std::vector<int> handles =
        openFromThreads(*table, std::vector<std::string>(kThreads, "/cam1/same.dat"));
    EXPECT_EQ(std::count(handles.begin(), handles.end(), -1), kThreads - 1);
    EXPECT_EQ(std::count(handles.begin(), handles.end(), 1), 1);
    // The refused opens never reached the server: one login, one STOR.
    EXPECT_EQ(server.connectionCount(), 1);
    EXPECT_EQ(countOf(server.commands(), "STOR /cam1/same.dat"), 1u);
    EXPECT_EQ(table->close(1), 0);
}

TEST(OpenFileTableConcurrency, ConcurrentOpensNeverExceedTheOpenFileLimit) {
    ftptest::ScriptedFtpServer server;
    auto table = tableOn(server, 64, 4);
    answerLoginsLate(server, Millis(500));

    std::vector<std::string> paths;
    for (int i = 0; i < 10; ++i) paths.push_back("/cam" + std::to_string(i) + ".dat");
    const std::vector<int> handles = openFromThreads(*table, paths);
    std::vector<int> opened;
    for (int h : handles) {
        if (h != -1) opened.push_back(h);
    }
    std::sort(opened.begin(), opened.end());
    EXPECT_EQ(opened, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(server.connectionCount(), 4) << "refused opens connect nothing";
    for (int h : opened) EXPECT_EQ(table->close(h), 0);
}

TEST(OpenFileTableConcurrency, ABurstOfOpensConnectsAtMostEightNewConnectionsAtOnce) {
    ftptest::ScriptedFtpServer server;
    // Greetings and logins are slow, so the first connections are still
    // logging in when the burst's others would connect.
    Reply slowGreeting("220 ready");
    slowGreeting.delay = Millis(300);
    server.setGreeting(slowGreeting);
    answerLoginsLate(server, Millis(300));
    auto table = tableOn(server, 64, 64);

    const int kCameras = 20;
    std::vector<int> handles(kCameras, 0);
    std::vector<std::thread> cameras;
    for (int i = 0; i < kCameras; ++i) {
        cameras.emplace_back([&, i] {
            handles[i] = table->open(("/cam" + std::to_string(i) + "/0001.dat").c_str(), 2);
        });
    }
    // No login can end before its PASS is answered (300 ms after it came):
    // until then the gate lets no ninth connection in.
    ASSERT_TRUE(eventually([&] { return countOf(server.commands(), "PASS pw") >= 1; }));
    EXPECT_LE(server.connectionCount(), static_cast<int>(FtpFileHandleManager::kConnectsInFlight));
    for (std::thread& t : cameras) t.join();
    std::sort(handles.begin(), handles.end());
    for (int i = 0; i < kCameras; ++i) EXPECT_EQ(handles[i], i + 1);
    EXPECT_EQ(server.connectionCount(), kCameras);
    for (int h : handles) EXPECT_EQ(table->close(h), 0);
}

TEST(OpenFileTableConcurrency, AWriterGoesOnWhileTheMonitorQuitsAConnectionThatNeverAnswers) {
    hostcontrol::useManualClock(1000.0, 1000.0);
    {
        ftptest::ScriptedFtpServer server;
        auto table = tableOn(server, 16, 16);
        const int writing = table->open("/cam1/0001.dat", 2);
        ASSERT_EQ(writing, 1);
        ASSERT_EQ(table->open("/cam2/0001.dat", 2), 2);
        ASSERT_EQ(table->close(2), 0);
        ASSERT_EQ(table->getFreeToolBuff()->idleCount(), 1u);
        ASSERT_TRUE(conntest::waitForPausingThreads(1));

        Reply never("221 Goodbye");
        never.silent = true;
        server.setReply("QUIT", never);
        hostcontrol::advanceClock(31.0);
        ASSERT_TRUE(eventually([&] { return countOf(server.commands(), "QUIT") == 1; }));

        // The monitor now waits (up to the 3 s readiness limit) for an answer
        // that never comes. Writes and opens do not wait with it.
        const std::string chunk(1024, 'w');
        double longest = 0;
        for (int i = 0; i < 20; ++i) {
            const auto before = Clock::now();
            ASSERT_EQ(writeThrough(*table, writing, chunk.data(), chunk.size()), 1024);
            longest = std::max(longest, secondsSince(before));
        }
        const int opened = table->open("/cam2/0002.dat", 2);
        EXPECT_EQ(opened, 2);
        EXPECT_EQ(hostcontrol::waitingThreads(), 0) << "the monitor is still waiting for QUIT";
        EXPECT_LT(longest, 1.0);
        server.clearReply("QUIT");
        EXPECT_EQ(table->close(opened), 0);
        EXPECT_EQ(table->close(writing), 0);
    }
    hostcontrol::useSystemClock();
}

// --- close racing a transfer step on the same handle -----------------------

// The kernel's word on a thread of this process: true while it sleeps in a
// system call (state S or D), which is where a blocked send, recv or wait is.
bool threadIsBlocked(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    const std::string::size_type close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) return false;
    const char state = line[close + 2];
    return state == 'S' || state == 'D';
}

pid_t currentThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

enum class Step { kWrite, kRead, kAioReturn };

const char* stepName(Step step) {
    switch (step) {
        case Step::kWrite: return "write";
        case Step::kRead: return "read";
        case Step::kAioReturn: return "aioReturn";
    }
    return "?";
}

// A transfer step blocks on a stalled data connection; another thread closes
// the handle meanwhile. The close must wait for the step (nothing it frees is
// touched: ASan and TSan would report it), the step ends with what the
// connection gave it, and every later step on the handler fails with -1.
void closeRacesA(Step step) {
    SCOPED_TRACE(stepName(step));
    ftptest::ScriptedFtpServer server;
    // 32 MiB: more than the two socket buffers of a loopback connection hold,
    // so an upload the server does not read blocks in send.
    const std::string big(32u << 20, 'r');
    Reply stalled("150 Opening data connection");
    stalled.dataStall = Millis(20000);
    const bool reading = step == Step::kRead;
    if (reading) {
        stalled.body = std::string("the clip");
        server.setReply("RETR", stalled);
        server.putFile("/clip.dat", "unused");
    } else {
        server.setReply("STOR", stalled);
    }
    auto table = tableOn(server, 16, 16);
    const int handle = table->open("/clip.dat", reading ? 1 : 2);
    ASSERT_EQ(handle, 1);
    SafePointer<FtpFileHandler> file;
    ASSERT_TRUE(table->getFileHandler(handle, file));
    if (step == Step::kAioReturn) {
        // Fill the socket so that it stays unwritable while stalled.
        int sent = 0;
        for (int i = 0; i < 64 && sent >= 0; ++i) sent = file->aioWrite(big.data(), 1u << 20);
    }

    std::atomic<pid_t> stepThread{0};
    std::atomic<bool> stepDone{false};
    int stepResult = -99;
    char readBuffer[64];
    std::thread stepper([&] {
        stepThread = currentThreadId();
        switch (step) {
            case Step::kWrite:
                stepResult = file->write(big.data(), static_cast<unsigned int>(big.size()));
                break;
            case Step::kRead: stepResult = file->read(readBuffer, sizeof readBuffer); break;
            case Step::kAioReturn: stepResult = file->aioReturn(10000); break;
        }
        stepDone = true;
    });
    ASSERT_TRUE(eventually([&] { return stepThread != 0 && threadIsBlocked(stepThread); }));

    std::atomic<pid_t> closeThread{0};
    std::atomic<int> closed{-99};
    std::thread closer([&] {
        closeThread = currentThreadId();
        closed = table->close(handle);
    });
    ASSERT_TRUE(eventually([&] { return closeThread != 0 && threadIsBlocked(closeThread); }));
    // Only now may the transfer go on.
    server.releaseDataStalls();
    stepper.join();
    closer.join();

    switch (step) {
        case Step::kWrite:
            EXPECT_EQ(stepResult, static_cast<int>(big.size()))
                << "the write ran to its end: the close did not cut it off";
            break;
        case Step::kRead:
            EXPECT_EQ(stepResult, 8) << "the read got the bytes: the close did not cut it off";
            EXPECT_EQ(std::string(readBuffer, 8), "the clip");
            break;
        case Step::kAioReturn:
            EXPECT_EQ(stepResult, 0) << "the socket became writable: the close waited";
            break;
    }
    EXPECT_TRUE(stepDone.load());
    // A late call on the closed handler fails and touches nothing.
    EXPECT_EQ(file->write("x", 1), -1);
    EXPECT_EQ(file->read(readBuffer, sizeof readBuffer), -1);
    EXPECT_EQ(file->aioWrite("x", 1), -1);
    EXPECT_EQ(file->aioReturn(10), -1);
    EXPECT_EQ(file->close(), -1);
    SafePointer<FtpFileHandler> gone;
    EXPECT_FALSE(table->getFileHandler(handle, gone));
    if (step == Step::kWrite) {
        EXPECT_EQ(closed.load(), 0);
        const auto stored = server.file("/clip.dat");
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(stored->size(), big.size());
    }
}

TEST(OpenFileTableConcurrency, ACloseOnAnotherThreadWaitsForARunningWrite) {
    closeRacesA(Step::kWrite);
}

TEST(OpenFileTableConcurrency, ACloseOnAnotherThreadWaitsForARunningRead) {
    closeRacesA(Step::kRead);
}

TEST(OpenFileTableConcurrency, ACloseOnAnotherThreadWaitsForARunningAioReturn) {
    closeRacesA(Step::kAioReturn);
}

}  // namespace
