// RefCountManager and ref_count of the miniature recorder.
//
// Records are never freed: a record handed back goes to a spare list and is
// handed out again for a later object, so a holder that still has it finds
// lock() refused rather than freed memory. The registry's own lock is never
// taken together with a record's lock, because handing back happens with the
// record's lock held by the caller.
#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include "host/RefCountManager.h"

struct ref_count::State {
    std::mutex mutex;
    std::atomic<void*> object;
    std::atomic<int> count;
    std::atomic<bool> valid;
};

class RefCountManager::Impl {
public:
    std::mutex mutex;
    std::map<void*, ref_count*> live;  // guarded by mutex
    std::vector<ref_count*> spare;     // guarded by mutex
};

ref_count::ref_count() : state(new State) {
    state->object = NULL;
    state->count = 0;
    state->valid = false;
}

ref_count::~ref_count() { delete state; }

int ref_count::lock() {
    state->mutex.lock();
    if (!state->valid) {
        state->mutex.unlock();
        return 1;
    }
    return 0;
}

void ref_count::unLock() { state->mutex.unlock(); }

void* ref_count::getPointer() { return state->object; }

int ref_count::inc_reference() const {
    int seen = state->count.load();
    while (seen > 0) {
        if (state->count.compare_exchange_weak(seen, seen + 1)) return 1;
    }
    return 0;
}

int ref_count::dec_reference() { return --state->count; }

int ref_count::getCount() const { return state->count.load(); }

RefCountManager::RefCountManager() : impl(new Impl) {}

RefCountManager::~RefCountManager() { delete impl; }

RefCountManager* RefCountManager::getInstance() {
    // Never destroyed: pointers released during static destruction still
    // find it.
    static RefCountManager* instance = new RefCountManager;
    return instance;
}

ref_count* RefCountManager::retrieveRefCount(void* object, const char* /*typeName*/) {
    std::lock_guard<std::mutex> guard(impl->mutex);
    std::map<void*, ref_count*>::iterator found = impl->live.find(object);
    // A record whose count is already 0 belongs to an object being deleted,
    // whose address the allocator may have given to this new one: it gets a
    // record of its own.
    if (found != impl->live.end() && found->second->inc_reference() != 0) return found->second;
    ref_count* record;
    if (impl->spare.empty()) {
        record = new ref_count;
    } else {
        record = impl->spare.back();
        impl->spare.pop_back();
    }
    record->state->object = object;
    record->state->count = 1;
    record->state->valid = true;
    impl->live[object] = record;
    return record;
}

void RefCountManager::returnbackRefCount(ref_count* record, const char* /*typeName*/) {
    if (record == NULL) return;
    std::lock_guard<std::mutex> guard(impl->mutex);
    record->state->valid = false;
    std::map<void*, ref_count*>::iterator found = impl->live.find(record->state->object);
    if (found != impl->live.end() && found->second == record) impl->live.erase(found);
    impl->spare.push_back(record);
}

unsigned long RefCountManager::liveRecords() {
    std::lock_guard<std::mutex> guard(impl->mutex);
    return static_cast<unsigned long>(impl->live.size());
}
