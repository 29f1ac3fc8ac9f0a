// The barrier at the edge of every exported call. The recorder's threads must
// never see an exception from the module except KDRuntimeError, the one that
// reports a misused SafePointer: anything else (std::bad_alloc from a listing
// that exhausts memory, a length_error from a string) becomes the call's own
// failure value. And the calling thread's last error (foundation/LastError.h)
// tells what the call met: cleared when the call begins, filled by the layers
// that meet a failure, cleared again when the call succeeds. Internal to the
// module; stateless.
#ifndef FTPDISK_FILESYSTEM_EXCEPTIONBARRIER_H
#define FTPDISK_FILESYSTEM_EXCEPTIONBARRIER_H

#include <exception>
#include <new>

#include "foundation/KDRuntimeError.h"
#include "foundation/LastError.h"

// How an exported call's result is judged for its last error.
enum ExportedCallKind {
    // An action, a length, a handle, a listing: `failure` means it failed,
    // anything else that it succeeded (the last error is then cleared).
    kExportedAction,
    // A yes/no question: both answers are answers. The last error keeps what
    // the question met (a server's refusal that made the answer "no", or the
    // lost connection that did), and stays clear for a clean answer.
    kExportedQuestion,
    // aioReturn: 0 is success, -1 and -2 failures.
    kExportedWait,
    // uninit, moveDir: succeed whatever they meet; `failure` is what an
    // exception inside gives.
    kExportedAlwaysSucceeds
};

// Runs `call` and returns its result, keeping the thread's last error as
// described above; a failed action that no layer explained is noted as
// unexplained. Returns `failure` when `call` throws a standard exception
// other than KDRuntimeError, which passes on unchanged. Locks taken inside are
// scoped and released on the way out. Exceptions that are not standard ones
// (a thread's cancellation, for one) are never caught.
template <typename Result, typename Call>
Result exportedCall(Result failure, ExportedCallKind kind, Call call) {
    lasterror::clear();
    try {
        const Result result = call();
        const bool failed = kind == kExportedAlwaysSucceeds ? false
                            : kind == kExportedWait         ? result != 0
                                                            : result == failure;
        if (kind != kExportedQuestion) {
            if (!failed) {
                lasterror::clear();
            } else if (lasterror::kind() == lasterror::kNone) {
                lasterror::note(lasterror::kUnexplained, "the call failed without a reason");
            }
        }
        return result;
    } catch (const KDRuntimeError&) {
        throw;
    } catch (const std::bad_alloc&) {
        lasterror::note(lasterror::kLocalLimit, "out of memory");
        return failure;
    } catch (const std::exception& e) {
        lasterror::note(lasterror::kUnexplained, e.what());
        return failure;
    }
}

#endif  // FTPDISK_FILESYSTEM_EXCEPTIONBARRIER_H
