// What record does besides writing, as a recorder does: every few seconds a
// pass lists the base (its day directories) and adds up the size of
// everything below it, then removes the run's day directories that are past
// keeping (RecordSchedule) and that the listing shows. It runs on a thread of its own and uses the
// store's own connection, as the recorder's space accounting does, so camera
// threads that make a new day's directory meanwhile wait for it.
//
// Failed calls go to the run's book as camera 0: "list" and "size" of the
// base, "rmdir" of a day.
#ifndef FTPDISK_TOOLS_HOUSEKEEPING_H
#define FTPDISK_TOOLS_HOUSEKEEPING_H

#include <condition_variable>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>

#include "FailedCalls.h"
#include "RecordSchedule.h"

class FTPFileSystem;

namespace ftpdisk_tool {

class Housekeeping {
public:
    // `base` is the directory holding the day directories; `startDay` the
    // local time the run started (day 0); `start` its monotonicSeconds().
    Housekeeping(FTPFileSystem* store, const RecordSchedule& schedule, std::string base,
                 const std::tm& startDay, double start, FailedCalls& failures);
    // Stops the thread when the owner did not.
    ~Housekeeping();
    Housekeeping(const Housekeeping&) = delete;
    Housekeeping& operator=(const Housekeeping&) = delete;

    // The first pass comes one period after the start.
    void start();
    // Ends the thread after the pass under way, if any; no new pass starts.
    void stop();

    // "12 passes (listing and size of the base), 5 days removed, 0 failed";
    // call after stop().
    std::string summary() const;
    long long failedCalls() const { return failedCalls_; }

private:
    void run();
    void pass(double elapsed);
    void failed(const char* operation, const std::string& path, double elapsed);

    FTPFileSystem* const store_;
    const RecordSchedule schedule_;
    const std::string base_;
    const std::tm startDay_;
    const double start_;
    FailedCalls& failures_;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;  // guarded by mutex_
    std::thread thread_;

    // Touched by the thread only, read after stop().
    long long passes_ = 0;
    long long nextDayToRemove_ = 0;
    long long daysRemoved_ = 0;
    long long failedCalls_ = 0;
};

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_HOUSEKEEPING_H
