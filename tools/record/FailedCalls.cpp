#include "FailedCalls.h"

#include <algorithm>
#include <chrono>

namespace ftpdisk_tool {

namespace {

using Clock = std::chrono::steady_clock;

const char kOtherReasons[] = "other reasons";

}  // namespace

FailedCalls::FailedCalls(std::function<LoginProbe()> probe, double probeSpacing)
    : probe_(std::move(probe)), probeSpacing_(probeSpacing) {
    thread_ = std::thread(&FailedCalls::helper, this);
}

FailedCalls::~FailedCalls() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void FailedCalls::add(int camera, const std::string& operation, const std::string& path,
                      double at) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
        if (shown_.size() < kShownCalls) {
            FailedCall call;
            call.camera = camera;
            call.operation = operation;
            call.path = path;
            call.at = at;
            shown_.push_back(call);
        }
        ++waiting_[operation];
    }
    changed_.notify_all();
}

void FailedCalls::finish() {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        finishing_ = true;
        changed_.wait(lock, [this] { return stopping_ || (waiting_.empty() && !probing_); });
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void FailedCalls::helper() {
    Clock::time_point nextProbe = Clock::now();
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        if (waiting_.empty()) {
            changed_.wait(lock);
            continue;
        }
        if (Clock::now() < nextProbe) {
            changed_.wait_until(lock, nextProbe);
            continue;
        }
        // Everything noted up to now gets the answer of this one login.
        std::map<std::string, long long> batch;
        batch.swap(waiting_);
        const std::size_t shownTaken = shown_.size();
        probing_ = true;
        lock.unlock();
        const LoginProbe result = probe_();
        lock.lock();
        probing_ = false;
        nextProbe = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(probeSpacing_));
        const std::string why = result.outcome == LoginProbe::kLoggedIn
                                    ? "no reason given; " + result.text
                                    : result.text;
        for (const auto& calls : batch) {
            countReason(calls.first + ": " + why, calls.second);
        }
        for (std::size_t i = shownExplained_; i < shownTaken; ++i) {
            shown_[i].why = why;
        }
        shownExplained_ = shownTaken;
        if (result.turnedAway() && !haveTurnedAway_) {
            haveTurnedAway_ = true;
            turnedAway_ = result;
        }
        changed_.notify_all();
    }
}

void FailedCalls::countReason(const std::string& reason, long long calls) {
    for (auto& known : reasons_) {
        if (known.first == reason) {
            known.second += calls;
            return;
        }
    }
    if (reasons_.size() < kMaxReasons) {
        reasons_.emplace_back(reason, calls);
        return;
    }
    if (reasons_.size() == kMaxReasons) {
        reasons_.emplace_back(kOtherReasons, 0);
    }
    reasons_.back().second += calls;
}

long long FailedCalls::count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

std::vector<std::pair<std::string, long long>> FailedCalls::byReason() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::pair<std::string, long long>> all = reasons_;
    for (const auto& calls : waiting_) {
        all.emplace_back(calls.first + ": not explained", calls.second);
    }
    std::stable_sort(
        all.begin(), all.end(),
        [](const std::pair<std::string, long long>& a, const std::pair<std::string, long long>& b) {
            return a.second > b.second;
        });
    return all;
}

std::vector<FailedCall> FailedCalls::firstCalls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return shown_;
}

bool FailedCalls::turnedAway(LoginProbe& probe) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (haveTurnedAway_) {
        probe = turnedAway_;
    }
    return haveTurnedAway_;
}

}  // namespace ftpdisk_tool
