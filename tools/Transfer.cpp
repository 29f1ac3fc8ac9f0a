// put, get and cat: whole files through open/read/write/close on a handle,
// the same calls a recorder makes, so that a progress bar can follow each
// block (the store's Get/Put copy a whole file in one call and report nothing
// until the end).
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <vector>

#include "Commands.h"
#include "LocalReplacement.h"
#include "ToolFormat.h"

namespace ftpdisk_tool {

namespace {

std::string baseName(const std::string& path) {
    std::string::size_type slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Draws "[####----]  40%  4.00 MiB / 10.0 MiB ..." on standard error, at most
// five times a second, only when standard error is a terminal.
class Progress {
public:
    explicit Progress(std::int64_t total)
        : enabled_(stderrIsTerminal()), total_(total), start_(monotonicSeconds()) {}

    void update(std::int64_t done) {
        if (!enabled_) {
            return;
        }
        const double now = monotonicSeconds();
        if (now - lastDraw_ < 0.2) {
            return;
        }
        lastDraw_ = now;
        draw(done, now);
    }

    void finish(std::int64_t done) {
        if (enabled_) {
            draw(done, monotonicSeconds());
            std::cerr << "\n" << std::flush;
        }
    }

    double elapsed() const { return monotonicSeconds() - start_; }

private:
    void draw(std::int64_t done, double now) {
        int width = 80;
        struct winsize size;
        if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 10) {
            width = size.ws_col;
        }
        std::string line = progressLine(done, total_, now - start_, width - 1);
        line.resize(static_cast<std::size_t>(width - 1), ' ');
        std::cerr << "\r" << line << std::flush;
    }

    bool enabled_;
    std::int64_t total_;
    double start_;
    double lastDraw_ = 0;
};

// Closes a local descriptor on every way out.
struct LocalFile {
    int fd = -1;
    ~LocalFile() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

bool writeAll(int fd, const char* data, std::size_t size, int& error) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Listings carry sizes as signed 32-bit numbers, so a file of 2 GiB or more
// is listed with its size wrapped: compare on what the listing can express.
bool matchesListedSize(long long listed, std::int64_t actual) {
    return listed == actual ||
           listed == static_cast<std::int32_t>(static_cast<std::uint32_t>(actual));
}

std::string rateText(std::int64_t bytes, double seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return std::to_string(bytes) + " bytes in " + text + " (" +
           humanRate(seconds > 0 ? static_cast<double>(bytes) / seconds : 0) + ")";
}

// Copies the remote file behind `handle` to the local descriptor `fd` (named
// `destination` in messages) until the server ends the transfer. Returns the
// byte count, or -1 with `problem` set.
std::int64_t copyDown(FTPFileSystem* store, int handle, int fd, const std::string& destination,
                      Progress* progress, std::string& problem) {
    std::int64_t done = 0;
    return readFromStore(
        store, handle,
        [&](const char* data, std::size_t size, std::string& why) {
            int error = 0;
            if (!writeAll(fd, data, size, error)) {
                why = "cannot write to " + destination + ": " + systemError(error);
                return false;
            }
            done += static_cast<std::int64_t>(size);
            if (progress != nullptr) {
                progress->update(done);
            }
            return true;
        },
        problem);
}

}  // namespace

int runPut(const Arguments& args) {
    Session session("put", args);
    const std::string local = args.positional[1];
    std::string remote;
    const int status =
        session.openAt(args.positional[0], args.positionalOr(2, baseName(local)), remote);
    if (status != kExitOk) {
        return status;
    }
    FTPFileSystem* store = session.store();

    LocalFile in;
    in.fd = ::open(local.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info;
    if (in.fd < 0 || ::fstat(in.fd, &info) != 0) {
        return fail("put", "cannot read " + local + ": " + systemError(errno), kExitFailed);
    }
    if (!S_ISREG(info.st_mode)) {
        return fail("put", local + " is not a plain file", kExitFailed);
    }
    // Like cp: a directory as the target receives the file under its own name.
    if (store->isDirExist(remote.c_str()) &&
        !session.remotePath(remote.substr(session.location().base.size()) + "/" + baseName(local),
                            remote)) {
        return kExitUsage;
    }
    if (!session.listableName(remote.substr(session.location().base.size()))) {
        return kExitUsage;
    }

    const std::int64_t size = info.st_size;
    const int handle = store->open(remote.c_str(), 2);
    if (handle < 0) {
        // The store does not say why; a missing parent directory is the usual
        // reason and the one a person can fix (mkdir), so name it.
        const std::string parent = remote.substr(0, remote.rfind('/'));
        const std::string why = !parent.empty() && !store->isDirExist(parent.c_str())
                                    ? " (no such directory: " + parent + ")"
                                    : "";
        return fail("put", "cannot open " + remote + " for writing on the server" + why,
                    kExitFailed);
    }
    Progress progress(size);
    std::vector<char> buffer(kBlock);
    std::int64_t done = 0;
    std::string problem;
    while (problem.empty()) {
        const ssize_t n = ::read(in.fd, buffer.data(), kBlock);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            problem = "cannot read " + local + ": " + systemError(errno);
            break;
        }
        if (n == 0) {
            break;
        }
        const std::size_t sent =
            writeToStore(store, handle, buffer.data(), static_cast<std::size_t>(n));
        done += static_cast<std::int64_t>(sent);
        if (sent != static_cast<std::size_t>(n)) {
            problem = "writing to the server failed after " + std::to_string(done) + " bytes";
        } else {
            progress.update(done);
        }
    }
    const int closed = store->close(handle);
    progress.finish(done);
    if (!problem.empty()) {
        return fail("put", problem + " (the partial file stays on the server as " + remote + ")",
                    kExitFailed);
    }
    if (closed != 0) {
        return fail("put", "the server did not confirm the upload of " + remote, kExitFailed);
    }
    const long long stored = store->getFileLength(remote.c_str());
    if (!matchesListedSize(stored, done)) {
        return fail("put",
                    "the server lists " + remote + " with " + std::to_string(stored) + " bytes, " +
                        std::to_string(done) + " were sent",
                    kExitFailed);
    }
    std::cout << "put " << local << " -> " << remote << ": " << rateText(done, progress.elapsed())
              << std::endl;
    return kExitOk;
}

int runGet(const Arguments& args) {
    Session session("get", args);
    std::string remote;
    int status = session.openAt(args.positional[0], args.positional[1], remote);
    if (status != kExitOk) {
        return status;
    }
    std::string local = args.positionalOr(2, baseName(remote));
    struct stat info;
    if (::stat(local.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        local += "/" + baseName(remote);
    }
    FTPFileSystem* store = session.store();
    // The listed size before the transfer starts: -1 for a missing file or a
    // directory, which openForReading then refuses.
    const long long expected = store->getFileLength(remote.c_str());
    int handle = -1;
    status = session.openForReading(remote, handle);
    if (status != kExitOk) {
        return status;
    }
    // Written under a fresh temporary name beside the target and renamed at
    // the end, so that a failed download never leaves a truncated file under
    // the name asked for and touches no other file.
    LocalReplacement out(local);
    std::string problem;
    if (!out.create(problem)) {
        store->close(handle);
        return fail("get", problem, kExitFailed);
    }
    // A wrapped (negative) listed size leaves the total unknown.
    Progress progress(expected);
    const std::int64_t done =
        copyDown(store, handle, out.descriptor(), out.temporaryPath(), &progress, problem);
    const int closed = store->close(handle);
    progress.finish(done < 0 ? 0 : done);
    if (problem.empty() && closed != 0) {
        problem = "the server did not confirm the end of " + remote;
    }
    if (problem.empty() && expected != -1 && !matchesListedSize(expected, done)) {
        problem = "received " + std::to_string(done) + " bytes, the server lists " +
                  std::to_string(expected);
    }
    if (!problem.empty() || !out.commit(problem)) {
        out.abandon();
        return fail("get", problem, kExitFailed);
    }
    std::cout << "get " << remote << " -> " << local << ": " << rateText(done, progress.elapsed())
              << std::endl;
    return kExitOk;
}

int runCat(const Arguments& args) {
    Session session("cat", args);
    std::string remote;
    int status = session.openAt(args.positional[0], args.positional[1], remote);
    int handle = -1;
    if (status == kExitOk) {
        status = session.openForReading(remote, handle);
    }
    if (status != kExitOk) {
        return status;
    }
    FTPFileSystem* store = session.store();
    std::cout.flush();
    std::string problem;
    const std::int64_t done =
        copyDown(store, handle, STDOUT_FILENO, "standard output", nullptr, problem);
    const int closed = store->close(handle);
    if (done < 0) {
        return fail("cat", problem, kExitFailed);
    }
    if (closed != 0) {
        return fail("cat", "the server did not confirm the end of " + remote, kExitFailed);
    }
    return kExitOk;
}

}  // namespace ftpdisk_tool
