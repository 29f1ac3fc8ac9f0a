// GThread on POSIX threads. The body is called again after each return until
// stop() is requested; KadmorTime::wait on the thread ends early on stop, so
// stopping never waits out a pause.
#include "host/GThread.h"

#include <pthread.h>

#include <atomic>
#include <thread>

#include "Clock.h"
#include "HostMutex.h"
#include "foundation/Function.h"
#include "host/KadmorTime.h"

namespace {
// The stop flag of the GThread running on this OS thread, if any.
thread_local const std::atomic<bool>* currentStopFlag = nullptr;
}  // namespace

struct GThread::Impl {
    Impl(const function<int>& b, const std::string& n, const function<int>& s,
         const function<int>& e)
        : body(b), name(n), onStart(s), onStop(e) {}

    function<int> body;
    std::string name;
    function<int> onStart;
    function<int> onStop;

    hostlib::HostMutex control;  // serialises start/stop
    std::thread thread FTPDISK_GUARDED_BY(control);
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> isRunning{false};

    void run() {
        // Linux keeps at most 15 characters of a thread name.
        std::string shortName = name.substr(0, 15);
        pthread_setname_np(pthread_self(), shortName.c_str());
        currentStopFlag = &stopRequested;
        onStart();
        while (!stopRequested.load()) {
            body();
        }
        onStop();
        currentStopFlag = nullptr;
        isRunning.store(false);
    }
};

// The callables come by value: the host contract's signature.
// NOLINTBEGIN(performance-unnecessary-value-param)
GThread::GThread(function<int> body, const std::string& name, function<int> onStart,
                 function<int> onStop)
    : impl(new Impl(body, name, onStart, onStop)) {}
// NOLINTEND(performance-unnecessary-value-param)

GThread::~GThread() {
    stop();
    delete impl;
}

int GThread::start() {
    hostlib::HostLock guard(impl->control);
    if (impl->isRunning.load()) {
        return 0;
    }
    if (impl->thread.joinable()) {
        impl->thread.join();  // finished earlier: reap it before starting anew
    }
#ifndef FTPDISK_PLANTED_FAULT_RESTART_KEEPS_STOP_REQUEST
    impl->stopRequested.store(false);
#endif
    impl->isRunning.store(true);
    try {
        impl->thread = std::thread(&Impl::run, impl);
    } catch (...) {
        impl->isRunning.store(false);
        return 0;
    }
    return 1;
}

int GThread::running() { return impl->isRunning.load() ? 1 : 0; }

int GThread::stop() {
    hostlib::HostLock guard(impl->control);
    impl->stopRequested.store(true);
#ifndef FTPDISK_PLANTED_FAULT_STOP_LEAVES_WAIT
    hostlib::wakeAll();
#endif
    if (impl->thread.joinable()) {
        impl->thread.join();
    }
    return 0;
}

const std::string& GThread::getName() const { return impl->name; }

int GThread::emptyFun() { return 0; }

void KadmorTime::wait(const KadmorTime& duration) {
#ifndef FTPDISK_PLANTED_FAULT_MICROSECONDS_READ_AS_MILLISECONDS
    double seconds = static_cast<double>(duration.getSeconds()) +
                     static_cast<double>(duration.getMicroseconds()) / 1e6;
#else
    double seconds = static_cast<double>(duration.getSeconds()) +
                     static_cast<double>(duration.getMicroseconds()) / 1e3;
#endif
    hostlib::pause(seconds, currentStopFlag);
}
