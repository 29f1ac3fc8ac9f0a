#include "RecordSchedule.h"

#include <cmath>
#include <cstdio>

namespace ftpdisk_tool {

long long RecordSchedule::dayAt(double seconds) const {
    if (daySeconds <= 0 || seconds <= 0) {
        return 0;
    }
    return static_cast<long long>(std::floor(seconds / daySeconds));
}

long long RecordSchedule::lastDayToRemove(double seconds) const {
    if (keepDays <= 0 || daySeconds <= 0) {
        return -1;
    }
    // A segment opened just before its day ended goes on being written for
    // up to one segment after: the day is removed only once that is over.
    const double settled = seconds - segmentSeconds;
    if (settled < 0) {
        return -1;
    }
    return static_cast<long long>(std::floor(settled / daySeconds)) - keepDays;
}

bool RecordSchedule::pausedSegment(long long segment) const {
    if (recordSegments <= 0 || pauseSegments <= 0 || segment < 0) {
        return false;
    }
    return segment % (recordSegments + pauseSegments) >= recordSegments;
}

long long wholeSegments(double seconds, double segmentSeconds) {
    // A hair of tolerance, so that 52 s of 4 s segments is 13, not 14, after
    // rounding in the division.
    const long long n = static_cast<long long>(std::ceil(seconds / segmentSeconds - 1e-9));
    return n < 1 ? 1 : n;
}

std::string dayName(const std::tm& start, long long day) {
    std::tm date = start;
    // Noon, so that a change to or from summer time never moves the date.
    date.tm_hour = 12;
    date.tm_min = 0;
    date.tm_sec = 0;
    date.tm_isdst = -1;
    date.tm_mday += static_cast<int>(day);
    std::mktime(&date);
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", date.tm_year + 1900, date.tm_mon + 1,
                  date.tm_mday);
    return text;
}

}  // namespace ftpdisk_tool
