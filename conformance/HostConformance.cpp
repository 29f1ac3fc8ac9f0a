// The runner of the host conformance suite.
//
//   ftpdisk_host_conformance [--check NAME]... [--limit SECONDS] [--dir DIR] [--list]
//
// Runs every check (or the ones named) in a child process of its own, each
// limited to --limit seconds (20 by default): a child that has not reported
// by then is killed and its check fails as hung; one that dies fails with its
// signal. Prints one line per check, "PASS <name> (<seconds> s)" or
// "FAIL <name>: <finding>" with further findings indented below, then
// "<n> passed, <m> failed". Exit status 0 when every check passed, 1 when one
// failed, 2 for a wrong command line.
#include "HostConformance.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

namespace conformance {

namespace {

const double kDefaultLimitSeconds = 20.0;

void writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

// One finding per line on the pipe to the runner.
std::string oneLine(const std::string& text) {
    std::string line(text);
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\n' || line[i] == '\r') line[i] = ' ';
    }
    return line;
}

int removeEntry(const char* path, const struct stat* /*info*/, int /*flag*/, struct FTW* /*ftw*/) {
    ::remove(path);
    return 0;
}

void removeTree(const std::string& path) {
    ::nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

struct Outcome {
    bool passed;
    std::vector<std::string> findings;
};

// The name of a signal for a finding ("SIGSEGV"), or its number.
std::string signalName(int sig) {
    switch (sig) {
        case SIGSEGV: return "SIGSEGV";
        case SIGABRT: return "SIGABRT";
        case SIGBUS: return "SIGBUS";
        case SIGFPE: return "SIGFPE";
        case SIGILL: return "SIGILL";
        case SIGKILL: return "SIGKILL";
        case SIGPIPE: return "SIGPIPE";
        case SIGXFSZ: return "SIGXFSZ";
        default: return "signal " + show(static_cast<long long>(sig));
    }
}

// Runs `check` in a child process and waits at most `limit` seconds for it.
Outcome runIsolated(const Check& check, double limit, const std::string& scratch) {
    Outcome outcome;
    outcome.passed = false;
    int fds[2];
    if (::pipe(fds) != 0) {
        outcome.findings.push_back(std::string("the runner could not make a pipe: ") +
                                   strerror(errno));
        return outcome;
    }
    fflush(stdout);
    fflush(stderr);
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        outcome.findings.push_back(std::string("the runner could not fork: ") + strerror(errno));
        return outcome;
    }
    if (child == 0) {
        ::close(fds[0]);
        Report report(fds[1], scratch);
        check.run(report);
        report.finish();
        fflush(stdout);
        _exit(0);
    }
    ::close(fds[1]);

    std::string received;
    bool ended = false;
    const double deadline = steadySeconds() + limit;
    for (;;) {
        const double left = deadline - steadySeconds();
        if (left <= 0) break;
        struct pollfd wait;
        wait.fd = fds[0];
        wait.events = POLLIN;
        wait.revents = 0;
        const int ready = ::poll(&wait, 1, static_cast<int>(left * 1000) + 1);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        char buffer[4096];
        const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ended = true;
            break;
        }
        received.append(buffer, static_cast<size_t>(n));
    }
    ::close(fds[0]);
    if (!ended) ::kill(child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }

    bool done = false;
    std::istringstream lines(received);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, 2, "F ") == 0) outcome.findings.push_back(line.substr(2));
        if (line == "done") done = true;
    }
    if (!ended) {
        outcome.findings.push_back("no result within " + show(limit) +
                                   " s: the host hung (the check was killed)");
    } else if (WIFSIGNALED(status)) {
        outcome.findings.push_back("the check's process ended by " + signalName(WTERMSIG(status)) +
                                   " inside the host");
    } else if (!done && outcome.findings.empty()) {
        outcome.findings.push_back("the check's process ended without a result (status " +
                                   show(static_cast<long long>(WEXITSTATUS(status))) + ")");
    }
    outcome.passed = done && outcome.findings.empty();
    return outcome;
}

void usage(FILE* out) {
    fprintf(out,
            "usage: ftpdisk_host_conformance [--check NAME]... [--limit SECONDS] [--dir DIR] "
            "[--list]\n"
            "Checks the host classes this program is linked with against the contracts the\n"
            "ftpdisk module relies on. --list names the checks.\n");
}

}  // namespace

