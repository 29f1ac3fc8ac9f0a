// DOS-style listing lines as servers send them, and the records made of them.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "ParserTestUtil.h"
#include "foundation/SafePointer.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/WindowsFTPFileParser.h"

namespace {

using parsertest::Entries;

struct Row {
    const char* source;  // where such a line comes from
    std::string line;
    int type;
    int32_t size;
    const char* name;
};

// Parses each row as a listing of its own and checks its one record and what
// it added to a total that started at 1000.
void expectRows(const std::vector<Row>& rows) {
    WindowsFTPFileParser parser;
    for (const Row& row : rows) {
        parsertest::expectRecordOfLine(parser, row.source, row.line, true, row.type, row.size,
                                       row.name);
    }
}

}  // namespace

TEST(DosListing, TheDirectoryMarkerIsTheUpperCaseWord) {
    EXPECT_STREQ("<DIR>", FTPConst::DIR);
    EXPECT_EQ(6u, sizeof(FTPConst::DIR));
}

TEST(DosListing, ReadsDirectoriesAndFilesOfServerLines) {
    expectRows({
        {"Windows server DOS listing", "01-15-20  10:30AM       <DIR>          rec", 'd', 0, "rec"},
        {"Windows server DOS listing", "01-15-20  10:30AM                  512 a.dat", '-', 512,
         "a.dat"},
        {"Windows server, four-digit year", "01-15-2020  10:30PM              1048576 ch01.mp4",
         '-', 1048576, "ch01.mp4"},
        {"Windows server, 24-hour clock", "2020-01-15  22:30       <DIR>          archive", 'd', 0,
         "archive"},
        {"single blanks", "01-15-20 10:30AM 0 empty.log", '-', 0, "empty.log"},
        {"leading blanks", "   01-15-20  10:30AM   77 lead.txt", '-', 77, "lead.txt"},
    });
}

TEST(DosListing, ReadsOnlyTheLeadingDigitsOfTheSizeColumn) {
    expectRows({
        {"thousands separators", "01-15-20  10:30AM                2,048 a.dat", '-', 2, "a.dat"},
        {"thousands separators", "01-15-20  10:30AM        1,073,741,824 b.dav", '-', 1, "b.dav"},
        {"no digits", "01-15-20  10:30AM                 none c.dat", '-', 0, "c.dat"},
        {"negative", "01-15-20  10:30AM                   -3 d.dat", '-', -3, "d.dat"},
    });
}

TEST(DosListing, TreatsAnyOtherSpellingOfTheMarkerAsAFileOfSizeZero) {
    expectRows({
        {"lower case", "01-15-20  10:30AM       <dir>          rec", '-', 0, "rec"},
        {"mixed case", "01-15-20  10:30AM       <Dir>          rec", '-', 0, "rec"},
        {"longer word", "01-15-20  10:30AM       <DIR>x         rec", '-', 0, "rec"},
        {"shorter word", "01-15-20  10:30AM       <DIR          rec", '-', 0, "rec"},
    });
}

TEST(DosListing, KeepsOnlyTheFirstWordOfANameWithBlanks) {
    expectRows({
        {"Windows server, name with blanks", "01-15-20  10:30AM       <DIR>          New Folder",
         'd', 0, "New"},
        {"Windows server, name with blanks", "01-15-20  10:30AM                  100 my file.dat",
         '-', 100, "my"},
    });
}

TEST(DosListing, KeepsDotNames) {
    expectRows({
        {"Windows server listing dots", "01-15-20  10:30AM       <DIR>          .", 'd', 0, "."},
        {"Windows server listing dots", "01-15-20  10:30AM       <DIR>          ..", 'd', 0, ".."},
        {"dot-file", "01-15-20  10:30AM                   12 .hidden", '-', 12, ".hidden"},
    });
}

TEST(DosListing, WrapsSizesOfTwoGibibytesAndMoreToSigned32Bits) {
    expectRows({
        {"2 GiB - 1", "01-15-20  10:30AM           2147483647 a.dav", '-', 2147483647, "a.dav"},
        {"2 GiB", "01-15-20  10:30AM           2147483648 a.dav", '-', INT32_MIN, "a.dav"},
        {"5 GiB", "01-15-20  10:30AM           5368709120 a.dav", '-', 1073741824, "a.dav"},
        {"4 GiB", "01-15-20  10:30AM           4294967296 a.dav", '-', 0, "a.dav"},
    });
}

TEST(DosListing, MakesRecordsOfShortLinesFromEmptyWords) {
    expectRows({
        {"date and time only", "01-15-20  10:30AM", '-', 0, ""},
        {"three words", "01-15-20  10:30AM  <DIR>", 'd', 0, ""},
        {"blanks only", "     ", '-', 0, ""},
        {"Unix line given to this parser", "drwxr-xr-x 2 u g 4096 Jan 01 10:00 rec", '-', 0, "g"},
    });
}

TEST(DosListing, SplitsTheWordWhereAZeroByteWasTurnedIntoABlank) {
    std::string raw("01-15-20  10:30AM       512 cam");
    raw += '\0';
    raw += "1.dav";
    for (char& c : raw) {
        if (c == '\0') c = ' ';
    }
    expectRows({{"zero byte in the name", raw, '-', 512, "cam"}});
}

TEST(DosListing, SkipsEmptyLinesAndAppendsEveryOtherLineInOrder) {
    Entries entries;
    long long total = 10;
    const std::vector<std::string> lines = {
        "01-15-20  10:30AM       <DIR>          .",
        "",
        "01-15-20  10:30AM       <DIR>          rec",
        "01-15-20  10:30AM                  512 a.dat",
        "01-15-20  10:30AM           3221225472 big.dav",
        "",
    };
    WindowsFTPFileParser parser;
    parser.getFileDescriptorList(lines, entries, total);
    const std::vector<std::string> names = {".", "rec", "a.dat", "big.dav"};
    ASSERT_EQ(names.size(), entries.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(names[i], entries[i]->name) << "entry " << i;
    }
    EXPECT_EQ('d', entries[0]->type);
    EXPECT_EQ('d', entries[1]->type);
    EXPECT_EQ('-', entries[2]->type);
    EXPECT_EQ(10 + 512 - 1073741824LL, total);

    // A second listing is appended after the first; the total keeps growing.
    parser.getFileDescriptorList({"01-16-20  09:00AM  8 b.dat"}, entries, total);
    ASSERT_EQ(5u, entries.size());
    EXPECT_EQ("b.dat", entries[4]->name);
    EXPECT_EQ(10 + 512 - 1073741824LL + 8, total);
}

TEST(DosListing, AppendingListingAfterListingToOneListGrowsItsRoomGeometrically) {
    parsertest::expectRoomGrowsGeometrically<WindowsFTPFileParser>("01-15-20  10:30AM  1 f");
}
