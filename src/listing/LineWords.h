// LineWords: one listing line cut into blank-separated words through the
// host's StringParser.
//
//   "01-15-20  10:30AM       512 a.dat" -> "01-15-20", "10:30AM", "512", "a.dat"
//
// The host's Split takes writable text and may work on it in place, so the line
// is copied once into a buffer of this object that stays unchanged while its
// words are read. A missing word reads as "". One object is used by one thread
// at a time; reuse it across lines to keep its buffer.
#ifndef FTPDISK_LISTING_LINEWORDS_H
#define FTPDISK_LISTING_LINEWORDS_H

#include <stddef.h>

#include <string>
#include <vector>

#include "host/StringParser.h"

namespace FTPConst {

class LineWords {
public:
    LineWords();

    // Splits `line` (up to its first zero byte, as the host reads C text) and
    // returns the number of words.
    int split(const std::string& line);
    // The same for the `length` bytes at `line`, which need no terminator: a
    // line seen in place inside a whole listing.
    int split(const char* line, size_t length);
    // The word at `index`, or "" past the last one.
    std::string word(unsigned int index);

private:
    StringParser parser_;
    std::vector<char> text_;
    char separator_[2];
};

}  // namespace FTPConst

#endif  // FTPDISK_LISTING_LINEWORDS_H
