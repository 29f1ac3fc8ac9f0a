#include "LocalReplacement.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>

#include "ToolFormat.h"

namespace ftpdisk_tool {

namespace {

// Room for the longest name most file systems take (255 bytes) once the
// leading "." and the ".ftpdisk-XXXXXX" suffix are added.
constexpr std::size_t kMaxNameKept = 200;
constexpr int kNameTries = 100;

std::string randomSuffix(std::mt19937_64& random) {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof kLetters) - 2);
    std::string suffix;
    for (int i = 0; i < 6; ++i) {
        suffix += kLetters[pick(random)];
    }
    return suffix;
}

}  // namespace

bool LocalReplacement::create(std::string& problem) {
    abandon();
    const std::string::size_type slash = target_.rfind('/');
    const std::string dir =
        slash == std::string::npos ? std::string() : target_.substr(0, slash + 1);
    const std::string name =
        (slash == std::string::npos ? target_ : target_.substr(slash + 1)).substr(0, kMaxNameKept);
    std::random_device seed;
    std::mt19937_64 random((static_cast<unsigned long long>(seed()) << 32) ^ seed() ^
                           static_cast<unsigned long long>(::getpid()));
    int error = EEXIST;
    // O_EXCL makes each try either a file of our own or EEXIST: an existing
    // file, whoever made it, is never opened, let alone truncated.
    for (int attempt = 0; attempt < kNameTries && error == EEXIST; ++attempt) {
        std::string path = dir;
        path += ".";
        path += name;
        path += ".ftpdisk-";
        path += randomSuffix(random);
        fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd_ >= 0) {
            temporary_ = path;
            return true;
        }
        error = errno;
    }
    problem = "cannot create a temporary file beside " + target_ + ": " + systemError(error);
    return false;
}

bool LocalReplacement::commit(std::string& problem) {
    if (fd_ < 0) {
        problem = "no temporary file for " + target_;
        return false;
    }
    const int closed = ::close(fd_);
    const int closeError = errno;
    fd_ = -1;
    if (closed != 0) {
        problem = "cannot finish " + temporary_ + ": " + systemError(closeError);
        abandon();
        return false;
    }
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
        problem = "cannot rename " + temporary_ + " to " + target_ + ": " + systemError(errno);
        abandon();
        return false;
    }
    temporary_.clear();
    return true;
}

void LocalReplacement::abandon() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (!temporary_.empty()) {
        ::unlink(temporary_.c_str());
        temporary_.clear();
    }
}

}  // namespace ftpdisk_tool
