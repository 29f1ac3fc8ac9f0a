#include "support/RealFtpServer.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The password "pw" as SHA-256 crypt text, for the password files of proftpd
// and pure-ftpd
// (openssl passwd -5 -salt ftpdisktest pw). A constant keeps the tests free of
// a libcrypt dependency.
const char kPwCryptText[] = "$5$ftpdisktest$LprFhEH6ulPQ/jjrWcmN94TH4XuujUz8prpEATzZly.";

std::string serversDir() {
    const char* dir = getenv("FTPDISK_SERVERS_DIR");
    return dir && *dir ? dir : "/opt/ftpdisk-servers";
}

bool writeText(const std::string& path, const std::string& text, mode_t mode = 0644) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return ::close(fd) == 0;
}

bool readText(const std::string& path, std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream all;
    all << in.rdbuf();
    *text = all.str();
    return true;
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

void removeTree(const std::string& dir) {
    if (!dir.empty()) nftw(dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

// A port that was free a moment ago. Another process may take it before the
// server binds it; start() then tries again with a new one.
int pickFreePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

// Runs a helper program to its end with `input` on its standard input and
// its output appended to `outFile`. Returns its exit status, -1 when it could
// not run or did not end within `limit` (it is killed then).
int runToEnd(const std::vector<std::string>& argv, const std::string& input,
             const std::string& inputFile, const std::string& outFile, milliseconds limit) {
    if (!writeText(inputFile, input, 0600)) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, inputFile.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        if (done < 0 && errno != EINTR) return -1;
        if (Clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Session processes of the daemons are forked from the process we start and
// may outlive it for a moment when it is ended; with the test process as
// their reaper they come back to us and can be collected, so no zombie stays.
void becomeReaperOnce() {
    static bool done = false;
    if (!done) {
        prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
        done = true;
    }
}

struct ProcessInfo {
    pid_t pid;
    pid_t parent;
    pid_t group;
    pid_t session;
    char state;
};

std::vector<ProcessInfo> listProcesses() {
    std::vector<ProcessInfo> all;
    DIR* proc = opendir("/proc");
    if (!proc) return all;
    while (struct dirent* entry = readdir(proc)) {
        char* end = nullptr;
        long pid = strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        std::string stat;
        if (!readText(std::string("/proc/") + entry->d_name + "/stat", &stat)) continue;
        // "1234 (vsftpd) S 1 1234 1234 ...": state, parent, process group and
        // session follow the command name, which may hold blanks and
        // parentheses itself.
        size_t close = stat.rfind(')');
        if (close == std::string::npos) continue;
        ProcessInfo info{static_cast<pid_t>(pid), 0, 0, 0, 0};
        long parent = 0, group = 0, session = 0;
        if (sscanf(stat.c_str() + close + 1, " %c %ld %ld %ld", &info.state, &parent, &group,
                   &session) != 4) {
            continue;
        }
        info.parent = static_cast<pid_t>(parent);
        info.group = static_cast<pid_t>(group);
        info.session = static_cast<pid_t>(session);
        all.push_back(info);
    }
    closedir(proc);
    return all;
}

// Adds to `family` every process that descends from one of its members or
// belongs to a process group or session led by one of them. vsftpd starts
// each session in a session of its own, and a session's processes may lose
// their parent while the server is being ended; following groups and
// sessions as well as parents finds them all the same. Returns the members
// still alive (not zombies).
std::vector<pid_t> extendFamily(std::set<pid_t>* family) {
    std::vector<ProcessInfo> all = listProcesses();
    for (bool grew = true; grew;) {
        grew = false;
        for (const ProcessInfo& p : all) {
            if (family->count(p.pid)) continue;
            if (family->count(p.parent) || family->count(p.group) || family->count(p.session)) {
                family->insert(p.pid);
                grew = true;
            }
        }
    }
    std::vector<pid_t> alive;
    for (const ProcessInfo& p : all) {
        if (family->count(p.pid) && p.state != 'Z') alive.push_back(p.pid);
    }
    return alive;
}

// Collects the members of `family` that have ended and are our children
// (directly, or handed to us as their reaper).
void reapFamily(const std::set<pid_t>& family) {
    for (pid_t pid : family) {
        int status = 0;
        waitpid(pid, &status, WNOHANG);
    }
}

}  // namespace

const char* ftpServerKindName(FtpServerKind kind) {
    switch (kind) {
        case FtpServerKind::kPyftpdlib: return "pyftpdlib";
        case FtpServerKind::kVsftpd: return "vsftpd";
        case FtpServerKind::kProftpd: return "proftpd";
        case FtpServerKind::kPureftpd: return "pureftpd";
        case FtpServerKind::kBusybox: return "busybox";
    }
    return "unknown";
}

std::vector<FtpServerKind> allFtpServerKinds() {
    return {FtpServerKind::kPyftpdlib, FtpServerKind::kVsftpd, FtpServerKind::kProftpd,
            FtpServerKind::kPureftpd, FtpServerKind::kBusybox};
}

RealFtpServer::RealFtpServer(FtpServerKind kind, RealFtpServerOptions options)
    : kind_(kind), options_(options) {
    ready_ = start();
    if (!ready_) {
        // Whatever was started is ended; a server that is not ready has no port.
        stop();
        port_ = 0;
    }
}

RealFtpServer::~RealFtpServer() {
    stop();
    removeTree(dir_);
}

bool RealFtpServer::fail(const std::string& why) {
    failure_ = std::string(name()) + " server: " + why;
    std::string tail = logTail();
    if (!tail.empty()) failure_ += "\n--- server output ---\n" + tail;
    return false;
}

bool RealFtpServer::start() {
    becomeReaperOnce();
    char pattern[] = "/tmp/ftpdisk-server-XXXXXX";
    if (!mkdtemp(pattern)) return fail(std::string("mkdtemp: ") + strerror(errno));
    dir_ = pattern;
    // Sessions run as the FTP user and must reach the root below this folder.
    ::chmod(dir_.c_str(), 0755);
    root_ = dir_ + "/home";
    logFile_ = dir_ + "/server.log";
    outFile_ = dir_ + "/server.out";
    if (::mkdir(root_.c_str(), 0755) != 0) return fail("cannot create " + root_);
    if (!options_.password.empty() && kind_ != FtpServerKind::kPyftpdlib) {
        return fail("only pyftpdlib takes another password than \"pw\"");
    }
    if (options_.passivePortFirst > 0 && kind_ != FtpServerKind::kPyftpdlib &&
        kind_ != FtpServerKind::kVsftpd) {
        return fail("only pyftpdlib and vsftpd take a passive port range");
    }
    if (options_.tls) {
        if (kind_ == FtpServerKind::kBusybox) return fail("BusyBox's ftpd has no TLS");
        if (!makeCertificate()) return false;
    }

    bool needsRoot = kind_ != FtpServerKind::kPyftpdlib;
    if (geteuid() == 0) {
        struct passwd entry;
        struct passwd* found = nullptr;
        char text[1024];
        if (getpwnam_r(user(), &entry, text, sizeof text, &found) == 0 && found) {
            uid_ = found->pw_uid;
            gid_ = found->pw_gid;
            if (::chown(root_.c_str(), uid_, gid_) != 0) return fail("cannot chown " + root_);
        } else if (needsRoot) {
            return fail("no local user \"rec\": run scripts/install-deps.sh");
        }
    } else if (needsRoot) {
        return fail("this daemon must be started as root (it switches to user rec)");
    }

    // The chosen port may be taken by someone else before the server binds
    // it; a few fresh tries make that race harmless.
    for (int attempt = 0; attempt < 3; ++attempt) {
        bool started = false;
        switch (kind_) {
            case FtpServerKind::kPyftpdlib: started = startPyftpdlib(); break;
            case FtpServerKind::kVsftpd: started = startVsftpd(); break;
            case FtpServerKind::kProftpd: started = startProftpd(); break;
            case FtpServerKind::kPureftpd: started = startPureftpd(); break;
            case FtpServerKind::kBusybox: started = startBusybox(); break;
        }
        if (!started) return false;  // failure_ says why; nothing to retry
        if (waitForGreeting(milliseconds(10000))) return true;
        stop();
        if (attempt < 2) failure_.clear();
    }
    return false;
}

bool RealFtpServer::makeCertificate() {
    // A private CA and a server certificate it signs for the address the
    // tests connect to; the keys stay readable by root only (every server
    // reads them before it switches to the FTP user).
    const std::string openssl = "/usr/bin/openssl";
    if (::access(openssl.c_str(), X_OK) != 0) {
        return fail(openssl + " is missing: run scripts/install-deps.sh");
    }
    const std::string tls = dir_ + "/tls";
    if (::mkdir(tls.c_str(), 0755) != 0) return fail("cannot create " + tls);
    caFile_ = tls + "/ca.pem";
    certFile_ = tls + "/server.pem";
    keyFile_ = tls + "/server.key";
    certKeyFile_ = tls + "/server-with-key.pem";
    const std::string caKey = tls + "/ca.key";
    const std::string request = tls + "/server.csr";
    const std::string extensions = tls + "/server.ext";
    const std::string fingerprintFile = tls + "/fingerprint.txt";
    if (!writeText(extensions,
                   "basicConstraints=CA:FALSE\n"
                   "keyUsage=critical,digitalSignature,keyEncipherment\n"
                   "extendedKeyUsage=serverAuth\n"
                   "subjectAltName=IP:127.0.0.1\n")) {
        return fail("cannot write " + extensions);
    }
    const std::vector<std::vector<std::string>> steps = {
        {openssl, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", caKey, "-out",
         caFile_, "-days", "30", "-subj", "/CN=ftpdisk test CA", "-addext",
         "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign"},
        {openssl, "req", "-newkey", "rsa:2048", "-nodes", "-keyout", keyFile_, "-out", request,
         "-subj", "/CN=127.0.0.1"},
        {openssl, "x509", "-req", "-in", request, "-CA", caFile_, "-CAkey", caKey, "-set_serial",
         "2", "-days", "30", "-extfile", extensions, "-out", certFile_},
        {openssl, "x509", "-in", certFile_, "-noout", "-fingerprint", "-sha256", "-out",
         fingerprintFile},
    };
    // The key generation's progress dots stay out of the server's output.
    const std::string opensslOut = tls + "/openssl.out";
    for (const std::vector<std::string>& step : steps) {
        if (runToEnd(step, "", tls + "/openssl.input", opensslOut, milliseconds(30000)) != 0) {
            std::string said;
            readText(opensslOut, &said);
            if (said.size() > 2000) said = "..." + said.substr(said.size() - 2000);
            return fail("openssl " + step[1] + " failed while making the test certificate:\n" +
                        said);
        }
    }
    // "sha256 Fingerprint=AB:CD:...\n"
    std::string text;
    if (!readText(fingerprintFile, &text) || text.find('=') == std::string::npos) {
        return fail("no fingerprint in " + fingerprintFile);
    }
    fingerprint_ = text.substr(text.find('=') + 1);
    while (!fingerprint_.empty() && std::isspace(static_cast<unsigned char>(fingerprint_.back()))) {
        fingerprint_.pop_back();
    }
    if (fingerprint_.size() != 95) return fail("unexpected fingerprint \"" + fingerprint_ + "\"");
    std::string cert, key;
    if (!readText(certFile_, &cert) || !readText(keyFile_, &key) ||
        !writeText(certKeyFile_, cert + key, 0600) || ::chmod(keyFile_.c_str(), 0600) != 0) {
        return fail("cannot write " + certKeyFile_);
    }
    return true;
}

bool RealFtpServer::spawn(const std::vector<std::string>& argv) {
    if (::access(argv[0].c_str(), X_OK) != 0) {
        return fail(argv[0] + " is missing: run scripts/install-deps.sh");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outFile_.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);

    // A process group of its own lets stop() end the server with all its
    // sessions at once; the signals a test may have ignored or blocked are
    // given back their defaults so that the server can be stopped.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGUSR1, SIGUSR2}) {
        sigaddset(&defaults, signal);
    }
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &actions, &attributes, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) return fail(argv[0] + ": posix_spawn: " + strerror(rc));
    pid_ = pid;
    return true;
}

bool RealFtpServer::waitForGreeting(milliseconds limit) {
    Clock::time_point deadline = Clock::now() + limit;
    std::string lastProblem = "no answer";
    while (Clock::now() < deadline) {
        int status = 0;
        if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            std::ostringstream why;
            why << "exited before accepting connections (status " << status << ")";
            return fail(why.str());
        }
        if (kind_ == FtpServerKind::kPyftpdlib && port_ == 0) {
            // The script binds port 0 and writes the port it got.
            std::string text;
            if (readText(dir_ + "/port", &text)) port_ = atoi(text.c_str());
            if (port_ == 0) {
                std::this_thread::sleep_for(milliseconds(20));
                continue;
            }
        }
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return fail(std::string("socket: ") + strerror(errno));
        timeval receiveLimit{2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receiveLimit, sizeof receiveLimit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port_));
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            // Read up to the last line of the greeting: "220 text" (a
            // multi-line greeting has "220-" lines before it).
            std::string received;
            char chunk[512];
            bool complete = false;
            while (!complete && received.size() < 16384) {
                ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
                if (n <= 0) break;
                received.append(chunk, static_cast<size_t>(n));
                size_t lineStart = 0;
                for (size_t end; (end = received.find("\r\n", lineStart)) != std::string::npos;
                     lineStart = end + 2) {
                    if (end - lineStart >= 4 && received.compare(lineStart, 3, "220") == 0 &&
                        received[lineStart + 3] == ' ') {
                        complete = true;
                    }
                }
            }
            if (complete) {
                static const char quit[] = "QUIT\r\n";
                ::send(fd, quit, sizeof quit - 1, MSG_NOSIGNAL);
                ::close(fd);
                return true;
            }
            lastProblem = "greeting was \"" + received + "\"";
        } else {
            lastProblem = std::string("connect: ") + strerror(errno);
        }
        ::close(fd);
        std::this_thread::sleep_for(milliseconds(20));
    }
    return fail("did not greet on port " + std::to_string(port_) + " in time (" + lastProblem +
                ")");
}

