// Host contract: a named thread that runs its body again and again.
//
// The body is called repeatedly: each time it returns, it is called again until
// stop() is requested. The OS thread carries the given name (Linux keeps the
// first 15 characters). `onStart` is called once on the new thread before the
// first body call and `onStop` once after the last; GThread::emptyFun does
// nothing. start/running/stop may be called from any thread except the
// thread itself.
#ifndef FTPDISK_HOST_GTHREAD_H
#define FTPDISK_HOST_GTHREAD_H

#include <string>

#include "connections/Function.h"
#include "foundation/Export.h"

class FTPDISK_HOST_API GThread {
public:
    GThread(function<int> body, const std::string& name, function<int> onStart,
            function<int> onStop);
    // Stops and joins the thread if it is still running.
    virtual ~GThread();

    // Starts the OS thread. Non-zero on success; zero when the thread could not
    // be created or is already running.
    int start();
    // Non-zero while the thread runs.
    int running();
    // Requests the stop, wakes a KadmorTime::wait in progress on that thread, and
    // joins it. Returns 0. Harmless when not running.
    int stop();

    const std::string& getName() const;

    static int emptyFun();

    struct Impl;

private:
    GThread(const GThread&);
    GThread& operator=(const GThread&);

    Impl* impl;
};

#endif  // FTPDISK_HOST_GTHREAD_H
