// Data connections of the FTP client against the scripted server: opening
// in passive and port mode, reading and writing in image and ASCII mode, the
// asynchronous write, early closes, and the final reply on close.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "FtpTestFixture.h"
#include "host/GlobalEnv.h"
#include "support/TestHelpers.h"

namespace {

using ftptest::randomBytes;

class FtpData : public FtpToolTest {
protected:
    // Logs in and opens an upload of `path` in `mode` whose bytes the server
    // does not read until releaseDataStalls(); null when it cannot be opened.
    NetBuf* openStalledUpload(const char* path, char mode) {
        connectAndLogin();
        Reply r;
        r.dataStall = Millis(20000);
        server.queueReply("STOR", r);
        NetBuf* d = nullptr;
        EXPECT_EQ(tool.dataConnect(path, kFtpStor, mode, &d), 1);
        return d;
    }
};

// Reads until the server ends the data (0) or a read fails; at most
// `maxReads` reads so that a broken client cannot loop for ever.
std::string readAll(FTPTool& tool, NetBuf* data, int chunk = 4096, int maxReads = 100000,
                    int* last = nullptr) {
    std::string got;
    std::vector<char> buf(chunk);
    int n = 0;
    for (int i = 0; i < maxReads; ++i) {
        n = tool.read(buf.data(), chunk, data);
        if (n <= 0) break;
        got.append(buf.data(), n);
    }
    if (last != nullptr) *last = n;
    return got;
}

// Sends `chunk` with aioWrite again and again on a non-blocking upload that
// the server does not read, until a send is refused because every buffer on
// the way is full; at most 10000 sends. True when one was refused. The bytes
// taken are appended to *sent when it is given.
bool fillWithAioWrites(FTPTool& tool, NetBuf* data, const std::string& chunk,
                       std::string* sent = nullptr) {
    for (int i = 0; i < 10000; ++i) {
        int n = tool.aioWrite(chunk.data(), static_cast<unsigned>(chunk.size()), data);
        if (n < 0) return true;
        if (sent != nullptr) sent->append(chunk.data(), static_cast<size_t>(n));
    }
    return false;
}

// Writes everything; false when a write fails.
bool writeAll(FTPTool& tool, NetBuf* data, const std::string& bytes, int chunk = 8192) {
    size_t at = 0;
    for (int i = 0; at < bytes.size() && i < 100000; ++i) {
        int n = tool.write(bytes.data() + at,
                           static_cast<int>(std::min<size_t>(chunk, bytes.size() - at)), data);
        if (n <= 0) return false;
        at += static_cast<size_t>(n);
    }
    return at == bytes.size();
}

TEST_F(FtpData, RetrReadsAStoredFileByteExact) {
    const std::string content = randomBytes(300000, 1);
    server.putFile("/rec/a.bin", content);
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/rec/a.bin", kFtpRetr, 'I', &d), 1) << tool.getResponse();
    ASSERT_NE(d, nullptr);
    int last = -9;
    EXPECT_EQ(readAll(tool, d, 4096, 100000, &last), content);
    EXPECT_EQ(last, 0) << "the end of the file reads as 0";
    EXPECT_EQ(d->transferred, 300000);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_STREQ(tool.getResponse(), "226 Transfer complete\n");
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV", "RETR /rec/a.bin"}));
}

TEST_F(FtpData, AnImageDataRecordHasEveryFieldSet) {
    connectAndLogin();
    NetBuf* c = tool.getControlBuf();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/f", kFtpStor, 'I', &d), 1);
    EXPECT_EQ(d->buffer, nullptr);
    EXPECT_EQ(d->direction, kNetBufDataWrite);
    EXPECT_GE(d->handle, 0);
    EXPECT_EQ(d->control, c);
    EXPECT_EQ(d->connectionMode, kNetBufPassive);
    EXPECT_EQ(d->idleTime.seconds, 3);
    EXPECT_EQ(d->idleTime.microseconds, 0);
    EXPECT_EQ(d->progressCallback, nullptr);
    EXPECT_EQ(d->transferred, 0);
    EXPECT_EQ(d->sinceCallback, 0);
    EXPECT_EQ(d->available, 0);
    EXPECT_STREQ(d->response, "");
    // The data socket gets 30-second limits.
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval limit{};
        socklen_t length = sizeof limit;
        ASSERT_EQ(getsockopt(d->handle, SOL_SOCKET, option, &limit, &length), 0);
        EXPECT_EQ(limit.tv_sec, 30) << option;
    }
    EXPECT_EQ(tool.closeData(d), 1);
}

