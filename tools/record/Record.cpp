// record: a stand-in recorder. One thread per camera makes its day/camera
// directory and writes fixed-rate segment files through open, write (or
// aioWrite + aioReturn) and close, rolling to a new file every segment.
//
// Layout and content, so that anyone can verify the server's disk:
//   <base>/<YYYY-MM-DD>/cam<NN>/<SSSSS>_<HHMMSS>.dat
// where NN is the camera (01..), SSSSS the segment number (00001..) and
// HHMMSS the local time the segment was opened. Byte i of a segment file is
// (seed + i) mod 251 with seed = (31 * camera + segment) mod 251.
//
// Every failed call goes to a FailedCalls book with its reason, the module's
// last error of the camera that met it; the summary names the calls and their
// reasons, and the verdict says so when the server grants fewer connections
// than the cameras need (one per open file, plus the store's own).
//
// The ramp: until every camera has its first file open, opens crowd the
// server and writes share the machine with logins. The summary gives the time
// until the last camera's first open, and write latency over the calls that
// started after it, so that a steady state can be judged apart from the
// start. Each camera makes its directory (createDir) before its first open,
// and that time is shown too. --json FILE writes every figure for scripts
// (bench/recorder_load/run.py).
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "Commands.h"
#include "FailedCalls.h"
#include "FailureText.h"
#include "Housekeeping.h"
#include "RecordSchedule.h"
#include "ToolFormat.h"

namespace ftpdisk_tool {

namespace {

// Cameras hand the recorder data ten times a second.
constexpr double kTick = 0.1;
constexpr int kPatternPeriod = 251;
// How long aioReturn may wait for the socket in one call, and how many such
// waits in a row a camera sits out before it calls the write failed.
constexpr int kAioWaitMillis = 1000;
constexpr int kAioMaxWaits = 30;
// Housekeeping passes when days are removed and no period is given.
constexpr double kDefaultPassSeconds = 10.0;

struct Settings {
    int cameras = 1;
    double seconds = 10;
    double megabits = 4;
    double segment = 60;
    bool aio = false;
    std::string jsonFile;  // empty: no figures file
    // Day directories, removals, housekeeping passes and pauses; the base
    // and the start's local time are filled in once the run starts.
    RecordSchedule schedule;
    std::string base;
    std::tm startDay{};
};

// Latency samples kept per camera and kind (--samples); fixed before the
// cameras start.
std::size_t gLatencySampleLimit = 100000;

// Call durations for percentiles. Exact up to gLatencySampleLimit calls;
// beyond that a uniform random sample of that size (reservoir sampling), so
// that a day-long run keeps a bounded amount of memory. The count and the
// maximum stay exact.
class LatencySamples {
public:
    void add(double seconds) {
        ++count_;
        max_ = std::max(max_, seconds);
        if (samples_.size() < limit_) {
            samples_.push_back(seconds);
            return;
        }
        std::uniform_int_distribution<long long> pick(0, count_ - 1);
        const long long slot = pick(random_);
        if (slot < static_cast<long long>(limit_)) {
            samples_[static_cast<std::size_t>(slot)] = seconds;
        }
    }

    void merge(const LatencySamples& other) {
        for (double s : other.samples_) {
            add(s);
        }
        // Calls beyond the other's sample still happened.
        count_ += other.count_ - static_cast<long long>(other.samples_.size());
        max_ = std::max(max_, other.max_);
    }

