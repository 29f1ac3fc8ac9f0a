// The host logger: the line it writes, the size cap with rotation into kept
// files, and the redirection of absolute log paths into a test folder.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ftpdisk_host/HostControl.h"
#include "host/KDLogger.h"
#include "support/TempDir.h"

namespace {

using ftptest::readWholeFile;
using ftptest::TempDir;

class KDLoggerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir.path().empty());
        hostcontrol::setLogRoot(dir.path());
    }
    void TearDown() override { hostcontrol::setLogRoot(""); }

    std::string redirected(const std::string& absolute) const { return dir.path() + absolute; }

    TempDir dir;
};

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

TEST_F(KDLoggerTest, WritesLocalTimeThenTheWhereTextInBracketsThenTheMessage) {
    KDLogger::writeLog("/mnt/mtd/log/recordError.log", "FTPFileSystemImpl::recvData",
                       "Detect TimeOut[61], TototalDataLen[0], WritedLen[0]", 51200, 2);
    const std::string text = readWholeFile(redirected("/mnt/mtd/log/recordError.log"));
    // 2024-03-01 12:00:05 [FTPFileSystemImpl::recvData] Detect TimeOut[61], ...
    const std::regex line(
        "\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} \\[FTPFileSystemImpl::recvData\\] "
        "Detect TimeOut\\[61\\], TototalDataLen\\[0\\], WritedLen\\[0\\]\n");
    EXPECT_TRUE(std::regex_match(text, line)) << text;
}

TEST_F(KDLoggerTest, AppendsOneLinePerCall) {
    for (int i = 0; i < 3; ++i) {
        KDLogger::writeLog("/var/log/three.log", "where", ("line " + std::to_string(i)).c_str(),
                           51200, 2);
    }
    std::vector<std::string> lines = linesOf(readWholeFile(redirected("/var/log/three.log")));
    ASSERT_EQ(3u, lines.size());
    for (int i = 0; i < 3; ++i) {
        const std::string suffix = "[where] line " + std::to_string(i);
        EXPECT_EQ(suffix, lines[i].substr(lines[i].size() - suffix.size())) << lines[i];
    }
}

TEST_F(KDLoggerTest, NullWhereAndMessageWriteEmptyTextsAndANullFileWritesNothing) {
    KDLogger::writeLog("/log/nulls.log", nullptr, nullptr, 51200, 2);
    const std::string text = readWholeFile(redirected("/log/nulls.log"));
    ASSERT_GE(text.size(), 4u);
    EXPECT_EQ(" [] \n", text.substr(text.size() - 5)) << text;
    KDLogger::writeLog(nullptr, "where", "message", 51200, 2);  // must not crash
}

TEST_F(KDLoggerTest, AbsolutePathsResolveBelowTheRootAndRelativeOnesStayAsTheyAre) {
    EXPECT_EQ(dir.path() + "/mnt/mtd/log/recordError.log",
              hostcontrol::resolveLogPath("/mnt/mtd/log/recordError.log"));
    EXPECT_EQ("relative/file.log", hostcontrol::resolveLogPath("relative/file.log"));
    hostcontrol::setLogRoot("");
    EXPECT_EQ("/mnt/mtd/log/recordError.log",
              hostcontrol::resolveLogPath("/mnt/mtd/log/recordError.log"));
}

// 51200 bytes and 2 kept files, as the transfer watchdog passes them: the
// current file never passes the cap, the two older ones hold the lines before
// it in order, and nothing older is kept.
TEST_F(KDLoggerTest, RotatesAtTheSizeCapKeepingTwoOlderFiles) {
    const std::string file = "/mnt/mtd/log/rotate.log";
    const std::string path = redirected(file);
    const int kLines = 4000;  // about 4.5 caps' worth of lines
    for (int i = 0; i < kLines; ++i) {
        char message[64];
        std::snprintf(message, sizeof message, "message number %06d", i);
        KDLogger::writeLog(file.c_str(), "rotation", message, 51200, 2);
    }
    std::vector<std::string> all;
    for (const std::string& name : {path + ".2", path + ".1", path}) {
        struct stat st;
        ASSERT_EQ(0, ::stat(name.c_str(), &st)) << name;
        EXPECT_LE(st.st_size, 51200) << name;
        if (name != path) {
            EXPECT_GT(st.st_size, 51200 - 100) << name << " was rotated before it was full";
        }
        for (const std::string& line : linesOf(readWholeFile(name))) all.push_back(line);
    }
    EXPECT_FALSE(std::filesystem::exists(path + ".3"));
    // path holds the newest lines; together the three files end at the last
    // line and have no gap.
    ASSERT_FALSE(all.empty());
    const int first = kLines - static_cast<int>(all.size());
    for (size_t k = 0; k < all.size(); ++k) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "[rotation] message number %06d",
                      first + static_cast<int>(k));
        EXPECT_NE(std::string::npos, all[k].find(expected)) << "line " << k << ": " << all[k];
    }
}

TEST_F(KDLoggerTest, KeepingNoOlderFileStartsTheFileAfresh) {
    const std::string file = "/log/nokeep.log";
    const std::string big(60, 'x');
    for (int i = 0; i < 3; ++i) KDLogger::writeLog(file.c_str(), "w", big.c_str(), 150, 0);
    EXPECT_FALSE(std::filesystem::exists(redirected(file) + ".1"));
    EXPECT_EQ(1u, linesOf(readWholeFile(redirected(file))).size());
}

}  // namespace
