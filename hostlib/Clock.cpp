#include "Clock.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "ftpdisk_host/HostControl.h"
#include "host/KDTime.h"
#include "host/KadmorTime.h"

namespace {

struct ClockState {
    std::mutex mutex;  // guards every field below
    std::condition_variable changed;
    bool manual = false;
    double manualWall = 0;
    double manualUp = 0;
    int waiting = 0;
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
    return duration_cast<duration<double> >(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

namespace hostlib {

double wallSeconds() {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.manual ? s.manualWall : systemWall();
}

double upSeconds() {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.manual ? s.manualUp : systemUp();
}

void pause(double seconds, const std::atomic<bool>* stop) {
    ClockState& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
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
            s.changed.wait(lock);
        } else {
            if (s.changed.wait_until(lock, realDeadline) == std::cv_status::timeout) break;
        }
    }
    --s.waiting;
    s.changed.notify_all();
}

void wakeAll() {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.changed.notify_all();
}

}  // namespace hostlib

namespace hostcontrol {

void useManualClock(double wallSeconds, double upSeconds) {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.manual = true;
    s.manualWall = wallSeconds;
    s.manualUp = upSeconds;
    s.changed.notify_all();
}

void useSystemClock() {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.manual = false;
    s.changed.notify_all();
}

bool isManualClock() {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.manual;
}

void advanceClock(double seconds) {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.manualWall += seconds;
    s.manualUp += seconds;
    s.changed.notify_all();
}

int waitingThreads() {
    ClockState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return s.waiting;
}

}  // namespace hostcontrol

double KDTime::getSeconds() { return hostlib::wallSeconds(); }
double KDTime::getUpTime() { return hostlib::upSeconds(); }

KadmorTime::KadmorTime(long seconds, long microseconds)
    : seconds_(seconds), microseconds_(microseconds) {}

long KadmorTime::getSeconds() const { return seconds_; }
long KadmorTime::getMicroseconds() const { return microseconds_; }