TEST_F(FtpData, StorSendsBytesThatTheServerStoresByteExact) {
    const std::string content = randomBytes(200001, 2);
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/rec/b.bin", kFtpStor, 'I', &d), 1);
    EXPECT_TRUE(writeAll(tool, d, content));
    EXPECT_EQ(d->transferred, 200001);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(server.file("/rec/b.bin"), content);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV", "STOR /rec/b.bin"}));
}

TEST_F(FtpData, APasvReplyWithoutParenthesisFailsBeforeAnySocketIsCreated) {
    connectAndLogin();
    server.queueReply("PASV", "227 Entering Passive Mode 127,0,0,1,4,1");
    const int before = ftptest::openDescriptorCount();
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(ftptest::openDescriptorCount(), before);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV"}));
}

TEST_F(FtpData, ARefusedPasvFailsTheTransfer) {
    connectAndLogin();
    server.queueReply("PASV", "502 No passive mode here");
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 0);
    EXPECT_STREQ(tool.getResponse(), "502 No passive mode here\n");
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV"}));
}

TEST_F(FtpData, RetrAndStorWithoutPathFailWithAMessageAndSendNothing) {
    connectAndLogin();
    for (int type : {kFtpRetr, kFtpStor}) {
        NetBuf* d = nullptr;
        EXPECT_EQ(tool.dataConnect(nullptr, type, 'I', &d), 0) << type;
        EXPECT_EQ(d, nullptr);
        EXPECT_STREQ(tool.getResponse(), "Missing path argument for file transfer\n") << type;
    }
    EXPECT_EQ(afterLogin(), Lines{});
}

TEST_F(FtpData, AppeWithoutPathSendsAppeAlone) {
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect(nullptr, kFtpAppe, 'I', &d), 1);
    EXPECT_EQ(tool.write("tail", 4, d), 4);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV", "APPE"}));
    EXPECT_EQ(server.uploads(), (Lines{"tail"}));
}

TEST_F(FtpData, AppeAddsToTheEndOfAFile) {
    server.putFile("/log.txt", "one ");
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/log.txt", kFtpAppe, 'I', &d), 1);
    EXPECT_EQ(tool.write("two", 3, d), 3);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(server.file("/log.txt"), std::string("one two"));
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV", "APPE /log.txt"}));
}

TEST_F(FtpData, AnInvalidOpenTypeSendsTheTypeThenFails) {
    connectAndLogin();
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/a", 7, 'I', &d), 0);
    EXPECT_EQ(d, nullptr);
    EXPECT_STREQ(tool.getResponse(), "Invalid open type 7\n");
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I"}));
}

TEST_F(FtpData, ARefusedTypeStopsBeforeTheDataConnection) {
    connectAndLogin();
    server.queueReply("TYPE", "504 Type not supported");
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I"}));
}

TEST_F(FtpData, AnInvalidModeIsReportedAfterTheTypeWasSent) {
    connectAndLogin();
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'X', &d), 0);
    EXPECT_STREQ(tool.getResponse(), "Invalid mode X\n");
    EXPECT_EQ(afterLogin(), (Lines{"TYPE X"}));
}

TEST_F(FtpData, OpenPortRefusesABadDirectionOrModeBeforeSendingAnything) {
    connectAndLogin();
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.OpenPort(&d, 'I', 3), 0);
    EXPECT_STREQ(tool.getResponse(), "Invalid direction 3\n");
    EXPECT_EQ(tool.OpenPort(&d, 'I', kNetBufControl), 0);
    EXPECT_STREQ(tool.getResponse(), "Invalid direction 0\n");
    EXPECT_EQ(tool.OpenPort(&d, 'E', kNetBufDataRead), 0);
    EXPECT_STREQ(tool.getResponse(), "Invalid mode E\n");
    EXPECT_EQ(d, nullptr);
    EXPECT_EQ(afterLogin(), Lines{});
}

