// The small callable family that binds the pool's monitor pass to a host
// GThread.
//
// function<int> is a value type that shares one callable object through a
// SafePointer; copying it shares the callable, calling it forwards to it. The
// objects hold no locks: a callable is called by one thread at a time.
#ifndef FTPDISK_CONNECTIONS_FUNCTION_H
#define FTPDISK_CONNECTIONS_FUNCTION_H

#include "foundation/SafePointer.h"

template <class R>
class function_obj_base {
public:
    virtual ~function_obj_base() {}
    virtual R operator()() = 0;
};

// Primary template: holds a callable object F by value and calls it.
template <class R, class F>
class function_obj : public function_obj_base<R> {
public:
    explicit function_obj(const F& f) : f_(f) {}
    virtual R operator()() { return f_(); }

private:
    F f_;
};

// Plain function pointer.
template <class R>
class function_obj<R, R (*)()> : public function_obj_base<R> {
public:
    explicit function_obj(R (*f)()) : f_(f) {}
    virtual R operator()() { return f_(); }

private:
    R (*f_)();
};

// A member function of C returning R and taking no arguments, bound to an
// object. Virtual members dispatch through the object as usual.
template <class R, class C>
class bind_funcobj0 {
public:
    typedef R (C::*Member)();
    bind_funcobj0(Member member, C* object) : member_(member), object_(object) {}
    R operator()() const { return (object_->*member_)(); }

private:
    Member member_;
    C* object_;
};

template <class R>
class function {
public:
    explicit function(function_obj_base<R>* callable) : callable_(callable) {}

    R operator()() const { return (*callable_.operator->())(); }

private:
    SafePointer<function_obj_base<R> > callable_;
};

// Helpers that build the value type from a plain function or a bound member.
template <class R>
function<R> make_function(R (*f)()) {
    return function<R>(new function_obj<R, R (*)()>(f));
}

template <class R, class C>
function<R> make_function(R (C::*member)(), C* object) {
    return function<R>(new function_obj<R, bind_funcobj0<R, C> >(bind_funcobj0<R, C>(member, object)));
}

#endif  // FTPDISK_CONNECTIONS_FUNCTION_H
