// A scripted server and one FTPTool connected to it, for the protocol tests
// of the FTP client. The tool is declared after the server, so it is
// destroyed first (its "QUIT" reaches a live server).
#ifndef FTPDISK_TESTS_FTP_FTPTESTFIXTURE_H
#define FTPDISK_TESTS_FTP_FTPTESTFIXTURE_H

#include <fcntl.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ftp/FTPTool.h"
#include "support/FdCount.h"
#include "support/ScriptedFtpServer.h"

using ftptest::Millis;
using ftptest::Reply;
using Lines = std::vector<std::string>;

class FtpToolTest : public ::testing::Test {
protected:
    // Connects and logs in as rec/pw; the server has then received
    // {"USER rec", "PASS pw"}.
    void connectAndLogin() {
        ASSERT_EQ(tool.connect(server.address().c_str()), 1) << tool.getResponse();
        ASSERT_EQ(tool.login("rec", "pw"), 1) << tool.getResponse();
    }

    // Makes the readiness wait of the control connection (and of data
    // connections opened afterwards) short, so time-out tests stay fast.
    void shortenWait(int milliseconds) {
        tool.getControlBuf()->idleTime.seconds = milliseconds / 1000;
        tool.getControlBuf()->idleTime.microseconds = (milliseconds % 1000) * 1000;
    }

    // The lines received after the login.
    Lines afterLogin() const {
        Lines all = server.commands();
        EXPECT_GE(all.size(), 2u);
        EXPECT_EQ(all[0], "USER rec");
        EXPECT_EQ(all[1], "PASS pw");
        return Lines(all.begin() + (all.size() >= 2 ? 2 : 0), all.end());
    }

    static bool isOpen(int fd) { return fd >= 0 && fcntl(fd, F_GETFD) != -1; }

    ftptest::ScriptedFtpServer server;
    FTPTool tool;
};

#endif  // FTPDISK_TESTS_FTP_FTPTESTFIXTURE_H
