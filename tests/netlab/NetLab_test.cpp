// The network lab between FTPTool (or a raw socket) and the scripted server:
// bytes pass unchanged, passive replies point to the lab, and each condition
// (latency, rate, stall, reset, limit, swallowed greeting, rewriter, link
// down, drop all) shows at the client; the options fixed at construction
// (recording, another listen address, forwarded ports, unread replies) do
// what they say. Timings are asserted as lower bounds
// only.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "netlab/RawClient.h"
#include "support/FdCount.h"
#include "support/NetLab.h"
#include "support/ScriptedFtpServer.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::randomBytes;

using ftptest::LinkDownMode;
using ftptest::NetLab;
using ftptest::NetLabCounters;
using ftptest::Reply;
using ftptest::ReplyEdit;
using ftptest::ResetScope;
using ftptest::Traffic;
using ftptest::Way;
using labtest::connectTo;
using labtest::End;
using labtest::Fd;
using labtest::readFor;
using labtest::readLine;
using labtest::sendText;
using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;
using Lines = std::vector<std::string>;

Millis since(Clock::time_point start) {
    return std::chrono::duration_cast<Millis>(Clock::now() - start);
}

// Stores `bytes` over a fresh data connection; "" on success, else why not.
std::string storeFile(FTPTool& tool, const char* path, const std::string& bytes) {
    NetBuf* data = nullptr;
    if (tool.dataConnect(path, kFtpStor, 'I', &data) == 0 || data == nullptr)
        return std::string("STOR not started: ") + tool.getResponse();
    size_t done = 0;
    for (int rounds = 0; done < bytes.size() && rounds < 100000; ++rounds) {
        int n = tool.write(bytes.data() + done, static_cast<int>(bytes.size() - done), data);
        if (n < 0) {
            tool.closeData(data);
            return "write failed after " + std::to_string(done) + " bytes";
        }
        done += static_cast<size_t>(n);
    }
    if (tool.closeData(data) != 1) return std::string("closing reply: ") + tool.getResponse();
    return done == bytes.size() ? "" : "not every byte written";
}

// Reads a whole transfer (RETR or LIST) into *text; "" on success.
std::string readTransfer(FTPTool& tool, const char* path, int type, std::string* text) {
    NetBuf* data = nullptr;
    if (tool.dataConnect(path, type, 'I', &data) == 0 || data == nullptr)
        return std::string("transfer not started: ") + tool.getResponse();
    char chunk[8192];
    for (int rounds = 0; rounds < 100000; ++rounds) {
        int n = tool.read(chunk, sizeof chunk, data);
        if (n < 0) {
            tool.closeData(data);
            return "read failed after " + std::to_string(text->size()) + " bytes";
        }
        if (n == 0) break;
        text->append(chunk, static_cast<size_t>(n));
    }
    if (tool.closeData(data) != 1) return std::string("closing reply: ") + tool.getResponse();
    return "";
}

// Reads a data connection until the read fails or the data ends; *last gets
// the last read's result (0 end of data, -1 error).
std::string readUntilEnd(FTPTool& tool, NetBuf* data, int* last) {
    std::string got;
    char chunk[4096];
    *last = 0;
    for (int rounds = 0; rounds < 100000; ++rounds) {
        *last = tool.read(chunk, sizeof chunk, data);
        if (*last <= 0) break;
        got.append(chunk, static_cast<size_t>(*last));
    }
    return got;
}

// "227 Entering Passive Mode 127,0,0,1,4,1" -> 1025 (the numbers may stand
// in parentheses or not); 0 when there are no six numbers.
uint16_t passivePort(const std::string& line) {
    size_t at = line.find("127,");
    if (at == std::string::npos) return 0;
    unsigned h[4], p[2];
    if (std::sscanf(line.c_str() + at, "%u,%u,%u,%u,%u,%u", &h[0], &h[1], &h[2], &h[3], &p[0],
                    &p[1]) != 6)
        return 0;
    return static_cast<uint16_t>(p[0] * 256 + p[1]);
}

class NetLabTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(lab.ok()) << lab.failure(); }

    void connectAndLogin(FTPTool& t) {
        ASSERT_EQ(t.connect(lab.address().c_str()), 1) << t.getResponse();
        ASSERT_EQ(t.login("rec", "pw"), 1) << t.getResponse();
    }

    // A raw control connection through the lab whose greeting was read.
    int rawSession() {
        int fd = connectTo(lab.port());
        EXPECT_GE(fd, 0) << std::strerror(errno);
        if (fd >= 0) {
            EXPECT_EQ(readLine(fd), "220 ready\r\n");
        }
        return fd;
    }

    bool waitForCounters(const std::function<bool(const NetLabCounters&)>& condition) {
        return lab.waitFor(condition, Millis(5000));
    }

    ftptest::ScriptedFtpServer server;
    NetLab lab{server.address()};
    FTPTool tool;
};

