// KDTime, as the module reads it: the 30 s bound on one reply and the 60 s
// bound on a listing are differences of getUpTime taken on different
// threads, so it must never go back; the pool's idle times are differences
// of getSeconds. Both count seconds.
#include <atomic>
#include <mutex>

#include "HostConformance.h"
#include "host/KDTime.h"

namespace conformance {

namespace {

// How far a clock may lag or lead the program's own steady clock over a
// short interval: a coarse host clock (a 10 ms tick) and scheduling delays
// stay well inside it.
const double kSlackSeconds = 0.1;

void checkRate(Report& report, const char* name, double before, double after, double elapsed,
               double slept) {
    const double advanced = after - before;
    if (!(advanced >= slept - 0.01 && advanced <= elapsed + kSlackSeconds)) {
        report.fail(std::string(name) + " advanced " + show(advanced) + " s while " +
                    show(elapsed) + " s passed (a sleep of " + show(slept) +
                    " s): it must count real seconds");
    }
}

}  // namespace

void checkClocks(Report& report) {
    // getUpTime read by two threads in turn: each reading comes after the
    // one before it in real time, and must not be smaller.
    std::mutex turn;
    // Guarded by turn.
    double last = KDTime::getUpTime();
    long samples = 0;
    bool wentBack = false;
    double from = 0;
    double to = 0;
    const double kSampleSeconds = 0.3;
    const long kMaxSamples = 5000000;
    Worker* readers[2];
    for (int r = 0; r < 2; ++r) {
        readers[r] = new Worker([&] {
            const double until = steadySeconds() + kSampleSeconds;
            for (long i = 0; i < kMaxSamples && steadySeconds() < until; ++i) {
                std::lock_guard<std::mutex> guard(turn);
                const double now = KDTime::getUpTime();
                if (now < last && !wentBack) {
                    wentBack = true;
                    from = last;
                    to = now;
                }
                last = now;
                ++samples;
            }
        });
    }

    // Meanwhile both clocks against the program's steady clock.
    const double slept = 0.3;
    const double start = steadySeconds();
    const double up0 = KDTime::getUpTime();
    const double wall0 = KDTime::getSeconds();
    sleepSeconds(slept);
    const double up1 = KDTime::getUpTime();
    const double wall1 = KDTime::getSeconds();
    const double elapsed = steadySeconds() - start;
    checkRate(report, "getUpTime", up0, up1, elapsed, slept);
    checkRate(report, "getSeconds (unless the system's time was set meanwhile)", wall0, wall1,
              elapsed, slept);

    for (int r = 0; r < 2; ++r) {
        if (!readers[r]->finishedWithin(10.0)) {
            report.abandon("two threads reading getUpTime for 0.3 s had not finished after 10 s");
        }
        delete readers[r];
    }
    std::lock_guard<std::mutex> guard(turn);
    if (wentBack) {
        report.fail("getUpTime went back from " + show(from) + " to " + show(to) + " (" +
                    show(static_cast<long long>(samples)) +
                    " readings on two threads): a reply's or a listing's time limit would be "
                    "measured wrong");
    }
}

}  // namespace conformance
