// A recorder in miniature: registers a store, writes one recording through
// open/write/close as a camera does, checks what the store reports, copies a
// local file up and the recording back down, scans the folder with a visitor
// of its own, and releases everything. Each step prints one line; the first
// failure ends the run with status 1.
//
//   downstream_recorder LOCATION FOLDER LOCALDIR
//     LOCATION  'rec(pw)@ftp://127.0.0.1:PORT/rec'
//     FOLDER    remote folder to make and fill, e.g. /downstream/cmake
//     LOCALDIR  an existing local folder for Put's source and Get's copy
//
// Then it shows the four failures a recorder's user interface must name, from
// the last error alone: "wrong password" (the same server, another password),
// "server unreachable" (a port where nothing listens), "server refuses more
// connections" and "connection lost" (two loopback listeners of its own, one
// greeting with 421, one closing after the greeting).
//
// What it leaves on the server, for the caller to compare byte for byte:
//   FOLDER/clip.ts   300000 bytes, byte i = (7 i + 3) mod 251
//   FOLDER/put.bin    70001 bytes, byte i = (13 i + 5) mod 251
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "filesystem/FTPFileSystemManager.h"
#include "host/IFileScanAction.h"
#include "host/RefCountManager.h"

namespace {

const unsigned kClipBytes = 300000;
const unsigned kPutBytes = 70001;

std::vector<char> pattern(unsigned length, unsigned factor, unsigned offset) {
    std::vector<char> bytes(length);
    for (unsigned i = 0; i < length; ++i) bytes[i] = static_cast<char>((factor * i + offset) % 251);
    return bytes;
}

bool step(const std::string& what, bool ok, const std::string& detail = std::string()) {
    std::cout << (ok ? "ok   " : "FAIL ") << what;
    if (!detail.empty()) std::cout << ": " << detail;
    std::cout << std::endl;
    return ok;
}

class NameCollector : public IFileScanAction {
public:
    virtual int onFile(const char* fileName) {
        names.push_back(fileName);
        return 0;
    }
    std::vector<std::string> names;
};

// The recording, written as a camera writes: blocks of 64 KiB, each handed
// over until the store has taken all of it.
bool writeRecording(FTPFileSystem& store, const std::string& path) {
    const int handle = store.open(path.c_str(), 2);
    if (!step("open " + path, handle >= 1, "handle " + std::to_string(handle))) return false;
    const std::vector<char> bytes = pattern(kClipBytes, 7, 3);
    unsigned done = 0;
    // Every call takes at least one byte or fails, so this ends.
    while (done < kClipBytes) {
        const unsigned block = kClipBytes - done < 65536 ? kClipBytes - done : 65536;
        const int n = store.write(handle, &bytes[done], block);
        if (n <= 0) {
            step("write", false, "result " + std::to_string(n) + " after " + std::to_string(done));
            store.close(handle);
            return false;
        }
        done += static_cast<unsigned>(n);
    }
    step("write", true, std::to_string(done) + " bytes");
    return step("close", store.close(handle) == 0);
}

bool sameFile(const std::string& path, const std::vector<char>& expected) {
    std::ifstream in(path.c_str(), std::ios::binary);
    const std::vector<char> got((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
    return got == expected;
}

bool runStore(FTPFileSystem& store, const std::string& folder, const std::string& localDir) {
    if (!step("init", store.init() == 0)) return false;
    if (!step("createDir " + folder, store.createDir(folder.c_str()) == 0)) return false;
    const std::string clip = folder + "/clip.ts";
    if (!writeRecording(store, clip)) return false;
    const long long length = store.getFileLength(clip.c_str());
    if (!step("getFileLength", length == kClipBytes, std::to_string(length))) return false;

    const std::string source = localDir + "/put-source.bin";
    {
        const std::vector<char> bytes = pattern(kPutBytes, 13, 5);
        std::ofstream out(source.c_str(), std::ios::binary);
        out.write(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    }
    if (!step("Put", store.Put(source.c_str(), (folder + "/put.bin").c_str()) == 0)) return false;
    const std::string copy = localDir + "/clip-copy.ts";
    if (!step("Get", store.Get(copy.c_str(), clip.c_str()) == 0)) return false;
    if (!step("Get's copy matches", sameFile(copy, pattern(kClipBytes, 7, 3)))) return false;

    NameCollector visitor;
    const int scanned = store.scan(folder.c_str(), &visitor, "");
    // In the server's listing order, which is not always by name.
    std::sort(visitor.names.begin(), visitor.names.end());
    std::string names;
    for (size_t i = 0; i < visitor.names.size(); ++i) names += (i ? " " : "") + visitor.names[i];
    if (!step("scan", scanned == 1 && names == "clip.ts put.bin", names)) return false;
    return step("uninit", store.uninit() == 0);
}

// What the recorder's user interface shows for the thread's last error.
std::string shownToTheUser() {
    const FTPFileSystem::LastError e = FTPFileSystem::getLastError();
    switch (e.kind) {
        case FTPFileSystem::kErrorNone: return "ok";
        case FTPFileSystem::kErrorLoginRefused: return "wrong password";
        case FTPFileSystem::kErrorTurnedAway: return "server refuses more connections";
        case FTPFileSystem::kErrorConnectRefused:
        case FTPFileSystem::kErrorUnreachable: return "server unreachable";
        case FTPFileSystem::kErrorConnectionLost:
        case FTPFileSystem::kErrorNoReply: return "connection lost";
        default: return FTPFileSystem::errorKindName(e.kind);
    }
}

// init of a store for `server` fails, and the last error shows `expected`.
bool initShows(const std::string& server, const char* password, const std::string& expected) {
    FTPFileSystem store(server.c_str(), "rec", password, 1024);
    const int result = store.init();
    const std::string shown = shownToTheUser();
    return step("init " + server + " shows \"" + expected + "\"", result == -1 && shown == expected,
                shown + " (" + FTPFileSystem::getLastError().text + ")");
}

// A loopback server of one session that sends `greeting` (CR LF added), then,
// when `readOneLine`, reads one line, and closes.
class OneSession {
public:
    OneSession(const std::string& greeting, bool readOneLine) : listener_(-1), port_(0) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in a;
        std::fill(reinterpret_cast<char*>(&a), reinterpret_cast<char*>(&a) + sizeof a, 0);
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t n = sizeof a;
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(listener_, 1) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &n) != 0) {
            return;
        }
        port_ = ntohs(a.sin_port);
        const int listener = listener_;
        const std::string text = greeting + "\r\n";
        session_ = std::thread([listener, text, readOneLine] {
            const int fd = ::accept(listener, NULL, NULL);
            if (fd < 0) return;
            (void)!::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
            char c = 0;
            while (readOneLine && ::recv(fd, &c, 1, 0) == 1 && c != '\n') {
            }
            ::close(fd);
        });
    }
    ~OneSession() {
        if (session_.joinable()) session_.join();
        if (listener_ >= 0) ::close(listener_);
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

private:
    int listener_;
    unsigned port_;
    std::thread session_;
};

// The server part of a location text: what lies between "ftp://" and the next
// "/".
std::string serverOf(const std::string& location) {
    const std::string::size_type begin = location.find("://") + 3;
    return location.substr(begin, location.find('/', begin) - begin);
}

bool showFailures(const std::string& location) {
    bool ok = initShows(serverOf(location), "not-the-password", "wrong password");
    ok = initShows("127.0.0.1:1", "pw", "server unreachable") && ok;
    {
        OneSession busy("421 Too many connections (1) from this IP", false);
        ok = initShows(busy.address(), "pw", "server refuses more connections") && ok;
    }
    {
        OneSession dropped("220 ready", true);
        ok = initShows(dropped.address(), "pw", "connection lost") && ok;
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: downstream_recorder LOCATION FOLDER LOCALDIR" << std::endl;
        return 2;
    }
    const std::string location = argv[1];
    const std::string folder = argv[2];
    const std::string localDir = argv[3];

    // Which module and which host classes this process runs, so the caller
    // can tell the packaged ones from any other copy.
    Dl_info where;
    if (dladdr(reinterpret_cast<void*>(&FTPFileSystemManager::getInstance), &where) != 0 &&
        where.dli_fname != NULL) {
        std::cout << "module " << where.dli_fname << std::endl;
    }
    if (dladdr(reinterpret_cast<void*>(&RefCountManager::getInstance), &where) != 0 &&
        where.dli_fname != NULL) {
        std::cout << "host " << where.dli_fname << std::endl;
    }

    FTPFileSystemManager* registry = FTPFileSystemManager::getInstance();
    if (!step("getInstance", registry != NULL)) return 1;
    if (!step("addFTPFileSystem", registry->addFTPFileSystem(location) == 0)) return 1;
    bool ok;
    {
        SafePointer<FTPFileSystem> store;
        if (!step("getFTPFileSystem", registry->getFTPFileSystem(location, store) == 1)) return 1;
        ok = runStore(*store, folder, localDir);
        if (!step("deleteFileSystem", registry->deleteFileSystem(location) == 0)) return 1;
    }
    // The last reference went with `store`: the store, its connections, its
    // monitor thread and every object the module counted are gone.
    ok = ok && showFailures(location);
    const unsigned long left = RefCountManager::getInstance()->liveRecords();
    if (!step("no counted object left", left == 0, std::to_string(left) + " records")) return 1;
    return ok ? 0 : 1;
}
