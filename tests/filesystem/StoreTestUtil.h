// Helpers shared by the store's tests: listing lines as servers write them,
// deterministic test bytes, local temporary folders and files, and the
// commands a scripted server received after a mark.
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

namespace storetest {

// One Unix-style listing line, as a Linux daemon writes it:
// "-rw-r--r--    1 rec      rec          1234 Nov 22 04:13 a.dat".
inline std::string unixLine(char type, const std::string& size, const std::string& name) {
    const std::string perms = type == 'd' ? "drwxr-xr-x" : (type == 'l' ? "lrwxrwxrwx" : "-rw-r--r--");
    return perms + "    1 rec      rec      " + size + " Nov 22 04:13 " + name + "\r\n";
}

// Bytes that differ at every position and between seeds (xorshift), so a
// shifted, dropped or repeated piece never compares equal.
inline std::string patternBytes(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    uint32_t x = seed * 2654435761u + 1u;
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = static_cast<char>(x & 0xFF);
    }
    return bytes;
}

// A temporary local folder, removed with everything in it.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/ftpdisk-store-XXXXXX";
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        if (!path_.empty()) {
            const std::string command = "rm -rf '" + path_ + "'";
            if (system(command.c_str()) != 0) {
                // Nothing more to do in a destructor; the folder is in /tmp.
            }
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

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

// The elements of `all` from index `from` on.
inline std::vector<std::string> tail(const std::vector<std::string>& all, size_t from) {
    if (from >= all.size()) {
        return std::vector<std::string>();
    }
    return std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(from), all.end());
}

// Joins lines for failure messages.
inline std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += "  [" + line + "]\n";
    }
    return text;
}

}  // namespace storetest

#endif  // FTPDISK_TESTS_FILESYSTEM_STORETESTUTIL_H
