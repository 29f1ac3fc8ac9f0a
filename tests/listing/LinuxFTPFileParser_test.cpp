// Unix-style listing lines as servers send them, and the records made of them.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ParserTestUtil.h"
#include "foundation/SafePointer.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LinuxFTPFileParser.h"

namespace {

using parsertest::Entries;

struct Row {
    const char* source;  // where such a line comes from
    std::string line;
    bool kept;
    int type;
    int32_t size;
    const char* name;
};

// Parses each row as a listing of its own and checks the one record (or its
// absence) and what it added to a total that started at 1000.
void expectRows(const std::vector<Row>& rows) {
    LinuxFTPFileParser parser;
    for (const Row& row : rows) {
        parsertest::expectRecordOfLine(parser, row.source, row.line, row.kept, row.type, row.size,
                                       row.name);
    }
}

}  // namespace

TEST(LinuxListing, ReadsTypeSizeAndNameOfServerLines) {
    expectRows({
        {"example line", "drwxr-xr-x 2 user group 4096 Jan 01 10:00 rec", true, 'd', 4096, "rec"},
        {"Linux daemon LIST",
         "-rw-r--r--    1 1000     1000      1048576 Jan 15 10:30 ch01_20200115.mp4", true, '-',
         1048576, "ch01_20200115.mp4"},
        {"Linux daemon LIST", "drwxr-xr-x    5 1000     1000         4096 Mar 02  2019 archive",
         true, 'd', 4096, "archive"},
        {"Linux daemon LIST, empty file",
         "-rw-------    1 0        0               0 Dec 31 23:59 empty.log", true, '-', 0,
         "empty.log"},
        {"NAS", "drwxrwxrwx   1 admin    administrators        0 Jan 15 10:30 recordings", true,
         'd', 0, "recordings"},
        {"NAS", "-rwxrwxrwx   1 admin    administrators 536870912 Jan 15 10:30 cam1-0001.dav", true,
         '-', 536870912, "cam1-0001.dav"},
        {"NAS with owner names", "-rw-r--r--   1 nvr  users   734003200 Feb 29  2020 leap.mp4",
         true, '-', 734003200, "leap.mp4"},
        {"server with ACL mark", "-rw-r--r--+  1 nvr  users   42 Feb 29 11:11 acl.txt", true, '-',
         42, "acl.txt"},
        {"character device", "crw-rw-rw-   1 root root 1, 3 Jan 01 10:00 null", true, 'c', 1,
         "10:00"},
    });
}

TEST(LinuxListing, KeepsOnlyTheFirstWordOfANameWithBlanks) {
    expectRows({
        {"example line", "-rw-r--r-- 1 u g 100 Jan 01 10:00 my file.dat", true, '-', 100, "my"},
        {"NAS", "drwxr-xr-x 2 admin users 4096 Jan 15 10:30 New   Folder", true, 'd', 4096, "New"},
        {"Linux daemon LIST, trailing blanks", "-rw-r--r-- 1 u g 7 Jan 01 10:00 a.dat   ", true,
         '-', 7, "a.dat"},
    });
}

TEST(LinuxListing, DropsDotNamesWithoutTouchingTheTotal) {
    expectRows({
        {"Linux daemon LIST -a", "drwxr-xr-x    2 1000     1000         4096 Jan 15 10:30 .", false,
         0, 0, ""},
        {"Linux daemon LIST -a", "drwxr-xr-x    9 1000     1000         4096 Jan 15 10:30 ..",
         false, 0, 0, ""},
        {"NAS hidden file", "-rw-r--r--    1 admin    users        6148 Jan 15 10:30 .DS_Store",
         false, 0, 0, ""},
        {"hidden directory", "drwx------    2 nvr      nvr          4096 Jan 15 10:30 .trash",
         false, 0, 0, ""},
        {"dot inside the name is fine", "-rw-r--r-- 1 u g 5 Jan 01 10:00 a.b.c", true, '-', 5,
         "a.b.c"},
    });
}

TEST(LinuxListing, KeepsLinksWithTheirOwnType) {
    expectRows({
        {"Linux daemon LIST, link",
         "lrwxrwxrwx    1 0        0              11 Jan 15  2020 latest -> ch01.mp4", true, 'l',
         11, "latest"},
        {"NAS, link to a directory", "lrwxrwxrwx 1 admin users 9 Jan 15 10:30 share -> /mnt/share",
         true, 'l', 9, "share"},
        {"socket", "srwxrwxrwx 1 root root 0 Jan 15 10:30 ctl", true, 's', 0, "ctl"},
        {"named pipe", "prw-r--r-- 1 root root 0 Jan 15 10:30 fifo", true, 'p', 0, "fifo"},
    });
}