void RealFtpServer::stop() {
    if (pid_ <= 0) return;
    std::set<pid_t> family{pid_};
    extendFamily(&family);
    // The server first, so that it accepts no new session meanwhile, then
    // every session process; whatever ignores SIGTERM gets SIGKILL.
    ::kill(pid_, SIGTERM);
    Clock::time_point deadline = Clock::now() + milliseconds(5000);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (Clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    pid_ = -1;
    deadline = Clock::now() + milliseconds(5000);
    for (int round = 0;; ++round) {
        std::vector<pid_t> alive = extendFamily(&family);
        if (alive.empty() || Clock::now() >= deadline) break;
        for (pid_t pid : alive) ::kill(pid, round < 20 ? SIGTERM : SIGKILL);
        std::this_thread::sleep_for(milliseconds(10));
        reapFamily(family);
    }
    reapFamily(family);
}

std::vector<pid_t> RealFtpServer::processes() const {
    if (pid_ <= 0) return {};
    std::set<pid_t> family{pid_};
    return extendFamily(&family);
}

bool RealFtpServer::closeSessions() {
    if (pid_ <= 0) return false;
    std::set<pid_t> family{pid_};
    if (kind_ == FtpServerKind::kPyftpdlib) {
        ::kill(pid_, SIGUSR1);  // the script closes its connections itself
    } else {
        for (pid_t pid : extendFamily(&family)) {
            if (pid != pid_) ::kill(pid, SIGTERM);
        }
    }
    bool closed = waitForSessionCount(0, milliseconds(5000));
    family.erase(pid_);
    reapFamily(family);
    return closed;
}

bool RealFtpServer::startPyftpdlib() {
    port_ = 0;
    ::unlink((dir_ + "/port").c_str());
    std::string script = std::string(FTPDISK_SOURCE_DIR) + "/scripts/ftp-server.py";
    std::vector<std::string> argv = {
        "/usr/bin/python3", script,
        "--root",           root_,
        "--port",           "0",
        "--port-file",      dir_ + "/port",
        "--user",           user(),
        "--password",       passwordInUse(),
        "--idle-timeout",   std::to_string(options_.idleTimeoutSeconds),
        "--log-file",       logFile_};
    if (options_.maxClients > 0) {
        argv.insert(argv.end(), {"--max-clients", std::to_string(options_.maxClients)});
    }
    if (options_.tls) argv.insert(argv.end(), {"--tls-certificate", certKeyFile_});
    if (options_.passivePortFirst > 0) {
        argv.insert(argv.end(), {"--passive-ports", std::to_string(options_.passivePortFirst) +
                                                        "-" +
                                                        std::to_string(options_.passivePortLast)});
    }
    return spawn(argv);
}

bool RealFtpServer::startVsftpd() {
    port_ = pickFreePort();
    if (port_ == 0) return fail("no free port");
    std::string empty = dir_ + "/empty";
    ::mkdir(empty.c_str(), 0755);
    // All clients come from 127.0.0.1: the limit per address does the
    // refusing, the total stays above it.
    const int perAddress = options_.maxClients > 0 ? options_.maxClients : 64;
    const int clients = options_.maxClients > 0 ? 2 * options_.maxClients + 10 : 64;
    std::ostringstream conf;
    conf << "listen=YES\n"
            "listen_ipv6=NO\n"
            "listen_address=127.0.0.1\n"
         << "listen_port=" << port_ << "\n"
         << "background=NO\n"
            "anonymous_enable=NO\n"
            "local_enable=YES\n"
            "write_enable=YES\n"
            "local_umask=022\n"
         << "local_root=" << root_ << "\n"
         << "chroot_local_user=YES\n"
            "allow_writeable_chroot=YES\n"
            "pam_service_name=vsftpd\n"
            "userlist_enable=NO\n"
            "tcp_wrappers=NO\n"
         << "secure_chroot_dir=" << empty << "\n"
         << "idle_session_timeout=" << options_.idleTimeoutSeconds << "\n"
         << "data_connection_timeout=" << options_.idleTimeoutSeconds << "\n"
         << "pasv_enable=YES\n"
            "port_enable=YES\n"
            "connect_from_port_20=NO\n"
            "ftpd_banner=ftpdisk test server ready.\n"
            // Containers refuse the namespaces and the system-call filter
            // vsftpd would otherwise set up per session.
            "seccomp_sandbox=NO\n"
            "isolate=NO\n"
            "isolate_network=NO\n"
            "xferlog_enable=YES\n"
            "xferlog_std_format=NO\n"
            "log_ftp_protocol=YES\n"
         << "vsftpd_log_file=" << logFile_ << "\n"
         << "max_clients=" << clients << "\n"
         << "max_per_ip=" << perAddress << "\n"
         << "delay_failed_login=0\n"
            "delay_successful_login=0\n";
    if (options_.passivePortFirst > 0) {
        conf << "pasv_min_port=" << options_.passivePortFirst << "\n"
             << "pasv_max_port=" << options_.passivePortLast << "\n";
    }
    if (options_.tls) {
        // This vsftpd knows no finer protocol switch than ssl_tlsv1 (every
        // TLS 1.x version OpenSSL allows; Debian's OpenSSL allows 1.2 and
        // 1.3). Its built-in cipher list (DES-CBC3-SHA) is one OpenSSL 3 no
        // longer offers, so HIGH replaces it.
        conf << "ssl_enable=YES\n"
                "allow_anon_ssl=NO\n"
                "force_local_logins_ssl=YES\n"
                "force_local_data_ssl=YES\n"
                "require_ssl_reuse=YES\n"
                "ssl_sslv2=NO\n"
                "ssl_sslv3=NO\n"
                "ssl_tlsv1=YES\n"
                "ssl_ciphers=HIGH\n"
                "ssl_request_cert=NO\n"
                "debug_ssl=YES\n"
             << "rsa_cert_file=" << certFile_ << "\n"
             << "rsa_private_key_file=" << keyFile_ << "\n";
    }
    std::string confFile = dir_ + "/vsftpd.conf";
    if (!writeText(confFile, conf.str(), 0600)) return fail("cannot write " + confFile);
    return spawn({"/usr/sbin/vsftpd", confFile});
}

bool RealFtpServer::startProftpd() {
    port_ = pickFreePort();
    if (port_ == 0) return fail("no free port");
    std::string passwdFile = dir_ + "/ftpd.passwd";
    std::string groupFile = dir_ + "/ftpd.group";
    std::ostringstream passwd, group;
    passwd << user() << ":" << kPwCryptText << ":" << uid_ << ":" << gid_ << "::" << root_
           << ":/bin/sh\n";
    group << user() << ":x:" << gid_ << ":" << user() << "\n";
    if (!writeText(passwdFile, passwd.str(), 0600) || !writeText(groupFile, group.str(), 0644)) {
        return fail("cannot write the password files");
    }
    // MaxInstances ends a connection past it without a word; the limit per
    // host lets the session say why at the login, so the limit asked for is
    // put there and the session processes get room above it.
    std::string maxClients = "MaxInstances 64\n";
    if (options_.maxClients > 0) {
        maxClients = "MaxInstances " + std::to_string(2 * options_.maxClients + 10) +
                     "\nMaxClientsPerHost " + std::to_string(options_.maxClients) + "\n";
    }
    std::ostringstream conf;
    conf << "ServerName \"ftpdisk test\"\n"
            "ServerType standalone\n"
            "DefaultServer on\n"
            "UseIPv6 off\n"
         << "Port " << port_ << "\n"
         << "DefaultAddress 127.0.0.1\n"
            "SocketBindTight on\n"
            "ServerIdent on \"ftpdisk test server ready.\"\n"
         << "PidFile " << dir_ << "/proftpd.pid\n"
         << "ScoreboardFile " << dir_ << "/proftpd.scoreboard\n"
         << "DelayTable " << dir_ << "/proftpd.delay\n"
         << "WtmpLog off\n"
            "UseReverseDNS off\n"
            "AuthOrder mod_auth_file.c\n"
         << "AuthUserFile " << passwdFile << "\n"
         << "AuthGroupFile " << groupFile << "\n"
         << "RequireValidShell off\n"
            "DefaultRoot ~\n"
            "AllowOverwrite on\n"
            // Append ("APPE") is refused with 451 unless this is on.
            "AllowStoreRestart on\n"
            "Umask 022\n"
         << "TimeoutIdle " << options_.idleTimeoutSeconds << "\n"
         << "TimeoutNoTransfer " << options_.idleTimeoutSeconds << "\n"
         << maxClients << "SystemLog " << logFile_ << "\n"
         << "TransferLog " << dir_ << "/xfer.log\n";
    if (options_.tls) {
        // mod_tls is a loadable module of Debian's proftpd-mod-crypto,
        // unpacked beside proftpd-core. Without TLSOptions
        // NoSessionReuseRequired it requires every data connection to resume
        // the control connection's TLS session.
        conf << "ModulePath " << serversDir() << "/proftpd-mod-crypto/usr/lib/proftpd\n"
             << "LoadModule mod_tls.c\n"
             << "TLSEngine on\n"
                "TLSRequired on\n"
                "TLSProtocol TLSv1.2 TLSv1.3\n"
                "TLSVerifyClient off\n"
             << "TLSRSACertificateFile " << certFile_ << "\n"
             << "TLSRSACertificateKeyFile " << keyFile_ << "\n"
             << "TLSLog " << dir_ << "/tls.log\n";
    }
    std::string confFile = dir_ + "/proftpd.conf";
    if (!writeText(confFile, conf.str(), 0644)) return fail("cannot write " + confFile);
    // -n: stay in the foreground, so the process we start is the server.
    return spawn({serversDir() + "/proftpd-core/usr/sbin/proftpd", "-n", "-q", "-c", confFile});
}

bool RealFtpServer::startPureftpd() {
    port_ = pickFreePort();
    if (port_ == 0) return fail("no free port");
    std::string base = serversDir() + "/pure-ftpd/usr";
    std::string passwdFile = dir_ + "/pureftpd.passwd";
    std::string dbFile = dir_ + "/pureftpd.pdb";
    // A virtual user whose home is the root ("/./" makes it the user's
    // chroot). The password file is written here rather than by "pure-pw
    // useradd", whose default hash costs seconds to make and to check on
    // every login; pure-ftpd takes crypt text as well.
    std::ostringstream passwd;
    passwd << user() << ":" << kPwCryptText << ":" << uid_ << ":" << gid_ << "::" << root_
           << "/./::::::::::::\n";
    if (!writeText(passwdFile, passwd.str(), 0600)) return fail("cannot write " + passwdFile);
    if (::access((base + "/bin/pure-pw").c_str(), X_OK) != 0) {
        return fail(base + "/bin/pure-pw is missing: run scripts/install-deps.sh");
    }
    int rc = runToEnd({base + "/bin/pure-pw", "mkdb", dbFile, "-f", passwdFile}, "",
                      dir_ + "/pure-pw.input", outFile_, milliseconds(10000));
    if (rc != 0) return fail("pure-pw mkdb failed (" + std::to_string(rc) + ")");
    // Minutes, rounded up: the daemon knows no finer idle limit.
    int idleMinutes = (options_.idleTimeoutSeconds + 59) / 60;
    if (idleMinutes < 1) idleMinutes = 1;
    std::vector<std::string> argv = {base + "/sbin/pure-ftpd",
                                     "-S",
                                     "127.0.0.1," + std::to_string(port_),
                                     "-4",
                                     "-l",
                                     "puredb:" + dbFile,
                                     "-E",
                                     "-A",
                                     "-H",
                                     "-I",
                                     std::to_string(idleMinutes),
                                     "-O",
                                     "clf:" + logFile_,
                                     "-f",
                                     "none"};
    if (options_.maxClients > 0) {
        // The limit per address does the refusing (every client comes from
        // 127.0.0.1); the total, 50 unless given, stays above it.
        argv.insert(argv.end(), {"-c", std::to_string(2 * options_.maxClients + 10), "-C",
                                 std::to_string(options_.maxClients)});
    }
    if (options_.tls) {
        // -Y 3: TLS before the login and on every data connection; -2 the
        // certificate with its key in one file.
        argv.insert(argv.end(), {"-Y", "3", "-2", certKeyFile_});
    }
    return spawn(argv);
}

bool RealFtpServer::startBusybox() {
    port_ = pickFreePort();
    if (port_ == 0) return fail("no free port");
    std::string busybox = serversDir() + "/busybox/busybox";
    // tcpsvd accepts on the port and runs one ftpd per connection; ftpd
    // checks rec/pw against the system's password files, chroots to the root
    // and (-w) allows writes; -t is its idle limit in seconds, -vv logs every
    // command to standard error.
    std::vector<std::string> argv = {busybox, "tcpsvd", "-vE"};
    if (options_.maxClients > 0) {
        // -C refuses a connection past the limit with a message; -c alone
        // would only stop accepting, and clients would wait in the backlog.
        argv.insert(argv.end(), {"-c", std::to_string(2 * options_.maxClients + 10), "-C",
                                 std::to_string(options_.maxClients) +
                                     ":421 Too many connections from this address\r\n"});
    }
    argv.insert(argv.end(), {"127.0.0.1", std::to_string(port_), busybox, "ftpd", "-w", "-vv", "-t",
                             std::to_string(options_.idleTimeoutSeconds), root_});
    return spawn(argv);
}

std::string RealFtpServer::hostPort() const { return "127.0.0.1:" + std::to_string(port_); }

std::string RealFtpServer::location(const std::string& path) const {
    return std::string(user()) + "(" + passwordInUse() + ")@" + (options_.tls ? "ftps" : "ftp") +
           "://" + hostPort() + path;
}

std::string RealFtpServer::localPath(const std::string& ftpPath) const {
    size_t start = ftpPath.find_first_not_of('/');
    return root_ + "/" + (start == std::string::npos ? std::string() : ftpPath.substr(start));
}

bool RealFtpServer::fileExists(const std::string& ftpPath) const {
    struct stat info;
    return ::stat(localPath(ftpPath).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool RealFtpServer::dirExists(const std::string& ftpPath) const {
    struct stat info;
    return ::stat(localPath(ftpPath).c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool RealFtpServer::readFile(const std::string& ftpPath, std::string* bytes) const {
    return readText(localPath(ftpPath), bytes);
}

bool RealFtpServer::writeFile(const std::string& ftpPath, const std::string& bytes) const {
    std::string path = localPath(ftpPath);
    if (!writeText(path, bytes, 0644)) return false;
    if (geteuid() == 0 && uid_ != 0 && ::chown(path.c_str(), uid_, gid_) != 0) return false;
    return true;
}

bool RealFtpServer::makeDir(const std::string& ftpPath) const {
    std::string path = localPath(ftpPath);
    if (::mkdir(path.c_str(), 0755) != 0) return false;
    if (geteuid() == 0 && uid_ != 0 && ::chown(path.c_str(), uid_, gid_) != 0) return false;
    return true;
}

int RealFtpServer::sessionCount() const {
    if (port_ == 0) return 0;
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::getline(table, line);  // column titles
    int count = 0;
    // "   3: 0100007F:A1B2 0100007F:C3D4 01 ...": local address and port in
    // hex, remote, state (01 = ESTABLISHED).
    while (std::getline(table, line)) {
        char local[64], remote[64];
        unsigned state = 0;
        if (sscanf(line.c_str(), " %*[^:]: %63s %63s %x", local, remote, &state) != 3) continue;
        const char* colon = strchr(local, ':');
        if (!colon) continue;
        unsigned localPort = static_cast<unsigned>(strtoul(colon + 1, nullptr, 16));
        if (state == 1 && localPort == static_cast<unsigned>(port_)) ++count;
    }
    return count;
}

bool RealFtpServer::waitForSessionCount(int count, milliseconds limit) const {
    Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
        if (sessionCount() == count) return true;
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(milliseconds(10));
    }
}

std::string RealFtpServer::logTail(size_t maxBytes) const {
    std::string all;
    for (const std::string& file : {outFile_, logFile_}) {
        std::string text;
        if (!file.empty() && readText(file, &text) && !text.empty()) {
            if (text.size() > maxBytes) text = "..." + text.substr(text.size() - maxBytes);
            all += "[" + file + "]\n" + text + "\n";
        }
    }
    return all;
}