TEST_F(NetLabTest, CommandsAndRepliesPassUnchanged) {
    connectAndLogin(tool);
    ASSERT_EQ(tool.Sendcmd("NOOP", '2'), 1) << tool.getResponse();
    EXPECT_STREQ(tool.getResponse(), "200 OK\n");
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw", "NOOP"}));
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.accepted, 1u);
    EXPECT_EQ(c.openControl, 1);
    EXPECT_EQ(c.controlToServer, std::string("USER rec\r\nPASS pw\r\nNOOP\r\n").size());
    EXPECT_EQ(
        c.controlToClient,
        std::string("220 ready\r\n331 Password required\r\n230 Logged in\r\n200 OK\r\n").size());
    EXPECT_EQ(c.dataConnections, 0u);
}

TEST_F(NetLabTest, OddBytesAndRepliesInPiecesPassUnchanged) {
    Reply greeting("220-first line\n220 second");
    greeting.controlPieceBytes = 3;
    greeting.controlPieceDelay = Millis(5);
    server.setGreeting(greeting);
    // Lines that start like a passive reply but are not one, a NUL and bytes
    // above 127, a bare LF.
    std::string odd = "200-odd ";
    odd += '\x01';
    odd += '\xfe';
    odd += '\0';
    odd += " bytes\r\n22\r\n2270 no numbers here\r\n227-(1,2,3)\n200 done\r\n";
    Reply reply(odd);
    reply.raw = true;
    reply.controlPieceBytes = 2;
    server.setReply("NOOP", reply);

    Fd fd(connectTo(lab.port()));
    ASSERT_GE(fd.get(), 0);
    std::string greetingBytes;
    EXPECT_EQ(readFor(fd.get(), 28, Millis(5000), &greetingBytes), End::kEnough);
    EXPECT_EQ(greetingBytes, "220-first line\r\n220 second\r\n");
    ASSERT_TRUE(sendText(fd.get(), "NOOP\r\n"));
    std::string got;
    EXPECT_EQ(readFor(fd.get(), odd.size(), Millis(5000), &got), End::kEnough);
    EXPECT_EQ(got, odd);
    EXPECT_EQ(lab.counters().passiveRewrites, 0u);
}

TEST_F(NetLabTest, PassiveReplyNamesALabListenerThatLeadsToTheServer) {
    server.setReply("PASV", Reply("227 Entering Passive Mode ({pasv}) and more"));
    server.setListing("a\r\nb\r\n");
    Fd control(rawSession());
    ASSERT_TRUE(sendText(control.get(), "PASV\r\n"));
    std::string line = readLine(control.get());
    EXPECT_EQ(line.rfind("227 Entering Passive Mode (127,0,0,1,", 0), 0u) << line;
    EXPECT_NE(line.find(") and more\r\n"), std::string::npos) << line;
    uint16_t port = passivePort(line);
    ASSERT_NE(port, 0) << line;
    EXPECT_NE(port, server.port());
    EXPECT_EQ(lab.counters().passiveRewrites, 1u);

    Fd data(connectTo(port));
    ASSERT_GE(data.get(), 0) << std::strerror(errno);
    ASSERT_TRUE(sendText(control.get(), "LIST\r\n"));
    EXPECT_EQ(readLine(control.get()), "150 Opening data connection\r\n");
    std::string listing;
    EXPECT_EQ(readFor(data.get(), 0, Millis(5000), &listing), End::kEof);
    EXPECT_EQ(listing, "a\r\nb\r\n");
    EXPECT_EQ(readLine(control.get()), "226 Transfer complete\r\n");
    EXPECT_EQ(server.dataConnectionCount(), 1);
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.dataConnections, 1u);
    EXPECT_EQ(c.dataToClient, 6u);
}

TEST_F(NetLabTest, AMultiLinePassiveReplyInPiecesWithoutParenthesesIsRewritten) {
    Reply pasv("227-Passive mode follows\n227 Entering Passive Mode {pasv}");
    pasv.controlPieceBytes = 2;
    pasv.controlPieceDelay = Millis(2);
    server.setReply("PASV", pasv);
    server.setListing("x\r\n");
    Fd control(rawSession());
    ASSERT_TRUE(sendText(control.get(), "PASV\r\n"));
    EXPECT_EQ(readLine(control.get()), "227-Passive mode follows\r\n");
    std::string line = readLine(control.get());
    EXPECT_EQ(line.rfind("227 Entering Passive Mode 127,0,0,1,", 0), 0u) << line;
    uint16_t port = passivePort(line);
    ASSERT_NE(port, 0) << line;
    Fd data(connectTo(port));
    ASSERT_GE(data.get(), 0);
    ASSERT_TRUE(sendText(control.get(), "LIST\r\n"));
    std::string listing;
    EXPECT_EQ(readFor(data.get(), 0, Millis(5000), &listing), End::kEof);
    EXPECT_EQ(listing, "x\r\n");
    EXPECT_EQ(lab.counters().dataConnections, 1u);
}

