#include "Clock.h"

#include <chrono>
#include <condition_variable>

#include "HostMutex.h"
#include "ftpdisk_host/HostControl.h"
#include "host/KDTime.h"
#include "host/KadmorTime.h"

namespace {

struct ClockState {
    hostlib::HostMutex mutex;
    // Waited on with `mutex` held (condition_variable_any, as the mutex is
    // the annotated wrapper, not std::mutex).
    std::condition_variable_any changed;
    bool manual FTPDISK_GUARDED_BY(mutex) = false;
    double manualWall FTPDISK_GUARDED_BY(mutex) = 0;
    double manualUp FTPDISK_GUARDED_BY(mutex) = 0;
    int waiting FTPDISK_GUARDED_BY(mutex) = 0;
};

ClockState& state() {
    static ClockState* s = new ClockState;  // leaked: used by threads at exit
    return *s;
}

double systemWall() {
    using namespace std::chrono;
    return duration_cast<duration<double> >(system_clock::now().time_since_epoch()).count();
}

double systemUp() {
    using namespace std::chrono;
#ifndef FTPDISK_PLANTED_FAULT_UP_TIME_NANOSECONDS_AS_MICROSECONDS
    return duration_cast<duration<double> >(steady_clock::now().time_since_epoch()).count();
#else
    const long long ns = duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
    const long long whole = ns / 1000000000;
    return static_cast<double>(whole) + static_cast<double>(ns % 1000000000) / 1e6;
#endif
}

}  // namespace

namespace hostlib {

double wallSeconds() {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    return s.manual ? s.manualWall : systemWall();
}

double upSeconds() {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    return s.manual ? s.manualUp : systemUp();
}

void pause(double seconds, const std::atomic<bool>* stop) {
    ClockState& s = state();
    HostLock lock(s.mutex);
    ++s.waiting;
    s.changed.notify_all();
    const bool manual = s.manual;
    const double until = (manual ? s.manualUp : systemUp()) + seconds;
    const auto realDeadline = std::chrono::steady_clock::now() +
                              std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(seconds));
    for (;;) {
        if (stop != nullptr && stop->load()) break;
        if (s.manual != manual) break;  // clock switched: end the pause
        if (manual) {
            if (s.manualUp >= until) break;
            s.changed.wait(s.mutex);
        } else {
            if (s.changed.wait_until(s.mutex, realDeadline) == std::cv_status::timeout) break;
        }
    }
    --s.waiting;
    s.changed.notify_all();
}

void wakeAll() {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    s.changed.notify_all();
}

}  // namespace hostlib

namespace hostcontrol {

void useManualClock(double wallSeconds, double upSeconds) {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    s.manual = true;
    s.manualWall = wallSeconds;
    s.manualUp = upSeconds;
    s.changed.notify_all();
}

void useSystemClock() {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    s.manual = false;
    s.changed.notify_all();
}

bool isManualClock() {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    return s.manual;
}

void advanceClock(double seconds) {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    s.manualWall += seconds;
    s.manualUp += seconds;
    s.changed.notify_all();
}

int waitingThreads() {
    ClockState& s = state();
    hostlib::HostLock guard(s.mutex);
    return s.waiting;
}

}  // namespace hostcontrol

double KDTime::getSeconds() { return hostlib::wallSeconds(); }
double KDTime::getUpTime() { return hostlib::upSeconds(); }

KadmorTime::KadmorTime(long seconds, long microseconds)
    : seconds_(seconds), microseconds_(microseconds) {}

long KadmorTime::getSeconds() const { return seconds_; }
long KadmorTime::getMicroseconds() const { return microseconds_; }