TEST_F(FtpData, TheTransferPathLimitIsCheckedBeforeAndAfterTheDataConnection) {
    connectAndLogin();
    const int before = ftptest::openDescriptorCount();
    // 251 characters: "RETR " + path would need more than 255 bytes;
    // refused after the type, before the data connection.
    NetBuf* d = nullptr;
    const std::string p251 = "/" + std::string(250, 'p');
    EXPECT_EQ(tool.dataConnect(p251.c_str(), kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I"}));
    // 249 and 250 characters pass that check, but the command line is too
    // long to send: the data connection is opened and released again.
    for (size_t length : {250u, 249u}) {
        const std::string p = "/" + std::string(length - 1, 'p');
        EXPECT_EQ(tool.dataConnect(p.c_str(), kFtpRetr, 'I', &d), 0) << length;
        EXPECT_EQ(d, nullptr);
    }
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "TYPE I", "PASV", "TYPE I", "PASV"}));
    // 248 characters make a 253-character line: sent.
    const std::string p248 = "/" + std::string(247, 'p');
    server.putFile(p248, "x");
    ASSERT_EQ(tool.dataConnect(p248.c_str(), kFtpRetr, 'I', &d), 1);
    EXPECT_EQ(readAll(tool, d), "x");
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(afterLogin().back(), "RETR " + p248);
    EXPECT_EQ(ftptest::waitForDescriptorCount(before), before) << "no data socket left";
}

TEST_F(FtpData, ARefusedTransferReleasesTheDataSocketWithoutWaitingForAClosingReply) {
    connectAndLogin();
    NetBuf* d = reinterpret_cast<NetBuf*>(0x1);
    EXPECT_EQ(tool.dataConnect("/missing", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(d, nullptr);
    EXPECT_STREQ(tool.getResponse(), "550 No such file\n");
    // The next command gets its own reply: nothing was left unread.
    EXPECT_EQ(tool.cd("/"), 1);
    EXPECT_STREQ(tool.getResponse(), "250 Directory changed\n");
    EXPECT_EQ(afterLogin(), (Lines{"TYPE I", "PASV", "RETR /missing", "CWD /"}));
}

TEST_F(FtpData, CloseDataGivesOneFor226AndZeroFor426) {
    server.putFile("/a", "abc");
    connectAndLogin();
    struct Case {
        const char* finalReply;
        int result;
    };
    const Case cases[] = {{"226 Transfer complete", 1},
                          {"426 Connection closed; aborted", 0},
                          {"250 Fine too", 1},
                          {"451 Local error", 0}};
    for (const Case& c : cases) {
        Reply r;
        r.finalText = c.finalReply;
        server.queueReply("RETR", r);
        NetBuf* d = nullptr;
        ASSERT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 1) << c.finalReply;
        EXPECT_EQ(readAll(tool, d), "abc") << c.finalReply;
        EXPECT_EQ(tool.closeData(d), c.result) << c.finalReply;
        EXPECT_EQ(std::string(tool.getResponse()), std::string(c.finalReply) + "\n");
    }
}

TEST_F(FtpData, AnEarlyDataCloseEndsTheReadAndTheFinalReplyTellsTheRest) {
    connectAndLogin();
    Reply r;
    r.body = randomBytes(50000, 3);
    r.closeDataAfter = 1000;
    r.finalText = "426 Transfer aborted";
    server.queueReply("RETR", r);
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 1);
    EXPECT_EQ(readAll(tool, d), r.body->substr(0, 1000));
    EXPECT_EQ(tool.closeData(d), 0);
    EXPECT_STREQ(tool.getResponse(), "426 Transfer aborted\n");
}

TEST_F(FtpData, AnUploadCutByTheServerFailsOnWriteOrClose) {
    connectAndLogin();
    Reply r;
    r.closeDataAfter = 10;
    r.finalText = "426 Transfer aborted";
    server.queueReply("STOR", r);
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/cut", kFtpStor, 'I', &d), 1);
    const std::string chunk(65536, 'z');
    // The first writes may still land in the socket buffers; a reset peer
    // fails a later one (without a SIGPIPE killing the process).
    int failed = 0;
    const std::size_t calls = ftptest::loopbackBytesInFlight() / chunk.size() + 16;
    for (std::size_t i = 0; i < calls && failed == 0; ++i) {
        if (tool.write(chunk.data(), static_cast<int>(chunk.size()), d) <= 0) failed = 1;
    }
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(tool.closeData(d), 0);
    EXPECT_STREQ(tool.getResponse(), "426 Transfer aborted\n");
    EXPECT_EQ(server.uploads(), (Lines{std::string(10, 'z')}));
}