TEST_F(NetLabTest, StorRetrAndListThroughTheLabArriveByteForByte) {
    const std::string upload = randomBytes(300000, 7);
    const std::string download = randomBytes(200000, 8);
    const std::string listing = "-rw-r--r-- 1 rec rec 3 Jan 1 00:00 a.bin\r\n";
    server.putFile("/down.bin", download);
    server.setListing(listing);
    connectAndLogin(tool);

    EXPECT_EQ(storeFile(tool, "/up.bin", upload), "");
    EXPECT_EQ(server.file("/up.bin"), upload);
    std::string got;
    EXPECT_EQ(readTransfer(tool, "/down.bin", kFtpRetr, &got), "");
    EXPECT_EQ(got, download);
    std::string list;
    EXPECT_EQ(readTransfer(tool, "/", kFtpList, &list), "");
    EXPECT_EQ(list, listing);

    EXPECT_EQ(server.dataConnectionCount(), 3);
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.dataConnections, 3u);
    EXPECT_EQ(c.passiveRewrites, 3u);
    EXPECT_EQ(c.dataToServer, upload.size());
    EXPECT_EQ(c.dataToClient, download.size() + listing.size());
    EXPECT_EQ(c.resets, 0u);
}

TEST_F(NetLabTest, ARoundTripDelaysEveryCommand) {
    lab.setRoundTrip(Millis(200));
    Clock::time_point start = Clock::now();
    connectAndLogin(tool);
    // Greeting one way, then USER and PASS both ways.
    EXPECT_GE(since(start).count(), 100 + 200 + 200);
    start = Clock::now();
    ASSERT_EQ(tool.Sendcmd("NOOP", '2'), 1);
    EXPECT_GE(since(start).count(), 200);
}

TEST_F(NetLabTest, LatencyOnDataDelaysTheDownload) {
    server.putFile("/f", "some bytes");
    lab.setLatency(Millis(300), Way::kServerToClient, Traffic::kData);
    connectAndLogin(tool);
    Clock::time_point start = Clock::now();
    std::string got;
    EXPECT_EQ(readTransfer(tool, "/f", kFtpRetr, &got), "");
    EXPECT_EQ(got, "some bytes");
    EXPECT_GE(since(start).count(), 300);
}

TEST_F(NetLabTest, ARateCapMakesBytesTakeAtLeastTheirTimeOnTheLink) {
    const std::string download = randomBytes(150000, 3);
    const std::string upload = randomBytes(100000, 4);
    server.putFile("/down.bin", download);
    connectAndLogin(tool);

    lab.setRate(100000, Way::kServerToClient);
    Clock::time_point start = Clock::now();
    std::string got;
    EXPECT_EQ(readTransfer(tool, "/down.bin", kFtpRetr, &got), "");
    EXPECT_EQ(got, download);
    EXPECT_GE(since(start).count(), 1500);

    lab.setRate(0, Way::kServerToClient);
    lab.setRate(100000, Way::kClientToServer);
    start = Clock::now();
    EXPECT_EQ(storeFile(tool, "/up.bin", upload), "");
    EXPECT_EQ(server.file("/up.bin"), upload);
    EXPECT_GE(since(start).count(), 1000);
}

TEST_F(NetLabTest, ResetAfterServerBytesDeliversExactlyThoseThenAnError) {
    const std::string content = randomBytes(50000, 5);
    server.putFile("/f", content);
    connectAndLogin(tool);
    lab.resetAfter(1000, Traffic::kData, Way::kServerToClient);
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/f", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    int last = 0;
    std::string got = readUntilEnd(tool, data, &last);
    EXPECT_EQ(got.size(), 1000u);
    EXPECT_EQ(got, content.substr(0, 1000));
    EXPECT_EQ(last, -1) << "a reset, not a clean end of the data";
    tool.closeData(data);
    EXPECT_EQ(lab.counters().resets, 1u);

    // The rule was for the next connection only.
    std::string whole;
    EXPECT_EQ(readTransfer(tool, "/f", kFtpRetr, &whole), "");
    EXPECT_EQ(whole, content);
    EXPECT_EQ(lab.counters().resets, 1u);
}

TEST_F(NetLabTest, ResetOnEveryConnectionCutsEachUntilCleared) {
    const std::string content = randomBytes(20000, 6);
    server.putFile("/f", content);
    connectAndLogin(tool);
    lab.resetAfter(2000, Traffic::kData, Way::kServerToClient, ResetScope::kEveryConnection);
    for (int i = 0; i < 2; ++i) {
        NetBuf* data = nullptr;
        ASSERT_EQ(tool.dataConnect("/f", kFtpRetr, 'I', &data), 1) << tool.getResponse();
        int last = 0;
        EXPECT_EQ(readUntilEnd(tool, data, &last), content.substr(0, 2000)) << "transfer " << i;
        EXPECT_EQ(last, -1);
        tool.closeData(data);
    }
    lab.clearResets();
    std::string whole;
    EXPECT_EQ(readTransfer(tool, "/f", kFtpRetr, &whole), "");
    EXPECT_EQ(whole, content);
    EXPECT_EQ(lab.counters().resets, 2u);
}

