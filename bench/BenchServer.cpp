// ftpdisk-bench-server: one real FTP server of a given kind for load runs
// driven from a script (bench/recorder_load/run.py).
//
//   ftpdisk-bench-server --kind vsftpd [--max-clients N] [--tmpfs] [--tls]
//
// Starts the server as the tests do (tests/support/RealFtpServer.h: user rec,
// password pw, 127.0.0.1, a fresh root), prints
//
//   port 40123
//   root /dev/shm/ftpdisk-bench-AbC123      (the FTP user's "/" on this machine)
//   ready
//
// With --tls the server requires explicit TLS on the login and on every data
// connection, with the tests' certificate for 127.0.0.1 (every kind but
// BusyBox), and before "ready" it prints the CA certificate that signed it:
//
//   ca /tmp/ftpdisk-real-XyZ/tls/ca.pem
//
// and keeps it running until SIGINT or SIGTERM, or until standard input ends
// when it is a pipe or a terminal; then it ends the server and removes its
// files.
//
// --tmpfs puts the root in memory, so that a run measures the store and the
// server rather than this machine's disk (64 cameras x 8 Mbit/s write 64 MB/s).
// The server's own root folder is made by RealFtpServer under /tmp; a folder
// under /dev/shm is bind-mounted over it inside a mount namespace of this
// process's own, which the server's processes inherit. Nothing is mounted
// where anyone else could see it, and the mount goes away with the processes
// even when this one is killed; the script reads and checks the files through
// the /dev/shm folder, which is the same memory.
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "support/RealFtpServer.h"

namespace {

std::atomic<bool> gStop{false};

extern "C" void onStopSignal(int) { gStop.store(true); }

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

void removeTree(const std::string& dir) {
    if (!dir.empty()) {
        nftw(dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

int usage(const std::string& problem) {
    std::cerr << "ftpdisk-bench-server: " << problem << "\n"
              << "usage: ftpdisk-bench-server --kind pyftpdlib|vsftpd|proftpd|pureftpd|busybox\n"
              << "                            [--max-clients N] [--tmpfs] [--tls]\n";
    return 2;
}

bool kindNamed(const std::string& name, FtpServerKind& out) {
    for (FtpServerKind kind : allFtpServerKinds()) {
        if (name == ftpServerKindName(kind)) {
            out = kind;
            return true;
        }
    }
    return false;
}

// A mount namespace of this process's own, with nothing it mounts seen
// outside: every mount made private first, or a bind mount would spread to
// the machine's namespace through shared mounts.
bool ownMountNamespace(std::string& problem) {
    if (::unshare(CLONE_NEWNS) != 0) {
        problem = std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
        return false;
    }
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        problem = std::string("making mounts private: ") + std::strerror(errno);
        return false;
    }
    return true;
}

// Puts a fresh folder under /dev/shm over `root`, with root's owner and mode.
bool memoryRoot(const std::string& root, std::string& memory, std::string& problem) {
    struct stat info;
    if (::stat(root.c_str(), &info) != 0) {
        problem = "stat " + root + ": " + std::strerror(errno);
        return false;
    }
    char pattern[] = "/dev/shm/ftpdisk-bench-XXXXXX";
    if (!::mkdtemp(pattern)) {
        problem = std::string("mkdtemp under /dev/shm: ") + std::strerror(errno);
        return false;
    }
    memory = pattern;
    if (::chown(memory.c_str(), info.st_uid, info.st_gid) != 0 ||
        ::chmod(memory.c_str(), info.st_mode & 07777) != 0) {
        problem = "giving " + memory + " the root's owner: " + std::strerror(errno);
        return false;
    }
    if (::mount(memory.c_str(), root.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        problem = "bind-mounting " + memory + " over " + root + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// Standard input ends the server only when someone can close it: a pipe or
// a terminal. From /dev/null or a file (a background job) only a signal does.
bool stdinCanEnd() {
    struct stat info;
    if (::fstat(0, &info) != 0) {
        return false;
    }
    return S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) || ::isatty(0);
}

void waitForTheEnd() {
    const bool watchStdin = stdinCanEnd();
    while (!gStop.load()) {
        struct pollfd in = {0, POLLIN, 0};
        const int ready = ::poll(&in, watchStdin ? 1 : 0, 200);
        if (ready > 0) {
            char buffer[256];
            const ssize_t n = ::read(0, buffer, sizeof buffer);
            if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
                return;
            }
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string kindName;
    int maxClients = 0;
    bool tmpfs = false;
    bool tls = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--kind" && i + 1 < argc) {
            kindName = argv[++i];
        } else if (arg == "--max-clients" && i + 1 < argc) {
            char* end = nullptr;
            const long value = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || value < 0 || value > 10000) {
                return usage(std::string("--max-clients takes a number from 0 to 10000, not \"") +
                             argv[i] + "\"");
            }
            maxClients = static_cast<int>(value);
        } else if (arg == "--tmpfs") {
            tmpfs = true;
        } else if (arg == "--tls") {
            tls = true;
        } else {
            return usage("unknown argument \"" + arg + "\"");
        }
    }
    FtpServerKind kind;
    if (!kindNamed(kindName, kind)) {
        return usage(kindName.empty() ? "--kind is required"
                                      : "no server kind \"" + kindName + "\"");
    }

    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    std::string problem;
    if (tmpfs && !ownMountNamespace(problem)) {
        std::cerr << "ftpdisk-bench-server: --tmpfs: " << problem << "\n";
        return 1;
    }
    RealFtpServerOptions options;
    options.maxClients = maxClients;
    // Long runs must not meet the idle limit of a connection kept in reserve.
    options.idleTimeoutSeconds = 3600;
    options.tls = tls;
    std::unique_ptr<RealFtpServer> server(new RealFtpServer(kind, options));
    if (!server->ready()) {
        std::cerr << "ftpdisk-bench-server: " << server->failure() << "\n";
        return 1;
    }
    std::string root = server->root();
    std::string memory;
    if (tmpfs) {
        if (!memoryRoot(server->root(), memory, problem)) {
            std::cerr << "ftpdisk-bench-server: --tmpfs: " << problem << "\n";
            server.reset();
            if (!memory.empty()) {
                ::rmdir(memory.c_str());
            }
            return 1;
        }
        root = memory;
    }
    std::cout << "port " << server->port() << "\n"
              << "root " << root << "\n";
    if (tls) {
        std::cout << "ca " << server->caFile() << "\n";
    }
    std::cout << "ready" << std::endl;

    waitForTheEnd();

    server->stop();
    if (tmpfs) {
        removeTree(memory);
        ::umount2(server->root().c_str(), MNT_DETACH);
    }
    server.reset();
    std::cout << "stopped" << std::endl;
    return 0;
}
