// check: walks one location through everything a recorder does with it and
// prints one line per step with its result and time, then a verdict. With
// --cameras N it also opens N files at once, as N cameras recording together.
//
//   ok    init         0.63 ms  connected and logged in
//   ok    data         4.12 ms  server announces 172.17.0.5 for data, connecting to ...
//   ok    replies              slowest reply 1.20 ms (LIST), within the 3 s wait
//   FAIL  write        3050 ms  writing to the server failed after 65536 bytes
//   skip  list                  not run: write failed
//   FAIL  cameras      12.3 ms  server granted 3 connections; 4 cameras need 5: '421 ...'

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <iostream>
#include <memory>
#include <vector>

#include "Commands.h"
#include "FailureText.h"
#include "ToolFormat.h"
#include "ftp/FTPTool.h"
#include "ftp/TlsContext.h"

namespace ftpdisk_tool {

namespace {

// Big enough to need several sends and cross block boundaries, small enough
// to pass quickly over a slow uplink.
constexpr unsigned kProbeSize = 256 * 1024 + 123;

// Byte i of the probe file; 251 is prime, so the pattern never lines up with
// block sizes and a shifted or repeated block shows as a mismatch.
char probeByte(std::size_t i) { return static_cast<char>((i * 7 + 3) % 251); }

constexpr int kMaxCameras = 64;

std::string plural(long long n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

// The "cameras" step: opens `cameras` files in `dir` one after another and
// keeps them all open, as that many cameras recording at once; with the
// store's own connection that takes cameras + 1 logged-in connections. Then
// writes a block to each and closes them. When an open fails, the module's
// last error says why: a server at its limit turns the session or the login
// away, and its reply names the limit.
bool openCameraFiles(FTPFileSystem* store, const Location& location, const std::string& dir,
                     int cameras, std::string& detail) {
    std::vector<int> handles;
    std::vector<double> openSeconds;
    std::string refused;
    FailureReason why;
    for (int camera = 1; camera <= cameras; ++camera) {
        char name[32];
        std::snprintf(name, sizeof name, "cam%02d.dat", camera);
        const std::string path = childPath(dir, name);
        const double start = monotonicSeconds();
        const int handle = store->open(path.c_str(), 2);
        if (handle < 0) {
            refused = path;
            why = lastFailure(location);
            break;
        }
        openSeconds.push_back(monotonicSeconds() - start);
        handles.push_back(handle);
    }
    std::vector<char> block(kBlock);
    for (std::size_t i = 0; i < block.size(); ++i) {
        block[i] = probeByte(i);
    }
    int unwritten = 0;
    int unconfirmed = 0;
    for (int handle : handles) {
        if (writeToStore(store, handle, block.data(), block.size()) != block.size()) {
            ++unwritten;
        }
        if (store->close(handle) != 0) {
            ++unconfirmed;
        }
    }
    const long long granted = static_cast<long long>(handles.size()) + 1;
    const std::string need =
        plural(cameras, "camera needs ", "cameras need ") + std::to_string(cameras + 1);
    if (!refused.empty()) {
        if (why.turnedAway) {
            detail = "server granted " + plural(granted, "connection", "connections") + "; " +
                     need + ": '" + why.reply + "'";
        } else {
            detail = "cannot open " + refused + " with " + plural(granted - 1, "file", "files") +
                     " open (" + why.text + ")";
        }
        return false;
    }
    if (unwritten != 0 || unconfirmed != 0) {
        detail = plural(cameras, "file", "files") + " open at once, but " +
                 plural(unwritten, "write", "writes") + " failed and " +
                 plural(unconfirmed, "close was", "closes were") + " not confirmed";
        return false;
    }
    detail = plural(cameras, "file", "files") + " open at once: server granted " +
             plural(granted, "connection", "connections") + " (the store's own and one per " +
             "file), enough for " + plural(cameras, "camera", "cameras") + "; open p50 " +
             humanMillis(percentile(openSeconds, 50)) + ", max " +
             humanMillis(*std::max_element(openSeconds.begin(), openSeconds.end()));
    return true;
}

// The slowest single reply one session of the module's FTP client saw, and to
// what. The module waits 3 s for a reply to start; a server that comes near
// that (a disk spinning up, say) fails commands now and then.
struct SlowestReply {
    double seconds = 0;
    std::string what;

    void note(double took, const char* command) {
        if (took > seconds) {
            seconds = took;
            what = command;
        }
    }
};

std::string dottedAddress(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

// The "data" step: one session of the module's own FTP client (the one the
// store uses) asks for a passive data address and lists the base directory
// through it (over TLS for an ftps location, with the tls step's context).
// The module connects its data connections to the address the
// control connection reached, with the port the server announces; a server
// that announces another address is behind address translation, which the
// module rides over, and this says so. Every reply is timed.
bool probeDataAddress(const Location& location, const std::shared_ptr<TlsContext>& tls,
                      SlowestReply& slowest, std::string& detail) {
    FTPTool tool;
    tool.useTls(tls);
    double start = monotonicSeconds();
    if (tool.connect(location.server.c_str()) != 1) {
        detail = "cannot connect: " + std::string(tool.getResponse());
        return false;
    }
    slowest.note(monotonicSeconds() - start, "greeting");
    start = monotonicSeconds();
    if (tool.login(location.user.c_str(), location.password.c_str()) != 1) {
        detail = "login refused: " + std::string(tool.getResponse());
        return false;
    }
    slowest.note(monotonicSeconds() - start, "login");
    std::string base = location.base.empty() ? "/" : location.base;
    start = monotonicSeconds();
    if (tool.cd(base.c_str()) != 1) {
        // A base that does not exist yet is made by the mkdir step below, as
        // the recorder's createDir would; the data address is as well
        // probed by listing the root. Anything but a refusal is a failure.
        if (tool.getResponse()[0] != '5' || tool.cd("/") != 1) {
            detail = "cannot change into " + base + ": " + tool.getResponse();
            return false;
        }
        base = "/";
    }
    slowest.note(monotonicSeconds() - start, "CWD");
    start = monotonicSeconds();
    if (tool.Sendcmd("PASV", '2') != 1) {
        detail = "passive mode refused: " + std::string(tool.getResponse());
        return false;
    }
    slowest.note(monotonicSeconds() - start, "PASV");
    sockaddr_in announced{};
    sockaddr_in reached{};
    socklen_t length = sizeof reached;
    if (ftpParsePassiveReply(tool.getResponse(), &announced) != 1 ||
        ::getpeername(tool.getControlBuf()->handle, reinterpret_cast<sockaddr*>(&reached),
                      &length) != 0) {
        detail = "no data address in the reply: " + std::string(tool.getResponse());
        return false;
    }
    NetBuf* data = nullptr;
    start = monotonicSeconds();
    if (tool.dataConnect(base.c_str(), kFtpList, 'I', &data) != 1) {
        detail = "cannot list " + base + " through port " +
                 std::to_string(ntohs(announced.sin_port)) + " of " + dottedAddress(reached) +
                 ": " + tool.getResponse();
        return false;
    }
    slowest.note(monotonicSeconds() - start, "PASV and LIST");
    char sink[4096];
    while (tool.read(sink, sizeof sink, data) > 0) {
    }
    start = monotonicSeconds();
    const bool closed = tool.closeData(data) == 1;
    slowest.note(monotonicSeconds() - start, "LIST's closing reply");
    start = monotonicSeconds();
    tool.quit();
    slowest.note(monotonicSeconds() - start, "QUIT");
    if (!closed) {
        detail = "the listing through the data connection did not end well: " +
                 std::string(tool.getResponse());
        return false;
    }
    if (announced.sin_addr.s_addr != reached.sin_addr.s_addr) {
        detail = "server announces " + dottedAddress(announced) + " for data, connecting to " +
                 dottedAddress(reached) + " instead: the server is behind address translation";
    } else {
        detail = "server announces " + dottedAddress(announced) + ", the address it was reached at";
    }
    if (base != (location.base.empty() ? "/" : location.base)) {
        detail += " (listed /: the base does not exist yet)";
    }
    return true;
}

// Where the details of a step go: below its line, lined up with its text.
const std::string kDetailIndent(30, ' ');

// The trust of the command's own sessions with the server, the same the TLS
// options give the store (Session::registerLocation checked them).
TlsTrust trustOf(const TlsOptions& options) {
    TlsTrust trust;
    if (options.pinned) {
        trust.mode = TlsTrust::kPinned;
        tlsParseFingerprint(options.fingerprint, &trust.pinnedSha256);
    } else if (options.caFileGiven) {
        trust.caFiles.push_back(options.caFile);
    } else if (options.insecure) {
        trust.mode = TlsTrust::kUnverified;
    }
    return trust;
}

// The "tls" step: one session of the module's own FTP client with `context`
// makes the TLS handshake the store makes and reports what it learnt of the
// server. With `login` it also logs in (which takes "PBSZ 0" and "PROT P");
// without, it only looks at the certificate and sends no password (for a
// server whose certificate the store did not trust).
bool probeTls(const Location& location, const std::shared_ptr<TlsContext>& context, bool login,
              TlsPeerDetails& peer, std::string& detail) {
    FTPTool tool;
    tool.useTls(context);
    if (tool.connect(location.server.c_str()) != 1) {
        detail = "no secure connection: " + std::string(tool.getResponse());
        return false;
    }
    if (!tool.tlsDetails(&peer)) {
        detail = "connected, but no TLS details";
        tool.quit();
        return false;
    }
    if (login && tool.login(location.user.c_str(), location.password.c_str()) != 1) {
        detail = "login over TLS refused: " + std::string(tool.getResponse());
        tool.quit();
        return false;
    }
    tool.quit();
    detail = peer.protocol + " " + peer.cipher + ", certificate check: " + peer.verification;
    return true;
}

// The certificate, one field a line below the tls step.
void printCertificate(const TlsPeerDetails& peer) {
    std::cout << kDetailIndent << "subject   " << peer.subject << "\n"
              << kDetailIndent << "issuer    " << peer.issuer << "\n"
              << kDetailIndent << "valid     from " << peer.notBefore << " to " << peer.notAfter
              << "\n"
              << kDetailIndent << "SHA-256   " << peer.fingerprint << std::endl;
}

// The fingerprint the module names in an untrusted certificate's error
// ("...; SHA-256 fingerprint AB:CD:..."), or "".
std::string fingerprintIn(const std::string& text) {
    const std::string marker = "SHA-256 fingerprint ";
    const std::string::size_type at = text.rfind(marker);
    if (at == std::string::npos) {
        return "";
    }
    const std::string fingerprint = text.substr(at + marker.size());
    std::string raw;
    return tlsParseFingerprint(fingerprint, &raw) ? fingerprint : "";
}

class StepPrinter {
public:
    // Runs `body` as one step unless an earlier step it needs has failed.
    // `body` returns true on success and fills `detail` either way.
    bool run(const std::string& name, bool prerequisite, const std::string& skipReason,
             const std::function<bool(std::string&)>& body) {
        if (!prerequisite) {
            ++steps_;
            ++skipped_;
            print("skip", name, "", "not run: " + skipReason);
            return false;
        }
        std::string detail;
        const double start = monotonicSeconds();
        const bool ok = body(detail);
        report(name, ok, monotonicSeconds() - start, detail);
        return ok;
    }

    // A step that ran before the printer existed.
    void report(const std::string& name, bool ok, double seconds, const std::string& detail) {
        ++steps_;
        print(ok ? "ok" : "FAIL", name, humanMillis(seconds), detail);
        if (ok) {
            ++passed_;
        } else if (firstFailure_.empty()) {
            firstFailure_ = name + " (" + detail + ")";
        }
    }

    int steps() const { return steps_; }
    int passed() const { return passed_; }
    int skipped() const { return skipped_; }
    const std::string& firstFailure() const { return firstFailure_; }

private:
    static void print(const std::string& result, const std::string& name, const std::string& time,
                      const std::string& detail) {
        char line[96];
        std::snprintf(line, sizeof line, "  %-4s  %-9s %10s  ", result.c_str(), name.c_str(),
                      time.c_str());
        std::cout << line << detail << std::endl;
    }

    int steps_ = 0;
    int passed_ = 0;
    int skipped_ = 0;
    std::string firstFailure_;
};

}  // namespace

int runCheck(const Arguments& args) {
    int cameras = 0;
    const auto camerasValue = args.values.find("--cameras");
    if (camerasValue != args.values.end()) {
        long long whole = 0;
        if (!parseInt(camerasValue->second, whole) || whole < 1 || whole > kMaxCameras) {
            return usage("check", "--cameras takes a whole number from 1 to " +
                                      std::to_string(kMaxCameras) + ", not \"" +
                                      camerasValue->second + "\"");
        }
        cameras = static_cast<int>(whole);
    }
    Session session("check", args);
    // A text that is not a location is a usage error, reported before any step.
    const double registerStart = monotonicSeconds();
    int status = session.registerLocation(args.positional[0]);
    const double registerSeconds = monotonicSeconds() - registerStart;
    if (status != kExitOk) {
        return status;
    }
    const Location& location = session.location();
    FTPFileSystem* store = session.store();
    std::cout << "checking " << location.masked() << std::endl;

    StepPrinter steps;
    steps.report("register", true, registerSeconds,
                 "store for server " + location.server + ", user " + location.user + ", base " +
                     (location.base.empty() ? "/" : location.base));
    // Timed without the probe that explains a failure.
    const double initStart = monotonicSeconds();
    const bool ready = session.init(true) == kExitOk;
    const double initSeconds = monotonicSeconds() - initStart;
    const FTPFileSystem::LastError initError = FTPFileSystem::getLastError();
    steps.report("init", ready, initSeconds,
                 ready ? "connected and logged in" : lastFailure(location).text);

    // ftps: what the store's connections are made of. After a certificate
    // the store did not trust, a look at it without the trust check and
    // without logging in, so that the user can tell whether to pin it.
    std::shared_ptr<TlsContext> tls;
    bool secured = true;
    if (location.tls) {
        const bool untrusted = !ready && initError.kind == FTPFileSystem::kErrorTls;
        TlsPeerDetails peer;
        bool looked = false;
        secured = steps.run("tls", ready || untrusted, "init failed", [&](std::string& detail) {
            TlsTrust trust = trustOf(session.tls());
            if (untrusted) {
                trust = TlsTrust();
                trust.mode = TlsTrust::kUnverified;
            }
            std::string why;
            tls = TlsContext::make(trust, &why);
            if (!tls) {
                detail = why;
                return false;
            }
            looked = probeTls(location, tls, !untrusted, peer, detail);
            if (untrusted) {
                detail = looked ? "the certificate the server showed, not trusted:"
                                : "cannot look at the certificate: " + detail;
                return false;
            }
            return looked;
        });
        if (looked) {
            printCertificate(peer);
        }
        if (untrusted) {
            const std::string fingerprint = fingerprintIn(initError.text);
            if (!fingerprint.empty()) {
                std::cout << "hint: once you know this certificate is the server's own, trust it "
                             "with --tls-fingerprint "
                          << fingerprint
                          << ", or give --ca-file with the CA certificate that signed it"
                          << std::endl;
            }
        } else if (secured && session.tls().insecure) {
            std::cout << "warning: the server's certificate is not verified (" << kTlsInsecureOption
                      << "): the connection is encrypted, but anyone on the way can pose as the "
                         "server and read the password; pin this certificate with "
                      << kTlsFingerprintOption << " " << peer.fingerprint << std::endl;
        }
    }
    SlowestReply slowest;
    const bool dataReached = steps.run(
        "data", ready && secured, ready ? "tls failed" : "init failed",
        [&](std::string& detail) { return probeDataAddress(location, tls, slowest, detail); });
    steps.run("replies", dataReached, "data failed", [&](std::string& detail) {
        detail = "slowest reply " + humanMillis(slowest.seconds) + " (" + slowest.what + ")";
        // The module waits 3 s for a reply to start and fails the command
        // when none has; a server that takes a second already is close.
        if (slowest.seconds >= 3.0) {
            detail += ", past the module's 3 s wait: commands will fail";
            return false;
        }
        if (slowest.seconds >= 1.0) detail += ", near the module's 3 s wait";
        return true;
    });

    // A name of its own per run, so that two checks never meet and a left-over
    // directory says where it came from.
    std::string dirName = ".ftpdisk-check-" + std::to_string(::getpid()) + "-" +
                          std::to_string(static_cast<long long>(std::time(nullptr)));
    std::string dir;
    std::string problem;
    if (!remotePathBelow(location.base, dirName, dir, problem)) {
        return fail("check", problem, kExitUsage);
    }
    const std::string file = childPath(dir, "probe.dat");
    if (file.size() > kMaxRemotePath) {
        return fail("check", "the location's path is too long to hold a test file", kExitUsage);
    }

    const bool made = steps.run("mkdir", ready, "init failed", [&](std::string& detail) {
        detail = dir;
        if (store->createDir(dir.c_str()) != 0) {
            detail = "cannot create " + dir;
            return false;
        }
        if (!store->isDirExist(dir.c_str())) {
            detail = "created " + dir + " but cannot change into it";
            return false;
        }
        return true;
    });

    const bool written = steps.run("write", made, "mkdir failed", [&](std::string& detail) {
        std::vector<char> data(kProbeSize);
        for (std::size_t i = 0; i < data.size(); ++i) {
            data[i] = probeByte(i);
        }
        const double start = monotonicSeconds();
        const int handle = store->open(file.c_str(), 2);
        if (handle < 0) {
            detail = "cannot open " + file + " for writing";
            return false;
        }
        const std::size_t sent = writeToStore(store, handle, data.data(), data.size());
        const int closed = store->close(handle);
        if (sent != data.size()) {
            detail = "writing to the server failed after " + std::to_string(sent) + " bytes";
            return false;
        }
        if (closed != 0) {
            detail = "the server did not confirm " + file;
            return false;
        }
        const double seconds = monotonicSeconds() - start;
        detail = file + ", " + std::to_string(sent) + " bytes, " +
                 humanRate(seconds > 0 ? static_cast<double>(sent) / seconds : 0);
        return true;
    });

    steps.run("list", written, "write failed", [&](std::string& detail) {
        std::vector<std::string> names;
        if (!store->getFileList(dir.c_str(), names, "")) {
            detail = "cannot list " + dir;
            return false;
        }
        if (std::find(names.begin(), names.end(), "probe.dat") == names.end()) {
            detail = "probe.dat missing from the listing of " + dir + " (" +
                     std::to_string(names.size()) + " files listed)";
            return false;
        }
        detail = "probe.dat listed in " + dir;
        return true;
    });

    steps.run("measure", written, "write failed", [&](std::string& detail) {
        const long long length = store->getFileLength(file.c_str());
        detail = "length " + std::to_string(length) + ", expected " + std::to_string(kProbeSize);
        return length == static_cast<long long>(kProbeSize);
    });

    steps.run("read", written, "write failed", [&](std::string& detail) {
        const int handle = store->open(file.c_str(), 1);
        if (handle < 0) {
            detail = "cannot open " + file + " for reading";
            return false;
        }
        std::size_t got = 0;
        std::size_t firstBad = static_cast<std::size_t>(-1);
        const std::int64_t read = readFromStore(
            store, handle,
            [&](const char* data, std::size_t size, std::string&) {
                for (std::size_t i = 0; i < size && firstBad == static_cast<std::size_t>(-1); ++i) {
                    if (data[i] != probeByte(got + i)) {
                        firstBad = got + i;
                    }
                }
                got += size;
                return true;
            },
            detail);
        const int closed = store->close(handle);
        if (read < 0) {
            return false;
        }
        if (closed != 0) {
            detail = "the server did not confirm the end of " + file;
            return false;
        }
        if (got != kProbeSize) {
            detail = "read " + std::to_string(got) + " bytes, wrote " + std::to_string(kProbeSize);
            return false;
        }
        if (firstBad != static_cast<std::size_t>(-1)) {
            detail = "content differs from what was written at byte " + std::to_string(firstBad);
            return false;
        }
        detail = std::to_string(got) + " bytes read back, content matches";
        return true;
    });

    if (cameras > 0) {
        steps.run("cameras", made, "mkdir failed", [&](std::string& detail) {
            return openCameraFiles(store, location, dir, cameras, detail);
        });
    }

    steps.run("delete", written, "write failed", [&](std::string& detail) {
        if (store->deleteFile(file.c_str()) != 0) {
            detail = "cannot delete " + file;
            return false;
        }
        std::vector<std::string> names;
        if (store->getFileList(dir.c_str(), names, "") &&
            std::find(names.begin(), names.end(), "probe.dat") != names.end()) {
            detail = "deleted " + file + " but it is still listed";
            return false;
        }
        detail = file;
        return true;
    });

    // Runs whenever the directory was made, so that a failed write leaves
    // nothing behind (removeDir takes any file still in it).
    steps.run("rmdir", made, "mkdir failed", [&](std::string& detail) {
        if (store->removeDir(dir.c_str()) != 0) {
            detail = "cannot remove " + dir;
            return false;
        }
        if (store->isDirExist(dir.c_str())) {
            detail = "removed " + dir + " but it still exists";
            return false;
        }
        detail = dir;
        return true;
    });

    steps.run("release", ready, "init failed", [&](std::string& detail) {
        detail = "logged out";
        return store->uninit() == 0;
    });

    if (steps.passed() == steps.steps()) {
        std::cout << "verdict: PASS: " << location.masked() << " can hold recordings"
                  << (cameras > 0 ? " from " + plural(cameras, "camera", "cameras") : "") << " ("
                  << steps.passed() << " of " << steps.steps() << " steps passed)" << std::endl;
        return kExitOk;
    }
    std::cout << "verdict: FAIL: " << location.masked()
              << " is not usable: " << steps.steps() - steps.passed() - steps.skipped() << " of "
              << steps.steps() << " steps failed, " << steps.skipped()
              << " skipped; first failure: " << steps.firstFailure() << std::endl;
    return kExitFailed;
}

}  // namespace ftpdisk_tool
