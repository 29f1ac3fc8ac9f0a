// FdCount: how many descriptors this process has open, for leak tests.
//
// Counts the entries of /proc/self/fd (the descriptor used for the listing
// itself is not counted). Descriptors of every thread count, so tests that run
// an in-process server compare counts only once that server is quiet.
#ifndef FTPDISK_TESTS_SUPPORT_FDCOUNT_H
#define FTPDISK_TESTS_SUPPORT_FDCOUNT_H

#include <chrono>

namespace ftptest {

// Number of open descriptors, or -1 when /proc/self/fd cannot be read.
int openDescriptorCount();

// Number of threads of this process (entries of /proc/self/task), or -1.
int threadCount();

// Waits (polling, at most `limit`) until openDescriptorCount() == expected.
// Returns the last count seen, which equals `expected` on success.
int waitForDescriptorCount(int expected,
                           std::chrono::milliseconds limit = std::chrono::milliseconds(3000));

}  // namespace ftptest

#endif  // FTPDISK_TESTS_SUPPORT_FDCOUNT_H
