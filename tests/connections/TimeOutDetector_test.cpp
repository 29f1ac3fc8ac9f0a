// The transfer watchdog on the hand-driven up-time clock, and the line it
// writes to the record error log (redirected into a test folder).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "connections/TimeOutDetector.h"
#include "ftpdisk_host/HostControl.h"

namespace {

class TimeOutDetectorTest : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/ftpdisk_watchdog_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        logRoot = pattern;
        hostcontrol::setLogRoot(logRoot);
        hostcontrol::useManualClock(5000.0, 1000.0);
    }
    void TearDown() override {
        hostcontrol::useSystemClock();
        hostcontrol::setLogRoot("");
        std::error_code ignored;
        std::filesystem::remove_all(logRoot, ignored);
    }

    std::string recordErrorLog() const {
        std::ifstream in(logRoot + "/mnt/mtd/log/recordError.log", std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    std::string logRoot;
};

TEST_F(TimeOutDetectorTest, TheRecordErrorLogIsTheRecordersFixedFile) {
    EXPECT_STREQ("/mnt/mtd/log/recordError.log", kRecordErrorLog);
}

TEST_F(TimeOutDetectorTest, ALimitOf60IsNotReachedAtExactly60SecondsButJustAfter) {
    TimeOutDetector detector(60);
    EXPECT_FALSE(detector.isTimeOut());
    hostcontrol::advanceClock(60.0);
    EXPECT_FALSE(detector.isTimeOut()) << "at exactly 60.0 s";
    hostcontrol::advanceClock(0.001);
    EXPECT_TRUE(detector.isTimeOut()) << "at 60.001 s";
}

TEST_F(TimeOutDetectorTest, TheWallClockDoesNotCountOnlyTheUpTime) {
    TimeOutDetector detector(60);
    // A wall-clock jump (the recorder setting its time) leaves the watchdog alone.
    hostcontrol::useManualClock(9999999.0, 1000.0);
    EXPECT_FALSE(detector.isTimeOut());
}

TEST_F(TimeOutDetectorTest, ResetBeginTimeStartsTheIntervalAgain) {
    TimeOutDetector detector(60);
    hostcontrol::advanceClock(50.0);
    detector.resetBeginTime();
    hostcontrol::advanceClock(50.0);
    EXPECT_FALSE(detector.isTimeOut()) << "50 s since the reset";
    hostcontrol::advanceClock(10.5);
    EXPECT_TRUE(detector.isTimeOut()) << "60.5 s since the reset";
}

TEST_F(TimeOutDetectorTest, ALimitOfZeroIsPassedAsSoonAsAnyTimeGoesBy) {
    TimeOutDetector detector(0);
    EXPECT_FALSE(detector.isTimeOut());
    hostcontrol::advanceClock(0.5);
    EXPECT_TRUE(detector.isTimeOut());
}

TEST_F(TimeOutDetectorTest, WriteLogAfter61Point9SecondsLogsTheTruncatedSecondsAndBothLengths) {
    TimeOutDetector detector(60);
    hostcontrol::advanceClock(61.9);
    detector.writeLog("FTPFileSystemImpl::recvData", 0, 0);
    const std::string text = recordErrorLog();
    // 2024-03-01 12:00:05 [FTPFileSystemImpl::recvData] Detect TimeOut[61], ...
    const std::regex line(
        "\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} \\[FTPFileSystemImpl::recvData\\] "
        "Detect TimeOut\\[61\\], TototalDataLen\\[0\\], WritedLen\\[0\\]\n");
    EXPECT_TRUE(std::regex_match(text, line)) << text;
}

struct LogCase {
    double elapsed;
    int total;
    int written;
    const char* message;
};

TEST_F(TimeOutDetectorTest, WriteLogTable) {
    const LogCase cases[] = {
        {0.0, 0, 0, "Detect TimeOut[0], TototalDataLen[0], WritedLen[0]"},
        {0.999, 1024, 512, "Detect TimeOut[0], TototalDataLen[1024], WritedLen[512]"},
        {60.5, -1, 2147483647, "Detect TimeOut[60], TototalDataLen[-1], WritedLen[2147483647]"},
        {3600.0, 7, 3, "Detect TimeOut[3600], TototalDataLen[7], WritedLen[3]"},
    };
    for (const LogCase& c : cases) {
        hostcontrol::setLogRoot(logRoot);
        std::filesystem::remove(logRoot + "/mnt/mtd/log/recordError.log");
        TimeOutDetector detector(60);
        hostcontrol::advanceClock(c.elapsed);
        detector.writeLog("where", c.total, c.written);
        const std::string text = recordErrorLog();
        const std::string expected = std::string("[where] ") + c.message + "\n";
        ASSERT_GE(text.size(), expected.size()) << c.message;
        EXPECT_EQ(expected, text.substr(text.size() - expected.size())) << c.message;
    }
}

TEST_F(TimeOutDetectorTest, EachWriteLogAppendsOneLine) {
    TimeOutDetector detector(60);
    detector.writeLog("first", 1, 1);
    detector.writeLog("second", 2, 2);
    const std::string text = recordErrorLog();
    const size_t first = text.find("[first] Detect TimeOut[0], TototalDataLen[1], WritedLen[1]\n");
    const size_t second =
        text.find("[second] Detect TimeOut[0], TototalDataLen[2], WritedLen[2]\n");
    ASSERT_NE(std::string::npos, first) << text;
    ASSERT_NE(std::string::npos, second) << text;
    EXPECT_LT(first, second);
}

}  // namespace
