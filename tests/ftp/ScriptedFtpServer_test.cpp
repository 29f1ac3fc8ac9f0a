// The scripted server itself, driven by a bare socket client: script order,
// recorded lines and connections, and a prompt shutdown.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "support/FdCount.h"
#include "support/ScriptedFtpServer.h"

namespace {

using ftptest::Millis;
using ftptest::Reply;
using ftptest::ScriptedFtpServer;
using Lines = std::vector<std::string>;

// A minimal control-connection client: sends lines, reads reply lines.
class RawClient {
public:
    explicit RawClient(uint16_t port) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(port);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    ~RawClient() { close(fd_); }
    bool connected() const { return connected_; }
    void send(const std::string& line) {
        std::string out = line + "\r\n";
        ASSERT_EQ(::send(fd_, out.data(), out.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(out.size()));
    }
    // One line without its CR LF; "" after 3 s without one.
    std::string line() {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        while (buffer_.find('\n') == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 50) != 1) continue;
            char b[512];
            ssize_t n = recv(fd_, b, sizeof b, 0);
            if (n <= 0) break;
            buffer_.append(b, n);
        }
        size_t end = buffer_.find('\n');
        if (end == std::string::npos) return "";
        std::string l = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        if (!l.empty() && l.back() == '\r') l.pop_back();
        return l;
    }

private:
    int fd_ = -1;
    bool connected_ = false;
    std::string buffer_;
};

TEST(ScriptedFtpServer, AnswersWithDefaultsAndRecordsEveryLineWithItsConnection) {
    ScriptedFtpServer server;
    RawClient one(server.port());
    ASSERT_TRUE(one.connected());
    EXPECT_EQ(one.line(), "220 ready");
    one.send("USER rec");
    EXPECT_EQ(one.line(), "331 Password required");
    RawClient two(server.port());
    EXPECT_EQ(two.line(), "220 ready");
    two.send("FEAT");
    EXPECT_EQ(two.line(), "502 Command not implemented");
    one.send("PASS pw");
    EXPECT_EQ(one.line(), "230 Logged in");
    EXPECT_EQ(server.commands(), (Lines{"USER rec", "FEAT", "PASS pw"}));
    EXPECT_EQ(server.commandsOn(1), (Lines{"USER rec", "PASS pw"}));
    EXPECT_EQ(server.commandsOn(2), (Lines{"FEAT"}));
    EXPECT_EQ(server.connectionCount(), 2);
}

TEST(ScriptedFtpServer, ExactLinesWinOverVerbsAndQueuedRepliesOverSetOnes) {
    ScriptedFtpServer server;
    server.setReply("CWD", "250 set for the verb");
    server.queueReply("CWD", "251 queued for the verb");
    server.queueReply("CWD /x", "252 queued for the line");
    RawClient c(server.port());
    EXPECT_EQ(c.line(), "220 ready");
    c.send("CWD /x");
    EXPECT_EQ(c.line(), "252 queued for the line");
    c.send("CWD /x");
    EXPECT_EQ(c.line(), "251 queued for the verb");
    c.send("CWD /x");
    EXPECT_EQ(c.line(), "250 set for the verb");
    server.clearReply("CWD");
    c.send("CWD /x");
    EXPECT_EQ(c.line(), "250 Directory changed");
}

TEST(ScriptedFtpServer, SendsMultiLineRepliesAndSubstitutesThePassiveAddress) {
    ScriptedFtpServer server;
    server.queueReply("HELP", "214-Commands:\n USER PASS\n214 End");
    server.queueReply("PASV", "227 =({pasv})");
    RawClient c(server.port());
    EXPECT_EQ(c.line(), "220 ready");
    c.send("HELP");
    EXPECT_EQ(c.line(), "214-Commands:");
    EXPECT_EQ(c.line(), " USER PASS");
    EXPECT_EQ(c.line(), "214 End");
    c.send("PASV");
    std::string pasv = c.line();
    EXPECT_EQ(pasv.substr(0, 16), "227 =(127,0,0,1,") << pasv;
}

TEST(ScriptedFtpServer, StopsPromptlyWithASilentClientAndClosesItsSockets) {
    const int before = ftptest::openDescriptorCount();
    auto start = std::chrono::steady_clock::now();
    {
        ScriptedFtpServer server;
        Reply silent;
        silent.silent = true;
        server.setReply("NOOP", silent);
        RawClient c(server.port());
        EXPECT_EQ(c.line(), "220 ready");
        c.send("NOOP");
        c.send("PASV");
        EXPECT_TRUE(server.waitForCommands(2));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(ftptest::openDescriptorCount(), before);
}

TEST(ScriptedFtpServer, WaitingForCommandsGivesUpAtItsLimit) {
    ScriptedFtpServer server;
    EXPECT_FALSE(server.waitForCommands(1, Millis(50)));
    EXPECT_FALSE(server.waitForClosedConnections(1, Millis(50)));
}

// Tools share nothing: several threads, each with its own tool, store and
// fetch their own files on one server at the same time.
TEST(ScriptedFtpServer, ServesSeveralToolsOnSeparateThreadsAtOnce) {
    ScriptedFtpServer server;
    const int kThreads = 4;
    std::vector<int> results(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&server, &results, t] {
            FTPTool tool;
            if (tool.connect(server.address().c_str()) != 1 || tool.login("rec", "pw") != 1) return;
            const std::string name = "/t" + std::to_string(t);
            const std::string bytes(20000 + t, static_cast<char>('a' + t));
            NetBuf* d = nullptr;
            if (tool.dataConnect(name.c_str(), kFtpStor, 'I', &d) != 1) return;
            size_t at = 0;
            for (int i = 0; i < 100 && at < bytes.size(); ++i) {
                int n = tool.write(bytes.data() + at, static_cast<int>(bytes.size() - at), d);
                if (n <= 0) break;
                at += static_cast<size_t>(n);
            }
            if (tool.closeData(d) != 1) return;
            int size = 0;
            if (tool.size(name.c_str(), &size, 'I') != 1) return;
            results[t] = size;
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(results[t], 20000 + t) << "thread " << t;
        EXPECT_EQ(server.file("/t" + std::to_string(t)),
                  std::string(20000 + t, static_cast<char>('a' + t)))
            << "thread " << t;
    }
    // USER, PASS, TYPE, PASV, STOR, TYPE, SIZE, QUIT on every connection.
    for (int c = 1; c <= kThreads; ++c) {
        EXPECT_EQ(server.commandsOn(c).size(), 8u) << "connection " << c;
    }
    EXPECT_EQ(server.connectionCount(), kThreads);
}

}  // namespace