    const std::vector<double>& samples() const { return samples_; }
    long long count() const { return count_; }
    double max() const { return max_; }

private:
    std::size_t limit_ = gLatencySampleLimit;
    std::vector<double> samples_;
    long long count_ = 0;
    double max_ = 0;
    std::mt19937_64 random_{12345};
};

// Set by the first SIGINT or SIGTERM of a run: cameras stop at their next
// tick and close their files, and the summary is printed. A lock-free atomic
// may be written from a signal handler.
std::atomic<bool> gStopRequested{false};
static_assert(ATOMIC_BOOL_LOCK_FREE == 2, "the stop flag is set from a signal handler");

extern "C" void requestStop(int) { gStopRequested.store(true); }

// Ctrl-C ends the run early but cleanly; the handler is installed once
// (SA_RESETHAND), so a second Ctrl-C ends the process at once, as usual.
void catchStopSignals() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = requestStop;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

std::tm localNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local;
    localtime_r(&now, &local);
    return local;
}

struct CameraResult {
    int filesComplete = 0;
    int filesFailed = 0;
    long long bytes = 0;
    long long droppedBytes = 0;
    int failedCalls = 0;
    double maxLag = 0;
    LatencySamples mkdirSeconds;
    LatencySamples openSeconds;
    LatencySamples closeSeconds;
    LatencySamples writeSeconds;
    // Writes that started once every camera had its first file open.
    LatencySamples rampedWriteSeconds;
    // Seconds into the run when this camera's first open returned a handle;
    // negative while it has none.
    double firstOpenAt = -1;
};

// What the status line shows while cameras run; read without stopping them.
// openFiles and mostOpenFiles count the store's handles open at once: with
// the store's own connection, each holds one logged-in connection.
struct LiveCounters {
    std::atomic<long long> bytes{0};
    std::atomic<int> files{0};
    std::atomic<int> failedCalls{0};
    std::atomic<int> openFiles{0};
    std::atomic<int> mostOpenFiles{0};
    // Cameras that have had a file open; the ramp is over when all have.
    std::atomic<int> camerasStarted{0};
    std::atomic<bool> rampOver{false};

    void opened() {
        const int now = openFiles.fetch_add(1) + 1;
        int most = mostOpenFiles.load();
        while (now > most && !mostOpenFiles.compare_exchange_weak(most, now)) {
        }
    }
    void closed() { openFiles.fetch_sub(1); }
};

class Camera {
public:
    Camera(FTPFileSystem* store, const Settings& settings, int number, std::string dir,
           const std::vector<char>& pattern, double start, LiveCounters& live,
           FailedCalls& failures)
        : store_(store),
          settings_(settings),
          number_(number),
          dir_(std::move(dir)),
          pattern_(pattern),
          start_(start),
          live_(live),
          failures_(failures) {}

    // The thread body.
    void run() {
        const double bytesPerSecond = settings_.megabits * 1e6 / 8;
        const long long ticks = std::llround(settings_.seconds / kTick);
        const long long ticksPerSegment = std::max(1LL, std::llround(settings_.segment / kTick));

        const double t0 = monotonicSeconds();
        const bool dirMade = store_->createDir(dir_.c_str()) == 0;
        result.mkdirSeconds.add(monotonicSeconds() - t0);
        if (!dirMade) {
            noteFailure("mkdir", dir_);
            result.droppedBytes = static_cast<long long>(bytesPerSecond * settings_.seconds);
            return;
        }

        for (long long tick = 0; tick < ticks && !gStopRequested.load(); ++tick) {
            // Data of this tick is ready when the tick ends: wait for it.
            const double due = start_ + static_cast<double>(tick + 1) * kTick;
            const double now = monotonicSeconds();
            if (now < due) {
                std::this_thread::sleep_for(std::chrono::duration<double>(due - now));
            } else {
                result.maxLag = std::max(result.maxLag, now - due);
            }
            if (settings_.schedule.pausedSegment(tick / ticksPerSegment)) {
                closeSegment();
                continue;
            }
            if (tick % ticksPerSegment == 0) {
                closeSegment();
                openSegment(tick / ticksPerSegment + 1);
            }
            const long long before =
                static_cast<long long>(bytesPerSecond * kTick * static_cast<double>(tick));
            const long long after =
                static_cast<long long>(bytesPerSecond * kTick * static_cast<double>(tick + 1));
            const long long size = after - before;
            if (handle_ < 0) {
                result.droppedBytes += size;
                continue;
            }
            const bool ramped = live_.rampOver.load();
            const double t0 = monotonicSeconds();
            const bool ok = writeBlock(size);
            const double took = monotonicSeconds() - t0;
            result.writeSeconds.add(took);
            if (ramped) {
                result.rampedWriteSeconds.add(took);
            }
            if (!ok) {
                // The segment is lost from here on; the next one starts afresh.
                segmentFailed_ = true;
                closeSegment();
            }
        }
        closeSegment();
    }

    CameraResult result;

    // "cam07".
    std::string name() const {
        char text[16];
        std::snprintf(text, sizeof text, "cam%02d", number_);
        return text;
    }

private:
    void noteFailure(const char* operation, const std::string& path) {
        ++result.failedCalls;
        live_.failedCalls.fetch_add(1);
        failures_.add(number_, operation, path, monotonicSeconds() - start_);
    }

