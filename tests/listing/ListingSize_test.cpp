// Reading the size column into the signed 32-bit size field.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "listing/ListingSize.h"

namespace {

// What strtoll over the whole word and a store into the 32-bit field give on a
// 64-bit host: the reference the reader must match on every platform.
int32_t reference(const std::string& word) {
    const long long value = std::strtoll(word.c_str(), nullptr, 10);
    const uint32_t low = static_cast<uint32_t>(static_cast<unsigned long long>(value));
    return low <= 0x7FFFFFFFu ? static_cast<int32_t>(low) : -static_cast<int32_t>(~low) - 1;
}

struct Row {
    const char* source;
    std::string word;
    int32_t size;
};

}  // namespace

TEST(ListingSize, ReadsLeadingDigitsAndWrapsToTheLow32Bits) {
    const Row rows[] = {
        {"plain", "4096", 4096},
        {"zero", "0", 0},
        {"empty word", "", 0},
        {"thousands separators", "2,048", 2},
        {"lower-case marker", "<dir>", 0},
        {"unit suffix", "512K", 512},
        {"negative", "-12", -12},
        {"plus sign", "+12", 12},
        {"sign alone", "-", 0},
        {"leading zeros", "0000000000000000000000042", 42},
        {"2 GiB - 1", "2147483647", 2147483647},
        {"2 GiB", "2147483648", INT32_MIN},
        {"3 GiB", "3221225472", -1073741824},
        {"4 GiB - 1", "4294967295", -1},
        {"4 GiB", "4294967296", 0},
        {"6 GiB", "6442450944", INT32_MIN},
        {"1 TiB + 7", "1099511627783", 7},
        {"-2 GiB", "-2147483648", INT32_MIN},
        {"-2 GiB - 1", "-2147483649", 2147483647},
        {"2^63 - 1", "9223372036854775807", -1},
        {"2^63 saturates", "9223372036854775808", -1},
        {"20 digits saturate", "99999999999999999999", -1},
        {"-2^63", "-9223372036854775808", 0},
        {"below -2^63 saturates", "-99999999999999999999", 0},
        {"tab before the digits", "\t77", 77},
        {"vertical tab and form feed", "\v\f88", 88},
        {"hex is not read", "0x1F", 0},
        {"digits after a sign and a blank", "- 5", 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.size, FTPConst::readListingSize(row.word.data(),
                                                      static_cast<unsigned int>(row.word.size())))
            << row.source << ": [" << row.word << "]";
        EXPECT_EQ(reference(row.word), row.size) << row.source << ": [" << row.word << "]";
    }
}

TEST(ListingSize, ReadsNoFurtherThanTheGivenLength) {
    // The words handed over point into a longer buffer.
    const char text[] = "12 34";
    EXPECT_EQ(1, FTPConst::readListingSize(text, 1));
    EXPECT_EQ(12, FTPConst::readListingSize(text, 2));
    EXPECT_EQ(0, FTPConst::readListingSize(text, 0));
    // White space alone never reaches into the next word.
    const char blanks[] = "\t\t 34";
    EXPECT_EQ(0, FTPConst::readListingSize(blanks, 2));
}

TEST(ListingSize, AgreesWithStrtollForEveryShortWordOfDigitsSignsAndBlanks) {
    // Every word of up to 4 characters over a small alphabet, and long runs of
    // nines around the 32- and 64-bit limits.
    const char alphabet[] = {'0', '1', '9', '-', '+', ' ', '\t', ',', 'x'};
    const int n = sizeof(alphabet);
    unsigned long checked = 0;
    for (int length = 0; length <= 4; ++length) {
        int combos = 1;
        for (int i = 0; i < length; ++i) combos *= n;
        for (int c = 0; c < combos; ++c) {
            std::string word;
            int rest = c;
            for (int i = 0; i < length; ++i) {
                word += alphabet[rest % n];
                rest /= n;
            }
            ASSERT_EQ(reference(word), FTPConst::readListingSize(
                                           word.data(), static_cast<unsigned int>(word.size())))
                << "[" << word << "]";
            ++checked;
        }
    }
    for (int digits = 1; digits <= 25; ++digits) {
        for (const char* sign : {"", "-", "+"}) {
            const std::string word = sign + std::string(static_cast<size_t>(digits), '9');
            ASSERT_EQ(reference(word), FTPConst::readListingSize(
                                           word.data(), static_cast<unsigned int>(word.size())))
                << "[" << word << "]";
            ++checked;
        }
    }
    EXPECT_EQ(1u + 9u + 81u + 729u + 6561u + 75u, checked);
}
