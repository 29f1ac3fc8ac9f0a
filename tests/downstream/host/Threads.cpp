// GThread and KadmorTime of the miniature recorder on std::thread. A thread
// calls its body until stop() is asked; a KadmorTime::wait on that thread
// waits on the thread's own condition, so stop() cuts the pause short.
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "foundation/Function.h"
#include "host/GThread.h"
#include "host/KadmorTime.h"

struct GThread::Impl {
    Impl(const function<int>& body, const std::string& name, const function<int>& onStart,
         const function<int>& onStop)
        : body(body),
          onStart(onStart),
          onStop(onStop),
          name(name),
          stopAsked(false),
          alive(false) {}

    function<int> body;
    function<int> onStart;
    function<int> onStop;
    std::string name;
    std::mutex mutex;
    std::condition_variable woken;
    bool stopAsked;  // guarded by mutex
    bool alive;      // guarded by mutex: from start() until the body loop ends
    std::thread thread;
};

namespace {

// The GThread whose OS thread is the caller, for KadmorTime::wait.
thread_local GThread::Impl* currentThread = NULL;

void runThread(GThread::Impl* impl) {
    // Linux keeps 15 characters of a thread's name.
    pthread_setname_np(pthread_self(), impl->name.substr(0, 15).c_str());
    currentThread = impl;
    impl->onStart();
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(impl->mutex);
            if (impl->stopAsked) break;
        }
        impl->body();
    }
    impl->onStop();
    std::lock_guard<std::mutex> guard(impl->mutex);
    impl->alive = false;
}

}  // namespace

GThread::GThread(function<int> body, const std::string& name, function<int> onStart,
                 function<int> onStop)
    : impl(new Impl(body, name, onStart, onStop)) {}

GThread::~GThread() {
    stop();
    delete impl;
}

int GThread::start() {
    {
        std::lock_guard<std::mutex> guard(impl->mutex);
        if (impl->alive) return 0;
    }
    if (impl->thread.joinable()) impl->thread.join();  // ended by itself earlier
    std::lock_guard<std::mutex> guard(impl->mutex);
    impl->stopAsked = false;
    impl->alive = true;
    try {
        impl->thread = std::thread(runThread, impl);
    } catch (const std::system_error&) {
        impl->alive = false;
        return 0;
    }
    return 1;
}

int GThread::running() {
    std::lock_guard<std::mutex> guard(impl->mutex);
    return impl->alive ? 1 : 0;
}

int GThread::stop() {
    {
        std::lock_guard<std::mutex> guard(impl->mutex);
        impl->stopAsked = true;
    }
    impl->woken.notify_all();
    if (impl->thread.joinable() && impl->thread.get_id() != std::this_thread::get_id()) {
        impl->thread.join();
    }
    return 0;
}

const std::string& GThread::getName() const { return impl->name; }

int GThread::emptyFun() { return 0; }

KadmorTime::KadmorTime(long seconds, long microseconds)
    : seconds_(seconds), microseconds_(microseconds) {}

long KadmorTime::getSeconds() const { return seconds_; }

long KadmorTime::getMicroseconds() const { return microseconds_; }

void KadmorTime::wait(const KadmorTime& duration) {
    const std::chrono::microseconds length(static_cast<long long>(duration.getSeconds()) * 1000000 +
                                           duration.getMicroseconds());
    GThread::Impl* self = currentThread;
    if (self == NULL) {
        std::this_thread::sleep_for(length);
        return;
    }
    std::unique_lock<std::mutex> guard(self->mutex);
    self->woken.wait_for(guard, length, [self] { return self->stopAsked; });
}
