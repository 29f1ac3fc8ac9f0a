// SafePointer: the reference-counted pointer through which every shared object
// of the module is held.
//
// The count does not live in the object nor in the pointer but in a host
// ref_count record (RefCountManager, keyed by the object's address). Misuse is
// never undefined behaviour: it prints one "SafePointer Report:" line and throws
// KDRuntimeError. Copies may live in several threads; all count changes happen
// under the record's own lock. One SafePointer object must not be assigned in
// one thread while another reads it.
//
// A default-constructed SafePointer is empty (no object, no record). It exists
// so that callers can pass an out-parameter to be filled (for example
// FTPFileSystemManager::getFTPFileSystem); using it with -> throws.
#ifndef FTPDISK_FOUNDATION_SAFEPOINTER_H
#define FTPDISK_FOUNDATION_SAFEPOINTER_H

#include <cstdio>
#include <string>
#include <typeinfo>

#include "foundation/KDRuntimeError.h"
#include "host/RefCountManager.h"

class BaseSafePointer {
public:
    virtual ~BaseSafePointer() {}
};

template <class T>
class SafePointer : public BaseSafePointer {
public:
    SafePointer() : object(NULL), count(NULL) {}

    explicit SafePointer(T* pointer) : object(NULL), count(NULL) {
        if (pointer == NULL) {
            ThrowNullPointerException("Construct from NULL original pointer");
        }
        object = pointer;
        count = RefCountManager::getInstance()->retrieveRefCount(pointer, typeName());
    }

    SafePointer(const SafePointer& other) : BaseSafePointer(), object(NULL), count(NULL) {
        if (other.object == NULL) {
            ThrowNullPointerException("Construct from NULL <T>pointer");
        }
        other.inc_reference();
        object = other.object;
        count = other.count;
    }

    SafePointer& operator=(const SafePointer& other) {
        if (this == &other) {
            return *this;
        }
        if (other.object == NULL) {
            ThrowNullPointerException("Assigned NULL <T>pointer");
        }
        dec_reference();
        other.inc_reference();
        object = other.object;
        count = other.count;
        return *this;
    }

    // A destructor cannot pass an exception on (it would end the host process
    // through std::terminate), so a release that finds the count record no
    // longer naming this object drops the error here; every other release path
    // throws. Unlike dec_reference it does not keep the record's lock either:
    // the record then belongs to another live object, and a lock left held
    // would hang every later user of that object.
    virtual ~SafePointer() { release(false); }

    T* operator->() const {
        if (object == NULL) {
            ThrowNullPointerException("Use NULL pointer ->");
        }
        return object;
    }

    T& operator*() const { return *operator->(); }

    // The raw object, or null for an empty pointer. The caller must not delete it.
    T* get() const { return object; }
    bool isNull() const { return object == NULL; }

    // Adds a holder on the record shared with this pointer (used when copying
    // from it).
    void inc_reference() const {
        if (count == NULL) {
            ThrowNullPointerException("Already destructed 1");
        }
        if (count->lock() != 0) {
            ThrowNullPointerException("Already destructed 2");
        }
        if (count->getPointer() == static_cast<void*>(object)) {
            if (count->inc_reference() != 0) {
                count->unLock();
                return;
            }
            count->unLock();
            ThrowNullPointerException("Already destructed 3");
        }
        // The record's lock is deliberately left held: the record no longer
        // belongs to this object and nothing can safely be done with it.
        throw KDRuntimeError("not valid pointer in inc_reference ");
    }

    // Removes this pointer's hold; the last holder deletes the object. A
    // record that no longer names the object throws, its lock left held.
    void dec_reference() { release(true); }

    void ThrowNullPointerException(const char* text) {
        static_cast<const SafePointer*>(this)->ThrowNullPointerException(text);
    }

    void ThrowNullPointerException(const char* text) const {
        std::string line("SafePointer Report:");
        line += typeName();
        line += ' ';
        line += text;
        std::puts(line.c_str());
        throw KDRuntimeError(line);
    }

private:
    static const char* typeName() { return typeid(T).name(); }

    // dec_reference (throwOnMismatch true) and the destructor (false).
    void release(bool throwOnMismatch) {
        if (object == NULL) {
            return;
        }
        // dec_reference deliberately does not look at the lock's result. The
        // destructor stops when the lock is refused: the record was handed
        // back, so its object is gone and nothing is left to release.
        const bool locked = count->lock() == 0;
        if (!locked && !throwOnMismatch) {
            return;
        }
        if (count->getPointer() == static_cast<void*>(object)) {
            if (count->dec_reference() != 0) {
                count->unLock();
                return;
            }
            delete object;
            object = NULL;
            ref_count* record = count;
            RefCountManager::getInstance()->returnbackRefCount(record, typeName());
            record->unLock();
            return;
        }
        if (throwOnMismatch) {
            throw KDRuntimeError("not valid pointer in dec_reference");
        }
        count->unLock();
    }

    T* object;
    ref_count* count;
};

#endif  // FTPDISK_FOUNDATION_SAFEPOINTER_H
