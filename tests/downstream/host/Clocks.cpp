// KDTime and KDLogger of the miniature recorder.
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <mutex>
#include <string>

#include "host/KDLogger.h"
#include "host/KDTime.h"

double KDTime::getSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

double KDTime::getUpTime() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

namespace {

std::mutex logMutex;

std::string numbered(const char* file, int n) {
    return std::string(file) + "." + std::to_string(n);
}

}  // namespace

void KDLogger::writeLog(const char* file, const char* where, const char* message, int maxBytes,
                        int keepFiles) {
    if (file == NULL) return;
    char stamp[32] = "";
    const time_t now = time(NULL);
    struct tm local;
    if (localtime_r(&now, &local) != NULL)
        strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    const std::string line =
        std::string(stamp) + " [" + (where ? where : "") + "] " + (message ? message : "") + "\n";

    std::lock_guard<std::mutex> guard(logMutex);
    struct stat info;
    if (stat(file, &info) == 0 && info.st_size + static_cast<long long>(line.size()) > maxBytes) {
        // file.1 is the newest of the older files; the oldest falls off.
        for (int n = keepFiles; n > 1; --n)
            rename(numbered(file, n - 1).c_str(), numbered(file, n).c_str());
        if (keepFiles > 0)
            rename(file, numbered(file, 1).c_str());
        else
            remove(file);
    }
    FILE* out = fopen(file, "a");
    if (out == NULL) return;  // a log that cannot be written is not the caller's failure
    fputs(line.c_str(), out);
    fclose(out);
}