TEST(LinuxListing, WrapsSizesOfTwoGibibytesAndMoreToSigned32Bits) {
    // Sizes read in 64 bits and cut to the low 32: the same on a 64-bit build
    // and on the 32-bit recorder.
    expectRows({
        {"2 GiB - 1", "-rw-r--r-- 1 u g 2147483647 Jan 01 10:00 a.dav", true, '-', 2147483647,
         "a.dav"},
        {"2 GiB", "-rw-r--r-- 1 u g 2147483648 Jan 01 10:00 a.dav", true, '-', INT32_MIN, "a.dav"},
        {"3 GiB", "-rw-r--r-- 1 u g 3221225472 Jan 01 10:00 a.dav", true, '-', -1073741824,
         "a.dav"},
        {"4 GiB - 1", "-rw-r--r-- 1 u g 4294967295 Jan 01 10:00 a.dav", true, '-', -1, "a.dav"},
        {"4 GiB", "-rw-r--r-- 1 u g 4294967296 Jan 01 10:00 a.dav", true, '-', 0, "a.dav"},
        {"4 GiB + 512", "-rw-r--r-- 1 u g 4294967808 Jan 01 10:00 a.dav", true, '-', 512, "a.dav"},
        {"6 GiB", "-rw-r--r-- 1 u g 6442450944 Jan 01 10:00 a.dav", true, '-', INT32_MIN, "a.dav"},
        {"beyond 64 bits saturates", "-rw-r--r-- 1 u g 99999999999999999999 Jan 01 10:00 a.dav",
         true, '-', -1, "a.dav"},
    });
}

TEST(LinuxListing, ReadsOnlyTheLeadingDigitsOfTheSizeWord) {
    expectRows({
        {"size with unit", "-rw-r--r-- 1 u g 12K Jan 01 10:00 a", true, '-', 12, "a"},
        {"size with separators", "-rw-r--r-- 1 u g 2,048 Jan 01 10:00 a", true, '-', 2, "a"},
        {"no digits", "-rw-r--r-- 1 u g none Jan 01 10:00 a", true, '-', 0, "a"},
        {"negative", "-rw-r--r-- 1 u g -5 Jan 01 10:00 a", true, '-', -5, "a"},
        {"plus sign", "-rw-r--r-- 1 u g +77 Jan 01 10:00 a", true, '-', 77, "a"},
        {"leading zeros", "-rw-r--r-- 1 u g 000123 Jan 01 10:00 a", true, '-', 123, "a"},
    });
}

TEST(LinuxListing, MakesRecordsOfShortLinesFromEmptyWords) {
    expectRows({
        {"Linux daemon LIST header", "total 12", true, 't', 0, ""},
        {"blanks only", "    ", true, 0, 0, ""},
        {"eight words", "-rw-r--r-- 1 u g 100 Jan 01 10:00", true, '-', 100, ""},
        {"one word", "x", true, 'x', 0, ""},
    });
}

TEST(LinuxListing, TreatsTabsAsPartOfAWord) {
    // Only blanks separate words: a tab-separated line is one word.
    expectRows({
        {"tabs", "-rw-r--r--\t1\tu\tg\t100\tJan\t01\t10:00\ta", true, '-', 0, ""},
    });
}

TEST(LinuxListing, SplitsTheWordWhereAZeroByteWasTurnedIntoABlank) {
    // The listing's zero bytes are blanks by the time the parser sees them, so
    // "big\0name.dav" arrives as two words and the name is cut.
    std::string raw("-rw-r--r-- 1 u g 100 Jan 01 10:00 big");
    raw += '\0';
    raw += "name.dav";
    for (char& c : raw) {
        if (c == '\0') c = ' ';
    }
    expectRows({{"zero byte in the name", raw, true, '-', 100, "big"}});
}

TEST(LinuxListing, SkipsEmptyLinesAndAppendsInLineOrderToExistingEntries) {
    Entries entries;
    entries.push_back(SafePointer<FTPConst::FTPFileDescriptor>(new FTPConst::FTPFileDescriptor));
    entries[0]->name = "earlier";
    long long total = 5;
    const std::vector<std::string> lines = {
        "total 8",
        "",
        "drwxr-xr-x 2 u g 4096 Jan 01 10:00 rec",
        "drwxr-xr-x 2 u g 4096 Jan 01 10:00 .",
        "-rw-r--r-- 1 u g 512 Jan 01 10:00 a.dat",
        "",
        "-rw-r--r-- 1 u g 3221225472 Jan 01 10:00 big.dav",
        "-rw-r--r-- 1 u g 100 Jan 01 10:00 z.dat",
    };
    LinuxFTPFileParser parser;
    parser.getFileDescriptorList(lines, entries, total);

    const std::vector<std::string> names = {"earlier", "", "rec", "a.dat", "big.dav", "z.dat"};
    ASSERT_EQ(names.size(), entries.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(names[i], entries[i]->name) << "entry " << i;
    }
    // Directories count too, and the wrapped 3 GiB file subtracts 1 GiB.
    EXPECT_EQ(5 + 0 + 4096 + 512 - 1073741824LL + 100, total);
}

TEST(LinuxListing, LeavesEverythingUnchangedForNoLines) {
    Entries entries;
    long long total = -7;
    LinuxFTPFileParser parser;
    parser.getFileDescriptorList(std::vector<std::string>(), entries, total);
    parser.getFileDescriptorList(std::vector<std::string>(3, ""), entries, total);
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(-7, total);
}

TEST(LinuxListing, StoresNonAsciiTypeCharactersAsTheirByteValue) {
    // A byte above 127 reads the same whether char is signed or not.
    expectRows({{"garbage", "\xE2rw 1 u g 9 Jan 01 10:00 x", true, 0xE2, 9, "x"}});
}

TEST(LinuxListing, AppendingListingAfterListingToOneListGrowsItsRoomGeometrically) {
    parsertest::expectRoomGrowsGeometrically<LinuxFTPFileParser>(
        "-rw-r--r-- 1 u g 1 Jan 01 10:00 f");
}
