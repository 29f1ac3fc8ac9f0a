// Throughput of the listing path after the bytes have arrived: cutting the
// reply into lines at "\r\n", choosing the style, and parsing the lines into
// entry records. Builds a Unix-style and a DOS-style reply of N lines each in
// memory (default 100,000), runs every step R times (default 7) and prints the
// median lines per second of each. "in place" is the road the store's own
// listings take: lines and words read inside the one text, every entry's name
// taken out, no shared records.
//
//   listing_bench [lines] [repetitions]
//
// Exits non-zero when a parse does not give the expected entries and total, so
// that a broken parser cannot post a good figure.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "host/StringHandler.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LinuxFTPFileParser.h"
#include "listing/ListingLines.h"
#include "listing/ListingStyle.h"
#include "listing/WindowsFTPFileParser.h"

namespace {

typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > Entries;
typedef std::chrono::steady_clock Clock;

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// A recorder's day folder: mostly one-hour recordings, a few directories.
std::string unixListing(int lines, long long& expectedTotal, int& expectedEntries) {
    std::string text = "total 123456\r\n";
    expectedTotal = 0;
    expectedEntries = 1;  // the "total" line makes a nameless entry
    char line[160];
    for (int i = 1; i < lines; ++i) {
        const bool dir = i % 50 == 0;
        const long long size = dir ? 4096 : 100000000LL + (i * 7919LL) % 900000000LL;
        std::snprintf(line, sizeof(line),
                      "%s    1 1000     1000     %10lld %s %02d %02d:%02d ch%02d_%08d_%06d.%s\r\n",
                      dir ? "drwxr-xr-x" : "-rw-r--r--", size, kMonths[i % 12], 1 + i % 28, i % 24,
                      i % 60, i % 16, 20200101 + i % 28, i, dir ? "d" : "mp4");
        text += line;
        expectedTotal += size;
        ++expectedEntries;
    }
    return text;
}

std::string dosListing(int lines, long long& expectedTotal, int& expectedEntries) {
    std::string text;
    expectedTotal = 0;
    expectedEntries = 0;
    char line[160];
    for (int i = 0; i < lines; ++i) {
        const bool dir = i % 50 == 0;
        const long long size = 100000000LL + (i * 7919LL) % 900000000LL;
        if (dir) {
            std::snprintf(line, sizeof(line),
                          "%02d-%02d-20  %02d:%02dAM       <DIR>          ch%02d_%06d\r\n",
                          1 + i % 12, 1 + i % 28, 1 + i % 12, i % 60, i % 16, i);
        } else {
            std::snprintf(line, sizeof(line),
                          "%02d-%02d-20  %02d:%02dPM           %10lld ch%02d_%06d.mp4\r\n",
                          1 + i % 12, 1 + i % 28, 1 + i % 12, i % 60, size, i % 16, i);
            expectedTotal += size;
        }
        text += line;
        ++expectedEntries;
    }
    return text;
}

double seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Figures {
    double split;
    double parse;
    double whole;    // split, parse and release of the records
    double inPlace;  // the store's own road: lines and words in place, names out, no records
};

// What getFileList keeps of each entry: its name (all of them here, so that
// every entry is checked), plus the count and the total for the check.
struct NamesOut {
    std::vector<std::string> names;
    long long total = 0;
    bool operator()(FTPConst::FTPFileDescriptor& record) {
        names.push_back(std::string());
        names.back().swap(record.name);
        total += record.size;
        return true;
    }
};

// Returns false when a run gives other entries than expected.
bool measure(const char* label, const std::string& text, int lines, int expectedStyle,
             long long expectedTotal, int expectedEntries, int repetitions, Figures& out) {
    std::vector<double> split, parse, whole, inPlace;
    for (int r = 0; r < repetitions; ++r) {
        std::vector<std::string> parts;
        Entries entries;
        long long total = 0;
        const Clock::time_point t0 = Clock::now();
        StringHandler::split(text, parts, "\r\n");
        const Clock::time_point t1 = Clock::now();
        const int style = detectListingStyle(parts);
        if (style == FTPConst::kListingUnix) {
            LinuxFTPFileParser().getFileDescriptorList(parts, entries, total);
        } else if (style == FTPConst::kListingDos) {
            WindowsFTPFileParser().getFileDescriptorList(parts, entries, total);
        }
        const Clock::time_point t2 = Clock::now();
        const int entryCount = static_cast<int>(entries.size());
        const Clock::time_point t3 = Clock::now();
        entries.clear();  // releasing the records is part of a listing's cost
        const Clock::time_point t4 = Clock::now();
        if (style != expectedStyle || total != expectedTotal || entryCount != expectedEntries) {
            std::fprintf(stderr,
                         "%s: style %d, %d entries, total %lld; expected style %d, %d entries, "
                         "total %lld\n",
                         label, style, entryCount, total, expectedStyle, expectedEntries,
                         expectedTotal);
            return false;
        }
        split.push_back(seconds(t0, t1));
        parse.push_back(seconds(t1, t2));
        whole.push_back(seconds(t0, t2) + seconds(t3, t4));

        NamesOut sink;
        const Clock::time_point t5 = Clock::now();
        const int textStyle = FTPConst::detectTextStyle(text);
        FTPConst::forEachListedEntry(text, textStyle, sink);
        const int named = static_cast<int>(sink.names.size());
        sink.names.clear();
        const Clock::time_point t6 = Clock::now();
        if (textStyle != expectedStyle || sink.total != expectedTotal || named != expectedEntries) {
            std::fprintf(stderr,
                         "%s in place: style %d, %d entries, total %lld; expected style %d, %d "
                         "entries, total %lld\n",
                         label, textStyle, named, sink.total, expectedStyle, expectedEntries,
                         expectedTotal);
            return false;
        }
        inPlace.push_back(seconds(t5, t6));
    }
    out.split = lines / median(split);
    out.parse = lines / median(parse);
    out.whole = lines / median(whole);
    out.inPlace = lines / median(inPlace);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const int lines = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int repetitions = argc > 2 ? std::atoi(argv[2]) : 7;
    if (lines < 2 || repetitions < 1) {
        std::fprintf(stderr, "usage: %s [lines >= 2] [repetitions >= 1]\n", argv[0]);
        return 2;
    }
    long long unixTotal = 0, dosTotal = 0;
    int unixEntries = 0, dosEntries = 0;
    const std::string unixText = unixListing(lines, unixTotal, unixEntries);
    const std::string dosText = dosListing(lines, dosTotal, dosEntries);

    Figures unixFigures = {}, dosFigures = {};
    if (!measure("unix", unixText, lines, FTPConst::kListingUnix, unixTotal, unixEntries,
                 repetitions, unixFigures) ||
        !measure("dos", dosText, lines, FTPConst::kListingDos, dosTotal, dosEntries, repetitions,
                 dosFigures)) {
        return 1;
    }
    std::printf("lines per listing: %d, repetitions: %d (median)\n", lines, repetitions);
    std::printf("%-6s %14s %14s %14s %14s  (lines/s)\n", "style", "split", "parse", "split+parse",
                "in place");
    std::printf("%-6s %14.0f %14.0f %14.0f %14.0f\n", "unix", unixFigures.split, unixFigures.parse,
                unixFigures.whole, unixFigures.inPlace);
    std::printf("%-6s %14.0f %14.0f %14.0f %14.0f\n", "dos", dosFigures.split, dosFigures.parse,
                dosFigures.whole, dosFigures.inPlace);
    return 0;
}
