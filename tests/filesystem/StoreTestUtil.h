// Helpers of the store's tests: listing lines as servers write them, local
// files, and the commands a scripted server received after a mark. The
// shared ones (TempDir, joined, patternBytes) come from tests/support.
#ifndef FTPDISK_TESTS_FILESYSTEM_STORETESTUTIL_H
#define FTPDISK_TESTS_FILESYSTEM_STORETESTUTIL_H

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "support/TestHelpers.h"

namespace storetest {

using ftptest::joined;
using ftptest::patternBytes;
using ftptest::tail;
using ftptest::TempDir;

// One Unix-style listing line, as a Linux daemon writes it:
// "-rw-r--r--    1 rec      rec          1234 Nov 22 04:13 a.dat".
inline std::string unixLine(char type, const std::string& size, const std::string& name) {
    const std::string perms =
        type == 'd' ? "drwxr-xr-x" : (type == 'l' ? "lrwxrwxrwx" : "-rw-r--r--");
    return perms + "    1 rec      rec      " + size + " Nov 22 04:13 " + name + "\r\n";
}

inline bool writeLocalFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

inline bool readLocalFile(const std::string& path, std::string* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream all;
    all << in.rdbuf();
    *bytes = all.str();
    return true;
}

inline bool localFileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The read calls (read, readv, pread) the kernel has counted for the calling
// thread: "syscr" of /proc/thread-self/io. Calls on sockets through recv and
// send are not among them. False where the file cannot be read.
inline bool threadReadCalls(long long* calls) {
    std::ifstream in("/proc/thread-self/io");
    std::string name;
    long long value = 0;
    while (in >> name >> value) {
        if (name == "syscr:") {
            *calls = value;
            return true;
        }
    }
    return false;
}

}  // namespace storetest

#endif  // FTPDISK_TESTS_FILESYSTEM_STORETESTUTIL_H
