#include "FailedCalls.h"

#include <algorithm>

namespace ftpdisk_tool {

namespace {

const char kOtherReasons[] = "other reasons";

}  // namespace

FailedCalls::FailedCalls(std::function<FailureReason()> explain) : explain_(std::move(explain)) {}

void FailedCalls::add(int camera, const std::string& operation, const std::string& path,
                      double at) {
    const FailureReason why = explain_();
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    if (shown_.size() < kShownCalls) {
        FailedCall call;
        call.camera = camera;
        call.operation = operation;
        call.path = path;
        call.at = at;
        call.why = why.text;
        shown_.push_back(call);
    }
    countReason(operation + ": " + why.text);
    if (why.turnedAway && !haveTurnedAway_) {
        haveTurnedAway_ = true;
        turnedAwayReply_ = why.reply;
    }
}

void FailedCalls::countReason(const std::string& reason) {
    for (auto& known : reasons_) {
        if (known.first == reason) {
            ++known.second;
            return;
        }
    }
    if (reasons_.size() < kMaxReasons) {
        reasons_.emplace_back(reason, 1);
        return;
    }
    if (reasons_.size() == kMaxReasons) {
        reasons_.emplace_back(kOtherReasons, 0);
    }
    ++reasons_.back().second;
}

long long FailedCalls::count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

std::vector<std::pair<std::string, long long>> FailedCalls::byReason() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::pair<std::string, long long>> all = reasons_;
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

bool FailedCalls::turnedAway(std::string& reply) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (haveTurnedAway_) {
        reply = turnedAwayReply_;
    }
    return haveTurnedAway_;
}

}  // namespace ftpdisk_tool