TEST_F(FtpData, AnImageWriteThatFindsNoRoomReportsExactlyWhatWentOut) {
    NetBuf* d = openStalledUpload("/full.bin", 'I');
    ASSERT_NE(d, nullptr);
    d->idleTime.seconds = 0;
    d->idleTime.microseconds = 200000;
    // The server reads nothing: writes go into the socket buffers until they
    // are full. The write that finds too little room reports the part that
    // went out, or -1 when none did within the wait; no byte goes unreported.
    const std::string chunk = randomBytes(65536, 9);
    std::string accepted;
    int last = 0;
    for (int i = 0; i < 10000; ++i) {
        last = tool.write(chunk.data(), static_cast<int>(chunk.size()), d);
        if (last != static_cast<int>(chunk.size())) break;
        accepted += chunk;
    }
    ASSERT_NE(last, static_cast<int>(chunk.size())) << "the buffers never filled";
    EXPECT_TRUE(last == -1 || (last > 0 && last < static_cast<int>(chunk.size()))) << last;
    if (last > 0) accepted += chunk.substr(0, static_cast<size_t>(last));
    EXPECT_GT(accepted.size(), 0u);
    EXPECT_EQ(static_cast<size_t>(d->transferred), accepted.size());
    server.releaseDataStalls();
    EXPECT_EQ(tool.closeData(d), 1);
    const std::optional<std::string> file = server.file("/full.bin");
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ(file->size(), accepted.size());
    EXPECT_TRUE(*file == accepted) << "what was reported is exactly what arrived";
}

TEST_F(FtpData, ADribbledBodyIsReadWhole) {
    connectAndLogin();
    Reply r;
    r.body = randomBytes(3000, 4);
    r.pieceBytes = 100;
    r.pieceDelay = Millis(2);
    server.queueReply("RETR", r);
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/slow", kFtpRetr, 'I', &d), 1);
    EXPECT_EQ(readAll(tool, d), *r.body);
    EXPECT_EQ(tool.closeData(d), 1);
}

TEST_F(FtpData, AReadThatGetsNothingWithinTheWaitReturnsMinusOne) {
    connectAndLogin();
    shortenWait(100);
    Reply r;
    r.body = "late";
    r.dataStall = Millis(10000);
    server.queueReply("RETR", r);
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/stalled", kFtpRetr, 'I', &d), 1);
    char buf[16];
    EXPECT_EQ(tool.read(buf, sizeof buf, d), -1);
    EXPECT_EQ(d->transferred, 0) << "a failed read moves nothing";
    server.releaseDataStalls();
    shortenWait(3000);
    d->idleTime.seconds = 3;
    d->idleTime.microseconds = 0;
    EXPECT_EQ(readAll(tool, d), "late");
    EXPECT_EQ(tool.closeData(d), 1);
}

TEST_F(FtpData, TheFinalReplyMayComeOnlyAfterTheClientClosesTheDataConnection) {
    connectAndLogin();
    Reply r;
    r.body = "0123456789";
    r.finalAfterClientClose = true;
    server.queueReply("RETR", r);
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/held", kFtpRetr, 'I', &d), 1);
    char buf[10];
    int got = 0;
    for (int i = 0; i < 100 && got < 10; ++i) {
        int n = tool.read(buf + got, 10 - got, d);
        ASSERT_GT(n, 0);
        got += n;
    }
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    EXPECT_EQ(tool.closeData(d), 1);
}

TEST_F(FtpData, ReadsAndWritesOnTheWrongKindOfConnectionReturnZero) {
    server.putFile("/a", "abc");
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 1);
    EXPECT_EQ(tool.write("x", 1, d), 0);
    EXPECT_EQ(tool.aioWrite("x", 1, d), 0);
    char buf[8];
    EXPECT_EQ(tool.read(buf, sizeof buf, nullptr), 0);
    EXPECT_EQ(tool.read(buf, sizeof buf, tool.getControlBuf()), 0);
    EXPECT_EQ(tool.closeData(tool.getControlBuf()), 0) << "the control record is not data";
    EXPECT_EQ(readAll(tool, d), "abc");
    EXPECT_EQ(tool.closeData(d), 1);
    ASSERT_EQ(tool.dataConnect("/b", kFtpStor, 'I', &d), 1);
    EXPECT_EQ(tool.read(buf, sizeof buf, d), 0);
    EXPECT_EQ(tool.closeData(d), 1);
}

TEST_F(FtpData, AioWriteSendsAndAioReturnReportsTheSocketWritable) {
    const std::string content = randomBytes(100000, 5);
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/aio.bin", kFtpStor, 'I', &d), 1);
    size_t at = 0;
    for (int i = 0; i < 1000 && at < content.size(); ++i) {
        ASSERT_EQ(tool.aioReturn(3000, d), 0);
        int n =
            tool.aioWrite(content.data() + at,
                          static_cast<unsigned>(std::min<size_t>(32768, content.size() - at)), d);
        ASSERT_GT(n, 0);
        at += static_cast<size_t>(n);
    }
    EXPECT_EQ(d->transferred, 0) << "asynchronous writes are not counted";
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(server.file("/aio.bin"), content);
}

