// KDMutex and GlobalEnv of the miniature recorder: a plain pthread mutex, and
// one process-wide flag.
#include <pthread.h>

#include "host/GlobalEnv.h"
#include "host/technic/KDMutex.h"

struct KDMutex::Impl {
    pthread_mutex_t mutex;
};

KDMutex::KDMutex() : impl(new Impl) { pthread_mutex_init(&impl->mutex, NULL); }

KDMutex::~KDMutex() {
    pthread_mutex_destroy(&impl->mutex);
    delete impl;
}

// The source name and line are for a recorder's lock diagnostics; this host
// keeps none.
void KDMutex::Lock(char* /*file*/, int /*line*/) { pthread_mutex_lock(&impl->mutex); }

void KDMutex::Unlock(char* /*file*/, int /*line*/) { pthread_mutex_unlock(&impl->mutex); }

GlobalEnv::GlobalEnv() : printFlag_(false) {}

GlobalEnv* GlobalEnv::getInstance() {
    static GlobalEnv instance;
    return &instance;
}

bool GlobalEnv::getPrintFlag() { return printFlag_.load(); }

void GlobalEnv::setPrintFlag(bool on) { printFlag_.store(on); }
