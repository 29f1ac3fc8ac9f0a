// Whole "LIST" replies taken through the steps the store runs after fetching
// them: zero bytes to blanks, cut at "\r\n", choose the style, parse.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "host/StringHandler.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LinuxFTPFileParser.h"
#include "listing/ListingStyle.h"
#include "listing/WindowsFTPFileParser.h"

namespace {

typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > Entries;

int parseText(std::string text, Entries& entries, long long& total) {
    for (char& c : text) {
        if (c == '\0') c = ' ';
    }
    std::vector<std::string> lines;
    StringHandler::split(text, lines, "\r\n");
    const int style = detectListingStyle(lines);
    if (style == FTPConst::kListingUnix) {
        LinuxFTPFileParser().getFileDescriptorList(lines, entries, total);
    } else if (style == FTPConst::kListingDos) {
        WindowsFTPFileParser().getFileDescriptorList(lines, entries, total);
    }
    return style;
}

std::string describe(const Entries& entries) {
    std::string out;
    for (const auto& e : entries) {
        out += std::string(1, static_cast<char>(e->type)) + " " + std::to_string(e->size) + " " +
               e->name + "\n";
    }
    return out;
}

}  // namespace

TEST(ListingText, AnEmptyReplyGivesNoEntries) {
    Entries entries;
    long long total = 0;
    EXPECT_EQ(FTPConst::kListingUnknown, parseText("", entries, total));
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(0, total);
}

TEST(ListingText, ALinuxDaemonReplyWithTotalLineIsReadFromItsFirstNineWordLine) {
    const std::string text =
        "total 12\r\n"
        "\r\n"
        "drwxr-xr-x    2 1000     1000         4096 Jan 15 10:30 .\r\n"
        "drwxr-xr-x    9 1000     1000         4096 Jan 15 10:30 ..\r\n"
        "drwxr-xr-x    2 1000     1000         4096 Jan 15 10:30 20200115\r\n"
        "-rw-r--r--    1 1000     1000      1048576 Jan 15 10:31 ch01.mp4\r\n"
        "-rw-r--r--    1 1000     1000          128 Jan 15 10:31 .lock\r\n";
    Entries entries;
    long long total = 0;
    EXPECT_EQ(FTPConst::kListingUnix, parseText(text, entries, total));
    // The "total 12" line is not recognised and gives an entry with no name.
    EXPECT_EQ("t 0 \nd 4096 20200115\n- 1048576 ch01.mp4\n", describe(entries)) << text;
    EXPECT_EQ(4096 + 1048576, total);
}

TEST(ListingText, AWindowsServerReplyIsReadAsDos) {
    const std::string text =
        "01-15-20  10:30AM       <DIR>          .\r\n"
        "01-15-20  10:30AM       <DIR>          20200115\r\n"
        "01-15-20  10:31AM              1048576 ch01.mp4\r\n"
        "01-15-20  10:31AM                2,048 note.txt\r\n";
    Entries entries;
    long long total = 0;
    EXPECT_EQ(FTPConst::kListingDos, parseText(text, entries, total));
    EXPECT_EQ("d 0 .\nd 0 20200115\n- 1048576 ch01.mp4\n- 2 note.txt\n", describe(entries)) << text;
    EXPECT_EQ(1048576 + 2, total);
}

TEST(ListingText, AZeroByteInsideALineSplitsTheWordItStoodIn) {
    std::string text = "-rw-r--r-- 1 u g 100 Jan 01 10:00 cam";
    text += '\0';
    text += "1.dav\r\n-rw-r--r-- 1 u g 5 Jan 01 10:00 b\r\n";
    Entries entries;
    long long total = 0;
    // The first line now has ten words; the second decides Unix.
    EXPECT_EQ(FTPConst::kListingUnix, parseText(text, entries, total));
    EXPECT_EQ("- 100 cam\n- 5 b\n", describe(entries));
    EXPECT_EQ(105, total);
}

TEST(ListingText, ALineFeedOnlyReplyIsOneLineAndUsuallyNotRecognised) {
    const std::string text =
        "-rw-r--r-- 1 u g 1 Jan 01 10:00 a\n"
        "-rw-r--r-- 1 u g 2 Jan 01 10:00 b\n";
    Entries entries;
    long long total = 0;
    EXPECT_EQ(FTPConst::kListingUnknown, parseText(text, entries, total));
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(0, total);
}

TEST(ListingText, EntriesStayValidAfterTheParsersAreGone) {
    Entries entries;
    long long total = 0;
    parseText("01-15-20  10:30AM  12 a\r\n", entries, total);
    Entries copy = entries;
    entries.clear();
    ASSERT_EQ(1u, copy.size());
    EXPECT_EQ("a", copy[0]->name);
    EXPECT_EQ(12, copy[0]->size);
}
