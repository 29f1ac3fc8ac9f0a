// KDFile and KDLogger, as the module uses them. Get writes the local file
// with KDFile::write and hands over the rest again after a short write; a
// write of 0 or less ends the copy as failed. Put reads with KDFile::read
// until it returns 0, so 0 before the end would cut the upload short. The
// record error log gets one line per abandoned listing, from any thread.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "HostConformance.h"
#include "host/KDFile.h"
#include "host/KDLogger.h"

namespace conformance {

namespace {

// KDFile's modes, as the module passes them.
const unsigned char kCreate = 98;
const unsigned char kRead = 1;

// The scratch folder's paths are plain ASCII, so they widen byte by byte
// (string_util::utf82wchar is a contract of its own).
std::wstring wide(const std::string& path) { return std::wstring(path.begin(), path.end()); }

std::vector<char> pattern(size_t length) {
    std::vector<char> bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>((7 * i + 3) % 251);
    return bytes;
}

long long fileSize(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> fileLines(const std::string& path) {
    std::vector<std::string> lines;
    std::istringstream in(fileText(path));
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Writes `bytes` as Get does: what a write did not take is handed over again.
bool writeAll(Report& report, KDFile& file, std::vector<char>& bytes) {
    size_t done = 0;
    for (int calls = 0; done < bytes.size() && calls < 100000; ++calls) {
        const int n = file.write(&bytes[done], static_cast<unsigned int>(bytes.size() - done));
        if (n <= 0 || static_cast<size_t>(n) > bytes.size() - done) {
            report.fail("write of " + show(static_cast<long long>(bytes.size() - done)) +
                        " bytes to a new file returned " + show(static_cast<long long>(n)));
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return done == bytes.size();
}

// Reads as Put does, `chunk` bytes asked each time, until read returns 0.
bool readToEnd(Report& report, KDFile& file, unsigned int chunk, std::string& out) {
    std::vector<char> buffer(chunk);
    for (int calls = 0; calls < 100000; ++calls) {
        const int n = file.read(&buffer[0], chunk);
        if (n < 0) {
            report.fail("read of " + show(static_cast<long long>(chunk)) + " bytes returned " +
                        show(static_cast<long long>(n)) + " after " +
                        show(static_cast<long long>(out.size())) + " bytes of the file");
            return false;
        }
        if (n == 0) return true;
        if (static_cast<unsigned int>(n) > chunk) {
            report.fail("read of " + show(static_cast<long long>(chunk)) + " bytes returned " +
                        show(static_cast<long long>(n)));
            return false;
        }
        out.append(&buffer[0], static_cast<size_t>(n));
    }
    report.fail("read never returned 0 at the end of the file");
    return false;
}

}  // namespace

void checkFileShortReads(Report& report) {
    const std::string path = report.scratchDir() + "/short-reads.bin";
    // 10000 bytes read 4096 at a time: the third read gets only 1808.
    std::vector<char> bytes = pattern(10000);
    {
        KDFile file;
        if (file.open_w(wide(path).c_str(), kCreate) == 0) {
            report.fail("open_w(mode 98) of a new file in a writable folder returned 0");
            return;
        }
        if (!writeAll(report, file, bytes)) return;
        file.close();
    }
    report.expect(fileSize(path) == 10000, "the file written holds " + show(fileSize(path)) +
                                               " bytes, not the 10000 written");

    const unsigned int chunks[] = {4096, 8192, 3, 65536};
    for (size_t c = 0; c < sizeof chunks / sizeof chunks[0]; ++c) {
        KDFile file;
        if (file.open_w(wide(path).c_str(), kRead) == 0) {
            report.fail("open_w(mode 1) of an existing file returned 0");
            return;
        }
        std::string read;
        if (!readToEnd(report, file, chunks[c], read)) return;
        if (read.size() != bytes.size()) {
            report.fail("reading " + show(static_cast<long long>(chunks[c])) +
                        " bytes at a time gave 0 (the end) after " +
                        show(static_cast<long long>(read.size())) +
                        " of 10000 bytes: a read that gets fewer bytes than asked returns their "
                        "count, and only 0 means the end (Put would upload a cut file)");
        } else if (read != std::string(bytes.begin(), bytes.end())) {
            report.fail("the bytes read differ from the bytes written");
        }
        char extra[16];
        const int again = file.read(extra, sizeof extra);
        report.expect(again == 0, "a read after the end returned " +
                                      show(static_cast<long long>(again)) + ", not 0");
    }

    {
        // Mode 98 makes an existing file empty first.
        KDFile file;
        std::vector<char> ten = pattern(10);
        if (file.open_w(wide(path).c_str(), kCreate) == 0 || !writeAll(report, file, ten)) {
            report.fail("open_w(mode 98) of an existing file failed");
            return;
        }
        file.close();
        report.expect(fileSize(path) == 10,
                      "writing 10 bytes over a 10000-byte file with mode 98 "
                      "left " +
                          show(fileSize(path)) + " bytes");
    }
    KDFile missing;
    report.expect(missing.open_w(wide(report.scratchDir() + "/missing.bin").c_str(), kRead) == 0,
                  "open_w(mode 1) of a file that does not exist returned non-zero");
    KDFile unopened;
    char buffer[8];
    report.expect(unopened.read(buffer, sizeof buffer) < 0,
                  "read on a KDFile that was never opened did not return a negative number");
}

void checkFileShortWrites(Report& report) {
    // A file size limit of 10000 bytes on this process makes the system take
    // only part of a write, then refuse the next (EFBIG): a disk filling up.
    const rlim_t kLimit = 10000;
    ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit;
    if (::getrlimit(RLIMIT_FSIZE, &limit) != 0) {
        report.fail("the check could not read the file size limit");
        return;
    }
    limit.rlim_cur = kLimit;
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) {
        report.fail("the check could not set a file size limit of 10000 bytes");
        return;
    }
    const std::string path = report.scratchDir() + "/short-writes.bin";
    KDFile file;
    if (file.open_w(wide(path).c_str(), kCreate) == 0) {
        report.fail("open_w(mode 98) of a new file returned 0");
        return;
    }
    std::vector<char> block = pattern(8192);
    long long taken = 0;
    const int first = file.write(&block[0], 8192);
    if (first <= 0 || first > 8192) {
        report.fail("the first write of 8192 bytes returned " +
                    show(static_cast<long long>(first)));
        return;
    }
    taken += first;
    const long long room = static_cast<long long>(kLimit) - taken;
    const int second = file.write(&block[0], 8192);
    if (second == 0) {
        report.fail("a write of 8192 bytes with room for " + show(room) +
                    " returned 0: Get takes 0 as a failed copy without a reason");
    } else if (second > room) {
        report.fail("a write of 8192 bytes with room for only " + show(room) + " returned " +
                    show(static_cast<long long>(second)) +
                    ": it must return the bytes the file took (Get would report a complete "
                    "copy of a cut file)");
    } else if (second > 0) {
        taken += second;
        const int third = file.write(&block[0], 8192);
        report.expect(third < 0, "a write to a file that takes no more returned " +
                                     show(static_cast<long long>(third)) +
                                     ", not a negative number");
        if (third > 0) taken += third;
    }
    file.close();
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    report.expect(fileSize(path) >= taken, "the writes returned " + show(taken) +
                                               " bytes in all, the file holds " +
                                               show(fileSize(path)));
}

void checkLoggerCall(Report& report) {
    const std::string dir = report.scratchDir();
    // The module's one call, to a file of this check.
    const std::string log = dir + "/recordError.log";
    const std::string where = "FTPFileSystemImpl::recvData";
    const std::string message = "Detect TimeOut[60], TototalDataLen[0], WritedLen[0]";
    try {
        KDLogger::writeLog(log.c_str(), where.c_str(), message.c_str(), 51200, 2);
    } catch (const std::exception& e) {
        report.fail(std::string("writeLog threw: ") + e.what());
        return;
    }
    // The line's layout is the recorder's own; it names where and what.
    const std::string text = fileText(log);
    if (text.empty() || text.find('\n') != text.size() - 1 ||
        text.find(where) == std::string::npos || text.find(message) == std::string::npos) {
        report.fail("after one writeLog the file holds " + quoted(text) + ", not one line naming " +
                    quoted(where) + " and " + quoted(message));
    }

    // Four threads at once: every line whole, none lost.
    const std::string shared = dir + "/threads.log";
    const int kThreads = 4;
    const int kLines = 50;
    std::vector<Worker*> writers;
    writers.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        writers.push_back(new Worker([&, t] {
            for (int i = 0; i < kLines; ++i) {
                const std::string line = "thread " + show(static_cast<long long>(t)) + " line " +
                                         show(static_cast<long long>(i));
                KDLogger::writeLog(shared.c_str(), "conformance", line.c_str(), 1000000, 2);
            }
        }));
    }
    for (size_t t = 0; t < writers.size(); ++t) {
        if (!writers[t]->finishedWithin(30.0)) {
            report.abandon("four threads writing 50 log lines each had not finished after 30 s");
        }
        delete writers[t];
    }
    const std::vector<std::string> lines = fileLines(shared);
    std::vector<int> seen(static_cast<size_t>(kThreads) * kLines, 0);
    int whole = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string::size_type at = lines[i].find("thread ");
        int t = -1;
        int n = -1;
        if (at != std::string::npos &&
            sscanf(lines[i].c_str() + at, "thread %d line %d", &t, &n) == 2 && t >= 0 &&
            t < kThreads && n >= 0 && n < kLines &&
            endsWith(lines[i], " line " + show(static_cast<long long>(n)))) {
            ++seen[t * kLines + n];
            ++whole;
        }
    }
    bool each = whole == kThreads * kLines && lines.size() == static_cast<size_t>(whole);
    for (size_t i = 0; i < seen.size(); ++i) each = each && seen[i] == 1;
    report.expect(each, show(static_cast<long long>(kThreads) * kLines) +
                            " writeLog calls from four threads left " +
                            show(static_cast<long long>(lines.size())) + " lines, " +
                            show(static_cast<long long>(whole)) +
                            " of them whole: each call appends one whole line");

    // The size cap, with two older files kept.
    const std::string capped = dir + "/capped.log";
    const long long kCap = 400;
    for (int i = 0; i < 30; ++i) {
        const std::string line = "capped line " + show(static_cast<long long>(i)) +
                                 " ...................................";
        KDLogger::writeLog(capped.c_str(), "conformance", line.c_str(), static_cast<int>(kCap), 2);
    }
    report.expect(fileSize(capped) > 0 && fileSize(capped) <= kCap,
                  "with a cap of 400 bytes the log holds " + show(fileSize(capped)) +
                      " bytes after 30 lines of about 70");
    report.expect(fileSize(capped + ".1") > 0 && fileSize(capped + ".1") <= kCap,
                  "the newest older file (.1) holds " + show(fileSize(capped + ".1")) +
                      " bytes, not 1 to 400");
    report.expect(fileSize(capped + ".3") < 0, "a third older file exists though 2 are kept");
    const std::vector<std::string> cappedLines = fileLines(capped);
    report.expect(!cappedLines.empty() && endsWith(cappedLines.back(),
                                                   "capped line 29 "
                                                   "..................................."),
                  "the newest line is not the last line of the log");

    // A log that cannot be written: the call returns, silently.
    const std::string plain = dir + "/plain-file";
    std::ofstream(plain.c_str()) << "x";
    const std::string below = plain + "/recordError.log";
    try {
        Watchdog dog(report, 5.0,
                     "writeLog to a file that cannot be made had not returned after 5 s");
        KDLogger::writeLog(below.c_str(), where.c_str(), message.c_str(), 51200, 2);
    } catch (const std::exception& e) {
        report.fail(std::string("writeLog to a file that cannot be made threw: ") + e.what());
    }
}

}  // namespace conformance
