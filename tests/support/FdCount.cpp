#include "support/FdCount.h"

#include <dirent.h>

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
