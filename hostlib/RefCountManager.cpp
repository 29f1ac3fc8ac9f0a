// Registry of reference counts keyed by object address.
//
// Records are recycled, never freed: a stale SafePointer may still look at a
// record after its object is gone, and must then find it invalid rather than
// freed memory. A recycled record first waits until the holder that handed it
// back has unlocked it, then gets a fresh lock before it is re-armed.
//
// Why a fresh lock: SafePointer deletes an object while holding that object's
// record lock, and the object's own SafePointer members then lock their
// records inside it. Owner-then-member is a safe order, but a recycled record
// can be a member's record once and an owner's record later. Had it kept the
// same lock, lock-order checkers (ThreadSanitizer) would see both orders on
// one lock and report a deadlock that cannot happen; a destroyed and
// re-initialised lock is a new lock to them.
#include "host/RefCountManager.h"

#include <pthread.h>

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "HostMutex.h"

struct ref_count::State {
    State() { pthread_mutex_init(&mutex, nullptr); }
    ~State() { pthread_mutex_destroy(&mutex); }

    // Called with no holder left: the record was handed back and its last
    // holder has unlocked it.
    void renewLock() {
        pthread_mutex_destroy(&mutex);
        pthread_mutex_init(&mutex, nullptr);
    }

    pthread_mutex_t mutex;
    void* pointer = nullptr;
    mutable int count = 0;
    bool valid = false;
    // Lookups that found this record by address and are about to take its
    // lock. Guarded by the registry's mutex. A handed-back record is renewed
    // only while none is pending, so no thread ever waits on a lock that is
    // being destroyed.
    int pins = 0;
};

class RefCountManager::Impl {
public:
    hostlib::HostMutex mutex;
    std::unordered_map<void*, ref_count*> byObject FTPDISK_GUARDED_BY(mutex);
    std::vector<ref_count*> freeList FTPDISK_GUARDED_BY(mutex);
};

ref_count::ref_count() : state(new State) {}
ref_count::~ref_count() { delete state; }

int ref_count::lock() {
#ifndef FTPDISK_PLANTED_FAULT_RECORD_LOCK_EXCLUDES_NOTHING
    pthread_mutex_lock(&state->mutex);
#endif
    if (!state->valid) {
#ifndef FTPDISK_PLANTED_FAULT_RECORD_LOCK_EXCLUDES_NOTHING
        pthread_mutex_unlock(&state->mutex);
#endif
        return 1;
    }
    return 0;
}

void ref_count::unLock() {
#ifndef FTPDISK_PLANTED_FAULT_RECORD_LOCK_EXCLUDES_NOTHING
    pthread_mutex_unlock(&state->mutex);
#endif
}

void* ref_count::getPointer() { return state->pointer; }

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
        bool recycled = false;
        {
            hostlib::HostLock guard(impl->mutex);
            auto found = impl->byObject.find(object);
            if (found != impl->byObject.end()) {
                record = found->second;
#ifdef FTPDISK_PLANTED_FAULT_JOINS_RECORD_BEING_HANDED_BACK
                // Joins whatever record the address has, even one whose
                // object is being deleted.
                ++record->state->count;
                return record;
#endif
                existing = true;
                ++record->state->pins;
#ifdef FTPDISK_PLANTED_FAULT_RECORD_LOCK_UNDER_REGISTRY_LOCK
                // Waits for the record's lock with the registry's held.
                pthread_mutex_lock(&record->state->mutex);
                pthread_mutex_unlock(&record->state->mutex);
#endif
            } else {
                // Most recently handed back first, skipping records that a
                // lookup still has pinned. Once a record is out of byObject it
                // cannot be pinned again.
                for (size_t i = impl->freeList.size(); i > 0; --i) {
                    if (impl->freeList[i - 1]->state->pins == 0) {
                        record = impl->freeList[i - 1];
                        impl->freeList.erase(impl->freeList.begin() +
                                             static_cast<std::ptrdiff_t>(i - 1));
                        recycled = true;
                        break;
                    }
                }
                if (record == nullptr) {
                    record = new ref_count;
                }
            }
        }
        pthread_mutex_t* recordLock = &record->state->mutex;
        if (existing) {
            pthread_mutex_lock(recordLock);
            const bool same = record->state->valid && record->state->pointer == object;
            if (same) {
                ++record->state->count;
            }
            pthread_mutex_unlock(recordLock);
            {
                hostlib::HostLock guard(impl->mutex);
                --record->state->pins;
            }
            if (same) {
                return record;
            }
            continue;  // handed back meanwhile (the address was reused): make a fresh record
        }
        if (recycled) {
            // The holder that handed the record back may still hold its lock
            // (it unlocks after returnbackRefCount): wait for it to let go.
            pthread_mutex_lock(recordLock);
            pthread_mutex_unlock(recordLock);
            record->state->renewLock();
        }
        pthread_mutex_lock(recordLock);
        record->state->pointer = object;
        record->state->count = 1;
        record->state->valid = true;
        pthread_mutex_unlock(recordLock);
        hostlib::HostLock guard(impl->mutex);
        if (impl->byObject.find(object) == impl->byObject.end()) {
            impl->byObject[object] = record;
            return record;
        }
        // Another thread made the first record for this object meanwhile: one
        // object must never have two records (each would delete it). This one
        // was seen by nobody else; it goes back, and the caller joins the other.
        record->state->valid = false;
        record->state->pointer = nullptr;
        record->state->count = 0;
        impl->freeList.push_back(record);
    }
}

void RefCountManager::returnbackRefCount(ref_count* record, const char* /*typeName*/) {
    if (record == nullptr) {
        return;
    }
    hostlib::HostLock guard(impl->mutex);
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
    hostlib::HostLock guard(impl->mutex);
    return static_cast<unsigned long>(impl->byObject.size());
}
