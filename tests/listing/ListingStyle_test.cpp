// Choosing the parser from the word counts of a listing's lines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/StringHandler.h"
#include "listing/ListingStyle.h"

namespace {

struct Row {
    const char* source;
    std::vector<std::string> lines;
    int style;
};

std::string describe(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += "[" + line + "]";
    return text;
}

}  // namespace

TEST(ListingStyle, UsesTheFirstLineOfFourOrNineWords) {
    const Row rows[] = {
        {"no lines", {}, FTPConst::kListingUnknown},
        {"one empty line", {""}, FTPConst::kListingUnknown},
        {"Linux daemon LIST",
         {"total 12", "", "drwxr-xr-x    2 1000     1000         4096 Jan 15 10:30 rec"},
         FTPConst::kListingUnix},
        {"Windows server DOS listing",
         {"01-15-20  10:30AM       <DIR>          rec", "01-15-20  10:30AM   512 a.dat"},
         FTPConst::kListingDos},
        {"NAS link first (11 words), then a file",
         {"lrwxrwxrwx 1 0 0 11 Jan 15 2020 latest -> ch01.mp4",
          "-rw-r--r-- 1 0 0 9 Jan 15 2020 ch01.mp4"},
         FTPConst::kListingUnix},
        {"four words before nine",
         {"a b c d", "-rw-r--r-- 1 0 0 9 Jan 15 2020 ch01.mp4"},
         FTPConst::kListingDos},
        {"nine words before four",
         {"-rw-r--r-- 1 0 0 9 Jan 15 2020 ch01.mp4", "a b c d"},
         FTPConst::kListingUnix},
        {"only other counts",
         {"total 0", "one two three", "1 2 3 4 5", "1 2 3 4 5 6 7 8 9 10"},
         FTPConst::kListingUnknown},
        {"padding blanks do not count", {"   a    b   c   d   "}, FTPConst::kListingDos},
        {"a name with a blank makes ten words",
         {"-rw-r--r-- 1 u g 100 Jan 01 10:00 my file.dat"},
         FTPConst::kListingUnknown},
        {"the words themselves are not examined", {"w w w w w w w w w"}, FTPConst::kListingUnix},
        {"tabs do not separate", {"a\tb\tc\td"}, FTPConst::kListingUnknown},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.style, detectListingStyle(row.lines))
            << row.source << ": " << describe(row.lines);
    }
}

TEST(ListingStyle, ALineFeedOnlyListingIsOneLineJudgedByItsWholeWordCount) {
    // Cut at "\r\n" only: a bare line feed stays inside the line and, not being
    // a blank, glues the last word of a line to the first of the next.
    std::vector<std::string> lines;
    StringHandler::split("-rw-r--r-- 1 u g 1 Jan 01 10:00 a\n-rw-r--r-- 1 u g 2 Jan 01 10:00 b\n",
                         lines, "\r\n");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(FTPConst::kListingUnknown, detectListingStyle(lines));

    lines.clear();
    StringHandler::split("01-15-20 10:30AM 512\na.dat 5", lines, "\r\n");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(FTPConst::kListingDos, detectListingStyle(lines)) << lines[0];
}
