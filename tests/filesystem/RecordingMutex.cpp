#include "RecordingMutex.h"

#include <algorithm>
#include <mutex>

#include "host/technic/KDMutex.h"

namespace lockrecord {
namespace {

std::mutex& recordMutex() {
    static std::mutex* m = new std::mutex;  // used by threads at exit too
    return *m;
}

bool recording = false;         // guarded by recordMutex()
std::vector<Event>* events() {  // guarded by recordMutex()
    static std::vector<Event>* all = new std::vector<Event>;
    return all;
}

thread_local std::vector<Held> heldByThisThread;

// Source names of the mutexes held right now, by any thread, one entry per
// holding. Guarded by recordMutex().
std::vector<std::string>* heldNow() {
    static std::vector<std::string>* all = new std::vector<std::string>;
    return all;
}

}  // namespace

void start() {
    std::lock_guard<std::mutex> guard(recordMutex());
    events()->clear();
    recording = true;
}

std::vector<Event> stop() {
    std::lock_guard<std::mutex> guard(recordMutex());
    recording = false;
    std::vector<Event> out;
    out.swap(*events());
    return out;
}

bool heldAnywhere(const std::string& file) {
    std::lock_guard<std::mutex> guard(recordMutex());
    return std::find(heldNow()->begin(), heldNow()->end(), file) != heldNow()->end();
}

}  // namespace lockrecord

struct KDMutex::Impl {
    std::mutex mutex;
};

KDMutex::KDMutex() : impl(new Impl) {}
KDMutex::~KDMutex() { delete impl; }

// The host contract's signature, writable name and all.
void KDMutex::Lock(char* file, int line) {  // NOLINT(readability-non-const-parameter)
    const std::string name = file != nullptr ? file : "";
    {
        std::lock_guard<std::mutex> guard(lockrecord::recordMutex());
        if (lockrecord::recording) {
            lockrecord::events()->push_back(
                lockrecord::Event{this, name, line, true, lockrecord::heldByThisThread});
        }
    }
    impl->mutex.lock();
    lockrecord::heldByThisThread.push_back(lockrecord::Held{this, name});
    std::lock_guard<std::mutex> guard(lockrecord::recordMutex());
    lockrecord::heldNow()->push_back(name);
}

void KDMutex::Unlock(char* file, int line) {  // NOLINT(readability-non-const-parameter)
    std::vector<lockrecord::Held>& held = lockrecord::heldByThisThread;
    for (size_t i = held.size(); i > 0; --i) {
        if (held[i - 1].mutex == this) {
            {
                std::lock_guard<std::mutex> guard(lockrecord::recordMutex());
                std::vector<std::string>& now = *lockrecord::heldNow();
                std::vector<std::string>::iterator it =
                    std::find(now.begin(), now.end(), held[i - 1].file);
                if (it != now.end()) now.erase(it);
            }
            held.erase(held.begin() + static_cast<std::ptrdiff_t>(i - 1));
            break;
        }
    }
    impl->mutex.unlock();
    std::lock_guard<std::mutex> guard(lockrecord::recordMutex());
    if (lockrecord::recording) {
        lockrecord::events()->push_back(
            lockrecord::Event{this, file != nullptr ? file : "", line, false, {}});
    }
}
