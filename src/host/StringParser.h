// Host contract: splits one line into words.
//
// Split("01-15-20  10:30AM       512 a.dat", " ") gives 4 words: "01-15-20",
// "10:30AM", "512", "a.dat". A run of separators counts as one, and leading or
// trailing separators give no empty words. The text is copied once into the
// parser's own buffer, which is reused by the next Split. One object is used by
// one thread at a time.
#ifndef FTPDISK_HOST_STRINGPARSER_H
#define FTPDISK_HOST_STRINGPARSER_H

#include <string>
#include <vector>

#include "foundation/Export.h"

class FTPDISK_HOST_API StringParser {
public:
    StringParser();
    ~StringParser();

    // Splits `text` at every occurrence of `separator` (a whole string; an empty
    // or null separator splits at blanks). Returns the number of words.
    int Split(const char* text, const char* separator);
    int Split(const char* text, unsigned int length, const char* separator);

    unsigned int Getcount() const;
    // The word at `index`; an empty word past the last one.
    std::string getItem(unsigned int index) const;
    // The same word without copying: pointer into the parser's buffer (valid
    // until the next Split) and its length; "" and 0 past the last word.
    const char* getItemPointer(unsigned int index, unsigned int* length) const;

private:
    std::string buffer_;
    std::vector<unsigned int> starts_;
    std::vector<unsigned int> lengths_;
};

#endif  // FTPDISK_HOST_STRINGPARSER_H
