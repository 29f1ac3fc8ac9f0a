// ftpdisk-lab: the network lab as a program, for benchmarks and by-hand
// sessions in front of a real FTP server on this machine.
//
//   ftpdisk-lab --upstream 127.0.0.1:2121 --rtt-ms 50
//   listening 127.0.0.1:40123
//
// It runs until SIGINT or SIGTERM, or until its standard input ends when that
// is a pipe or a terminal (a script that holds the pipe ends the lab by
// closing it; started with stdin from /dev/null it runs until signalled).
// Lines on standard input change conditions while it runs (see usage()).
// On the way out it prints its counters, one "name value" per line.
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "support/NetLab.h"

namespace {

volatile sig_atomic_t gSignalled = 0;

void onSignal(int) { gSignalled = 1; }

void usage(FILE* out) {
    std::fputs(
        "usage: ftpdisk-lab --upstream HOST:PORT [options]\n"
        "  --upstream HOST:PORT   server to forward to (127.x.x.x or localhost)\n"
        "  --listen PORT          port to listen on (default: an ephemeral one)\n"
        "  --rtt-ms N             round trip added to every connection (N/2 each way)\n"
        "  --rate-kbps N          shared link of N kilobits/s (1000 bits) each way\n"
        "  --rate-bytes N         shared link of N bytes/s each way\n"
        "  --max-connections N    turn away control connections beyond N\n"
        "  --limit-reply TEXT     line sent to those (default \"421 Too many connections (lab)\")\n"
        "  --swallow-greeting     drop the first reply of every control connection\n"
        "Prints \"listening 127.0.0.1:<port>\", then runs until SIGINT/SIGTERM or the\n"
        "end of standard input (when it is a pipe or terminal), then prints counters.\n"
        "Commands on standard input, one per line:\n"
        "  rtt-ms N | rate-kbps N | rate-bytes N | max-connections N\n"
        "  stall control|data|all | release | reset-data N | reset-control N\n"
        "  down refuse|blackhole | up | drop | counters\n",
        out);
}

bool parseNumber(const char* text, unsigned long long* value) {
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    errno = 0;
    *value = std::strtoull(text, &end, 10);
    return errno == 0 && *end == '\0';
}

void printCounters(const ftptest::NetLabCounters& c) {
    std::printf(
        "accepted %llu\nrefused %llu\nupstream_failures %llu\ndata_connections %llu\n"
        "passive_rewrites %llu\nblackholed %llu\nresets %llu\n"
        "control_to_server %llu\ncontrol_to_client %llu\n"
        "data_to_server %llu\ndata_to_client %llu\nopen_control %d\nopen_data %d\n",
        static_cast<unsigned long long>(c.accepted), static_cast<unsigned long long>(c.refused),
        static_cast<unsigned long long>(c.upstreamFailures),
        static_cast<unsigned long long>(c.dataConnections),
        static_cast<unsigned long long>(c.passiveRewrites),
        static_cast<unsigned long long>(c.blackholed), static_cast<unsigned long long>(c.resets),
        static_cast<unsigned long long>(c.controlToServer),
        static_cast<unsigned long long>(c.controlToClient),
        static_cast<unsigned long long>(c.dataToServer),
        static_cast<unsigned long long>(c.dataToClient), c.openControl, c.openData);
    std::fflush(stdout);
}

ftptest::Traffic trafficNamed(const std::string& word) {
    if (word == "control") return ftptest::Traffic::kControl;
    if (word == "data") return ftptest::Traffic::kData;
    return ftptest::Traffic::kAll;
}

// One command line from standard input; answers "ok", "error: ..." or the
// counters.
void runCommand(ftptest::NetLab& lab, const std::string& line) {
    std::istringstream in(line);
    std::string verb, arg;
    in >> verb >> arg;
    if (verb.empty()) return;
    unsigned long long n = 0;
    bool numeric = parseNumber(arg.c_str(), &n);
    bool ok = true;
    if (verb == "rtt-ms" && numeric) {
        lab.setRoundTrip(std::chrono::milliseconds(n));
    } else if (verb == "rate-kbps" && numeric) {
        lab.setRate(n * 1000 / 8);
    } else if (verb == "rate-bytes" && numeric) {
        lab.setRate(n);
    } else if (verb == "max-connections" && numeric) {
        lab.setMaxConnections(static_cast<int>(n));
    } else if (verb == "stall") {
        lab.stall(trafficNamed(arg), ftptest::Way::kBoth);
    } else if (verb == "release") {
        lab.release();
    } else if (verb == "reset-data" && numeric) {
        lab.resetAfter(n, ftptest::Traffic::kData, ftptest::Way::kBoth);
    } else if (verb == "reset-control" && numeric) {
        lab.resetAfter(n, ftptest::Traffic::kControl, ftptest::Way::kBoth);
    } else if (verb == "down" && (arg == "refuse" || arg == "blackhole")) {
        ok = lab.linkDown(arg == "refuse" ? ftptest::LinkDownMode::kRefuse
                                          : ftptest::LinkDownMode::kBlackhole);
    } else if (verb == "up") {
        ok = lab.linkUp();
    } else if (verb == "drop") {
        std::printf("dropped %d\n", lab.dropAll());
    } else if (verb == "counters") {
        printCounters(lab.counters());
        return;
    } else {
        std::printf("error: unknown command \"%s\"\n", line.c_str());
        std::fflush(stdout);
        return;
    }
    std::printf(ok ? "ok\n" : "error: %s failed\n", verb.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::string upstream;
    ftptest::NetLabOptions options;
    unsigned long long rttMs = 0, rate = 0, maxConnections = 0;
    std::string limitReply = "421 Too many connections (lab)";
    bool swallow = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        unsigned long long n = 0;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--swallow-greeting") {
            swallow = true;
            continue;
        } else if (value == nullptr) {
            std::fprintf(stderr, "ftpdisk-lab: %s needs a value\n", a.c_str());
            usage(stderr);
            return 2;
        } else if (a == "--upstream") {
            upstream = value;
        } else if (a == "--limit-reply") {
            limitReply = value;
        } else if (!parseNumber(value, &n)) {
            std::fprintf(stderr, "ftpdisk-lab: %s needs a number, got \"%s\"\n", a.c_str(), value);
            return 2;
        } else if (a == "--listen" && n <= 65535) {
            options.listenPort = static_cast<uint16_t>(n);
        } else if (a == "--rtt-ms") {
            rttMs = n;
        } else if (a == "--rate-kbps") {
            rate = n * 1000 / 8;
        } else if (a == "--rate-bytes") {
            rate = n;
        } else if (a == "--max-connections") {
            maxConnections = n;
        } else {
            std::fprintf(stderr, "ftpdisk-lab: unknown option %s\n", a.c_str());
            usage(stderr);
            return 2;
        }
        ++i;
    }
    if (upstream.empty()) {
        usage(stderr);
        return 2;
    }

    ftptest::NetLab lab(upstream, options);
    if (!lab.ok()) {
        std::fprintf(stderr, "ftpdisk-lab: %s\n", lab.failure().c_str());
        return 1;
    }
    lab.setRoundTrip(std::chrono::milliseconds(rttMs));
    lab.setRate(rate);
    lab.setMaxConnections(static_cast<int>(maxConnections), limitReply + "\r\n");
    lab.setSwallowGreeting(swallow);

    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::printf("listening %s\n", lab.address().c_str());
    std::fflush(stdout);

    struct stat st {};
    bool watchInput = fstat(STDIN_FILENO, &st) == 0 &&
                      (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode) || isatty(STDIN_FILENO));
    std::string pending;
    while (!gSignalled) {
        pollfd p{watchInput ? STDIN_FILENO : -1, POLLIN, 0};
        int n = poll(&p, 1, 100);
        if (n <= 0 || !watchInput) continue;
        char buffer[1024];
        ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        pending.append(buffer, static_cast<size_t>(got));
        size_t end;
        while ((end = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            runCommand(lab, line);
        }
    }
    lab.stop();
    printCounters(lab.counters());
    return 0;
}