    void openSegment(long long segment) {
        if (!enterDay(segment)) {
            return;
        }
        const std::tm local = localNow();
        char name[64];
        std::snprintf(name, sizeof name, "/%05lld_%02d%02d%02d.dat", segment, local.tm_hour,
                      local.tm_min, local.tm_sec);
        path_ = dir_ + name;
        seed_ = static_cast<int>((31LL * number_ + segment) % kPatternPeriod);
        offset_ = 0;
        segmentFailed_ = false;
        const double t0 = monotonicSeconds();
        handle_ = store_->open(path_.c_str(), 2);
        const double t1 = monotonicSeconds();
        result.openSeconds.add(t1 - t0);
        if (handle_ >= 0) {
            live_.opened();
            if (result.firstOpenAt < 0) {
                result.firstOpenAt = t1 - start_;
                if (live_.camerasStarted.fetch_add(1) + 1 == settings_.cameras) {
                    live_.rampOver.store(true);
                }
            }
        } else {
            noteFailure("open", path_);
            ++result.filesFailed;
        }
    }

    void closeSegment() {
        if (handle_ < 0) {
            return;
        }
        const double t0 = monotonicSeconds();
        const bool closed = store_->close(handle_) == 0;
        result.closeSeconds.add(monotonicSeconds() - t0);
        handle_ = -1;
        live_.closed();
        if (!closed) {
            noteFailure("close", path_);
        }
        if (closed && !segmentFailed_) {
            ++result.filesComplete;
            live_.files.fetch_add(1);
        } else {
            ++result.filesFailed;
        }
    }

    // Moves to the directory of the day `segment` starts in, making it when
    // the day is new. False, the segment being lost, when it cannot be made.
    bool enterDay(long long segment) {
        const long long day =
            settings_.schedule.dayAt(static_cast<double>(segment - 1) * settings_.segment);
        if (day == day_) {
            return true;
        }
        const std::string dir =
            settings_.base + "/" + dayName(settings_.startDay, day) + "/" + name();
        if (store_->createDir(dir.c_str()) != 0) {
            noteFailure("mkdir", dir);
            ++result.filesFailed;
            return false;
        }
        day_ = day;
        dir_ = dir;
        return true;
    }

    const char* dataAt(long long offset) const {
        return pattern_.data() + (seed_ + offset) % kPatternPeriod;
    }

    void account(long long n) {
        offset_ += n;
        result.bytes += n;
        live_.bytes.fetch_add(n);
    }

    // Hands the store `size` bytes of the segment. With write the store takes
    // what it can, possibly part of the block. With aioWrite, aioReturn first
    // waits until the socket takes more, and aioWrite then hands it what it
    // takes at once: waiting first keeps aioWrite from meeting a full socket.
    bool writeBlock(long long size) {
        int waits = 0;
        while (size > 0) {
            if (settings_.aio) {
                const int ready = store_->aioReturn(handle_, kAioWaitMillis);
                if (ready == -1 && ++waits < kAioMaxWaits) {
                    continue;
                }
                if (ready != 0) {
                    noteFailure("aioReturn", path_);
                    return false;
                }
                waits = 0;
            }
            const unsigned length = static_cast<unsigned>(size);
            const int n = settings_.aio ? store_->aioWrite(handle_, dataAt(offset_), length)
                                        : store_->write(handle_, dataAt(offset_), length);
            if (n <= 0) {
                noteFailure(settings_.aio ? "aioWrite" : "write", path_);
                return false;
            }
            account(n);
            size -= n;
        }
        return true;
    }

    FTPFileSystem* store_;
    const Settings& settings_;
    int number_;
    std::string dir_;
    const std::vector<char>& pattern_;
    double start_;
    LiveCounters& live_;
    FailedCalls& failures_;