TEST_F(FtpData, AioReturnTimesOutWhileTheServerReadsNothing) {
    NetBuf* d = openStalledUpload("/stalled.bin", 'I');
    ASSERT_NE(d, nullptr);
    // The open-file code switches the socket to non-blocking before
    // asynchronous writes; fill every buffer on the way.
    ASSERT_EQ(fcntl(d->handle, F_SETFL, fcntl(d->handle, F_GETFL) | O_NONBLOCK), 0);
    const std::string chunk = randomBytes(65536, 6);
    std::string sent;
    ASSERT_TRUE(fillWithAioWrites(tool, d, chunk, &sent));
    EXPECT_EQ(tool.aioReturn(200, d), -1);
    server.releaseDataStalls();
    EXPECT_EQ(tool.aioReturn(5000, d), 0) << "writable once the server reads";
    EXPECT_EQ(tool.closeData(d), 1);
    ASSERT_TRUE(server.file("/stalled.bin").has_value());
    EXPECT_EQ(server.file("/stalled.bin")->size(), sent.size());
    EXPECT_TRUE(*server.file("/stalled.bin") == sent);
}

TEST_F(FtpData, AioReturnWaitsAtMostTheGivenTime) {
    NetBuf* d = openStalledUpload("/stalled.bin", 'I');
    ASSERT_NE(d, nullptr);
    ASSERT_EQ(fcntl(d->handle, F_SETFL, fcntl(d->handle, F_GETFL) | O_NONBLOCK), 0);
    fillWithAioWrites(tool, d, std::string(65536, 'q'));
    // 1500 ms means 1 s and 500 us: the wait ends well before 1.5 s.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tool.aioReturn(1500, d), -1);
    double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(waited, 0.99);
    EXPECT_LT(waited, 1.45);
    // The microseconds are honoured as they are, not rounded up to a whole
    // millisecond: a limit of 1 (0 s and 1 us) ends well within 1 ms.
    double shortest = 1.0;
    for (int i = 0; i < 20; ++i) {
        auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(tool.aioReturn(1, d), -1);
        double w = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        if (w < shortest) shortest = w;
    }
    EXPECT_LT(shortest, 0.0009);
    EXPECT_EQ(tool.aioReturn(-1, d), -2) << "a negative limit is an error";
    server.releaseDataStalls();
    EXPECT_EQ(tool.closeData(d), 1);
}

// A recording streamed for hours moves more than 2 GiB on one data
// connection: the signed 32-bit counters wrap around instead of overflowing
// (which the undefined-behaviour checker turns into an abort).
TEST_F(FtpData, ByteCountsWrapAroundPastTwoGibibytes) {
    struct Seen {
        std::vector<int> totals;
    } seen;
    server.putFile("/big", "0123456789");
    connectAndLogin();
    NetBuf* c = tool.getControlBuf();
    c->progressCallback = [](NetBuf*, int32_t transferred, void* arg) -> int {
        static_cast<Seen*>(arg)->totals.push_back(transferred);
        return 1;
    };
    c->progressArg = &seen;
    c->callbackBytes = INT32_MAX;
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/big", kFtpRetr, 'I', &d), 1);
    d->transferred = INT32_MAX - 3;
    d->sinceCallback = INT32_MAX - 3;
    EXPECT_EQ(readAll(tool, d), "0123456789");
    EXPECT_EQ(d->transferred, INT32_MIN + 6);
    // More than INT32_MAX bytes since the last call: the callback comes once.
    EXPECT_EQ(seen.totals, (std::vector<int>{INT32_MIN + 6}));
    EXPECT_EQ(d->sinceCallback, 0);
    EXPECT_EQ(tool.closeData(d), 1);
    c->progressCallback = nullptr;
}

