// The in-place walk over a whole "LIST" reply that the store uses: it must cut,
// classify and parse exactly as StringHandler::split, detectListingStyle and
// the two parsers do over a vector of lines. Each case is a reply as a server
// sends it (or a malformed one), and every assertion prints it.
#include <gtest/gtest.h>

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

struct Reply {
    const char* source;
    std::string text;
};

std::vector<Reply> replies() {
    std::string zero = "-rw-r--r-- 1 u g 100 Jan 01 10:00 cam";
    zero += ' ';  // a server's zero byte, as the store has already turned it
    zero += "1.dav\r\n-rw-r--r-- 1 u g 5 Jan 01 10:00 b\r\n";
    return {
        {"empty reply", ""},
        {"one line end", "\r\n"},
        {"two line ends", "\r\n\r\n"},
        {"no final line end", "-rw-r--r-- 1 u g 7 Jan 01 10:00 a"},
        {"CR before CR LF", "x\r\r\ny\r"},
        {"bare line feeds",
         "-rw-r--r-- 1 u g 1 Jan 01 10:00 a\n-rw-r--r-- 1 u g 2 Jan 01 10:00 b\n"},
        {"Linux daemon with total line and dot names",
         "total 12\r\n\r\n"
         "drwxr-xr-x    2 1000     1000         4096 Jan 15 10:30 .\r\n"
         "drwxr-xr-x    9 1000     1000         4096 Jan 15 10:30 ..\r\n"
         "drwxr-xr-x    2 1000     1000         4096 Jan 15 10:30 20200115\r\n"
         "-rw-r--r--    1 1000     1000      1048576 Jan 15 10:31 ch01.mp4\r\n"
         "lrwxrwxrwx    1 1000     1000            8 Jan 15 10:31 last -> ch01.mp4\r\n"
         "-rw-r--r--    1 1000     1000          128 Jan 15 10:31 .lock\r\n"},
        {"Windows server",
         "01-15-20  10:30AM       <DIR>          .\r\n"
         "01-15-20  10:30AM       <DIR>          20200115\r\n"
         "01-15-20  10:31AM              1048576 ch01.mp4\r\n"
         "01-15-20  10:31AM                2,048 note.txt\r\n"
         "01-15-20  10:31AM                  512 my file.txt\r\n"},
        {"zero byte turned blank", zero},
        {"sizes past 32 bits", "-rw-r--r-- 1 u g 4294967297 Jan 01 10:00 big\r\n"},
    };
}

std::string describe(int type, int32_t size, const std::string& name) {
    return std::string(1, static_cast<char>(type)) + " " + std::to_string(size) + " " + name + "\n";
}

// What the vector road gives: StringHandler::split, detectListingStyle, the
// style's parser.
std::string byVector(const std::string& text, int& style, long long& total) {
    std::vector<std::string> lines;
    StringHandler::split(text, lines, "\r\n");
    style = detectListingStyle(lines);
    std::vector<SafePointer<FTPConst::FTPFileDescriptor> > entries;
    if (style == FTPConst::kListingUnix) {
        LinuxFTPFileParser().getFileDescriptorList(lines, entries, total);
    } else if (style == FTPConst::kListingDos) {
        WindowsFTPFileParser().getFileDescriptorList(lines, entries, total);
    }
    std::string out;
    for (const auto& e : entries) out += describe(e->type, e->size, e->name);
    return out;
}

struct Collect {
    std::string out;
    long long total = 0;
    bool operator()(FTPConst::FTPFileDescriptor& record) {
        out += describe(record.type, record.size, record.name);
        total += record.size;
        return true;
    }
};

}  // namespace

TEST(ListingLines, CutsEveryReplyExactlyAsTheHostSplitterDoes) {
    for (const Reply& r : replies()) {
        std::vector<std::string> expected;
        StringHandler::split(r.text, expected, "\r\n");
        std::vector<std::string> got;
        FTPConst::ListingLines lines(r.text);
        const char* begin = nullptr;
        size_t length = 0;
        for (int i = 0; i < 1000 && lines.next(&begin, &length); ++i) {
            got.emplace_back(begin, length);
        }
        EXPECT_EQ(expected, got) << r.source << ": [" << r.text << "]";
        EXPECT_EQ(expected.size(), FTPConst::ListingLines::count(r.text))
            << r.source << ": [" << r.text << "]";
    }
}

TEST(ListingLines, ChoosesTheStyleAndParsesAsTheVectorRoad) {
    for (const Reply& r : replies()) {
        int expectedStyle = -1;
        long long expectedTotal = 5;
        const std::string expected = byVector(r.text, expectedStyle, expectedTotal);
        const int style = FTPConst::detectTextStyle(r.text);
        EXPECT_EQ(expectedStyle, style) << r.source << ": [" << r.text << "]";
        Collect collect;
        collect.total = 5;
        FTPConst::forEachListedEntry(r.text, style, collect);
        EXPECT_EQ(expected, collect.out) << r.source << ": [" << r.text << "]";
        EXPECT_EQ(expectedTotal, collect.total) << r.source << ": [" << r.text << "]";
    }
}

TEST(ListingLines, ASinkThatSaysStopEndsTheWalk) {
    const std::string text =
        "-rw-r--r-- 1 u g 1 Jan 01 10:00 a\r\n"
        "-rw-r--r-- 1 u g 2 Jan 01 10:00 b\r\n"
        "-rw-r--r-- 1 u g 3 Jan 01 10:00 c\r\n";
    struct FirstTwo {
        std::vector<std::string> names;
        bool operator()(FTPConst::FTPFileDescriptor& record) {
            names.push_back(record.name);
            return names.size() < 2;
        }
    } sink;
    FTPConst::forEachListedEntry(text, FTPConst::kListingUnix, sink);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), sink.names) << text;
}

TEST(ListingLines, AnUnknownStyleHandsOutNothing) {
    Collect collect;
    FTPConst::forEachListedEntry("total 0\r\n", FTPConst::kListingUnknown, collect);
    EXPECT_EQ("", collect.out);
    EXPECT_EQ(0, collect.total);
}