    int handle_ = -1;
    long long day_ = 0;  // of dir_
    std::string path_;   // of the current segment
    int seed_ = 0;
    long long offset_ = 0;
    bool segmentFailed_ = false;
};

// The schedule's options checked against each other; pauses in whole
// segments, so that every pause starts and ends at a segment's end.
bool readSchedule(Settings& out, double pauseEvery, double pauseFor, std::string& problem) {
    RecordSchedule& schedule = out.schedule;
    schedule.segmentSeconds = out.segment;
    if (schedule.keepDays > 0 && schedule.daySeconds <= 0) {
        problem = "--keep-days needs --day-seconds";
        return false;
    }
    if ((pauseEvery > 0) != (pauseFor > 0)) {
        problem = "--pause-every and --pause-for go together";
        return false;
    }
    if (schedule.daySeconds > 0 && schedule.daySeconds < out.segment) {
        problem = "--day-seconds must be at least one segment";
        return false;
    }
    if (pauseEvery > 0) {
        schedule.recordSegments = wholeSegments(pauseEvery, out.segment);
        schedule.pauseSegments = wholeSegments(pauseFor, out.segment);
    }
    if (schedule.keepDays > 0 && schedule.passSeconds <= 0) {
        schedule.passSeconds = kDefaultPassSeconds;
    }
    return true;
}

bool readSettings(const Arguments& args, Settings& out, std::string& problem) {
    long long whole = 0;
    auto it = args.values.find("--cameras");
    if (it != args.values.end()) {
        if (!parseInt(it->second, whole) || whole < 1 || whole > 64) {
            problem = "--cameras takes a whole number from 1 to 64, not \"" + it->second + "\"";
            return false;
        }
        out.cameras = static_cast<int>(whole);
    }
    struct Whole {
        const char* name;
        long long limit;
        long long value;
    } wholes[] = {{"--keep-days", 10000, 0}, {"--samples", 100000, 100000}};
    for (Whole& number : wholes) {
        it = args.values.find(number.name);
        if (it == args.values.end()) {
            continue;
        }
        if (!parseInt(it->second, number.value) || number.value < 1 ||
            number.value > number.limit) {
            problem = std::string(number.name) + " takes a whole number from 1 to " +
                      std::to_string(number.limit) + ", not \"" + it->second + "\"";
            return false;
        }
    }
    out.schedule.keepDays = static_cast<int>(wholes[0].value);
    gLatencySampleLimit = static_cast<std::size_t>(wholes[1].value);
    double pauseEvery = 0;
    double pauseFor = 0;
    struct Real {
        const char* name;
        double* target;
        double limit;
    } reals[] = {{"--seconds", &out.seconds, 86400},
                 {"--rate", &out.megabits, 1000},
                 {"--segment", &out.segment, 86400},
                 {"--day-seconds", &out.schedule.daySeconds, 86400},
                 {"--list-every", &out.schedule.passSeconds, 86400},
                 {"--pause-every", &pauseEvery, 86400},
                 {"--pause-for", &pauseFor, 86400}};
    for (const Real& real : reals) {
        it = args.values.find(real.name);
        if (it == args.values.end()) {
            continue;
        }
        double value = 0;
        if (!parsePositiveReal(it->second, value) || value > real.limit) {
            char limit[32];
            std::snprintf(limit, sizeof limit, "%g", real.limit);
            problem = std::string(real.name) + " takes a number above 0 and at most " + limit +
                      ", not \"" + it->second + "\"";
            return false;
        }
        *real.target = value;
    }
    if (out.seconds < kTick || out.segment < kTick) {
        problem = "--seconds and --segment must be at least 0.1";
        return false;
    }
    if (!readSchedule(out, pauseEvery, pauseFor, problem)) {
        return false;
    }
    out.aio = args.has("--aio");
    it = args.values.find("--json");
    if (it != args.values.end()) {
        if (it->second.empty()) {
            problem = "--json takes a file name";
            return false;
        }
        out.jsonFile = it->second;
    }
    return true;
}

std::string latencyLine(const char* what, const LatencySamples& calls) {
    char label[32];
    std::snprintf(label, sizeof label, "  %-14s ", what);
    if (calls.count() == 0) {
        return std::string(label) + "no calls";
    }
    const std::vector<double>& s = calls.samples();
    return std::string(label) + "p50 " + humanMillis(percentile(s, 50)) + "  p90 " +
           humanMillis(percentile(s, 90)) + "  p99 " + humanMillis(percentile(s, 99)) + "  max " +
           humanMillis(calls.max()) + "  (" + std::to_string(calls.count()) + " calls)";
}

std::string megabits(double bytes, double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f Mbit/s", seconds > 0 ? bytes * 8 / 1e6 / seconds : 0);
    return text;
}

// Each distinct reason once with its count, then the first failed calls one
// by one, so that a long run with many failures still prints a few lines.
void printFailures(const FailedCalls& failures) {
    const long long count = failures.count();
    if (count == 0) {
        return;
    }
    std::cout << "failed calls by reason\n";
    for (const auto& reason : failures.byReason()) {
        char number[32];
        std::snprintf(number, sizeof number, "  %7lld  ", reason.second);
        std::cout << number << reason.first << "\n";
    }
    std::cout << "first failed calls\n";
    const std::vector<FailedCall> calls = failures.firstCalls();
    for (const FailedCall& call : calls) {
        char head[64];
        std::snprintf(head, sizeof head, "  cam%02d  %-9s at %7.2f s  ", call.camera,
                      call.operation.c_str(), call.at);
        std::cout << head << call.path << ": " << (call.why.empty() ? "not explained" : call.why)
                  << "\n";
    }
    if (count > static_cast<long long>(calls.size())) {
        std::cout << "  ... and " << count - static_cast<long long>(calls.size())
                  << " more, counted above\n";
    }
}

// The verdict after "FAIL: ", one line. A server that turned a camera's
// session or login away while the run had files open is at its connection
// limit: every camera holds one connection for its open file, and the store
// one more for itself.
std::string failureVerdict(const FailedCalls& failures, int cameras, int connectionsSeen) {
    std::string answer;
    if (failures.turnedAway(answer)) {
        return "server granted " + std::to_string(connectionsSeen) +
               (connectionsSeen == 1 ? " connection; " : " connections; ") +
               std::to_string(cameras) + (cameras == 1 ? " camera needs " : " cameras need ") +
               std::to_string(cameras + 1) + ": '" + answer + "'";
    }
    const long long count = failures.count();
    const std::vector<FailedCall> calls = failures.firstCalls();
    std::string verdict = std::to_string(count) + (count == 1 ? " failed call" : " failed calls");
    if (!calls.empty()) {
        char at[32];
        std::snprintf(at, sizeof at, "%.2f", calls.front().at);
        verdict += ", the first cam" + std::string(calls.front().camera < 10 ? "0" : "") +
                   std::to_string(calls.front().camera) + " " + calls.front().operation + " at " +
                   at + " s: " + (calls.front().why.empty() ? "not explained" : calls.front().why);
    }
    return verdict;
}

std::string jsonNumber(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6f", value);
    return text;
}

// {"calls": N, "p50_ms": ..., "p90_ms": ..., "p99_ms": ..., "max_ms": ...}
std::string jsonLatency(const LatencySamples& calls) {
    const std::vector<double>& s = calls.samples();
    return "{\"calls\": " + std::to_string(calls.count()) +
           ", \"p50_ms\": " + jsonNumber(percentile(s, 50) * 1e3) +
           ", \"p90_ms\": " + jsonNumber(percentile(s, 90) * 1e3) +
           ", \"p99_ms\": " + jsonNumber(percentile(s, 99) * 1e3) +
           ", \"max_ms\": " + jsonNumber(calls.max() * 1e3) + "}";
}

// "days of 30 s, keeping 2; housekeeping every 10 s; ...", or "" when the run
// only writes.
std::string describeSchedule(const RecordSchedule& schedule) {
    std::string text;
    const auto add = [&text](const std::string& part) {
        text += (text.empty() ? "" : "; ") + part;
    };
    char number[32];
    if (schedule.daySeconds > 0) {
        std::snprintf(number, sizeof number, "%g", schedule.daySeconds);
        add(std::string("days of ") + number + " s" +
            (schedule.keepDays > 0 ? ", keeping " + std::to_string(schedule.keepDays) : ""));
    }
    if (schedule.passSeconds > 0) {
        std::snprintf(number, sizeof number, "%g", schedule.passSeconds);
        add(std::string("housekeeping every ") + number + " s");
    }
    if (schedule.recordSegments > 0) {
        add("every camera pauses for " + std::to_string(schedule.pauseSegments) +
            " segments after " + std::to_string(schedule.recordSegments));
    }
    return text;
}

// The directory of every camera for the day the run starts, below the
// location's base, and the base itself into `settings`. kExitOk, or the status
// to exit with (its message printed).
int cameraDirectories(Session& session, Settings& settings, std::vector<std::string>& dirs) {
    const std::tm local = localNow();
    char day[16];
    std::strftime(day, sizeof day, "%Y-%m-%d", &local);
    for (int camera = 1; camera <= settings.cameras; ++camera) {
        char relative[32];
        std::snprintf(relative, sizeof relative, "%s/cam%02d", day, camera);
        std::string dir;
        if (!session.remotePath(relative, dir)) {
            return kExitUsage;
        }
        if (dir.size() + 17 > kMaxRemotePath) {
            return fail("record", "the location's path is too long for segment files", kExitUsage);
        }
        dirs.push_back(dir);
    }
    // The base holds the day directories: cut "/<day>/cam01" off.
    settings.startDay = local;
    settings.base = dirs.front().substr(0, dirs.front().rfind('/'));
    settings.base.erase(settings.base.rfind('/'));
    return kExitOk;
}

// One shared pattern, long enough to start at any phase and still cover the
// biggest single write.
std::vector<char> segmentPattern(const Settings& settings) {
    const long long tickBytes =
        static_cast<long long>(std::ceil(settings.megabits * 1e6 / 8 * kTick)) + 1;
    std::vector<char> pattern(static_cast<std::size_t>(kPatternPeriod + tickBytes));
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        pattern[i] = static_cast<char>(i % kPatternPeriod);
    }
    return pattern;
}

