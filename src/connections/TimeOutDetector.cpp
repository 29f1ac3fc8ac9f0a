#include "connections/TimeOutDetector.h"

#include <stdio.h>
#include <string.h>

#include "host/KDLogger.h"
#include "host/KDTime.h"

const char* const kRecordErrorLog = "/mnt/mtd/log/recordError.log";

namespace {

// The record error log keeps at most this many bytes per file and two older
// files beside it: the recorder's flash partition is small.
const int kRecordErrorLogMaxBytes = 51200;
const int kRecordErrorLogKeptFiles = 2;

// Truncates toward zero like a plain conversion, but stays defined for
// values outside the 32-bit range (a clock jump must not be undefined
// behaviour).
int32_t truncateSeconds(double seconds) {
    if (!(seconds == seconds)) return 0;  // NaN
    if (seconds >= 2147483647.0) return 2147483647;
    if (seconds <= -2147483648.0) return static_cast<int32_t>(-2147483647 - 1);
    return static_cast<int32_t>(seconds);
}

}  // namespace

TimeOutDetector::TimeOutDetector(int seconds)
    : timeOutSeconds(seconds), beginTime(KDTime::getUpTime()) {}

void TimeOutDetector::resetBeginTime() { beginTime = KDTime::getUpTime(); }

bool TimeOutDetector::isTimeOut() {
    // Strictly greater: a transfer is given its full limit.
    return KDTime::getUpTime() - beginTime > static_cast<double>(timeOutSeconds);
}

void TimeOutDetector::writeLog(const std::string& where, int totalDataLen, int writtenLen) {
    char message[200];
    memset(message, 0, sizeof message);
    const int32_t elapsed = truncateSeconds(KDTime::getUpTime() - beginTime);
    // The log's readers search for this text as it is, spelling included.
    snprintf(message, sizeof message, "Detect TimeOut[%d], TototalDataLen[%d], WritedLen[%d]",
             static_cast<int>(elapsed), totalDataLen, writtenLen);
    KDLogger::writeLog(kRecordErrorLog, where.c_str(), message, kRecordErrorLogMaxBytes,
                       kRecordErrorLogKeptFiles);
}
