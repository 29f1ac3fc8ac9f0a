// Host contract: a named thread that runs its body again and again. Declared
// here, implemented by the recorder's process.
#ifndef FTPDISK_HOST_GTHREAD_H
#define FTPDISK_HOST_GTHREAD_H

#include <string>

#include "foundation/Export.h"

// The module's callable value type (foundation/Function.h). Only named here:
// the contract takes callables by value, and whoever constructs or implements
// a GThread includes their definition. So the host contracts need nothing of
// the module's pointer or callable family, which themselves rest on the
// contracts (the pointer keeps its counts in the host's registry).
// Its one member, a SafePointer, never throws on release.
template <class R>
// NOLINTNEXTLINE(bugprone-exception-escape)
class function;

/// Host contract: a named thread that calls its body again and again.
///
/// The module makes one per store, "detectStateThread", the monitor of the
/// store's idle connections: its body does one pass and then pauses 2 s with
/// KadmorTime::wait. The module allocates the object with `new`, at the size
/// this header gives (one pointer), so the recorder's class keeps that layout.
/// start, running and stop may be called from any thread except the thread
/// itself.
///
/// How stop ends a KadmorTime::wait early: wait is static and names no
/// thread, so the host finds the GThread of the calling OS thread itself
/// (the POSIX host's thread routine sets a thread-local pointer to its stop
/// request) and pauses on something stop can signal: a condition variable,
/// whose predicate, the stop request, is read under the same lock before
/// every sleep, so that a stop asked just before the pause begins is not
/// missed. stop sets the request, signals and joins; the body returns from
/// its pause, the loop sees the request and onStop runs. A pause on a thread
/// that is no GThread lasts its full length.
///
/// Checked by the host conformance suite as GThread.start_stop_running and
/// GThread.stop_ends_wait_early.
class FTPDISK_HOST_API GThread {
public:
    /// A thread, not yet started, that will call `body` again each time it
    /// returns until stop() is requested, `onStart` once on the new thread
    /// before the first call and `onStop` once after the last. The OS thread
    /// carries `name` (Linux keeps the first 15 characters).
    GThread(function<int> body, const std::string& name, function<int> onStart,
            function<int> onStop);
    /// Stops and joins the thread if it is still running.
    virtual ~GThread();

    /// Starts the OS thread.
    /// \return non-zero on success; zero when the thread could not be created
    /// or is already running.
    int start();
    /// \return non-zero while the thread runs.
    int running();
    /// Requests the stop, wakes a KadmorTime::wait in progress on that thread,
    /// and joins it. Harmless when not running; start() may run it again.
    /// \return 0.
    int stop();

    /// The name given to the constructor.
    const std::string& getName() const;

    /// Does nothing; the module passes it as `onStart` and `onStop`.
    /// \return 0.
    static int emptyFun();

    /// The recorder's own state of a thread.
    struct Impl;

private:
    GThread(const GThread&);
    GThread& operator=(const GThread&);

    Impl* impl;
};

#endif  // FTPDISK_HOST_GTHREAD_H
