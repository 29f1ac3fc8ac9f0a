// Shared by the listing fuzz targets: takes arbitrary bytes the way the store
// takes a "LIST" reply (zero bytes to blanks, cut at "\r\n"), and checks the
// properties every parse must keep whatever the bytes. A broken property
// aborts, which the fuzzer reports with the input.
#ifndef FTPDISK_FUZZ_FUZZLISTING_H
#define FTPDISK_FUZZ_FUZZLISTING_H

#include <stddef.h>
#include <stdint.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "host/StringHandler.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LineWords.h"
#include "listing/ListingSize.h"
#include "listing/ListingStyle.h"

namespace fuzzlisting {

typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > Entries;

inline void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

inline std::vector<std::string> linesOf(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\0') text[i] = ' ';
    }
    std::vector<std::string> lines;
    StringHandler::split(text, lines, "\r\n");
    return lines;
}

// The size a word must give: strtoll over it, cut to the low 32 bits.
inline int32_t referenceSize(const std::string& word) {
    const long long value = std::strtoll(word.c_str(), NULL, 10);
    const uint32_t low = static_cast<uint32_t>(static_cast<unsigned long long>(value));
    return low <= 0x7FFFFFFFu ? static_cast<int32_t>(low) : -static_cast<int32_t>(~low) - 1;
}

// The style never depends on anything but the word counts, and is one of the
// three codes.
inline void checkStyle(const std::vector<std::string>& lines) {
    const int style = detectListingStyle(lines);
    int expected = FTPConst::kListingUnknown;
    FTPConst::LineWords parser;
    for (size_t i = 0; i < lines.size(); ++i) {
        const int words = parser.split(lines[i]);
        if (words == 4) {
            expected = FTPConst::kListingDos;
            break;
        }
        if (words == 9) {
            expected = FTPConst::kListingUnix;
            break;
        }
    }
    check(style == expected, "style follows the first line of 4 or 9 words");
}

// Sum of the entries' sizes added to the starting total.
inline void checkTotal(const Entries& entries, long long start, long long total) {
    long long sum = start;
    for (size_t i = 0; i < entries.size(); ++i) sum += entries[i]->size;
    check(sum == total, "total grows by exactly the entries' sizes");
}

}  // namespace fuzzlisting

#endif  // FTPDISK_FUZZ_FUZZLISTING_H