TEST_F(FtpData, ProgressCallbacksFollowTheBytesMoved) {
    struct Seen {
        std::vector<int> totals;
        NetBuf* connection = nullptr;
    } seen;
    server.putFile("/p.bin", randomBytes(20000, 7));
    connectAndLogin();
    NetBuf* c = tool.getControlBuf();
    c->progressCallback = [](NetBuf* connection, int32_t transferred, void* arg) -> int {
        auto* s = static_cast<Seen*>(arg);
        s->connection = connection;
        s->totals.push_back(transferred);
        return 1;
    };
    c->progressArg = &seen;
    c->callbackBytes = 3000;
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/p.bin", kFtpRetr, 'I', &d), 1);
    EXPECT_EQ(d->callbackBytes, 3000);
    EXPECT_EQ(d->progressArg, &seen);
    EXPECT_EQ(readAll(tool, d, 1000).size(), 20000u);
    EXPECT_EQ(seen.connection, d);
    ASSERT_FALSE(seen.totals.empty());
    // Each call comes once more than 3000 bytes have moved since the last.
    int previous = 0;
    for (int total : seen.totals) {
        EXPECT_GT(total - previous, 3000) << total;
        previous = total;
    }
    EXPECT_LE(20000 - previous, 3000);
    EXPECT_EQ(tool.closeData(d), 1);
    c->progressCallback = nullptr;
}

TEST_F(FtpData, AnAsciiDataRecordStartsWithAnEmptyLineBuffer) {
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect(nullptr, kFtpList, 'A', &d), 1);
    ASSERT_NE(d->buffer, nullptr);
    EXPECT_EQ(d->readPos, d->buffer);
    EXPECT_EQ(d->writePos, d->buffer);
    EXPECT_EQ(d->available, 0);
    EXPECT_EQ(d->spaceLeft, kNetBufSize);
    EXPECT_EQ(d->connectionMode, kNetBufPassive);
    EXPECT_EQ(d->direction, kNetBufDataRead);
    readAll(tool, d);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE A", "PASV", "LIST"}));
}

TEST_F(FtpData, AsciiReadsReturnOneLineEachWithCrLfTurnedIntoLf) {
    const std::string a(300, 'a');
    server.setListing(
        "-rw-r--r-- 1 rec rec 5 Jan 1 00:00 one\r\n"
        "bare lf\n" +
        a + "\r\nlast without end");
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/dir", kFtpNlst, 'A', &d), 1);
    char line[256];
    EXPECT_EQ(tool.read(line, sizeof line, d), 39);
    EXPECT_STREQ(line, "-rw-r--r-- 1 rec rec 5 Jan 1 00:00 one\n");
    EXPECT_EQ(tool.read(line, sizeof line, d), 8);
    EXPECT_STREQ(line, "bare lf\n");
    // A line longer than the caller's room comes in pieces.
    EXPECT_EQ(tool.read(line, sizeof line, d), 255);
    EXPECT_EQ(std::string(line), a.substr(0, 255));
    EXPECT_EQ(tool.read(line, sizeof line, d), 46);
    EXPECT_EQ(std::string(line), a.substr(255) + "\n");
    EXPECT_EQ(tool.read(line, sizeof line, d), 16);
    EXPECT_STREQ(line, "last without end");
    // The line reader reports the end of the stream as -1.
    EXPECT_EQ(tool.read(line, sizeof line, d), -1);
    EXPECT_EQ(d->transferred, 39 + 8 + 255 + 46 + 16);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(afterLogin(), (Lines{"TYPE A", "PASV", "NLST /dir"}));
}

// What Writeline puts on the wire: a CR before every LF that does not already
// follow a CR within the same call.
std::string withCrLf(const std::string& in) {
    std::string out;
    char previous = '\0';
    for (char c : in) {
        if (c == '\n' && previous != '\r') out += '\r';
        out += c;
        previous = c;
    }
    return out;
}

TEST_F(FtpData, AsciiWritesInsertCrBeforeBareLf) {
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/t.txt", kFtpStor, 'A', &d), 1);
    EXPECT_EQ(tool.write("a\nb\r\nc\n", 7, d), 7);
    EXPECT_EQ(tool.write("", 0, d), 0);
    EXPECT_EQ(d->transferred, 7);
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(server.file("/t.txt"), std::string("a\r\nb\r\nc\r\n"));
    EXPECT_EQ(afterLogin(), (Lines{"TYPE A", "PASV", "STOR /t.txt"}));
}

TEST_F(FtpData, AsciiWritesCrossingTheBufferSizeKeepEveryByte) {
    // Lines of varied length so that both kinds of buffer flush happen: on a
    // data byte and on an inserted CR, and a CR LF pair split by a flush.
    std::string text;
    std::mt19937 gen(8);
    while (text.size() < 40000) {
        text += std::string(gen() % 200, static_cast<char>('a' + gen() % 26));
        text += (gen() % 3 == 0) ? "\r\n" : "\n";
    }
    // One input that fills the buffer exactly before an LF.
    std::string exact = std::string(8192, 'e') + "\n" + std::string(8191, 'f') + "\n\n";
    connectAndLogin();
    for (const std::string& input : {text, exact}) {
        NetBuf* d = nullptr;
        ASSERT_EQ(tool.dataConnect("/big.txt", kFtpStor, 'A', &d), 1);
        EXPECT_EQ(tool.write(input.data(), static_cast<int>(input.size()), d),
                  static_cast<int>(input.size()));
        EXPECT_EQ(tool.closeData(d), 1);
        EXPECT_TRUE(server.file("/big.txt") == withCrLf(input)) << input.size();
    }
}

