// The failed store calls of a record run, each with why it failed: the
// module's last error of the thread that met it, taken when the call is noted
// (FailureText.h), e.g.
//
//   cam14 open at 0.10 s /video/2026-11-22/cam14/00001_120000.dat:
//       127.0.0.1:2121 refused the session: 421 Too many connections (50) from this IP
//
// Memory stays bounded however long the run: the first kShownCalls failures
// are kept whole, the rest only counted by operation and reason.
//
// add() may be called from any thread, the readers from any thread too.
#ifndef FTPDISK_TOOLS_FAILEDCALLS_H
#define FTPDISK_TOOLS_FAILEDCALLS_H

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "FailureText.h"

namespace ftpdisk_tool {

struct FailedCall {
    int camera = 0;         // 1, 2, ... (0: the housekeeping)
    std::string operation;  // "mkdir", "open", "write", "aioReturn", "aioWrite", "close", ...
    std::string path;       // the remote directory or file
    double at = 0;          // seconds into the run
    std::string why;        // what the call met
};

class FailedCalls {
public:
    static constexpr std::size_t kShownCalls = 10;
    // Reasons counted one by one; further distinct ones are counted together.
    static constexpr std::size_t kMaxReasons = 20;

    // `explain` says why the call the calling thread has just made failed (in
    // the command: its last error, through describeFailure; a stand-in in
    // tests). add() calls it on the thread that noted the failure.
    explicit FailedCalls(std::function<FailureReason()> explain);

    // Notes one failed call, made by this thread just before, with its reason.
    void add(int camera, const std::string& operation, const std::string& path, double at);

    long long count() const;
    // "open: <why>" with its count, the most frequent first (ties in order of
    // first appearance).
    std::vector<std::pair<std::string, long long>> byReason() const;
    // The first kShownCalls failures, in the order they were noted.
    std::vector<FailedCall> firstCalls() const;
    // The server's words the first time it turned a session or a login away
    // (see FailureReason::turnedAway); false when it never did.
    bool turnedAway(std::string& reply) const;

private:
    // REQUIRES: mutex_ is held.
    void countReason(const std::string& reason);

    const std::function<FailureReason()> explain_;

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    long long count_ = 0;
    std::vector<FailedCall> shown_;
    std::vector<std::pair<std::string, long long>> reasons_;  // in order of first appearance
    bool haveTurnedAway_ = false;
    std::string turnedAwayReply_;
};

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_FAILEDCALLS_H
