// Shared by the listing fuzz targets: takes arbitrary bytes the way the store
// takes a "LIST" reply and holds the road the store ships (ListingLines,
// detectTextStyle, forEachListedEntry over the whole text) against the
// reference road (the text cut into a vector of lines by StringHandler::split,
// detectListingStyle as getFTPFileType reports it, and the named parsers'
// getFileDescriptorList): the same style, the same number of lines, the same
// entries in the same order and the same total, for any bytes. The reference's
// entries are also checked against an independent reading of the words. The
// store's own walk over that road (StoreListing: zero bytes blanked in place,
// a DOS listing's "." and ".." left out) is held against the reference less
// the same two names. A broken property aborts, which the fuzzer reports with
// the input.
#ifndef FTPDISK_FUZZ_FUZZLISTING_H
#define FTPDISK_FUZZ_FUZZLISTING_H

#include <stddef.h>
#include <stdint.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "filesystem/StoreListing.h"
#include "foundation/SafePointer.h"
#include "host/StringHandler.h"
#include "listing/FTPFileDescriptor.h"
#include "listing/LineWords.h"
#include "listing/LinuxFTPFileParser.h"
#include "listing/ListingLines.h"
#include "listing/ListingSize.h"
#include "listing/ListingStyle.h"
#include "listing/WindowsFTPFileParser.h"

namespace fuzzlisting {

typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > Entries;

inline void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

// The listing text as the store holds it once fetched: its zero bytes turned
// into blanks, so that no line is cut short at one.
inline std::string listingText(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\0') text[i] = ' ';
    }
    return text;
}

// The reference road's lines: the text cut at "\r\n" by the host's splitter.
inline std::vector<std::string> referenceLines(const std::string& text) {
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
// three codes; the shipped road decides the same over the whole text.
inline int checkStyle(const std::string& text, const std::vector<std::string>& lines) {
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
    check(FTPConst::detectTextStyle(text) == style, "the text's style is the lines' style");
    check(FTPConst::ListingLines::count(text) == lines.size(), "the text has as many lines");
    return style;
}

// Sum of the entries' sizes added to the starting total.
inline void checkTotal(const Entries& entries, long long start, long long total) {
    long long sum = start;
    for (size_t i = 0; i < entries.size(); ++i) sum += entries[i]->size;
    check(sum == total, "total grows by exactly the entries' sizes");
}

// The reference parser of `style` over the lines (none for an unknown style,
// as the store gives none).
inline void referenceEntries(int style, const std::vector<std::string>& lines, Entries& entries,
                             long long& total) {
    if (style == FTPConst::kListingUnix) {
        LinuxFTPFileParser().getFileDescriptorList(lines, entries, total);
    } else if (style == FTPConst::kListingDos) {
        WindowsFTPFileParser().getFileDescriptorList(lines, entries, total);
    }
}

// What forEachListedEntry hands out, kept as the reference keeps it.
class Collect {
public:
    Collect(Entries& entries, long long& total) : entries_(entries), total_(total) {}

    bool operator()(FTPConst::FTPFileDescriptor& record) {
        FTPConst::FTPFileDescriptor* kept = new FTPConst::FTPFileDescriptor;
        kept->type = record.type;
        kept->size = record.size;
        kept->name = record.name;
        entries_.emplace_back(kept);
        total_ += static_cast<long long>(kept->size);
        return true;
    }

private:
    Entries& entries_;
    long long& total_;
};

inline void checkSame(const Entries& got, long long gotTotal, const Entries& expected,
                      long long expectedTotal) {
    check(got.size() == expected.size(), "the road keeps as many entries");
    for (size_t i = 0; i < got.size(); ++i) {
        check(got[i]->type == expected[i]->type, "the road's entry has the same type");
        check(got[i]->size == expected[i]->size, "the road's entry has the same size");
        check(got[i]->name == expected[i]->name, "the road's entry has the same name");
    }
    check(gotTotal == expectedTotal, "the road's total is the same");
}

// The shipped road over `text` read as `style` against the reference over
// `lines` read the same way.
inline void checkRoad(const std::string& text, const std::vector<std::string>& lines, int style) {
    Entries expected;
    long long expectedTotal = 5;
    referenceEntries(style, lines, expected, expectedTotal);
    Entries got;
    long long gotTotal = 5;
    Collect collect(got, gotTotal);
    FTPConst::forEachListedEntry(text, style, collect);
    checkSame(got, gotTotal, expected, expectedTotal);
}

// The store's walk over the raw bytes against the reference of the decided
// style, less a DOS listing's "." and ".." (and their sizes).
inline void checkStoreRoad(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    StoreListing::blankZeroBytes(text);
    const std::string blanked = listingText(data, size);
    check(text == blanked, "zero bytes become blanks and nothing else changes");
    const std::vector<std::string> lines = referenceLines(blanked);
    int style = -1;
    check(StoreListing::getFTPFileType(lines, style), "the style is always decided");
    Entries reference;
    long long unused = 0;
    referenceEntries(style, lines, reference, unused);
    Entries expected;
    long long expectedTotal = 11;
    for (size_t i = 0; i < reference.size(); ++i) {
        const std::string& name = reference[i]->name;
        if (style == FTPConst::kListingDos && (name == "." || name == "..")) continue;
        expected.push_back(reference[i]);
        expectedTotal += reference[i]->size;
    }
    Entries got;
    long long gotTotal = 11;
    Collect collect(got, gotTotal);
    StoreListing::forEachEntry(text, collect);
    checkSame(got, gotTotal, expected, expectedTotal);
}

// The whole comparison: the style decided on both roads, then the entries of
// the decided style and of `forced` (so that a target reads every input as
// its kind of listing, whatever the word counts decide).
inline void checkBothRoads(const uint8_t* data, size_t size, int forced) {
    const std::string text = listingText(data, size);
    const std::vector<std::string> lines = referenceLines(text);
    const int style = checkStyle(text, lines);
    checkRoad(text, lines, style);
    if (forced != style) checkRoad(text, lines, forced);
    checkStoreRoad(data, size);
}

}  // namespace fuzzlisting

#endif  // FTPDISK_FUZZ_FUZZLISTING_H