// When the socket stops taking bytes, Writeline reports how much of the
// input has gone out in full, so that a caller who goes on from there loses
// nothing: bytes still in the line buffer are not counted as written.
TEST_F(FtpData, AnAsciiWriteThatStallsCountsOnlyTheInputWhoseOutputWentOut) {
    NetBuf* d = openStalledUpload("/stall.txt", 'A');
    ASSERT_NE(d, nullptr);
    // A fixed send buffer, so that readiness ends long before a send could
    // block, and a short readiness wait.
    int sendBuffer = 1 << 20;
    ASSERT_EQ(setsockopt(d->handle, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer), 0);
    d->idleTime = NetBufWaitTime{0, 200000};
    std::string input;
    std::mt19937 gen(10);
    while (input.size() < (32u << 20)) {
        input += std::string(gen() % 100, static_cast<char>('a' + gen() % 26));
        input += (gen() % 2 == 0) ? "\r\n" : "\n";
    }
    int written = tool.write(input.data(), static_cast<int>(input.size()), d);
    ASSERT_GT(written, 0);
    ASSERT_LT(written, static_cast<int>(input.size()));
    EXPECT_EQ(d->transferred, written);
    server.releaseDataStalls();
    d->idleTime = NetBufWaitTime{3, 0};
    EXPECT_EQ(tool.closeData(d), 1);
    const std::string expected = withCrLf(input.substr(0, static_cast<size_t>(written)));
    ASSERT_TRUE(server.file("/stall.txt").has_value());
    EXPECT_EQ(server.file("/stall.txt")->size(), expected.size());
    EXPECT_TRUE(*server.file("/stall.txt") == expected);
}

class PrintFlag {
public:
    explicit PrintFlag(bool on) { GlobalEnv::getInstance()->setPrintFlag(on); }
    ~PrintFlag() { GlobalEnv::getInstance()->setPrintFlag(false); }
};

TEST_F(FtpData, FailedAsciiWritesAreReportedOnlyWithThePrintFlag) {
    connectAndLogin();
    struct Case {
        std::string input;
        const char* report;
    };
    // The report names the flush that failed: (1) for an inserted CR,
    // (2) for a data byte, (3) for the rest at the end.
    const Case cases[] = {
        {std::string(8192, 'x') + "\n", "write(1) returned -1, errno = 32\n"},
        {std::string(8193, 'x'), "write(2) returned -1, errno = 32\n"},
        {"short\n", "write(3) returned -1, errno = 32\n"},
    };
    for (bool on : {true, false}) {
        for (const Case& c : cases) {
            NetBuf* d = nullptr;
            ASSERT_EQ(tool.dataConnect("/r.txt", kFtpStor, 'A', &d), 1);
            // Our side closed for sending: every send fails with EPIPE.
            ASSERT_EQ(shutdown(d->handle, SHUT_WR), 0);
            PrintFlag flag(on);
            testing::internal::CaptureStdout();
            EXPECT_EQ(tool.write(c.input.data(), static_cast<int>(c.input.size()), d), -1);
            std::string printed = testing::internal::GetCapturedStdout();
            EXPECT_EQ(printed, on ? c.report : "") << c.report;
            EXPECT_EQ(tool.closeData(d), 1);
        }
    }
}