TEST_F(NetLabTest, ResetAfterClientBytesStoresExactlyThoseAndTheWriterFails) {
    // More than every buffer on the way can hold, so the writer meets the
    // reset.
    const std::string content = randomBytes(16 << 20, 9);
    connectAndLogin(tool);
    lab.resetAfter(3000, Traffic::kData, Way::kClientToServer);
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/up", kFtpStor, 'I', &data), 1) << tool.getResponse();
    size_t done = 0;
    bool failed = false;
    for (int rounds = 0; done < content.size() && rounds < 100000; ++rounds) {
        int n = tool.write(content.data() + done,
                           static_cast<int>(std::min<size_t>(65536, content.size() - done)), data);
        if (n < 0) {
            failed = true;
            break;
        }
        done += static_cast<size_t>(n);
    }
    EXPECT_TRUE(failed) << "every one of " << content.size() << " bytes was taken";
    tool.closeData(data);
    std::vector<std::string> uploads;
    for (int i = 0; i < 500 && uploads.empty(); ++i) {
        uploads = server.uploads();
        if (uploads.empty()) std::this_thread::sleep_for(Millis(10));
    }
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].size(), 3000u);
    EXPECT_TRUE(uploads[0] == content.substr(0, 3000));
    EXPECT_EQ(lab.counters().resets, 1u);
}

TEST_F(NetLabTest, ResetOnControlCutsTheGreetingAfterExactlyNBytes) {
    lab.resetAfter(5, Traffic::kControl, Way::kServerToClient);
    Fd cut(connectTo(lab.port()));
    ASSERT_GE(cut.get(), 0);
    std::string got;
    EXPECT_EQ(readFor(cut.get(), 0, Millis(5000), &got), End::kReset);
    EXPECT_EQ(got, "220 r");

    lab.resetAfter(0, Traffic::kControl, Way::kClientToServer);
    Fd atOnce(connectTo(lab.port()));
    ASSERT_GE(atOnce.get(), 0);
    std::string none;
    EXPECT_EQ(readFor(atOnce.get(), 0, Millis(5000), &none), End::kReset);
    EXPECT_EQ(none, "");

    Fd whole(rawSession());
    EXPECT_EQ(lab.counters().resets, 2u);
}

TEST_F(NetLabTest, TheConnectionLimitTurnsAwayTheNextClientWithOneLine) {
    lab.setMaxConnections(2);
    FTPTool first, second;
    connectAndLogin(first);
    connectAndLogin(second);
    Fd third(connectTo(lab.port()));
    ASSERT_GE(third.get(), 0);
    std::string got;
    EXPECT_EQ(readFor(third.get(), 0, Millis(5000), &got), End::kEof);
    EXPECT_EQ(got, "421 Too many connections (lab)\r\n");
    EXPECT_EQ(server.connectionCount(), 2);

    lab.setMaxConnections(2, "421 Busy\r\n");
    Fd fourth(connectTo(lab.port()));
    ASSERT_GE(fourth.get(), 0);
    std::string busy;
    EXPECT_EQ(readFor(fourth.get(), 0, Millis(5000), &busy), End::kEof);
    EXPECT_EQ(busy, "421 Busy\r\n");

    EXPECT_EQ(first.quit(), 1);
    EXPECT_TRUE(waitForCounters([](const NetLabCounters& c) { return c.openControl == 1; }));
    FTPTool again;
    connectAndLogin(again);
    EXPECT_EQ(server.connectionCount(), 3);
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.accepted, 5u);
    EXPECT_EQ(c.refused, 2u);
}

TEST_F(NetLabTest, ASwallowedGreetingLeavesTheClientWaiting) {
    lab.setSwallowGreeting(true);
    Fd raw(connectTo(lab.port()));
    ASSERT_GE(raw.get(), 0);
    std::string got;
    EXPECT_EQ(readFor(raw.get(), 0, Millis(300), &got), End::kSilent);
    EXPECT_EQ(got, "");
    // The server did greet; later replies pass.
    ASSERT_TRUE(sendText(raw.get(), "NOOP\r\n"));
    EXPECT_EQ(readLine(raw.get()), "200 OK\r\n");

    // FTPTool waits its 3 s for the greeting, then gives up.
    EXPECT_EQ(tool.connect(lab.address().c_str()), 0);
    EXPECT_EQ(server.connectionCount(), 2);

    lab.setSwallowGreeting(false);
    FTPTool again;
    connectAndLogin(again);
}

