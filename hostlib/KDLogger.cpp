// KDLogger: one line per call, appended under a process-wide lock, with
// size-capped rotation (file -> file.1 -> ... -> file.<keep>).
#include "host/KDLogger.h"

#include <errno.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "HostMutex.h"
#include "ftpdisk_host/HostControl.h"

namespace {

hostlib::HostMutex& logMutex() {
    static hostlib::HostMutex* m = new hostlib::HostMutex;
    return *m;
}

// The log folder's root; REQUIRES: logMutex() is held.
std::string& logRoot() FTPDISK_REQUIRES(logMutex()) {
    static std::string* root = [] {
        const char* env = std::getenv("FTPDISK_LOG_ROOT");
        return new std::string(env != nullptr ? env : "");
    }();
    return *root;
}

void makeParents(const std::string& path) {
    for (std::string::size_type slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

long fileSize(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

void rotate(const std::string& path, int keep) {
    if (keep <= 0) {
        std::remove(path.c_str());
        return;
    }
    std::remove((path + "." + std::to_string(keep)).c_str());
    for (int i = keep - 1; i >= 1; --i) {
        std::rename((path + "." + std::to_string(i)).c_str(),
                    (path + "." + std::to_string(i + 1)).c_str());
    }
    std::rename(path.c_str(), (path + ".1").c_str());
}

}  // namespace

namespace hostcontrol {

void setLogRoot(const std::string& directory) {
    hostlib::HostLock guard(logMutex());
    logRoot() = directory;
}

std::string resolveLogPath(const char* file) {
    std::string path(file != nullptr ? file : "");
    hostlib::HostLock guard(logMutex());
    if (!logRoot().empty() && !path.empty() && path[0] == '/') {
        return logRoot() + path;
    }
    return path;
}

}  // namespace hostcontrol

void KDLogger::writeLog(const char* file, const char* where, const char* message, int maxBytes,
                        int keepFiles) {
    if (file == nullptr) {
        return;
    }
    const std::string path = hostcontrol::resolveLogPath(file);

    char stamp[32] = {0};
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) != nullptr) {
        strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    }
    std::string line = std::string(stamp) + " [" + (where != nullptr ? where : "") + "] " +
                       (message != nullptr ? message : "") + "\n";

    hostlib::HostLock guard(logMutex());
    makeParents(path);
#ifdef FTPDISK_PLANTED_FAULT_LOG_IGNORES_CAP
    maxBytes = 0;
#endif
    if (maxBytes > 0 && fileSize(path) + static_cast<long>(line.size()) > maxBytes) {
        rotate(path, keepFiles);
    }
    FILE* out = std::fopen(path.c_str(), "a");
    if (out == nullptr) {
        return;
    }
    std::fwrite(line.data(), 1, line.size(), out);
    std::fclose(out);
}
