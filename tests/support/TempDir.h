// TempDir: a fresh folder below /tmp for one test, removed with everything in
// it when the test ends; and reading a local file whole.
#ifndef FTPDISK_TESTS_SUPPORT_TEMPDIR_H
#define FTPDISK_TESTS_SUPPORT_TEMPDIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace ftptest {

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/ftpdisk-test-XXXXXX";
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // The path of `name` inside the folder.
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// The whole content of a file, "" when it cannot be read.
inline std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace ftptest

#endif  // FTPDISK_TESTS_SUPPORT_TEMPDIR_H