void printPlan(const Location& location, const Settings& settings, const std::string& firstDir) {
    char rate[32];
    std::snprintf(rate, sizeof rate, "%g", settings.megabits);
    std::cout << "recording to " << location.masked() << ": " << settings.cameras << " cameras x "
              << settings.seconds << " s at " << rate << " Mbit/s, " << settings.segment
              << " s segments, " << (settings.aio ? "aioWrite" : "write") << ", into "
              << firstDir.substr(0, firstDir.rfind('/')) << "/cam.." << std::endl;
    const std::string plan = describeSchedule(settings.schedule);
    if (!plan.empty()) {
        std::cout << "schedule: " << plan << std::endl;
    }
}

// The status line: redrawn twice a second while cameras run, on a terminal
// only, until finish().
class StatusLine {
public:
    StatusLine(const Settings& settings, const LiveCounters& live, double start) {
        if (!stderrIsTerminal()) {
            return;
        }
        thread_ = std::thread([this, &settings, &live, start] {
            while (!done_.load()) {
                const double elapsed = monotonicSeconds() - start;
                const long long bytes = live.bytes.load();
                char line[160];
                std::snprintf(
                    line, sizeof line, "\r  %6.1f / %g s  files %d  %s  %s  failed calls %d   ",
                    elapsed, settings.seconds, live.files.load(),
                    humanBytes(static_cast<double>(bytes)).c_str(),
                    megabits(static_cast<double>(bytes), elapsed).c_str(), live.failedCalls.load());
                std::cerr << line << std::flush;
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
            }
            std::cerr << "\n" << std::flush;
        });
    }
    ~StatusLine() { finish(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    void finish() {
        done_.store(true);
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// Everything the summary and the figures file report of one run.
struct RunTotals {
    CameraResult total;
    double elapsed = 0;
    int started = 0;         // cameras that had a file open
    double rampSeconds = 0;  // when the last of them opened its first file
    int mostOpenFiles = 0;
    std::vector<std::string> silentCameras;  // cameras that wrote nothing
    bool housekeeping = false;
    std::string housekeepingSummary;
};

// The cameras' results added up; housekeeping's failed calls are the
// recorder's too.
void addUp(const std::vector<std::unique_ptr<Camera>>& cameras, const Housekeeping* housekeeping,
           RunTotals& totals) {
    CameraResult& total = totals.total;
    for (const auto& camera : cameras) {
        const CameraResult& r = camera->result;
        total.filesComplete += r.filesComplete;
        total.filesFailed += r.filesFailed;
        total.bytes += r.bytes;
        total.droppedBytes += r.droppedBytes;
        total.failedCalls += r.failedCalls;
        total.maxLag = std::max(total.maxLag, r.maxLag);
        total.mkdirSeconds.merge(r.mkdirSeconds);
        total.openSeconds.merge(r.openSeconds);
        total.closeSeconds.merge(r.closeSeconds);
        total.writeSeconds.merge(r.writeSeconds);
        total.rampedWriteSeconds.merge(r.rampedWriteSeconds);
        if (r.firstOpenAt >= 0) {
            ++totals.started;
            totals.rampSeconds = std::max(totals.rampSeconds, r.firstOpenAt);
        }
        if (r.bytes == 0) {
            totals.silentCameras.push_back(camera->name());
        }
    }
    if (housekeeping != nullptr) {
        total.failedCalls += housekeeping->failedCalls();
        totals.housekeeping = true;
        totals.housekeepingSummary = housekeeping->summary();
    }
}

// Runs every camera (and housekeeping, when the schedule has passes) until
// the run's time is up or Ctrl-C, and adds up what they did.
RunTotals runCameras(Session& session, const Settings& settings,
                     const std::vector<std::string>& dirs, const std::vector<char>& pattern,
                     FailedCalls& failures) {
    LiveCounters live;
    const double start = monotonicSeconds();
    std::vector<std::unique_ptr<Camera>> cameras;
    std::vector<std::thread> threads;
    cameras.reserve(static_cast<std::size_t>(settings.cameras));
    threads.reserve(static_cast<std::size_t>(settings.cameras));
    for (int i = 0; i < settings.cameras; ++i) {
        cameras.emplace_back(new Camera(session.store(), settings, i + 1,
                                        dirs[static_cast<std::size_t>(i)], pattern, start, live,
                                        failures));
    }
    for (auto& camera : cameras) {
        threads.emplace_back(&Camera::run, camera.get());
    }
    std::unique_ptr<Housekeeping> housekeeping;
    if (settings.schedule.passSeconds > 0) {
        housekeeping.reset(new Housekeeping(session.store(), settings.schedule, settings.base,
                                            settings.startDay, start, failures));
        housekeeping->start();
    }
    StatusLine status(settings, live, start);
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (housekeeping) {
        housekeeping->stop();
    }
    RunTotals totals;
    totals.elapsed = monotonicSeconds() - start;
    status.finish();
    totals.mostOpenFiles = live.mostOpenFiles.load();
    addUp(cameras, housekeeping.get(), totals);
    return totals;
}

void printSummary(const Settings& settings, const RunTotals& totals) {
    const CameraResult& total = totals.total;
    const double target = settings.megabits * settings.cameras;
    char targetText[32];
    std::snprintf(targetText, sizeof targetText, "%.2f Mbit/s", target);
    char elapsedText[32];
    std::snprintf(elapsedText, sizeof elapsedText, "%.2f s", totals.elapsed);
    char lagText[32];
    std::snprintf(lagText, sizeof lagText, "%.3f s", total.maxLag);

    std::cout << "summary\n"
              << "  files          " << total.filesComplete << " complete, " << total.filesFailed
              << " failed\n"
              << "  bytes          " << total.bytes << " ("
              << humanBytes(static_cast<double>(total.bytes)) << "), " << total.droppedBytes
              << " dropped\n"
              << "  throughput     " << megabits(static_cast<double>(total.bytes), totals.elapsed)
              << " over " << elapsedText << " (target " << targetText << ")\n"
              << "  failed calls   " << total.failedCalls << "\n"
              << latencyLine("open latency", total.openSeconds) << "\n"
              << latencyLine("close latency", total.closeSeconds) << "\n"
              << latencyLine("write latency", total.writeSeconds) << "\n"
              << "  max lag        " << lagText << " behind the cameras\n";
    char rampText[96];
    if (totals.started == settings.cameras) {
        std::snprintf(rampText, sizeof rampText, "every camera's first file open by %.3f s",
                      totals.rampSeconds);
    } else {
        std::snprintf(rampText, sizeof rampText, "%d of %d cameras had a file open; ramp not over",
                      totals.started, settings.cameras);
    }
    std::cout << "  first open     " << rampText << "\n"
              << latencyLine("after ramp", total.rampedWriteSeconds) << "\n"
              << latencyLine("mkdir latency", total.mkdirSeconds) << "\n";
    if (!totals.silentCameras.empty()) {
        std::string silent;
        for (std::size_t i = 0; i < totals.silentCameras.size(); ++i) {
            silent += (i == 0 ? " " : ", ") + totals.silentCameras[i];
        }
        std::cout << "  cameras        " << totals.silentCameras.size() << " of "
                  << settings.cameras << " wrote nothing:" << silent << "\n";
    }
    if (totals.housekeeping) {
        std::cout << "  housekeeping   " << totals.housekeepingSummary << "\n";
    }
    if (gStopRequested.load()) {
        std::cout << "  interrupted    after " << elapsedText << " of " << settings.seconds
                  << " s; each camera closed its last, shorter segment\n";
    }
}

// Every figure of the summary into settings.jsonFile as one JSON object;
// false (after saying so) when it cannot be written.
bool writeFigures(const Settings& settings, const Location& location, const RunTotals& totals,
                  const FailedCalls& failures, const std::string& verdict) {
    const CameraResult& total = totals.total;
    std::ofstream json(settings.jsonFile, std::ios::trunc);
    json << "{\n  \"location\": " << jsonString(location.masked())
         << ",\n  \"cameras\": " << settings.cameras
         << ",\n  \"seconds\": " << jsonNumber(settings.seconds)
         << ",\n  \"rate_mbit\": " << jsonNumber(settings.megabits)
         << ",\n  \"segment_seconds\": " << jsonNumber(settings.segment)
         << ",\n  \"aio\": " << (settings.aio ? "true" : "false")
         << ",\n  \"elapsed_seconds\": " << jsonNumber(totals.elapsed)
         << ",\n  \"files_complete\": " << total.filesComplete
         << ",\n  \"files_failed\": " << total.filesFailed << ",\n  \"bytes\": " << total.bytes
         << ",\n  \"dropped_bytes\": " << total.droppedBytes
         << ",\n  \"failed_calls\": " << total.failedCalls
         << ",\n  \"max_lag_seconds\": " << jsonNumber(total.maxLag)
         << ",\n  \"cameras_started\": " << totals.started << ",\n  \"first_open_all_seconds\": "
         << (totals.started == settings.cameras ? jsonNumber(totals.rampSeconds) : "null")
         << ",\n  \"most_open_files\": " << totals.mostOpenFiles
         << ",\n  \"mkdir\": " << jsonLatency(total.mkdirSeconds)
         << ",\n  \"open\": " << jsonLatency(total.openSeconds)
         << ",\n  \"close\": " << jsonLatency(total.closeSeconds)
         << ",\n  \"write\": " << jsonLatency(total.writeSeconds)
         << ",\n  \"write_after_ramp\": " << jsonLatency(total.rampedWriteSeconds)
         << ",\n  \"failed_by_reason\": [";
    const auto reasons = failures.byReason();
    for (std::size_t i = 0; i < reasons.size(); ++i) {
        json << (i == 0 ? "\n    " : ",\n    ") << "{\"reason\": " << jsonString(reasons[i].first)
             << ", \"calls\": " << reasons[i].second << "}";
    }
    json << "],\n  \"first_failed_calls\": [";
    const std::vector<FailedCall> calls = failures.firstCalls();
    for (std::size_t i = 0; i < calls.size(); ++i) {
        json << (i == 0 ? "\n    " : ",\n    ") << "{\"camera\": " << calls[i].camera
             << ", \"operation\": " << jsonString(calls[i].operation)
             << ", \"path\": " << jsonString(calls[i].path)
             << ", \"at_seconds\": " << jsonNumber(calls[i].at)
             << ", \"why\": " << jsonString(calls[i].why) << "}";
    }
    json << "],\n  \"interrupted\": " << (gStopRequested.load() ? "true" : "false")
         << ",\n  \"verdict\": " << jsonString(verdict) << "\n}\n";
    json.close();
    if (!json) {
        fail("record",
             "cannot write the figures to " + settings.jsonFile + ": " + systemError(errno),
             kExitFailed);
        return false;
    }
    return true;
}

}  // namespace

int runRecord(const Arguments& args) {
    Settings settings;
    std::string problem;
    if (!readSettings(args, settings, problem)) {
        return usage("record", problem);
    }
    if (!settings.jsonFile.empty()) {
        // Found out now rather than after a long run.
        std::ofstream json(settings.jsonFile, std::ios::trunc);
        if (!json) {
            return fail(
                "record",
                "cannot write the figures to " + settings.jsonFile + ": " + systemError(errno),
                kExitUsage);
        }
    }
    Session session("record", args);
    int status = session.open(args.positional[0]);
    if (status != kExitOk) {
        return status;
    }
    std::vector<std::string> dirs;
    status = cameraDirectories(session, settings, dirs);
    if (status != kExitOk) {
        return status;
    }
    const std::vector<char> pattern = segmentPattern(settings);

    catchStopSignals();
    const Location location = session.location();
    printPlan(location, settings, dirs.front());
    FailedCalls failures([location] { return lastFailure(location); });
    const RunTotals totals = runCameras(session, settings, dirs, pattern, failures);

    printSummary(settings, totals);
    printFailures(failures);
    const bool passed = totals.total.failedCalls == 0 && totals.total.filesFailed == 0;
    const std::string verdict =
        passed ? "PASS"
               : "FAIL: " + failureVerdict(failures, settings.cameras, totals.mostOpenFiles + 1);
    std::cout << "verdict: " << verdict << std::endl;

    const bool figuresWritten =
        settings.jsonFile.empty() || writeFigures(settings, location, totals, failures, verdict);
    // As a shell reports a command ended by Ctrl-C.
    if (gStopRequested.load()) {
        return kExitInterrupted;
    }
    return passed && figuresWritten ? kExitOk : kExitFailed;
}

}  // namespace ftpdisk_tool
