// The parts of a record run that follow its clock besides writing: day
// directories that roll over, pauses of every camera, and which days the
// run's housekeeping removes. Pure arithmetic on seconds into the run, so
// that tests can check it without a server.
//
// A recorder files its segments under one directory per day, deletes the
// oldest days to make room, lists and measures its recordings now and then,
// and stops writing when a schedule or the lack of motion says so. A day of
// `daySeconds` lets a short run go through many of them.
#ifndef FTPDISK_TOOLS_RECORDSCHEDULE_H
#define FTPDISK_TOOLS_RECORDSCHEDULE_H

#include <ctime>
#include <string>

namespace ftpdisk_tool {

struct RecordSchedule {
    double segmentSeconds = 60;
    // 0: every segment goes into the day the run started on.
    double daySeconds = 0;
    // 0: no day is removed. Otherwise the run removes each of its own day
    // directories once it is older than the `keepDays` most recent ones (the
    // current day counts) and one segment has passed since it ended, so that
    // no camera still writes into it.
    int keepDays = 0;
    // Seconds between two housekeeping passes (listing of the base and its
    // total size, then removals); 0: none.
    double passSeconds = 0;
    // Every `recordSegments` segments of recording, every camera pauses for
    // `pauseSegments` segments with no file open; 0: no pauses.
    long long recordSegments = 0;
    long long pauseSegments = 0;

    // The day a segment that starts `seconds` into the run belongs to: 0, 1, ...
    long long dayAt(double seconds) const;
    // The highest day index to remove `seconds` into the run; -1 for none.
    long long lastDayToRemove(double seconds) const;
    // Whether the cameras sit out the segment slot `segment` (0, 1, ...).
    bool pausedSegment(long long segment) const;
};

// Whole segments that cover `seconds`: at least 1.
long long wholeSegments(double seconds, double segmentSeconds);

// "YYYY-MM-DD" of the date `day` days after the date of `start` (local time).
std::string dayName(const std::tm& start, long long day);

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_RECORDSCHEDULE_H
