// Helpers of the listing and enumeration tests: a store logged in to a
// scripted FTP server (alone or as a test fixture), listing text as servers
// send it and the commands that ask for it, a temporary folder, and a way to
// see when the store has consumed the bytes of a data connection, so that a
// test can move the host's hand-driven clock at a known point of a transfer
// instead of sleeping.
#ifndef FTPDISK_TESTS_FILESYSTEM_LISTINGTESTUTIL_H
#define FTPDISK_TESTS_FILESYSTEM_LISTINGTESTUTIL_H

#include <arpa/inet.h>
#include <dirent.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "StoreTestUtil.h"
#include "filesystem/FTPFileSystemImpl.h"
#include "support/ScriptedFtpServer.h"

namespace listingtest {

using ftptest::listingReply;

using Entries = std::vector<SafePointer<FTPConst::FTPFileDescriptor> >;

// The lines, each ended by CR LF as a server sends them on the data
// connection.
inline std::string crlf(std::initializer_list<std::string> lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line;
        text += "\r\n";
    }
    return text;
}

// Serves `body` as the listing of exactly `path`, every time it is asked for.
inline void serveListing(ftptest::ScriptedFtpServer& server, const std::string& path,
                         const std::string& body) {
    server.setReply("LIST " + path, listingReply(body));
}

// The commands of one successful listing of `path`: back to the root, into
// the path, then the listing, asked for the same path again.
inline std::vector<std::string> listingOf(const std::string& path) {
    return {"CWD /", "CWD " + path, "TYPE I", "PASV", "LIST " + path};
}

// "type size name" of every entry, for comparisons that print well.
inline std::vector<std::string> describe(const Entries& entries) {
    std::vector<std::string> out;
    for (const auto& entry : entries) {
        out.push_back(std::string(1, static_cast<char>(entry->type)) + " " +
                      std::to_string(entry->size) + " " + entry->name);
    }
    return out;
}

// A store built on a scripted server and logged in. commandsSinceLogin() is
// what the server received after "USER rec" and "PASS pw".
class ScriptedStore {
public:
    ScriptedStore() : store_(new FTPFileSystemImpl(server_.address().c_str(), "rec", "pw", 1024)) {}

    // Logs in; true when init gave 0 and the server saw exactly the login.
    bool init() {
        if (store_->init() != 0) {
            return false;
        }
        const std::vector<std::string> login{"USER rec", "PASS pw"};
        if (server_.commands() != login) {
            return false;
        }
        mark_ = server_.commands().size();
        return true;
    }

    ftptest::ScriptedFtpServer& server() { return server_; }
    FTPFileSystemImpl& store() { return *store_; }

    std::vector<std::string> commandsSinceLogin() const {
        return storetest::tail(server_.commands(), mark_);
    }

private:
    ftptest::ScriptedFtpServer server_;
    std::unique_ptr<FTPFileSystemImpl> store_;
    size_t mark_ = 0;
};

// A test whose store is logged in before the test body runs; commands() is
// what the server received since.
class ScriptedStoreTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fixture.init()) << "login to the scripted server failed"; }

    ftptest::ScriptedFtpServer& server() { return fixture.server(); }
    FTPFileSystemImpl& store() { return fixture.store(); }
    std::vector<std::string> commands() const { return fixture.commandsSinceLogin(); }

    ScriptedStore fixture;
};

using storetest::TempDir;

// The lines of a local text file, without their line ends; empty when the
// file does not exist.
inline std::vector<std::string> readLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

// Whether this system reports how many bytes a TCP socket has received
// (TCP_INFO's tcpi_bytes_received), which waitUntilConsumed relies on. Linux
// does; qemu-user, which runs the armhf build's tests, hands back only the
// first few bytes of the record. Checked once on a loopback pair.
inline bool tcpInfoReportsBytes() {
    static const bool reports = [] {
        bool ok = false;
        const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (server >= 0 && client >= 0 &&
            ::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(server, 1) == 0 &&
            ::getsockname(server, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
            ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            const int accepted = ::accept(server, nullptr, nullptr);
            char byte = 'x';
            if (accepted >= 0 && ::send(client, &byte, 1, MSG_NOSIGNAL) == 1 &&
                ::recv(accepted, &byte, 1, 0) == 1) {
                struct tcp_info info;
                socklen_t length = sizeof info;
                ok = ::getsockopt(accepted, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
                     length >= offsetof(struct tcp_info, tcpi_bytes_received) +
                                   sizeof info.tcpi_bytes_received &&
                     info.tcpi_bytes_received >= 1;
            }
            if (accepted >= 0) ::close(accepted);
        }
        if (client >= 0) ::close(client);
        if (server >= 0) ::close(server);
        return ok;
    }();
    return reports;
}

// The inode numbers of the sockets this process holds open now.
inline std::set<ino_t> openSockets() {
    std::set<ino_t> sockets;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        return sockets;
    }
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        struct stat st;
        if (::fstat(atoi(entry->d_name), &st) == 0 && S_ISSOCK(st.st_mode)) {
            sockets.insert(st.st_ino);
        }
    }
    ::closedir(dir);
    return sockets;
}

// Waits until a TCP socket of this process that did not exist in `before`
// has received at least `bytes` bytes and holds none of them unread: the
// in-process reader of a data connection (the store) has taken them all with
// its own read calls. Both ends of a scripted transfer live in this process;
// the server's end of a LIST receives nothing, so the only new socket with
// received bytes is the store's. False when `limit` passes first.
inline bool waitUntilConsumed(const std::set<ino_t>& before, uint64_t bytes,
                              std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        DIR* dir = ::opendir("/proc/self/fd");
        if (dir != nullptr) {
            bool done = false;
            while (dirent* entry = ::readdir(dir)) {
                if (entry->d_name[0] == '.') {
                    continue;
                }
                const int fd = atoi(entry->d_name);
                struct stat st;
                if (::fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode) || before.count(st.st_ino)) {
                    continue;
                }
                struct tcp_info info;
                socklen_t length = sizeof info;
                int unread = 0;
                if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
                    length >= offsetof(struct tcp_info, tcpi_bytes_received) +
                                  sizeof info.tcpi_bytes_received &&
                    info.tcpi_bytes_received >= bytes && ::ioctl(fd, FIONREAD, &unread) == 0 &&
                    unread == 0) {
                    done = true;
                }
            }
            ::closedir(dir);
            if (done) {
                return true;
            }
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace listingtest

#endif  // FTPDISK_TESTS_FILESYSTEM_LISTINGTESTUTIL_H
