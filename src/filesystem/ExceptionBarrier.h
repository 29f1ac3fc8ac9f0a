// The barrier at the edge of every exported call: the recorder's threads must
// never see an exception from the module except KDRuntimeError, the one that
// reports a misused SafePointer. Anything else (std::bad_alloc from a listing
// that exhausts memory, a length_error from a string) becomes the call's own
// failure value. Internal to the module; stateless.
#ifndef FTPDISK_FILESYSTEM_EXCEPTIONBARRIER_H
#define FTPDISK_FILESYSTEM_EXCEPTIONBARRIER_H

#include <exception>

#include "foundation/KDRuntimeError.h"

// Runs `call` and returns its result; returns `failure` when it throws a
// standard exception other than KDRuntimeError, which passes on unchanged.
// Locks taken inside are scoped and released on the way out. Exceptions that
// are not standard ones (a thread's cancellation, for one) are never caught.
template <typename Result, typename Call>
Result failOnException(Result failure, Call call) {
    try {
        return call();
    } catch (const KDRuntimeError&) {
        throw;
    } catch (const std::exception&) {
        return failure;
    }
}

#endif  // FTPDISK_FILESYSTEM_EXCEPTIONBARRIER_H
