// Checks shared by the tests of the two listing parsers: the record that one
// line gives, and how an entry list grows when listings are appended to it
// one after another.
#ifndef FTPDISK_TESTS_LISTING_PARSERTESTUTIL_H
#define FTPDISK_TESTS_LISTING_PARSERTESTUTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/SafePointer.h"
#include "listing/FTPFileDescriptor.h"

namespace parsertest {

typedef std::vector<SafePointer<FTPConst::FTPFileDescriptor> > Entries;

// Parses `line` as a listing of its own and checks the one record it gives
// (or, when `kept` is false, that it gives none) and what it added to a total
// that started at 1000. Every failure names `source` and the line.
template <typename Parser>
void expectRecordOfLine(Parser& parser, const char* source, const std::string& line, bool kept,
                        int type, int32_t size, const char* name) {
    Entries entries;
    long long total = 1000;
    parser.getFileDescriptorList(std::vector<std::string>(1, line), entries, total);
    if (!kept) {
        EXPECT_TRUE(entries.empty()) << source << ": [" << line << "]";
        EXPECT_EQ(1000, total) << source << ": [" << line << "]";
        return;
    }
    ASSERT_EQ(1u, entries.size()) << source << ": [" << line << "]";
    EXPECT_EQ(type, entries[0]->type) << source << ": [" << line << "]";
    EXPECT_EQ(size, entries[0]->size) << source << ": [" << line << "]";
    EXPECT_EQ(name, entries[0]->name) << source << ": [" << line << "]";
    EXPECT_EQ(1000 + static_cast<long long>(size), total) << source << ": [" << line << "]";
}

// Appends a thousand one-line listings to one list, line i being `linePrefix`
// followed by i (a file of one byte named "f<i>"), and checks that they all
// arrived and that the list was reallocated at most 11 times. Each
// reallocation copies every record already in the list; one per call would
// make a thousand one-line listings cost a million copies.
template <typename Parser>
void expectRoomGrowsGeometrically(const std::string& linePrefix) {
    Entries entries;
    long long total = 0;
    Parser parser;
    int reallocations = 0;
    for (int i = 0; i < 1000; ++i) {
        const Entries::size_type before = entries.capacity();
        parser.getFileDescriptorList(std::vector<std::string>(1, linePrefix + std::to_string(i)),
                                     entries, total);
        if (entries.capacity() != before) ++reallocations;
    }
    ASSERT_EQ(1000u, entries.size());
    EXPECT_EQ("f999", entries[999]->name);
    EXPECT_EQ(1000, total);
    EXPECT_LE(reallocations, 11);
}

}  // namespace parsertest

#endif  // FTPDISK_TESTS_LISTING_PARSERTESTUTIL_H
