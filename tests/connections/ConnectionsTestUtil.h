// Helpers shared by the connections tests: logged-in connections to the
// scripted server, bounded polling, the hand-driven monitor pause, and the
// threads of this process by name.
#ifndef FTPDISK_TESTS_CONNECTIONS_CONNECTIONSTESTUTIL_H
#define FTPDISK_TESTS_CONNECTIONS_CONNECTIONSTESTUTIL_H

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/SafePointer.h"
#include "ftp/FTPTool.h"
#include "ftpdisk_host/HostControl.h"
#include "support/ScriptedFtpServer.h"
#include "support/TestHelpers.h"

namespace conntest {

using ftptest::eventually;
using ftptest::joined;

// True once `count` threads are pausing in KadmorTime::wait.
inline bool waitForPausingThreads(int count) {
    return eventually([count] { return hostcontrol::waitingThreads() == count; });
}

// A connection to the scripted server that has logged in as rec/pw.
inline SafePointer<FTPTool> loggedInTool(const ftptest::ScriptedFtpServer& server) {
    SafePointer<FTPTool> tool(new FTPTool);
    EXPECT_EQ(1, tool->connect(server.address().c_str()));
    EXPECT_EQ(1, tool->login("rec", "pw"));
    return tool;
}

inline bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// How many threads of this process the kernel shows under `name`.
inline int threadsNamed(const std::string& name) {
    int found = 0;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return -1;
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string shown;
        if (std::getline(comm, shown) && shown == name) ++found;
    }
    closedir(tasks);
    return found;
}

// The first 15 characters of "detectStateThread", as Linux shows the name.
inline const char* monitorThreadName() { return "detectStateThre"; }

}  // namespace conntest

#endif  // FTPDISK_TESTS_CONNECTIONS_CONNECTIONSTESTUTIL_H
