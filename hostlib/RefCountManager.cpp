// Registry of reference counts keyed by object address.
//
// Records are recycled, never freed: a stale SafePointer may still look at a
// record after its object is gone, and must then find it invalid rather than
// freed memory. A recycled record is re-armed under its own lock, so a holder
// that is still unlocking the record after handing it back finishes first.
#include "host/RefCountManager.h"

#include <mutex>
#include <unordered_map>
#include <vector>

struct ref_count::State {
    std::mutex mutex;
    void* pointer = nullptr;
    mutable int count = 0;
    bool valid = false;
};

class RefCountManager::Impl {
public:
    std::mutex mutex;  // guards byObject and freeList
    std::unordered_map<void*, ref_count*> byObject;
    std::vector<ref_count*> freeList;
};

ref_count::ref_count() : state(new State) {}
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

void* ref_count::getPointer() const { return state->pointer; }

int ref_count::inc_reference() const {
    if (state->count <= 0) {
        return 0;
    }
    ++state->count;
    return 1;
}

int ref_count::dec_reference() {
    if (state->count > 0) {
        --state->count;
    }
    return state->count;
}

int ref_count::getCount() const { return state->count; }

RefCountManager::RefCountManager() : impl(new Impl) {}
RefCountManager::~RefCountManager() { delete impl; }

RefCountManager* RefCountManager::getInstance() {
    // Deliberately leaked: SafePointers held by static objects are released
    // during static destruction and still need the registry.
    static RefCountManager* instance = new RefCountManager;
    return instance;
}

ref_count* RefCountManager::retrieveRefCount(void* object, const char* /*typeName*/) {
    // Lock order: a record's lock before the registry's lock (returnbackRefCount
    // is called with the record locked), so the registry's lock is never held
    // while a record's lock is taken here.
    for (;;) {
        ref_count* record = nullptr;
        bool existing = false;
        {
            std::lock_guard<std::mutex> guard(impl->mutex);
            auto found = impl->byObject.find(object);
            if (found != impl->byObject.end()) {
                record = found->second;
                existing = true;
            } else if (!impl->freeList.empty()) {
                record = impl->freeList.back();
                impl->freeList.pop_back();
            } else {
                record = new ref_count;
            }
        }
        if (existing) {
            std::lock_guard<std::mutex> recordGuard(record->state->mutex);
            if (record->state->valid && record->state->pointer == object) {
                ++record->state->count;
                return record;
            }
            continue;  // handed back meanwhile: make a fresh record
        }
        {
            std::lock_guard<std::mutex> recordGuard(record->state->mutex);
            record->state->pointer = object;
            record->state->count = 1;
            record->state->valid = true;
        }
        std::lock_guard<std::mutex> guard(impl->mutex);
        impl->byObject[object] = record;
        return record;
    }
}

void RefCountManager::returnbackRefCount(ref_count* record, const char* /*typeName*/) {
    if (record == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> guard(impl->mutex);
    // The caller usually holds the record's lock here, so its fields are
    // changed without taking it again.
    auto found = impl->byObject.find(record->state->pointer);
    if (found != impl->byObject.end() && found->second == record) {
        impl->byObject.erase(found);
    }
    record->state->valid = false;
    record->state->pointer = nullptr;
    record->state->count = 0;
    impl->freeList.push_back(record);
}

unsigned long RefCountManager::liveRecords() {
    std::lock_guard<std::mutex> guard(impl->mutex);
    return static_cast<unsigned long>(impl->byObject.size());
}
