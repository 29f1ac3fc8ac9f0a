// HostMutex and HostLock: the host library's own mutex and scoped lock,
// std::mutex with the thread-safety annotations the standard library lacks,
// so that the clang build checks the members they guard. Any thread; not
// recursive.
#ifndef FTPDISK_HOSTLIB_HOSTMUTEX_H
#define FTPDISK_HOSTLIB_HOSTMUTEX_H

#include <mutex>

#include "foundation/ThreadAnnotations.h"

namespace hostlib {

class FTPDISK_CAPABILITY("mutex") HostMutex {
public:
    HostMutex() {}

    void lock() FTPDISK_ACQUIRE() { mutex_.lock(); }
    void unlock() FTPDISK_RELEASE() { mutex_.unlock(); }

private:
    HostMutex(const HostMutex&);
    HostMutex& operator=(const HostMutex&);

    std::mutex mutex_;
};

class FTPDISK_SCOPED_CAPABILITY HostLock {
public:
    explicit HostLock(HostMutex& mutex) FTPDISK_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~HostLock() FTPDISK_RELEASE() { mutex_.unlock(); }

private:
    HostLock(const HostLock&);
    HostLock& operator=(const HostLock&);

    HostMutex& mutex_;
};

}  // namespace hostlib

#endif  // FTPDISK_HOSTLIB_HOSTMUTEX_H
