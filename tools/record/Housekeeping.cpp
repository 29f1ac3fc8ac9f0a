#include "Housekeeping.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "ToolCommon.h"
#include "filesystem/FTPFileSystem.h"

namespace ftpdisk_tool {

Housekeeping::Housekeeping(FTPFileSystem* store, const RecordSchedule& schedule, std::string base,
                           const std::tm& startDay, double start, FailedCalls& failures)
    : store_(store),
      schedule_(schedule),
      base_(std::move(base)),
      startDay_(startDay),
      start_(start),
      failures_(failures) {}

Housekeeping::~Housekeeping() { stop(); }

void Housekeeping::start() { thread_ = std::thread(&Housekeeping::run, this); }

void Housekeeping::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::string Housekeeping::summary() const {
    return std::to_string(passes_) + (passes_ == 1 ? " pass" : " passes") +
           " (listing and size of the base), " + std::to_string(daysRemoved_) +
           (daysRemoved_ == 1 ? " day" : " days") + " removed, " + std::to_string(failedCalls_) +
           " failed";
}

void Housekeeping::run() {
    for (long long n = 1;; ++n) {
        // Passes keep to their own timetable, however long one takes.
        const double due = start_ + static_cast<double>(n) * schedule_.passSeconds;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            const double wait = due - monotonicSeconds();
            if (wait > 0) {
                wake_.wait_for(lock, std::chrono::duration<double>(wait),
                               [this] { return stopping_; });
            }
            if (stopping_) {
                return;
            }
        }
        pass(monotonicSeconds() - start_);
    }
}

void Housekeeping::pass(double elapsed) {
    ++passes_;
    const std::string base = base_.empty() ? "/" : base_;
    std::vector<std::string> days;
    const bool listed = store_->getSubDirList(base.c_str(), days, "") == 1;
    if (!listed) {
        failed("list", base, elapsed);
    }
    long long total = 0;
    if (store_->getTotalSize(base.c_str(), total) != 1) {
        failed("size", base, elapsed);
    }
    // Removals go by the listing, as a recorder's do: a day in which every
    // camera paused was never made, and a failed listing removes nothing
    // until the next pass.
    if (!listed) {
        return;
    }
    const long long last = schedule_.lastDayToRemove(elapsed);
    for (; nextDayToRemove_ <= last; ++nextDayToRemove_) {
        const std::string name = dayName(startDay_, nextDayToRemove_);
        if (std::find(days.begin(), days.end(), name) == days.end()) {
            continue;
        }
        const std::string day = base_ + "/" + name;
        if (store_->removeDir(day.c_str()) == 0) {
            ++daysRemoved_;
        } else {
            failed("rmdir", day, elapsed);
        }
    }
}

void Housekeeping::failed(const char* operation, const std::string& path, double elapsed) {
    ++failedCalls_;
    failures_.add(0, operation, path, elapsed);
}

}  // namespace ftpdisk_tool
