// The host conformance suite: checks a recorder's own host classes (src/host
// contracts) against what the module relies on, one check per contract.
//
// Each check runs in a child process of its own (HostConformance.cpp), so a
// host that crashes, deadlocks or sleeps too long fails that check by name
// and the next check starts from a fresh process. A check reports through
// Report; every wait inside a check is bounded, and a check that finds host
// threads stuck ends its process at once with Report::abandon, since those
// threads can never be joined.
//
// Plain C++11 and POSIX, like the recorder toolchains it is built with.
#ifndef FTPDISK_CONFORMANCE_HOSTCONFORMANCE_H
#define FTPDISK_CONFORMANCE_HOSTCONFORMANCE_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace conformance {

// What one check found. Used by the check's own thread and by the threads it
// starts (fail is locked).
class Report {
public:
    Report(int resultFd, const std::string& scratchDir);

    // Notes a broken contract; the check goes on, so later findings are
    // listed too.
    void fail(const std::string& what);
    void expect(bool ok, const std::string& what) {
        if (!ok) fail(what);
    }
    bool failed();

    // Notes `what` and ends the check's process at once: threads of the host
    // are stuck and cannot be joined, so nothing may wait for them or destroy
    // what they still use.
    void abandon(const std::string& what);

    // A folder of its own for this check's files, below the scratch folder;
    // removed after the check.
    const std::string& scratchDir() const { return scratch_; }

    // Sends the findings to the runner (the check's last step).
    void finish();

private:
    void send(const std::string& line);

    int fd_;
    std::string scratch_;
    std::mutex mutex_;
    std::vector<std::string> findings_;  // Guarded by mutex_.
};

// One check: its name is the contract it tests ("Class.contract").
struct Check {
    const char* name;
    const char* contract;
    void (*run)(Report& report);
};

// Every check, in the order they run.
const std::vector<Check>& allChecks();

// Seconds on the program's own steady clock, the reference every time bound
// of the suite is measured on (never the host's clocks under test).
inline double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline void sleepSeconds(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Asks `done` every millisecond until it holds or `seconds` have passed.
// \return whether it held.
bool waitUntil(const std::function<bool()>& done, double seconds);

// A thread of the check that runs `body` once. finishedWithin waits for it a
// bounded time and joins it when it has ended; a check whose worker does not
// end must abandon (the destructor only joins a worker that has ended).
class Worker {
public:
    explicit Worker(const std::function<void()>& body);
    ~Worker();

    bool finishedWithin(double seconds);
    bool finished();

private:
    Worker(const Worker&);
    Worker& operator=(const Worker&);

    std::mutex mutex_;
    std::condition_variable ended_;
    bool done_;  // Guarded by mutex_.
    std::thread thread_;
};

// Abandons the check with `what` unless it is destroyed within `seconds`:
// bounds a call into the host made on the check's own thread (a thread that
// holds a lock of the host cannot hand the call to a worker).
class Watchdog {
public:
    Watchdog(Report& report, double seconds, const std::string& what);
    ~Watchdog();

private:
    Watchdog(const Watchdog&);
    Watchdog& operator=(const Watchdog&);

    std::mutex mutex_;
    std::condition_variable disarmed_;
    bool done_;  // Guarded by mutex_.
    std::thread thread_;
};

// Text of a number for findings.
std::string show(double value);
std::string show(long long value);
// A text with its control characters spelled out ("a\tb" -> "a\\tb").
std::string quoted(const std::string& text);

// The checks, by the host class they concern (one source file each).
void checkRefCountsUnderThreads(Report& report);
void checkAddressReusedWhileHandedBack(Report& report);
void checkNoRecordLockUnderRegistryLock(Report& report);
void checkMutexExcludesOtherThreads(Report& report);
void checkThreadStartStopRunning(Report& report);
void checkStopEndsWaitEarly(Report& report);
void checkWaitLastsItsDuration(Report& report);
void checkClocks(Report& report);
void checkFileShortReads(Report& report);
void checkFileShortWrites(Report& report);
void checkLoggerCall(Report& report);
void checkParserBlanks(Report& report);
void checkHandlerSeparators(Report& report);
void checkUtf8ToWide(Report& report);

}  // namespace conformance

#endif  // FTPDISK_CONFORMANCE_HOSTCONFORMANCE_H
