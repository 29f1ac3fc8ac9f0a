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

/// The common base of every SafePointer instantiation.
class BaseSafePointer {
public:
    virtual ~BaseSafePointer() {}
};

/// A counted pointer to a shared object of type T, the way the module holds
/// every shared object and hands stores to the recorder
/// (FTPFileSystemManager::getFTPFileSystem).
///
/// The count lives in a host ref_count record handed out by the recorder's
/// RefCountManager, keyed by the object's address; the last holder deletes
/// the object and hands the record back. The template is compiled into the
/// recorder's own code, so the recorder's and the module's pointers share
/// those records. Copies may live in several threads: every count change
/// happens under the record's lock. One SafePointer object must not be
/// assigned in one thread while another reads it.
///
/// Misuse is never undefined behaviour: it prints one line
/// "SafePointer Report:<type> <what>" on standard output (puts) and throws
/// KDRuntimeError, the only exception the module's interface ever lets out.
template <class T>
class SafePointer : public BaseSafePointer {
public:
    /// An empty pointer (no object, no record). It exists to be filled as an
    /// out-parameter; using it with -> or * throws.
    SafePointer() : object(nullptr), count(nullptr) {}

    /// Takes ownership of `pointer`, a new object: asks the RefCountManager
    /// for its record (count 1). Throws KDRuntimeError ("Construct from NULL
    /// original pointer") for null, owning nothing.
    explicit SafePointer(T* pointer) : object(nullptr), count(nullptr) {
        if (pointer == nullptr) {
            ThrowNullPointerException("Construct from NULL original pointer");
        }
        object = pointer;
        count = RefCountManager::getInstance()->retrieveRefCount(pointer, typeName());
    }

    /// Shares `other`'s object, adding one holder under the record's lock.
    /// Throws KDRuntimeError for an empty `other` ("Construct from NULL
    /// <T>pointer") or one whose record no longer names its object.
    SafePointer(const SafePointer& other) : BaseSafePointer(), object(nullptr), count(nullptr) {
        if (other.object == nullptr) {
            ThrowNullPointerException("Construct from NULL <T>pointer");
        }
        other.inc_reference();
        object = other.object;
        count = other.count;
    }

    /// Lets go of the current object (deleting it if this was its last
    /// holder), then shares `other`'s. Throws KDRuntimeError for an empty
    /// `other` ("Assigned NULL <T>pointer"), leaving this pointer unchanged.
    SafePointer& operator=(const SafePointer& other) {
        if (this == &other) {
            return *this;
        }
        if (other.object == nullptr) {
            ThrowNullPointerException("Assigned NULL <T>pointer");
        }
        dec_reference();
        other.inc_reference();
        object = other.object;
        count = other.count;
        return *this;
    }

    /// Lets go of the object; the last holder deletes it and hands its record
    /// back. Never throws: a destructor cannot pass an exception on (it would
    /// end the host process through std::terminate), so a release that finds
    /// the record no longer naming this object drops the error here. Unlike
    /// dec_reference it does not keep the record's lock either: the record
    /// then belongs to another live object, and a lock left held would hang
    /// every later user of that object.
    // NOLINTNEXTLINE(bugprone-exception-escape): release(false) never throws (see above).
    virtual ~SafePointer() { release(false); }

    /// The object. Throws KDRuntimeError ("Use NULL pointer ->") when empty.
    T* operator->() const {
        if (object == nullptr) {
            ThrowNullPointerException("Use NULL pointer ->");
        }
        return object;
    }

    /// The object, as operator->() gives it; throws the same way.
    T& operator*() const { return *operator->(); }

    /// The raw object, or null for an empty pointer. The caller must not
    /// delete it.
    T* get() const { return object; }
    /// True for an empty pointer.
    bool isNull() const { return object == nullptr; }

    /// Adds a holder on the record shared with this pointer (used when
    /// copying from it). Throws KDRuntimeError when empty or when the record
    /// no longer names the object (its lock is then deliberately left held).
    void inc_reference() const {
        if (count == nullptr) {
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

    /// Removes this pointer's hold; the last holder deletes the object. A
    /// record that no longer names the object throws KDRuntimeError, its lock
    /// left held. Nothing happens for an empty pointer.
    void dec_reference() { release(true); }

    /// Prints "SafePointer Report:<type> <text>" on standard output and throws
    /// KDRuntimeError with that line as its message.
    void ThrowNullPointerException(const char* text) {
        static_cast<const SafePointer*>(this)->ThrowNullPointerException(text);
    }

    /// As the non-const form.
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
        if (object == nullptr) {
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
            object = nullptr;
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
