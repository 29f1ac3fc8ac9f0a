#include "support/FdCount.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace ftptest {

namespace {

// Entries of a /proc folder, without "." and "..".
int entriesOf(const char* folder) {
    DIR* dir = ::opendir(folder);
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    ::closedir(dir);
    return count;
}

}  // namespace

int openDescriptorCount() {
    const int count = entriesOf("/proc/self/fd");
    // The directory stream itself held one descriptor while it was listed.
    return count < 0 ? -1 : count - 1;
}

int threadCount() { return entriesOf("/proc/self/task"); }

pid_t currentThreadId() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

bool threadIsWaiting(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    // "<tid> (<name>) <state> ...": the name may hold blanks and brackets, so
    // the state is read after the last ')'.
    const std::string::size_type close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S';
}

long threadWaits(pid_t tid) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    const std::string key = "voluntary_ctxt_switches:";
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, key.size(), key) == 0) return std::stol(line.substr(key.size()));
    }
    return -1;
}

int waitForDescriptorCount(int expected, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    int count = openDescriptorCount();
    while (count != expected && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        count = openDescriptorCount();
    }
    return count;
}

}  // namespace ftptest
