// FdCount: how many descriptors this process has open, for leak tests, and
// what the kernel shows of its threads (how many, whether one is blocked, how
// often it has waited), for tests that must know another thread is held up
// without sleeping to find out.
//
// Counts the entries of /proc/self/fd (the descriptor used for the listing
// itself is not counted). Descriptors of every thread count, so tests that run
// an in-process server compare counts only once that server is quiet.
#ifndef FTPDISK_TESTS_SUPPORT_FDCOUNT_H
#define FTPDISK_TESTS_SUPPORT_FDCOUNT_H

#include <sys/types.h>

#include <chrono>

namespace ftptest {

// Number of open descriptors, or -1 when /proc/self/fd cannot be read.
int openDescriptorCount();

// Number of threads of this process (entries of /proc/self/task), or -1.
int threadCount();

// The kernel's id of the calling thread, for the two below.
pid_t currentThreadId();

// True while thread `tid` of this process sleeps in the kernel (state 'S' in
// /proc/self/task/<tid>/stat): blocked on a lock, a semaphore, a poll or a
// read. A thread that runs, is about to run or has ended is not waiting.
bool threadIsWaiting(pid_t tid);

// How many times thread `tid` of this process has given up the processor to
// wait (voluntary_ctxt_switches in /proc/self/task/<tid>/status): each time
// out of a poll counts one. -1 once the thread has ended.
long threadWaits(pid_t tid);

// Waits (polling, at most `limit`) until openDescriptorCount() == expected.
// Returns the last count seen, which equals `expected` on success.
int waitForDescriptorCount(int expected,
                           std::chrono::milliseconds limit = std::chrono::milliseconds(3000));

}  // namespace ftptest

#endif  // FTPDISK_TESTS_SUPPORT_FDCOUNT_H
