// Helpers of the fault suite: the design's time limits and the upper bounds
// derived from them, timing of single calls, the process's descriptors,
// threads and heap before and after a fault, and one camera's recording road
// (open, write in pieces, close) on a store.
//
// Bounds are design bounds, not speed figures: the limits a call may wait out
// by design, plus a generous margin for a loaded two-core machine and the
// sanitizers. A call that takes longer than its bound waits for something the
// design does not allow it to wait for.
#ifndef FTPDISK_TESTS_FAULTS_FAULTTESTUTIL_H
#define FTPDISK_TESTS_FAULTS_FAULTTESTUTIL_H

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "filesystem/FTPFileSystem.h"
#include "support/FdCount.h"
#include "support/TestHelpers.h"

namespace faulttest {

using ftptest::patternBytes;
using ftptest::tail;

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

// The design's limits, in seconds.
constexpr double kReadinessWait = 3.0;        // before each receive, data read or write
constexpr double kControlSocketLimit = 10.0;  // one send or receive on a control socket
constexpr double kDataSocketLimit = 30.0;     // one send or receive on a data socket
constexpr double kReplyLimit = 30.0;          // one reply in all (host up-time clock)
constexpr double kListingStall = 60.0;        // one listing in all (host up-time clock)
// Added to every bound: scheduling on a loaded machine, sanitizers, qemu.
constexpr double kMargin = 10.0;

// The longest a call may take when it can wait out `readinessWaits` readiness
// waits, `dataLimits` data socket limits and `controlLimits` control socket
// limits, margin included.
inline double bound(int readinessWaits, int dataLimits = 0, int controlLimits = 0) {
    return readinessWaits * kReadinessWait + dataLimits * kDataSocketLimit +
           controlLimits * kControlSocketLimit + kMargin;
}

inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs `call` and stores how long it took in *seconds.
template <typename Call>
auto timed(double* seconds, Call&& call) -> decltype(call()) {
    const Clock::time_point start = Clock::now();
    auto result = call();
    *seconds = secondsSince(start);
    return result;
}

// Polls `condition` every 10 ms until it holds or `limit` passes.
inline bool waitUntil(const std::function<bool()>& condition, Millis limit = Millis(5000)) {
    const Clock::time_point end = Clock::now() + limit;
    for (;;) {
        if (condition()) return true;
        if (Clock::now() >= end) return false;
        std::this_thread::sleep_for(Millis(10));
    }
}

// Heap bytes in use now: small blocks of every arena plus mmapped blocks.
// Sanitizers replace the allocator and report 0, so the heap check then
// passes trivially; the asan preset checks leaks itself.
inline size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

struct Resources {
    int descriptors = -1;
    int threads = -1;
    size_t heap = 0;
};

inline Resources takeResources() {
    Resources r;
    r.descriptors = ftptest::openDescriptorCount();
    r.threads = ftptest::threadCount();
    r.heap = heapInUse();
    return r;
}

// After a fault and the recovery round: no more descriptors and threads than
// before (polled for up to 5 s while peers finish closing; fewer is fine, a
// server may have ended an idle connection meanwhile), and the heap grown by
// at most `heapTolerance` bytes.
inline ::testing::AssertionResult noGrowth(const Resources& before, size_t heapTolerance) {
    int descriptors = -1;
    int threads = -1;
    waitUntil([&] {
        descriptors = ftptest::openDescriptorCount();
        threads = ftptest::threadCount();
        return descriptors <= before.descriptors && threads <= before.threads;
    });
    const size_t heap = heapInUse();
    const bool heapOk = heap <= before.heap + heapTolerance;
    if (descriptors <= before.descriptors && threads <= before.threads && heapOk) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "descriptors " << before.descriptors << " -> " << descriptors << ", threads "
           << before.threads << " -> " << threads << ", heap " << before.heap << " -> " << heap
           << " (tolerance " << heapTolerance << ")";
}

// What one segment of a camera's recording road gave.
struct Segment {
    int handle = -1;
    int closeResult = -2;  // -2: close not reached (open failed)
    size_t written = 0;    // sum of the positive write results
    int failedWrite = 0;   // the first negative write result, 0 if none
    double openSeconds = 0;
    double longestWriteSeconds = 0;
    double closeSeconds = 0;
};

// open(path, 2), then `bytes` in pieces of `piece` bytes (a piece is retried
// from where a short write stopped; the first failing write ends the
// writing), then close. Every call is timed.
inline Segment recordSegment(FTPFileSystem& store, const std::string& path,
                             const std::string& bytes, size_t piece = 8192) {
    Segment s;
    s.handle = timed(&s.openSeconds, [&] { return store.open(path.c_str(), 2); });
    if (s.handle < 0) return s;
    for (int rounds = 0; s.written < bytes.size() && rounds < 1000000; ++rounds) {
        const size_t want = std::min(piece, bytes.size() - s.written);
        double took = 0;
        const int n = timed(&took, [&] {
            return store.write(s.handle, bytes.data() + s.written, static_cast<unsigned>(want));
        });
        s.longestWriteSeconds = std::max(s.longestWriteSeconds, took);
        if (n <= 0) {
            s.failedWrite = n == 0 ? -3 : n;
            break;
        }
        s.written += static_cast<size_t>(n);
    }
    s.closeResult = timed(&s.closeSeconds, [&] { return store.close(s.handle); });
    return s;
}

inline std::string describe(const Segment& s) {
    return "handle " + std::to_string(s.handle) + ", written " + std::to_string(s.written) +
           ", failed write " + std::to_string(s.failedWrite) + ", close " +
           std::to_string(s.closeResult) + ", open " + std::to_string(s.openSeconds) +
           " s, longest write " + std::to_string(s.longestWriteSeconds) + " s, close " +
           std::to_string(s.closeSeconds) + " s";
}

}  // namespace faulttest

#endif  // FTPDISK_TESTS_FAULTS_FAULTTESTUTIL_H
