// FTPDISK_LOG_ROOT redirects the logger from the first log call on. The
// variable is read once per process, so this test lives in its own executable
// and sets it before anything logs.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "ftpdisk_host/HostControl.h"
#include "host/KDLogger.h"
#include "support/TempDir.h"

namespace {

using ftptest::readWholeFile;
using ftptest::TempDir;

TEST(LogRootEnvironment, AbsoluteLogPathsLandBelowTheFolderNamedByTheVariable) {
    TempDir dir;
    ASSERT_EQ(0, setenv("FTPDISK_LOG_ROOT", dir.path().c_str(), 1));
    KDLogger::writeLog("/mnt/mtd/log/recordError.log", "where", "from the environment", 51200, 2);
    const std::string text = readWholeFile(dir.path() + "/mnt/mtd/log/recordError.log");
    EXPECT_NE(std::string::npos, text.find("[where] from the environment\n")) << text;
    EXPECT_EQ(dir.path() + "/x.log", hostcontrol::resolveLogPath("/x.log"));
    // setLogRoot overrides the variable.
    hostcontrol::setLogRoot("");
    EXPECT_EQ("/x.log", hostcontrol::resolveLogPath("/x.log"));
    unsetenv("FTPDISK_LOG_ROOT");
}

}  // namespace
