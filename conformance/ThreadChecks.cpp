// KDMutex, GThread and KadmorTime, used the way the module uses them: every
// lock of the module is a KDMutex taken through KDMutexLocker from any
// thread; each store's monitor is a GThread whose body does one pass and then
// pauses 2 s with KadmorTime::wait, and destroying the store stops that
// thread, which must end the pause at once.
#include <atomic>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "HostConformance.h"
#include "foundation/Function.h"
#include "host/GThread.h"
#include "host/KadmorTime.h"
#include "host/technic/KDMutex.h"

namespace conformance {

namespace {

// The source name the module's lock sites pass.
const char* const kLockSite = "conformance";

std::string count(int n) { return show(static_cast<long long>(n)); }

// The three callables of a GThread, counting their calls in one sequence so
// that their order shows.
class Probe {
public:
    Probe()
        : sequence(0),
          bodyCalls(0),
          starts(0),
          stops(0),
          firstBody(0),
          lastBody(0),
          started(0),
          stopped(0) {}

    int body() {
        const int at = ++sequence;
        if (bodyCalls.fetch_add(1) == 0) firstBody.store(at);
        lastBody.store(at);
        // The module's body pauses too; this keeps the loop from spinning.
        sleepSeconds(0.001);
        return 0;
    }
    int onStart() {
        started.store(++sequence);
        starts.fetch_add(1);
        return 0;
    }
    int onStop() {
        stopped.store(++sequence);
        stops.fetch_add(1);
        return 0;
    }

    std::atomic<int> sequence;
    std::atomic<int> bodyCalls;
    std::atomic<int> starts;
    std::atomic<int> stops;
    std::atomic<int> firstBody;
    std::atomic<int> lastBody;
    std::atomic<int> started;
    std::atomic<int> stopped;
};

// A body that pauses as the module's monitor does.
class Pauser {
public:
    explicit Pauser(long seconds, long microseconds)
        : seconds_(seconds), microseconds_(microseconds), entered(0), left(0) {}

    int body() {
        entered.fetch_add(1);
        const double begun = steadySeconds();
        KadmorTime::wait(KadmorTime(seconds_, microseconds_));
        const double took = steadySeconds() - begun;
        std::lock_guard<std::mutex> guard(mutex);
        pauses.push_back(took);
        left.fetch_add(1);
        return 0;
    }

    long seconds_;
    long microseconds_;
    std::atomic<int> entered;
    std::atomic<int> left;
    std::mutex mutex;
    std::vector<double> pauses;  // Guarded by mutex.
};

// Runs `stop` of `thread` on a worker and abandons when it does not return
// within `seconds`.
void stopWithin(Report& report, GThread& thread, double seconds, const std::string& what) {
    Worker stopper([&] { thread.stop(); });
    if (!stopper.finishedWithin(seconds)) report.abandon(what);
}

}  // namespace

void checkMutexExcludesOtherThreads(Report& report) {
    KDMutex mutex;
    // While this thread holds it, another thread's Lock must wait.
    mutex.Lock(const_cast<char*>(kLockSite), __LINE__);
    std::atomic<bool> got(false);
    Worker other([&] {
        KDMutexLocker guard(mutex, kLockSite, __LINE__);
        got.store(true);
    });
    // The other thread must stay out for as long as this one holds the
    // mutex; 0.2 s gives it every chance to get in wrongly.
    const bool early = waitUntil([&] { return got.load(); }, 0.2);
    report.expect(!early, "another thread's Lock returned while this thread held the mutex");
    mutex.Unlock(const_cast<char*>(kLockSite), __LINE__);
    if (!other.finishedWithin(5.0)) {
        report.abandon(
            "a thread waiting in Lock did not get the mutex within 5 s after it was "
            "unlocked");
    }
    if (report.failed()) return;

    // Many threads counting under one mutex: no increment may be lost.
    const int kThreads = 4;
    const int kRounds = 20000;
    long counter = 0;
    std::vector<Worker*> workers;
    workers.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        workers.push_back(new Worker([&] {
            for (int i = 0; i < kRounds; ++i) {
                KDMutexLocker guard(mutex, kLockSite, __LINE__);
                const long seen = counter;
                if (i % 64 == 0) std::this_thread::yield();
                counter = seen + 1;
            }
        }));
    }
    for (size_t t = 0; t < workers.size(); ++t) {
        if (!workers[t]->finishedWithin(30.0)) {
            report.abandon("threads taking one KDMutex have not finished after 30 s");
        }
        delete workers[t];
    }
    KDMutexLocker guard(mutex, kLockSite, __LINE__);
    report.expect(counter == static_cast<long>(kThreads) * kRounds,
                  count(kThreads) + " threads each counted " + count(kRounds) +
                      " times under the mutex; the count is " +
                      show(static_cast<long long>(counter)));

    // The module embeds mutexes in short-lived objects.
    std::vector<KDMutex*> many(1000);
    for (size_t i = 0; i < many.size(); ++i) many[i] = new KDMutex;
    for (size_t i = 0; i < many.size(); ++i) {
        KDMutexLocker each(*many[i], kLockSite, __LINE__);
    }
    for (size_t i = 0; i < many.size(); ++i) delete many[i];
}