Report::Report(int resultFd, const std::string& scratchDir) : fd_(resultFd), scratch_(scratchDir) {}

void Report::fail(const std::string& what) {
    std::lock_guard<std::mutex> guard(mutex_);
    findings_.push_back(oneLine(what));
}

bool Report::failed() {
    std::lock_guard<std::mutex> guard(mutex_);
    return !findings_.empty();
}

void Report::abandon(const std::string& what) {
    fail(what);
    finish();
    fflush(stdout);
    _exit(1);
}

void Report::send(const std::string& line) { writeAll(fd_, line + "\n"); }

void Report::finish() {
    std::vector<std::string> findings;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        findings.swap(findings_);
    }
    for (size_t i = 0; i < findings.size(); ++i) send("F " + findings[i]);
    send("done");
}

bool waitUntil(const std::function<bool()>& done, double seconds) {
    const double deadline = steadySeconds() + seconds;
    for (;;) {
        if (done()) return true;
        if (steadySeconds() >= deadline) return done();
        sleepSeconds(0.001);
    }
}

Worker::Worker(const std::function<void()>& body) : done_(false) {
    thread_ = std::thread([this, body] {
        body();
        std::lock_guard<std::mutex> guard(mutex_);
        done_ = true;
        ended_.notify_all();
    });
}

Worker::~Worker() {
    if (finished() && thread_.joinable()) thread_.join();
    // A worker still inside the host: its check abandons the process before
    // this runs. Detaching keeps a missed case from ending in terminate().
    if (thread_.joinable()) thread_.detach();
}

bool Worker::finishedWithin(double seconds) {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!ended_.wait_for(lock, std::chrono::duration<double>(seconds),
                             [this] { return done_; })) {
            return false;
        }
    }
    if (thread_.joinable()) thread_.join();
    return true;
}

bool Worker::finished() {
    std::lock_guard<std::mutex> guard(mutex_);
    return done_;
}

Watchdog::Watchdog(Report& report, double seconds, const std::string& what) : done_(false) {
    thread_ = std::thread([this, &report, seconds, what] {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!disarmed_.wait_for(lock, std::chrono::duration<double>(seconds),
                                [this] { return done_; })) {
            report.abandon(what);
        }
    });
}

Watchdog::~Watchdog() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        done_ = true;
    }
    disarmed_.notify_all();
    thread_.join();
}

