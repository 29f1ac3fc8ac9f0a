#include "support/FdCount.h"

#include <dirent.h>

#include <thread>

namespace ftptest {

int openDescriptorCount() {
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    ::closedir(dir);
    // The directory stream itself held one descriptor while it was listed.
    return count - 1;
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
