#include "host/technic/KDMutex.h"

#include <mutex>

struct KDMutex::Impl {
    std::mutex mutex;
};

KDMutex::KDMutex() : impl(new Impl) {}
KDMutex::~KDMutex() { delete impl; }

// The source name and line are the recorder's lock diagnostics; the POSIX host
// has none and ignores them.
#ifndef FTPDISK_PLANTED_FAULT_MUTEX_EXCLUDES_NOTHING
void KDMutex::Lock(char* /*file*/, int /*line*/) { impl->mutex.lock(); }
void KDMutex::Unlock(char* /*file*/, int /*line*/) { impl->mutex.unlock(); }
#else
void KDMutex::Lock(char* /*file*/, int /*line*/) {}
void KDMutex::Unlock(char* /*file*/, int /*line*/) {}
#endif
