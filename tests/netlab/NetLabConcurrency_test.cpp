// The network lab under load: as many connections at once as a recorder with
// 64 cameras holds (a control and a data connection each, plus spares), and
// conditions changed from another thread while transfers run.
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "netlab/RawClient.h"
#include "support/NetLab.h"
#include "support/ScriptedFtpServer.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::randomBytes;

using ftptest::NetLab;
using ftptest::NetLabCounters;
using ftptest::Traffic;
using ftptest::Way;
using labtest::Fd;
using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

// Counts arrivals and lets everyone go once `expected` arrived; a thread
// that waits longer than `limit` goes on anyway (and the test then fails on
// the counters), so a failed thread cannot hang the others.
class Barrier {
public:
    explicit Barrier(int expected) : expected_(expected) {}
    void arriveAndWait(Millis limit = Millis(60000)) {
        ++arrived_;
        Clock::time_point deadline = Clock::now() + limit;
        while (arrived_.load() < expected_ && Clock::now() < deadline)
            std::this_thread::sleep_for(Millis(1));
    }

private:
    const int expected_;
    std::atomic<int> arrived_{0};
};

// Writes all of `bytes` on an open upload; false when a write fails.
bool writeAll(FTPTool& tool, NetBuf* data, const std::string& bytes) {
    size_t done = 0;
    for (int rounds = 0; done < bytes.size() && rounds < 100000; ++rounds) {
        int n = tool.write(bytes.data() + done, static_cast<int>(bytes.size() - done), data);
        if (n < 0) return false;
        done += static_cast<size_t>(n);
    }
    return done == bytes.size();
}

std::string readAll(FTPTool& tool, const char* path, std::string* why) {
    NetBuf* data = nullptr;
    std::string text;
    if (tool.dataConnect(path, kFtpRetr, 'I', &data) == 0 || data == nullptr) {
        *why = std::string("RETR not started: ") + tool.getResponse();
        return text;
    }
    char chunk[8192];
    for (int rounds = 0; rounds < 100000; ++rounds) {
        int n = tool.read(chunk, sizeof chunk, data);
        if (n <= 0) {
            if (n < 0) *why = "read failed";
            break;
        }
        text.append(chunk, static_cast<size_t>(n));
    }
    if (tool.closeData(data) != 1 && why->empty())
        *why = std::string("RETR closing reply: ") + tool.getResponse();
    return text;
}