void checkThreadStartStopRunning(Report& report) {
    Probe probe;
    const std::string name("detectStateThread");
    GThread* thread =
        new GThread(make_function(&Probe::body, &probe), name,
                    make_function(&Probe::onStart, &probe), make_function(&Probe::onStop, &probe));
    report.expect(thread->getName() == name, "getName() gave " + quoted(thread->getName()));
    report.expect(thread->running() == 0, "running() is non-zero before start()");
    if (thread->start() == 0) {
        report.fail("start() returned 0 for a new thread");
        delete thread;
        return;
    }
    if (!waitUntil([&] { return probe.bodyCalls.load() >= 3; }, 5.0)) {
        report.fail("the body was called " + count(probe.bodyCalls.load()) +
                    " times in 5 s: it must be called again each time it returns");
    }
    report.expect(thread->running() != 0, "running() is 0 while the thread runs");
    report.expect(thread->start() == 0, "start() of a running thread did not return 0");

    stopWithin(report, *thread, 5.0, "stop() had not returned after 5 s");
    report.expect(thread->running() == 0, "running() is non-zero after stop() returned");
    report.expect(probe.starts.load() == 1,
                  "onStart was called " + count(probe.starts.load()) + " times, not once");
    report.expect(probe.stops.load() == 1, "when stop() returned, onStop had been called " +
                                               count(probe.stops.load()) +
                                               " times: stop joins the thread after onStop");
    report.expect(probe.started.load() < probe.firstBody.load(),
                  "onStart did not run before the first body call");
    report.expect(probe.stopped.load() > probe.lastBody.load(),
                  "onStop did not run after the last body call");
    stopWithin(report, *thread, 5.0,
               "a second stop() of a stopped thread had not returned after 5 s");

    // The module's pool starts its monitor again after a stop.
    const int before = probe.bodyCalls.load();
    if (thread->start() == 0) {
        report.fail("start() after stop() returned 0");
    } else if (!waitUntil([&] { return probe.bodyCalls.load() >= before + 3; }, 5.0)) {
        report.fail("after stop(), start() did not run the body again (" +
                    count(probe.bodyCalls.load() - before) + " calls in 5 s)");
    } else {
        report.expect(thread->running() != 0, "running() is 0 after a second start()");
    }
    {
        Watchdog dog(report, 5.0, "deleting a running GThread had not returned after 5 s");
        delete thread;
    }
    report.expect(probe.stops.load() == 2,
                  "deleting a running GThread did not stop it (onStop "
                  "called " +
                      count(probe.stops.load()) + " times in all)");
}

void checkStopEndsWaitEarly(Report& report) {
    Pauser pauser(60, 0);
    GThread thread(make_function(&Pauser::body, &pauser), "conformance",
                   make_function(&GThread::emptyFun), make_function(&GThread::emptyFun));
    if (thread.start() == 0) {
        report.fail("start() returned 0");
        return;
    }
    if (!waitUntil([&] { return pauser.entered.load() >= 1; }, 5.0)) {
        report.abandon("the body was not called within 5 s of start()");
    }
    // Let the body get well into its 60 s pause before the stop.
    sleepSeconds(0.05);
    stopWithin(report, thread, 5.0,
               "stop() had not returned 5 s after it was asked while its thread paused in "
               "KadmorTime::wait(60 s): stop must end that wait at once, or destroying a "
               "store waits out its monitor's pause");
    report.expect(pauser.left.load() == pauser.entered.load(),
                  "stop() returned while the body was still in its pause");

    // A stop asked as the thread starts, before or while the body begins its
    // pause: the wait must see it too, not sleep its 60 s.
    const int kRounds = 20;
    for (int round = 0; round < kRounds; ++round) {
        if (thread.start() == 0) {
            report.fail("start() after stop() returned 0 (round " + count(round) + ")");
            return;
        }
        const int entered = pauser.entered.load();
        if (round % 2 == 1) waitUntil([&] { return pauser.entered.load() > entered; }, 0.05);
        stopWithin(report, thread, 5.0,
                   "stop() asked just as the thread began its pause had not returned after 5 s "
                   "(round " +
                       count(round) + "): the wait missed the stop");
    }
}

void checkWaitLastsItsDuration(Report& report) {
    const KadmorTime duration(2, 500000);
    report.expect(duration.getSeconds() == 2 && duration.getMicroseconds() == 500000,
                  "KadmorTime(2, 500000) reads back as " +
                      show(static_cast<long long>(duration.getSeconds())) + " s and " +
                      show(static_cast<long long>(duration.getMicroseconds())) + " us");

    // On a thread that is no GThread: the full pause.
    double took = 0;
    Worker plain([&] {
        const double begun = steadySeconds();
        KadmorTime::wait(KadmorTime(1, 100000));
        took = steadySeconds() - begun;
    });
    if (!plain.finishedWithin(5.0)) {
        report.abandon(
            "KadmorTime::wait(KadmorTime(1, 100000)) had not returned after 5 s: the "
            "pause is 1 s plus 100000 microseconds");
    }
    report.expect(took >= 1.09, "KadmorTime::wait(KadmorTime(1, 100000)) returned after " +
                                    show(took) + " s, not 1.1 s");

    // On a GThread nobody stops: each pass pauses, as the monitor's 2 s do.
    Pauser pauser(0, 100000);
    GThread thread(make_function(&Pauser::body, &pauser), "conformance",
                   make_function(&GThread::emptyFun), make_function(&GThread::emptyFun));
    if (thread.start() == 0) {
        report.fail("start() returned 0");
        return;
    }
    if (!waitUntil([&] { return pauser.left.load() >= 2; }, 5.0)) {
        report.fail("a GThread's body pausing 0.1 s per call finished " +
                    count(pauser.left.load()) + " pauses in 5 s");
    }
    stopWithin(report, thread, 5.0, "stop() had not returned after 5 s");
    std::lock_guard<std::mutex> guard(pauser.mutex);
    for (size_t i = 0; i + 1 < pauser.pauses.size(); ++i) {
        // The last pause may have been ended by the stop.
        report.expect(pauser.pauses[i] >= 0.099,
                      "on a GThread, KadmorTime::wait(KadmorTime(0, "
                      "100000)) returned after " +
                          show(pauser.pauses[i]) + " s");
    }
}

}  // namespace conformance
