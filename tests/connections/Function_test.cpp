// The callable family that binds the pool's monitor pass to a host thread:
// plain functions, bound members (virtual ones dispatched through the object),
// and the shared callable behind copies of function<int>.
#include <gtest/gtest.h>

#include "foundation/Function.h"
#include "host/RefCountManager.h"

namespace {

int plainCalls = 0;
int plainFunction() { return ++plainCalls; }

class Counter {
public:
    virtual ~Counter() {}
    int count() { return ++calls; }
    virtual int which() { return 1; }
    int calls = 0;
};

class SpecialCounter : public Counter {
public:
    int which() override { return 2; }
};

TEST(CallableFamily, APlainFunctionIsCalledThroughFunctionInt) {
    plainCalls = 0;
    function<int> f = make_function(&plainFunction);
    EXPECT_EQ(1, f());
    EXPECT_EQ(2, f());
    EXPECT_EQ(2, plainCalls);
}

TEST(CallableFamily, ABoundMemberIsCalledOnItsObject) {
    Counter counter;
    function<int> f = make_function(&Counter::count, &counter);
    EXPECT_EQ(1, f());
    EXPECT_EQ(2, f());
    EXPECT_EQ(2, counter.calls);
}

TEST(CallableFamily, AVirtualMemberIsDispatchedThroughTheObjectsTable) {
    SpecialCounter special;
    Counter* asBase = &special;
    function<int> f = make_function(&Counter::which, asBase);
    EXPECT_EQ(2, f());
}

TEST(CallableFamily, CopiesShareOneCallableWhichGoesWithTheLastCopy) {
    const unsigned long before = RefCountManager::getInstance()->liveRecords();
    Counter counter;
    {
        function<int> original = make_function(&Counter::count, &counter);
        EXPECT_EQ(before + 1, RefCountManager::getInstance()->liveRecords());
        function<int> copy = original;
        function<int> another(copy);
        EXPECT_EQ(before + 1, RefCountManager::getInstance()->liveRecords())
            << "copies share the callable's record";
        original();
        copy();
        another();
        EXPECT_EQ(3, counter.calls);
    }
    EXPECT_EQ(before, RefCountManager::getInstance()->liveRecords());
}

TEST(CallableFamily, BindFuncObj0CallsTheMemberDirectly) {
    Counter counter;
    bind_funcobj0<int, Counter> bound(&Counter::count, &counter);
    EXPECT_EQ(1, bound());
    function_obj<int, bind_funcobj0<int, Counter> > object(bound);
    function_obj_base<int>& base = object;
    EXPECT_EQ(2, base());
}

}  // namespace