TEST(NetLabUnderLoad, ServesAControlAndADataConnectionFor64ClientsAtOnce) {
    constexpr int kClients = 64;
    constexpr int kSpares = 22;
    ftptest::ScriptedFtpServer server;
    NetLab lab(server.address());
    ASSERT_TRUE(lab.ok()) << lab.failure();
    lab.setRoundTrip(Millis(2));

    std::vector<std::unique_ptr<Fd>> spares;
    for (int i = 0; i < kSpares; ++i) {
        spares.push_back(std::make_unique<Fd>(labtest::connectTo(lab.port())));
        ASSERT_EQ(labtest::readLine(spares.back()->get()), "220 ready\r\n") << "spare " << i;
    }
    // Connected one after another (the scripted server's listen queue is
    // short), then driven by one thread each.
    std::vector<std::unique_ptr<FTPTool>> tools;
    for (int i = 0; i < kClients; ++i) {
        tools.push_back(std::make_unique<FTPTool>());
        ASSERT_EQ(tools.back()->connect(lab.address().c_str()), 1) << "client " << i;
        ASSERT_EQ(tools.back()->login("rec", "pw"), 1) << "client " << i;
    }
    std::vector<std::string> contents;
    for (int i = 0; i < kClients; ++i) contents.push_back(randomBytes(20000 + i, 100 + i));

    Barrier uploadsOpen(kClients);
    std::atomic<int> peakData{0};
    std::vector<std::string> failures(kClients);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            FTPTool& tool = *tools[i];
            std::string path = "/cam" + std::to_string(i) + ".bin";
            NetBuf* data = nullptr;
            bool opened = tool.dataConnect(path.c_str(), kFtpStor, 'I', &data) == 1;
            // Every upload is open before any is written: all control and
            // data connections pass the lab at the same time.
            uploadsOpen.arriveAndWait();
            int open = lab.counters().openData;
            int seen = peakData.load();
            while (open > seen && !peakData.compare_exchange_weak(seen, open)) {
            }
            if (!opened) {
                failures[i] = std::string("STOR not started: ") + tool.getResponse();
                return;
            }
            bool written = writeAll(tool, data, contents[i]);
            if (tool.closeData(data) != 1 || !written) {
                failures[i] = std::string("STOR failed: ") + tool.getResponse();
                return;
            }
            std::string why;
            std::string back = readAll(tool, path.c_str(), &why);
            if (!why.empty()) {
                failures[i] = why;
            } else if (back != contents[i]) {
                failures[i] = "read back " + std::to_string(back.size()) + " other bytes";
            }
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kClients; ++i) {
        EXPECT_EQ(failures[i], "") << "client " << i;
        EXPECT_EQ(server.file("/cam" + std::to_string(i) + ".bin"), contents[i]) << "client " << i;
    }
    EXPECT_EQ(peakData.load(), kClients);
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.accepted, static_cast<uint64_t>(kClients + kSpares));
    EXPECT_EQ(c.dataConnections, static_cast<uint64_t>(2 * kClients));
    EXPECT_EQ(c.passiveRewrites, static_cast<uint64_t>(2 * kClients));
    EXPECT_EQ(c.upstreamFailures, 0u);
    EXPECT_EQ(c.resets, 0u);
    EXPECT_EQ(c.openControl, kClients + kSpares);

    tools.clear();
    spares.clear();
    EXPECT_TRUE(lab.waitFor([](const NetLabCounters& n) { return n.openControl == 0; }));
}

TEST(NetLabUnderLoad, ConditionsChangedDuringTransfersKeepEveryByte) {
    ftptest::ScriptedFtpServer server;
    NetLab lab(server.address());
    ASSERT_TRUE(lab.ok()) << lab.failure();
    FTPTool tool;
    ASSERT_EQ(tool.connect(lab.address().c_str()), 1) << tool.getResponse();
    ASSERT_EQ(tool.login("rec", "pw"), 1) << tool.getResponse();

    std::atomic<bool> done{false};
    std::thread changer([&] {
        for (int i = 0; i < 100000 && !done.load(); ++i) {
            switch (i % 6) {
                case 0: lab.setRoundTrip(Millis(i % 4)); break;
                case 1: lab.setRate(i % 12 == 1 ? 0 : 20000000); break;
                case 2: lab.stall(Traffic::kAll, Way::kBoth, Millis(2)); break;
                case 3: lab.release(); break;
                case 4: lab.setMaxConnections(i % 2 == 0 ? 0 : 100); break;
                case 5: (void)lab.counters(); break;
            }
            std::this_thread::sleep_for(Millis(1));
        }
    });
    for (int k = 0; k < 4; ++k) {
        std::string content = randomBytes(200000, 50 + k);
        std::string path = "/r" + std::to_string(k);
        NetBuf* data = nullptr;
        ASSERT_EQ(tool.dataConnect(path.c_str(), kFtpStor, 'I', &data), 1) << tool.getResponse();
        EXPECT_TRUE(writeAll(tool, data, content));
        EXPECT_EQ(tool.closeData(data), 1) << tool.getResponse();
        EXPECT_EQ(server.file(path), content) << path;
        std::string why;
        EXPECT_EQ(readAll(tool, path.c_str(), &why), content) << path;
        EXPECT_EQ(why, "");
    }
    done = true;
    changer.join();
    EXPECT_EQ(lab.counters().dataConnections, 8u);
}

}  // namespace