std::string show(double value) {
    char text[64];
    snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string show(long long value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

std::string quoted(const std::string& text) {
    std::string out("\"");
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c < 0x20 || c >= 0x7f) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

const std::vector<Check>& allChecks() {
    static const Check table[] = {
        {"ref_count.counts_under_threads",
         "lock() keeps other threads out; counts stay exact with SafePointer copies in several "
         "threads",
         checkRefCountsUnderThreads},
        {"RefCountManager.address_reused_while_handed_back",
         "a new object at the address of one being deleted gets a fresh record of count 1, which "
         "the old record's hand-back leaves alone",
         checkAddressReusedWhileHandedBack},
        {"RefCountManager.no_record_lock_under_registry_lock",
         "retrieveRefCount may wait for a record's lock, but not while holding what "
         "returnbackRefCount needs",
         checkNoRecordLockUnderRegistryLock},
        {"KDMutex.excludes_other_threads",
         "Lock keeps every other thread out until Unlock, from many threads",
         checkMutexExcludesOtherThreads},
        {"GThread.start_stop_running",
         "start runs the body again and again between onStart and onStop; running tells; stop "
         "joins; start runs it anew",
         checkThreadStartStopRunning},
        {"GThread.stop_ends_wait_early",
         "stop ends a KadmorTime::wait in progress on that thread at once, also one that starts "
         "as the stop is asked",
         checkStopEndsWaitEarly},
        {"KadmorTime.wait_lasts_its_duration",
         "wait pauses for seconds plus microseconds, on any thread", checkWaitLastsItsDuration},
        {"KDTime.up_time_never_goes_back",
         "getUpTime never goes back, on one thread or across threads; both clocks count real "
         "seconds",
         checkClocks},
        {"KDFile.short_reads",
         "read may return fewer bytes than asked; only 0 means the end of the file",
         checkFileShortReads},
        {"KDFile.short_writes",
         "write returns the bytes the file took, fewer when it took fewer, negative on an error",
         checkFileShortWrites},
        {"KDLogger.call",
         "writeLog appends one whole line per call from any thread, keeps the size cap, and "
         "fails silently",
         checkLoggerCall},
        {"StringParser.blanks_tabs_runs",
         "Split at \" \": a run of blanks is one separator, no empty words, a tab is part of a "
         "word",
         checkParserBlanks},
        {"StringHandler.every_separator_cuts",
         "split cuts at every separator and keeps empty parts, the last one too",
         checkHandlerSeparators},
        {"string_util.utf82wchar", "UTF-8 names become one wide character per code point",
         checkUtf8ToWide},
    };
    static const std::vector<Check> checks(table, table + sizeof table / sizeof table[0]);
    return checks;
}

}  // namespace conformance

int main(int argc, char** argv) {
    using conformance::Check;
    std::vector<std::string> wanted;
    double limit = conformance::kDefaultLimitSeconds;
    const char* tmp = getenv("TMPDIR");
    std::string dir = tmp != NULL && tmp[0] != '\0' ? tmp : "/tmp";
    bool list = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg(argv[i]);
        if (arg == "--check" && i + 1 < argc) {
            wanted.push_back(argv[++i]);
        } else if (arg == "--limit" && i + 1 < argc) {
            limit = atof(argv[++i]);
            if (!(limit > 0)) {
                fprintf(stderr, "--limit takes a number of seconds above 0\n");
                return 2;
            }
        } else if (arg == "--dir" && i + 1 < argc) {
            dir = argv[++i];
        } else if (arg == "--list") {
            list = true;
        } else if (arg == "--help" || arg == "-h") {
            conformance::usage(stdout);
            return 0;
        } else {
            conformance::usage(stderr);
            return 2;
        }
    }

    const std::vector<Check>& all = conformance::allChecks();
    std::vector<Check> chosen;
    for (size_t w = 0; w < wanted.size(); ++w) {
        bool known = false;
        for (size_t c = 0; c < all.size(); ++c) {
            if (wanted[w] == all[c].name) {
                chosen.push_back(all[c]);
                known = true;
            }
        }
        if (!known) {
            fprintf(stderr, "no check named %s (--list names them)\n", wanted[w].c_str());
            return 2;
        }
    }
    if (wanted.empty()) chosen = all;
    if (list) {
        for (size_t c = 0; c < all.size(); ++c)
            printf("%s\n    %s\n", all[c].name, all[c].contract);
        return 0;
    }

    std::string scratch = dir + "/ftpdisk-conformance.XXXXXX";
    std::vector<char> pattern(scratch.begin(), scratch.end());
    pattern.push_back('\0');
    if (mkdtemp(&pattern[0]) == NULL) {
        fprintf(stderr, "cannot make a scratch folder below %s: %s\n", dir.c_str(),
                strerror(errno));
        return 2;
    }
    scratch = &pattern[0];

    printf("ftpdisk host conformance: %u checks, each limited to %s s\n",
           static_cast<unsigned>(chosen.size()), conformance::show(limit).c_str());
    std::vector<std::string> failedNames;
    for (size_t c = 0; c < chosen.size(); ++c) {
        const std::string folder = scratch + "/" + chosen[c].name;
        ::mkdir(folder.c_str(), 0700);
        const double started = conformance::steadySeconds();
        const conformance::Outcome outcome = conformance::runIsolated(chosen[c], limit, folder);
        const double took = conformance::steadySeconds() - started;
        conformance::removeTree(folder);
        if (outcome.passed) {
            printf("PASS %s (%s s)\n", chosen[c].name, conformance::show(took).c_str());
            continue;
        }
        failedNames.push_back(chosen[c].name);
        printf("FAIL %s: %s\n", chosen[c].name, outcome.findings[0].c_str());
        for (size_t f = 1; f < outcome.findings.size(); ++f) {
            printf("     %s\n", outcome.findings[f].c_str());
        }
        printf("     (contract: %s)\n", chosen[c].contract);
    }
    conformance::removeTree(scratch);
    printf("%u passed, %u failed", static_cast<unsigned>(chosen.size() - failedNames.size()),
           static_cast<unsigned>(failedNames.size()));
    for (size_t f = 0; f < failedNames.size(); ++f) {
        printf("%s%s", f == 0 ? ": " : ", ", failedNames[f].c_str());
    }
    printf("\n");
    return failedNames.empty() ? 0 : 1;
}
