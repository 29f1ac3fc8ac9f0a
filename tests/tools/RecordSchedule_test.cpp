// record's schedule: day directories, removals, housekeeping and pauses as
// arithmetic on seconds into the run.
#include <gtest/gtest.h>

#include <ctime>

#include "RecordSchedule.h"

using namespace ftpdisk_tool;

namespace {

std::tm localDate(int year, int month, int day, int hour) {
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    date.tm_hour = hour;
    date.tm_isdst = -1;
    return date;
}

TEST(RecordSchedule, DaysRollEveryDaySecondsFromTheStart) {
    RecordSchedule schedule;
    schedule.segmentSeconds = 4;
    EXPECT_EQ(0, schedule.dayAt(0));
    EXPECT_EQ(0, schedule.dayAt(1e6)) << "without --day-seconds every segment is in day 0";
    schedule.daySeconds = 30;
    EXPECT_EQ(0, schedule.dayAt(0));
    EXPECT_EQ(0, schedule.dayAt(29.9));
    EXPECT_EQ(1, schedule.dayAt(30));
    EXPECT_EQ(3, schedule.dayAt(119));
    EXPECT_EQ(120, schedule.dayAt(3600));
}

TEST(RecordSchedule, ADayIsRemovedOnceOlderThanTheKeptOnesAndOneSegmentOver) {
    RecordSchedule schedule;
    schedule.segmentSeconds = 4;
    schedule.daySeconds = 30;
    EXPECT_EQ(-1, schedule.lastDayToRemove(1000)) << "nothing without --keep-days";
    schedule.keepDays = 2;
    // Day 0 is 0-30 s; days 1 and 2 are the two most recent from 60 s on; a
    // segment opened at 59.9 s is written until 63.9 s.
    EXPECT_EQ(-1, schedule.lastDayToRemove(0));
    EXPECT_EQ(-1, schedule.lastDayToRemove(63.9));
    EXPECT_EQ(0, schedule.lastDayToRemove(64));
    EXPECT_EQ(0, schedule.lastDayToRemove(93.9));
    EXPECT_EQ(1, schedule.lastDayToRemove(94));
    schedule.keepDays = 1;
    EXPECT_EQ(-1, schedule.lastDayToRemove(33.9));
    EXPECT_EQ(0, schedule.lastDayToRemove(34)) << "only the current day is kept";
}

TEST(RecordSchedule, PausesComeInWholeSegmentsAfterEachRecordingStretch) {
    RecordSchedule schedule;
    EXPECT_FALSE(schedule.pausedSegment(5)) << "no pauses by default";
    // --segment 4 --pause-every 64 --pause-for 40: 16 segments, then 10.
    schedule.recordSegments = wholeSegments(64, 4);
    schedule.pauseSegments = wholeSegments(40, 4);
    EXPECT_EQ(16, schedule.recordSegments);
    EXPECT_EQ(10, schedule.pauseSegments);
    for (long long segment = 0; segment < 16; ++segment) {
        EXPECT_FALSE(schedule.pausedSegment(segment)) << segment;
    }
    for (long long segment = 16; segment < 26; ++segment) {
        EXPECT_TRUE(schedule.pausedSegment(segment)) << segment;
    }
    EXPECT_FALSE(schedule.pausedSegment(26));
    EXPECT_TRUE(schedule.pausedSegment(26 + 16));
}

TEST(RecordSchedule, WholeSegmentsRoundUpAndAreNeverNone) {
    EXPECT_EQ(13, wholeSegments(52, 4));
    EXPECT_EQ(14, wholeSegments(52.5, 4));
    EXPECT_EQ(1, wholeSegments(0.1, 4));
    EXPECT_EQ(3, wholeSegments(0.3, 0.1)) << "0.3 / 0.1 is a hair above 3 in doubles";
}

TEST(RecordSchedule, DayNamesAreTheDatesAfterTheStart) {
    const std::tm start = localDate(2026, 11, 24, 23);
    EXPECT_EQ("2026-11-24", dayName(start, 0));
    EXPECT_EQ("2026-11-25", dayName(start, 1));
    EXPECT_EQ("2026-12-01", dayName(start, 7));
    EXPECT_EQ("2027-01-01", dayName(start, 38));
    EXPECT_EQ("2028-02-29", dayName(localDate(2028, 2, 28, 0), 1));
    EXPECT_EQ("2027-03-29", dayName(localDate(2027, 3, 27, 1), 2)) << "across a change of time";
}

}  // namespace
