// The small callable family that binds the pool's monitor pass to a host
// GThread.
//
// function<int> is a value type that shares one callable object through a
// SafePointer; copying it shares the callable, calling it forwards to it. The
// objects hold no locks: a callable is called by one thread at a time.
#ifndef FTPDISK_FOUNDATION_FUNCTION_H
#define FTPDISK_FOUNDATION_FUNCTION_H

#include "foundation/SafePointer.h"

/// A callable that takes nothing and returns R: what function<R> holds.
template <class R>
class function_obj_base {
public:
    virtual ~function_obj_base() {}
    /// Calls the callable.
    virtual R operator()() = 0;
};

/// Holds a callable object F by value and calls it.
template <class R, class F>
class function_obj : public function_obj_base<R> {
public:
    /// Keeps a copy of `f`.
    explicit function_obj(const F& f) : f_(f) {}
    /// \return what `f` returns.
    virtual R operator()() { return f_(); }

private:
    F f_;
};

/// Holds a plain function pointer and calls it.
template <class R>
class function_obj<R, R (*)()> : public function_obj_base<R> {
public:
    /// Keeps `f`.
    explicit function_obj(R (*f)()) : f_(f) {}
    /// \return what `f` returns.
    virtual R operator()() { return f_(); }

private:
    R (*f_)();
};

/// A member function of C returning R and taking no arguments, bound to an
/// object. Virtual members dispatch through the object as usual.
template <class R, class C>
class bind_funcobj0 {
public:
    /// The member function's type.
    typedef R (C::*Member)();
    /// Binds `member` to `object`, which must outlive the binding.
    bind_funcobj0(Member member, C* object) : member_(member), object_(object) {}
    /// \return what the member returns, called on the object.
    R operator()() const { return (object_->*member_)(); }

private:
    Member member_;
    C* object_;
};

/// The value type a GThread is given its body and its start and stop
/// callables in. Copying it shares the one callable object (counted through
/// SafePointer, hence through the recorder's RefCountManager); calling it
/// calls that object. A recorder's GThread keeps its copies and calls them.
template <class R>
class function {
public:
    /// Takes ownership of `callable`, a new object (null throws
    /// KDRuntimeError).
    explicit function(function_obj_base<R>* callable) : callable_(callable) {}

    /// \return what the callable returns.
    R operator()() const { return (*callable_.operator->())(); }

private:
    SafePointer<function_obj_base<R> > callable_;
};

/// A function<R> calling the plain function `f`.
template <class R>
function<R> make_function(R (*f)()) {
    return function<R>(new function_obj<R, R (*)()>(f));
}

/// A function<R> calling `member` on `object`.
template <class R, class C>
function<R> make_function(R (C::*member)(), C* object) {
    return function<R>(
        new function_obj<R, bind_funcobj0<R, C> >(bind_funcobj0<R, C>(member, object)));
}

#endif  // FTPDISK_FOUNDATION_FUNCTION_H
