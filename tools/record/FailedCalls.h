// The failed store calls of a record run, each with why it failed as far as
// the command can tell. The store only says that a call failed; after a
// failure a helper thread logs in to the server on a connection of its own
// (LoginProbe.h) and takes what it learns as the reason of every failure
// since its last look, e.g.
//
//   cam14 open at 0.10 s /video/2026-11-22/cam14/00001_120000.dat:
//       127.0.0.1:2121 refused the session: 421 Too many connections (50) from this IP
//
// Cameras never wait for that login: add() only notes the call. At most one
// such login is under way at a time, and logins start at least
// `probeSpacing` seconds apart, so a run that fails often does not storm the
// server. Memory stays bounded however long the run: the first kShownCalls
// failures are kept whole, the rest only counted by operation and reason.
//
// add() may be called from any thread; finish() and the readers from the
// thread that made the object, after the cameras are done.
#ifndef FTPDISK_TOOLS_FAILEDCALLS_H
#define FTPDISK_TOOLS_FAILEDCALLS_H

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LoginProbe.h"

namespace ftpdisk_tool {

struct FailedCall {
    int camera = 0;         // 1, 2, ...
    std::string operation;  // "mkdir", "open", "write", "aioReturn", "aioWrite", "close"
    std::string path;       // the remote directory or file
    double at = 0;          // seconds into the run
    std::string why;        // "" until explained
};

class FailedCalls {
public:
    static constexpr std::size_t kShownCalls = 10;
    // Reasons counted one by one; further distinct ones are counted together.
    static constexpr std::size_t kMaxReasons = 20;

    // `probe` logs in to the server and says how far it got (probeLogin in
    // the command; a stand-in in tests). It runs on the helper thread.
    FailedCalls(std::function<LoginProbe()> probe, double probeSpacing);
    // Ends the helper thread without waiting for explanations still owed.
    ~FailedCalls();
    FailedCalls(const FailedCalls&) = delete;
    FailedCalls& operator=(const FailedCalls&) = delete;

    // Notes one failed call; returns at once.
    void add(int camera, const std::string& operation, const std::string& path, double at);

    // Waits until every call noted so far is explained (one more login at
    // most, `probeSpacing` seconds after the previous one), then ends the
    // helper thread. Later add() calls are counted but stay unexplained.
    void finish();

    long long count() const;
    // "open: <why>" with its count, the most frequent first (ties in order of
    // first appearance).
    std::vector<std::pair<std::string, long long>> byReason() const;
    // The first kShownCalls failures, in the order they were noted.
    std::vector<FailedCall> firstCalls() const;
    // The first login of the tool's own that the server turned away (see
    // LoginProbe::turnedAway); false when none was.
    bool turnedAway(LoginProbe& probe) const;

private:
    void helper();
    // REQUIRES: mutex_ is held.
    void countReason(const std::string& reason, long long calls);

    const std::function<LoginProbe()> probe_;
    const double probeSpacing_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    long long count_ = 0;
    std::vector<FailedCall> shown_;
    std::size_t shownExplained_ = 0;            // shown_[0, shownExplained_) have their why
    std::map<std::string, long long> waiting_;  // unexplained calls by operation
    std::vector<std::pair<std::string, long long>> reasons_;  // in order of first appearance
    bool haveTurnedAway_ = false;
    LoginProbe turnedAway_;
    bool probing_ = false;
    bool stopping_ = false;
    bool finishing_ = false;

    std::thread thread_;
};

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_FAILEDCALLS_H
