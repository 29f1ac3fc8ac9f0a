// TimeOutDetector: a stopwatch on the host's up-time clock with a limit in
// whole seconds, and the writer of the record error log line for a stalled
// transfer. Used by one thread at a time.
#ifndef FTPDISK_CONNECTIONS_TIMEOUTDETECTOR_H
#define FTPDISK_CONNECTIONS_TIMEOUTDETECTOR_H

#include <stdint.h>

#include <string>

// The recorder's fixed record error log.
extern const char* const kRecordErrorLog;

class TimeOutDetector {
public:
    explicit TimeOutDetector(int seconds);

    void resetBeginTime();
    // True when more than the limit has passed since the begin time.
    bool isTimeOut();
    // "Detect TimeOut[<elapsed>], TototalDataLen[<total>], WritedLen[<written>]"
    // to the record error log through the host logger.
    void writeLog(const std::string& where, int totalDataLen, int writtenLen);

private:
    int32_t timeOutSeconds;
    double beginTime;
    std::string note;  // kept empty
};

#endif  // FTPDISK_CONNECTIONS_TIMEOUTDETECTOR_H