TEST_F(FtpData, PortModeAnnouncesTheControlAddressAndTheServerConnects) {
    const std::string content = randomBytes(70000, 9);
    server.putFile("/port.bin", content);
    connectAndLogin();
    tool.getControlBuf()->connectionMode = kNetBufPort;
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/port.bin", kFtpRetr, 'I', &d), 1) << tool.getResponse();
    EXPECT_EQ(d->control, tool.getControlBuf()) << "set once the server has connected";
    EXPECT_EQ(d->connectionMode, kNetBufPort);
    EXPECT_EQ(readAll(tool, d), content);
    EXPECT_EQ(tool.closeData(d), 1);
    ASSERT_TRUE(tool.dataConnect("/up.bin", kFtpStor, 'I', &d));
    EXPECT_TRUE(writeAll(tool, d, content));
    EXPECT_EQ(tool.closeData(d), 1);
    EXPECT_EQ(server.file("/up.bin"), content);

    Lines sent = afterLogin();
    ASSERT_EQ(sent.size(), 6u);
    EXPECT_EQ(sent[0], "TYPE I");
    EXPECT_EQ(sent[2], "RETR /port.bin");
    EXPECT_EQ(sent[3], "TYPE I");
    EXPECT_EQ(sent[5], "STOR /up.bin");
    for (const std::string& port : {sent[1], sent[4]}) {
        unsigned h[4], p[2];
        ASSERT_EQ(std::sscanf(port.c_str(), "PORT %u,%u,%u,%u,%u,%u", &h[0], &h[1], &h[2], &h[3],
                              &p[0], &p[1]),
                  6)
            << port;
        EXPECT_EQ(port.substr(0, 15), "PORT 127,0,0,1,") << port;
        EXPECT_GT(p[0] * 256 + p[1], 0u) << port;
    }
    EXPECT_EQ(server.dataConnectionCount(), 2);
}

TEST_F(FtpData, PortModeFailsWhenTheServerAnswersInsteadOfConnecting) {
    connectAndLogin();
    tool.getControlBuf()->connectionMode = kNetBufPort;
    Reply r("150 Opening data connection");
    r.noDataConnection = true;
    r.finalText = "425 Cannot open data connection";
    // The refusal comes after the 150 line has been read on its own.
    r.finalDelay = Millis(200);
    server.queueReply("RETR", r);
    const int before = ftptest::openDescriptorCount();
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(d, nullptr);
    EXPECT_STREQ(tool.getResponse(), "425 Cannot open data connection\n");
    EXPECT_EQ(ftptest::openDescriptorCount(), before) << "the listening socket is closed";
    EXPECT_EQ(tool.cd("/"), 1) << "nothing left unread";
}

TEST_F(FtpData, PortModeTimesOutWhenTheServerNeverConnects) {
    connectAndLogin();
    tool.getControlBuf()->connectionMode = kNetBufPort;
    Reply r("150 Opening data connection");
    r.noDataConnection = true;
    r.noFinal = true;
    server.queueReply("RETR", r);
    NetBuf* d = nullptr;
    // The server has five seconds to connect.
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(d, nullptr);
    EXPECT_STREQ(tool.getResponse(), "timed out waiting for connection");
}

TEST_F(FtpData, ARefusedPortCommandFailsAndClosesTheListeningSocket) {
    connectAndLogin();
    tool.getControlBuf()->connectionMode = kNetBufPort;
    server.queueReply("PORT", "500 Illegal PORT command");
    const int before = ftptest::openDescriptorCount();
    NetBuf* d = nullptr;
    EXPECT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 0);
    EXPECT_EQ(ftptest::openDescriptorCount(), before);
    Lines sent = afterLogin();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].substr(0, 15), "PORT 127,0,0,1,");
}

TEST_F(FtpData, CloseDataAfterTheControlConnectionIsGoneReturnsZero) {
    server.putFile("/a", "abc");
    connectAndLogin();
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/a", kFtpRetr, 'I', &d), 1);
    tool.Empty();
    EXPECT_EQ(tool.closeData(d), 0);
}

// The recorder may start other programs; none of them must inherit the
// module's sockets, in passive or port mode.
TEST_F(FtpData, EverySocketIsClosedOnExec) {
    server.putFile("/a.bin", "abc");
    connectAndLogin();
    EXPECT_NE(fcntl(tool.getControlBuf()->handle, F_GETFD) & FD_CLOEXEC, 0) << "control";
    NetBuf* d = nullptr;
    ASSERT_EQ(tool.dataConnect("/a.bin", kFtpRetr, 'I', &d), 1) << tool.getResponse();
    EXPECT_NE(fcntl(d->handle, F_GETFD) & FD_CLOEXEC, 0) << "passive data";
    EXPECT_EQ(readAll(tool, d), "abc");
    EXPECT_EQ(tool.closeData(d), 1);
    tool.getControlBuf()->connectionMode = kNetBufPort;
    ASSERT_EQ(tool.dataConnect("/a.bin", kFtpRetr, 'I', &d), 1) << tool.getResponse();
    EXPECT_NE(fcntl(d->handle, F_GETFD) & FD_CLOEXEC, 0) << "accepted port-mode data";
    EXPECT_EQ(readAll(tool, d), "abc");
    EXPECT_EQ(tool.closeData(d), 1);
}

}  // namespace
