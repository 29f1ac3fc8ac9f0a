// Listing sizes wrap to signed 32 bits the same way on every processor.
//
// The entry record keeps a size as a signed 32-bit number. On a 64-bit build a
// size of 3 GiB read with strtol and stored in the field wraps to -1073741824;
// on the 32-bit recorder strtol itself would stop at 2147483647. Recordings of
// 2 GiB and more exist, so both parsers must give the wrapped figure on both,
// and totals must be summed in 64 bits so that several 2 GiB files do not wrap
// the total on a 32-bit `long`.
#include <gtest/gtest.h>

#include <stdint.h>

#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LinuxFTPFileParser.h"
#include "listing/WindowsFTPFileParser.h"

namespace {

typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > Entries;

struct SizeCase {
    const char* sizeColumn;
    int32_t size;  // what the entry record keeps
};

// Sizes at and across the 32-bit boundaries, as servers print them.
const SizeCase kSizeCases[] = {
    {"2147483647", 2147483647},       // 2 GiB - 1: the largest size kept as is
    {"2147483648", -2147483647 - 1},  // 2 GiB: wraps to the most negative number
    {"3221225472", -1073741824},      // 3 GiB
    {"4294967295", -1},               // 4 GiB - 1
    {"4294967296", 0},                // 4 GiB: low 32 bits are zero
    {"4294967301", 5},                // 4 GiB + 5
    {"6442450944", -2147483647 - 1},  // 6 GiB
    {"1099511627776", 0},             // 1 TiB
};

TEST(ListingSizes, AUnixListingSizeAtOrBeyond2GiBWrapsToTheSameSigned32BitNumberEverywhere) {
    for (const SizeCase& c : kSizeCases) {
        // pyftpdlib's form of a Unix listing line.
        const std::string line = std::string("-rw-r--r--   1 rec      rec      ") + c.sizeColumn +
                                 " Jan 15 10:30 ch01.mp4";
        Entries entries;
        long long total = 0;
        LinuxFTPFileParser parser;
        parser.getFileDescriptorList(std::vector<std::string>(1, line), entries, total);
        ASSERT_EQ(entries.size(), 1u) << line;
        EXPECT_EQ(entries[0]->size, c.size) << line;
        EXPECT_EQ(total, static_cast<long long>(c.size)) << line;
        EXPECT_EQ(entries[0]->name, "ch01.mp4") << line;
    }
}

TEST(ListingSizes, ADosListingSizeAtOrBeyond2GiBWrapsToTheSameSigned32BitNumberEverywhere) {
    for (const SizeCase& c : kSizeCases) {
        // IIS's form of a DOS listing line, columns padded with blanks.
        const std::string line =
            std::string("01-15-20  10:30AM         ") + c.sizeColumn + " ch01.mp4";
        Entries entries;
        long long total = 0;
        WindowsFTPFileParser parser;
        parser.getFileDescriptorList(std::vector<std::string>(1, line), entries, total);
        ASSERT_EQ(entries.size(), 1u) << line;
        EXPECT_EQ(entries[0]->type, '-') << line;
        EXPECT_EQ(entries[0]->size, c.size) << line;
        EXPECT_EQ(total, static_cast<long long>(c.size)) << line;
    }
}

TEST(ListingSizes, ATotalOfSeveralFilesJustUnder2GiBGrowsPast4GiBWithoutWrapping) {
    const std::vector<std::string> lines = {
        "-rw-r--r--   1 rec      rec      2147483647 Jan 15 10:30 a.mp4",
        "-rw-r--r--   1 rec      rec      2147483647 Jan 15 11:30 b.mp4",
        "-rw-r--r--   1 rec      rec      2147483647 Jan 15 12:30 c.mp4",
    };
    Entries entries;
    long long total = 1;  // the caller's starting value is kept and added to
    LinuxFTPFileParser parser;
    parser.getFileDescriptorList(lines, entries, total);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(total, 1 + 3 * 2147483647LL);
}

TEST(ListingSizes, ATypeCharacterAbove127GivesItsByteValueWhetherCharIsSignedOrNot) {
    // char is signed on x86 and unsigned on ARM: the entry's type must not
    // depend on that, and such an entry is neither a file nor a directory.
    const std::string line = "\xe9rw-r--r--   1 rec      rec      100 Jan 15 10:30 odd.dat";
    Entries entries;
    long long total = 0;
    LinuxFTPFileParser parser;
    parser.getFileDescriptorList(std::vector<std::string>(1, line), entries, total);
    ASSERT_EQ(entries.size(), 1u) << line;
    EXPECT_EQ(entries[0]->type, 0xe9) << line;
    EXPECT_EQ(entries[0]->size, 100) << line;
}

}  // namespace