TEST_F(NetLabTest, TheRewriterCanAnnounceAddressesNobodyListensOn) {
    // A port that is bound but not listening refuses connections.
    Fd bound(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(bound.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::getsockname(bound.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    unsigned closedPort = ntohs(address.sin_port);
    server.putFile("/f", "x");
    connectAndLogin(tool);

    for (unsigned port : {0u, closedPort}) {
        std::string announced = "227 Entering Passive Mode (127,0,0,1," +
                                std::to_string(port / 256) + "," + std::to_string(port % 256) + ")";
        lab.setReplyRewriter([announced](const std::string& line) -> std::optional<ReplyEdit> {
            if (line.rfind("227", 0) == 0) return ReplyEdit{announced + "\r\n", false};
            return std::nullopt;
        });
        NetBuf* data = nullptr;
        EXPECT_EQ(tool.dataConnect("/f", kFtpRetr, 'I', &data), 0) << announced;
        EXPECT_EQ(data, nullptr);
    }
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.passiveRewrites, 0u);
    EXPECT_EQ(c.dataConnections, 0u);
}

TEST_F(NetLabTest, TheRewriterCanTurnAReplyIntoAClosing421) {
    lab.setReplyRewriter([](const std::string& line) -> std::optional<ReplyEdit> {
        if (line == "200 OK") return ReplyEdit{"421 Service closing (lab)\r\n", true};
        return std::nullopt;
    });
    Fd raw(rawSession());
    ASSERT_TRUE(sendText(raw.get(), "NOOP\r\n"));
    std::string got;
    EXPECT_EQ(readFor(raw.get(), 0, Millis(5000), &got), End::kEof);
    EXPECT_EQ(got, "421 Service closing (lab)\r\n");
    EXPECT_TRUE(server.waitForClosedConnections(1));
}

TEST_F(NetLabTest, ARewriterThatKeepsLinesSeesEveryLineAndLeavesThePassiveRewrite) {
    std::mutex seenMutex;
    Lines seen;
    lab.setReplyRewriter([&](const std::string& line) -> std::optional<ReplyEdit> {
        std::lock_guard<std::mutex> lock(seenMutex);
        seen.push_back(line);
        return std::nullopt;
    });
    server.putFile("/f", "content");
    connectAndLogin(tool);
    std::string got;
    EXPECT_EQ(readTransfer(tool, "/f", kFtpRetr, &got), "");
    EXPECT_EQ(got, "content");
    EXPECT_EQ(lab.counters().passiveRewrites, 1u);
    lab.setReplyRewriter(nullptr);
    std::lock_guard<std::mutex> lock(seenMutex);
    ASSERT_EQ(seen.size(), 7u);
    EXPECT_EQ(seen[0], "220 ready");
    EXPECT_EQ(seen[3], "200 Type set");
    EXPECT_EQ(seen[4].rfind("227 Entering Passive Mode (127,0,0,1,", 0), 0u) << seen[4];
    EXPECT_EQ(seen[6], "226 Transfer complete");
}

TEST_F(NetLabTest, TheRewriterMayDropEveryConnection) {
    // Events asked for on the lab's own thread are carried out after the
    // current turn rather than waited for.
    std::atomic<int> reported{0};
    lab.setReplyRewriter([&](const std::string& line) -> std::optional<ReplyEdit> {
        if (line == "200 OK") reported = lab.dropAll();
        return std::nullopt;
    });
    Fd raw(rawSession());
    ASSERT_TRUE(sendText(raw.get(), "NOOP\r\n"));
    std::string got;
    EXPECT_EQ(readFor(raw.get(), 0, Millis(5000), &got), End::kReset) << got;
    EXPECT_EQ(reported.load(), 1);
    EXPECT_EQ(lab.counters().resets, 1u);
}

TEST_F(NetLabTest, LinkDownRefusingRefusesNewAndResetsOpenConnectionsUntilUp) {
    connectAndLogin(tool);
    ASSERT_TRUE(lab.linkDown(LinkDownMode::kRefuse));
    EXPECT_EQ(connectTo(lab.port()), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(tool.Sendcmd("NOOP", '2'), 0);
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.resets, 1u);
    EXPECT_EQ(c.openControl, 0);

    ASSERT_TRUE(lab.linkUp());
    FTPTool again;
    connectAndLogin(again);
    EXPECT_EQ(again.Sendcmd("NOOP", '2'), 1);
}

TEST_F(NetLabTest, ABlackholeSilencesNewConnectionsAndHoldsOpenOnesUntilUp) {
    Fd open(rawSession());
    ASSERT_TRUE(lab.linkDown(LinkDownMode::kBlackhole));
    ASSERT_TRUE(sendText(open.get(), "NOOP\r\n"));
    std::string nothing;
    EXPECT_EQ(readFor(open.get(), 0, Millis(300), &nothing), End::kSilent);

    Fd late(connectTo(lab.port()));
    ASSERT_GE(late.get(), 0) << "a dead link still lets the handshake through here";
    EXPECT_EQ(readFor(late.get(), 0, Millis(300), &nothing), End::kSilent);
    EXPECT_TRUE(sendText(late.get(), "USER rec\r\n"));
    EXPECT_EQ(nothing, "");
    EXPECT_EQ(server.connectionCount(), 1);
    EXPECT_TRUE(server.commands().empty());
    EXPECT_EQ(lab.counters().blackholed, 1u);

    ASSERT_TRUE(lab.linkUp());
    EXPECT_EQ(readLine(open.get()), "200 OK\r\n");
    EXPECT_EQ(server.commands(), (Lines{"NOOP"}));
    EXPECT_EQ(readFor(late.get(), 0, Millis(300), &nothing), End::kSilent);
    EXPECT_EQ(nothing, "");
    Fd fresh(rawSession());
    EXPECT_EQ(server.connectionCount(), 2);
}

TEST_F(NetLabTest, AStallHoldsDataUntilReleased) {
    const std::string content = randomBytes(100000, 11);
    server.putFile("/f", content);
    connectAndLogin(tool);
    lab.stall(Traffic::kData, Way::kServerToClient);
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/f", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    pollfd p{data->handle, POLLIN, 0};
    EXPECT_EQ(::poll(&p, 1, 300), 0) << "bytes came through a stall";
    EXPECT_EQ(lab.counters().dataToClient, 0u);
    lab.release();
    int last = 0;
    EXPECT_EQ(readUntilEnd(tool, data, &last), content);
    EXPECT_EQ(last, 0);
    EXPECT_EQ(tool.closeData(data), 1);
}

TEST_F(NetLabTest, AStallTowardTheServerHoldsCommands) {
    Fd raw(rawSession());
    lab.stall(Traffic::kControl, Way::kClientToServer);
    ASSERT_TRUE(sendText(raw.get(), "NOOP\r\n"));
    EXPECT_FALSE(server.waitForCommands(1, Millis(300)));
    lab.release(Traffic::kControl, Way::kClientToServer);
    EXPECT_TRUE(server.waitForCommands(1));
    EXPECT_EQ(readLine(raw.get()), "200 OK\r\n");
}

TEST_F(NetLabTest, ATimedStallEndsByItself) {
    connectAndLogin(tool);
    Clock::time_point start = Clock::now();
    lab.stall(Traffic::kControl, Way::kServerToClient, Millis(300));
    ASSERT_EQ(tool.Sendcmd("NOOP", '2'), 1) << tool.getResponse();
    EXPECT_GE(since(start).count(), 300);
}

TEST_F(NetLabTest, DropAllResetsEveryOpenConnection) {
    FTPTool other;
    connectAndLogin(tool);
    connectAndLogin(other);
    Reply held;
    held.dataStall = Millis(20000);
    server.queueReply("RETR", held);
    server.putFile("/f", "abc");
    NetBuf* data = nullptr;
    ASSERT_EQ(tool.dataConnect("/f", kFtpRetr, 'I', &data), 1) << tool.getResponse();
    ASSERT_TRUE(waitForCounters([](const NetLabCounters& c) { return c.openData == 1; }));

    EXPECT_EQ(lab.dropAll(), 3);
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.resets, 3u);
    EXPECT_EQ(c.openControl, 0);
    EXPECT_EQ(c.openData, 0);
    char buffer[16];
    EXPECT_EQ(tool.read(buffer, sizeof buffer, data), -1);
    tool.closeData(data);
    EXPECT_EQ(other.Sendcmd("NOOP", '2'), 0);
    server.releaseDataStalls();
}

TEST(NetLabSetup, RefusesAnUpstreamOffLoopback) {
    NetLab lab("192.0.2.1:21");
    EXPECT_FALSE(lab.ok());
    EXPECT_NE(lab.failure().find("127"), std::string::npos) << lab.failure();
    EXPECT_EQ(lab.port(), 0);
    EXPECT_FALSE(lab.linkUp());
    EXPECT_EQ(lab.dropAll(), -1);
}

TEST(NetLabSetup, AClientIsResetWhenTheServerIsNotThere) {
    // Bound, not listening: connections to it are refused.
    Fd bound(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(bound.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::getsockname(bound.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    NetLab lab("127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
    ASSERT_TRUE(lab.ok()) << lab.failure();
    Fd client(connectTo(lab.port()));
    ASSERT_GE(client.get(), 0);
    std::string got;
    EXPECT_EQ(readFor(client.get(), 0, Millis(5000), &got), End::kReset);
    EXPECT_EQ(lab.counters().upstreamFailures, 1u);
}

TEST(NetLabLifetime, StopWithConnectionsOpenLeavesNoDescriptorOrThread) {
    ftptest::ScriptedFtpServer server;
    const int descriptors = ftptest::openDescriptorCount();
    const int threads = ftptest::threadCount();
    {
        NetLab lab(server.address());
        ASSERT_TRUE(lab.ok()) << lab.failure();
        std::vector<std::unique_ptr<Fd>> clients;
        for (int i = 0; i < 5; ++i) {
            clients.push_back(std::make_unique<Fd>(connectTo(lab.port())));
            ASSERT_EQ(readLine(clients.back()->get()), "220 ready\r\n");
        }
        // One announced data listener and one open data connection.
        ASSERT_TRUE(sendText(clients[0]->get(), "PASV\r\n"));
        uint16_t port = passivePort(readLine(clients[0]->get()));
        ASSERT_NE(port, 0);
        Fd data(connectTo(port));
        ASSERT_GE(data.get(), 0);
        ASSERT_TRUE(sendText(clients[1]->get(), "PASV\r\n"));
        ASSERT_NE(passivePort(readLine(clients[1]->get())), 0);
        ASSERT_TRUE(lab.waitFor([](const NetLabCounters& c) { return c.openData == 1; }));

        Clock::time_point start = Clock::now();
        lab.stop();
        EXPECT_LT(since(start).count(), 5000) << "stop() hung";
        for (auto& c : clients) {
            std::string rest;
            EXPECT_NE(readFor(c->get(), 0, Millis(2000), &rest), End::kSilent);
        }
        lab.stop();  // a second stop is harmless
        EXPECT_FALSE(lab.linkDown(LinkDownMode::kRefuse));
    }
    EXPECT_TRUE(server.waitForClosedConnections(5));
    EXPECT_EQ(ftptest::waitForDescriptorCount(descriptors), descriptors);
    EXPECT_EQ(labtest::waitForThreadCount(threads), threads);
}

TEST_F(NetLabTest, ANewUpstreamTakesConnectionsAcceptedAfterItAndLeavesOpenOnesAlone) {
    connectAndLogin(tool);
    ftptest::ScriptedFtpServer second;
    second.setGreeting(Reply("220 second server"));
    std::string why;
    EXPECT_FALSE(lab.setUpstream("10.0.0.1:21", &why));
    EXPECT_NE(why.find("127.x.x.x"), std::string::npos) << why;
    ASSERT_TRUE(lab.setUpstream(second.address(), &why)) << why;

    FTPTool other;
    ASSERT_EQ(other.connect(lab.address().c_str()), 1) << other.getResponse();
    EXPECT_STREQ(other.getResponse(), "220 second server\n");
    ASSERT_EQ(other.login("rec", "pw"), 1) << other.getResponse();
    EXPECT_EQ(storeFile(other, "/b.dat", "to the second"), "");
    EXPECT_EQ(second.file("/b.dat"), std::optional<std::string>("to the second"));

    // The connection opened before the change still talks to the first
    // server, its data connections included.
    EXPECT_EQ(storeFile(tool, "/a.dat", "to the first"), "");
    EXPECT_EQ(server.file("/a.dat"), std::optional<std::string>("to the first"));
    EXPECT_FALSE(second.file("/a.dat").has_value());
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "PASS pw", "TYPE I", "PASV", "STOR /a.dat"}));
}

// --- Recording, another listen address, forwarded ports, unread replies ----

TEST(NetLabRecording, KeepsEveryDeliveredByteByConnectionAndDirection) {
    ftptest::ScriptedFtpServer server;
    const std::string upload = randomBytes(200000, 11);
    const std::string download = randomBytes(100000, 12);
    server.putFile("/down.bin", download);
    ftptest::NetLabOptions options;
    options.record = true;
    NetLab lab(server.address(), options);
    ASSERT_TRUE(lab.ok()) << lab.failure();
    {
        FTPTool tool;
        ASSERT_EQ(tool.connect(lab.address().c_str()), 1) << tool.getResponse();
        ASSERT_EQ(tool.login("rec", "pw"), 1) << tool.getResponse();
        EXPECT_EQ(storeFile(tool, "/up.bin", upload), "");
        std::string got;
        EXPECT_EQ(readTransfer(tool, "/down.bin", kFtpRetr, &got), "");
        EXPECT_EQ(got, download);
        tool.quit();
    }
    ASSERT_TRUE(lab.waitFor([](const NetLabCounters& c) {
        return c.openControl == 0 && c.openData == 0;
    }));
    std::vector<ftptest::NetLabRecording> recorded = lab.recorded();
    ASSERT_EQ(recorded.size(), 3u);
    EXPECT_EQ(recorded[0].traffic, Traffic::kControl);
    EXPECT_EQ(recorded[0].toServer.rfind("USER rec\r\nPASS pw\r\nTYPE I\r\nPASV\r\nSTOR /up.bin\r\n", 0),
              0u)
        << recorded[0].toServer;
    EXPECT_EQ(recorded[0].toClient.rfind("220 ready\r\n331 Password required\r\n", 0), 0u)
        << recorded[0].toClient;
    // The passive replies as the client got them: naming the lab.
    EXPECT_NE(recorded[0].toClient.find("(127,0,0,1,"), std::string::npos);
    NetLabCounters c = lab.counters();
    EXPECT_EQ(recorded[0].toServer.size(), c.controlToServer);
    EXPECT_EQ(recorded[0].toClient.size(), c.controlToClient);
    EXPECT_EQ(recorded[1].traffic, Traffic::kData);
    EXPECT_EQ(recorded[1].toServer, upload);
    EXPECT_EQ(recorded[1].toClient, "");
    EXPECT_EQ(recorded[2].traffic, Traffic::kData);
    EXPECT_EQ(recorded[2].toServer, "");
    EXPECT_EQ(recorded[2].toClient, download);
}

TEST(NetLabRecording, KeepsAtMostItsLimitAndNothingWhenOff) {
    ftptest::ScriptedFtpServer server;
    ftptest::NetLabOptions options;
    options.record = true;
    options.recordLimit = 5;
    NetLab limited(server.address(), options);
    NetLab off(server.address());
    ASSERT_TRUE(limited.ok() && off.ok());
    for (NetLab* lab : {&limited, &off}) {
        Fd control(connectTo(lab->port()));
        ASSERT_GE(control.get(), 0);
        EXPECT_EQ(readLine(control.get()), "220 ready\r\n");
        ASSERT_TRUE(sendText(control.get(), "NOOP\r\n"));
        EXPECT_EQ(readLine(control.get()), "200 OK\r\n");
    }
    std::vector<ftptest::NetLabRecording> recorded = limited.recorded();
    ASSERT_EQ(recorded.size(), 1u);
    EXPECT_EQ(recorded[0].toServer, "NOOP\r");
    EXPECT_EQ(recorded[0].toClient, "220 r");
    EXPECT_TRUE(off.recorded().empty());
}

TEST(NetLabAddress, AnotherLoopbackAddressAndForwardedPortsLeadToTheServersPorts) {
    ftptest::ScriptedFtpServer server;
    // A listener standing for a server's passive port: the lab forwards its
    // own port of the same number to it.
    Fd passive(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(passive.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(passive.get(), 4), 0);
    ASSERT_EQ(::getsockname(passive.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    const uint16_t passivePortNumber = ntohs(address.sin_port);

    ftptest::NetLabOptions options;
    options.listenAddress = "127.0.0.2";
    options.forwardPorts = {passivePortNumber};
    options.record = true;
    NetLab lab(server.address(), options);
    ASSERT_TRUE(lab.ok()) << lab.failure();
    EXPECT_EQ(lab.address(), "127.0.0.2:" + std::to_string(lab.port()));
    // Nothing of the lab listens on 127.0.0.1.
    Fd wrong(connectTo(lab.port()));
    EXPECT_LT(wrong.get(), 0);

    Fd control(labtest::connectToAddress("127.0.0.2", lab.port()));
    ASSERT_GE(control.get(), 0) << std::strerror(errno);
    EXPECT_EQ(readLine(control.get()), "220 ready\r\n");
    // A passive reply names a data listener on the lab's own address.
    ASSERT_TRUE(sendText(control.get(), "PASV\r\n"));
    std::string pasv = readLine(control.get());
    EXPECT_NE(pasv.find("(127,0,0,2,"), std::string::npos) << pasv;

    Fd client(labtest::connectToAddress("127.0.0.2", passivePortNumber));
    ASSERT_GE(client.get(), 0) << std::strerror(errno);
    Fd accepted(::accept4(passive.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_GE(accepted.get(), 0);
    ASSERT_TRUE(sendText(client.get(), "to the server"));
    std::string got;
    EXPECT_EQ(readFor(accepted.get(), 13, Millis(5000), &got), End::kEnough);
    EXPECT_EQ(got, "to the server");
    ASSERT_TRUE(sendText(accepted.get(), "back"));
    std::string back;
    EXPECT_EQ(readFor(client.get(), 4, Millis(5000), &back), End::kEnough);
    EXPECT_EQ(back, "back");
    NetLabCounters c = lab.counters();
    EXPECT_EQ(c.dataConnections, 1u);
    EXPECT_EQ(c.dataToServer, 13u);
    EXPECT_EQ(c.dataToClient, 4u);
    std::vector<ftptest::NetLabRecording> recorded = lab.recorded();
    ASSERT_EQ(recorded.size(), 2u);
    EXPECT_EQ(recorded[1].traffic, Traffic::kData);
    EXPECT_EQ(recorded[1].toServer, "to the server");
    EXPECT_EQ(recorded[1].toClient, "back");
}

TEST(NetLabAddress, RefusesAListenAddressOffLoopbackOrAForwardedPortInUse) {
    ftptest::ScriptedFtpServer server;
    ftptest::NetLabOptions offLoopback;
    offLoopback.listenAddress = "192.0.2.1";
    NetLab refused(server.address(), offLoopback);
    EXPECT_FALSE(refused.ok());
    EXPECT_NE(refused.failure().find("127.x.x.x"), std::string::npos) << refused.failure();

    ftptest::NetLabOptions taken;
    taken.forwardPorts = {static_cast<uint16_t>(server.port())};  // the server listens there
    NetLab clash(server.address(), taken);
    EXPECT_FALSE(clash.ok());
    EXPECT_NE(clash.failure().find("cannot listen on 127.0.0.1:" + std::to_string(server.port())),
              std::string::npos)
        << clash.failure();
    EXPECT_EQ(clash.port(), 0);
}

TEST(NetLabReplies, UnreadRepliesPassAsTheServerSentThem) {
    ftptest::ScriptedFtpServer server;
    server.setReply("PASV", Reply("227 Entering Passive Mode ({pasv})"));
    server.setListing("z\r\n");
    ftptest::NetLabOptions options;
    options.readReplies = false;
    NetLab lab(server.address(), options);
    ASSERT_TRUE(lab.ok()) << lab.failure();
    lab.setSwallowGreeting(true);  // needs the replies read: has no effect
    Fd control(connectTo(lab.port()));
    ASSERT_GE(control.get(), 0);
    EXPECT_EQ(readLine(control.get()), "220 ready\r\n");
    ASSERT_TRUE(sendText(control.get(), "PASV\r\n"));
    std::string pasv = readLine(control.get());
    uint16_t port = passivePort(pasv);
    // The server's own data port, not a lab listener.
    EXPECT_NE(port, 0) << pasv;
    Fd data(connectTo(port));
    ASSERT_GE(data.get(), 0);
    ASSERT_TRUE(sendText(control.get(), "LIST\r\n"));
    std::string listing;
    EXPECT_EQ(readFor(data.get(), 0, Millis(5000), &listing), End::kEof);
    EXPECT_EQ(listing, "z\r\n");
    EXPECT_EQ(server.dataConnectionCount(), 1);
    EXPECT_EQ(lab.counters().passiveRewrites, 0u);
    EXPECT_EQ(lab.counters().dataConnections, 0u);
}

}  // namespace
